#!/usr/bin/env bats
# open and close, the command table's device checks, and the record-size check.

load device_common

setup() { setup_workdir; : > disk.img; }
teardown() { teardown_workdir; }

usage_text() {
    printf 'Usage: \n  tarnwick <-f batch-input-file> <-o batch-output-file> <-d special-file> <-t>\n '
}

@test "every open mode on a regular file, /dev/null, /dev/zero and a missing path" {
    cat > test.in <<'EOF2'
command open disk.img RO result rc >= 0
command close result rc == 0
command open /dev/null RW result rc >= 0
command close result rc == 0
command open /dev/zero RO+NDELAY result rc >= 0
command close result rc == 0
command open disk.img RW+NDELAY result rc >= 0
command close result rc == 0
command open missing.img RO result rc == -1 errno == 2
command open disk.img INVALID result rc == -1
EOF2
    run_masked
    [ "$status" -eq 0 ]
    [ "$output" = "$(usage_text)" ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RO result rc >= 0" "Open mode: Read only."
        echo_line 2 "command close result rc == 0"
        outcome 0
        opened 3 "command open /dev/null RW result rc >= 0"
        echo_line 4 "command close result rc == 0"
        outcome 0
        opened 5 "command open /dev/zero RO+NDELAY result rc >= 0" "Open mode: Read only, no delay."
        echo_line 6 "command close result rc == 0"
        outcome 0
        opened 7 "command open disk.img RW+NDELAY result rc >= 0" "Open mode:Read and write, no delay."
        echo_line 8 "command close result rc == 0"
        outcome 0
        echo_line 9 "command open missing.img RO result rc == -1 errno == 2"
        echo "Open mode: Read only."
        outcome -1 2
        return_error 2
        # All flag bits set include the directory flag, so a file is refused.
        echo_line 10 "command open disk.img INVALID result rc == -1"
        echo " open INVALID."
        outcome -1 20
        return_error 20
        eof_line 11
        footer 0 0
    } | assert_file masked.out
    [ ! -s disk.img ]
}

@test "a second open changes nothing; a second close is refused" {
    cat > test.in <<'EOF2'
command open /dev/zero RO
command open disk.img RW result rc == 0
command read result rc == 512 data == 0
command close result rc == 0
command close result rc == 0
EOF2
    run_masked
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        opened 1 "command open /dev/zero RO" "Open mode: Read only."
        echo_line 2 "command open disk.img RW result rc == 0"
        echo "tarnwick error in execute_command, device already open."
        outcome 0
        echo_line 3 "command read result rc == 512 data == 0"
        echo "read 512 bytes, sector = 0, data = 0, 00 00 00 00 00 00 00 00 ..."
        outcome 512
        echo_line 4 "command close result rc == 0"
        outcome 0
        echo_line 5 "command close result rc == 0"
        echo "tarnwick error execute_command already closed"
        outcome 0
        eof_line 6
        footer 512 0
    } | assert_file masked.out
}

@test "\$D opens the -d file, a device number opens /dev/vpathN" {
    printf 'command open $D RW result rc >= 0\ncommand close\n' > test.in
    run_masked -d disk.img
    [ "$status" -eq 0 ]
    {
        banner test.in test.out disk.img
        echo_line 1 'command open $D RW result rc >= 0'
        echo "device file (disk.img) will be opened "
        echo "Open mode: Read and wirte."
        outcome FD
        echo_line 2 "command close"
        outcome 0
        eof_line 3
        footer 0 0
    } | assert_file masked.out

    # -d 2 names device number 2; no such driver here, so the open fails.
    printf 'command open $D RO result rc == -1\ncommand open 3 RO result rc == -1\n' > test.in
    run_masked -d 2
    [ "$status" -eq 0 ]
    {
        banner test.in test.out 2
        echo_line 1 'command open $D RO result rc == -1'
        echo "device file (2) will be opened "
        echo "Open mode: Read only."
        outcome -1 2
        return_error 2
        echo_line 2 "command open 3 RO result rc == -1"
        echo "Open mode: Read only."
        outcome -1 2
        return_error 2
        eof_line 3
        footer 0 0
    } | assert_file masked.out
}

@test "open traces with -t" {
    printf 'command open 7 RW\n' > test.in
    run_batch test.in -t
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        echo_line 1 "command open 7 RW"
        echo "TTRACE: process entered (command open 7 RW ).";
        echo "TTRACE: parse entered (command open 7 RW )."
        echo "TTRACE: parse exit 4."
        echo "TTRACE: execute_command entered (command open 7 RW )."
        echo "Open mode: Read and wirte."
        echo "ps_open will open file </dev/vpath7> "
        echo "TTRACE: open flags = 2 "
        echo "TTRACE: calling ps_open. "
        echo "ps_open file </dev/vpath7> "
        echo "Error! system open failed. errno=2 "
        echo "       Error is $(strerror 2)."
        echo "TTRACE: ps_open exit. "
        echo "TTRACE: execute_command exit."
        echo "TTRACE: execute_command returned 1."
        echo "TTRACE: analyze entered (command open 7 RW )."
        outcome -1 2
        echo "TTRACE: process exit."
        eof_line 2
        footer 0 0
    } | assert_file masked.out
}

@test "\$D without -d and an unknown open mode are syntax errors" {
    printf 'command open $D RO result rc == -1\n' > test.in
    run_masked
    [ "$status" -eq 254 ]
    [[ "$output" == *"batch file syntax error, line 1 "* ]]
    {
        banner test.in test.out
        echo_line 1 'command open $D RO result rc == -1'
        echo "error, no special file given on command line."
        echo "Open mode: Read only."
        outcome -1 2
        return_error 2
        footer 0 -2
    } | assert_file masked.out

    # Not executed at all: no outcome line is printed for it.
    printf 'command open disk.img RX result rc == 0\ncommand close\n' > test.in
    run_masked
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = "batch file syntax error, line 1 " ]
    [ "${lines[4]}" = 'Test "test.in" has failed.' ]
    {
        banner test.in test.out
        echo_line 1 "command open disk.img RX result rc == 0"
        echo "tarnwick error execute_command invalid open flags"
        echo "orvane process error unable to execute"
        footer 0 -2
    } | assert_file masked.out

    printf 'command open disk.img\n' > test.in
    run_masked
    [ "$status" -eq 254 ]
    grep -qx "tarnwick error execute_command invalid open flags" test.out
}

@test "every command of the table refuses a closed device with its own message" {
    {
        for name in read read_verify write random_read random_write get_inquiry device_capacity; do
            echo "command $name result rc == 0"
        done
        for name in get_adapter_info get_number_devices get_device_state set_path set_adapter \
            get_adapter_stats get_dev_stats set_controller; do
            echo "command $name result rc == 0"
        done
    } > test.in
    run_masked
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        n=0
        while read -r line; do
            n=$((n + 1))
            echo_line $n "$line"
            if [ $n -le 7 ]; then
                echo "tarnwick error execute_command device closed"
            else
                echo "tarnwick error execute_command devices closed"
            fi
            outcome 0
        done < test.in
        eof_line $((n + 1))
        footer 0 0
    } | assert_file masked.out
}

@test "command names match only exactly: longer, shorter, other case" {
    for name in readx get_inquiryX rea Read opens; do
        printf 'command %s records = 1\n' "$name" > test.in
        run_masked
        [ "$status" -eq 254 ]
        {
            banner test.in test.out
            echo_line 1 "command $name records = 1"
            echo "ERROR execute_command unrecognized command (command $name records = 1 )"
            outcome 0
            footer 0 -2
        } | assert_file masked.out
    done
}

@test "a record over 262144 bytes is reported and never transferred" {
    printf 'command open disk.img RW\nset block_count = 600\ncommand write result rc == 0\n' > test.in
    run_masked
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = "batch file syntax error, line 3 " ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RW"
        echo_line 2 "set block_count = 600"
        echo_line 3 "command write result rc == 0"
        echo "Data transfer size of 307200 exceeds maximum supported 262144 "
        outcome 0
        footer 0 -2
    } | assert_file masked.out
    [ ! -s disk.img ]
}
