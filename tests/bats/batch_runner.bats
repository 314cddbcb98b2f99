#!/usr/bin/env bats
# The batch runner on awkward input files: empty, binary, over-long lines,
# too many tokens, no last newline, files that cannot be opened, tracing.

load helpers

setup() { setup_workdir; }
teardown() { teardown_workdir; }

@test "an empty file: one end-of-input echo, exit 0" {
    : > test.in
    run_batch test.in
    [ "$status" -eq 0 ]
    assert_file masked.out <<OUT
$(banner test.in test.out)
hh:mm:ss Line     1 >>>  
$(footer 0 0)
OUT
}

@test "a last line without a newline is echoed but not executed" {
    printf 'type a\ntype b' > test.in
    run_batch test.in
    [ "$status" -eq 0 ]
    [ "${lines[3]}" = " a " ]
    [ "${#lines[@]}" -eq 4 ]
    assert_file masked.out <<OUT
$(banner test.in test.out)
hh:mm:ss Line     1 >>> type a  
hh:mm:ss Line     2 >>> type b 
$(footer 0 0)
OUT
}

@test "lines over 254 characters are read, echoed and run in pieces" {
    a249=$(printf 'a%.0s' $(seq 249))
    printf 'type %stype b\n' "$a249" > test.in
    run_batch test.in
    [ "$status" -eq 0 ]
    [ "${lines[3]}" = " $a249" ]
    [ "${lines[4]}" = " b " ]
    assert_file masked.out <<OUT
$(banner test.in test.out)
hh:mm:ss Line     1 >>> type $a249 
hh:mm:ss Line     2 >>> type b  
hh:mm:ss Line     3 >>>  
$(footer 0 0)
OUT
}

@test "a 2000-character line of one token is a run of unrecognised pieces" {
    head -c 2000 /dev/zero | tr '\0' 'x' > test.in
    run_batch test.in
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = "batch file syntax error, line 1 " ]
    [ "$(grep -c '>>> ' test.out)" -eq 1 ]
}

@test "50 tokens are a statement, 51 are silently ignored" {
    x49=$(printf ' x%.0s' $(seq 49))
    x50=$(printf ' x%.0s' $(seq 50))
    printf 'type%s\ntype%s\ncommand read result%s\n' "$x50" "$x49" "$x50" > test.in
    run_batch test.in
    [ "$status" -eq 0 ]
    [ "${#lines[@]}" -eq 4 ]
    [ "${lines[3]}" = "$x49 " ]
    ! grep -q 'analyze' test.out
}

@test "binary bytes separate tokens; NUL ends the line's text" {
    printf 'type\x80x\xffy\x01z\ntype a\0b type c\n\x7f\n' > test.in
    run_batch test.in
    # DEL (0x7f) is an ordinary token character: an unrecognised line.
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = $'\x80x\xffy\x01z ' ]
    [ "${lines[4]}" = " a" ]
    [ "${lines[5]}" = "batch file syntax error, line 3 " ]
    grep -q 'Line     2 >>> type a $' test.out
    grep -qx 'unrecognized statement.' test.out
}

@test "only comments and blank lines: all echoed, nothing run" {
    printf '#c\n# c\n\n   \n\t\n' > test.in
    run_batch test.in
    [ "$status" -eq 0 ]
    [ "$(grep -c '>>> ' test.out)" -eq 6 ]
}

@test "a statement's errors stop the run; later lines are not echoed" {
    printf 'type a\nexit\ntype b\n' > test.in
    run_batch test.in
    [ "$status" -eq 253 ]
    [ "${lines[4]}" = 'Test "test.in" has failed.' ]
    assert_file masked.out <<OUT
$(banner test.in test.out)
hh:mm:ss Line     1 >>> type a  
hh:mm:ss Line     2 >>> exit  
$(footer 0 -3)
OUT
}

@test "input that cannot be opened: message on stderr, no transcript, exit 0" {
    run "$TARNWICK" -f missing.in -o test.out
    [ "$status" -eq 0 ]
    [ "${lines[3]}" = "Error opening file 'missing.in' " ]
    [ ! -e test.out ]
    run bash -c "'$TARNWICK' -f missing.in -o test.out 2>&1 >/dev/null"
    [ "$output" = "Error opening file 'missing.in' " ]
}

@test "output that cannot be opened: message on stderr, exit 0" {
    printf 'exit\n' > test.in
    run bash -c "'$TARNWICK' -f test.in -o no/such/dir 2>&1 >/dev/null"
    [ "$status" -eq 0 ]
    [ "$output" = "Error opening file 'no/such/dir' " ]
}

@test "a directory as input ends at the first read instead of looping" {
    mkdir dir.in
    run timeout 10 "$TARNWICK" -f dir.in -o test.out
    [ "$status" -eq 0 ]
    grep -q 'Line     1 >>>  $' test.out
    grep -q 'Batch test end rc=0 ' test.out
}

@test "defaults: tarnwick.in to tarnwick.out, no file lines in the banner but input's" {
    printf 'type d\n' > tarnwick.in
    run "$TARNWICK" -f tarnwick.in
    [ "$status" -eq 0 ]
    grep -q 'batch input   file: tarnwick.in ' tarnwick.out
    ! grep -q 'batch output' tarnwick.out
}

@test "-t traces the runner on stdout and each statement in the transcript" {
    printf 'type hi\n\n# c\nhello\n' > test.in
    run_batch test.in -t
    [ "$status" -eq 254 ]
    [[ "$output" == *"TTRACE: batch_test_menu entered."* ]]
    [[ "$output" == *$'TTRACE: batch_test_menu exit.\nTTRACE: main exit.'* ]]
    assert_file masked.out <<OUT
$(banner test.in test.out)
hh:mm:ss Line     1 >>> type hi  
TTRACE: process entered (type hi ).
TTRACE: parse entered (type hi ).
TTRACE: parse exit 2.
TTRACE: process exit.
hh:mm:ss Line     2 >>>   
TTRACE: process entered ( ).
TTRACE: parse entered ( ).
TTRACE: process exit.
hh:mm:ss Line     3 >>> # c  
TTRACE: process entered (# c ).
TTRACE: parse entered (# c ).
TTRACE: process exit.
hh:mm:ss Line     4 >>> hello  
TTRACE: process entered (hello ).
TTRACE: parse entered (hello ).
unrecognized statement.
TTRACE: process exit.
$(footer 0 -2)
OUT
}

@test "-t traces delay, if and the guarded statement" {
    printf 'delay 0\nif vendor_id !has X type yes\n' > test.in
    run_batch test.in -t
    [ "$status" -eq 0 ]
    assert_file <(sed -n '/Line     1/,/Line     3/p' masked.out) <<'OUT'
hh:mm:ss Line     1 >>> delay 0  
TTRACE: process entered (delay 0 ).
TTRACE: parse entered (delay 0 ).
TTRACE: parse exit 2.
TTRACE: execute_delay entered. 
TTRACE: execute_delay exited. 
TTRACE: process exit.
hh:mm:ss Line     2 >>> if vendor_id !has X type yes  
TTRACE: process entered (if vendor_id !has X type yes ).
TTRACE: parse entered (if vendor_id !has X type yes ).
TTRACE: parse exit 6.
TTRACE: execute_if entered. 
TTRACE: compare (        ) 
TTRACE: length   8  
TTRACE: compare to (X) 
TTRACE: length   1  
TTRACE: comparison type = 4 
TTRACE: execute_if exit rc=1 
TTRACE: process entered (type yes ).
TTRACE: parse entered (type yes ).
TTRACE: parse exit 2.
TTRACE: process exit.
TTRACE: process exit.
hh:mm:ss Line     3 >>>  
OUT
}
