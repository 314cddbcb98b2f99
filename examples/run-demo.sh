#!/usr/bin/env bash
# The main job: runs the demo batch test and shows its transcript.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
status=0
"${TARNWICK:?TARNWICK must name the tool}" -f "$here/demo.tw" -o demo.out || status=$?
cat demo.out
echo "tarnwick exit status: $status"
exit "$status"
