#!/usr/bin/env bats
# Selections 1 to 5 and 26: the test variables, the device file name and
# the symbol listing, as the next settings display shows them.

load menu_session

setup() { setup_workdir; }
teardown() { teardown_workdir; }

@test "1 to 4 set the device file and the variables; set corrects out-of-range values" {
    run_menu '2\n4\n\n3\n-5\n\n4\n513\n\n3\n77\n\n4\n512\n\n1\ndisk.img\n\n99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'Enter blocking factor: '; pass_end
        BLOCKING=4
        pass; printf 'Enter seek sector value: '
        printf 'The seek sector value cannot be less than 0, set to default 0.\n'; pass_end
        pass; printf 'Enter maximum sector value: '
        printf 'The maximum sector value should be within 1 to 512, set to default 1.\n'; pass_end
        MAXIMUM=1
        pass; printf 'Enter seek sector value: '; pass_end
        SEEK=77
        pass; printf 'Enter maximum sector value: '; pass_end
        MAXIMUM=512
        pass; printf 'Enter device file name: '; pass_end
        DEVICE_LINE='device file: disk.img '
        pass
    } | assert_file screen.txt
}

@test "2, 3 and 4 keep the low 32 bits of the number, with its sign" {
    # 4294967298 = 2^32 + 2; -4294967286 = -2^32 + 10; 4294967295 is -1 in 32 bits
    run_menu '2\n4294967298\n\n3\n-4294967286\n\n2\n4294967295\n\n99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'Enter blocking factor: '; pass_end
        BLOCKING=2
        pass; printf 'Enter seek sector value: '; pass_end
        SEEK=10
        pass; printf 'Enter blocking factor: '
        printf 'The blocking factor value cannot be less or equal to 0, set to default 1.\n'; pass_end
        BLOCKING=1
        pass
    } | assert_file screen.txt
}

@test "26 with blocking factor above 1 asks nothing; 22 shows the record size" {
    run_menu '2\n4\n\n26\n\n22\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'Enter blocking factor: '; pass_end
        BLOCKING=4
        pass; printf 'Error, read with verify requires blocking factor set to 1.\n'; pass_end
        pass; printf 'Number of 2048 byte records to transfer: '
    } | assert_file screen.txt
}

@test "5 lists the symbolic values" {
    run_menu '5\n\n99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass
        printf 'Symbolic values:\n'
        while read -r name value; do
            printf ' %35.35s = %d (0x%x)\n' "$name" "$value" "$value"
        done <<'ROWS'
Successful 0
EPERM 1
EIO 5
ENXIO 6
EAGAIN 11
ENOMEM 12
EACCES 13
EFAULT 14
EBUSY 16
ENODEV 19
EINVAL 22
ENOTTY 25
ENOSPC 28
EBADF 9
EFAULT 14
ENOTBLK 15
ENOTREADY 13
EEXIST 17
ROWS
        pass_end
        pass
    } | assert_file screen.txt
}
