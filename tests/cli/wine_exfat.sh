#!/usr/bin/env bash
# The Windows build under wine formats a new exFAT partition on an image whose every byte was
# 0xFF: the partition gets type 07, fsck.exfat -n finds the volume clean (so the zeroing of the
# FAT and the bitmap reached the file) and blkid -p names it exfat with the label.
set -euo pipefail
. "$(dirname "$0")/lib/partition.bash"
wine_start
need_tools sfdisk fsck.exfat blkid
KDISK=$exe KDISK_RUNNER=wine work=$WORK
img=$work/disk.img
head -c 48M /dev/zero | tr '\0' '\377' >"$img"
dd if=/dev/zero of="$img" bs=512 count=1 conv=notrunc status=none

kd "$img" -- 1 /CRE /PRI /FOR /EXFAT /V:WINEXFAT
expect_rc 0 "exFAT format under wine"
expect_out "Format complete." "exFAT format under wine"
read -r start size type _ <<<"$(table_of "$img" | head -n1)"
[ "$type" = 7 ] || fail "partition type $type, expected 7: $(table_of "$img")"
extract "$img" "$start" "$size" >"$work/vol"
fsck.exfat -n "$work/vol" >"$work/fsck" 2>&1 || fail "fsck.exfat: $(cat "$work/fsck")"
[ "$(blkid -p -o value -s TYPE "$work/vol")" = exfat ] || fail "blkid -p: $(blkid -p "$work/vol")"
[ "$(blkid -p -o value -s LABEL "$work/vol")" = WINEXFAT ] || fail "blkid -p shows no label WINEXFAT"
finish
