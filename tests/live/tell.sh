# Telling what happens, waiting for it, and checking it by the adapter's
# counters. Sourced after network.sh.

begin_us=${EPOCHREALTIME/./}
results=()
failures=0

say() {
    local ms=$(((${EPOCHREALTIME/./} - begin_us) / 1000))
    printf '%4d.%d s  %s\n' $((ms / 1000)) $((ms % 1000 / 100)) "$1"
}

note() { printf '          %s\n' "$1"; }

fail() {
    say "FAILED: $1" >&2
    exit 1
}

# check WHAT MEASURED -eq|-gt|-le LIMIT
check() {
    local verdict=good limit=$4
    if ! test "$2" "$3" "$4"; then
        verdict=WRONG
        failures=$((failures + 1))
    fi
    case $3 in
    -gt) limit="> $4" ;;
    -le) limit="<= $4" ;;
    esac
    results+=("$(printf '%-68s %8s %8s  %s' "$1" "$2" "$limit" "$verdict")")
    note "$1: $2$([ $verdict = good ] || echo "   <-- WRONG, expected $limit")"
}

print_summary() {
    printf '\n%-68s %8s %8s\n' "what" measured expected
    printf '%s\n' "${results[@]}"
    echo
    if [ "$failures" -ne 0 ]; then
        echo "live: $failures of ${#results[@]} checks are wrong"
        exit 1
    fi
    echo "live: all ${#results[@]} checks are good"
}

# wait_until SECONDS WHAT COMMAND...
wait_until() {
    local deadline=$((${EPOCHREALTIME/./} + $1 * 1000000))
    until "${@:3}"; do
        [ "${EPOCHREALTIME/./}" -lt "$deadline" ] || fail "$2: not within $1 s"
        sleep 0.05
    done
}

# The counters now, and when mark was called; all of one moment, but for the
# frames under way.
declare -A now before

read_counts() {
    local name value
    while read -r name value; do now[$name]=$value; done < <(
        bpftool map dump pinned "$folder"/bpf/maps/*bss | sed -nE 's/^ *"([a-z_]+)": ([0-9]+),?$/\1 \2/p'
    )
}

mark() {
    local name
    read_counts
    for name in "${!now[@]}"; do before[$name]=${now[$name]}; done
}

# Sets grew to what the counters of these names have grown by, between mark and
# the last read_counts.
grown() {
    local name
    grew=0
    for name in "$@"; do grew=$((grew + now[$name] - before[$name])); done
}

has_grown() { # NAME COUNT
    read_counts
    grown "$1"
    [ "$grew" -ge "$2" ]
}
