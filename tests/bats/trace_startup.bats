#!/usr/bin/env bats
# The trace output prepared at start-up, on every run.

load helpers

setup() { setup_workdir; }
teardown() { teardown_workdir; }

@test "an existing trace.out is kept and opened for appending, never emptied" {
    printf 'earlier report' > trace.out
    printf '# nothing\n' > in.tw
    run "$TARNWICK" -f in.tw -o out.tw
    [ "$status" -eq 0 ]
    printf 'earlier report' | assert_file trace.out
    run "$TARNWICK" -d /dev/null < /dev/null
    [ "$status" -eq 0 ]
    printf 'earlier report' | assert_file trace.out
}

@test "an interactive run creates an empty trace.out too" {
    run "$TARNWICK" < /dev/null
    [ "$status" -eq 0 ]
    [ -f trace.out ] && [ ! -s trace.out ]
}

@test "a trace.out that cannot be opened: message on standard error, status 1" {
    mkdir trace.out
    "$TARNWICK" -d /dev/null < /dev/null > out.txt 2> err.txt && status=0 || status=$?
    [ "$status" -eq 1 ]
    printf 'trace_init error opening file >trace.out<\n' | assert_file err.txt
    printf 'Usage: \n  tarnwick <-f batch-input-file> <-o batch-output-file> <-d special-file> <-t>\n \n' |
        assert_file out.txt
}
