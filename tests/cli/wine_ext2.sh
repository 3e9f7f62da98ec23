#!/usr/bin/env bash
# The Windows build under wine formats a new ext2 partition on an image whose every byte was
# 0xFF: the partition gets type 83, e2fsck -fn finds the filesystem clean (so the zeroing of
# the inode tables reached the file), dumpe2fs shows the label and /STATUS names it EXT2FS.
set -euo pipefail
. "$(dirname "$0")/lib/partition.bash"
wine_start
need_tools sfdisk e2fsck dumpe2fs
KDISK=$exe KDISK_RUNNER=wine work=$WORK
img=$work/disk.img
head -c 48M /dev/zero | tr '\0' '\377' >"$img"
dd if=/dev/zero of="$img" bs=512 count=1 conv=notrunc status=none

kd "$img" -- 1 /CRE /PRI /FOR /EXT2 /V:WINEEXT
expect_rc 0 "ext2 format under wine"
expect_out "Format complete." "ext2 format under wine"
read -r start size type _ <<<"$(table_of "$img" | head -n1)"
[ "$type" = 83 ] || fail "partition type $type, expected 83: $(table_of "$img")"
e2fsck -fn "$img?offset=$((start * 512))" >"$work/fsck" 2>&1 || fail "e2fsck: $(cat "$work/fsck")"
dumpe2fs -h "$img?offset=$((start * 512))" 2>/dev/null | grep -q '^Filesystem volume name: *WINEEXT$' ||
  fail "dumpe2fs shows no label WINEEXT"
kd "$img" -- /STATUS
expect_rc 0 "status under wine"
grep -Eq '^ +1 .*WINEEXT.*EXT2FS' <<<"$out" || fail "status row: $out"
finish
