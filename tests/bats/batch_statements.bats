#!/usr/bin/env bats
# Every statement kind of the dispatcher, run from a batch file, with its
# transcript, its standard output and the exit status.

load helpers

setup() { setup_workdir; }
teardown() { teardown_workdir; }

@test "each small statement in one script: transcript, stdout and exit 253" {
    cat > test.in <<'IN'
symbols
type Hello there
# a comment
 	
skip 1
type skipped
system echo from-shell
system
delay 0
pause here
set block_seek = 1
if vendor_id !has X type guarded
exit
type never
IN
    run bash -c "printf 'k' | '$TARNWICK' -f test.in -o test.out"
    [ "$status" -eq 253 ]
    [ "$output" = "Usage: 
  tarnwick <-f batch-input-file> <-o batch-output-file> <-d special-file> <-t>
 
 Hello there 
from-shell
pause here :
 guarded 
Test \"test.in\" has failed." ]
    mask_times test.out > masked.out
    assert_file masked.out <<OUT
$(banner test.in test.out)
hh:mm:ss Line     1 >>> symbols  
Symbolic values:
                          Successful = 0 (0x0)
                               EPERM = 1 (0x1)
                                 EIO = 5 (0x5)
                               ENXIO = 6 (0x6)
                              EAGAIN = 11 (0xb)
                              ENOMEM = 12 (0xc)
                              EACCES = 13 (0xd)
                              EFAULT = 14 (0xe)
                               EBUSY = 16 (0x10)
                              ENODEV = 19 (0x13)
                              EINVAL = 22 (0x16)
                              ENOTTY = 25 (0x19)
                              ENOSPC = 28 (0x1c)
                               EBADF = 9 (0x9)
                              EFAULT = 14 (0xe)
                             ENOTBLK = 15 (0xf)
                           ENOTREADY = 13 (0xd)
                              EEXIST = 17 (0x11)
hh:mm:ss Line     2 >>> type Hello there  
hh:mm:ss Line     3 >>> # a comment  
hh:mm:ss Line     4 >>>  	  
hh:mm:ss Line     5 >>> skip 1  
hh:mm:ss Line     6 >>> type skipped  
   line skipped. 
hh:mm:ss Line     7 >>> system echo from-shell  
system (echo from-shell ) 
command returned rc 0 
hh:mm:ss Line     8 >>> system  
No command entered, ignored!!!
hh:mm:ss Line     9 >>> delay 0  
hh:mm:ss Line    10 >>> pause here  
hh:mm:ss Line    11 >>> set block_seek = 1  
hh:mm:ss Line    12 >>> if vendor_id !has X type guarded  
hh:mm:ss Line    13 >>> exit  
$(footer 0 -3)
OUT
}

@test "a clean run ends with the end-of-input echo, rc=0 and no verdict" {
    printf 'type one\n# two\n' > test.in
    run "$TARNWICK" -f test.in -o test.out -d /dev/null
    [ "$status" -eq 0 ]
    [[ "$output" != *"has failed"* ]]
    mask_times test.out > masked.out
    assert_file masked.out <<OUT
$(banner test.in test.out /dev/null)
hh:mm:ss Line     1 >>> type one  
hh:mm:ss Line     2 >>> # two  
hh:mm:ss Line     3 >>>  
$(footer 0 0)
OUT
}

@test "type prints from the first occurrence of the word, even inside a token" {
    printf 'prototype type x\nnote type hello\n' > test.in
    run "$TARNWICK" -f test.in -o test.out
    [ "$status" -eq 0 ]
    [ "${lines[3]}" = " type x " ]
    [ "${lines[4]}" = " hello " ]
}

@test "system reports the raw wait status and ignores it" {
    run_batch <<'IN'
system exit 3
system	true
IN
    [ "$status" -eq 0 ]
    grep -qx 'system (exit 3 ) ' test.out
    grep -qx 'command returned rc 768 ' test.out
    grep -qx 'system (true ) ' test.out
}

@test "skip and delay need exactly two tokens" {
    for bad in 'skip' 'skip 3 4' 'delay' 'delay 1 2'; do
        printf '%s\ntype after\n' "$bad" > test.in
        run "$TARNWICK" -f test.in -o test.out
        [ "$status" -eq 254 ]
        [ "${lines[3]}" = "batch file syntax error, line 1 " ]
        [ "${lines[4]}" = 'Test "test.in" has failed.' ]
        ! grep -q 'Line     2' test.out
    done
}

@test "skip 2 skips the next two lines, which are still echoed" {
    run_batch <<'IN'
type a
type b
skip 2
type c
type d
type e
IN
    [ "$status" -eq 0 ]
    [ "${lines[3]}" = " a " ]
    [ "${lines[4]}" = " b " ]
    [ "${lines[5]}" = " e " ]
    assert_file <(sed -n '/Line     4/,/Line     6/p' masked.out) <<'OUT'
hh:mm:ss Line     4 >>> type c  
   line skipped. 
hh:mm:ss Line     5 >>> type d  
   line skipped. 
hh:mm:ss Line     6 >>> type e  
OUT
}

@test "skip -1 skips every remaining line" {
    printf 'skip -1\ntype a\nexit\ntype b\n' > test.in
    run "$TARNWICK" -f test.in -o test.out
    [ "$status" -eq 0 ]
    [ "$(grep -c 'line skipped' test.out)" -eq 3 ]
    grep -q 'Line     5 >>>  $' test.out
}

@test "skip counts at the 32-bit limits skip the rest without wrapping" {
    for count in -2147483648 99999999999; do
        printf 'skip %s\ntype a\nexit\n' "$count" > test.in
        run "$TARNWICK" -f test.in -o test.out
        [ "$status" -eq 0 ]
        [ "$(grep -c 'line skipped' test.out)" -eq 2 ]
    done
}

@test "a negative delay does not wait" {
    # Measured against a run without delay, so a slow start (valgrind)
    # does not count as waiting.
    printf 'delay 0\n' > base.in
    printf 'delay -5\n' > test.in
    start=$(date +%s%N)
    run "$TARNWICK" -f base.in -o base.out
    middle=$(date +%s%N)
    run "$TARNWICK" -f test.in -o test.out
    end=$(date +%s%N)
    [ "$status" -eq 0 ]
    [ $(( (end - middle) - (middle - start) )) -lt 3000000000 ]
}

@test "delay 1 waits about a second" {
    printf 'delay 1\n' > test.in
    start=$(date +%s%N)
    run "$TARNWICK" -f test.in -o test.out
    end=$(date +%s%N)
    [ "$status" -eq 0 ]
    [ $(( (end - start) / 1000000 )) -ge 900 ]
}

@test "pause at end of standard input does not hang" {
    printf 'pause\ntype after\n' > test.in
    run bash -c "'$TARNWICK' -f test.in -o test.out < /dev/null"
    [ "$status" -eq 0 ]
    [ "${lines[3]}" = "pause :" ]
    [ "${lines[4]}" = " after " ]
}

@test "unrecognised and badly placed statements stop the run with 254" {
    rejected() {
        printf '%s\ntype after\n' "$1" > test.in
        run "$TARNWICK" -f test.in -o test.out
        [ "$status" -eq 254 ]
        [ "${lines[3]}" = "batch file syntax error, line 1 " ]
        [ "${lines[4]}" = 'Test "test.in" has failed.' ]
        [ "$(sed -n '/ Line     1 >>> /{n;p;}' test.out)" = "$2" ]
        grep -q 'Batch test end rc=-2 ' test.out
    }
    # Keywords are whole tokens, matched case-sensitively.
    for bad in 'Set block_seek = 1' 'hello' 'result rc == 0' 'commands read' 'Command read' 'set= 1'; do
        rejected "$bad" 'unrecognized statement.'
    done
    for bad in 'x command read' 'command set x' 'command read result' 'command exit' 'x symbols' \
               'note exit' 'a set b' 'command read command close' 'command read result rc == 0 result'; do
        rejected "$bad" 'parse command | result | set found in wrong place'
    done
}
