#!/bin/bash
# The simulator's start-up (to "ready") and the memory of its processes
# together (Pss, so that pages they share count once), natively:
#   hmisvc-binderd -- bench/devsim/startup.sh SERVICEMANAGER DEVSIM [ROUNDS]
set -u
sm=$1 devsim=$2 rounds=${3:-5}
work=$(mktemp -d)
"$sm" --names none 2> /dev/null & smpid=$!
trap 'kill $smpid 2>/dev/null; rm -rf "$work"' EXIT
times=() pss=()
for _ in $(seq "$rounds"); do
    start=$(date +%s%N)
    "$devsim" > "$work/out" 2> /dev/null &
    sim=$!
    # Bounded failsafe; ends on the line.
    for _ in $(seq 20000); do grep -q ready "$work/out" && break; sleep 0.001; done
    times+=($(( ($(date +%s%N) - start) / 1000000 )))
    kb=0
    for p in $sim $(pgrep -P "$sim"); do
        kb=$((kb + $(awk '/^Pss:/ { print $2 }' "/proc/$p/smaps_rollup")))
    done
    pss+=("$kb")
    kill "$sim"; wait "$sim" 2>/dev/null
done
echo "start-up to ready (ms): ${times[*]}"
echo "Pss of its processes together (kB): ${pss[*]}"
