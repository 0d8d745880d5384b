# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# Completion for kavrel-tv. Commands, options and routes are asked of the tool itself, values of the TV directory.

# The first words of the lines below a headline of a help page.
_kavrel_tv_listed() {
    "$1" ${3:+"$3"} --help 2>/dev/null | awk -v headline="$2" -v column="${4:-1}" \
        '$0 ~ headline { inside = 1; next } inside && !/^  / { inside = 0 } inside { print $column }'
}

_kavrel_tv_below() { # the names below a folder of the TV directory
    local folder=$directory/$1
    [ ! -d "$folder" ] || (cd "$folder" && find . -name '.?*' -prune -o -type "$2" -printf '%P\n')
}

_kavrel_tv() {
    local tool=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]}
    local command='' given=0 choices='' directory=${KAVREL_TV_DIR:-/run/kavrel} option='' i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --json | --fast | --deaf | --double | -h | --help | --version) ;;
            -[!0-9]*)
                option=${COMP_WORDS[i]}
                i=$((i + 1)) # its value, before which a "=" may be a word of its own
                [ "${COMP_WORDS[i]}" != = ] || i=$((i + 1))
                [ "$option" != --dir ] || directory=${COMP_WORDS[i]}
                ;;
            *) if [ -z "$command" ]; then command=${COMP_WORDS[i]}; else given=$((given + 1)); fi ;;
        esac
    done
    COMPREPLY=()
    if ((i > COMP_CWORD)); then # the value of an option
        [ "$option" != --dir ] || mapfile -t COMPREPLY < <(compgen -d -- "${word#=}")
        return
    fi
    case $word/$command/$given in
        -*) choices=$(_kavrel_tv_listed "$tool" '^Options:' "$command" | tr ',' '\n') ;;
        *//0) choices=$(_kavrel_tv_listed "$tool" '^Commands:') ;;
        */route/0 | */zone-route/1) choices=$(_kavrel_tv_listed "$tool" '^The routes' route 2) ;;
        */focus/0 | */zone-route/0) choices=$(_kavrel_tv_below sound/zones d) ;;
        */sub-bt/0) choices="none $(_kavrel_tv_below sound/zones d)" ;;
        */multiview/0 | */mobile/0 | */popup/0 | */mute/0 | */feature/1) choices='on off' ;;
        */feature/0) choices="internal-speaker multiview projector $(_kavrel_tv_below features f)" ;;
        */cable/0) choices='in out' ;;
        */projector/0) choices='ready not-ready' ;;
        */key/0) choices=$(_kavrel_tv_below settings f) ;;
        */emulator/0) choices='tv bt' ;;
        */play/0 | */record/0 | */plot/[01])
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$word")
}

complete -F _kavrel_tv kavrel-tv
