#!/usr/bin/env bash
# Sequential write and read of 1 GiB to a tmpfs file with the tool and with
# dd at the same block size, in the same run; prints tool/dd throughput
# ratios. Usage: bench/run.sh [size-in-MiB]   (default 1024)
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
cmake --preset bench >/dev/null
cmake --build --preset bench --target tarnwick tarnwick_pattern_bench >/dev/null
tool=$here/build/bench/tarnwick
micro=$here/build/bench/bench/tarnwick_pattern_bench

mib=${1:-1024}
bytes=$((mib * 1024 * 1024))
dir=$(mktemp -d /dev/shm/tarnwick-bench.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

now() { date +%s.%N; }
elapsed() { echo "$2 - $1" | bc -l; }

# One batch file per direction so each timing holds only its transfers.
tool_run() { # direction record-bytes
    local records=$((bytes / $2)) factor=$(($2 / 512))
    {
        echo "command open $dir/disk.img RW result rc >= 0"
        echo "set block_count = $factor"
        echo "command $1 records = $records result rc == $2"
        echo "command close result rc == 0"
    } > "$1.in"
    local t0 t1
    t0=$(now)
    "$tool" -f "$1.in" -o "$1.out" > /dev/null
    t1=$(now)
    grep -q 'rc=0 ' "$1.out" || { echo "tool $1 failed:"; tail -5 "$1.out"; exit 1; }
    elapsed "$t0" "$t1"
}

dd_run() { # direction record-bytes
    local count=$((bytes / $2)) t0 t1
    t0=$(now)
    if [ "$1" = write ]; then
        dd if=/dev/zero of=peer.img bs="$2" count="$count" status=none
    else
        dd if=peer.img of=/dev/null bs="$2" count="$count" status=none
    fi
    t1=$(now)
    elapsed "$t0" "$t1"
}

printf '%-8s %-6s %10s %10s %8s\n' record dir tool_s dd_s tool/dd
for size in 262144 512; do
    : > disk.img
    for direction in write read; do
        t=$(tool_run "$direction" "$size")
        d=$(dd_run "$direction" "$size")
        # Throughput ratio tool/dd = dd time / tool time.
        printf '%-8s %-6s %10.3f %10.3f %8.2f\n' "$size" "$direction" "$t" "$d" "$(echo "$d / $t" | bc -l)"
    done
    rm -f disk.img peer.img
done
echo "targets: >= 0.95 at 262144, >= 0.80 at 512"

if [ -x "$micro" ]; then
    "$micro" --benchmark_min_time=0.2s 2>/dev/null || "$micro"
fi
