#!/usr/bin/env bash
# The main job: runs the demo batch test under the simulated driver, with a
# fresh driver state, and shows its transcript.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
: "${TARNWICK:?TARNWICK must name the tool}" "${VPATHSIM:?VPATHSIM must name the simulator}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
# system statements call the control program by name
PATH="$(dirname "$VPATHSIM"):$PATH"
status=0
vpathsim run -- "$TARNWICK" -f "$here/demo.tw" -o demo.out -d /dev/vpath0 || status=$?
cat demo.out
echo "tarnwick exit status: $status"
exit "$status"
