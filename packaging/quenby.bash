# bash completion for quenby: a keyword first, then file names.

_quenby()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    if [ "$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=($(compgen -W 'version updateshadow clustermigdiff rebuildshadow execbunch
            validateqbsclient verifyshadow --help --version' -- "$cur"))
    else
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -o filenames -F _quenby quenby
