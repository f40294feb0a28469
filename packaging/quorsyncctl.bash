# bash completion for quorsyncctl. Verbs and options come from its own help, and so are never
# behind it.

_quorsyncctl_help() {
    # The names that the help of a verb lists: subcommands as "  name  text", options as "-x,--xx".
    quorsyncctl "$@" --help 2>/dev/null | awk -v wanted="$wanted" '
        /^[A-Z][A-Za-z ]*:/ { section = $1 }
        section == wanted && /^  [^ ]/ { gsub(/,/, " ", $1); print $1 }'
}

_quorsyncctl_keys() {
    # The keys of the file that the command line names.
    local n file=config
    for ((n = 1; n < ${#words[@]} - 1; n++)); do
        [[ ${words[n]} == -f || ${words[n]} == --file ]] && file=${words[n + 1]}
    done
    quorsyncctl store dump --file "$file" 2>/dev/null | sed 's/=.*//'
}

_quorsyncctl_offer() {
    # The lines of standard input that begin with the current word. Not by "compgen -W", which
    # expands its words: a key or a setting may hold "$(command)".
    local offered
    while IFS= read -r offered; do
        [[ -n $offered && $offered == "$current"* ]] && COMPREPLY+=("$offered")
    done
}

_quorsyncctl() {
    # Words between blanks: bash itself also separates them at ":", which MAC addresses have.
    local line=${COMP_LINE:0:COMP_POINT} words
    read -ra words <<<"$line"
    [[ $line == *[[:space:]] ]] && words+=("")
    local count=${#words[@]}
    local current=${words[count - 1]} previous=${words[count - 2]} before=""
    ((count > 3)) && before=${words[count - 3]}
    local word verbs=() wanted=Subcommands: found
    COMPREPLY=()
    for word in "${words[@]:1:count-2}"; do
        grep -qxF -e "$word" <<<"$(_quorsyncctl_help "${verbs[@]}")" && verbs+=("$word")
    done
    case "$previous ${verbs[*]}" in
        --file\ * | -f\ store*) found="config client disk" ;;
        --set\ *) found="auto config client" ;;
        --peer\ *) found=$(quorsyncctl store get server_list 2>/dev/null | tr , ' ') ;;
        bump\ *) found="config client dsver" ;;
        diff\ * | *\ diff) found="config client disk" ;;
        --since\ *) found="all today yesterday 30m 2h 3d 1w" ;;
        --html\ *) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        --dir\ *) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    esac
    case "${verbs[*]}" in
        store\ get | store\ put | store\ del | store\ list-*)
            if [[ -z $found && $current != -* &&
                ($previous == -* || $previous == "${verbs[1]}" || $before == -f || $before == --file) ]]; then
                _quorsyncctl_offer < <(_quorsyncctl_keys)
                # What stands before the last ":" is on the line already.
                COMPREPLY=("${COMPREPLY[@]#"${current%"${current##*:}"}"}")
                return
            fi
            ;;
    esac
    if [ -z "$found" ] || [[ $current == -* ]]; then
        [[ $current == -* ]] && wanted=Options:
        found=$(_quorsyncctl_help "${verbs[@]}")
    fi
    _quorsyncctl_offer <<<"${found//[[:blank:]]/$'\n'}"
    [ ${#COMPREPLY[@]} -gt 0 ] || mapfile -t COMPREPLY < <(compgen -f -- "$current")
}
complete -o filenames -F _quorsyncctl quorsyncctl
