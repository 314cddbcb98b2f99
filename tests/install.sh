#!/bin/sh
# The installed tree works on its own: installed into a temporary prefix and
# moved (the programs find what they need relative to themselves), it runs
# an example with the build tree hidden (an empty tmpfs over it, in a user
# and mount namespace, where the system allows one).   install.sh BUILD_DIR
set -eu
if [ "${1:-}" = --run-example ]; then
    cd "$3"
    "$2/bin/vpathsim" run -- "$2/bin/tarnwick" -f "$2/share/doc/tarnwick/examples/failover-midwrite.tw" \
        -o midwrite.out -d /dev/vpath0 > /dev/null
    grep -q '^Batch test end rc=0 ' midwrite.out
    exit
fi
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/first" > /dev/null
p=$work/prefix
mv "$work/first" "$p"
lib=$(find "$p" -name libvpathsim_preload.so)
for file in bin/tarnwick bin/vpathsim bin/tarnwick-check share/man/man1/tarnwick.1 share/man/man1/vpathsim.1 \
    share/man/man1/tarnwick-check.1 share/doc/tarnwick/language.md share/doc/tarnwick/simulator.md \
    share/doc/tarnwick/golden.md share/doc/tarnwick/examples/failover-midwrite.tw
do [ -e "$p/$file" ] || fail "$file not installed"; done

# The library vpathsim preloads is the installed one.
unset VPATHSIM_LIB VPATHSIM_STATE VPATHSIM_CONFIG
chosen=$("$p/bin/vpathsim" run -- sh -c 'echo "$LD_PRELOAD"')
[ -n "$lib" ] && [ "$chosen" = "$lib" ] || fail "vpathsim preloads '$chosen'"

if unshare -rm true 2> /dev/null; then
    unshare -rm sh -c 'mount -t tmpfs none "$1" && [ -z "$(ls -A "$1")" ] && exec "$2" --run-example "$3" "$4"' \
        sh "$build" "$0" "$p" "$work" || fail "the example failed with the build tree hidden"
else
    "$0" --run-example "$p" "$work" || fail "the installed example failed"
fi

# The installed checker finds the programs beside it.
printf '%s\n' '--- run sim' 'vpathsim show > /dev/null && tarnwick > /dev/null 2>&1; test $? != 127' > "$work/found.case"
env -u TARNWICK -u VPATHSIM "$p/bin/tarnwick-check" "$work/found.case" || fail "the installed checker found no programs"

# Without its library vpathsim says so, rather than run the program bare.
rm "$lib"
if "$p/bin/vpathsim" run -- true 2> "$work/err"; then fail "vpathsim ran without its library"; fi
grep -q "libvpathsim_preload.so is neither in" "$work/err" || fail "no word about the missing library: $(cat "$work/err")"
