#!/usr/bin/env bash
# The Windows build under wine formats a new NTFS partition on an image file as the native
# build does: type 07, and ntfsinfo, ntfsls and ntfsfix -n accept the volume with its label.
set -euo pipefail
. "$(dirname "$0")/lib/partition.bash"
wine_start
need_tools sfdisk ntfsinfo ntfsls ntfsfix
KDISK=$exe KDISK_RUNNER=wine work=$WORK
img=$work/disk.img
truncate -s 200M "$img"

kd "$img" -- 1 /CRE /PRI /SZ:150 /FOR /NTFS:2000 /V:WINENTFS
expect_rc 0 "NTFS format under wine"
expect_out "Format complete." "NTFS format under wine"
expect_out "NTFS version 3.0" "NTFS format under wine"
read -r start size type _ <<<"$(table_of "$img" | head -n1)"
[ "$type" = 7 ] || fail "partition type $type, expected 7: $(table_of "$img")"
dd if="$img" of="$work/vol" bs=512 skip="$start" count="$size" status=none
info=$(ntfsinfo -m -f "$work/vol" 2>&1) || fail "ntfsinfo: $info"
grep -qx "	Volume Name: WINENTFS" <<<"$info" || fail "ntfsinfo label: $info"
grep -qx "	Volume Version: 3.0" <<<"$info" || fail "ntfsinfo version: $info"
ntfsls -f "$work/vol" >"$work/ls" 2>&1 || fail "ntfsls: $(cat "$work/ls")"
ntfsfix -n "$work/vol" >"$work/fix" 2>&1 || fail "ntfsfix -n: $(cat "$work/fix")"
kd "$img" -- 1 /STATUS
grep -qE '^ +1  07  NTFS/HPFS +WINENTFS ' <<<"$OUT" || fail "status row: $OUT"
finish
