# shellcheck shell=bash
# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
# Completion of kavrelctl, kavrel-tv and kavrel-sound. The words come from their help pages; zones and keys, from the TV directory.

_kavrel_section() { # the entries of a section of the help page in $page, such as Commands
    sed -n "/^$1:/,/^\$/s/^  \([^ ]\)/\1/p" <<<"$page"
}

_kavrel_names() { # the directories (d) or files (f) below a folder of the TV directory
    [ ! -d "$directory/$1" ] || (cd "$directory/$1" && find . -name '.?*' -prune -o -type "$2" -printf '%P\n')
}

_kavrel_complete() {
    local tool=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]} directory=${KAVREL_TV_DIR:-/run/kavrel}
    local page command=() given=1 help='' entry='' name word words='' i
    page=$("$tool" --help 2>/dev/null)
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -[!0-9]* ]]; then
            entry=$(_kavrel_section Options | grep -E -- "^(-.,)?$word [A-Z]" 2>/dev/null) || continue
            ((++i)) # the option's value, before which a "=" may be a word of its own
            [ "${COMP_WORDS[i]}" != = ] || ((++i))
            [ "$word" != --dir ] || directory=${COMP_WORDS[i]-}
        elif [ "${command[*]}$help$word" = help ]; then
            help=1 # its words are those of the list of commands
        elif _kavrel_section Commands | grep -q -- "^$word " 2>/dev/null; then
            command+=("$word")
            page=$("$tool" "${command[@]}" --help 2>/dev/null)
        else
            ((++given))
        fi
    done
    if ((i > COMP_CWORD)); then
        entry=${entry#* } # the value of an option, after its name
    elif [[ $current == -* ]]; then
        [ -z "$help" ] || page=$("$tool" help --help 2>/dev/null)
        entry="OPTION $(_kavrel_section Options | sed 's/ .*//; s/.*,//' | tr '\n' '|')"
    elif [[ $page == *$'\nCommands:'* ]]; then
        entry="COMMAND $(_kavrel_section Commands | sed 's/ .*//' | tr '\n' '|')"
    elif [ -z "$help" ]; then
        entry=$(_kavrel_section Arguments | sed -n "${given}p")
    fi
    read -r name word _ <<<"$entry" # the argument's name, and its words in the form on|off;
    [[ $word != *'|'* ]] || words=${word%;}
    [[ $entry != *'or none'* ]] || words=none
    case "${command[*]} $name" in
        *' ROUTE') words=$("$tool" route --help | sed -n 's/^ *[0-9]\+  \([a-z0-9-]*\).*/\1/p') ;;
        *' ZONE') words+=" $(_kavrel_names sound/zones d)" ;;
        'feature KEY') words="internal-speaker multiview projector $(_kavrel_names features f)" ;;
        *' KEY') words=$(_kavrel_names settings f) ;;
    esac
    case $name in
        DIR) mapfile -t COMPREPLY < <(compgen -d -- "${current#=}") ;;
        FILE* | PICTURE) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        *) mapfile -t COMPREPLY < <(compgen -W "${words//|/ }" -- "$current") ;;
    esac
}
complete -F _kavrel_complete kavrelctl kavrel-tv kavrel-sound
