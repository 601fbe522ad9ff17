# SPDX-License-Identifier: Apache-2.0
# Completion for bash: commands, options, the ids of the applications that listen now, and of their actions.

_nelvoctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local word command='' app='' arguments=0 skip='' choices=
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ $skip ]]; then
            skip=
        elif [[ $word == --@(timeout|wait|as|interval|count|chrome|manifest|check|catalogue|output|speed|ignore|record) || $word == -[no] ]]; then
            skip=yes
        elif [[ $word != -* ]]; then
            if [[ ! $command ]]; then
                command=$word
            else
                arguments=$((arguments + 1))
                app=${app:-$word}
            fi
        fi
    done

    if [[ $skip ]]; then
        [[ $previous != --@(chrome|manifest|check|catalogue|record) ]] || mapfile -t COMPREPLY < <(compgen -f -- "$current")
        [[ $previous != -o && $previous != --output ]] || mapfile -t COMPREPLY < <(compgen -W 'json text' -- "$current")
        return
    elif [[ $current == -* ]]; then
        choices='--json --output --version --help'
        case $command in
        list) choices+=' --timeout' ;;
        call | state | shell) choices+=' --timeout --wait --as' ;;
        watch) choices+=' --timeout --wait --as --interval --count' ;;
        bench) choices+=' --timeout --wait --as --count' ;;
        doctor) choices+=' --timeout --wait --as --manifest' ;;
        trace) choices+=' --chrome' ;;
        replay) choices+=' --timeout --speed --as-fast-as-possible --ignore' ;;
        actions) choices+=' --check' ;;
        mcp) choices+=' --timeout --as --interval --catalogue --record --read-only' ;;
        esac
    elif [[ ! $command ]]; then
        choices='list actions call state watch shell bench doctor trace record replay mcp help'
    elif [[ $command == help ]]; then
        choices='list actions call state watch shell bench doctor trace record replay mcp causes'
    elif [[ $command == @(trace|record) || ($command == replay && $arguments == 0) ]]; then
        mapfile -t COMPREPLY < <(compgen -c -f -- "$current")
        return
    elif [[ $command == mcp || ($command != list && $arguments == 0) || $command == replay ]]; then
        choices=$("${COMP_WORDS[0]}" list --timeout 0.2 2>/dev/null | awk '{ print $1 }')
    elif [[ $command == @(call|bench) && $arguments == 1 ]]; then
        choices=$("${COMP_WORDS[0]}" actions "$app" 2>/dev/null | awk '{ print $1 }')
    fi
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
}

complete -F _nelvoctl nelvoctl
