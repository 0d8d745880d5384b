# shellcheck shell=bash
# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# shellcheck disable=SC2154 # run and lib.sh set $tools and $me
# ./run sources this file: it finds the scenes of running ./run, and joins one.
#
# A scene is a folder kavrel.XXXXXX. Once all of it is ready its file "scene" holds these fields, each ended by a zero
# byte: the pid of its ./run, that process's start, the bus address, the TV's directory, the tools' folders, the installer
# of packages, the command line of ./run, and the folder of its headless sound server, which may be empty.

scenes=${KAVREL_SCENES-}
if [ -z "$scenes" ]; then
    scenes=/dev/shm
    [ -w "$scenes" ] || scenes=${TMPDIR:-/tmp}
fi

# Prints when process PID began. A later process may get the same pid, but not the same start.
start_of() {
    { sed 's/.*) //' "/proc/$1/stat" | cut -d ' ' -f 20; } 2>/dev/null
}

# Prints how this ./run was called, on one line that is not too long.
command_line() {
    local line="./run $*"
    line=${line//[[:cntrl:]]/ }
    [ ${#line} -le 60 ] || line=${line::57}...
    printf '%s' "${line% }"
}

# publish_scene FOLDER [ARGUMENTS of ./run]: lets others join the scene.
publish_scene() {
    printf '%s\0' "$$" "$(start_of "$$")" "$DBUS_SYSTEM_BUS_ADDRESS" "$KAVREL_TV_DIR" "$tools" "${KAVREL_INSTALL-}" \
        "$(command_line "${@:2}")" "${headless:+$1/sound}" >"$1/scene.new"
    mv "$1/scene.new" "$1/scene"
}

# read_scene FOLDER: sets the fields of the scene as $of_pid and so on. Fails if the scene does not run, or if another
# user made it.
read_scene() {
    local fields
    [ -O "$1" ] && mapfile -d '' -t fields 2>/dev/null <"$1/scene" && [ "${#fields[@]}" = 8 ] || return
    of_pid=${fields[0]}
    of_address=${fields[2]}
    of_tv=${fields[3]}
    of_tools=${fields[4]}
    of_installer=${fields[5]}
    of_command=${fields[6]}
    of_sound=${fields[7]}
    [ "$(start_of "$of_pid")" = "${fields[1]}" ]
}

# Leaves the folders of the scenes that run in $running.
find_running() {
    local folder
    running=()
    for folder in "$scenes"/kavrel.??????; do
        ! read_scene "$folder" || running+=("$folder")
    done
}

list_running() {
    local folder
    for folder in "${running[@]}"; do
        ! read_scene "$folder" || printf '  %-20s # %s\n' "./run --join=$of_pid" "$of_command"
    done >&2
}

# find_scene FIELD VALUE: reads the running scene whose field has the value; fails if there is none.
find_scene() {
    local folder
    for folder in "${running[@]}"; do
        ! read_scene "$folder" || [ "${!1}" != "$2" ] || return 0
    done
    return 1
}

# choose_scene [PID]: reads the scene of the ./run with this pid; without a pid, the one that this shell is in, or else
# the only one.
choose_scene() {
    find_running
    if [ ${#running[@]} = 0 ]; then
        die "you have no ./run that is ready; start one in another terminal"
    elif [ -n "${1-}" ]; then
        find_scene of_pid "$1" && return
        say "$1 is not the pid of a ./run that is ready. These are:"
    elif find_scene of_tv "${KAVREL_TV_DIR-}"; then
        return
    elif [ ${#running[@]} = 1 ] && read_scene "${running[0]}"; then
        return
    else
        say "there are several to join:"
    fi
    list_running
    exit 1
}

# check_command COMMAND CALL: refuses a COMMAND that does not exist, and names the tool that has a command of this name.
# CALL is the part of the command line before COMMAND, such as ./run --join.
check_command() {
    local tool hint=
    if type -P -- "$1" >/dev/null || [[ $1 == */* && -e $1 ]]; then
        return
    fi
    for tool in kavrel-tv kavrelctl kavrel-sound; do
        ! "$tool" help "$1" >/dev/null 2>&1 || hint="; did you mean $2 $tool $1?"
    done
    say "there is no command $1$hint"
    exit 127
}

# join_scene PID [COMMAND [ARGS...]]: becomes COMMAND, or a shell, in the scene.
join_scene() {
    choose_scene "$1"
    local call="./run --join${1:+=$1}"
    shift
    export DBUS_SYSTEM_BUS_ADDRESS=$of_address KAVREL_TV_DIR=$of_tv PATH=$of_tools:$PATH
    [ -z "$of_sound" ] || use_sound "$of_sound"
    [ -z "$of_installer" ] || export KAVREL_INSTALL=$of_installer
    if [ $# = 0 ]; then
        [ ! -t 0 ] || say "a shell with kavrelctl and kavrel-tv; exit leaves it"
        export debian_chroot=kavrel # Debian's prompt shows this word
        set -- "${SHELL:-bash}"
    else
        check_command "$1" "$call"
    fi
    exec bash -c 'exec "$@"' "$me" "$@"
}

# is_new FOLDER: whether nobody has filled this folder with a TV yet. As the daemon does, this overlooks hidden files, and
# the link settings/db if there are no settings.
is_new() {
    local values
    values=$(cd "$1" && find . -mindepth 1 -maxdepth 2 -name '.*' -prune -o -path ./settings -type d \
        -o -path ./settings/db -type l -o -print -quit) && [ -z "$values" ]
}

# is_tv FOLDER: whether kavrel-tv takes this folder for a TV, or the daemon makes one of it.
is_tv() { [ -e "$1/sound" ] || [ -f "$1/.filling" ] || is_new "$1"; }

# Refuses a KAVREL_TV_DIR that another ./run uses, that has gone with its ./run, or that is something else than a TV: this
# ./run would remove files there.
check_tv() {
    find_running
    if find_scene of_tv "$KAVREL_TV_DIR"; then
        say "KAVREL_TV_DIR names the TV of $of_command (pid $of_pid), which is running."
        say "./run --join COMMAND runs a command there; for a new TV, first: unset KAVREL_TV_DIR DBUS_SYSTEM_BUS_ADDRESS"
        exit 1
    elif [[ $KAVREL_TV_DIR == */kavrel.??????/tv && ! -e $KAVREL_TV_DIR ]]; then
        say "KAVREL_TV_DIR names the TV of a ./run that has ended: $KAVREL_TV_DIR"
        say "./run --join joins one that is running; for a new TV, first: unset KAVREL_TV_DIR DBUS_SYSTEM_BUS_ADDRESS"
        exit 1
    elif [ -e "$KAVREL_TV_DIR" ] && [ ! -d "$KAVREL_TV_DIR" ]; then
        die "KAVREL_TV_DIR names no directory: $KAVREL_TV_DIR"
    elif [ -e "$KAVREL_TV_DIR" ] && ! is_tv "$KAVREL_TV_DIR"; then
        die "KAVREL_TV_DIR names a directory that is neither empty nor a TV: $KAVREL_TV_DIR"
    fi
}
