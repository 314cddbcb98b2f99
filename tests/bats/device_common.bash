# Expected-transcript pieces for the device and data-command tests (the
# banner, outcome and summary pieces are in helpers.bash).

load helpers

# Descriptor numbers depend on what the test harness leaves open; the
# outcome line right after a successful open shows FD instead.
mask_fds() {
    awk '/^(Open mode|device file \(| open INVALID)/ { opened = 1; print; next }
         opened && /^analyze return code [0-9]+  / { sub(/code [0-9]+ /, "code FD "); opened = 0 }
         /^analyze/ { opened = 0 }
         { print }' "$1"
}

# run_masked [tool options...]: runs test.in, transcript masked in masked.out.
run_masked() {
    run_batch test.in "$@"
    mask_fds masked.out > fd.out && mv fd.out masked.out
}

# pattern SECTOR COUNT: the first COUNT bytes of the record pattern of a
# sector (bytes 4 onward of a record), from the C library's own srand/rand.
pattern() {
    python3 - "$1" "$2" <<'PY'
import ctypes, sys
libc = ctypes.CDLL("libc.so.6")
libc.srand(int(sys.argv[1]) & 0xffffffff)
print(" ".join("%02x" % (libc.rand() & 0xff) for _ in range(int(sys.argv[2]))))
PY
}

# head_bytes ID SECTOR: the eight-byte line of a record with identifier ID
# written for SECTOR.
head_bytes() {
    local id=$1 sector=$2
    printf '%02x %02x %02x %02x %s ...\n' $((id & 255)) $(((id >> 8) & 255)) $(((id >> 16) & 255)) \
        $(((id >> 24) & 255)) "$(pattern "$sector" 4)"
}

# opened N STATEMENT [MODE_LINE]: the echo line of an open that succeeds,
# its mode line (read and write unless given) and its outcome.
opened() {
    echo_line "$1" "$2"
    echo "${3:-Open mode: Read and wirte.}"
    outcome FD
}

# xfer VERB BYTES SECTOR ID [PATTERN_SECTOR]: the report line of one record;
# the pattern is the sector's own unless the buffer kept an older record.
xfer() {
    printf '%s %d bytes, sector = %s, data = %s, %s\n' "$1" "$2" "$3" "$4" "$(head_bytes "$4" "${5:-$3}")"
}

# xfers VERB BYTES SECTOR1 ID1 SECTOR2 ID2: the first and last report lines
# of a transfer of several records.
xfers() {
    xfer "$1" "$2" "$3" "$4"
    printf ' ... \n'
    xfer "$1" "$2" "$5" "$6"
}
