#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz") and runs them.
#
#   fuzz/run.sh [-r RUNS | -t SECONDS] [-j JOBS] [TARGET...]
#
#   -r RUNS     executions per target (default 10000000)
#   -t SECONDS  run each target this long instead of a number of executions
#   -j JOBS     parallel fuzzing processes per target (default 1)
#   TARGET      statement_fuzzer, trace_report_fuzzer (default: every one built)
#
# The corpus of each target lives in build/fuzz/corpus/TARGET and grows from
# run to run; the statement target is seeded with every statement line of
# examples/*.tw. Crashes, leaks and timeouts land in build/fuzz/artifacts/
# and make the script exit 1.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=10000000
seconds=
jobs=1
while getopts "r:t:j:h" option; do
    case $option in
        r) runs=$OPTARG ;;
        t) seconds=$OPTARG ;;
        j) jobs=$OPTARG ;;
        *) sed -n '2,15p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))

cd "$root"
cmake --workflow --preset fuzz > /dev/null
build=$root/build/fuzz
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for t in statement_fuzzer trace_report_fuzzer; do
        [ -x "$build/fuzz/$t" ] && targets+=("$t")
    done
fi

# Seeds: each statement line of the example scripts is one input.
seed_statements() {
    local dir=$1 n=0 file line
    for file in "$root"/examples/*.tw; do
        while IFS= read -r line || [ -n "$line" ]; do
            case $line in ''|'#'*) continue ;; esac
            n=$((n + 1))
            printf '%s\n' "$line" > "$dir/seed-$n"
        done < "$file"
    done
}

# Seeds: small trace reports (mask byte, entry count, bytes reported, entries).
seed_trace_reports() {
    local dir=$1
    printf '\x7c\x03\x00\x00\x00\x00\x00\x00\x00%s' \
        '0EENTRY open\n' '0DEXIT open \n' '0Cdebug: x  \n' > "$dir/seed-1"
    printf '\x14\x02\x00\x00\x00\x00\x00\x00\x00%s' '09ENTRYab.' '08EXITab.' > "$dir/seed-2"
    printf '\x4f\x01\x00\x00\x00\x00\x00\x00\x00%s' 'ffdebug' > "$dir/seed-3"
}

mkdir -p "$build/artifacts"
status=0
for target in "${targets[@]}"; do
    corpus=$build/corpus/$target
    mkdir -p "$corpus"
    case $target in
        statement_fuzzer) seed_statements "$corpus"; dict=(-dict="$root/fuzz/statement.dict") ;;
        trace_report_fuzzer) seed_trace_reports "$corpus"; dict=() ;;
        *) echo "run.sh: unknown target $target" >&2; exit 2 ;;
    esac
    if [ -n "$seconds" ]; then limit=(-max_total_time="$seconds"); else limit=(-runs="$runs"); fi
    if [ "$jobs" -gt 1 ]; then limit+=(-jobs="$jobs" -workers="$jobs"); fi
    echo "== $target (${limit[*]})"
    if ! "$build/fuzz/$target" "${limit[@]}" "${dict[@]}" -timeout=10 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix="$build/artifacts/$target-" "$corpus"; then
        echo "== $target: FINDING, see $build/artifacts/"
        status=1
    fi
done
exit "$status"
