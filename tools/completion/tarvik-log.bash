# Completion of tarvik-log in bash. Subcommands and options are those that --help names, names of
# clients those of the log.conf.

# _tarvik_log_config: the log.conf that the line names, else that of this machine.
_tarvik_log_config() {
    local i
    for ((i = 1; i < COMP_CWORD - 1; ++i)); do
        if [[ ${COMP_WORDS[i]} == --config ]]; then
            [[ ${COMP_WORDS[i + 1]} == = ]] && ((++i))
            printf '%s\n' "${COMP_WORDS[i + 1]}"
            return
        fi
    done
    printf '%s\n' "${TARVIK_ROOT-}/etc/tarvik/log/log.conf"
}

# _tarvik_log_clients FILE: index and name of each client, a line each.
_tarvik_log_clients() {
    [[ -r $1 ]] && awk '
        { sub(/\r$/, "") }
        /^[ \t]*\[.*\][ \t]*$/ { gsub(/^[ \t]*\[[ \t]*|[ \t]*\][ \t]*$/, ""); section = $0; next }
        section ~ /^[0-9]+$/ && /^[ \t]*APP[ \t]*=/ {
            sub(/^[^=]*=[ \t]*/, "")
            sub(/[ \t]+$/, "")
            if ($0 != "") print section "\n" $0
        }' "$1"
}

# _tarvik_log_offer CURRENT: of the lines of standard input those that begin so, quoted.
_tarvik_log_offer() {
    local line
    while IFS= read -r line; do
        if [[ $line == "$1"* ]]; then
            COMPREPLY+=("$(printf %q "$line")")
        fi
    done
}

# _tarvik_log_value COMMAND OPTION CURRENT: values of an option; false when it takes none.
_tarvik_log_value() {
    case $2 in
        --client) _tarvik_log_offer "$3" < <(_tarvik_log_clients "$(_tarvik_log_config)") ;;
        --type) _tarvik_log_offer "$3" < <(printf '%s\n' info warning error debug) ;;
        --set-language) _tarvik_log_offer "$3" < <(printf '%s\n' chinese english) ;;
        -o | --output)
            case $1 in
                show) _tarvik_log_offer "$3" < <(printf '%s\n' short full json csv syslog) ;;
                receive) _tarvik_log_offer "$3" < <(printf '%s\n' short json syslog) ;;
                *) _tarvik_log_offer "$3" < <(printf '%s\n' text json) ;;
            esac
            ;;
        --config | --live-to | --password-file | --record) compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$3") ;;
        --into) compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$3") ;;
        -n | --lines | --since | --until | --grep | --port | --control-port | --rate | --receiver | \
            --requests | --id | --source | --node | --seconds | --listen | --days | --get | \
            --max-size | --value | --records | --sessions | --silence | --wait | --allow | --max-connections | \
            --max-sessions | --max-sessions-each | --max-pending | --max-pending-each | \
            --max-bytes | --max-bytes-each | --max-folders-each | --keep-free) ;;
        *) return 1 ;;
    esac
}

_tarvik_log() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local program=${COMP_WORDS[0]} command=${COMP_WORDS[1]}
    COMPREPLY=()
    # "--type=wa" comes as three words.
    if [[ $current == = ]]; then
        current=
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    if ((COMP_CWORD == 1)); then
        _tarvik_log_offer "$current" < <("$program" --help 2>/dev/null |
            awk '/^Subcommands:/ { on = 1 } on && /^  [a-z]/ { print $1 }
                 /^  -/ { n = split($1, names, ","); print names[n] }')
    elif _tarvik_log_value "$command" "$previous" "$current"; then
        :
    elif [[ $current == -* ]]; then
        _tarvik_log_offer "$current" < <("$program" "$command" --help 2>/dev/null |
            awk '/^  -/ { n = split($1, names, ","); print names[n] }')
    elif [[ $command == show || $command == stats || $command == check ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}

complete -F _tarvik_log tarvik-log
