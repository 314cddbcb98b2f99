#!/bin/sh
# A batch run with standard error on a terminal (a pseudo-terminal from
# script(1)): a long write shows its status line, rewritten in place and erased
# at the end; after the failed check's verdict the failing line and its analysis
# follow, its errno untouched by what the screen needed. Standard output, a file
# here, keeps only its usual lines (after the usage text).  screen.sh TARNWICK
set -eu
command -v script >/dev/null || { echo "script(1) is not installed"; exit 77; }
tool=$1 dir=$(mktemp -d) esc=$(printf '\033') cr=$(printf '\r')
trap 'rm -rf "$dir"' EXIT
cd "$dir"
# The line shows after one second; a machine too fast for 300000 records gets 1200000.
for records in 300000 1200000; do
    : > disk.img
    printf '%s\n' 'command open disk.img RW result rc >= 0' 'command write records = 1 data = 7 result rc == 512' \
        "command write records = $records result rc == 512" 'set block_seek = 0' \
        'command read_verify records = 2 result rc == 512' > t.tw
    script -qfec "'$tool' -f t.tw -o t.out -d x > out.txt" /dev/null < /dev/null > screen.raw || true
    grep -q "^${cr}write [0-9]* of $records records" screen.raw && break
done
printf '%s\r\n' "${cr}${esc}[KLine     5 >>> command read_verify records = 2 result rc == 512" \
    'analyze return code -1  errno 0 (Successful) ' '    error value 0 (Successful) residual 0 data 7' \
    'analyze return_error cc 0 (Successful) Success' 'return code not as expected.' > reason.expected
printf '%s\n' 'ERROR, test at line 5 failed!' 'Test "t.tw" has failed at line 5.' > out.expected
status=0
tail -n +4 out.txt | cmp -s - out.expected || { echo "standard output differs:"; diff out.expected out.txt; status=1; }
size=$(wc -c < reason.expected)
tail -c "$size" screen.raw > reason.actual
cmp -s reason.actual reason.expected || { echo "reason differs:"; diff reason.expected reason.actual | cat -A; status=1; }
# Before the reason: one or more redraws of the status line, nothing else.
head -c $(($(wc -c < screen.raw) - size)) screen.raw | tr '\r' '\n' | tail -n +2 > progress.lines
line="^write [0-9]* of $records records, [0-9.]* [KMGT]*i*B, [0-9.]* [KMGT]*i*B/s, [0-9:-]* left${esc}\[K\$"
if [ ! -s progress.lines ] || grep -qv "$line" progress.lines; then
    echo "status line not as expected:"; cat -A progress.lines; status=1
fi
exit $status
