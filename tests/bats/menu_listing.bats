#!/usr/bin/env bats
# The manual test menu's passes: settings display and listing, the hidden
# selection, unrecognised selections and leaving with 99.

load menu_session

setup() { setup_workdir; }
teardown() { teardown_workdir; }

# 4294967395 is 2^32 + 99: the selection keeps the low 32 bits.
@test "99 at once, or 2^32 + 99: read-only listing, no elapsed time, status 0" {
    for answer in 99 4294967395; do
        run_menu "$answer\n"
        [ "$status" -eq 0 ]
        { usage_lines; pass; } | assert_file screen.txt
    done
}

@test "642 twice: full listing, then read-only again" {
    run_menu '642\n\n642\n\n99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'all operations are now enabled. \n'; pass_end
        MODE=full
        pass; printf 'only read operations now permitted. \n'; pass_end
        MODE=read-only
        pass
    } | assert_file screen.txt
}

@test "unrecognised selections: empty line, word, 0, 98, negative, overflowing number" {
    # The overflowing number saturates to the largest long, whose low 32
    # bits are -1.
    run_menu '\n\nabc\n\n0\n\n98\n\n-99\n\n99999999999999999999\n\n 99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        for _ in 1 2 3 4 5 6; do
            pass; printf 'Unrecognized selection! \n'; pass_end
        done
        pass
    } | assert_file screen.txt
}

@test "selection is the leading number: '642 please' toggles, '99 bottles' leaves" {
    run_menu '642 please\n\n99 bottles\n'
    {
        usage_lines
        pass; printf 'all operations are now enabled. \n'; pass_end
        MODE=full pass
    } | assert_file screen.txt
}

@test "-t: entry trace line before the first pass, main exit after 99" {
    run_menu '99\n' -t
    [ "$status" -eq 0 ]
    grep -q '^TTRACE: manual_test_menu entered\.$' screen.txt
    [ "$(tail -c 19 screen.txt)" = 'TTRACE: main exit.' ]
    # no device was opened, so nothing is closed
    ! grep -q 'ps_close' screen.txt
}
