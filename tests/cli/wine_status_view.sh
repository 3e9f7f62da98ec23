#!/usr/bin/env bash
# The Windows build under wine on an image file: the status display, /VIEW and /ACT behave as
# in the native build (sfdisk confirms the change; a refusal leaves the image untouched).
set -euo pipefail
. "$(dirname "$0")/lib/partition.bash"
wine_start
need_tools sfdisk sha256sum
KDISK=$exe KDISK_RUNNER=wine work=$WORK
img=$work/disk.img
truncate -s 8M "$img"
printf 'label: dos\nstart=2048, size=2048, type=7, bootable\nstart=4096, type=f\nsize=2048, type=6\n' | sfdisk -q "$img"

kd "$img" -- 1
expect_rc 0 "status"
grep -qE '^ +1  07  NTFS/HPFS .* PRIMARY +Yes$' <<<"$out" || fail "status row 1: $out"
grep -qE '^ +3  06  FAT16 .* LOGICAL$' <<<"$out" || fail "status row 3: $out"

kd "$img" -- 1 /VIEW:0
expect_rc 0 "/VIEW:0"
grep -qE '^000001f0  .*55 aa  ' <<<"$out" || fail "/VIEW:0 lacks 55 aa: $out"

s=$(sum "$img")
kd "$img" -- 1 /ACT /P:3
expect_rc 1 "/ACT on a logical drive"
expect_out "Logical DOS drives may not be set active" "/ACT on a logical drive"
[ "$(sum "$img")" = "$s" ] || fail "refusal changed the image"

kd "$img" -- 1 /HIDE /P:1
expect_rc 0 "/HIDE"
expect_out "*HIDDEN*" "/HIDE"
[ "$(table_of "$img" | head -n1)" = "2048 2048 17 1" ] || fail "sfdisk after /HIDE: $(table_of "$img")"
finish
