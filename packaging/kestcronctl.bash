# bash completion for kestcronctl

# Full names that begin with the word or, if there are none, their ends after a "-". Job names come
# from package authors: never expand them, and quote them in replies.
_kestcronctl_jobs() {
    local name end root=() ends=() i
    for ((i = 1; i + 1 < COMP_CWORD; i++)); do
        [[ ${COMP_WORDS[i]} != --root ]] || root=(--root "${COMP_WORDS[i + 1]}")
    done
    while IFS= read -r name; do
        [[ $name != *\\* ]] || continue
        [[ $name != "$1"* ]] || COMPREPLY+=("$(printf '%q' "$name")")
        end=${name##*-}
        [[ $end != "$1"* ]] || ends+=("$(printf '%q' "$end")")
    done < <(kestcronctl "${root[@]}" list --json 2>/dev/null |
        sed -n 's/^[[:space:]]*"name" : "\(.*\)",\{0,1\}$/\1/p')
    ((${#COMPREPLY[@]} > 0)) || COMPREPLY=("${ends[@]}")
}

_kestcronctl_files() {
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen "$1" -- "$2")
}

# Directories, and files with this ending.
_kestcronctl_files_of() {
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$2"; compgen -f -X "!*.$1" -- "$2")
}

_kestcronctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word i
    local commands='check plan import list next explain status log show timeline run reload metrics'
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ ${COMP_WORDS[i - 1]} != --root && " $commands " == *" $word "* ]]; then
            command=$word
            break
        fi
    done
    COMPREPLY=()
    case $previous in
    --root)
        _kestcronctl_files -d "$current"
        return
        ;;
    --svg | --html)
        _kestcronctl_files_of "${previous#--}" "$current"
        return
        ;;
    --job)
        _kestcronctl_jobs "$current"
        return
        ;;
    --period)
        mapfile -t COMPREPLY < <(compgen -W 'hourly daily weekly monthly' -- "$current")
        return
        ;;
    --at | --since | --until)
        mapfile -t COMPREPLY < <(compgen -W 'now today yesterday tomorrow' -- "$current")
        return
        ;;
    --source)
        mapfile -t COMPREPLY < <(compgen -W 'builtin builtin-dyn pkg' -- "$current")
        return
        ;;
    --sort)
        mapfile -t COMPREPLY < <(compgen -W 'name next last state' -- "$current")
        return
        ;;
    --state)
        mapfile -t COMPREPLY < <(compgen -W \
            'waiting due launched running failed overdue held kept passive' -- "$current")
        return
        ;;
    --tz)
        mapfile -t COMPREPLY < <(cd /usr/share/zoneinfo 2>/dev/null && compgen -f -- "$current")
        return
        ;;
    --account)
        mapfile -t COMPREPLY < <(compgen -u -- "$current")
        return
        ;;
    -n | --hours | --timeout) return ;;
    esac
    if [[ $current == -* ]]; then
        local options='--root --tz --json --help'
        case $command in
        '') options+=' --version' ;;
        check) options+=' --errors-only --portable --account' ;;
        plan) options+=' --source --account' ;;
        import) options+=' --system --account' ;;
        list) options+=' --sort --state' ;;
        next) options+=' -n --at' ;;
        explain) options+=' --period' ;;
        log) options+=' -f --follow -n --job --since --until --failed --raw --no-pager' ;;
        timeline) options+=' --past --hours --svg --html' ;;
        reload) options+=' --timeout' ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
        return
    fi
    case $command in
    '') mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current") ;;
    check | plan | import) _kestcronctl_files -f "$current" ;;
    list | next | show | timeline | run) _kestcronctl_jobs "$current" ;;
    esac
}

complete -F _kestcronctl kestcronctl
