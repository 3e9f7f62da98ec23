#!/usr/bin/env bash
# Wipes that must reach the medium, on loop devices and full storage: every pass of /DODWIPE
# is counted by the kernel, a read-only device is refused before the first pass, a wipe that
# cannot write and a flush that fails end with 1 and leave the table alone, and a disk with a
# mounted filesystem is refused by /DISKWIPE and /GPT /WIPE while /DISK:ALL wipes the others;
# the kernel's view follows both commands.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
[ "$(id -u)" -eq 0 ] || skip "needs root for loop devices and tmpfs mounts"
command -v losetup >/dev/null || skip "losetup not installed"
require_partitioning

DEVS=() MNTS=()
cleanup() {
  local m d
  for m in "${MNTS[@]}"; do mountpoint -q "$m" && umount "$m"; done
  for d in "${DEVS[@]}"; do losetup -d "$d"; done
  rm -rf "$WORK"
}
trap cleanup EXIT
# attach [-r] IMAGE: sets dev to a new loop device over the image.
attach() { dev=$(losetup -f --show "$@" 2>/dev/null) || skip "no loop device available"; DEVS+=("$dev"); }
detach() { losetup -d "$dev"; DEVS=("${DEVS[@]/$dev/}"); DEVS=(${DEVS[@]}); }
# small_fs DIR MiB: a tmpfs of that size (storage that fills up).
small_fs() { mkdir -p "$1" && mount -t tmpfs -o "size=$2M" tmpfs "$1" || skip "cannot mount tmpfs"; MNTS+=("$1"); }
written() { awk '{ print $7 }' "/sys/block/$(basename "$1")/stat"; }
one_partition() { printf 'label: dos\nstart=2048, size=%d, type=6\n' "$2" | sfdisk -q "$1" >/dev/null; }

# ---- /DODWIPE of a 20 MiB partition: the kernel counts at least 18 passes written to the
# device, and the partition holds the last pattern byte.
img=$WORK/dod.img
truncate -s 24M "$img"
one_partition "$img" 40960
fill "$img" 2048 40960 119
attach "$img"
before=$(written "$dev")
kd "$dev" 1 /DEL /P:1 /DODWIPE
expect_rc 0 "/DODWIPE on $dev"
after=$(written "$dev")
[ $((after - before)) -ge $((18 * 40960)) ] || fail "/DODWIPE wrote $((after - before)) sectors, expected 18 x 40960"
r=$(first_byte "$img" 2048)
only_byte "$img" 2048 40960 "$r" || fail "/DODWIPE left other bytes than $r"
[ "$(count_parts "$img")" -eq 0 ] || fail "/DODWIPE: partition not deleted"
detach

# ---- The system is told: a partition the kernel showed is gone after /GPT /WIPE and after
# /DISKWIPE.
img=$WORK/os.img
truncate -s 16M "$img"
attach -P "$img"
name=$(basename "$dev")
shown() { [ -e "/sys/block/$name/${name}p1" ]; }
kd "$dev" 1 /CRE /PRI /SZ:4
shown || fail "set-up: the kernel does not show ${name}p1"
kd "$dev" 1 /GPT /WIPE /Y
expect_rc 0 "/GPT /WIPE on $dev"
shown && fail "the kernel still shows ${name}p1 after /GPT /WIPE"
kd "$dev" 1 /CRE /PRI /SZ:4
shown || fail "the kernel does not show the new GPT partition"
kd "$dev" 1 /DISKWIPE /Y
expect_rc 0 "/DISKWIPE on $dev"
shown && fail "the kernel still shows ${name}p1 after /DISKWIPE"
detach

# ---- A read-only device is refused before the first pass, with the disk layer's reason.
img=$WORK/ro.img
truncate -s 16M "$img"
one_partition "$img" 20480
attach -r "$img"
while IFS='|' read -r msg args; do
  before=$(sha "$img")
  # shellcheck disable=SC2086
  kd "$dev" $args
  expect_rc 1 "read-only: $args"
  expect_text "$msg -- Cannot write $dev -- opened read-only" "read-only: $args"
  expect_not_in "Wiping" out "read-only: $args"
  [ "$(sha "$img")" = "$before" ] || fail "read-only: $args changed the image"
done <<'T'
Cannot wipe primary DOS partition|1 /DEL /P:1 /DODWIPE
Cannot wipe fixed disk 1|1 /DISKWIPE /Y
Cannot reinitialise fixed disk 1 as a GPT disk|1 /GPT /WIPE /Y
T
detach
# The same for an image file its user may only read.
if command -v setpriv >/dev/null; then
  chmod 755 "$WORK"; chmod 444 "$img"
  before=$(sha "$img")
  setpriv --reuid=65534 --regid=65534 --clear-groups "$KDISK" /NOOSDISK "/ADDDISK=$img" 1 /DEL /P:1 /DODWIPE \
    >"$WORK/out" 2>&1 </dev/null
  RC=$?; ERR=$(cat "$WORK/out"); OUT=
  expect_rc 1 "read-only image"
  expect_text "Cannot wipe primary DOS partition -- Cannot write $img -- it could only be opened read-only" "read-only image"
  [ "$(sha "$img")" = "$before" ] || fail "read-only image changed"
fi

# ---- Storage that fills up: the wipes report the sectors they could not write, end with 1,
# and /DEL leaves the table as it was.
small_fs "$WORK/small" 6
img=$WORK/small/full.img
truncate -s 16M "$img"
one_partition "$img" 28672
mbr=$(extract "$img" 0 1 | sha256sum)
kd "$img" 1 /DEL /P:1 /QWIPE
expect_rc 1 "/QWIPE on full storage"
expect_text "of partition 1 on fixed disk 1" "/QWIPE on full storage"
expect_text "Cannot wipe primary DOS partition -- " "/QWIPE on full storage"
expect_text "sectors could not be written" "/QWIPE on full storage"
[ "$(extract "$img" 0 1 | sha256sum)" = "$mbr" ] || fail "a failed wipe changed the table"
[ "$(part "$img" 1)" = "2048 28672 6" ] || fail "a failed wipe deleted the partition: $(parts "$img")"
kd "$img" 1 /DISKWIPE /Y
expect_rc 1 "/DISKWIPE on full storage"
printf '%s\n' "$ERR" | grep -Eq '^Cannot write sectors [0-9]+ to [0-9]+ of fixed disk 1$' ||
  fail "/DISKWIPE on full storage: no report naming the disk: $ERR"
expect_text "Cannot wipe fixed disk 1 -- " "/DISKWIPE on full storage"

# ---- A flush that fails is a failed write: /GPT /WIPE over a loop device whose backing file
# cannot grow stops before the protective MBR, so the old table stays.
rm -f "$img"
img=$WORK/small/grow.img
truncate -s 32M "$img"
one_partition "$img" 8192
head -c 8M /dev/zero >"$WORK/small/filler" 2>/dev/null
attach "$img"
mbr=$(extract "$img" 0 1 | sha256sum)
kd "$dev" 1 /GPT /WIPE /Y
expect_rc 1 "/GPT /WIPE with a failing flush"
expect_text "Cannot reinitialise fixed disk 1 as a GPT disk -- Cannot flush $dev" "/GPT /WIPE with a failing flush"
[ "$(extract "$img" 0 1 | sha256sum)" = "$mbr" ] || fail "failing flush: the MBR was replaced"
[ "$(part "$img" 1)" = "2048 8192 6" ] || fail "failing flush: old table lost: $(parts "$img")"
detach

# ---- A filesystem mounted on the whole disk: refused, nothing written; /DISK:ALL goes on
# with the other disk and ends with 1.
command -v mkfs.ext2 >/dev/null || skip "mkfs.ext2 not installed (busy disk checks)"
img=$WORK/busy.img
truncate -s 16M "$img"
attach "$img"
mkfs.ext2 -q "$dev" >/dev/null 2>&1
mkdir -p "$WORK/mnt"
if mount -o ro "$dev" "$WORK/mnt" 2>/dev/null; then
  MNTS+=("$WORK/mnt")
  other=$WORK/other.img
  truncate -s 4M "$other"
  fill "$other" 0 8192 119
  before=$(sha "$img")
  for args in "1 /DISKWIPE /Y" "1 /GPT /WIPE /Y"; do
    # shellcheck disable=SC2086
    kd "$dev" $args
    expect_rc 1 "busy: $args"
    expect_text "is in use" "busy: $args"
    [ "$(sha "$img")" = "$before" ] || fail "busy: $args changed the disk"
  done
  kd "$dev" "$other" -- /DISKWIPE /DISK:ALL /Y
  expect_rc 1 "/DISK:ALL with a busy disk"
  [ "$(sha "$img")" = "$before" ] || fail "/DISK:ALL wrote to the busy disk"
  only_byte "$other" 0 8192 0 || fail "/DISK:ALL did not wipe the free disk"
else
  echo "note: cannot mount ext2 here; busy disk refusals not checked"
fi
finish
