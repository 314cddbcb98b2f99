#!/usr/bin/env bats
# The statement every selection hands to the dispatcher, read back from the
# -t trace: the prompts' answers, %d fields cut to 32 bits, %ld fields whole.

load menu_session

setup() { setup_workdir; }
teardown() { teardown_workdir; }

@test "read-only menu: every selection's statement" {
    run_menu '26\n7\n\n2\n3\n\n3\n4294967306\n\n4\n-1\n\n5\n\n21\n\n22\n4294967297\n\n23\n-4294967295\n\n25\n2\n\n27\n\n30\n\n31\n4294967296\n\n40\n\n41\n-2\n\n42\n\n43\n5\n\n44\n6\n1\n\n45\n2\n\n46\n3\n\n52\n1\n16\n2\n\n53\n-1\n\n99\n' -t
    statements_sent > sent.txt
    assert_file sent.txt <<'SENT'
command read_verify records = 7 result rc == 512
set block_count = 3
set block_seek = 10
set block_max = -1
symbols
command close result rc != -1
command read records = 1 result rc == 1536
command random_read blocks = 1 result rc != -1
command random_write blocks = 2 result rc != -1
command display_block result rc != -1
command device_capacity result rc != -1
command get_inquiry device 4294967296 result rc != -1
command get_number_devices result rc != -1
command get_device_state device -2 result rc != -1
command get_adapter_info result rc != -1
command set_adapter adapter 5 state 1 result rc != -1
command set_path device 6 path 1 state 1 result rc != -1
command get_adapter_stats adapter 2 result rc != -1
command get_dev_stats device 3 result rc != -1
command set_controller device 1 ctlr 16 action 2 result rc != -1
command set_controller device -1 ctlr 0 action 3 result rc != -1
SENT
}

@test "full menu: open modes, write, and the two-way choices sending the whole answer" {
    run_menu '642\n\n20\n1\n\n20\n2\n\n2\n3\n\n24\n3\n\n25\n4\n\n43\n7\nx\n2\n\n44\n8\n0\n\nx3\n12\n\n52\n2\n0\n1\n\n99\n' -t -d disk.img
    statements_sent > sent.txt
    assert_file sent.txt <<'SENT'
command open $D RO result rc >= 0
command open $D RW result rc >= 0
set block_count = 3
command write records = 3 result rc == 1536
command random_write blocks = 4 result rc != -1
command set_adapter adapter 7 state 2 result rc != -1
command set_path device 8 path 0 state 12 result rc != -1
command set_controller device 2 ctlr 0 action 1 result rc != -1
SENT
    # x for the adapter state; an empty line and x3 for the path state
    [ "$(grep -o 'Error state, reenter: (1) Online (2) Offline ' screen.raw | wc -l)" -eq 3 ]
}
