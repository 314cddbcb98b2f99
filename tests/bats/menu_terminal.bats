#!/usr/bin/env bats
# The menu at a real terminal (a detached tmux pane): typed answers, echo
# and line editing come from the terminal, not from a pipe.

load menu_session

setup() {
    command -v tmux > /dev/null || skip "tmux is not installed"
    setup_workdir
    head -c 4096 /dev/zero > disk.img
    SOCKET="tarnwick-menu-$$"
}

teardown() {
    tmux -L "$SOCKET" kill-server 2> /dev/null || true
    teardown_workdir
}

keys() { tmux -L "$SOCKET" send-keys -t menu "$@"; }

# Waits until the pane (history included) shows the text at least n times.
wait_for() {
    local text=$1 times=${2:-1}
    for _ in $(seq 150); do
        tmux -L "$SOCKET" capture-pane -p -J -S - -t menu > pane.txt 2> /dev/null
        [ "$(grep -cF -- "$text" pane.txt)" -ge "$times" ] && return 0
        sleep 0.1
    done
    echo "gave up waiting for '$text' x$times; the pane shows:"
    cat pane.txt
    return 1
}

@test "at a terminal: name the file, open it, read a record, exit" {
    tmux -L "$SOCKET" -f /dev/null new-session -d -s menu -x 132 -y 50 \
        "cd '$WORK' && '$TARNWICK'; echo menu-ended-\$?; sleep 60"
    wait_for 'enter selection: '
    keys 1 Enter
    wait_for 'Enter device file name: '
    keys disk.img Enter
    wait_for 'Return to continue: '
    keys Enter 20 Enter
    wait_for 'Open mode: Read only.'
    keys Enter 22 Enter
    wait_for 'Number of 512 byte records to transfer: '
    keys 1 Enter
    wait_for 'Data rate = '
    keys Enter 99 Enter
    wait_for 'menu-ended-0'
    grep -qF 'read 512 bytes, sector = 0, data = 0, 00 00 00 00 00 00 00 00 ...' pane.txt
    grep -qF 'device file: disk.img ' pane.txt
    grep -qF 'seek block=1 ' pane.txt
}
