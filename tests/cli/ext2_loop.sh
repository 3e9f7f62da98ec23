#!/usr/bin/env bash
# /CRE /FOR /EXT2 on a loop device whose every byte was 0xFF: the device's own zero-out leaves
# no old bytes in the metadata (e2fsck -fn clean), the kernel's ext2 driver mounts the new
# partition, files written to it read back the same after a remount, and e2fsck -fn is clean
# again afterwards.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
[ "$(id -u)" -eq 0 ] || skip "needs root for loop devices and mounting"
need_tools losetup mount umount e2fsck sfdisk jq
grep -qw ext2 /proc/filesystems || modprobe ext2 2>/dev/null || modprobe ext4 2>/dev/null || true
grep -qwE 'ext2|ext4' /proc/filesystems || skip "the kernel has no ext2 driver"

img=$WORK/loop.img
head -c 96M /dev/zero | tr '\0' '\377' >"$img"
dd if=/dev/zero of="$img" bs=512 count=1 conv=notrunc status=none  # an empty partition table
dev=$(losetup -f --show -P "$img" 2>/dev/null) || skip "no loop device available"
mnt=$WORK/mnt
mkdir -p "$mnt"
trap 'mountpoint -q "$mnt" && umount "$mnt"; losetup -d "$dev"; rm -rf "$WORK"' EXIT

kd "$dev" 1 /CRE /PRI /ALIGN:1MB /FOR /EXT2 /V:LOOPED
expect_rc 0 "format on $dev"
expect_line "Format complete." "format on $dev"
part=${dev}p1
[ -b "$part" ] || fail "kernel shows no $part"
e2fsck -fn "$part" >"$WORK/fsck" 2>&1 || fail "e2fsck -fn after the format: $(cat "$WORK/fsck")"

if mount -t ext2 "$part" "$mnt" 2>"$WORK/mount"; then
  mkdir -p "$mnt/tree/deep"
  head -c 5M /dev/urandom >"$WORK/big"
  cp "$WORK/big" "$mnt/tree/deep/big"
  for i in $(seq 1 200); do echo "file $i" >"$mnt/tree/f$i"; done
  umount "$mnt"
  mount -t ext2 "$part" "$mnt" || fail "second mount failed"
  cmp -s "$WORK/big" "$mnt/tree/deep/big" || fail "big file differs after remount"
  [ "$(cat "$mnt/tree/f137")" = "file 137" ] || fail "small file differs after remount"
  [ -d "$mnt/lost+found" ] || fail "no lost+found in the mounted filesystem"
  umount "$mnt"
  e2fsck -fn "$part" >"$WORK/fsck" 2>&1 || fail "e2fsck -fn after use: $(cat "$WORK/fsck")"
else
  fail "the kernel refuses to mount the new filesystem: $(cat "$WORK/mount")"
fi
finish
