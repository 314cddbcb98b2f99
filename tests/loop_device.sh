#!/bin/sh
# Loop devices (root, losetup, python3 with glibc; else 77, skipped): on 4096-byte blocks a 512-byte
# direct write gets EINVAL until device_capacity sets the sector size; a direct write is in the
# backing file while the device is open, each record as glibc's srand/rand make it, and a direct read
# sees a byte changed behind it (the page cache would hide both); random_write reaches past the first
# sectors; each of the eight direct or synchronous open modes reaches the kernel with its flags;
# records past sectors 2^31 and 2^32 of a 3 TiB device verify (depth 16, then 1).  loop_device.sh TW
set -u
tarnwick=$1
skip() { echo "skipped: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "not root"
command -v losetup >/dev/null 2>&1 || skip "no losetup"
python3 -c 'import ctypes; ctypes.CDLL("libc.so.6").rand' 2>/dev/null || skip "no python3 with glibc"
loop="" work=$(mktemp -d) || exit 1
trap '[ -z "$loop" ] || losetup -d "$loop"; rm -rf "$work"' EXIT
trap 'exit 1' HUP INT PIPE TERM
cd "$work" || exit 1
fail() { echo "FAILED: $*"; tail -n +1 ./*.out; exit 1; }

# check.py IMAGE FIRST: blocks below FIRST, and all others not zeros, hold their record; prints how
# many lie past FIRST (a reader sharing only glibc's srand/rand with the tool).
cat > check.py <<'PY'
import ctypes, sys
libc, data, first = ctypes.CDLL("libc.so.6"), open(sys.argv[1], "rb").read(), int(sys.argv[2])
def record(n):
    libc.srand(n)
    return n.to_bytes(4, "little") + bytes(libc.rand() & 0xff for _ in range(252)) + bytes(4096 - 256)
used = [n for n in range(len(data) // 4096) if n < first or data[n * 4096:n * 4096 + 4096].count(0) != 4096]
bad = [n for n in used if data[n * 4096:n * 4096 + 4096] != record(n)]
sys.exit("blocks without their record: %s" % bad[:5]) if bad else print(len(used) - first)
PY

# run NAME IMAGE [LOSETUP OPTIONS]: NAME.tw (standard input) against IMAGE's loop device (attached
# until the next run), bounded so that a run that never ends leaves the device to the clean-up.
run() {
    n=$1 i=$2; shift 2
    [ -z "$loop" ] || losetup -d "$loop" || fail "losetup -d $loop"
    loop=$(losetup "$@" -f --show "$i" 2>/dev/null) || return 1
    cat > "$n.tw"
    timeout 60 "$tarnwick" -f "$n.tw" -o "$n.out" -d "$loop" >stdout.out 2>&1 || fail "$n run"
}

truncate -s 64M disk.img
run sweep disk.img --sector-size 4096 <<'EOF' || skip "no loop device of 4096-byte blocks could be set up"
command open $D RW+DIRECT result rc >= 0
command write result rc == -1 errno == EINVAL
command device_capacity result rc == 0
command write records = 1000 result rc == 4096
system python3 check.py disk.img 1000 && touch written.ok
set block_seek = 0
command read_verify records = 1000 result rc == 4096 data == 999
system printf '\377' | dd of=disk.img bs=1 seek=20580 conv=notrunc status=none
set block_seek = 5
command read_verify result rc == -1
set block_seek = 5
command write result rc == 4096
command random_write blocks = 200 result rc == 4096
command random_read blocks = 200 result rc > 0
EOF
[ -f written.ok ] || fail "direct writes were not in the backing file while the device was open"
grep -qx "sector size = 4096, highest LBA = 16383 " sweep.out || fail "capacity line"
grep -qx "block 5 verify failed at byte 100, expected 2, read ff " sweep.out || fail "changed byte not read"
[ "$(python3 check.py disk.img 1000)" -gt 0 ] || fail "random_write stayed within the first 1000 sectors"

# Each mode's flags as the kernel holds them (fdinfo, octal): O_DIRECT 040000, O_DSYNC 010000,
# O_NONBLOCK 04000, the access mode in the low bits; the sweep's device serves.
for m in RO+DIRECT=040000 RW+DIRECT=040002 RW+SYNC=010002 RW+DIRECT+SYNC=050002 RO+DIRECT+NDELAY=044000 \
    RW+DIRECT+NDELAY=044002 RW+SYNC+NDELAY=014002 RW+DIRECT+SYNC+NDELAY=054002; do
    printf 'command open $D %s result rc >= 0\ndelay 2\n' "${m%=*}" > "${m%=*}.tw"
    "$tarnwick" -f "${m%=*}.tw" -o "${m%=*}.out" -d "$loop" >/dev/null 2>&1 &
    flags=""
    for _ in $(seq 50); do
        for fd in /proc/$!/fd/*; do [ "$(readlink "$fd")" = "$loop" ] && flags=$(grep ^flags: "/proc/$!/fdinfo/${fd##*/}"); done
        [ -n "$flags" ] && break || sleep 0.1
    done
    [ "$(printf '%06o' $((0${flags#flags:?} & 054003)))" = "${m#*=}" ] || fail "open mode $m: $flags"
done
wait

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
echo "passed"
