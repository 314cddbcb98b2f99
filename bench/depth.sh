#!/usr/bin/env bash
# Records in flight on a device where depth matters: a loop device with
# direct I/O over a file on disk (root, losetup and fio; else it says why and
# stops). 4 KiB records through RW+DIRECT, write then read_verify of the
# whole device at depth 1, 4, 16 and 32, against fio with the same block
# size and depth on the same device in the same run: ioengine=io_uring with
# iodepth=N, and ioengine=psync with numjobs=N (each job its own slice).
# Records/s (the tool's less a run that only opens and closes the device,
# as fio's figure leaves out its start); each figure the best of REPEAT runs (default 3), tool and fio
# alternating, so that a busy machine penalises both alike.
# Usage: [REPEAT=n] [DEPTHS="1 4 16 32"] [DIR=folder-on-disk] bench/depth.sh [size-in-MiB]   (default 256)
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
[ "$(id -u)" = 0 ] || { echo "needs root (losetup)"; exit 1; }
command -v fio >/dev/null || { echo "needs fio"; exit 1; }
cmake --preset bench >/dev/null
cmake --build --preset bench --target tarnwick >/dev/null
tool=$here/build/bench/tarnwick

mib=${1:-256}
repeat=${REPEAT:-3}
records=$((mib * 256))
# On disk, not tmpfs: the loop device's direct I/O must reach a real device.
dir=$(mktemp -d "${DIR:-/var/tmp}/tarnwick-depth.XXXXXX")
loop=""
trap '[ -z "$loop" ] || losetup -d "$loop"; rm -rf "$dir"' EXIT
cd "$dir"
truncate -s "${mib}M" backing.img
dd if=/dev/zero of=backing.img bs=1M count="$mib" conv=notrunc,fsync status=none  # allocated, not sparse
loop=$(losetup --direct-io=on -f --show backing.img)

now() { date +%s.%N; }
best() { echo "if ($1 > $2) $1 else $2" | bc -l; }

# A run of the tool without the transfer: start-up, open and close, which
# fio's own figure leaves out too.
empty_run() {
    printf 'command open %s RW+DIRECT\ncommand close\n' "$loop" > e.tw
    local t0 t1
    t0=$(now)
    "$tool" -f e.tw -o e.out > /dev/null
    t1=$(now)
    echo "$t1 - $t0" | bc -l
}

tool_run() { # command depth -> records/s
    {
        echo "command open $loop RW+DIRECT result rc >= 0"
        echo "set block_count = 8"
        echo "set depth = $2"
        echo "command $1 records = $records result rc == 4096"
        echo "command close result rc == 0"
    } > t.tw
    local t0 t1 e
    e=$(empty_run)
    t0=$(now)
    "$tool" -f t.tw -o t.out > /dev/null
    t1=$(now)
    grep -q 'rc=0 ' t.out || { echo "tool $1 failed:" >&2; tail -5 t.out >&2; exit 1; }
    echo "$records / ($t1 - $t0 - $e)" | bc -l
}

fio_run() { # rw engine depth -> records/s
    local rw=$1 engine=$2 n=$3 args
    if [ "$engine" = io_uring ]; then
        args=(--ioengine=io_uring --iodepth="$n" --size="${mib}M")
    else
        args=(--ioengine=psync --numjobs="$n" --size=$((mib * 1024 / n))k --offset_increment=$((mib * 1024 / n))k)
    fi
    fio --name=depth --filename="$loop" --direct=1 --bs=4k --rw="$rw" "${args[@]}" --group_reporting \
        --output-format=json > fio.json
    python3 -c 'import json,sys; j=json.load(open("fio.json"))["jobs"][0]; print(j[sys.argv[1]]["iops"])' "$rw"
}

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg); $(nproc) cores; $mib MiB, $records records of 4096 bytes"
printf '%-11s %5s %12s %12s %12s %10s\n' command depth tool/s uring/s psync/s tool/best
for depth in ${DEPTHS:-1 4 16 32}; do
    for command in write read_verify; do
        rw=write
        [ "$command" = write ] || rw=read
        t=0 u=0 p=0
        # The tool writes last, so that read_verify finds its records.
        for _ in $(seq "$repeat"); do
            u=$(best "$(fio_run "$rw" io_uring "$depth")" "$u")
            p=$(best "$(fio_run "$rw" psync "$depth")" "$p")
            t=$(best "$(tool_run "$command" "$depth")" "$t")
        done
        printf '%-11s %5d %12.0f %12.0f %12.0f %10.2f\n' "$command" "$depth" "$t" "$u" "$p" \
            "$(echo "$t / $(best "$u" "$p")" | bc -l)"
    done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "goal: tool/best >= 0.90 at depth 16"
