#!/usr/bin/env bats
# Selections that reach the device: a regular file stands in for the
# device file. Also the shell command of 60 and closing the device at the end.

load menu_session

setup() {
    setup_workdir
    head -c 32768 /dev/zero > disk.img
}
teardown() { teardown_workdir; }

@test "1, 20, 22 and 21 on a file: open read-only, timed read of two records, close" {
    run_menu '1\ndisk.img\n\n20\n\n22\n2\n\n21\n\n99\n'
    [ "$status" -eq 0 ]
    fd=$(handle_of_open)
    [ -n "$fd" ]
    zeros='00 00 00 00 00 00 00 00 ...'
    {
        usage_lines
        pass; printf 'Enter device file name: '; pass_end
        DEVICE_LINE='device file: disk.img '
        pass
        printf 'device file (disk.img) will be opened \nOpen mode: Read only.\n'
        outcome "$fd"; pass_end
        HANDLE=$fd MAXIMUM=0
        pass; printf 'Number of 512 byte records to transfer: '
        printf 'read 512 bytes, sector = 0, data = 0, %s\n' "$zeros"
        printf ' ... \nread 512 bytes, sector = 1, data = 0, %s\n' "$zeros"
        outcome 512
        printf 'Data rate = <rate> bytes/sec \n'; pass_end
        SEEK=2
        pass; outcome 0; pass_end
        HANDLE=-1
        pass
    } | assert_file screen.txt
}

@test "22 with blocking factor 4: ten 2048-byte records and their data rate" {
    run_menu '1\ndisk.img\n\n20\n\n2\n4\n\n22\n10\n\n99\n'
    [ "$status" -eq 0 ]
    grep -q 'Number of 2048 byte records to transfer: read 2048 bytes, sector = 0, data = 0, ' screen.txt
    grep -q '^read 2048 bytes, sector = 9, data = 0, ' screen.txt
    grep -q '^analyze return code 2048 ' screen.txt
    # ten records of 2048 bytes; a transfer under a second divides by 1.0,
    # one that crosses a single second boundary by 1 as well
    grep -q '^Data rate = 20480.00 bytes/sec $' screen.raw
}

@test "full menu: 24 writes identified records, 26 reads them back and verifies" {
    run_menu '1\ndisk.img\n\n642\n\n20\n2\n\n24\n3\n\n3\n0\n\n26\n3\n\n99\n'
    [ "$status" -eq 0 ]
    grep -q '^Open mode: Read and wirte\.$' screen.txt
    grep -q 'transfer: wrote 512 bytes, sector = 0, data = 0, 00 00 00 00 ' screen.txt
    grep -q '^wrote 512 bytes, sector = 2, data = 2, 02 00 00 00 ' screen.txt
    grep -q 'count: read 512 bytes, sector = 0, data = 0, 00 00 00 00 ' screen.txt
    grep -q '^read 512 bytes, sector = 2, data = 2, 02 00 00 00 ' screen.txt
    [ "$(grep -c '^analyze return code 512 ' screen.txt)" -eq 2 ]
    [ "$(grep -c '^Data rate = <rate> bytes/sec $' screen.txt)" -eq 1 ]  # 24 only
    ! grep -q 'verify failed' screen.txt
    # the identifiers are on the file, one per 512-byte record
    [ "$(od -An -tu4 -j 1024 -N 4 disk.img | tr -d ' ')" = 2 ]
}

@test "99, or end of input, with the device open closes it; -t shows the close" {
    while IFS='|' read -r answers last_prompt; do
        run_menu "1\ndisk.img\n\n20\n\n$answers" -t
        [ "$status" -eq 0 ]
        tail -n 3 screen.txt > end.txt
        {
            printf 'enter selection: %sTTRACE: calling ps_close. \n' "$last_prompt"
            printf 'TTRACE: ps_close returned 0. \nTTRACE: main exit.\n'
        } | assert_file end.txt
    done <<'CASES'
99\n|
22\n|Number of 512 byte records to transfer: 
CASES
}

@test "60 runs the answer, line end included, through the shell" {
    run_menu '60\necho hello\n\n99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'Enter command to execute: system (echo hello\n) \nhello\ncommand returned rc 0 \n'; pass_end
        pass
    } | assert_file screen.txt
}

@test "60 with an overlong answer: the first 255 characters are the command" {
    long=$(printf 'x%.0s' $(seq 395))
    run_menu "60\necho ${long}\n\n99\n"
    [ "$status" -eq 0 ]
    kept=${long:0:250}
    {
        usage_lines
        pass; printf 'Enter command to execute: system (echo %s) \n%s\ncommand returned rc 0 \n' "$kept" "$kept"
        pass_end
        pass
    } | assert_file screen.txt
}

@test "a failed result check in the menu goes on and sets the exit status" {
    run_menu '21\n\n99\n'
    [ "$status" -eq 0 ]  # close on a closed device: rc 0, the check holds
    run_menu '1\nmissing.img\n\n20\n\n99\n'
    [ "$status" -eq 255 ]
    grep -q '^ERROR, test failed!$' screen.txt
    [ "$(grep -c '^enter selection: ' screen.txt)" -eq 3 ]
}
