# Driver tests on a fresh simulated driver state per test.

load helpers

setup() {
    [ -n "$VPATHSIM" ] || skip "simulated driver not built"
    setup_workdir
    export VPATHSIM_STATE=$WORK/state
}
teardown() { teardown_workdir; }

# Runs test.in with the simulated driver on this test's state, created
# fresh from the topology file given as $1 (the built-in one without).
sim_batch() {
    "$VPATHSIM" init ${1:+--config "$1"}
    shift || true
    run "$VPATHSIM" run --state "$VPATHSIM_STATE" -- "$TARNWICK" -f test.in -o test.out "$@"
    mask_times test.out | tr '\0' '@' > masked.out
}

# The transcript from line 2 (line 1 opens the device, and its descriptor
# varies) up to the summary; NULs show as @.
body() {
    sed -n -e '/^Total elapsed time/q' -e '/ Line     2 >>> /,$p' masked.out
}

# The device statistics report of a device nothing has touched yet (the
# blank line that ends it is left to the caller).
untouched_dev_stats() {
    cat <<'OUT'
Completion Status: Success

                Total Read  Total Write  Active Read  Active Write   Maximum
I/O:                     0            0            0             0         0
SECTOR:                  0            0            0             0         0

Transfer Size:      <= 512        <= 4k       <= 16K        <= 64K     > 64K
                         0            0            0             0         0
OUT
}

# The INQUIRY report of device N of the built-in topology (N below 10).
builtin_inquiry() {
    cat <<OUT
INQUIRY data:
  devtype             0 
  flags       5
  additional_length  40 flags2   2 
  vendor id:               NEWCO   
  product id:              VDISK-2107      
  firmware revision level: 1.00
  vendor specific: 
     53 49 4d 2d 56 50 41 54 48 2d 30 30 30 30 30 30 30 30 30 3$1
     (SIM-VPATH-000000000$1) 
OUT
}
