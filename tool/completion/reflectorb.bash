# Completion of reflectorb in bash: subcommands, options, and what is there on the running system.
_reflectorb() {
    local cur=${COMP_WORDS[COMP_CWORD]} words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
    # The shell takes "@", ":" and "=" for ends of words, which they are not in names.
    ! declare -F _get_comp_words_by_ref >/dev/null || _get_comp_words_by_ref -n '@:=' cur words cword
    local word=$cur IFS=$'\n'
    local command=${words[1]:-} previous=${words[cword-1]:-} ahead=${word%"${word##*[@:=]}"}
    if ((cword == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$(reflectorb --help 2>/dev/null |
            sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p')" -- "$word")
        return
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(reflectorb "$command" --help 2>/dev/null |
            grep -o -- '--[a-z]*' | sort -u)" -- "$word")
        return
    fi
    case $command,$previous,$cword in
    *,--class,* | *,--process,* | *,--below,* | *,--to,* | *,--only,*) ;;
    *,--token-file,* | replay,* | record,*,2)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    esac
    # Who presses a key waits for it: who hangs is left out.
    mapfile -t COMPREPLY < <(reflectorb complete \
        --timeout "${REFLECTORB_COMPLETION_TIMEOUT:-0.05}" -- \
        "${words[@]:1:cword}" 2>/dev/null </dev/null)
    # Names come from other processes: to the shell they are words and nothing else.
    ((${#COMPREPLY[@]} == 0)) || mapfile -t COMPREPLY < <(printf '%q\n' "${COMPREPLY[@]#"$ahead"}")
    case $command in
    show | diff) compopt -o default ;;
    get | set | call | watch | veto) compopt -o nospace ;; # members may follow an object
    esac
}
complete -F _reflectorb reflectorb
