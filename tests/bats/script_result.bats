#!/usr/bin/env bats
# Result clauses judged on real commands against a regular file.

load helpers

setup() {
    setup_workdir
    head -c 4096 /dev/zero > disk.img
}
teardown() { teardown_workdir; }

# The descriptor an open returns depends on what else the tool has open.
mask_fd() { sed -E 's/^(analyze return code )([3-9]|[1-9][0-9]+) /\1<fd> /' masked.out; }

@test "holding checks: outcome lines only, exit 0" {
    run_batch <<'IN'
command open disk.img RW result rc >= 0
command close result rc == 0 errno == Successful
command close result rc == 0 cc == 0
command open missing.img RO result rc == -1 errno == 2 cc == 2 resid == 0
IN
    [ "$status" -eq 0 ]
    [ "${#lines[@]}" -eq 3 ]
    assert_file <(mask_fd | sed -n '/Line     1/,/Line     5/p') <<OUT
hh:mm:ss Line     1 >>> command open disk.img RW result rc >= 0  
Open mode: Read and wirte.
$(outcome '<fd>')
hh:mm:ss Line     2 >>> command close result rc == 0 errno == Successful  
$(outcome 0)
hh:mm:ss Line     3 >>> command close result rc == 0 cc == 0  
tarnwick error execute_command already closed
$(outcome 0)
hh:mm:ss Line     4 >>> command open missing.img RO result rc == -1 errno == 2 cc == 2 resid == 0  
Open mode: Read only.
$(outcome -1 2)
analyze return_error cc 2 (?) No such file or directory
hh:mm:ss Line     5 >>>  
OUT
}

@test "a failing check stops the run with 255 and names the line" {
    run_batch <<'IN'
command open disk.img RW result rc >= 0
# comment
command close result rc != 0 errno == EIO
type never
IN
    [ "$status" -eq 255 ]
    [ "${lines[3]}" = "ERROR, test at line 3 failed!" ]
    [ "${lines[4]}" = 'Test "test.in" has failed at line 3.' ]
    [ "${#lines[@]}" -eq 5 ]
    assert_file <(mask_fd | sed -n '/Line     3/,$p') <<OUT
hh:mm:ss Line     3 >>> command close result rc != 0 errno == EIO  
$(outcome 0)
return code not as expected.
errno not as expected.
analyze error ...  result not as expected
$(footer 0 -1)
OUT
}

@test "each field has its own failure message" {
    run_batch <<'IN'
command open disk.img RW result rc >= 0
command read records = 1 result rcode < 0 errno != 0 cc > 0 residual > 0 data != 0
IN
    [ "$status" -eq 255 ]
    assert_file <(sed -n '/^analyze error/q;/not as expected/p' test.out) <<'OUT'
return code not as expected.
errno not as expected.
error value not as expected.
residual count not as expected.
sector identifier not as expected.
OUT
}

@test "data transfers count in the summary; zero elapsed time gives inf" {
    run_batch <<'IN'
command open disk.img RW result rc >= 0
command write records = 2 result rc == 512
command read records = 1 result rc == 512 data == 0
IN
    [ "$status" -eq 0 ]
    grep -qx 'Bytes transferred = 1536.000000 ' test.out
    if grep -qx 'Total elapsed time in seconds =     0.00 ' test.out; then
        grep -qx 'Data rate =      inf bytes/second ' test.out
    fi
}

@test "nothing transferred in zero seconds gives nan" {
    run_batch <<'IN'
command open disk.img RO result rc >= 0
IN
    [ "$status" -eq 0 ]
    if grep -qx 'Total elapsed time in seconds =     0.00 ' test.out; then
        grep -Eqx 'Data rate = +-?nan bytes/second ' test.out
    fi
}

@test "a command that cannot be executed is not analysed" {
    run_batch <<'IN'
command open x RX result rc == 7
IN
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = "batch file syntax error, line 1 " ]
    grep -qx 'orvane process error unable to execute' test.out
    ! grep -q '^analyze' test.out
}

@test "result clause syntax errors" {
    printf 'command close result rc ==\n' > test.in
    run_batch test.in
    [ "$status" -eq 254 ]
    grep -qx 'error analyze insufficent tokens' test.out

    printf 'command close result rc <\t0\n' > test.in
    run_batch test.in
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = $'as_expected, invalid relation (<\t0 ) ' ]
    [ "${lines[4]}" = "batch file syntax error, line 1 " ]
    [ "${lines[5]}" = 'Test "test.in" has failed.' ]

    # An unknown field is a syntax error and a failed check: 255 wins.
    printf 'command close result xyz == 1\n' > test.in
    run_batch test.in
    [ "$status" -eq 255 ]
    [ "${lines[3]}" = "batch file syntax error, line 1 " ]
    [ "${lines[4]}" = "ERROR, test at line 1 failed!" ]
    grep -qx 'analyze ERROR unexpected token' test.out
}

@test "-t traces the dispatcher and analysis around a command" {
    run_batch test.in -t <<'IN'
command close result rc == 1
IN
    [ "$status" -eq 255 ]
    assert_file <(sed -n '/^TTRACE: process entered/,/^TTRACE: process exit/p' masked.out) <<OUT
TTRACE: process entered (command close result rc == 1 ).
TTRACE: parse entered (command close result rc == 1 ).
TTRACE: parse exit 6.
TTRACE: execute_command entered (command close result rc == 1 ).
tarnwick error execute_command already closed
TTRACE: execute_command exit.
TTRACE: execute_command returned 1.
TTRACE: analyze entered (command close result rc == 1 ).
$(outcome 0)
return code not as expected.
analyze error ...  result not as expected
TTRACE: analyze exit.
TTRACE: process exit.
OUT
}

@test "-t traces the error fetch after a failed call" {
    run_batch test.in -t <<'IN'
command open missing.img RO result rc == -1
IN
    [ "$status" -eq 0 ]
    assert_file <(sed -n '/^TTRACE: analyze entered/,/^TTRACE: process exit/p' masked.out) <<OUT
TTRACE: analyze entered (command open missing.img RO result rc == -1 ).
$(outcome -1 2)
TTRACE: ps_return_error entered.
TTRACE: ps_return_error exit 2.
analyze return_error cc 2 (?) No such file or directory
TTRACE: process exit.
OUT
}
