#!/usr/bin/env bats
# Batch scripts run through tarnwick against the simulated driver: what a
# tester sees of device, path, adapter, statistics, inquiry and fault
# scripts, and of the driver's answers to bad input.

load helpers

setup() {
    setup_workdir
    export VPATHSIM_STATE=$WORK/state
}
teardown() { teardown_workdir; }

# Runs the batch script on standard input under the simulator (state kept
# in $VPATHSIM_STATE across calls); masked transcript in masked.out.
sim_batch() {
    cat > test.in
    run "$VPATHSIM" run --state "$VPATHSIM_STATE" -- "$TARNWICK" -f test.in -o test.out "$@"
    mask_times test.out > masked.out
}

# The transcript lines from the echo of line $1 up to the echo of line $2.
lines_between() {
    sed -n "/Line *$1 >>>/,/Line *$2 >>>/p" masked.out | sed '1d;$d'
}

@test "the last functioning path and adapter stay online, and the state survives the run" {
    sim_batch <<'EOF2'
command open 0 RW result rc >= 0
command set_path device 0 path 0 state 2 result rc == 0
command set_path device 0 path 2 state 2 result rc == 0
command set_adapter adapter 1 state 2 result rc == 0
command set_path device 0 path 1 state 2 result rc == 0
command set_path device 0 path 3 state 2 result rc == 0
command close result rc == 0
EOF2
    [ "$status" -eq 0 ]
    lines_between 4 5 | head -2 > got.out
    assert_file got.out <<'EXP'
Completion Status: Last Path
The last path, Adapter 1 remain online
EXP
    lines_between 6 7 | head -1 > got.out
    assert_file got.out <<<'Completion Status: Last Path'

    # A later run sees what the driver kept.
    sim_batch <<'EOF2'
command open 0 RO result rc >= 0
command get_device_state device 0 result rc == 0
command get_adapter_info result rc == 0
command set_path device 0 path 0 state 1 result rc == 0
command set_adapter adapter 1 state 2 result rc == 0
EOF2
    [ "$status" -eq 0 ]
    grep -qx 'Path Count: 4 	Remaining Path: 1	Last path used: 0' masked.out
    lines_between 2 3 | sed -n '9,11p' > got.out
    assert_file got.out <<'EXP'
Path 0: Adapter 0 (scsi0)	Path Name: sda
	State: Closed		Mode: Manual Offline
	Times used:      0	Recovered Errors: 0
EXP
    lines_between 3 4 | sed -n '3,5p' > got.out
    assert_file got.out <<'EXP'
Adapter 0: scsi0	State: Degraded	    Mode: Active
	Count:      0		Error Count: 0
	Attached Path: 4	Path still functioning: 2
EXP
    # With sda back online the adapter is no longer vpath0's last way in.
    lines_between 5 6 | head -2 > got.out
    assert_file got.out <<'EXP'
Completion Status: Success
Set Adapter 1 to offline
EXP
}

@test "adapter statistics count the script's own transfers" {
    # The device report and the size buckets are proved in driver_reports.
    sim_batch <<'EOF2'
command open 0 RW result rc >= 0
set block_count = 1
command write records = 3 result rc == 512
set block_count = 16
command write records = 1 result rc == 8192
set block_count = 256
command read records = 1 result rc == 131072
command get_adapter_stats adapter 0 result rc == 0
command close result rc == 0
EOF2
    [ "$status" -eq 0 ]
    # Round robin over four paths on two adapters: transfers 2 and 4 went
    # through scsi0 (paths 2 and 0).
    lines_between 8 9 | sed -n 4,5p > got.out
    assert_file got.out <<'EXP'
I/O:                     0            2            0             0         1
SECTOR:                  0           17            0             0        16
EXP
}

@test "failover: I/O goes on while a path is left, then fails with EIO" {
    sim_batch <<'EOF2'
command open 0 RW result rc >= 0
system vpathsim fail-adapter 0
system vpathsim fail-path 0 1
command write records = 1 result rc == 512
command get_device_state device 0 result rc == 0
system vpathsim fail-path 0 3
command read records = 1 result rc == -1 err == EIO
system vpathsim restore
command read records = 1 result rc == 512
command close result rc == 0
EOF2
    [ "$status" -eq 0 ]
    grep -qx 'Path Count: 4 	Remaining Path: 1	Last path used: 3' masked.out
    lines_between 5 6 | sed -n '9,10p;13,14p' > got.out
    assert_file got.out <<'EXP'
Path 0: Adapter 0 (scsi0)	Path Name: sda
	State: Dead		Mode: Normal
Path 1: Adapter 1 (scsi1)	Path Name: sdb
	State: Dead		Mode: Normal
EXP
}

@test "an injected medium error fails the transfers that cover its sector" {
    "$VPATHSIM" inject-eio 1 12
    sim_batch <<'EOF2'
command open 1 RW result rc >= 0
set block_count = 8
command write records = 1 result rc == 4096
set block_seek = 5
command write records = 1 result rc == -1 err == EIO
command read records = 1 result rc == -1 err == EIO
set block_seek = 13
command read records = 1 result rc == 4096
command get_adapter_info result rc == 0
EOF2
    [ "$status" -eq 0 ]
    # Medium errors count against the adapter they were met on; round robin
    # met one on each.
    [ "$(grep -cx '	Count:      2		Error Count: 1' masked.out)" -eq 2 ]
}

@test "open modes the driver refuses get the kernel's answers" {
    sim_batch <<'EOF2'
command open 0 INVALID result rc == -1 err == EINVAL
command open 7 RW result rc == -1 err == ENXIO
command open 0 RO result rc >= 0
command write records = 1 result rc == -1 err == EBADF
EOF2
    [ "$status" -eq 0 ]
}

@test "bad buffer and record addresses get EFAULT, not a crash" {
    # memcheck rightly reports the tool handing the kernel a bad buffer.
    [ -z "${TARNWICK_UNDER_VALGRIND:-}" ] || skip "deliberate bad addresses"
    sim_batch <<'EOF2'
command open 0 RW result rc >= 0
set buffer = 16
command read records = 1 result rc == -1 err == EFAULT
set buffer = 16
command write records = 1 result rc == -1 err == EFAULT
set buffer = 16
command get_number_devices result rc == -1 cc == EFAULT
set buffer = 16
command get_dev_stats device 0 result rc == -1 cc == EFAULT
command get_number_devices result rc == 0
EOF2
    [ "$status" -eq 0 ]
}

@test "end of the device: reads stop, writes get ENOSPC" {
    printf 'adapter a\ndevice size=8K\npath p adapter=0\n' > small.conf
    "$VPATHSIM" init --config small.conf
    sim_batch <<'EOF2'
command open 0 RW result rc >= 0
set block_seek = 15
command write records = 1 result rc == 512
command write records = 1 result rc == -1 err == ENOSPC
set block_seek = 16
command read records = 1 result rc == 0
EOF2
    [ "$status" -eq 0 ]
}
