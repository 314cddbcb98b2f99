#!/bin/sh
# Installed into a temporary prefix and moved (the programs find what they need relative to
# themselves), the tree holds the files listed, runs an example with the build tree hidden (in a
# user and mount namespace where allowed), its checker finds the programs beside it, and without its
# library vpathsim says so. The Debian package (where cpack and dpkg-deb are) holds the same files
# under /usr, names the libraries it needs, and runs the demo unpacked.   install.sh BUILD_DIR
set -eu
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }
d=share/doc/tarnwick e=share/doc/tarnwick/examples m=share/man/man1 p=$work/prefix
printf '%s\n' bin/tarnwick bin/tarnwick-check bin/tarnwick-plot bin/vpathsim lib/libvpathsim_preload.so $d/README.md \
    $e/demo.tw $e/failover-adapter-midread.tw $e/failover-adapter.tw $e/failover-flaky.tw $e/failover-lastpath.tw \
    $e/failover-midwrite.tw $e/failover-path.tw $e/failover-silent.tw $e/inquiry-branch.tw $e/integrity-sweep.tw \
    $e/statistics.tw $d/golden.md $d/language.md $d/simulator.md $m/tarnwick-check.1 $m/tarnwick-plot.1 $m/tarnwick.1 \
    $m/vpathsim.1 > "$work/expected"

cmake --install "$build" --prefix "$work/first" > /dev/null
mv "$work/first" "$p"
(cd "$p" && find . ! -type d | sed 's|^\./||' | sort) > "$work/files"
diff -u "$work/expected" "$work/files" || fail "the installed files differ from the list"
unset VPATHSIM_LIB VPATHSIM_STATE VPATHSIM_CONFIG

example='cd "$2" && "$1/bin/vpathsim" run -- "$1/bin/tarnwick" -f "$1/share/doc/tarnwick/examples/failover-midwrite.tw" \
    -o midwrite.out -d /dev/vpath0 > /dev/null && grep -q "^Batch test end rc=0 " midwrite.out'
ns="" hide=""  # an empty tmpfs over the build tree
unshare -rm true 2> /dev/null && ns="unshare -rm" hide='mount -t tmpfs none "$3" && [ -z "$(ls -A "$3")" ] && '
$ns sh -c "$hide$example" sh "$p" "$work" "$build" || fail "the installed example failed (${ns:-build tree not hidden})"

# The installed checker finds the programs beside it.
printf '%s\n' '--- run sim' 'vpathsim show > /dev/null && tarnwick > /dev/null 2>&1; test $? != 127' > "$work/found.case"
env -u TARNWICK -u VPATHSIM "$p/bin/tarnwick-check" "$work/found.case" || fail "the installed checker found no programs"

# Without its library vpathsim says so, rather than run the program bare or take the build tree's.
rm "$p/lib/libvpathsim_preload.so"
if "$p/bin/vpathsim" run -- true 2> "$work/err"; then fail "vpathsim ran without its library"; fi
grep -q "libvpathsim_preload.so is neither in" "$work/err" || fail "no word about the missing library: $(cat "$work/err")"

command -v dpkg-deb > /dev/null && command -v cpack > /dev/null || exit 0
cpack -G DEB -B "$work" --config "$build/CPackConfig.cmake" -D CPACK_DEBIAN_COMPRESSION_TYPE=gzip > "$work/log" ||
    fail "cpack failed: $(cat "$work/log")"
deb=$(ls "$work"/tarnwick_*.deb)
dpkg-deb -c "$deb" | sed -n 's|.* \./usr/\(.*[^/]\)$|\1|p' | sort > "$work/files"
diff -u "$work/expected" "$work/files" || fail "the package's files differ from the list"
for need in libc6 libstdc++6 libgcc-s1; do
    dpkg-deb -f "$deb" Depends | grep -qF "$need" || fail "Depends lacks $need: $(dpkg-deb -f "$deb" Depends)"
done
dpkg-deb -x "$deb" "$work/root"
cd "$work" && r=$work/root/usr
"$r/bin/vpathsim" run -- "$r/bin/tarnwick" -f "$r/share/doc/tarnwick/examples/demo.tw" -o demo.out > /dev/null ||
    fail "the packaged demo failed: $(tail -3 demo.out)"
