#!/usr/bin/env bats
# The driver trace table as the tool's trace menu sees it: tracing started
# in one run records that run's I/O, and a later run fetches it.

load helpers

setup() {
    setup_workdir
    export VPATHSIM_STATE=$WORK/state
}
teardown() { teardown_workdir; }

# Feeds the manual test menu of tarnwick -d 0 from standard input.
menu() {
    run "$VPATHSIM" run --state "$VPATHSIM_STATE" -- "$TARNWICK" -d 0
}

@test "detailed tracing records the reads; snapshot and raw report fetch them in a later run" {
    # open, trace menu: start detailed tracing, back, read 2 records, exit
    menu <<'IN'
20

88
20
99

22
2

99
IN
    [ "$status" -eq 0 ]
    rm -f trace.out

    # open, trace menu: snapshot, then 100 bytes of raw report, exit
    menu <<'IN'
20

88
22
4
100
5

9
99

99
IN
    [ "$status" -eq 0 ]
    head -6 trace.out > got.out
    assert_file got.out <<'EXP'
ENTRY vpath_read vpath0 offset 0 length 512
vpath0 read via path 1 (sdb) on scsi1
EXIT vpath_read vpath0 length 512 rc 512
ENTRY vpath_read vpath0 offset 512 length 512
vpath0 read via path 2 (sdc) on scsi0
EXIT vpath_read vpath0 length 512 rc 512
EXP
    # Whole entries only: 0x2F + 0x29 bytes fit in 100, the third does not.
    grep -q '^\*\*\*\*\* Trace Report Begin 88 bytes \*\*\*\*\*$' trace.out
    grep -q '^  entry count:         2  total entry:          6$' trace.out
    grep -aq '^2FENTRY vpath_read vpath0 offset 0 length 512$' trace.out
    # Each entry ends in a NUL byte after its text.
    tr '\0' '|' < trace.out | grep -qx '|29vpath0 read via path 1 (sdb) on scsi1'
}

@test "nothing is recorded before tracing starts or while it is paused" {
    "$VPATHSIM" init
    menu <<'IN'
20

22
1

88
20
3
8
1
2

99

22
1

88
22
99

99
IN
    [ "$status" -eq 0 ]
    [ ! -s trace.out ]
}
