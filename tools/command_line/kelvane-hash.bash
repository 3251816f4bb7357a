# Completes the commands and options of kelvane-hash in bash, by asking the program for its help.
_kelvane_hash()
{
    local word=${COMP_WORDS[COMP_CWORD]} command=() help words=
    ((COMP_CWORD == 1)) || command=("${COMP_WORDS[1]}")
    help=$("${COMP_WORDS[0]}" "${command[@]}" --help 2>/dev/null) || return
    if [[ $word == -* ]]; then
        words=$(sed -n 's/^  [-a-z,]*\(--[a-z-]*\).*/\1/p' <<<"$help")
    elif ((COMP_CWORD == 1)); then
        words=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p' <<<"$help")
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o default -F _kelvane_hash kelvane-hash
