#!/bin/sh
# Direct transfers through loop devices (root, losetup, python3 with glibc;
# else status 77, skipped): a direct write is in the backing file while the
# device is open, a direct read sees a byte changed behind it (the page cache
# would hide both); every written sector holds its record, per a reader
# sharing only glibc's srand/rand with the tool; random_write reaches past the
# first sectors; on 4096-byte blocks a 512-byte direct write gets EINVAL until
# device_capacity sets the sector size; each of the eight direct or
# synchronous open modes reaches the kernel with its flags; records past
# sector 2^32 of a sparse 3 TiB device verify, written and read at depth 16
# and 1.   loop_device.sh TARNWICK
set -u
tarnwick=$1
skip() { echo "skipped: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "not root"
command -v losetup >/dev/null 2>&1 || skip "no losetup"
python3 -c 'import ctypes; ctypes.CDLL("libc.so.6").rand' 2>/dev/null || skip "no python3 with glibc"
work=$(mktemp -d) || exit 1
loop=""
trap '[ -z "$loop" ] || losetup -d "$loop"; rm -rf "$work"' EXIT
trap 'exit 1' HUP INT PIPE TERM
cd "$work" || exit 1
fail() { echo "FAILED: $*"; tail -n +1 ./*.out; exit 1; }

# check.py IMAGE BLOCK FIRST [MARKER]: blocks 0..FIRST-1 and all not all zeros
# hold their record; prints how many lie past FIRST; MARKER made if all is well.
cat > check.py <<'PY'
import ctypes, sys
libc = ctypes.CDLL("libc.so.6")
image, block, first = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
def record(n):
    libc.srand(n)
    return n.to_bytes(4, "little") + bytes(libc.rand() & 0xff for _ in range(252)) + bytes(block - 256)
data = open(image, "rb").read()
blocks = [data[i:i + block] for i in range(0, len(data) - block + 1, block)]
used = [n for n, b in enumerate(blocks) if n < first or b.count(0) != block]
bad = [n for n in used if blocks[n] != record(n)]
if len(blocks) < first or bad:
    sys.exit("blocks without their record: %s" % bad[:5])
print("records past the first %d: %d" % (first, len(used) - first))
len(sys.argv) > 4 and open(sys.argv[4], "w").close()
PY

# run NAME IMAGE [LOSETUP OPTIONS]: NAME.tw (standard input) against IMAGE's loop device
run() {
    n=$1 i=$2; shift 2
    loop=$(losetup "$@" -f --show "$i" 2>/dev/null) || return 1
    cat > "$n.tw"
    # Bounded, so that a run that never ends still leaves the loop device to
    # this script's clean-up rather than to the test driver's kill.
    timeout 60 "$tarnwick" -f "$n.tw" -o "$n.out" -d "$loop" >stdout.out 2>&1 || fail "$n run"
    losetup -d "$loop" || fail "losetup -d $loop"
    loop=""
}

truncate -s 64M disk.img
run sweep disk.img <<'EOF' || skip "no loop device could be set up"
command open $D RW+DIRECT result rc >= 0
command device_capacity result rc == 0
command write records = 1000 result rc == 512
system python3 check.py disk.img 512 1000 written.ok
set block_seek = 0
command read_verify records = 1000 result rc == 512 data == 999
system printf '\377' | dd of=disk.img bs=1 seek=2660 conv=notrunc status=none
set block_seek = 5
command read_verify result rc == -1
set block_seek = 5
command write result rc == 512
command random_write blocks = 200 result rc == 512
command random_read blocks = 200 result rc > 0
command close result rc == 0
EOF
[ -f written.ok ] || fail "direct writes were not in the backing file while the device was open"
grep -qx "sector size = 512, highest LBA = 131071 " sweep.out || fail "capacity line"
grep -qx "block 5 verify failed at byte 100, expected 2, read ff " sweep.out || fail "changed byte not read"
python3 check.py disk.img 512 1000 >check.out || fail "backing file after the sweep"
grep -qx "records past the first 1000: 0" check.out && fail "random_write stayed within the first 1000 sectors"

# Each direct or synchronous open mode's flags as the kernel holds them
# (fdinfo, octal): O_DIRECT 040000, O_DSYNC 010000, O_NONBLOCK 04000, the
# access mode in the low bits. All eight hold the device at once.
loop=$(losetup -f --show disk.img) || fail "losetup for the open modes"
set -- RO+DIRECT 040000 RW+DIRECT 040002 RW+SYNC 010002 RW+DIRECT+SYNC 050002 \
    RO+DIRECT+NDELAY 044000 RW+DIRECT+NDELAY 044002 RW+SYNC+NDELAY 014002 RW+DIRECT+SYNC+NDELAY 054002
pids=""
for mode in $(printf '%s\n' "$@" | sed -n 'p;n'); do
    printf 'command open $D %s result rc >= 0\ndelay 2\n' "$mode" > "$mode.tw"
    timeout 20 "$tarnwick" -f "$mode.tw" -o "$mode.out" -d "$loop" >/dev/null 2>&1 &
    pids="$pids $!"
done
for pid in $pids; do
    mode=$1 want=$2; shift 2
    flags=""
    for _ in $(seq 50); do
        tool=$(cat /proc/"$pid"/task/"$pid"/children 2>/dev/null)  # the child of timeout
        for fd in /proc/${tool% }/fd/*; do
            [ "$(readlink "$fd" 2>/dev/null)" = "$loop" ] && flags=$(awk '/^flags:/ {print $2}' "${fd%/fd/*}/fdinfo/${fd##*/}")
        done
        [ -n "$flags" ] && break
        sleep 0.1
    done
    got=$(printf '%06o' $(( 0$flags & 054003 )))
    [ "$got" = "$want" ] || fail "open mode $mode: flags $flags, expected $want among them"
done
wait
losetup -d "$loop" || fail "losetup -d $loop"
loop=""

# Past sectors 2^31 and 2^32 of a sparse 3 TiB device, written at depth 16
# through O_DIRECT, read back at depth 1.
truncate -s 3T huge.img 2>/dev/null || skip "no 3 TiB sparse file here"
run huge huge.img <<'EOF' || skip "no loop device over a 3 TiB file"
command open $D RW+DIRECT result rc >= 0
set depth = 16
set block_seek = 4294967290
command write records = 16 result rc == 512
set block_seek = 2147483640
command write records = 16 result rc == 512
set depth = 1
set block_seek = 2147483640
command read_verify records = 16 result rc == 512 data == -2147483641
set block_seek = 4294967290
command read_verify records = 16 result rc == 512 data == 9
EOF
rm -f huge.img

truncate -s 16M disk4k.img
run big disk4k.img --sector-size 4096 <<'EOF' || skip "losetup cannot set a 4096-byte sector size"
command open $D RW+DIRECT+SYNC result rc >= 0
command write result rc == -1 errno == EINVAL
command device_capacity result rc == 0
command write records = 4 result rc == 4096
set block_seek = 0
command read_verify records = 4 result rc == 4096 data == 3
command close result rc == 0
EOF
grep -qx "sector size = 4096, highest LBA = 4095 " big.out || fail "4096-byte capacity line"
python3 check.py disk4k.img 4096 4 >check.out || fail "backing file of 4096-byte blocks"
grep -qx "records past the first 4: 0" check.out || fail "stray 4096-byte records"
echo "passed"
