#!/usr/bin/env bash
# What -j (results as JSON lines, per-record timing) costs: the same
# 512-byte write, read and read_verify with and without -j, alternating,
# best of REPEAT (default 5) each; prints the ratio with/without of the CPU
# time (user + system, the tool and the simulator; less at the mercy of a
# busy machine than the wall clock) and of the elapsed time (goal: under
# 1.02 on the simulated vpath device).
# DEVICE=sim (default): /dev/vpath0 under vpathsim, commands of 100000
# records (the device holds 131072). DEVICE=tmpfs: a tmpfs file, one
# command. Either way 1000000 records in all by default; on tmpfs
# a record takes about half a microsecond and the two clock readings per
# record alone cost several per cent.
# Usage: [DEVICE=sim|tmpfs] [REPEAT=n] bench/json_overhead.sh [records]
set -euo pipefail
records=${1:-1000000}

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
    chunk=100000 open="0" state=(--state "$dir/state")
    "$sim" --state "$dir/state" init
else
    chunk=0 open="$dir/disk.img"
    : > disk.img
fi

run() { # direction [-j file]: prints "cpu_s elapsed_s"
    {
        echo "command open $open RW result rc >= 0"
        local left=$records n
        while [ "$left" -gt 0 ]; do
            n=$left
            if [ "$chunk" -gt 0 ] && [ "$n" -gt "$chunk" ]; then n=$chunk; fi
            echo "set block_seek = 0"
            echo "command $1 records = $n result rc == 512"
            left=$((left - n))
        done
        echo "command close result rc == 0"
    } > "$1.in"
    local command=("$tool" -f "$1.in" -o "$1.out" "${@:2}")
    if [ "$device" = sim ]; then command=("$sim" run "${state[@]}" -- "${command[@]}"); fi
    /usr/bin/time -o times -f '%U %S %e' "${command[@]}" > /dev/null
    grep -q 'rc=0 ' "$1.out" || { echo "tool $1 failed" >&2; tail -5 "$1.out" >&2; exit 1; }
    read -r user system wall < times
    echo "$(echo "$user + $system" | bc -l) $wall"
}
smaller() { echo "if ($1 < $2) $1 else $2" | bc -l; }

echo "device $device, $records records of 512 bytes"
printf '%-11s %9s %9s %9s %9s %9s %9s\n' command cpu_s cpu_j_s ratio wall_s wall_j_s ratio
for direction in write read read_verify; do
    pc=999999 jc=999999 pw=999999 jw=999999
    for _ in $(seq "$repeat"); do
        read -r c w <<< "$(run "$direction")"
        pc=$(smaller "$c" "$pc") pw=$(smaller "$w" "$pw")
        read -r c w <<< "$(run "$direction" -j run.jsonl)"
        jc=$(smaller "$c" "$jc") jw=$(smaller "$w" "$jw")
    done
    printf '%-11s %9.3f %9.3f %9.4f %9.3f %9.3f %9.4f\n' "$direction" "$pc" "$jc" "$(echo "$jc / $pc" | bc -l)" \
        "$pw" "$jw" "$(echo "$jw / $pw" | bc -l)"
done
