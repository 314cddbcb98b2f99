#!/usr/bin/env bash
# Runs clang-tidy and cppcheck over tarnwick's sources with the checked-in
# configuration (.clang-tidy, .cppcheck-suppressions). Exit status 0 when
# both are clean, 1 otherwise.
#
#   tools/lint.sh [BUILD_DIR]
#
# BUILD_DIR must hold compile_commands.json (any configured preset does;
# default build/test). Set LINT_JOBS to change the parallelism (default 2).
# Exit status 77 (a skip for CTest) when clang-tidy or cppcheck is missing.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/test}
jobs=${LINT_JOBS:-2}
if [ ! -f "$build/compile_commands.json" ]; then
    echo "lint: no compile_commands.json in $build (configure a preset first)" >&2
    exit 2
fi
tidy=$(command -v clang-tidy-14 || command -v clang-tidy) || { echo "lint: clang-tidy not found" >&2; exit 77; }
command -v cppcheck > /dev/null || { echo "lint: cppcheck not found" >&2; exit 77; }

status=0
cd "$root" || exit 2
# The tool and the simulated driver; their GoogleTest cases are left out.
mapfile -t sources < <(git ls-files -- 'src/*.cpp' 'sim/*.cpp' 'sim/*.c' ':!sim/tests' 2>/dev/null ||
                       find src sim -path sim/tests -prune -o \( -name '*.cpp' -o -name '*.c' \) -print)
# Only files the build compiles have their flags in compile_commands.json.
mapfile -t sources < <(for f in "${sources[@]}"; do
    grep -q "\"file\": \"$root/$f\"" "$build/compile_commands.json" && echo "$f"; done)

echo "lint: clang-tidy on ${#sources[@]} files"
if ! printf '%s\0' "${sources[@]}" |
        xargs -0 -n 4 -P "$jobs" "$tidy" -p "$build" --quiet 2>/dev/null; then
    echo "lint: clang-tidy found problems"
    status=1
fi

echo "lint: cppcheck"
if ! cppcheck --quiet --error-exitcode=1 --inline-suppr \
        --enable=warning,performance,portability --std=c++20 \
        --suppressions-list=.cppcheck-suppressions \
        --project="$build/compile_commands.json" \
        -i "$root/tests" -i "$root/sim/tests" -i "$root/fuzz" -i "$root/bench" \
        -i tests -i sim/tests -i fuzz -i bench \
        -j "$jobs" --template='{file}:{line}: {severity} ({id}): {message}'; then
    echo "lint: cppcheck found problems"
    status=1
fi
[ "$status" -eq 0 ] && echo "lint: clean"
exit "$status"
