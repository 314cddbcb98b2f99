#!/usr/bin/env bats
# A `set buffer` address that is not mapped at all reaches the device as it
# is; the driver's or the kernel's EFAULT is the answer, and tracing the
# request (which dumps the record at that address) must not end the run.

load helpers

setup() {
    [ -z "${TARNWICK_UNDER_VALGRIND:-}" ] || skip "valgrind reports the deliberately bad address itself"
    setup_workdir
}
teardown() { teardown_workdir; }

@test "traced control request sent to an unmapped address" {
    [ -n "${VPATHSIM:-}" ] || skip "simulated driver not built"
    export VPATHSIM_STATE=$WORK/state
    cat > test.in <<'IN'
command open 0 RW result rc >= 0
set buffer = 4096
command get_number_devices result rc == -1
command get_number_devices result rc == 0
IN
    run "$VPATHSIM" run --state "$VPATHSIM_STATE" -- "$TARNWICK" -t -f test.in -o test.out
    [ "$status" -eq 0 ]
    sed -n '/Line     3 >>>/,/Line     4 >>>/p' test.out | grep -v -e '^TTRACE: \(process\|parse\|analyze\|execute_command\)' -e ' Line ' > request.out
    assert_file request.out <<OUT
TTRACE: ps_ddioctl entered. 
TTRACE: system ioctl, opcode   =00006402 
TTRACE: system ioctl, opcode   =? 
TTRACE: system ioctl, address  =0x1000 
TTRACE: system ioctl, length   =8 
TTRACE: ioctl struct=

TTRACE: ioctl returned rc=0xFFFFFFFF
Error! system ioctl 0x00006402 failed. 
Error! system ioctl errno=14 
       Error is Bad address.
TTRACE: ps_ddioctl exit. 
Error getting number of devices: Success
$(outcome -1)
TTRACE: ps_return_error entered.
TTRACE: ps_return_error exit 14.
analyze return_error cc 14 (EFAULT) Bad address
OUT
}

@test "traced read into an unmapped address fails with EFAULT" {
    head -c 4096 /dev/zero > disk.img
    cat > test.in <<'IN'
command open disk.img RW result rc >= 0
set buffer = 4096
command read result rc == -1 errno == EFAULT
command read result rc == 512
IN
    run "$TARNWICK" -t -f test.in -o test.out
    [ "$status" -eq 0 ]
    grep -q '^Error! system read() failed. Last errno=14 $' test.out
}
