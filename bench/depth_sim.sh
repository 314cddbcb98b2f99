#!/usr/bin/env bash
# Records in flight under the simulated driver with a service time of 1 ms
# per transfer (vpathsim latency 0 1000): records/s of write and read_verify
# at depth 1, 4, 16 and 32 on /dev/vpath0. Goal: depth 16 at least 12 times
# depth 1. Needs a simulator that takes over pread/pwrite and has `latency`.
# Usage: [RECORDS=n] [DEPTHS="1 4 16 32"] bench/depth_sim.sh
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
cmake --preset bench >/dev/null
cmake --build --preset bench --target tarnwick vpathsim vpathsim_preload >/dev/null
tool=$here/build/bench/tarnwick
sim=$here/build/bench/sim/vpathsim
records=${RECORDS:-2000}
dir=$(mktemp -d /tmp/tarnwick-depth-sim.XXXXXX)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
"$sim" --state "$dir/state" init >/dev/null
"$sim" --state "$dir/state" latency 0 1000

now() { date +%s.%N; }
run() { # command depth -> records/s
    {
        echo "command open 0 RW result rc >= 0"
        echo "set depth = $2"
        echo "command $1 records = $records result rc == 512"
        echo "command close result rc == 0"
    } > t.tw
    local t0 t1
    t0=$(now)
    "$sim" --state "$dir/state" run -- "$tool" -f t.tw -o t.out > /dev/null
    t1=$(now)
    grep -q 'rc=0 ' t.out || { echo "$1 at depth $2 failed:" >&2; tail -5 t.out >&2; exit 1; }
    echo "$records / ($t1 - $t0)" | bc -l
}

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores; $records records of 512 bytes, 1 ms each"
printf '%-11s %5s %10s %10s\n' command depth records/s x_depth1
for command in write read_verify; do
    base=""
    for depth in ${DEPTHS:-1 4 16 32}; do
        r=$(run "$command" "$depth")
        base=${base:-$r}
        printf '%-11s %5d %10.0f %10.2f\n' "$command" "$depth" "$r" "$(echo "$r / $base" | bc -l)"
    done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "goal: depth 16 >= 12 x depth 1"
