#!/usr/bin/env bats
# Trace menu sessions typed into the manual test menu, under the simulated
# driver: 642 enables all operations, 20 opens /dev/vpath0 read-write, 88
# enters the trace menu.

load helpers

setup() {
    [ -n "$VPATHSIM" ] || skip "simulated driver not built"
    setup_workdir
    export VPATHSIM_STATE=$WORK/state
}
teardown() { teardown_workdir; }

OPEN='642\n\n20\n2\n\n'

# Types $1 (printf escapes) into the tool; driver state persists in $WORK/s.
session() {
    status=0
    printf "$1" | timeout 300 "$VPATHSIM" run --state "$WORK/s" -- "$TARNWICK" -d /dev/vpath0 "${@:2}" \
        > out.txt 2> err.txt || status=$?
}

driver_flags() {
    "$VPATHSIM" --state "$WORK/s" show | sed -n 's/.*trace flags \(0x[0-9a-f]*\).*/\1/p'
}

# Report lines that change from run to run: the raw buffer's address.
mask_addresses() {
    sed -E -e 's/(user addr:  )0x[0-9a-f]+/\1<raw>/' \
        -e 's/^raw_p 0x[0-9a-f]+  dump 0x[0-9a-f]+ /raw_p <raw>  dump <raw+262144> /' "$@"
}

@test "start tracing, read, snapshot, end tracing" {
    session "${OPEN}88\n50\n19\n99\n\n99\n"
    [ "$status" -eq 0 ]
    [ "$(driver_flags)" = 0x0048 ]
    # The first entry shows a record of zeros aimed at the raw buffer.
    grep -A 11 '^Trace Argument Contents:' out.txt | head -12 | mask_addresses > first.txt
    assert_file first.txt <<'EOF2'
Trace Argument Contents:
  command: DD_TRACE_GET_FLAGS  current flags 0x00000000
  Console printf:    0  Trace lock:        0  Platform specific: 0  Common code:       0
  ENTRY:    0  EXIT:     0  DEBUG:    0
  PAUSE:    0  COMPRESS: 0  DUMP:     0
  user addr:  <raw>  kernel addr: 0x00000000
  bytes req:           0  bytes rpt:            0
  usage:               0  capacity:             0
  first offset:        0  last offset:          0
  entry count:         0  total entry:          0
  lap_count:           0

EOF2
    [ ! -s trace.out ]

    session "${OPEN}22\n2\n\n88\n22\n21\n99\n\n99\n"
    [ "$status" -eq 0 ]
    [ "$(driver_flags)" = 0x0040 ]
    assert_file trace.out <<'EOF2'
vpath0 read via path 1 (sdb) on scsi1
vpath0 read via path 2 (sdc) on scsi0
EOF2
    [ ! -s err.txt ]
}

@test "detailed tracing: raw report with dump, filtered report, other outputs" {
    # 20 detailed trace, 3/10/1 dump flag on, 2 applies it; then one record read.
    session "${OPEN}88\n20\n3\n10\n1\n2\n\n99\n\n22\n1\n\n88\n22\n9\n6\n2\n0\n6\n3\n0\n7\n10\n8\n1\n10\n8\n4\nmine.out\n10\n21\n99\n\n99\n"
    [ "$status" -eq 0 ]
    [ "$(driver_flags)" = 0x1070 ]
    raw=$(sed -n 's/^raw_p 0x\([0-9a-f]*\)  dump 0x\([0-9a-f]*\) .*/\1 \2/p' trace.out)
    read -r raw_p dump <<< "$raw"
    [ $((0x$dump - 0x$raw_p)) -eq 262144 ]
    # Entries end in a NUL byte in the raw section.
    tr '\0' '@' < trace.out | mask_addresses > masked.txt
    assert_file masked.txt <<'EOF2'
ENTRY vpath_read vpath0 offset 0 length 512
vpath0 read via path 1 (sdb) on scsi1
EXIT vpath_read vpath0 length 512 rc 512
***** Trace Report Control Info *****

Trace Argument Contents:
  command: DD_TRACE_SET_FLAGS  current flags 0x00001078
  Console printf:    0  Trace lock:        0  Platform specific: 0  Common code:       1
  ENTRY:    1  EXIT:     1  DEBUG:    1
  PAUSE:    0  COMPRESS: 0  DUMP:     1
  user addr:  <raw>  kernel addr: 0xffffc90000a00000
  bytes req:      272144  bytes rpt:          132
  usage:             132  capacity:         65536
  first offset:        0  last offset:         88
  entry count:         3  total entry:          3
  lap_count:           0
***** Trace Report Begin 132 bytes *****
2FENTRY vpath_read vpath0 offset 0 length 512
@29vpath0 read via path 1 (sdb) on scsi1
@2CEXIT vpath_read vpath0 length 512 rc 512
@
***** Trace Report End Raw *****

***** Trace Report Begin Dump *****
raw_p <raw>  dump <raw+262144>  dump_bytes 68
vpathsim dump: devices 2 adapters 2 flags 0x1178 entries 3 used 132

***** Trace Report End Dump *****
ENTRY vpath_read vpath0 offset 0 length 512
EOF2
    # Output 1: the filtered report on standard output, right after the prompt.
    grep -q '^enter selection: ENTRY vpath_read vpath0 offset 0 length 512$' out.txt
    printf 'ENTRY vpath_read vpath0 offset 0 length 512\n' | assert_file mine.out
    grep -q '^ 22 : write driver trace data to file <mine.out>$' out.txt
    [ ! -s err.txt ]
}

@test "without an open device every request fails and the menu stays usable" {
    session '88\n1\n\n19\n\n20\n\n21\n\n22\n\n23\n\n2\n\n99\n\n99\n'
    [ "$status" -eq 0 ]
    grep -o -e 'rc = -1  enter to continue: ' -e '[a-z][a-z ]* failed[a-z ]*, return to continue' out.txt > messages.txt
    assert_file messages.txt <<'EOF2'
rc = -1  enter to continue: 
tracing start failed get flags, return to continue
tracing start failed get flags, return to continue
tracing end failed get flags, return to continue
snapshot failed get flags, return to continue
clear trace failed, return to continue
rc = -1  enter to continue: 
EOF2
    [ ! -s trace.out ]
}

@test "end of input at any trace menu prompt ends the tool" {
    for tail in '' '3\n' '3\n4\n' '8\n' '8\n4\n' '6\n' '4\n' '1\n' '77\n'; do
        session "${OPEN}88\n${tail}"
        [ "$status" -eq 0 ]
        [ "$(grep -c 'Trace Operations Menu' out.txt)" -le 2 ]
    done
}

@test "-t traces the menu's steps and requests on standard output" {
    session "${OPEN}88\n19\n22\n99\n\n99\n" -t
    [ "$status" -eq 0 ]
    # The menu's own lines (no colon after TTRACE), some behind a prompt.
    grep -o 'TTRACE [^:]*$' out.txt > ttrace.txt
    assert_file ttrace.txt <<'EOF2'
TTRACE trace_menu entered.
TTRACE start tracing, get flags 
TTRACE flags 0x00 
TTRACE set cc trace on 0x1 
TTRACE begin snapshot, get flags 
TTRACE set pause 0x1 
TTRACE request report 0x2 
TTRACE set unpause 0x1 
TTRACE calling dd_trace_format_report 
TTRACE cook_report_bytes = 0 
EOF2
    grep -q '^TTRACE: system ioctl, opcode   =00006401 $' out.txt
}
