#!/usr/bin/env bash
# Sequential write, read and read_verify of 1 GiB on a tmpfs file with the
# tool and with dd at the same block size, in the same run; prints tool/dd
# throughput ratios. For read and read_verify, dd reads the very file the
# tool reads: two tmpfs files written alike can read at speeds apart by half
# (for dd as for the tool), which would show up as the tool's cost. Each
# figure is the best of REPEAT runs (default 3), alternating tool and dd, so
# that a busy machine penalises both alike.
# Usage: [REPEAT=n] [SIZES="262144 512"] bench/run.sh [size-in-MiB]   (default 1024)
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
cmake --preset bench >/dev/null
cmake --build --preset bench --target tarnwick tarnwick_pattern_bench >/dev/null
tool=$here/build/bench/tarnwick
micro=$here/build/bench/bench/tarnwick_pattern_bench

mib=${1:-1024}
repeat=${REPEAT:-3}
bytes=$((mib * 1024 * 1024))
dir=$(mktemp -d /dev/shm/tarnwick-bench.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

now() { date +%s.%N; }
elapsed() { echo "$2 - $1" | bc -l; }
smaller() { echo "if ($1 < $2) $1 else $2" | bc -l; }

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
    case $1 in
    write) dd if=/dev/zero of=peer.img bs="$2" count="$count" status=none ;;
    *) dd if=disk.img of=/dev/null bs="$2" count="$count" status=none ;;
    esac
    t1=$(now)
    elapsed "$t0" "$t1"
}

printf '%-8s %-11s %10s %10s %8s\n' record command tool_s dd_s tool/dd
for size in ${SIZES:-262144 512}; do
    for direction in write read read_verify; do
        t=999999 d=999999
        for _ in $(seq "$repeat"); do
            if [ "$direction" = write ]; then : > disk.img; fi
            t=$(smaller "$(tool_run "$direction" "$size")" "$t")
            d=$(smaller "$(dd_run "$direction" "$size")" "$d")
        done
        # Throughput ratio tool/dd = dd time / tool time.
        printf '%-8s %-11s %10.3f %10.3f %8.2f\n' "$size" "$direction" "$t" "$d" "$(echo "$d / $t" | bc -l)"
    done
    rm -f disk.img peer.img
done
echo "targets: >= 0.95 at 262144, >= 0.80 at 512"

if [ -x "$micro" ]; then
    "$micro" --benchmark_min_time=0.2s 2>/dev/null || "$micro"
fi
