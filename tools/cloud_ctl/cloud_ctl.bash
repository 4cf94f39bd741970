# bash completion of cloud_ctl                                          -*- shell-script -*-

_cloud_ctl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' candidate
    COMPREPLY=()
    for candidate in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $candidate in
            request | register | reconnect | check | log) command=$candidate && break ;;
        esac
    done

    case $before in
        --socket | --hello-cloud)
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
        --level) mapfile -t COMPREPLY < <(compgen -W 'ERROR WARN INFO DEBUG' -- "$word") && return ;;
        --color) mapfile -t COMPREPLY < <(compgen -W 'auto always never' -- "$word") && return ;;
        --exec) mapfile -t COMPREPLY < <(compgen -c -- "$word") && return ;;
        --timeout | --answer | --module | --client | --id) return ;;
    esac

    local words='--socket --json --help'
    case $command in
        '') words+=' request register reconnect check log' ;;
        request) words+=' --timeout --connect' ;;
        register) words+=' --hello-cloud --answer --exec --timeout' ;;
        log) words+=' --level --module --client --id --color' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    if [[ $command == check && $word != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}

complete -o filenames -F _cloud_ctl cloud_ctl
