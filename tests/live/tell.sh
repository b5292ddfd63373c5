# Prints what happens, waits for it, and checks it by the adapter's counters.
# Sourced after network.sh.

begin_us=${EPOCHREALTIME/./}
results=()
declare -A signs=([-eq]="" [-gt]="> " [-le]="<= ")
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
    local verdict=good limit="${signs[$3]}$4"
    if ! test "$2" "$3" "$4"; then
        verdict=WRONG
        failures=$((failures + 1))
    fi
    results+=("$(printf '%-68s %8s %8s  %s' "$1" "$2" "$limit" "$verdict")")
    note "$1: $2$([ $verdict = good ] || echo "   <-- WRONG, expected $limit")"
}

print_summary() {
    printf '\n%-68s %8s %8s\n' "what" measured expected
    printf '%s\n' "${results[@]}" ""
    [ "$failures" -eq 0 ] || { echo "live: $failures of ${#results[@]} checks are wrong" && exit 1; }
    echo "live: all ${#results[@]} checks are good"
}

# wait_until SECONDS WHAT COMMAND...: VVLAN_PATIENCE times as long on a machine that is emulated.
wait_until() {
    local deadline=$((${EPOCHREALTIME/./} + $1 * ${VVLAN_PATIENCE:-1} * 1000000))
    until "${@:3}"; do
        [ "${EPOCHREALTIME/./}" -lt "$deadline" ] || fail "$2: not within $1 s"
        sleep 0.05
    done
}

# The counters as last read, and as they were when mark was called. A frame that
# is on its way may be counted at one place and not yet at the next.
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
