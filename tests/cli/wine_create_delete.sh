#!/usr/bin/env bash
# The Windows build under wine creates, formats, wipes and deletes on an image the same way
# as the native program. Uses a private wine prefix and wine server.
set -u
exe=${KDISK_WINE_EXE:-}
if [ -z "$exe" ]; then echo "SKIP: KDISK_WINE_EXE is empty (no Windows build)"; exit 77; fi
if ! command -v wine >/dev/null || ! command -v wineserver >/dev/null; then echo "SKIP: wine is not installed"; exit 77; fi
[ -f "$exe" ] || { echo "SKIP: $exe does not exist"; exit 77; }
KDISK=$exe
. "$(dirname "$0")/lib/partition.bash"

export WINEPREFIX="$WORK/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" KDISK_NO_REBOOT=1
unset DISPLAY
mkdir -p "$WINEPREFIX"
wineserver -p
trap 'wineserver -k 2>/dev/null; wineserver -w 2>/dev/null; rm -rf "$WORK"' EXIT
wineboot -i >/dev/null 2>&1

img=$WORK/disk.img
truncate -s 32M "$img"
winimg="Z:$(printf '%s' "$img" | tr '/' '\\')"
wkd() {
  wine "$exe" /NOOSDISK "/ADDDISK=$winimg" "$@" >"$WORK/out" 2>"$WORK/err" </dev/null
  RC=$?; OUT=$(tr -d '\r' <"$WORK/out"); ERR=$(tr -d '\r' <"$WORK/err")
}

before=$(sha "$img")
wkd 1 /CRE /PRI /SZ:101%
expect_rc 2 "101%"; expect_line "Invalid partition size -- 101%" "101%"
[ "$(sha "$img")" = "$before" ] || fail "101%: image changed"

wkd 1 /CRE /PRI /SZ:10 /FOR /Q /V:WINE
expect_rc 0 "create and format"
read -r s n t <<<"$(part "$img" 1)"
[ "${t:-}" = 1 ] || fail "type ${t:-none}, expected FAT12: $(parts "$img")"
if [ "${RC}" = 0 ] && [ -n "${n:-}" ]; then
  extract "$img" "$s" "$n" >"$WORK/vol"
  fsck.fat -n "$WORK/vol" >"$WORK/fsck" 2>&1 || fail "fsck.fat: $(cat "$WORK/fsck")"
  [ "$(fatlabel "$WORK/vol" 2>/dev/null | tr -d ' ')" = WINE ] || fail "volume label"
fi

wkd 1 /DEL /P:1 /DODWIPE
expect_rc 0 "delete with DoD wipe"
[ "$(count_parts "$img")" -eq 0 ] || fail "table not empty: $(parts "$img")"
if [ -n "${n:-}" ]; then
  r=$(first_byte "$img" "$s")
  [ "$r" != 53 ] && [ "$r" != 202 ] || fail "last pass byte $r"
  only_byte "$img" "$s" "$n" "$r" || fail "partition not uniformly $r after the DoD wipe"
  expect_line "$(printf 'Partition will contain 0x%02X for all bytes in all sectors when wipe complete.' "$r")" "DoD"
fi
finish
