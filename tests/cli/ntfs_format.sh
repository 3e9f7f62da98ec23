#!/usr/bin/env bash
# /CRE /FOR /NTFS[:version]: every target gets its NTFS version (ntfsinfo), its metadata files
# (ntfsls) and a clean volume (ntfsfix -n); a label over 32 characters is refused before
# anything is written; the status display shows the label. As root with FUSE: ntfs-3g mounts
# a 4 GiB volume read-write through a loop device, files written survive a remount, and a
# 2 TiB partition of a GPT disk formats and checks clean.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools ntfsinfo ntfsls ntfsfix

# vol_check IMAGE N VERSION LABEL WHAT: right after the format, partition N of IMAGE, copied
# out, is an NTFS volume of that version with that label and the summary's free clusters, whose
# boot sector carries the partition's start as its hidden sectors, and which ntfsfix finds clean.
vol_check() {
  local s n t info
  read -r s n t <<<"$(part "$1" "$2")"
  [ -n "$s" ] || { fail "$5: no partition $2"; return; }
  [ "$t" = 7 ] || fail "$5: partition type $t"
  extract "$1" "$s" "$n" >"$WORK/vol"
  info=$(ntfsinfo -m -f "$WORK/vol" 2>&1) || fail "$5: ntfsinfo: $info"
  grep -qx "	Volume Version: $3" <<<"$info" || fail "$5: not version $3: $info"
  grep -qx "	Volume Name: $4" <<<"$info" || fail "$5: label not '$4': $info"
  # The format's summary counts the free clusters the $Bitmap it wrote leaves.
  local free
  free=$(sed -n 's/^ *\([0-9]*\) available allocation units on disk$/\1/p' <<<"$OUT")
  grep -q "	Free Clusters: $free (" <<<"$info" || fail "$5: summary says $free free clusters: $info"
  [ "$(od -An -tu4 -j28 -N4 "$WORK/vol" | tr -d ' ')" = "$s" ] || fail "$5: hidden sectors differ from $s"
  ntfsls -f "$WORK/vol" >"$WORK/ls" 2>&1 || fail "$5: ntfsls: $(cat "$WORK/ls")"
  ntfsfix -n "$WORK/vol" >"$WORK/fix" 2>&1 || fail "$5: ntfsfix -n: $(cat "$WORK/fix")"
  # $UpCase is the table the standard tool writes too.
  if [ -s "$WORK/upcase.ref" ]; then
    ntfscat -f "$WORK/vol" '$UpCase' >"$WORK/upcase" 2>/dev/null && cmp -s "$WORK/upcase" "$WORK/upcase.ref" ||
      fail "$5: \$UpCase differs from mkntfs's"
  fi
  # $Extend's $Quota holds the default entries the standard tool writes too.
  if [ -s "$WORK/quota.ref" ] && [ "$3" != 1.2 ]; then
    quota_entries "$WORK/vol" | cmp -s - "$WORK/quota.ref" || fail "$5: \$Quota entries differ from mkntfs's"
  fi
  # Every record the $MFT's bitmap marks in use opens as a file (the reserved ones too).
  if command -v ntfscluster >/dev/null; then
    ntfscluster -f --info "$WORK/vol" >"$WORK/clu" 2>&1 || fail "$5: ntfscluster: $(cat "$WORK/clu")"
    ! grep -qi 'error' "$WORK/clu" || fail "$5: ntfscluster: $(grep -i error "$WORK/clu" | head -3)"
  fi
  rm -f "$WORK/vol"
}

# quota_entries VOLUME: the decoded index entries of $Quota (record 24), times left out.
quota_entries() { ntfsinfo -v -i 24 "$1" 2>/dev/null | grep -E 'Key (SID|owner id)|Owner (id|SID)|Quota flags|Version|Threshold|Limit|Bytes used'; }

# The reference upper-case table and quota entries, from a scratch volume made by mkntfs.
if command -v mkntfs >/dev/null && command -v ntfscat >/dev/null; then
  truncate -s 16M "$WORK/ref.vol"
  mkntfs -q -Q -F "$WORK/ref.vol" >/dev/null 2>&1 && ntfscat "$WORK/ref.vol" '$UpCase' >"$WORK/upcase.ref" 2>/dev/null
  quota_entries "$WORK/ref.vol" >"$WORK/quota.ref"
  rm -f "$WORK/ref.vol"
fi

# ---- Every /NTFS value, on its own small disk.
n=0
while IFS='|' read -r switch version label; do
  n=$((n + 1))
  img=$WORK/v$n.img
  truncate -s 24M "$img"
  kd "$img" 1 /CRE /PRI /SZ:16 /FOR $switch "/V:$label"
  expect_rc 0 "$switch"
  expect_line "Format complete." "$switch"
  expect_line "NTFS version $version" "$switch"
  expect_line "Volume label is $label" "$switch"
  vol_check "$img" 1 "$version" "$label" "$switch"
  rm -f "$img"
done <<'T'
/NTFS|3.1|Vista default
/NTFS:VISTA|3.1|Vista
/NTFS:XP|3.1|XP
/NTFS:2000|3.0|W2K
/NTFS:NT4|1.2|NT4
/NTFS:NT351|1.2|NT351
T

# ---- 100 MB: labels, the summary, the status display.
img=$WORK/disk.img
truncate -s 300M "$img"
refuse "$img" <<'T'
2|Invalid volume label -- maximum of 32 characters for NTFS|1 /CRE /PRI /SZ:100 /FOR /NTFS /V:ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456
2|Invalid volume label -- maximum of 32 characters for NTFS|1 /CRE /PRI /SZ:100 /FOR /NTFS:NT4 /V:ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456
T
kd "$img" 1 /CRE /PRI /SZ:100 /FOR /NTFS "/V:Data Volume Thirty-Two Chars 01"
expect_rc 0 "100 MB"
expect_line "Volume label is Data Volume Thirty-Two Chars 01" "100 MB"
expect_text "bytes in each allocation unit" "100 MB"
expect_text "first cluster of the \$MFT" "100 MB"
vol_check "$img" 1 3.1 "Data Volume Thirty-Two Chars 01" "100 MB"
kd "$img" 1 /CRE /PRI /Y /SZ:50 /FOR /NTFS:NT4 /V:Old
expect_rc 0 "NT4 beside it"
kd "$img" 1 /STATUS
grep -qE '^ +1  07  NTFS/HPFS +Data Volume +[0-9.]+MB  NTFS/HPFS +PRIMARY' <<<"$OUT" || fail "status row 1: $OUT"
grep -qE '^ +2  07  NTFS/HPFS +Old +[0-9.]+MB  NTFS/HPFS +PRIMARY' <<<"$OUT" || fail "status row 2: $OUT"
# A damaged $Volume record: still listed, without a label.
read -r s _ <<<"$(part "$img" 1)"
mft=$(dd if="$img" bs=1 skip=$((s * 512 + 48)) count=8 status=none | od -An -tu8 | tr -d ' ')
spc=$(dd if="$img" bs=1 skip=$((s * 512 + 13)) count=1 status=none | od -An -tu1 | tr -d ' ')
printf 'XXXX' | dd of="$img" bs=1 seek=$(((s + mft * spc) * 512 + 3 * 1024)) conv=notrunc status=none
kd "$img" 1 /STATUS
expect_rc 0 "damaged volume"
grep -qE '^ +1  07  NTFS/HPFS +[0-9.]+MB  NTFS/HPFS +PRIMARY' <<<"$OUT" || fail "damaged volume row: $OUT"

# ---- As root with FUSE: read-write mounts through loop devices this test made.
[ "$(id -u)" = 0 ] || { echo "SKIP: ntfs-3g mount and 2 TiB GPT checks need root"; finish; }
command -v ntfs-3g >/dev/null && command -v losetup >/dev/null || { echo "SKIP: needs ntfs-3g and losetup"; finish; }
[ -c /dev/fuse ] || { echo "SKIP: no /dev/fuse for ntfs-3g"; finish; }
LOOP="" MNT=$WORK/mnt
cleanup() {
  mountpoint -q "$MNT" 2>/dev/null && umount "$MNT"
  [ -z "$LOOP" ] || losetup -d "$LOOP"
  rm -rf "$WORK"
}
trap cleanup EXIT
attach() {  # attach IMAGE N: LOOP is partition N of IMAGE
  local s n t
  read -r s n t <<<"$(part "$1" "$2")"
  LOOP=$(losetup -f --show -o $((s * 512)) --sizelimit $((n * 512)) "$1")
}
detach() { losetup -d "$LOOP"; LOOP=""; }

img=$WORK/big.img
truncate -s 4100M "$img"
kd "$img" 1 /CRE /PRI /ALIGN:1MB /FOR /NTFS /V:Big
expect_rc 0 "4 GiB"
attach "$img" 1
info=$(ntfsinfo -m "$LOOP" 2>&1) || fail "4 GiB: ntfsinfo: $info"
grep -qx "	Cluster Size: 4096" <<<"$info" || fail "4 GiB: cluster size: $info"
mkdir -p "$MNT" "$WORK/src/a/b/c" "$WORK/src/empty"
head -c 3000000 /dev/urandom >"$WORK/src/random.bin"
head -c 100 /dev/urandom >"$WORK/src/a/b/c/small"
printf 'hello\n' >"$WORK/src/a/Grüße.txt"
for i in $(seq 1 200); do printf '%s\n' "$i" >"$WORK/src/a/b/file$i"; done
if ntfs-3g "$LOOP" "$MNT"; then
  cp -r "$WORK/src/." "$MNT/" || fail "copy onto the mounted volume"
  umount "$MNT"
  ntfs-3g "$LOOP" "$MNT" || fail "second mount"
  diff -r "$WORK/src" "$MNT" >"$WORK/diff" 2>&1 || fail "files differ after remount: $(head -20 "$WORK/diff")"
  umount "$MNT"
  ntfsfix -n "$LOOP" >"$WORK/fix" 2>&1 || fail "ntfsfix -n after use: $(cat "$WORK/fix")"
else
  fail "ntfs-3g cannot mount the 4 GiB volume"
fi
detach
rm -f "$img"

# 2 TiB partition of a GPT disk: formatted without writing the whole partition.
img=$WORK/huge.img
truncate -s 2T "$img"
printf 'label: gpt\n' | sfdisk -q "$img" >/dev/null 2>&1 || fail "sfdisk: GPT label"
kd "$img" 1 /CRE /PRI /FOR /NTFS:XP /V:Huge
expect_rc 0 "2 TiB GPT"
used=$(du -k "$img" | cut -f1)
[ "$used" -lt 400000 ] || fail "2 TiB GPT: $used KiB written"
attach "$img" 1
info=$(ntfsinfo -m "$LOOP" 2>&1) || fail "2 TiB: ntfsinfo: $info"
grep -qx "	Volume Name: Huge" <<<"$info" || fail "2 TiB: $info"
ntfsfix -n "$LOOP" >"$WORK/fix" 2>&1 || fail "2 TiB: ntfsfix -n: $(cat "$WORK/fix")"
detach
finish
