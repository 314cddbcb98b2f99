# Expected-transcript pieces for the device and data-command tests, written
# from the transcript formats (banner, echo lines, outcome line, summary).

load helpers

# banner INPUT OUTPUT [SPECIAL]
banner() {
    printf 'Batch test begin at time <time>\n\nTest tool version 0001 \nLinux   test platform,\n'
    printf 'batch input   file: %s \nbatch output  file: %s \n' "$1" "$2"
    if [ -n "${3:-}" ]; then printf 'batch special file: %s \n' "$3"; fi
}

# echo_line N TEXT: the line's newline became a blank, the format adds one.
echo_line() { printf 'hh:mm:ss Line %5d >>> %s  \n' "$1" "$2"; }
# The extra echo after the last line, with empty text.
eof_line() { printf 'hh:mm:ss Line %5d >>>  \n' "$1"; }

errno_text() {
    case $1 in
        0) echo Successful ;; 1) echo EPERM ;; 5) echo EIO ;; 9) echo EBADF ;; 13) echo EACCES ;;
        14) echo EFAULT ;; 22) echo EINVAL ;; *) echo '?' ;;
    esac
}

# outcome RC [ERRNO [DATA]]: the line analysis prints for every command.
outcome() {
    local rc=$1 err=${2:-0} data=${3:-0}
    printf 'analyze return code %s  errno %d (%s) \n    error value 0 (Successful) residual 0 data %d\n' \
        "$rc" "$err" "$(errno_text "$err")" "$data"
}

# return_error ERRNO: what analysis adds after a return code of -1.
return_error() {
    printf 'analyze return_error cc %d (%s) %s\n' "$1" "$(errno_text "$1")" "$(strerror "$1")"
}

strerror() { python3 -c 'import os,sys; print(os.strerror(int(sys.argv[1])))' "$1"; }

# footer BYTES RC
footer() {
    printf 'Total elapsed time in seconds = <elapsed> \nBytes transferred = %10f \n' "$1"
    printf 'Data rate = <rate> bytes/second \nBatch test end rc=%d at time <time>\n \n' "$2"
}

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
