#!/bin/sh
# Ctrl-Z while a system statement's command has the terminal stops the whole
# run as one job of the shell that started it (its prompt comes back), the tool
# alone and under vpathsim run; fg continues the command and the run.
# Usage: job_stop.sh TARNWICK VPATHSIM. Status 77 (skip) without tmux or bash.
# Ctrl-Z goes while the command waits in read, a builtin: /bin/sh vforks an
# external command, and a Ctrl-Z landing between that vfork and the exec stops
# the child while the shell waits for it unstoppably, so no stop is reported
# to anyone (a job of bash itself hangs the same way).
command -v tmux > /dev/null && command -v bash > /dev/null || exit 77
work=$(mktemp -d) socket="tarnwick-stop-$$"
trap 'tmux -L "$socket" kill-server 2> /dev/null; rm -rf "$work"' EXIT
printf 'system echo command-waits; read line; echo command-went-on-$line\ntype after\n' > "$work/s.tw"
on() {  # waits until the pane shows TEXT, then types the keys
    text=$1; shift
    for _ in $(seq 150); do
        tmux -L "$socket" capture-pane -p -J -S - -t "$job" > "$work/pane" 2> /dev/null
        grep -qF -- "$text" "$work/pane" && { [ $# -eq 0 ] || tmux -L "$socket" send-keys -t "$job" "$@"; return 0; }
        sleep 0.1
    done
    echo "gave up waiting for '$text'; the pane shows:"; cat "$work/pane"; exit 1
}
for job in tool run; do
    tmux -L "$socket" -f /dev/null new-session -d -s $job -x 132 -y 50 "cd '$work' && PS1='prompt> ' bash --norc -i"
    case $job in tool) command="'$1' -f s.tw -o $job.out" ;; run) command="'$2' run -- '$1' -f s.tw -o $job.out" ;; esac
    on 'prompt> ' "$command" Enter
    on 'command-waits' C-z
    on 'Stopped' fg Enter
    on "$command" go Enter
    on 'command-went-on-go'
    on ' after' 'echo ended-$?' Enter
    on 'ended-0'
    if ! grep -q 'command returned rc 0' "$work/$job.out" || ! grep -q 'Batch test end rc=0' "$work/$job.out"; then
        cat "$work/$job.out"; exit 1
    fi
done
