#!/usr/bin/env bash
# Mutation check: does the test suite catch planted faults?
#
#   tools/mutate.sh [MUTATIONS_FILE] [NAME...]
#
# Each line of MUTATIONS_FILE (default tools/mutations.txt) is
#   NAME<TAB>FILE<TAB>FROM<TAB>TO
# and plants one fault: the first FROM in FILE (a literal text) becomes TO.
# The tree is copied once to a scratch folder and built with the test
# preset; every mutation is applied there alone, rebuilt incrementally and
# run against the suite (stopping at the first failing test), then undone.
# A mutation is "caught" when the build or a test fails. Prints one line a
# mutation and the total; exit status 0 when at least 90% are caught.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
list=${1:-$root/tools/mutations.txt}
shift || true
only=("$@")

scratch=$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-mutate.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
(cd "$root" && git ls-files -z | xargs -0 cp --parents -t "$scratch")
cd "$scratch" || exit 2
if ! { cmake --preset test > build.log 2>&1 && cmake --build --preset test >> build.log 2>&1; }; then
    echo "mutate: the unmutated tree does not build" >&2
    tail -20 build.log >&2
    exit 2
fi
if ! ctest --preset test --stop-on-failure > baseline.log 2>&1; then
    echo "mutate: the suite fails without any mutation" >&2
    grep -E 'Failed|\*\*\*' baseline.log >&2
    exit 2
fi

caught=0 total=0
while IFS=$'\t' read -r name file from to; do
    case $name in '' | '#'*) continue ;; esac
    if [ ${#only[@]} -gt 0 ] && [[ ! " ${only[*]} " == *" $name "* ]]; then continue; fi
    total=$((total + 1))
    cp "$file" "$file.orig"
    if ! FROM=$from TO=$to perl -0pi -e 'BEGIN { $n = 0 } $n += s/\Q$ENV{FROM}\E/$ENV{TO}/; END { exit($n ? 0 : 1) }' "$file"; then
        printf '%-32s not applied (text not found in %s)\n' "$name" "$file"
        mv "$file.orig" "$file"
        continue
    fi
    start=$SECONDS
    if ! cmake --build --preset test > mutant-build.log 2>&1; then
        outcome="caught (build)"
        caught=$((caught + 1))
    elif ! ctest --preset test --stop-on-failure > mutant-test.log 2>&1; then
        first=$(grep -m1 -oE 'Test +#[0-9]+: [^ ]+ [.*]+\*?\*?\*?[A-Za-z]+' mutant-test.log |
                grep -vE 'Passed$' | sed -E 's/.*: ([^ ]+) .*/\1/' | head -1)
        outcome="caught by ${first:-a test}"
        caught=$((caught + 1))
    else
        outcome="MISSED"
    fi
    printf '%-32s %s (%ds)\n' "$name" "$outcome" $((SECONDS - start))
    mv "$file.orig" "$file"
    touch "$file"
done < "$list"

echo "$caught of $total mutations caught"
[ "$total" -gt 0 ] && [ $((caught * 10)) -ge $((total * 9)) ]
