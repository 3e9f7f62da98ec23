#!/usr/bin/env bash
# 4096-byte logical sectors end to end: the same commands on an image given /SECTORSIZE=4096 and
# on a loop device made with losetup -b 4096. sfdisk reads the tables through a 4 KiB loop
# device ("sector-size: 4096"); fsck.fat, mtools, e2fsck and the kernel (an ext2 mount) read
# the volumes. NTFS stays on 512-byte sectors and is refused here.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
[ "$(id -u)" -eq 0 ] || skip "needs root for loop devices and mounting"
need_tools losetup sfdisk jq fsck.fat mlabel e2fsck dumpe2fs mount umount
SS=4096
LOOPS=()
mnt=$WORK/mnt
mkdir -p "$mnt"
cleanup() {
  local d
  mountpoint -q "$mnt" && umount "$mnt"
  for d in "${LOOPS[@]}"; do losetup -d "$d"; done
  rm -rf "$WORK"
}
trap cleanup EXIT
# loop IMAGE [OPTIONS...]: a new 4 KiB loop device over the image, its name in LOOP.
loop() {
  local img=$1; shift
  LOOP=$(losetup -f --show -b $SS "$@" "$img" 2>/dev/null) || skip "no loop device with 4096-byte sectors"
  LOOPS+=("$LOOP")
}
unloop() {
  local d keep=()
  losetup -d "$1"
  for d in "${LOOPS[@]}"; do [ "$d" = "$1" ] || keep+=("$d"); done
  LOOPS=("${keep[@]}")
}
# table DISK: sfdisk's dump of the target (an image is read through a read-only 4 KiB loop).
table() {
  if [ -b "$1" ]; then
    sfdisk --dump "$1" 2>/dev/null
  else
    loop "$1" -r
    sfdisk --dump "$LOOP" 2>/dev/null
    unloop "$LOOP"
  fi
}
# slot DISK N: "start size type" of partition N in 4096-byte sectors, as sfdisk reads it.
slot() {
  table "$1" | awk -F'[:,]' -v n="$2" '$1 ~ "[^0-9]" n " *$" {
    s = ""; z = ""; t = ""
    for (i = 2; i <= NF; i++) { f = $i; gsub(/ /, "", f)
      if (f ~ /^start=/) s = substr(f, 7); else if (f ~ /^size=/) z = substr(f, 6); else if (f ~ /^type=/) t = substr(f, 6) }
    print s, z, t }'
}
# volume DISK N FILE: partition N's bytes copied to FILE.
volume() {
  local s z
  read -r s z _ <<<"$(slot "$1" "$2")"
  [ -n "$s" ] || { fail "no partition $2 on $1"; : >"$3"; return; }
  dd if="$1" of="$3" bs=1M skip=$((s * SS)) count=$((z * SS)) iflag=skip_bytes,count_bytes status=none
}
# k DISK ARGS...: kdisk on the target with 4096-byte image sectors.
k() { local d=$1; shift; kd "$d" /SECTORSIZE=$SS "$@"; }

run_all() {
  local d=$1 what=$2 s z t
  k "$d" 1 /CRE /PRI /SZ:40 /FOR /Q /V:FAT4K; expect_rc 0 "$what: FAT primary"
  table "$d" | grep -qx "sector-size: $SS" || fail "$what: sfdisk does not read $SS-byte sectors: $(table "$d")"
  read -r s z t <<<"$(slot "$d" 1)"
  [ $((s % 256)) = 0 ] && [ "$z" = $((40 * 256)) ] || fail "$what: FAT primary at $s+$z (1 MiB = 256 sectors)"
  volume "$d" 1 "$WORK/fat"
  fsck.fat -n "$WORK/fat" >"$WORK/fsck" 2>&1 || fail "$what: fsck.fat: $(cat "$WORK/fsck")"
  [ "$(od -An -tu2 -j11 -N2 "$WORK/fat" | tr -d ' ')" = $SS ] || fail "$what: the BPB does not say $SS bytes per sector"
  MTOOLS_SKIP_CHECK=1 mlabel -s -i "$WORK/fat" :: 2>/dev/null | grep -q FAT4K || fail "$what: mtools does not read the label"

  k "$d" 1 /CRE /EXT /SZ:150; expect_rc 0 "$what: extended"
  k "$d" 1 /CRE /LOG /SZ:40 /FOR /EXT2 /V:EXT4K; expect_rc 0 "$what: ext2 logical"
  volume "$d" 5 "$WORK/ext2"
  e2fsck -fn "$WORK/ext2" >"$WORK/fsck" 2>&1 || fail "$what: e2fsck: $(cat "$WORK/fsck")"
  bs=$(dumpe2fs -h "$WORK/ext2" 2>/dev/null | awk -F: '/^Block size/ {gsub(/ /, "", $2); print $2}')
  [ "${bs:-0}" -ge $SS ] || fail "$what: ext2 block size $bs below the sector size"
  # NTFS is written on 512-byte sectors only: the drive is made, the format refused.
  k "$d" 1 /CRE /LOG /SZ:40 /FOR /NTFS /V:NTFS4K; expect_rc 1 "$what: NTFS logical"
  expect_line "Cannot format primary DOS partition -- NTFS volumes are written on disks with 512-byte sectors only" "$what: NTFS"
  [ -n "$(slot "$d" 6)" ] || fail "$what: the drive for NTFS was not made"

  k "$d" 1 /ACT /P:1; expect_rc 0 "$what: /ACT"
  table "$d" | grep -q "p1 : .*bootable" || fail "$what: partition 1 not active"
  k "$d" 1 /HIDE /P:1; expect_rc 0 "$what: /HIDE"
  [ "$(slot "$d" 1 | cut -d' ' -f3)" = 16 ] || fail "$what: hidden type $(slot "$d" 1)"
  k "$d" 1 /-HIDE /P:1; expect_rc 0 "$what: /-HIDE"
  k "$d" 1 /VIEW:0; expect_rc 0 "$what: /VIEW"
  [ "$(grep -c '^[0-9a-f]\{8\}  ' <<<"$OUT")" = $((SS / 16)) ] || fail "$what: /VIEW:0 does not dump $SS bytes"
  grep -q '^000001f0  .* 55 aa ' <<<"$OUT" || fail "$what: /VIEW:0 lacks the boot record signature"
  k "$d" 1 /MBR /Y; expect_rc 0 "$what: /MBR"
  k "$d" 1 /DEL /P:4 /QWIPE /Y; expect_rc 0 "$what: /DEL /QWIPE"
  [ -z "$(slot "$d" 6)" ] || fail "$what: the NTFS drive is still there"
  table "$d" >/dev/null && sfdisk_ok "$d" "$what: after /DEL"

  k "$d" 1 /GPT /WIPE /Y; expect_rc 0 "$what: /GPT /WIPE"
  table "$d" | grep -qx "label: gpt" || fail "$what: no GPT after /GPT /WIPE"
  table "$d" | grep -qx "first-lba: 6" || fail "$what: first usable sector is not 6: $(table "$d")"
  k "$d" 1 /CRE /PRI /SZ:100 /TYPE:EFI /FOR /Q; expect_rc 0 "$what: EFI system partition"
  volume "$d" 1 "$WORK/esp"
  fsck.fat -n "$WORK/esp" >"$WORK/fsck" 2>&1 || fail "$what: ESP fsck.fat: $(cat "$WORK/fsck")"
  k "$d" 1 /CRE /PRI /FOR /EXT2; expect_rc 0 "$what: GPT ext2"
  sfdisk_ok "$d" "$what: GPT"
}
# sfdisk_ok DISK CONTEXT: sfdisk finds the table sound.
sfdisk_ok() {
  local dev=$1
  [ -b "$dev" ] || { loop "$1" -r; dev=$LOOP; }
  sfdisk --verify "$dev" >"$WORK/verify" 2>&1 || fail "$2: sfdisk --verify: $(cat "$WORK/verify")"
  [ "$dev" = "$1" ] || unloop "$dev"
}

img=$WORK/4k.img
truncate -s 256M "$img"
run_all "$img" "image"

# The loop device: the kernel learns the new layout and mounts the ext2 volume.
dimg=$WORK/dev.img
truncate -s 256M "$dimg"
loop "$dimg" -P
dev=$LOOP
run_all "$dev" "loop device"
if grep -qwE 'ext2|ext4' /proc/filesystems || modprobe ext2 2>/dev/null; then
  part=${dev}p2
  if [ -b "$part" ]; then
    mount -t ext2 "$part" "$mnt" 2>"$WORK/mount" || fail "the kernel does not mount the ext2 volume: $(cat "$WORK/mount")"
    echo hello >"$mnt/f" 2>/dev/null && umount "$mnt" || fail "cannot write to the mounted ext2 volume"
    e2fsck -fn "$part" >"$WORK/fsck" 2>&1 || fail "e2fsck after the mount: $(cat "$WORK/fsck")"
  else
    fail "the kernel shows no $part"
  fi
fi
finish
