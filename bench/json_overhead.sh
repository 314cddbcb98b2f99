#!/usr/bin/env bash
# What -j (results as JSON lines, per-record timing) costs: the same
# 512-byte write, read and read_verify with and without -j, alternating,
# best of REPEAT (default 5) each; prints the time ratio with/without
# (goal: under 1.02 on the simulated vpath device).
# DEVICE=sim (default): /dev/vpath0 under vpathsim, 100000 records (the
# device holds 131072). DEVICE=tmpfs: a tmpfs file, 1000000 records; there
# a record takes about half a microsecond and the two clock readings per
# record alone cost several per cent.
# Usage: [DEVICE=sim|tmpfs] [REPEAT=n] bench/json_overhead.sh [records]
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
cmake --preset default > /dev/null
cmake --build --preset default --target tarnwick vpathsim vpathsim_preload > /dev/null
tool=$here/build/default/tarnwick
sim=$here/build/default/sim/vpathsim
device=${DEVICE:-sim}
repeat=${REPEAT:-5}
dir=$(mktemp -d /dev/shm/tarnwick-json.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
if [ "$device" = sim ]; then
    records=${1:-100000} open="0" state=(--state "$dir/state")
    "$sim" --state "$dir/state" init
else
    records=${1:-1000000} open="$dir/disk.img"
    : > disk.img
fi

now() { date +%s.%N; }
run() { # direction [-j file]
    local t0 t1
    {
        echo "command open $open RW result rc >= 0"
        echo "command $1 records = $records result rc == 512"
        echo "command close result rc == 0"
    } > "$1.in"
    t0=$(now)
    if [ "$device" = sim ]; then
        "$sim" run "${state[@]}" -- "$tool" -f "$1.in" -o "$1.out" "${@:2}" > /dev/null
    else
        "$tool" -f "$1.in" -o "$1.out" "${@:2}" > /dev/null
    fi
    t1=$(now)
    grep -q 'rc=0 ' "$1.out" || { echo "tool $1 failed" >&2; tail -5 "$1.out" >&2; exit 1; }
    echo "$t1 - $t0" | bc -l
}
smaller() { echo "if ($1 < $2) $1 else $2" | bc -l; }

echo "device $device, $records records of 512 bytes"
printf '%-11s %10s %10s %8s\n' command plain_s json_s ratio
for direction in write read read_verify; do
    p=999999 j=999999
    for _ in $(seq "$repeat"); do
        p=$(smaller "$(run "$direction")" "$p")
        j=$(smaller "$(run "$direction" -j run.jsonl)" "$j")
    done
    printf '%-11s %10.3f %10.3f %8.4f\n' "$direction" "$p" "$j" "$(echo "$j / $p" | bc -l)"
done
