#!/usr/bin/env bats
# read, read_verify and write: the record pattern, the report lines, the
# outcome, and the failures a tester provokes on purpose.

load device_common

setup() { setup_workdir; : > disk.img; }
teardown() { teardown_workdir; }

# The bytes of one record as the disk should hold them.
record_bytes() { # ID SECTOR
    python3 - "$1" "$2" <<'PY'
import ctypes, sys
libc = ctypes.CDLL("libc.so.6")
ident, sector = int(sys.argv[1]) & 0xffffffff, int(sys.argv[2])
libc.srand(sector & 0xffffffff)
sys.stdout.buffer.write(ident.to_bytes(4, "little") + bytes(libc.rand() & 0xff for _ in range(252)))
PY
}

@test "write then read_verify with a blocking factor of 2" {
    cat > test.in <<'EOF2'
command open disk.img RW result rc >= 0
set block_count = 2
command write records = 3 result rc == 1024
set block_seek = 0
command read_verify records = 3 result rc == 1024 data == 2
set block_seek = 6
command read records = 2 result rc == 0 data == 2
command close result rc == 0
EOF2
    run_masked
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RW result rc >= 0"
        echo_line 2 "set block_count = 2"
        echo_line 3 "command write records = 3 result rc == 1024"
        xfers wrote 1024 0 0 2 2
        outcome 1024
        echo_line 4 "set block_seek = 0"
        echo_line 5 "command read_verify records = 3 result rc == 1024 data == 2"
        xfers read 1024 0 0 2 2
        outcome 1024 0 2
        # Seeks count sectors, not records: sector 6 is the end of the
        # file, so both reads are empty and io_buffer keeps record 2.
        echo_line 6 "set block_seek = 6"
        echo_line 7 "command read records = 2 result rc == 0 data == 2"
        xfer read 1024 6 2 2
        printf ' ... \n'
        xfer read 1024 7 2 2
        outcome 0 0 2
        echo_line 8 "command close result rc == 0"
        outcome 0
        eof_line 9
        footer 6144 0
    } | assert_file masked.out
    # Identifiers 0, 1, 2 while the records cover sectors 0 to 5.
    [ "$(stat -c %s disk.img)" -eq 3072 ]
    for r in 0 1 2; do
        cmp <(record_bytes $r $r) <(dd if=disk.img bs=1024 skip=$r count=1 status=none | head -c 256)
        [ "$(dd if=disk.img bs=1 skip=$((r * 1024 + 256)) count=768 status=none | tr -d '\0' | wc -c)" -eq 0 ]
    done
}

@test "records written with data = 7 fail read_verify on the identifier" {
    cat > test.in <<'EOF2'
command open disk.img RW
command write records = 2 data = 7 result rc == 512
set block_seek = 0
command read_verify records = 2 result rc == -1 data == 7
EOF2
    run_masked
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RW"
        echo_line 2 "command write records = 2 data = 7 result rc == 512"
        xfers wrote 512 0 7 1 7
        outcome 512
        echo_line 3 "set block_seek = 0"
        echo_line 4 "command read_verify records = 2 result rc == -1 data == 7"
        xfer read 512 0 7
        echo "read_verify failed for 512 bytes, expected data = 0, data read = 7 "
        outcome -1 0 7
        return_error 0
        eof_line 5
        footer 1536 0
    } | assert_file masked.out
    cmp <(record_bytes 7 1) <(dd if=disk.img bs=512 skip=1 count=1 status=none | head -c 256)
}

@test "a byte changed at offset 100 stops read_verify at that record" {
    cat > test.in <<'EOF2'
command open disk.img RW
command write records = 3 result rc == 512
system printf 'X' | dd of=disk.img bs=1 seek=612 conv=notrunc status=none
set block_seek = 0
command read_verify records = 3 result rc == -1 data == 1
command read result rc == 512 data == 2
EOF2
    run_masked
    [ "$status" -eq 0 ]
    expected_byte=$(pattern 1 97 | awk '{ print $97 }' | sed 's/^0//')
    {
        banner test.in test.out
        opened 1 "command open disk.img RW"
        echo_line 2 "command write records = 3 result rc == 512"
        xfers wrote 512 0 0 2 2
        outcome 512
        echo_line 3 "system printf 'X' | dd of=disk.img bs=1 seek=612 conv=notrunc status=none"
        echo "system (printf 'X' | dd of=disk.img bs=1 seek=612 conv=notrunc status=none ) "
        echo "command returned rc 0 "
        echo_line 4 "set block_seek = 0"
        echo_line 5 "command read_verify records = 3 result rc == -1 data == 1"
        xfer read 512 0 0
        echo "block 1 verify failed at byte 100, expected $expected_byte, read 58 "
        printf ' ... \n'
        xfer read 512 1 1
        outcome -1 0 1
        return_error 0
        # The third record was not read: the next read starts at sector 2.
        echo_line 6 "command read result rc == 512 data == 2"
        xfer read 512 2 2
        outcome 512 0 2
        eof_line 7
        footer 3072 0
    } | assert_file masked.out
}

@test "a seek that fails ends the command with return code 0" {
    # 2^54 sectors of 512 bytes lie past any file offset.
    cat > test.in <<'EOF2'
command open disk.img RW
set block_seek = 18014398509481984
command read records = 2 result rc == 0
command read_verify result rc == 0
command write result rc == 0
EOF2
    run_masked
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RW"
        echo_line 2 "set block_seek = 18014398509481984"
        echo_line 3 "command read records = 2 result rc == 0"
        echo ".Error seeking to block 18014398509481984 "
        outcome 0
        echo_line 4 "command read_verify result rc == 0"
        echo ".Error seeking to block 18014398509481984 "
        outcome 0
        echo_line 5 "command write result rc == 0"
        echo "..Error seeking to sector 18014398509481984 "
        outcome 0
        eof_line 6
        footer 0 0
    } | assert_file masked.out
    [ ! -s disk.img ]
}

@test "write and random_write on a read-only open fail with EBADF" {
    cat > test.in <<'EOF2'
command open disk.img RO
command write records = 3 result rc == -1 errno == EBADF
command random_write blocks = 2 result rc == -1 errno == EBADF
command read result rc == 0
EOF2
    run_masked
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RO" "Open mode: Read only."
        echo_line 2 "command write records = 3 result rc == -1 errno == EBADF"
        echo "Error writing 512 bytes, sector = 0, data = 0 "
        outcome -1 9
        return_error 9
        echo_line 3 "command random_write blocks = 2 result rc == -1 errno == EBADF"
        echo "Error writing 512 bytes, sector = 0, data = 0 "
        outcome -1 9
        return_error 9
        echo_line 4 "command read result rc == 0"
        xfer read 512 0 0
        outcome 0
        eof_line 5
        footer 0 0
    } | assert_file masked.out
}

@test "the * count is block_max, and 0 records transfer nothing" {
    cat > test.in <<'EOF2'
command open disk.img RW
command write records = * result rc == 0
set block_max = 3
command write records = * result rc == 512
set block_seek = 0
command read_verify records = * result rc == 512 data == 2
command read records = 0 result rc == 0
EOF2
    run_masked
    [ "$status" -eq 0 ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RW"
        echo_line 2 "command write records = * result rc == 0"
        outcome 0
        echo_line 3 "set block_max = 3"
        echo_line 4 "command write records = * result rc == 512"
        xfers wrote 512 0 0 2 2
        outcome 512
        echo_line 5 "set block_seek = 0"
        echo_line 6 "command read_verify records = * result rc == 512 data == 2"
        xfers read 512 0 0 2 2
        outcome 512 0 2
        echo_line 7 "command read records = 0 result rc == 0"
        outcome 0
        eof_line 8
        footer 3072 0
    } | assert_file masked.out
}

@test "a wrong records, data or blocks keyword is a syntax error but the command still runs" {
    printf 'command open disk.img RW\ncommand write recs = 2 result rc == 512\n' > test.in
    run_masked
    [ "$status" -eq 254 ]
    [ "${lines[3]}" = "batch file syntax error, line 2 " ]
    {
        banner test.in test.out
        opened 1 "command open disk.img RW"
        echo_line 2 "command write recs = 2 result rc == 512"
        printf 'write, invalid statement at (recs = 2 result rc == 512 ) '
        xfers wrote 512 0 0 1 1
        outcome 512
        footer 1024 -2
    } | assert_file masked.out


    # The others: the statement, then how the line after its echo begins.
    while IFS='|' read -r statement report; do
        printf 'command open disk.img RW\ncommand %s\n' "$statement" > test.in
        run_masked
        [ "$status" -eq 254 ] || { echo "status $status for $statement"; return 1; }
        grep -q "^$report" test.out || { echo "no '$report'"; cat test.out; return 1; }
    done <<'CASES'
read_verify rec = 1|read, invalid statement at (rec = 1 ) read 512 bytes, sector = 0, data = 0, 
write records = 1 dta = 5|write, invalid statement at (dta = 5 ) wrote 512 bytes, sector = 0, data = 5, 05 00 00 00 
random_write block = 1 result rc == 512|random_write, invalid statement at (block = 1 result rc == 512 ) wrote 512 bytes, sector = 0, data = 0, 
random_read blk = 1|random_read, invalid statement at (blk = 1 ) read 512 bytes, sector = 0, data = 0, 
CASES
}

@test "data commands trace the access layer with -t" {
    printf 'command open disk.img RW\ncommand write\nset block_seek = 0\ncommand read\n' > test.in
    run_batch test.in -t
    [ "$status" -eq 0 ]
    sed -n '/^hh:mm:ss Line     2 /,$p' masked.out > tail.out
    {
        echo_line 2 "command write"
        echo "TTRACE: process entered (command write )."
        echo "TTRACE: parse entered (command write )."
        echo "TTRACE: parse exit 2."
        echo "TTRACE: execute_command entered (command write )."
        echo "TTRACE: ps_lseek entered. "
        echo "lseek() to 0 "
        echo "TTRACE: ps_lseek exit. "
        echo "TTRACE: ps_write entered!"
        echo "lseek = 512"
        echo "system write() wrote 512 bytes. "
        echo "TTRACE: ps_write() exit. "
        xfer wrote 512 0 0
        echo "TTRACE: execute_command exit."
        echo "TTRACE: execute_command returned 1."
        echo "TTRACE: analyze entered (command write )."
        outcome 512
        echo "TTRACE: process exit."
        echo_line 3 "set block_seek = 0"
        echo "TTRACE: process entered (set block_seek = 0 )."
        echo "TTRACE: parse entered (set block_seek = 0 )."
        echo "TTRACE: parse exit 4."
        echo "TTRACE: execute_set entered (set block_seek = 0 )."
        echo "TTRACE: execute_set exit."
        echo "TTRACE: process exit."
        echo_line 4 "command read"
        echo "TTRACE: process entered (command read )."
        echo "TTRACE: parse entered (command read )."
        echo "TTRACE: parse exit 2."
        echo "TTRACE: execute_command entered (command read )."
        echo "TTRACE: ps_lseek entered. "
        echo "lseek() to 0 "
        echo "TTRACE: ps_lseek exit. "
        echo "TTRACE: ps_read entered."
        echo "lseek = 512"
        echo "system read() read 512 bytes"
        echo "TTRACE: ps_read exit. "
        xfer read 512 0 0
        echo "TTRACE: execute_command exit."
        echo "TTRACE: execute_command returned 1."
        echo "TTRACE: analyze entered (command read )."
        outcome 512
        echo "TTRACE: process exit."
        eof_line 5
        footer 1024 0
    } | assert_file tail.out
}

@test "a loop device round trip, where losetup works" {
    truncate -s 1M loop.img
    loop=$(losetup -f --show loop.img 2>/dev/null) || skip "no loop devices here"
    printf 'command open %s RW result rc >= 0\ncommand write records = 8 result rc == 512\nset block_seek = 0\ncommand read_verify records = 8 result rc == 512 data == 7\ncommand close result rc == 0\n' "$loop" > test.in
    run_masked
    losetup -d "$loop"
    [ "$status" -eq 0 ]
    grep -q '^Batch test end rc=0 ' masked.out
    cmp <(record_bytes 5 5) <(dd if=loop.img bs=512 skip=5 count=1 status=none | head -c 256)
}
