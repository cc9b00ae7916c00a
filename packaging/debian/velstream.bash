# Bash completion for velstream: commands and options as the tool's own help lists them, configured stream ids.
_velstream_ids()
{
    local config=() word
    for ((word = 2; word < COMP_CWORD; ++word)); do
        [[ ${COMP_WORDS[word]} == -c || ${COMP_WORDS[word]} == --config ]] && config=(--config "${COMP_WORDS[word + 1]}")
    done
    "${COMP_WORDS[0]}" list --json "${config[@]}" 2>/dev/null | sed -nE 's/.*"stream" ?: ?"([^"]*)".*/\1/p'
}

_velstream()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]:-} words=
    COMPREPLY=()
    case $previous in
    -c | --config | --draw-picture | -o | --output) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --snapshot | --dir) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    --elements) words="auto device software" ;;
    --log-level) words="info warning error none" ;;
    *)
        if [[ $COMP_CWORD -eq 1 ]]; then
            words=$("${COMP_WORDS[0]}" --help 2>/dev/null |
                sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p; s/^  (-[a-z],)?(--[a-z-]+).*/\2/p')
        elif [[ $current == -* ]]; then
            words=$("${COMP_WORDS[0]}" "$command" --help 2>/dev/null | sed -nE 's/^  (-[a-z],)?(--[a-z-]+).*/\2/p')
        else
            case $command in
            run | split | record | merge) words=$(_velstream_ids) ;;
            splice | compose) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
            esac
        fi
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -o filenames -F _velstream velstream
