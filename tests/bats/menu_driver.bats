#!/usr/bin/env bats
# Driver selections (31, 40 to 46, 52, 53) and the trace menu (88) against
# the simulated driver: the selection reaches the driver, and the control
# selections change the driver's state.

load menu_session

setup() {
    [ -n "${VPATHSIM:-}" ] || skip "simulated driver not built"
    setup_workdir
    export VPATHSIM_STATE=$WORK/state
    "$VPATHSIM" init
}
teardown() { teardown_workdir; }

# The menu under the simulated driver; the answers first open vpath0.
run_driver_menu() {
    local answers=$1
    shift
    status=0
    printf '%b' "1\n0\n\n${answers}" |
        timeout 60 "$VPATHSIM" run --state "$VPATHSIM_STATE" -- "$TARNWICK" "$@" > screen.raw 2>&1 || status=$?
    mask_times screen.raw |
        sed -E 's/(.)(Command elapsed time in seconds = ).*/\1\2<elapsed> /' > screen.txt
}

@test "20, 40, 20 again and 21 on vpath0: the whole screen; a refused open still empties the vpath shown" {
    run_driver_menu '20\n\n40\n\n20\n\n21\n\n99\n'
    [ "$status" -eq 0 ]
    fd=$(handle_of_open)
    [ -n "$fd" ]
    {
        usage_lines
        pass; printf 'Enter device file name: '; pass_end
        DEVICE_LINE='device file: 0 '
        pass; printf 'device file (0) will be opened \nOpen mode: Read only.\n'
        outcome "$fd"; pass_end
        DEVICE_LINE='device file: 0  (/dev/vpath0) ' HANDLE=$fd MAXIMUM=0
        pass; printf 'Completion Status: Success\nNumber of Devices: 2\n'
        outcome 0; pass_end
        pass; printf 'tarnwick error in execute_command, device already open.\n'
        outcome 0; pass_end
        DEVICE_LINE='device file: 0 '
        pass; outcome 0; pass_end
        HANDLE=-1
        pass
    } | assert_file screen.txt
}

@test "read-only menu: the query selections reach the driver; 43 and 44 only bring online" {
    "$VPATHSIM" fail-adapter 1
    run_driver_menu '20\n\n41\n1\n\n42\n\n31\n0\n\n45\n0\n\n46\n1\n\n43\n1\n\n44\n1\n3\n\n53\n-1\n\n99\n'
    [ "$status" -eq 0 ]
    ! grep -q 'ERROR, test' screen.txt
    [ "$(grep -c 'analyze return code 0  errno 0 (Successful) $' screen.txt)" -eq 8 ]
    grep -q '^enter selection: Enter the device number: Completion Status: Success$' screen.txt
    grep -q $'^Device:\t\tvpath1 $' screen.txt
    grep -q '^Number of adapter entries: 2$' screen.txt
    grep -q '^enter selection: Enter the device number: INQUIRY data:$' screen.txt
    grep -q '^enter selection: Enter the adapter number: Completion Status: Success$' screen.txt
    grep -q '^Transfer Size: ' screen.txt     # 46, device statistics
    grep -q '^Set Adapter 1 to online$' screen.txt
    grep -q '^Set Device 1 Path 3 to online$' screen.txt
    grep -q '^enter selection: Enter the device number (-1 for all devices): Completion Status: ' screen.txt
}

@test "full menu: 43 and 44 take the path and adapter offline, 52 sends its action" {
    run_driver_menu '642\n\n20\n1\n\n43\n0\n3\n2\n\n44\n1\n2\nx\n2\n\n52\n0\n1\n9\n1\n\n99\n' -t
    [ "$status" -eq 0 ]
    grep -q '^Set Adapter 0 to offline$' screen.txt
    grep -q '^Set Device 1 Path 2 to offline$' screen.txt
    grep -q 'TTRACE: process entered (command set_controller device 0 ctlr 1 action 1 result rc != -1)\.$' screen.txt
    run "$VPATHSIM" show
    [ "${lines[1]}" = "adapter 0 scsi0    offline  io 0 errors 0" ] || { echo "$output"; false; }
    [[ "$output" == *"  path 2 sdg    adapter 0 offline"* ]] || { echo "$output"; false; }
}

@test "88: the trace menu's 99 returns to the manual menu" {
    run_driver_menu '88\n99\n\n99\n'
    [ "$status" -eq 0 ]
    grep -q '^enter selection: Trace Operations Menu$' screen.txt
    [ "$(grep -c 'enter selection: ' screen.txt)" -eq 4 ]  # 1, 88, the trace menu's, 99
    grep -q '^Return to continue: $' screen.txt
    [ "$(tail -n 1 screen.txt)" = 'enter selection: ' ]
}

@test "88 then end of input: both menus end, the device is closed" {
    run_driver_menu '20\n\n88\n' -t
    [ "$status" -eq 0 ]
    grep -q 'Trace Operations Menu' screen.txt
    tail -n 4 screen.txt > end.txt
    assert_file end.txt <<'END'
enter selection: Command elapsed time in seconds = <elapsed> 
Return to continue: TTRACE: calling ps_close. 
TTRACE: ps_close returned 0. 
TTRACE: main exit.
END
}
