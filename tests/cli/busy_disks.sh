#!/usr/bin/env bash
# Busy disks are never written: a filesystem mounted on the whole loop device, a mounted
# partition that the new partition would cover, swap on the whole device, and the same disk
# reached through its image file (raw, or the extent of a VMDK) while the image is attached to a
# loop device. Every refusal
# comes before the first write (the device and the image are unchanged).
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
[ "$(id -u)" -eq 0 ] || skip "needs root for loop devices and mounts"
need_tools losetup mount umount mkfs.ext2 sha256sum
require_partitioning

img=$WORK/busy.img
truncate -s 64M "$img"
dev=$(losetup -f --show -P "$img" 2>/dev/null) || skip "no loop device available"
mnt=$WORK/mnt
mkdir -p "$mnt"
swapped=""
dev2=""
cleanup() {
  [ -z "$swapped" ] || swapoff "$dev" 2>/dev/null
  mountpoint -q "$mnt" && umount "$mnt"
  [ -z "$dev2" ] || losetup -d "$dev2"
  losetup -d "$dev"
  rm -rf "$WORK"
}
trap cleanup EXIT
name=$(basename "$dev")

# busy CONTEXT TEXT ARGS...: the command fails with 1, says TEXT, and neither the device nor
# the image file changes. /ADDDISK= names the device or the image through the caller's ARGS.
busy() {
  local what=$1 text=$2 target=$3 before; shift 3
  before=$(sha "$img")
  kd "$target" "$@"
  expect_rc 1 "$what"
  expect_text "$text" "$what"
  [ "$(sha "$img")" = "$before" ] || fail "$what: the disk changed"
}

# The same image as the flat extent of a VMDK descriptor beside it.
vmdk=$WORK/busy.vmdk
printf '%s\n' '# Disk DescriptorFile' 'version=1' 'CID=fffffffe' 'parentCID=ffffffff' \
  'createType="monolithicFlat"' 'RW 131072 FLAT "busy.img" 0' >"$vmdk"

# A filesystem on the whole device, mounted read-only so that the kernel writes nothing either.
mkfs.ext2 -q "$dev" || fail "mkfs.ext2 on $dev"
if mount -o ro "$dev" "$mnt" 2>/dev/null; then
  while IFS='|' read -r target args; do
    t=$dev
    [ "$target" = image ] && t=$img
    [ "$target" = vmdk ] && t=$vmdk
    # shellcheck disable=SC2086
    busy "whole-disk filesystem, $target: $args" "is in use (mounted on $mnt)" "$t" 1 $args
  done <<'T'
device|/CRE /EXT /END
device|/CRE /PRI /SZ:10 /FOR /Q
image|/CRE /EXT /END
image|/CRE /PRI /SZ:10
vmdk|/CRE /EXT /END
device|/MBR /Y
device|/MBR /WIPE /Y
image|/MBR /Y
image|/MBR /WIPE /Y
image|/GPT /WIPE /Y
T
  kd "$img" 1 /STATUS
  expect_rc 0 "a busy disk can still be listed"
  umount "$mnt"
else
  echo "note: cannot mount ext2 here; mounted whole-disk refusals not checked"
fi

# Swap on the whole device.
if command -v mkswap >/dev/null && mkswap -q "$dev" >/dev/null 2>&1 && swapon "$dev" 2>/dev/null; then
  swapped=1
  busy "whole-disk swap" "is in use (used as swap)" "$dev" 1 /CRE /PRI /SZ:10
  busy "whole-disk swap through the image" "is in use (used as swap)" "$img" 1 /CRE /PRI /SZ:10
  swapoff "$dev"
  swapped=""
else
  echo "note: swap on a loop device is not possible here; swap refusal not checked"
fi

# A partition the kernel still shows after its table entry was removed behind its back: a new
# partition over it is refused before the table is written, not when the format begins.
dd if=/dev/zero of="$dev" bs=1M count=1 conv=fsync status=none
kd "$dev" 1 /CRE /PRI /SZ:10
expect_rc 0 "create the first partition on $dev"
[ -e "/sys/block/$name/${name}p1" ] || skip "the kernel shows no partitions of $dev"
mkfs.ext2 -q "${dev}p1" || fail "mkfs.ext2 on ${dev}p1"
if mount -o ro "${dev}p1" "$mnt" 2>/dev/null; then
  busy "mounted partition through the image" "is in use (mounted on $mnt)" "$img" 1 /DEL /P:1
  # The table loses the entry; the kernel keeps the partition and the mount.
  dd if=/dev/zero of="$dev" bs=1 seek=446 count=16 conv=notrunc,fsync status=none
  busy "new partition over a mounted one" "Partition ${dev}p1 is in use (mounted on $mnt)" "$dev" 1 /CRE /PRI /SZ:10 /FOR /Q
  busy "new partition over a mounted one, image" "${dev}p1 is in use (mounted on $mnt)" "$img" 1 /CRE /PRI /SZ:10 /FOR /Q
  [ "$(count_parts "$img")" -eq 0 ] || fail "a table entry was written"
  umount "$mnt"
  kd "$img" 1 /CRE /PRI /SZ:10 /FOR /Q
  expect_rc 0 "the same creation once nothing is mounted"
  [ "$(count_parts "$img")" -eq 1 ] || fail "no partition after the creation"
else
  echo "note: cannot mount ext2 here; mounted-partition refusals not checked"
fi

# The partition mounted through a second loop device over its part of the image file: the
# whole image's loop device reaches the same sectors, and so does the image itself.
read -r start size _ <<<"$(part "$img" 1)"
mkfs.ext2 -q -F "${dev}p1" >/dev/null 2>&1 || fail "mkfs.ext2 on ${dev}p1"
if dev2=$(losetup -f --show -o $((start * 512)) --sizelimit $((size * 512)) "$img") &&
  mount -o ro "$dev2" "$mnt" 2>/dev/null; then
  while IFS='|' read -r target args; do
    t=$dev
    [ "$target" = image ] && t=$img
    # shellcheck disable=SC2086
    busy "partition mounted through $dev2, $target: $args" "is in use (mounted on $mnt)" "$t" 1 $args
  done <<'T'
device|/DEL /P:1 /QWIPE /Y
device|/DEL /P:1 /Y
device|/DISKWIPE /Y
device|/HIDE /P:1
image|/DEL /P:1 /QWIPE /Y
image|/DISKWIPE /Y
T
  umount "$mnt"
else
  echo "note: cannot mount through a second loop device here; shared-sector refusals not checked"
fi
finish
