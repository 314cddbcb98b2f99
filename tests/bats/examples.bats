#!/usr/bin/env bats
# The example scripts of examples/, each run against the simulated driver.

load helpers

setup() {
    if [ -z "${VPATHSIM:-}" ] || [ ! -x "$VPATHSIM" ]; then
        skip "the simulated driver is not built (sim/ not merged yet)"
    fi
    local part
    for part in script device driver; do
        if [ -e "$TARNWICK_SOURCE_DIR/src/$part/${part}_stub.cpp" ]; then
            skip "src/$part is still a placeholder (not merged yet)"
        fi
    done
    setup_workdir
    # The scripts inject faults with `system vpathsim ...`.
    PATH=$(dirname "$VPATHSIM"):$PATH
}

teardown() {
    if [ -n "${WORK:-}" ]; then teardown_workdir; fi
}

# Runs examples/NAME.tw on /dev/vpath0 of a fresh simulated driver; the
# transcript lands in NAME.out, the tool's terminal output in $output.
run_example() {
    local name=$1
    run "$VPATHSIM" run -- "$TARNWICK" -f "$TARNWICK_SOURCE_DIR/examples/$name.tw" \
        -o "$name.out" -d /dev/vpath0
    if [ "$status" -ne 0 ]; then
        echo "exit status $status; terminal output:"
        echo "$output"
        echo "transcript:"
        cat "$name.out" 2> /dev/null || true
        return 1
    fi
    grep -q '^Batch test end rc=0 ' "$name.out"
}

@test "integrity-sweep: write and verify over ranges and blocking factors" {
    run_example integrity-sweep
    grep -q 'read_verify failed for 512 bytes, expected data = 5001, data read = 7 ' integrity-sweep.out
}

@test "failover-path: I/O survives path failures, fails with EIO without paths" {
    run_example failover-path
}

@test "failover-adapter: I/O survives an adapter failure" {
    run_example failover-adapter
}

@test "statistics: device and adapter counters" {
    run_example statistics
}

@test "inquiry-branch: if and skip on the INQUIRY data" {
    run_example inquiry-branch
}
