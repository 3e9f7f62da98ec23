#!/usr/bin/env bash
# Volume labels through /CRE /FOR: each refused label gives its exact message alone, exit code
# 2 and leaves the image byte for byte as it was; accepted labels reach the boot sector and the
# root directory of the new partition, where mtools and fsck.fat read them (at the partition's
# offset, with the partition's first sector as hidden sectors).
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
for t in mdir mcopy fsck.fat; do command -v "$t" >/dev/null || skip "needs $t (mtools, dosfstools)"; done

img=$WORK/disk.img
truncate -s 64M "$img"
refuse() {  # refuse "MESSAGE" LABEL [SWITCHES...]
  local msg=$1 label=$2 before; shift 2
  before=$(sha "$img")
  kd "$img" 1 /CRE /PRI /SZ:20 /FOR "/V:$label" "$@"
  expect_rc 2 "label '$label'"
  [ "$ERR" = "$msg" ] || fail "label '$label': stderr '$ERR', expected '$msg'"
  [ -z "$OUT" ] || fail "label '$label': unexpected output '$OUT'"
  [ "$(sha "$img")" = "$before" ] || fail "label '$label': image changed"
}
chars='Invalid volume label -- may not contain any of the following characters: * ? / \ | . , ; : + = [ ] ( ) & ^ < > "'
lower='Invalid volume label -- may not contain lower-case letters'
refuse 'Invalid volume label -- maximum of 11 characters' ABCDEFGHIJKL
refuse 'Invalid volume label -- maximum of 11 characters' abcdefghijkl /Q
refuse 'Invalid volume label -- may not start with whitespace' ' DATA'
refuse 'Invalid volume label -- may not start with whitespace' $'\tDATA'
refuse "$lower" data
refuse "$lower" DATa /Q
refuse "$lower" 'a*'
refuse "$chars" 'A*B'
refuse "$chars" 'A"B'
refuse "$chars" 'A.B' /Q
refuse "$chars" '[X]'
refuse "$chars" '*a'  # the leftmost offending character decides
refuse 'Invalid volume label -- may not contain unprintable characters' $'A\001B'
refuse 'Invalid volume label -- may not contain unprintable characters' $'A\351'

# fat_check N LABEL: partition N passes fsck.fat, carries LABEL (mtools; "" for none) and the
# partition's start as hidden sectors, and mtools writes a file there and reads it back.
fat_check() {
  local s n t vol hidden; read -r s n t <<<"$(part "$img" "$1")"
  [ -n "$s" ] || { fail "no partition $1: $(parts "$img")"; return; }
  extract "$img" "$s" "$n" >"$WORK/vol"
  fsck.fat -n "$WORK/vol" >"$WORK/fsck" 2>&1 || fail "fsck.fat on partition $1: $(cat "$WORK/fsck")"
  hidden=$(dd if="$img" bs=1 skip=$((s * 512 + 28)) count=4 status=none | od -An -tu4 | tr -d ' ')
  [ "$hidden" = "$s" ] || fail "partition $1: hidden sectors $hidden, expected $s"
  vol="$img@@$((s * 512))"
  MTOOLS_SKIP_CHECK=1 mdir -i "$vol" ::/ >"$WORK/mdir" 2>&1 || fail "mdir on partition $1: $(cat "$WORK/mdir")"
  if [ -n "$2" ]; then
    sed 's/ *$//' "$WORK/mdir" | grep -qFx " Volume in drive : is $2" || fail "partition $1: label not '$2': $(cat "$WORK/mdir")"
  else
    grep -qF "has no label" "$WORK/mdir" || fail "partition $1: expected no label: $(cat "$WORK/mdir")"
  fi
  head -c 50000 /dev/urandom >"$WORK/in.bin"
  MTOOLS_SKIP_CHECK=1 mcopy -i "$vol" "$WORK/in.bin" ::/IN.BIN &&
    MTOOLS_SKIP_CHECK=1 mcopy -i "$vol" ::/IN.BIN "$WORK/back.bin" &&
    cmp -s "$WORK/in.bin" "$WORK/back.bin" || fail "partition $1: mtools round trip"
  rm -f "$WORK/vol" "$WORK/back.bin"
}

kd "$img" 1 /CRE /PRI /SZ:20 /FOR /Q "/V:MY DISK 1"
expect_rc 0 "primary with label"
expect_line "Volume label is MY DISK 1" "primary with label"
fat_check 1 "MY DISK 1"
kd "$img" 1 /CRE /EXT
expect_rc 0 "extended"
kd "$img" 1 /CRE /LOG /SZ:10 /FOR '/V:A-B_C!#$%~'
expect_rc 0 "logical with label"
fat_check 5 'A-B_C!#$%~'
kd "$img" 1 /CRE /LOG /SZ:10 /FOR /Q /V
expect_rc 0 "logical, /V without a value"
expect_line "Volume has no label" "logical, /V without a value"
fat_check 6 ""
# Labels for NTFS are not held to the FAT rules.
kd "$img" 1 /CRE /PRI /Y /SZ:5 /FOR /NTFS /V:data
case "$ERR" in *"Invalid volume label"*) fail "NTFS label checked by the FAT rules: $ERR" ;; esac
finish
