# Completion of reflectorb in bash: subcommands, options, and what is there on the running system.
_reflectorb() {
    local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]:-} IFS=$'\n'
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$(reflectorb --help 2>/dev/null |
            sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p')" -- "$word")
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(reflectorb "$command" --help 2>/dev/null |
            grep -o -- '--[a-z]*' | sort -u)" -- "$word")
    elif [[ $command == replay || ($command == record && COMP_CWORD -eq 2) ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    else
        # Who presses a key waits for it: who hangs is left out.
        mapfile -t COMPREPLY < <(reflectorb complete \
            --timeout "${REFLECTORB_COMPLETION_TIMEOUT:-0.08}" -- \
            "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null </dev/null)
        # Names come from other processes: to the shell they are words and nothing else.
        ((${#COMPREPLY[@]} == 0)) || mapfile -t COMPREPLY < <(printf '%q\n' "${COMPREPLY[@]}")
        # Members may follow an object.
        case $command in show) compopt -o default ;; get | set | call | watch | veto) compopt -o nospace ;; esac
    fi
}
complete -F _reflectorb reflectorb
