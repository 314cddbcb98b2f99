#!/usr/bin/env bats
# Answers at the manual test menu: end of input at every kind of prompt,
# overlong lines, and the two-way choices that ask again.

load menu_session

setup() { setup_workdir; }
teardown() { teardown_workdir; }

# Each case: answers, then the prompts the last pass shows before input ends.
# End of input ends the menu as 99 would: no statement, no elapsed time.
@test "end of input at every prompt of the read-only menu ends the menu" {
    while IFS='|' read -r answers prompts; do
        run_menu "$answers"
        [ "$status" -eq 0 ] || { echo "status $status for $answers"; return 1; }
        { usage_lines; pass; printf '%s' "$prompts"; } | assert_file screen.txt
    done <<'CASES'
|
1\n|Enter device file name: 
2\n|Enter blocking factor: 
3\n|Enter seek sector value: 
4\n|Enter maximum sector value: 
22\n|Number of 512 byte records to transfer: 
23\n|Enter iteration count: 
25\n|Enter iteration count: 
26\n|Enter iteration count: 
31\n|Enter the device number: 
41\n|Enter the device number: 
43\n|Enter the adapter number: 
44\n7\n|Enter the device number: Enter the path number: 
45\n|Enter the adapter number: 
46\n|Enter the device number: 
52\n1\n|Enter the device number: Enter the controller number (convert to decimal): 
52\n1\n2\n|Enter the device number: Enter the controller number (convert to decimal): Enter  (1) Active  (2) Abort 
52\n1\n2\n\nx\n|Enter the device number: Enter the controller number (convert to decimal): Enter  (1) Active  (2) Abort Error state, reenter: (1) Active (2) Abort Error state, reenter: (1) Active (2) Abort 
53\n|Enter the device number (-1 for all devices): 
60\n|Enter command to execute: 
CASES
}

@test "end of input at the prompts only the full menu asks" {
    while IFS='|' read -r answers prompts; do
        run_menu "642\n\n$answers"
        [ "$status" -eq 0 ] || { echo "status $status for $answers"; return 1; }
        {
            usage_lines
            pass; printf 'all operations are now enabled. \n'; pass_end
            MODE=full pass; printf '%s' "$prompts"
        } | assert_file screen.txt
    done <<'CASES'
20\n|Enter open mode (1) RO (2) RW 
24\n|Number of 512 byte records to transfer: 
43\n5\n|Enter the adapter number: Enter the adapter state: (1) Online  (2) Offline 
43\n5\n0\n|Enter the adapter number: Enter the adapter state: (1) Online  (2) Offline Error state, reenter: (1) Online (2) Offline 
44\n1\n2\n|Enter the device number: Enter the path number: Enter the path state: (1) Online  (2) Offline 
44\n1\n2\n\n3\n|Enter the device number: Enter the path number: Enter the path state: (1) Online  (2) Offline Error state, reenter: (1) Online (2) Offline Error state, reenter: (1) Online (2) Offline 
CASES
}

@test "end of input at 'Return to continue: ', and a last line without line end" {
    run_menu '642'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'all operations are now enabled. \n'; pass_end
    } | assert_file screen.txt
}

@test "overlong selection line: the rest past 255 characters is discarded" {
    # 255 blanks read as selection 0; the 642 after them must not come back
    # as the answer to the next prompt.
    run_menu "$(printf '%255s' '')642\n\n99\n"
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'Unrecognized selection! \n'; pass_end
        pass
    } | assert_file screen.txt
}

@test "overlong device file name: 199 characters kept, next line is the next answer" {
    name=$(printf 'n%.0s' $(seq 600))
    run_menu "1\n${name}\n\n99\n"
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'Enter device file name: '; pass_end
        DEVICE_LINE="device file: ${name:0:199} "
        pass
    } | assert_file screen.txt
}

@test "full menu, open mode answered 3 (or empty): nothing happens, no message" {
    run_menu '642\n\n20\n3\n\n20\n\n\n99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'all operations are now enabled. \n'; pass_end
        MODE=full
        pass; printf 'Enter open mode (1) RO (2) RW '; pass_end
        pass; printf 'Enter open mode (1) RO (2) RW '; pass_end
        pass
    } | assert_file screen.txt
}

@test "20 without a device file: message in both menus, the full one asks the mode first" {
    run_menu '20\n\n642\n\n20\n2\n\n99\n'
    [ "$status" -eq 0 ]
    {
        usage_lines
        pass; printf 'error, no device file specified yet.\n'; pass_end
        pass; printf 'all operations are now enabled. \n'; pass_end
        MODE=full
        pass; printf 'Enter open mode (1) RO (2) RW error, no device file specified yet.\n'; pass_end
        pass
    } | assert_file screen.txt
}
