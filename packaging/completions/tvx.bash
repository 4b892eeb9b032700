# Completion of tvx for bash: commands and options as their --help tells them, then files.
_tvx() {
    local word=${COMP_WORDS[COMP_CWORD]} command= i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in -*) ;; *) command=${COMP_WORDS[i]}; break ;; esac
    done
    if [[ $word == -* ]]; then
        COMPREPLY=($(compgen -W "$("${COMP_WORDS[0]}" $command --help 2>/dev/null |
            sed -n 's/^  \(-[^ ]*\).*/\1/p' | tr , '\n')" -- "$word"))
    elif [[ -z $command ]]; then
        COMPREPLY=($(compgen -W "$("${COMP_WORDS[0]}" --help 2>/dev/null |
            sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p')" -- "$word"))
    else
        COMPREPLY=($(compgen -f -- "$word"))
    fi
}
complete -o filenames -F _tvx tvx
