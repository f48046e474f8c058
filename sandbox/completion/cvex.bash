# Completion of cvex, cvcloudd, cvcloud-sim and cvdesk for bash. The words come from the programs' own --help.
# To use it from the source tree: source sandbox/completion/cvex.bash

_cvex() {
    local program=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local path=() word help all subcommands options type keys
    COMPREPLY=()
    help=$("$program" --help 2>/dev/null </dev/null) || return 0
    all=$help
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if _cvex_subcommands <<<"$help" | grep -qxF -e "$word"; then
            path+=("$word")
            help=$("$program" "${path[@]}" --help 2>/dev/null </dev/null) || return 0
            all+=$'\n'$help
        fi
    done
    if [[ $previous == --* ]]; then
        # An option that takes a value has one space and the value's type behind its name.
        type=$(sed -nE "s/^  $previous ([^ ]+).*/\1/p" <<<"$all" | head -n 1)
        type=${type%%=*}
        case $type in
            '') ;;
            FILE) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return 0 ;;
            SCENARIO) mapfile -t COMPREPLY < <(compgen -W "$("$program" --list | cut -d ' ' -f 1)" -- "$current")
                return 0 ;;
            DIRECTORY) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return 0 ;;
            *'|'*) mapfile -t COMPREPLY < <(compgen -W "${type//|/ }" -- "$current"); return 0 ;;
            *) compopt +o default 2>/dev/null; return 0 ;;
        esac
    fi
    if [[ ${path[*]} == settings\ [gs]et && $previous == "${path[1]}" && $current != -* ]]; then
        # The keys that --help names, and those of the store that the words before lead to.
        keys=$(sed -nE 's/^  ([a-z_]+)$/\1/p' <<<"$help"
            "$program" "${COMP_WORDS[@]:1:COMP_CWORD-2}" list 2>/dev/null </dev/null | cut -d ' ' -f 1)
        mapfile -t COMPREPLY < <(compgen -W "$(sort -u <<<"$keys")" -- "$current")
        return 0
    fi
    subcommands=$(_cvex_subcommands <<<"$help")
    options=$(grep -oE '^  (-[a-z], ?)?--[a-z-]+' <<<"$all" | grep -oE -e '--[a-z-]+' | sort -u)
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$current")
    fi
}

_cvex_subcommands() {
    sed -nE '/^Subcommands:/,/^$/s/^  ([a-z][a-z-]*).*/\1/p'
}

complete -o default -o filenames -F _cvex cvex cvcloudd cvcloud-sim cvdesk
