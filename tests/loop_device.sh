#!/bin/sh
# Direct transfers through a real kernel block device: loop devices over
# temporary files. Needs root, losetup, free loop devices and python3;
# anywhere else it exits 77, which CTest reports as skipped.
#   loop_device.sh TARNWICK
#
# What it proves, beyond the tool's own result checks:
# - a direct write is in the backing file while the tool still holds the
#   device open (a cached write would sit in the device's page cache);
# - a direct read sees a change made to the backing file behind the
#   device (a cached read would return the page it had already read);
# - after the device is gone, every written sector of the backing file
#   holds its record, read by a reader that shares nothing with the tool
#   but the C library's srand/rand;
# - on a device of 4096-byte blocks a 512-byte direct transfer gets EINVAL
#   and device_capacity sets the sector size the device needs.
set -u
tarnwick=$1
skip() {
    echo "skipped: $*"
    exit 77
}
[ "$(id -u)" = 0 ] || skip "not root"
command -v losetup >/dev/null 2>&1 || skip "no losetup"
command -v python3 >/dev/null 2>&1 || skip "no python3"
python3 -c 'import ctypes; ctypes.CDLL("libc.so.6").rand' 2>/dev/null || skip "no glibc for python3"

work=$(mktemp -d) || exit 1
loops=""
cleanup() {
    for loop in $loops; do losetup -d "$loop" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' HUP INT PIPE TERM
cd "$work" || exit 1

fail() {
    echo "FAILED: $*"
    for out in *.out; do [ -f "$out" ] && { echo "--- $out"; cat "$out"; }; done
    exit 1
}

# check.py IMAGE BLOCK FIRST_COUNT [MARKER]: blocks 0..FIRST_COUNT-1 hold
# records, and so does every block that is not all zeros: bytes 0-3 the
# block's number (little-endian), 4-255 the low bytes of rand() after
# srand(number), the rest zeros. Prints how many record blocks lie past the
# first ones; with MARKER, creates that file when all is well.
cat > check.py <<'PY'
import ctypes, sys
libc = ctypes.CDLL("libc.so.6")
image, block, first = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
def record(n):
    libc.srand(n & 0xffffffff)
    return (n & 0xffffffff).to_bytes(4, "little") + bytes(libc.rand() & 0xff for _ in range(252)) + bytes(block - 256)
beyond = 0
with open(image, "rb") as f:
    n = 0
    while True:
        data = f.read(block)
        if len(data) < block:
            break
        if n < first or data.count(0) != block:
            if data != record(n):
                sys.exit("block %d does not hold its record" % n)
            beyond += n >= first
        n += 1
if n < first:
    sys.exit("image has only %d blocks" % n)
print("records past the first %d: %d" % (first, beyond))
if len(sys.argv) > 4:
    open(sys.argv[4], "w").close()
PY

# corrupt.py IMAGE OFFSET: flips one byte of the backing file.
cat > corrupt.py <<'PY'
import sys
with open(sys.argv[1], "r+b") as f:
    f.seek(int(sys.argv[2]))
    b = f.read(1)
    f.seek(int(sys.argv[2]))
    f.write(bytes([b[0] ^ 0xff]))
PY

attach() {  # attach IMAGE [LOSETUP OPTIONS]: the new device in $loop
    image=$1
    shift
    loop=$(losetup "$@" -f --show "$image" 2>/dev/null) || return 1
    loops="$loops $loop"
}
detach() {
    losetup -d "$1" || fail "losetup -d $1"
    loops=$(echo "$loops" | sed "s#$1##")
}

# 64 MiB of 512-byte blocks: capacity, a sequential sweep, a change behind
# the device's back, and random transfers over the whole device.
truncate -s 64M disk.img || exit 1
attach disk.img || skip "no loop device could be set up"
disk=$loop
cat > sweep.tw <<EOF
command open \$D RW+DIRECT result rc >= 0
command device_capacity result rc == 0
command write records = 1000 result rc == 512
system python3 check.py disk.img 512 1000 written.ok
set block_seek = 0
command read_verify records = 1000 result rc == 512 data == 999
system python3 corrupt.py disk.img 2660
set block_seek = 5
command read_verify result rc == -1
set block_seek = 5
command write result rc == 512
command random_write blocks = 200 result rc == 512
command random_read blocks = 200 result rc > 0
command close result rc == 0
EOF
"$tarnwick" -f sweep.tw -o sweep.out -d "$disk" >stdout.out 2>&1 || fail "sweep run"
[ -f written.ok ] || fail "direct writes were not in the backing file while the device was open"
grep -qx "sector size = 512, highest LBA = 131071 " sweep.out || fail "capacity line"
grep -qx "block 5 verify failed at byte 100, expected 2, read fd " sweep.out || fail "changed byte not read"
detach "$disk"
python3 check.py disk.img 512 1000 >check.out || fail "backing file after the sweep"
grep -qx "records past the first 1000: 0" check.out && fail "random_write stayed within the first 1000 sectors"

# 16 MiB of 4096-byte blocks: the 512-byte record the open sets up is
# refused until device_capacity sets the sector size.
truncate -s 16M disk4k.img || exit 1
attach disk4k.img --sector-size 4096 || skip "losetup cannot set a 4096-byte sector size"
disk4k=$loop
cat > big.tw <<EOF
command open \$D RW+DIRECT+SYNC result rc >= 0
command write result rc == -1 errno == EINVAL
command device_capacity result rc == 0
command write records = 4 result rc == 4096
set block_seek = 0
command read_verify records = 4 result rc == 4096 data == 3
command close result rc == 0
EOF
"$tarnwick" -f big.tw -o big.out -d "$disk4k" >stdout.out 2>&1 || fail "4096-byte run"
grep -qx "sector size = 4096, highest LBA = 4095 " big.out || fail "4096-byte capacity line"
detach "$disk4k"
python3 check.py disk4k.img 4096 4 >check.out || fail "backing file of 4096-byte blocks"
grep -qx "records past the first 4: 0" check.out || fail "stray 4096-byte records"
echo "passed"
