# Bash completion for velstream: commands, their options as the tool's own help lists them, configured stream ids.
_velstream()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]:-}
    COMPREPLY=()
    if [[ $COMP_CWORD -eq 1 ]]; then
        mapfile -t COMPREPLY < <(compgen -W "run list check elements splice --help --version" -- "$current")
        return
    fi
    case $previous in
    -c | --config | --draw-picture) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --snapshot) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    --elements) mapfile -t COMPREPLY < <(compgen -W "auto device software" -- "$current"); return ;;
    --log-level) mapfile -t COMPREPLY < <(compgen -W "info warning error none" -- "$current"); return ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" "$command" --help 2>/dev/null |
            sed -nE 's/^  (-[a-z],)?(--[a-z-]+).*/\2/p')" -- "$current")
    elif [[ $command == run ]]; then
        local config=() word
        for ((word = 2; word < COMP_CWORD; ++word)); do
            [[ ${COMP_WORDS[word]} == -c || ${COMP_WORDS[word]} == --config ]] && config=(--config "${COMP_WORDS[word + 1]}")
        done
        mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" list --json "${config[@]}" 2>/dev/null |
            sed -nE 's/.*"stream" ?: ?"([^"]*)".*/\1/p')" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -o filenames -F _velstream velstream
