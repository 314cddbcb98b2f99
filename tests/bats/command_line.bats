#!/usr/bin/env bats
# Start-up and the command line.

load helpers

setup() { setup_workdir; }
teardown() { teardown_workdir; }

usage() {
    printf 'Usage: \n  tarnwick <-f batch-input-file> <-o batch-output-file> <-d special-file> <-t>\n \n'
}

@test "option missing its file name: message only, exit 254" {
    for opt in -f -o -d; do
        run "$TARNWICK" "$opt"
        [ "$status" -eq 254 ]
        [ "$output" = "Invalid syntax, file name missing after $opt option " ]
    done
    [ ! -e trace.out ]  # nothing past the command line ran
}

@test "unrecognised argument: message and usage, exit 254" {
    run "$TARNWICK" -x
    [ "$status" -eq 254 ]
    [ "$output" = "Invalid syntax, '-x' is unrecognized. 
$(usage)" ]
    run "$TARNWICK" -t -f in -o out stray
    [ "$status" -eq 254 ]
    [ "${lines[0]}" = "Invalid syntax, 'stray' is unrecognized. " ]
}

@test "options match on their first two characters" {
    printf 'type hi\n' > in.tw
    run "$TARNWICK" -fxyz in.tw -outfile o.tw -tx
    [ "$status" -eq 0 ]
    [ -f o.tw ]
    [[ "$output" == *"TTRACE: main exit."* ]]
}

@test "-f -o out: -o becomes the input file name" {
    printf 'type from dash-o\n' > ./-o
    run "$TARNWICK" -f -o out
    [ "$status" -eq 0 ]
    grep -q 'batch input   file: -o ' out
    grep -q 'batch output  file: out ' out
}

@test "file names over 199 characters are refused, 199 accepted" {
    long=$(printf 'a%.0s' $(seq 200))
    run "$TARNWICK" -f "$long"
    [ "$status" -eq 254 ]
    [ "$output" = "Invalid syntax, file name after -f option longer than 199 characters " ]
    printf 'type ok\n' > "${long:1}"
    run "$TARNWICK" -f "${long:1}" -o o.tw
    [ "$status" -eq 0 ]
}

@test "a later option replaces an earlier one" {
    printf 'type x\n' > b.tw
    run "$TARNWICK" -f a.tw -f b.tw -o first -o second
    [ "$status" -eq 0 ]
    [ -f second ] && [ ! -e first ]
}
