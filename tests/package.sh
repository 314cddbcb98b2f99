#!/bin/sh
# The Debian package holds every program, the preload library, the manual
# pages, the documents and the examples under /usr, names the libraries it
# needs, and works unpacked: vpathsim runs the demo from the package's
# examples. Skipped (77) without dpkg-deb.   package.sh BUILD_DIR
set -eu
command -v dpkg-deb > /dev/null && command -v cpack > /dev/null || exit 77
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "package test: $*" >&2; exit 1; }

cpack -G DEB -B "$work" --config "$build/CPackConfig.cmake" -D CPACK_DEBIAN_COMPRESSION_TYPE=gzip > "$work/log" ||
    fail "cpack failed: $(cat "$work/log")"
deb=$(ls "$work"/tarnwick_*.deb)
dpkg-deb -c "$deb" | sed 's/.* \.//' | grep -v '/$' | sort > "$work/files"
cat > "$work/expected" << 'LIST'
/usr/bin/tarnwick
/usr/bin/tarnwick-check
/usr/bin/tarnwick-plot
/usr/bin/vpathsim
/usr/lib/libvpathsim_preload.so
/usr/share/doc/tarnwick/README.md
/usr/share/doc/tarnwick/examples/demo.tw
/usr/share/doc/tarnwick/examples/failover-adapter-midread.tw
/usr/share/doc/tarnwick/examples/failover-adapter.tw
/usr/share/doc/tarnwick/examples/failover-flaky.tw
/usr/share/doc/tarnwick/examples/failover-lastpath.tw
/usr/share/doc/tarnwick/examples/failover-midwrite.tw
/usr/share/doc/tarnwick/examples/failover-path.tw
/usr/share/doc/tarnwick/examples/failover-silent.tw
/usr/share/doc/tarnwick/examples/inquiry-branch.tw
/usr/share/doc/tarnwick/examples/integrity-sweep.tw
/usr/share/doc/tarnwick/examples/statistics.tw
/usr/share/doc/tarnwick/golden.md
/usr/share/doc/tarnwick/language.md
/usr/share/doc/tarnwick/simulator.md
/usr/share/man/man1/tarnwick-check.1
/usr/share/man/man1/tarnwick-plot.1
/usr/share/man/man1/tarnwick.1
/usr/share/man/man1/vpathsim.1
LIST
diff -u "$work/expected" "$work/files" || fail "the package's files differ from the list"
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libc6 libstdc++6 libgcc-s1; do
    case "$depends" in *"$lib"*) ;; *) fail "Depends lacks $lib: $depends" ;; esac
done

dpkg-deb -x "$deb" "$work/root"
cd "$work"
"$work/root/usr/bin/vpathsim" run -- "$work/root/usr/bin/tarnwick" \
    -f "$work/root/usr/share/doc/tarnwick/examples/demo.tw" -o demo.out > /dev/null ||
    fail "the packaged demo failed: $(tail -3 demo.out)"
