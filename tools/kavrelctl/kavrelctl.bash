# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# Completion of kavrelctl for bash; needs nothing but bash.
_kavrelctl() {
    local current=${COMP_WORDS[COMP_CWORD]} arguments=() index words=''
    for ((index = 1; index < COMP_CWORD; index++)); do
        case ${COMP_WORDS[index]} in
            --timeout)
                ((index++)) # its value, before which a "=" may be a word of its own
                [ "${COMP_WORDS[index]}" != = ] || ((index++))
                ;;
            -*) ;;
            *) arguments+=("${COMP_WORDS[index]}") ;;
        esac
    done
    COMPREPLY=()
    ((index == COMP_CWORD)) || return 0 # the value of --timeout
    case "${arguments[*]}" in
        '') words='status support volume mute fade gain pulse buds speaker-gone wait monitor' ;;
        mute) words='on off toggle' ;;
        fade) words='player unmute' ;;
        gain) words='reset on-mute' ;;
        'fade player' | 'fade unmute' | 'gain reset' | 'gain on-mute '*[0-9]) words='main sub both' ;;
        buds) words='connected disconnected' ;;
    esac
    if [[ $current == -* ]]; then
        case "${arguments[*]}" in
            '') words='--help --version --timeout' ;;
            gain) words='--help' ;;
            status* | support* | volume* | mute*) words='--help --timeout --json' ;;
            monitor*) words='--help --timeout --json --calls' ;;
            *) words='--help --timeout' ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _kavrelctl kavrelctl
