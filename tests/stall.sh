#!/bin/sh
# The stall -j reports is what a failover costs: at depth 16 on a device whose
# policy keeps to path 0 (1 ms a transfer), the path fails with every record in
# flight on it; each waits the failover delay (1 s, long beside what a busy
# machine adds) before its retry.   stall.sh TARNWICK VPATHSIM
set -eu
tarnwick=$1 vpathsim=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
printf 'adapter fc0\nadapter fc1\ndevice policy=3\npath sda adapter=0\npath sdb adapter=1\n' > one-path.conf
cat > stall.tw << 'EOF2'
command open 0 RW result rc >= 0
set depth = 16
system vpathsim latency 0 1000; vpathsim failover-delay 0 1000; vpathsim fail-path 0 0 after 1600 transfers
command write records = 2400 result rc == 512
EOF2
"$vpathsim" run --config one-path.conf -- "$tarnwick" -f stall.tw -o stall.out -j stall.jsonl > /dev/null ||
    { cat stall.out >&2; exit 1; }
python3 - << 'EOF2'
import json, sys
d = [e for e in map(json.loads, open("stall.jsonl")) if e["event"] == "data"][0]
# Records issued before the fault may complete after it, late on a busy
# machine, so the gap can fall short of the delay by that.
if not 850000 <= d["stall_us"] <= 1400000:
    sys.exit(f"stall_us {d['stall_us']}, expected the 1 s delay and 1 ms, 150 ms below to 400 ms above")
# Latencies are timed from each record's issue: at least the service time,
# and the delay more for those retried.
if d["lat_min_us"] < 1000 or d["lat_max_us"] < 1000000:
    sys.exit(f"latencies {d['lat_min_us']} to {d['lat_max_us']} us, expected 1 ms to past 1 s")
EOF2
