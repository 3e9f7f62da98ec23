#!/usr/bin/env bash
# The Windows build under wine formats a new FAT32 partition on an image file: the partition
# gets type 0B, and fsck.fat -n and mtools accept the volume with its label.
set -euo pipefail
. "$(dirname "$0")/lib/partition.bash"
wine_start
need_tools sfdisk fsck.fat mdir
KDISK=$exe KDISK_RUNNER=wine work=$WORK
img=$work/disk.img
truncate -s 700M "$img"

kd "$img" -- 1 /CRE /PRI /SZ:600 /FOR /Q /V:WINE32
expect_rc 0 "FAT32 format under wine"
expect_out "Format complete." "FAT32 format under wine"
expect_out "Volume label is WINE32" "FAT32 format under wine"
read -r start size type _ <<<"$(table_of "$img" | head -n1)"
[ "$type" = b ] || fail "partition type $type, expected b: $(table_of "$img")"
dd if="$img" of="$work/vol" bs=512 skip="$start" count="$size" status=none
fsck.fat -n "$work/vol" >"$work/fsck" 2>&1 || fail "fsck.fat: $(cat "$work/fsck")"
grep -q "FAT32" <<<"$(dd if="$work/vol" bs=1 skip=82 count=8 status=none)" || fail "no FAT32 type string"
MTOOLS_SKIP_CHECK=1 mdir -i "$work/vol" ::/ >"$work/mdir" 2>&1 || fail "mdir: $(cat "$work/mdir")"
grep -q "Volume in drive : is WINE32" "$work/mdir" || fail "mdir label: $(cat "$work/mdir")"
finish
