#!/usr/bin/env bash
# Builds the packages and checks what they hold: the .deb of the native build (binary, manual
# page, README, copyright, changelog, MBR.BIN in /usr/lib/kdisk when the tree has one), free of
# lintian errors, unpacked and run (/REVERT finds the packaged boot code); the zip of the Windows
# build when build-mingw exists (kdisk.exe, README, MBR.BIN when present).
#   tools/package.sh [native-build-dir] [mingw-build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
native=${1:-build}
mingw=${2:-build-mingw}
fails=0
bad() { echo "FAIL: $*" >&2; fails=$((fails + 1)); }

want_deb=(./usr/bin/kdisk ./usr/share/man/man1/kdisk.1.gz ./usr/share/doc/kdisk/README.md
          ./usr/share/doc/kdisk/copyright ./usr/share/doc/kdisk/changelog.gz)
want_zip=(kdisk.exe README.md)
if [ -f tools/bootcode/MBR.BIN ]; then want_deb+=(./usr/lib/kdisk/MBR.BIN); want_zip+=(MBR.BIN); fi

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
  man -l "$root/usr/share/man/man1/kdisk.1.gz" 2>/dev/null | grep -q "SYNOPSIS" || bad "the packaged page does not render"
fi
if command -v lintian >/dev/null; then
  errors=$(lintian "$deb" 2>/dev/null | grep '^E:' || true)
  [ -z "$errors" ] || bad "lintian: $errors"
else
  echo "note: lintian is not installed; the package is not checked by it"
fi
# /REVERT of the unpacked program reads the packaged boot code (named MBR.BIN) from usr/lib/kdisk.
if [ -f tools/bootcode/MBR.BIN ]; then
  img=$root/disk.img
  truncate -s 1M "$img"
  (cd "$root" && "$root/usr/bin/kdisk" /NOOSDISK "/ADDDISK=$img" /BOOTDISK=1 /REVERT /Y >/dev/null 2>&1) ||
    bad "/REVERT of the packaged program fails"
  cmp -s -n 440 "$img" tools/bootcode/MBR.BIN || bad "/REVERT of the packaged program did not write MBR.BIN"
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
