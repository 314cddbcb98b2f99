#!/usr/bin/env bash
# What -j (results as JSON lines, per-record timing) costs: the same
# 512-byte write, read and read_verify of a tmpfs file with and without
# -j, alternating, best of REPEAT (default 5) each; prints the time ratio
# with/without (goal: under 1.02).
# Usage: [REPEAT=n] [BUILD=build/default] bench/json_overhead.sh [records]   (default 1000000)
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
build=${BUILD:-build/default}
if [ "$build" = build/default ]; then
    cmake --preset default > /dev/null
    cmake --build --preset default --target tarnwick > /dev/null
fi
tool=$here/$build/tarnwick
records=${1:-1000000}
repeat=${REPEAT:-5}
dir=$(mktemp -d /dev/shm/tarnwick-json.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

now() { date +%s.%N; }
run() { # direction [-j file]
    local t0 t1
    {
        echo "command open $dir/disk.img RW result rc >= 0"
        echo "command $1 records = $records result rc == 512"
        echo "command close result rc == 0"
    } > "$1.in"
    t0=$(now)
    "$tool" -f "$1.in" -o "$1.out" "${@:2}" > /dev/null
    t1=$(now)
    grep -q 'rc=0 ' "$1.out" || { echo "tool $1 failed"; tail -5 "$1.out"; exit 1; }
    echo "$t1 - $t0" | bc -l
}
smaller() { echo "if ($1 < $2) $1 else $2" | bc -l; }

: > disk.img
printf '%-11s %10s %10s %8s\n' command plain_s json_s ratio
for direction in write read read_verify; do
    p=999999 j=999999
    for _ in $(seq "$repeat"); do
        p=$(smaller "$(run "$direction")" "$p")
        j=$(smaller "$(run "$direction" -j run.jsonl)" "$j")
    done
    printf '%-11s %10.3f %10.3f %8.4f\n' "$direction" "$p" "$j" "$(echo "$j / $p" | bc -l)"
done
