#!/usr/bin/env bats
# The if statement in batch scripts, before any get_inquiry (every inquiry
# field is then blank).

load helpers

setup() { setup_workdir; }
teardown() { teardown_workdir; }

@test "true tests run the guarded statement, false ones skip it quietly" {
    run_batch <<'IN'
if vendor_id !has X type yes
if vendor_id == X type no
if product_id != X type ne
if firmware_revision_level has X type no
if vendor_specific == '' type no
if vendor_id != Y if product_id !has Z type nested
IN
    [ "$status" -eq 0 ]
    [ "${lines[3]}" = " yes " ]
    [ "${lines[4]}" = " ne " ]
    [ "${lines[5]}" = " nested " ]
    [ "${#lines[@]}" -eq 6 ]
    assert_file <(sed -n '/Line     1/,/Line     7/p' masked.out) <<'OUT'
hh:mm:ss Line     1 >>> if vendor_id !has X type yes  
hh:mm:ss Line     2 >>> if vendor_id == X type no  
hh:mm:ss Line     3 >>> if product_id != X type ne  
hh:mm:ss Line     4 >>> if firmware_revision_level has X type no  
hh:mm:ss Line     5 >>> if vendor_specific == '' type no  
hh:mm:ss Line     6 >>> if vendor_id != Y if product_id !has Z type nested  
hh:mm:ss Line     7 >>>  
OUT
}

@test "the guarded statement counts for the line: exit ends the run" {
    run_batch <<'IN'
if vendor_id !has X exit
type never
IN
    [ "$status" -eq 253 ]
    ! grep -q 'Line     2' test.out
}

@test "the guarded statement's own syntax errors count for the line" {
    run_batch <<'IN'
if vendor_id !has X nonsense words
IN
    [ "$status" -eq 254 ]
    grep -qx 'unrecognized statement.' test.out
    [ "${lines[3]}" = "batch file syntax error, line 1 " ]
}

@test "a quoted value with a blank moves the guarded statement into the value" {
    # Token 4 is C', so the guarded text is "C' exit", a misplaced exit.
    run_batch <<'IN'
if vendor_id !has 'B C' exit
IN
    [ "$status" -eq 254 ]
    grep -qx 'parse command | result | set found in wrong place' test.out
}

malformed() {
    printf '%s\ntype after\n' "$1" > test.in
    run_batch test.in
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = "batch file syntax error, line 1 " ]
    [ "${lines[4]}" = 'Test "test.in" has failed.' ]
}

@test "malformed if statements are syntax errors with their messages" {
    malformed 'if vendor_id == ABC'
    grep -qx "Invalid 'if' statement " test.out
    malformed 'note if vendor_id == X type x'
    [ "$(sed -n '/Line     1/,/Total/p' test.out | wc -l)" -eq 2 ]
    malformed 'if vendor_id =! ABC type x'
    grep -qx '(=! ABC type x ) is an invalid comparison.' test.out
    malformed 'if serial == ABC type x'
    grep -qx '(serial == ABC type x ) is an invalid variable name.' test.out
}
