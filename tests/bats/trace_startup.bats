#!/usr/bin/env bats
# The trace output prepared at start-up, on every run.

load helpers

setup() { setup_workdir; }
teardown() { teardown_workdir; }

USAGE='Usage: 
  tarnwick <-f batch-input-file> <-o batch-output-file> <-d special-file> <-t>
 '

@test "trace.out is created empty on every run; an existing one is kept, never emptied" {
    run "$TARNWICK" < /dev/null
    [ "$status" -eq 0 ]
    [ -f trace.out ] && [ ! -s trace.out ]
    printf 'earlier report' > trace.out
    printf '# nothing\n' > in.tw
    run "$TARNWICK" -f in.tw -o out.tw
    [ "$status" -eq 0 ]
    [ "$output" = "$USAGE" ]
    printf 'earlier report' | assert_file trace.out
    run "$TARNWICK" -d /dev/null < /dev/null
    [ "$status" -eq 0 ]
    printf 'earlier report' | assert_file trace.out
}

@test "a trace.out that cannot be opened: message on standard error, status 1, batch or menu" {
    mkdir trace.out
    "$TARNWICK" -d /dev/null < /dev/null > out.txt 2> err.txt && status=0 || status=$?
    [ "$status" -eq 1 ]
    printf 'trace_init error opening file >trace.out<\n' | assert_file err.txt
    printf '%s\n' "$USAGE" | assert_file out.txt
    printf 'type x\n' > in.tw
    "$TARNWICK" -f in.tw -o o.tw > out.txt 2> err.txt && status=0 || status=$?
    [ "$status" -eq 1 ]
    printf 'trace_init error opening file >trace.out<\n' | assert_file err.txt
}
