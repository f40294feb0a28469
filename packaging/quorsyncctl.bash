# bash completion for quorsyncctl. Verbs and options come from its own help, and so are never
# behind it.

_quorsyncctl_help() {
    # The names that the help of a verb lists: subcommands as "  name  text", options as "-x,--xx".
    quorsyncctl "$@" --help 2>/dev/null | awk -v wanted="$wanted" '
        /^[A-Z][A-Za-z ]*:/ { section = $1 }
        section == wanted && /^  [^ ]/ { gsub(/,/, " ", $1); print $1 }'
}

_quorsyncctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local word verbs=() wanted=Subcommands: found
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        grep -qxF -e "$word" <<<"$(_quorsyncctl_help "${verbs[@]}")" && verbs+=("$word")
    done
    case "$previous ${verbs[*]}" in
        --file\ * | -f\ store*) found="config client disk" ;;
        --set\ *) found="auto config client" ;;
        bump\ *) found="config client dsver" ;;
        diff\ * | *\ diff) found="config client disk" ;;
        --since\ *) found="today yesterday 30m 2h 3d" ;;
        --dir\ *) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    esac
    if [ -z "$found" ] || [[ $current == -* ]]; then
        [[ $current == -* ]] && wanted=Options:
        found=$(_quorsyncctl_help "${verbs[@]}")
    fi
    mapfile -t COMPREPLY < <(compgen -W "$found" -- "$current")
    [ ${#COMPREPLY[@]} -gt 0 ] || mapfile -t COMPREPLY < <(compgen -f -- "$current")
}
complete -o filenames -F _quorsyncctl quorsyncctl
