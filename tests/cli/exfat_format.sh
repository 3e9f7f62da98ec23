#!/usr/bin/env bash
# /CRE /FOR /EXFAT on images from 8 MiB to a 2 TiB sparse GPT disk, around the cluster size
# boundaries: fsck.exfat -n finds every volume clean, blkid -p names it exfat with the label,
# the summary's cluster size is the one expected, the boot sector holds the partition's first
# sector, exfat-fuse mounts it read-write, a tree of files written, unmounted and mounted again
# reads back, and fsck stays clean. Labels an exFAT volume cannot hold and conflicting format
# switches are refused with the image unchanged.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools fsck.exfat blkid losetup mount.exfat-fuse fusermount
[ "$(id -u)" -eq 0 ] || skip "needs root for loop devices"
[ -c /dev/fuse ] || skip "needs /dev/fuse"
export KDISK_TEST_CLOCK=1700000000
loop="" mnt=$WORK/mnt
cleanup() {
  mountpoint -q "$mnt" 2>/dev/null && fusermount -u "$mnt"
  [ -z "$loop" ] || losetup -d "$loop"
  rm -rf "$WORK"
}
trap cleanup EXIT
mkdir -p "$mnt"

# summary TEXT: the number in front of TEXT in the format's summary (kept in $FMT).
summary() { sed -n "s/^ *\([0-9]*\) $1\$/\1/p" <<<"$FMT"; }

# tree DIR: a few directories, a Unicode name, an empty file and 5 MiB of random bytes.
tree() {
  mkdir -p "$1/docs/deep/er" "$1/Grüße" && echo "hello" >"$1/docs/deep/er/note.txt" && : >"$1/Grüße/empty" &&
    head -c 5M /dev/urandom >"$1/docs/random.bin"
}
listing() { (cd "$1" && find . -type f -exec sha256sum {} + | sort -k2); }

# check IMAGE N LABEL CLUSTER CONTEXT: partition N holds a clean exFAT volume as expected.
check() {
  local img=$1 n=$2 label=$3 cluster=$4 ctx=$5 start size fsck
  read -r start size _ <<<"$(part "$img" "$n")"
  [ -n "$start" ] || { fail "$ctx: no partition $n"; return; }
  loop=$(losetup -f --show -o $((start * 512)) --sizelimit $((size * 512)) "$img") || { fail "$ctx: losetup"; return; }
  fsck=$(fsck.exfat -n "$loop" 2>&1) || fail "$ctx: fsck.exfat -n: $fsck"
  [ "$(blkid -p -o value -s TYPE "$loop")" = exfat ] || fail "$ctx: blkid -p: $(blkid -p "$loop")"
  [ "$(blkid -p -o value -s LABEL "$loop")" = "$label" ] || fail "$ctx: label $(blkid -p -o value -s LABEL "$loop")"
  [ "$(blkid -p -o value -s UUID "$loop")" = 1F0E-1DF4 ] || fail "$ctx: serial $(blkid -p -o value -s UUID "$loop")"
  [ "$(summary 'bytes in each allocation unit')" = "$cluster" ] || fail "$ctx: cluster size: $FMT"
  [ "$(od -An -tu8 -j64 -N8 "$loop" | tr -d ' ')" = "$start" ] || fail "$ctx: the boot sector's partition offset"
  if mount.exfat-fuse "$loop" "$mnt" >/dev/null 2>&1; then
    tree "$mnt" || fail "$ctx: writing the tree failed"
    listing "$mnt" >"$WORK/written"
    fusermount -u "$mnt"
    if mount.exfat-fuse -o ro "$loop" "$mnt" >/dev/null 2>&1; then
      listing "$mnt" | cmp -s - "$WORK/written" || fail "$ctx: the tree does not read back"
      fusermount -u "$mnt"
    else
      fail "$ctx: second mount failed"
    fi
    fsck=$(fsck.exfat -n "$loop" 2>&1) || fail "$ctx: fsck.exfat -n after writing: $fsck"
  else
    fail "$ctx: mount.exfat-fuse failed"
  fi
  losetup -d "$loop"
  loop=""
}

# ---- Sizes: DISK SIZE|PREPARE|CREATE ARGS|PARTITION|CLUSTER BYTES|LABEL|MBR TYPE or GPT TYPE
while IFS='|' read -r size prepare args n cluster label type; do
  img=$WORK/disk.img
  rm -f "$img"
  truncate -s "$size" "$img"
  case "$prepare" in
    gpt) echo 'label: gpt' | sfdisk -q "$img" >/dev/null ;;
    ext) kd "$img" 1 /CRE /EXT; expect_rc 0 "extended partition on $size" ;;
  esac
  # shellcheck disable=SC2086
  kd "$img" 1 /CRE $args
  expect_rc 0 "$size $args"
  expect_line "Format complete." "$size $args"
  expect_line "Volume Serial Number is 1F0E-1DF4" "$size $args"  # from the fixed clock
  FMT=$OUT
  table_ok "$img" "$size $args"
  [ "$(part "$img" "$n" | cut -d' ' -f3)" = "$type" ] || fail "$size: partition type: $(parts "$img")"
  # Sparse images stay sparse: a quick format writes megabytes, whatever the size.
  [ "$(du -k "$img" | cut -f1)" -lt $((80 * 1024)) ] || fail "$size: image holds $(du -h "$img" | cut -f1)"
  check "$img" "$n" "$label" "$cluster" "$size $args"
done <<'T'
8M|-|/PRI /FOR /EXFAT /V:SMALL|1|4096|SMALL|7
100M|ext|/LOG /SZ:90 /FOR /Q /EXFAT /V:Grüße-Äöü12|5|4096|Grüße-Äöü12|7
300M|-|/PRI /ALIGN:1MB /FOR /EXFAT /V:Data|1|32768|Data|7
32G|-|/PRI /FOR /EXFAT|1|32768||7
33G|-|/PRI /FOR /EXFAT /V:OVER32|1|131072|OVER32|7
2T|gpt|/PRI /FOR /EXFAT /V:BIG|1|131072|BIG|EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
T

# ---- Refusals before anything is written.
img=$WORK/refuse.img
truncate -s 16M "$img"
refuse "$img" <<'T'
2|Invalid volume label -- maximum of 11 characters for exFAT|1 /CRE /PRI /FOR /EXFAT /V:TWELVE-CHARS
2|Invalid volume label -- maximum of 11 characters for exFAT|1 /CRE /LOG /FOR /EXFAT /V:ÄÖÜäöüßÄÖÜäö
2|~Invalid volume label -- may not contain any of the following characters|1 /CRE /PRI /FOR /EXFAT /V:A<B
2|Conflicting switches. /EXFAT may only be used in conjunction with /FOR|1 /CRE /PRI /EXFAT
2|Conflicting switches. Specify only one of /NTFS, /EXT2, or /EXFAT|1 /CRE /PRI /FOR /NTFS /EXFAT
2|Conflicting switches. Specify only one of /NTFS, /EXT2, or /EXFAT|1 /CRE /PRI /FOR /EXFAT /EXT2
T
finish
