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
    grep -q '^Set Device 0 Path 1 to offline$' failover-path.out
    grep -q '^analyze return code -1  errno 5 (EIO) $' failover-path.out
    grep -q '^Error setting path state: Invalid Parameter$' failover-path.out
}

@test "failover-adapter: I/O survives an adapter failure" {
    run_example failover-adapter
    grep -q "^Adapter 0: scsi0	State: Failed	    Mode: Active$" failover-adapter.out
    grep -q '^Completion Status: Last Path$' failover-adapter.out
    grep -q '^Error setting adapter state: Invalid Adapter$' failover-adapter.out
}

@test "statistics: device and adapter counters" {
    run_example statistics
    # Ten one-sector writes, five 4 KiB reads, two 128 KiB reads on vpath0.
    grep -q '^I/O:                     7           10            0             0         1$' statistics.out
    grep -q '^                        10            5            0             0         2$' statistics.out
}

@test "inquiry-branch: if and skip on the INQUIRY data" {
    run_example inquiry-branch
    [[ "$output" == *" simulated storage "* ]]
    [[ "$output" == *" controller 0 of device 0 is active "* ]]
    [[ "$output" == *" vendor-specific bytes name the simulator "* ]]
    grep -q '^  vendor id:               NEWCO   $' inquiry-branch.out
}
