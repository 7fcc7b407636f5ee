# bash completion for vantryctl

_vantryctl_names() {
    local name
    while IFS= read -r name; do
        [[ $name == "$2"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
    done < <(vantryctl names "$1" 2>/dev/null)
}

_vantryctl() {
    local current=${COMP_WORDS[COMP_CWORD]} words=("${COMP_WORDS[@]:1:COMP_CWORD-1}")
    # An identifier may hold colons, which bash takes for the end of a word.
    if declare -F _get_comp_words_by_ref >/dev/null; then
        local cword
        _get_comp_words_by_ref -n : -c current -w words -i cword
        words=("${words[@]:1:cword-1}")
    fi
    COMPREPLY=()
    local offer=""
    case "${words[*]}" in
        "") offer="rules vpn run status reload apps identify why top sessions log clear failures check verify setup report record try confirm off on undo export import --help --version" ;;
        rules) offer="show set remove default block unblock datagrams fallback --json --help" ;;
        "rules set" | "rules block") _vantryctl_names seen "$current" ;;
        "rules set "*) offer="vpn direct"; _vantryctl_names seen "$current" ;;
        "rules block "*) _vantryctl_names seen "$current" ;;
        "rules remove"*) _vantryctl_names ruled "$current" ;;
        "rules unblock"*) _vantryctl_names blocked "$current" ;;
        "rules default") offer="vpn direct" ;;
        "rules datagrams") offer="direct" ;;
        "rules datagrams "*) offer="on off" ;;
        "rules fallback") offer="vpn direct" ;;
        "rules fallback "*) offer="allow block" ;;
        "rules show" | status | apps | check) offer="--json --help" ;;
        run) offer="--direct --vpn --block --for --help"; compopt -o default ;;
        verify) offer="--for --to --only-look --json --help" ;;
        setup) offer="--default --except --datagrams --fallback --tunnel --help" ;;
        report) offer="--plain --help" ;;
        vpn) offer="follow up down" ;;
        why) offer="--last --udp --json --help"; _vantryctl_names seen "$current"; compopt -o default ;;
        identify*) offer="--json --help"; compopt -o default ;;
        top) offer="--once --json --help" ;;
        record) offer="--for --most --verbatim --help" ;;
        sessions) offer="--all --json --help" ;;
        log*" -a" | log*" --app") _vantryctl_names seen "$current" ;;
        log*) offer="--follow --lines --app --json --help" ;;
        failures) offer="--clear --json --help" ;;
        "vpn follow"*" -i" | "vpn follow"*" --interface")
            offer=$(cd /sys/class/net 2>/dev/null && echo *) ;;
        "vpn follow"*) offer="--interface --help" ;;
        import*) offer="--yes --dry-run --help"; compopt -o default ;;
    esac
    local word
    for word in $offer; do
        [[ $word == "$current"* ]] && COMPREPLY+=("$word")
    done
    if declare -F __ltrim_colon_completions >/dev/null; then __ltrim_colon_completions "$current"; fi
}

complete -F _vantryctl vantryctl
