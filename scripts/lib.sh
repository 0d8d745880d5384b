# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# shellcheck disable=SC2034 # the scripts that source this file use the variables
# run, test, bench and lint source this file: it knows the Debian packages that they need, builds, and lists the project's
# files.
set -euo pipefail

unset CDPATH
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
me=./${0##*/}

say() { printf '%s: %s\n' "$me" "$*" >&2; }

die() {
    say "$@"
    exit 1
}

# A command or a file of each Debian package: looking for that takes no time, asking dpkg does.
declare -A proof=(
    [arch-test]=arch-test
    [build-essential]=/usr/share/build-essential/list
    [clang]=clang++
    [clang-format]=clang-format
    [clang-tidy]=clang-tidy
    [dbus-broker]=dbus-broker-launch
    [dbus-daemon]=dbus-daemon
    [debhelper]=dh
    [dpkg-dev]=dpkg-buildpackage
    [g++]=g++
    [gnuplot-nox]=gnuplot
    [libbenchmark-dev]=/usr/include/benchmark/benchmark.h
    [libcli11-dev]=/usr/include/CLI/CLI.hpp
    [libglib2.0-bin]=gdbus
    [libglib2.0-dev]=/usr/include/glib-2.0/gio/gio.h
    [libgmock-dev]=/usr/include/gmock/gmock.h
    [libgtest-dev]=/usr/include/gtest/gtest.h
    [libjsoncpp-dev]=/usr/include/jsoncpp/json/json.h
    [libpulse-dev]=/usr/include/pulse/glib-mainloop.h
    [lintian]=lintian
    [llvm]=llvm-cov
    [lowdown]=lowdown
    [make]=make
    [mandoc]=mandoc
    [meson]=meson
    [mmdebstrap]=mmdebstrap
    [ninja-build]=ninja
    [pipewire]=pipewire
    [pipewire-pulse]=pipewire-pulse
    [pkg-config]=pkg-config
    [pulseaudio]=pulseaudio
    [pulseaudio-utils]=pactl
    [python3]=/usr/bin/python3
    [python3-gi]=/usr/lib/python3/dist-packages/gi/__init__.py
    [python3-pytest]=/usr/lib/python3/dist-packages/pytest/__init__.py
    [shellcheck]=shellcheck
    [strace]=strace
    [systemd]=busctl
    [wireplumber]=wireplumber
)
to_build=(g++ meson ninja-build pkg-config libglib2.0-dev libjsoncpp-dev libcli11-dev)
to_run=("${to_build[@]}" dbus-daemon libglib2.0-bin systemd)
to_test=("${to_run[@]}" dbus-broker make libgtest-dev libgmock-dev python3-gi python3-pytest gnuplot-nox strace)
to_run_sound=("${to_run[@]}" libpulse-dev)
to_test_sound=("${to_run_sound[@]}" gnuplot-nox pipewire pipewire-pulse pulseaudio pulseaudio-utils python3-gi python3-pytest wireplumber)
to_bench=("${to_run[@]}" libbenchmark-dev python3 strace)
to_package=("${to_build[@]}" arch-test build-essential debhelper dpkg-dev libpulse-dev lintian lowdown mandoc mmdebstrap python3-gi python3-pytest)
to_fuzz=("${to_test[@]}" clang llvm)
to_lint=("${to_test[@]}" libbenchmark-dev libpulse-dev clang clang-format clang-tidy shellcheck)

is_there() {
    case ${proof[$1]-} in
        '') die "lib.sh does not know the package $1" ;;
        /*) [ -e "${proof[$1]}" ] ;;
        *) command -v "${proof[$1]}" >/dev/null ;;
    esac
}

missing_of() {
    local package
    for package in "$@"; do
        is_there "$package" || echo "$package"
    done
}

# Prints the command that runs another one as root: nothing for root itself, sudo for others. Fails without either.
become_root() {
    if [ "$(id -u)" = 0 ]; then
        return
    elif command -v sudo >/dev/null && { [ -t 0 ] || sudo -n true 2>/dev/null; }; then
        echo sudo
    else
        return 1
    fi
}

# units_of_servers PACKAGES: prints the units of the sound servers among the packages.
units_of_servers() {
    local package
    for package in $1; do
        case $package in
            pulseaudio | pipewire | pipewire-pulse) printf '%s ' "$package.service" "$package.socket" ;;
            wireplumber) printf '%s ' wireplumber.service ;;
        esac
    done
}

# need PACKAGE...: installs the packages that are missing.
need() {
    local missing as_root units
    missing=$(missing_of "$@" | paste -sd ' ')
    [ -n "$missing" ] || return 0
    local install="apt-get update && apt-get install -y --no-install-recommends $missing"
    # These packages would change the bus of the machine at its next boot, or the sound server of its users at their next
    # login; the tests only start a bus and servers of their own.
    [[ " $missing " != *' dbus-broker '* ]] ||
        install+=" && systemctl disable dbus-broker && systemctl --global disable dbus-broker"
    units=$(units_of_servers "$missing")
    [ -z "$units" ] || install+=" && { systemctl --global disable $units || true; }"
    if ! as_root=$(become_root); then
        say "these Debian packages are missing: $missing"
        die "as root, this installs them: $install"
    fi
    say "installing the Debian packages $missing"
    # apt-get fails while another apt-get fetches the package lists; with the lock the second one waits.
    $as_root flock /var/lib/apt env DEBIAN_FRONTEND=noninteractive sh -c "$install" </dev/null >&2 ||
        die "the packages could not be installed; as root, this installs them: $install"
    missing=$(missing_of "$@" | paste -sd ' ')
    [ -z "$missing" ] || die "still not there after the installation: $missing"
}

# configure NAME MESON_OPTION...: sets up build/NAME, anew if the clone was moved or the options are others. Leaves it
# locked in $lock, so that another script that builds the same directory waits.
configure() {
    local directory=$root/build/$1 made_with said
    shift
    made_with="$root $*"
    mkdir -p "$root/build"
    exec {lock}>"$directory.lock"
    flock "$lock"
    if [ ! -f "$directory/build.ninja" ] || [ "$(cat "$directory/made-with" 2>/dev/null)" != "$made_with" ]; then
        rm -rf "$directory"
        said=$(meson setup "$@" "$directory" "$root" </dev/null 2>&1) || die "meson could not set up $directory: $said"
        printf '%s\n' "$made_with" >"$directory/made-with"
    fi
}

# make_target TARGET NAME MESON_OPTION...: brings ninja's TARGET in build/NAME up to date.
make_target() {
    local target=$1 directory=$root/build/$2 lock
    shift
    # A directory of another user can be used as it is while it is up to date.
    if [ -e "$directory.lock" ] && [ ! -w "$directory.lock" ]; then
        [[ $(ninja -C "$directory" -n "$target" 2>&1) == *'no work to do.'* ]] ||
            die "$directory belongs to another user and is out of date; remove it, or use a clone of your own"
        return
    fi
    configure "$@"
    case $(cd "$directory" && ninja -n "$target") in
        *'no work to do.'*) ;;
        *) (cd "$directory" && ninja -j "$(nproc)" "$target") </dev/null >&2 || die "the build in $directory failed" ;;
    esac
    exec {lock}>&-
}

# build NAME MESON_OPTION...: brings build/NAME up to date.
build() { make_target all "$@"; }

# set_up NAME MESON_OPTION...: brings the directory build/NAME up to date, but builds nothing.
set_up() { make_target build.ninja "$@"; }

build_release() {
    [ -e "$root/build/release/src/kavreld" ] || say "first build: about a minute"
    build release --buildtype=release
}

# Prints each line of .gitignore as conditions for find: "/" begins a path, and ends the name of a folder.
ignored() {
    local line
    while read -r line; do
        case $line in
            '' | '#'*) continue ;;
            */) printf '%s\n' -o -type d ;;
            *) printf '%s\n' -o ;;
        esac
        case ${line%/} in
            /*) printf '%s\n' -path ".${line%/}" ;;
            *) printf '%s\n' -name "${line%/}" ;;
        esac
    done <.gitignore
}

# files PATTERN...: the project's files, new ones included. git also reads a clone that belongs to another user; a release
# archive has no git.
files() {
    local pattern ignored chosen=(-false)
    cd "$root"
    if [ -e .git ]; then
        git -c safe.directory="$root" ls-files --cached --others --exclude-standard --deduplicate -- "$@"
        return
    fi
    for pattern in "${@:-*}"; do
        chosen+=(-o -path "./$pattern")
    done
    readarray -t ignored < <(ignored)
    find . '(' -false "${ignored[@]}" ')' -prune -o -type f '(' "${chosen[@]}" ')' -printf '%P\n'
}
