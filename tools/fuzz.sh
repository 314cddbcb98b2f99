#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz") and runs them.
#   tools/fuzz.sh [-r RUNS | -t SECONDS] [TARGET...]   (default: 10000000 runs of every target)
# Corpora grow in build/fuzz/corpus/TARGET (statements seeded from the lines
# of examples/*.tw); crashes, leaks and timeouts land in build/fuzz/artifacts/
# and make the script exit 1.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz
limit=(-runs=10000000)
while getopts "r:t:" option; do
    case $option in
        r) limit=(-runs="$OPTARG") ;;
        t) limit=(-max_total_time="$OPTARG") ;;
        *) sed -n '2,6p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
cd "$root" && cmake --workflow --preset fuzz >/dev/null
[ $# -gt 0 ] || set -- statement_fuzzer trace_report_fuzzer state_fuzzer config_fuzzer
status=0
for target; do
    corpus=$build/corpus/$target extra=()
    mkdir -p "$corpus" "$build/artifacts"
    if [ "$target" = statement_fuzzer ]; then
        grep -hv '^#\|^$' examples/*.tw | split -a 4 -l 1 - "$corpus/seed-"
        # Keywords the fuzzer would hardly guess byte by byte.
        printf '"%s"\n' command result set if skip read_verify random_write get_inquiry device_capacity \
            get_device_state set_path set_controller records block_seek block_count errno has vendor_id \
            '$D' RW+DIRECT EIO > "$build/statement.dict"
        extra=(-dict="$build/statement.dict")
    elif [ "$target" = config_fuzzer ]; then
        printf 'adapter fc0\nadapter fc1\ndevice serial=A policy=3 size=1M controllers=2\npath sda adapter=1 # c\n' \
            > "$corpus/seed-1"
        printf '"%s"\n' adapter device path adapter= serial= type= policy= controllers= size= devtype= vendor= \
            product= revision= vendor_specific= > "$build/config.dict"
        extra=(-dict="$build/config.dict")
    elif [ "$target" = trace_report_fuzzer ]; then  # a trace report: mask byte, entry count, bytes reported, entries
        printf '\x7c\x03\0\0\0\0\0\0\0%s' '0EENTRY open\n' '0DEXIT open \n' '0Cdebug: x  \n' >"$corpus/seed-1"
    fi
    echo "== $target (${limit[*]})"
    "$build/fuzz/$target" "${limit[@]}" "${extra[@]}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$target-" "$corpus" || { echo "== $target: FINDING"; status=1; }
done
exit "$status"
