#!/usr/bin/env bash
# The kernel's view after /CRE and /DEL on a loop device: new and removed partitions show in
# /sys/block/loopN at once (no partprobe), and not at all with /NOOSLAYOUT; a mounted
# partition is neither wiped nor deleted.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
[ "$(id -u)" -eq 0 ] || skip "needs root for loop devices"
command -v losetup >/dev/null || skip "losetup not installed"
require_partitioning

img=$WORK/loop.img
truncate -s 64M "$img"
dev=$(losetup -f --show -P "$img" 2>/dev/null) || skip "no loop device available"
mnt=$WORK/mnt
mkdir -p "$mnt"
trap 'mountpoint -q "$mnt" && umount "$mnt"; losetup -d "$dev"; rm -rf "$WORK"' EXIT
name=$(basename "$dev")
has() { [ -e "/sys/block/$name/${name}p$1" ]; }

kd "$dev" 1 /CRE /PRI /SZ:10
expect_rc 0 "create on $dev"
has 1 || fail "kernel does not show ${name}p1 after /CRE"
[ "$(cat "/sys/block/$name/${name}p1/start" 2>/dev/null)" = "$(part "$img" 1 | cut -d' ' -f1)" ] ||
  fail "kernel start of ${name}p1 differs from the table"

# A mounted partition is refused before anything is written (mounted read-only so that the
# kernel itself writes nothing either).
if mkfs.ext2 -q "${dev}p1" 2>/dev/null && mount -o ro "${dev}p1" "$mnt" 2>/dev/null; then
  refuse "$dev" <<'T'
1|~Cannot wipe primary DOS partition -- |1 /DEL /P:1 /QWIPE
1|~Cannot delete partition(s) -- |1 /DEL /ALL
T
  umount "$mnt"
else
  echo "note: cannot mount ext2 here; mounted-partition refusal not checked"
fi

kd "$dev" 1 /CRE /PRI /Y /SZ:10 /NOOSLAYOUT
expect_rc 0 "create with /NOOSLAYOUT"
[ "$(count_parts "$img")" -eq 2 ] || fail "second partition not in the table"
has 2 && fail "kernel shows ${name}p2 although /NOOSLAYOUT was given"
kd "$dev" 1 /DEL /P:1 /NOOSLAYOUT
expect_rc 0 "delete with /NOOSLAYOUT"
has 1 || fail "kernel lost ${name}p1 although /NOOSLAYOUT was given"
kd "$dev" 1 /DEL /ALL
expect_rc 0 "delete all"
has 1 || has 2 && fail "kernel still shows a partition after /DEL /ALL"
finish
