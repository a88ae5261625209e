# bash completion for lumora
_lumora() {
    local cur prev
    cur="${COMP_WORDS[COMP_CWORD]}"
    prev="${COMP_WORDS[COMP_CWORD-1]}"
    case "$prev" in
        --transcript)
            COMPREPLY=($(compgen -f -- "$cur"))
            return
            ;;
        --launch-at-login)
            COMPREPLY=($(compgen -W "on off" -- "$cur"))
            return
            ;;
        --format)
            COMPREPLY=($(compgen -W "json waybar plain tmux" -- "$cur"))
            return
            ;;
        --approvals-remove|--jump)
            return
            ;;
    esac
    local flags="-h --help --version --paths --processes --demo --approvals --approvals-remove
        --scan --json --no-ui --transcript --hooks-enable --hooks-disable --hooks-selftest
        --hook-config-test --uninstall --dry-run --launch-at-login --desktop --terminal
        --usage-doctor --spend --pricing-refresh --jump --jump-next --watch --status-line --format"
    COMPREPLY=($(compgen -W "$flags" -- "$cur"))
}
complete -F _lumora lumora
