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
