#!/usr/bin/env bash
# Builds the packages and checks what they hold: the .deb of the native build (binary, manual
# page, README, MBR.BIN when the tree has one), unpacked and run; the zip of the Windows build
# when build-mingw exists (kdisk.exe, README, MBR.BIN when present).
#   tools/package.sh [native-build-dir] [mingw-build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
native=${1:-build}
mingw=${2:-build-mingw}
fails=0
bad() { echo "FAIL: $*" >&2; fails=$((fails + 1)); }

want_deb=(./usr/bin/kdisk ./usr/share/man/man1/kdisk.1 ./usr/share/doc/kdisk/README.md)
want_zip=(kdisk.exe README.md)
if [ -f tools/bootcode/MBR.BIN ]; then want_deb+=(./usr/bin/MBR.BIN); want_zip+=(MBR.BIN); fi

(cd "$native" && cpack -G DEB >/dev/null)
deb=$(ls -t "$native"/kdisk_*.deb | head -n 1)
listing=$(dpkg-deb -c "$deb" | awk '{print $6}')
for f in "${want_deb[@]}"; do grep -qxF "$f" <<<"$listing" || bad "$deb lacks $f"; done
[ "$(dpkg-deb -f "$deb" Package)" = kdisk ] || bad "$deb: package name"
# The unpacked binary runs and the page is readable by man.
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg-deb -x "$deb" "$root"
"$root/usr/bin/kdisk" /VERSION | grep -q "11.5.1" || bad "the packaged kdisk does not run /VERSION"
if command -v man >/dev/null; then
  man -l "$root/usr/share/man/man1/kdisk.1" 2>/dev/null | grep -q "SYNOPSIS" || bad "the packaged page does not render"
fi
echo "$deb: ok"

if [ -f "$mingw/kdisk.exe" ]; then
  (cd "$mingw" && cpack -G ZIP >/dev/null)
  zip=$(ls -t "$mingw"/kdisk-*.zip | head -n 1)
  names=$(cmake -E tar tf "$zip" | sed 's|^[^/]*/||')
  for f in "${want_zip[@]}"; do grep -qxF "$f" <<<"$names" || bad "$zip lacks $f"; done
  echo "$zip: ok"
else
  echo "note: $mingw/kdisk.exe not built; the zip is not made"
fi
[ "$fails" -eq 0 ]
