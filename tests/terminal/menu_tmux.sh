#!/bin/sh
# The manual test menu at a real terminal (a detached tmux pane): each prompt
# shows before the menu waits on the terminal, and typed answers drive it as
# piped ones do. Usage: menu_tmux.sh TARNWICK. Status 77 (skip) without tmux.
command -v tmux > /dev/null || exit 77
work=$(mktemp -d) socket="tarnwick-menu-$$"
trap 'tmux -L "$socket" kill-server 2> /dev/null; rm -rf "$work"' EXIT
head -c 4096 /dev/zero > "$work/disk.img"
tmux -L "$socket" -f /dev/null new-session -d -s menu -x 132 -y 50 "cd '$work' && '$1'; echo menu-ended-\$?; sleep 60"
# Waits until the pane (history included) shows TEXT, then types the keys.
on() {
    text=$1; shift
    for _ in $(seq 150); do
        tmux -L "$socket" capture-pane -p -J -S - -t menu > "$work/pane" 2> /dev/null
        grep -qF -- "$text" "$work/pane" && { [ $# -eq 0 ] || tmux -L "$socket" send-keys -t menu "$@"; return 0; }
        sleep 0.1
    done
    echo "gave up waiting for '$text'; the pane shows:"; cat "$work/pane"; exit 1
}
on 'enter selection: ' 1 Enter
on 'Enter device file name: ' disk.img Enter
on 'Return to continue: ' Enter 20 Enter
on 'Open mode: Read only.' Enter 22 Enter
on 'Number of 512 byte records to transfer: ' 1 Enter
on 'Data rate = ' Enter 99 Enter
on 'menu-ended-0'
on 'read 512 bytes, sector = 0, data = 0, 00 00 00 00 00 00 00 00 ...'
on 'device file: disk.img '
on 'seek block=1 '
