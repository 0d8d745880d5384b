# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# shellcheck shell=bash disable=SC2034
# What run, test and bench share: the Debian packages they need, and how they build. Sourced, not run.
set -euo pipefail

unset CDPATH
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
me=./${0##*/}

say() { printf '%s: %s\n' "$me" "$*" >&2; }

die() {
    say "$@"
    exit 1
}

# Each Debian package with one command or file that it brings: looking for that costs nothing, asking dpkg does.
declare -A proof=(
    [g++]=g++
    [meson]=meson
    [ninja-build]=ninja
    [pkg-config]=pkg-config
    [libglib2.0-dev]=/usr/include/glib-2.0/gio/gio.h
    [libjsoncpp-dev]=/usr/include/jsoncpp/json/json.h
    [libcli11-dev]=/usr/include/CLI/CLI.hpp
    [dbus-daemon]=dbus-daemon
    [libglib2.0-bin]=gdbus
    [systemd]=busctl
    [gnuplot-nox]=gnuplot
    [libgtest-dev]=/usr/include/gtest/gtest.h
    [libgmock-dev]=/usr/include/gmock/gmock.h
    [python3-gi]=/usr/lib/python3/dist-packages/gi/__init__.py
    [python3-pytest]=/usr/lib/python3/dist-packages/pytest/__init__.py
    [libbenchmark-dev]=/usr/include/benchmark/benchmark.h
)
to_run=(g++ meson ninja-build pkg-config libglib2.0-dev libjsoncpp-dev libcli11-dev dbus-daemon libglib2.0-bin systemd
    gnuplot-nox)
to_test=("${to_run[@]}" libgtest-dev libgmock-dev python3-gi python3-pytest)
to_bench=("${to_run[@]}" libbenchmark-dev)

is_there() {
    case ${proof[$1]} in
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

# Prints what has to stand before a command for it to run as root; fails where nobody may become root.
become_root() {
    if [ "$(id -u)" = 0 ]; then
        return
    elif command -v sudo >/dev/null && { [ -t 0 ] || sudo -n true 2>/dev/null; }; then
        echo sudo
    else
        return 1
    fi
}

# Installs those of the packages that are not there.
need() {
    local missing as_root
    missing=$(missing_of "$@" | paste -sd ' ')
    [ -n "$missing" ] || return 0
    local install="apt-get update && apt-get install -y --no-install-recommends $missing"
    if ! as_root=$(become_root); then
        say "these Debian packages are missing: $missing"
        die "as root, this installs them: $install"
    fi
    say "installing the Debian packages $missing"
    # One at a time: apt-get itself does not wait for another one that fetches the package lists.
    $as_root flock /var/lib/apt env DEBIAN_FRONTEND=noninteractive sh -c "$install" </dev/null >&2 ||
        die "the packages could not be installed; as root, this installs them: $install"
    missing=$(missing_of "$@" | paste -sd ' ')
    [ -z "$missing" ] || die "still not there after the installation: $missing"
}

# build NAME MESON_OPTION...: brings build/NAME up to date. Copies that run at once take turns.
build() {
    local directory=$root/build/$1 lock
    shift
    mkdir -p "$root/build"
    # A tree that another user has built serves everybody until it changes.
    if [ -e "$directory.lock" ] && [ ! -w "$directory.lock" ]; then
        [[ $(ninja -C "$directory" -n 2>&1) == *'no work to do.'* ]] ||
            die "$directory belongs to another user and is out of date; remove it, or use a clone of your own"
        return
    fi
    exec {lock}>"$directory.lock"
    flock "$lock"
    # Another place or other options than those it was made with: made anew.
    local made_with="$root $*"
    if [ ! -f "$directory/build.ninja" ] || [ "$(cat "$directory/made-with" 2>/dev/null)" != "$made_with" ]; then
        rm -rf "$directory"
        meson setup "$@" "$directory" "$root" </dev/null >&2 || die "meson could not set up $directory"
        printf '%s\n' "$made_with" >"$directory/made-with"
    fi
    case $(cd "$directory" && ninja -n) in
        *'no work to do.'*) ;;
        *) (cd "$directory" && ninja -j "$(nproc)") </dev/null >&2 || die "the build in $directory failed" ;;
    esac
    exec {lock}>&-
}

build_release() { build release --buildtype=release -Dtests=false; }
