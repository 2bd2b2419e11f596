#!/bin/bash
# The simulator's start-up (to "ready") and the memory of its processes
# together (Pss, so that pages they share count once), natively:
#   hmisvc-binderd -- bench/devsim/startup.sh SERVICEMANAGER DEVSIM [ROUNDS]
# Prints each round's figures, then their min, median and max.
set -u
sm=$1 devsim=$2 rounds=${3:-5}
work=$(mktemp -d)
"$sm" --names none 2> /dev/null & smpid=$!
trap 'kill $smpid 2>/dev/null; rm -rf "$work"' EXIT
# The simulator's first line ends the wait: read from a pipe (opened both
# ways here, so that neither end waits for the other), no polling.
mkfifo "$work/out"
exec 3<> "$work/out"
now_us() { local t=${EPOCHREALTIME/./}; echo "$t"; }
times=() pss=()
for _ in $(seq "$rounds"); do
    start=$(now_us)
    "$devsim" >&3 2> /dev/null &
    sim=$!
    # Bounded failsafe: a simulator that never says ready.
    if ! read -r -t 60 line <&3 || [[ $line != *ready ]]; then
        echo "the simulator did not start: ${line:-nothing said}" >&2
        exit 1
    fi
    times+=($(( ($(now_us) - start) / 100 )))
    kb=0
    for p in $sim $(pgrep -P "$sim"); do
        kb=$((kb + $(awk '/^Pss:/ { print $2 }' "/proc/$p/smaps_rollup")))
    done
    pss+=("$kb")
    kill "$sim"; wait "$sim" 2>/dev/null
done
# min median max of the arguments
summary() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print v[1], v[int((NR + 1) / 2)], v[NR] }'; }
tenths() { local t; for t; do printf '%d.%d ' $((t / 10)) $((t % 10)); done; }
echo "start-up to ready (ms): $(tenths "${times[@]}")"
echo "  min median max: $(tenths $(summary "${times[@]}"))"
echo "Pss of its processes together (kB): ${pss[*]}"
echo "  min median max: $(summary "${pss[@]}")"
