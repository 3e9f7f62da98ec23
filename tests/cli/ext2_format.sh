#!/usr/bin/env bash
# /CRE /FOR /EXT2 on images from 8 MiB to a 2 TiB sparse GPT disk: e2fsck -fn finds every new
# filesystem clean (up to 20 GiB; on 2 TiB it reads 32 GiB of inode tables), dumpe2fs agrees with the summary's counts and shows the features and
# label, debugfs lists lost+found, blkid -p names it ext2 and /STATUS shows EXT2FS with the
# label. Old contents (all bytes 0xFF) do not survive in the metadata. A label too long for
# ext2 is refused and the image left unchanged.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools e2fsck dumpe2fs debugfs blkid

# field NAME: the value of one "NAME:   value" line of the last dumpe2fs -h output.
field() { sed -n "s/^$1: *//p" "$WORK/dump"; }
# summary TEXT: the number in front of TEXT in the format's summary (kept in $FMT).
summary() { sed -n "s/^ *\([0-9]*\) $1\$/\1/p" <<<"$FMT"; }

# check IMAGE N ROW BLOCKSIZE LABEL FSCK CONTEXT: partition N of IMAGE (row ROW of /STATUS)
# holds a clean ext2 filesystem as the last run's summary describes it. FSCK "-" leaves out
# e2fsck, which reads every inode table (minutes on 2 TiB).
check() {
  local img=$1 n=$2 row=$3 bs=$4 label=$5 fsck=$6 ctx=$7 start at
  start=$(part "$img" "$n" | cut -d' ' -f1)
  [ -n "$start" ] || { fail "$ctx: no partition $n"; return; }
  at="$img?offset=$((start * 512))"
  if [ "$fsck" != - ]; then
    e2fsck -fn "$at" >"$WORK/fsck" 2>&1 || fail "$ctx: e2fsck -fn: $(cat "$WORK/fsck")"
  fi
  dumpe2fs -h "$at" >"$WORK/dump" 2>/dev/null || fail "$ctx: dumpe2fs -h failed"
  [ "$(field 'Block size')" = "$bs" ] || fail "$ctx: block size $(field 'Block size'), expected $bs"
  [ "$(field 'Filesystem revision #')" = "1 (dynamic)" ] || fail "$ctx: revision $(field 'Filesystem revision #')"
  [ "$(field 'Filesystem state')" = clean ] || fail "$ctx: state $(field 'Filesystem state')"
  local feature
  for feature in ext_attr dir_index filetype sparse_super large_file; do
    grep -qw "$feature" <<<"$(field 'Filesystem features')" || fail "$ctx: feature $feature missing"
  done
  grep -qw has_journal <<<"$(field 'Filesystem features')" && fail "$ctx: has a journal"
  [ "$(field 'Block count')" = "$(summary 'total blocks')" ] || fail "$ctx: block count differs from the summary"
  [ "$(field 'Free blocks')" = "$(summary 'free blocks')" ] || fail "$ctx: free blocks differ from the summary"
  [ "$(field 'Reserved block count')" = "$(summary 'blocks reserved for the administrator')" ] ||
    fail "$ctx: reserved blocks differ from the summary"
  [ $(($(field 'Block count') / 20)) = "$(field 'Reserved block count')" ] || fail "$ctx: reserved blocks are not 5 %"
  [ "$(field 'Inode count')" = "$(summary 'inodes of [0-9]* bytes')" ] || fail "$ctx: inode count differs"
  [ "$(field 'Filesystem volume name')" = "${label:-<none>}" ] || fail "$ctx: volume name $(field 'Filesystem volume name')"
  debugfs -R 'ls -l /' "$at" >"$WORK/ls" 2>&1
  grep -q ' lost+found *$' "$WORK/ls" || fail "$ctx: debugfs shows no lost+found: $(cat "$WORK/ls")"
  [ "$(blkid -p -o value -s TYPE -O $((start * 512)) "$img")" = ext2 ] || fail "$ctx: blkid -p does not see ext2"
  kd "$img" /STATUS
  printf '%s\n' "$OUT" | grep -E "^ +$row .*${label:0:12}.*EXT2FS" >/dev/null || fail "$ctx: /STATUS row: $OUT"
  local groups backups
  [ "$fsck" != - ] || return 0  # the group listing of 16384 groups alone takes seconds
  dumpe2fs "$at" >"$WORK/groups" 2>/dev/null
  groups=$(grep -c '^Group ' "$WORK/groups")
  [ "$groups" = "$(summary 'block groups of [0-9]* blocks')" ] || fail "$ctx: $groups groups, summary differs"
  backups=$(sed -n 's/.*Backup superblock at \([0-9]*\).*/\1/p' "$WORK/groups" | paste -sd, | sed 's/,/, /g')
  [ -z "$backups" ] || grep -Fxq "Superblock backups at blocks $backups" <<<"$FMT" ||
    fail "$ctx: backups at $backups, summary: $FMT"
}

# ---- Sizes and kinds: IMAGE SIZE|PREPARE|CREATE ARGS|PARTITION|STATUS ROW|BLOCK SIZE|LABEL|FSCK
while IFS='|' read -r size prepare args n row bs label fsck; do
  img=$WORK/disk.img
  rm -f "$img"
  truncate -s "$size" "$img"
  case "$prepare" in
    ff) head -c "$size" /dev/zero | tr '\0' '\377' >"$img" ;;
    gpt) echo 'label: gpt' | sfdisk -q "$img" >/dev/null ;;
    ext) kd "$img" 1 /CRE /EXT; expect_rc 0 "extended partition on $size" ;;
  esac
  # shellcheck disable=SC2086
  kd "$img" 1 /CRE $args
  expect_rc 0 "$size $args"
  expect_line "Format complete." "$size $args"
  FMT=$OUT
  table_ok "$img" "$size $args"
  [ "$prepare" = gpt ] || [ "$(part "$img" "$n" | cut -d' ' -f3)" = 83 ] || fail "$size: type is not 83: $(parts "$img")"
  [ "$prepare" != gpt ] || [ "$(part "$img" "$n" | cut -d' ' -f3)" = 0FC63DAF-8483-4772-8E79-3D69D8477DE4 ] ||
    fail "$size: GPT type is not Linux data: $(parts "$img")"
  # Sparse images stay sparse: the inode tables are holes, not gigabytes of written zeros.
  [ "$(du -k "$img" | cut -f1)" -lt $((400 * 1024)) ] || fail "$size: image holds $(du -h "$img" | cut -f1)"
  check "$img" "$n" "$row" "$bs" "$label" "$fsck" "$size $args"
done <<'T'
8M|-|/PRI /FOR /EXT2 /V:SMALL|1|1|1024|SMALL|y
24M|ff|/PRI /ALIGN:1MB /FOR /EXT2 /V:sixteen-bytes-ok|1|1|1024|sixteen-bytes-ok|y
100M|ext|/LOG /SZ:90 /FOR /EXT2|5|2|1024||y
1G|-|/PRI /FOR /EXT2 /V:DATA|1|1|4096|DATA|y
20G|-|/PRI /FOR /EXT2 /V:TWENTY|1|1|4096|TWENTY|y
2T|gpt|/PRI /FOR /EXT2 /V:BIG|1|1|4096|BIG|-
T

# ---- Refusals before anything is written: a label over 16 bytes, and a FAT-rule label is not
# applied to ext2 (lower case, dots and 16 bytes pass).
img=$WORK/refuse.img
truncate -s 16M "$img"
refuse "$img" <<'T'
2|Invalid volume label -- maximum of 16 bytes for ext2|1 /CRE /PRI /FOR /EXT2 /V:seventeen-bytes-x
2|Invalid volume label -- maximum of 16 bytes for ext2|1 /CRE /LOG /FOR /EXT2 /V:ABCDEFGHIJKLMNOPQ
T
finish
