# Shared by the black-box tests. TARNWICK, TARNWICK_SOURCE_DIR and (when the
# simulated driver is built) VPATHSIM / VPATHSIM_LIB come from CTest.

setup_workdir() {
    WORK=$(mktemp -d "${BATS_TMPDIR:-/tmp}/tarnwick.XXXXXX")
    cd "$WORK" || return 1
}

teardown_workdir() {
    cd / && rm -rf "$WORK"
}

# Masks what changes from run to run: the time of day in echo lines and the
# banner, the elapsed seconds and the data rates.
mask_times() {
    sed -E \
        -e 's/^[0-9]{2}:[0-9]{2}:[0-9]{2} Line/hh:mm:ss Line/' \
        -e 's/^(Batch test begin at time ).*/\1<time>/' \
        -e 's/^(Batch test end rc=-?[0-9]+ at time ).*/\1<time>/' \
        -e 's/^(Total elapsed time in seconds = ).*/\1<elapsed> /' \
        -e 's/^(Command elapsed time in seconds = ).*/\1<elapsed> /' \
        -e 's/^(Data rate = ).*( bytes\/second )$/\1<rate>\2/' \
        -e 's/(Data rate = ).*( bytes\/sec )$/\1<rate>\2/' \
        "$@"
}

# Runs a batch script given on standard input (or as $1 file); the masked
# transcript lands in masked.out, the tool's stdout/stderr in $output.
run_batch() {
    local script=${1:-test.in}
    shift || true
    if [ ! -f "$script" ]; then cat > test.in; script=test.in; fi
    run "$TARNWICK" -f "$script" -o test.out "$@"
    if [ -f test.out ]; then mask_times test.out > masked.out; fi
}

# Fails with a unified diff when the file differs from the expectation
# given on standard input.
assert_file() {
    local expected
    expected=$(mktemp)
    cat > "$expected"
    if ! diff -u "$expected" "$1"; then
        rm -f "$expected"
        return 1
    fi
    rm -f "$expected"
}

# Expected-transcript pieces written from the transcript formats: banner,
# echo lines, outcome lines and summary.

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

# The name the tool's symbol table gives an error number (first row wins).
errno_text() {
    case $1 in
        0) echo Successful ;; 1) echo EPERM ;; 5) echo EIO ;; 6) echo ENXIO ;; 9) echo EBADF ;;
        11) echo EAGAIN ;; 12) echo ENOMEM ;; 13) echo EACCES ;; 14) echo EFAULT ;; 15) echo ENOTBLK ;;
        16) echo EBUSY ;; 17) echo EEXIST ;; 19) echo ENODEV ;; 22) echo EINVAL ;; 25) echo ENOTTY ;;
        28) echo ENOSPC ;; *) echo '?' ;;
    esac
}

# outcome RC [ERRNO [DATA]]: the two lines analysis prints for every command.
outcome() {
    local rc=$1 err=${2:-0} data=${3:-0}
    printf 'analyze return code %s  errno %d (%s) \n    error value 0 (Successful) residual 0 data %d\n' \
        "$rc" "$err" "$(errno_text "$err")" "$data"
}

# return_error ERRNO: what analysis adds after a return code of -1.
return_error() {
    printf 'analyze return_error cc %d (%s) %s\n' "$1" "$(errno_text "$1")" "$(strerror "$1")"
}

# refused CC: the outcome of a request the driver refused without setting
# errno, then the error fetched for it.
refused() {
    outcome -1
    return_error "$1"
}

strerror() { python3 -c 'import os,sys; print(os.strerror(int(sys.argv[1])))' "$1"; }

# footer BYTES RC: the summary that ends every transcript.
footer() {
    printf 'Total elapsed time in seconds = <elapsed> \nBytes transferred = %10f \n' "$1"
    printf 'Data rate = <rate> bytes/second \nBatch test end rc=%d at time <time>\n \n' "$2"
}
