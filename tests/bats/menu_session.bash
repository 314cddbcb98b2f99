# Screen sessions at the manual test menu: answers are piped in, the screen
# is captured with its time fields masked, and the expected screen is built
# from the pieces below.

load helpers

# Runs the menu on the answers (printf %b escapes) with any further
# arguments as options. The masked screen lands in screen.txt. A menu that
# kept asking at end of input would be stopped by the timeout (status 124).
# shellcheck disable=SC2034  # status is read by the calling test
run_menu() {
    local answers=$1
    shift
    status=0
    printf '%b' "$answers" | timeout 30 "$TARNWICK" "$@" > screen.raw 2>&1 || status=$?
    # A selection that asks nothing more after its prompt leaves the elapsed
    # time on the prompt's line, where mask_times (anchored) misses it.
    mask_times screen.raw |
        sed -E 's/(.)(Command elapsed time in seconds = ).*/\1\2<elapsed> /' > screen.txt
}

# The handle the first open got, from its outcome line on the screen.
handle_of_open() {
    sed -n 's/^analyze return code \([0-9][0-9]*\) .*/\1/p' screen.txt | head -1
}

usage_lines() {
    printf 'Usage: \n  tarnwick <-f batch-input-file> <-o batch-output-file> <-d special-file> <-t>\n \n'
}

# The settings display as the next pass shows it; tests change these.
HANDLE=-1
BLOCKING=1
SEEK=0
MAXIMUM=1000
DEVICE_LINE=""   # e.g. "device file: disk.img " once a file is named
MODE=read-only   # or full after 642

settings_display() {
    printf '\nvariable settings\n=================\n%s\n' "$DEVICE_LINE"
    printf 'handle=%s  sector size=512  blocking factor=%s  seek block=%s \n' "$HANDLE" "$BLOCKING" "$SEEK"
    printf 'sectors on device=%s \n\n' "$MAXIMUM"
}

menu_listing() {
    printf 'manual test menu:\n=================\n\n'
    printf '  1: set device file name            2: set blocking factor \n'
    printf '  3: set seek value                  4: set maximum sector  \n'
    printf '  5: display symbols \n\n'
    if [ "$MODE" = full ]; then
        printf ' 20: open                           21: close          \n'
        printf ' 22: read                           23: random read    \n\n'
        printf ' 24: write                          25: random write   \n'
        printf ' 26: read with verify                                  \n'
    else
        printf ' 20: open (read only)               21: close          \n'
        printf ' 22: read                           23: random read    \n\n'
    fi
    printf ' 27: display sector \n\n'
    printf ' 30: device capacity                31: logical inquiry  \n\n'
    printf ' 40: get number of devices \n'
    printf ' 41: get device state               42: get adapter information \n'
    printf ' 43: set adapter state              44: set path state \n'
    printf ' 45: get adapter statistics         46: get device statistics \n'
    printf ' 52: set controller                 53: set preferred controller\n'
    printf '\n'
    printf ' 60: execute command                                     \n\n'
    printf ' 88: trace menu                                          \n\n'
    printf ' 99: Exit \n\n'
}

# One pass up to the selection prompt.
pass() {
    settings_display
    menu_listing
    printf 'enter selection: '
}

# The end of a pass that did not leave the menu.
pass_end() {
    printf 'Command elapsed time in seconds = <elapsed> \nReturn to continue: '
}

# The statements the menu handed to the dispatcher, as the -t trace shows them.
statements_sent() {
    sed -n 's/^.*TTRACE: process entered (\(.*\))\.$/\1/p' screen.raw
}
