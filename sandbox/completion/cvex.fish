# Completion for fish: bash's own, asked for its words. CVEX_COMPLETION names the file of that one where it is not installed.

function __cvex_words
    set -q CVEX_COMPLETION; or set -l CVEX_COMPLETION /usr/share/bash-completion/completions/cvex
    bash --norc -c 'source "$1" && shift && COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) && _cvex &&
        printf "%s\n" "${COMPREPLY[@]}"' bash $CVEX_COMPLETION (commandline -opc) (commandline -ct) 2>/dev/null
end

for program in cvex cvcloudd cvcloud-sim cvdesk
    complete -c $program -a '(__cvex_words)'
end
