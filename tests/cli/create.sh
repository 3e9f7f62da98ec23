#!/usr/bin/env bash
# /CRE on disk images: switch errors with their exact messages and exit codes (the image left
# byte for byte as it was), every kind of partition, sizes, placement, alignment and formats,
# each result checked with sfdisk and the FAT checker.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning

img=$WORK/disk.img
truncate -s 32M "$img"

# ---- Refusals: message, exit code, image unchanged.
refuse() {  # refuse CODE "MESSAGE" ARGS...
  local code=$1 msg=$2 before; shift 2
  before=$(sha "$img")
  kd "$img" "$@"
  expect_rc "$code" "$*"
  if [ -n "$msg" ]; then expect_line "$msg" "$*"; else [ -z "$ERR$OUT" ] || fail "$*: expected silence, got: $ERR $OUT"; fi
  [ "$(sha "$img")" = "$before" ] || fail "$*: image changed"
}
refuse 2 "Required switch missing. Specify one of /PRI, /EXT, or /LOG" 1 /CRE
refuse 2 "Conflicting switches. Specify one of /PRI, /EXT, or /LOG" 1 /CRE /PRI /LOG
refuse 2 "Conflicting switches. /Q may only be used in conjunction with /FOR" 1 /CRE /PRI /Q
refuse 2 "Conflicting switches. /NTFS may only be used in conjunction with /FOR" 1 /CRE /PRI /NTFS
refuse 2 "Invalid NTFS format type specified." 1 /CRE /PRI /FOR /NTFS:WIN7
refuse 2 "Invalid NTFS alignment type specified." 1 /CRE /PRI /ALIGN:2MB
refuse 2 "Conflicting switches. /EXT2 may only be used in conjunction with /FOR" 1 /CRE /PRI /EXT2
refuse 2 "Conflicting switches. /V may only be used in conjunction with /FOR" 1 /CRE /PRI /V:DATA
refuse 2 "" 1 /CRE /EXT /LETTER:E
refuse 2 "" 1 /CRE /PRI /LETTER:EF
refuse 2 "" 1 /CRE /PRI /LETTER:5
refuse 2 "Invalid partition size -- 101%" 1 /CRE /PRI /SZ:101%
refuse 2 "Invalid partition size -- 0" 1 /CRE /PRI /SZ:0
refuse 2 "Invalid partition size -- 50MB" 1 /CRE /PRI /SZ:50MB
refuse 2 "Invalid partition size -- 50X" 1 /CRE /PRI /SZ:50X
refuse 2 "Switch requires a value -- /SZ" 1 /CRE /PRI /SZ
refuse 2 "Unknown switch -- /BOGUS" 1 /CRE /PRI /BOGUS
refuse 2 "Can not create a drive larger that 2048 MB when FAT32 support is disabled" 1 /CRE /PRI /SZ:3000 /-32
refuse 2 "Can not create a drive larger that 4095 MB when NT support is enabled" 1 /CRE /LOG /SZ:4096 /NTFAT16
before=$(sha "$img")
kd "$img" 1 /CRE /PRI /SZ:3000 /-32 /NTFAT16
expect_rc 1 "3000 MB with /-32 /NTFAT16 passes the FAT limits"
expect_text "Maximum space available for primary DOS partition is" "3000 MB on 32 MB"
[ "$(sha "$img")" = "$before" ] || fail "3000 MB: image changed"
refuse 1 "No extended DOS partition exists" 1 /CRE /LOG
refuse 2 "Invalid fixed disk number -- 0" 0 /CRE /PRI
refuse 1 "No such fixed disk -- 2" 2 /CRE /PRI
refuse 2 "Partition size to small -- 1P" 1 /CRE /PRI /SZ:1P

# ---- A 128 MB disk (16 cylinders) filled step by step, cylinder alignment (the default).
truncate -s 128M "$img"

# ---- A disk filled step by step (cylinder alignment, the default).
kd "$img" 1 /CRE /PRI /SZ:20 /-CE /LETTER:E
expect_rc 0 "first primary"
expect_line "/-CE switch ignored, switch is redundant" "first primary"
expect_text "Drive letters are not used" "first primary"
have_status && { expect_text "*CREATED*" "first primary"; }
read -r s1 n1 t1 <<<"$(part "$img" 1)"
[ "${t1:-}" = 6 ] || [ "${t1:-}" = 4 ] || fail "first primary type ${t1:-none}"
[ $((s1 % 63)) -eq 0 ] || fail "first primary start $s1 not on a track"
[ "$n1" -ge $((20 * 2048 - 16065)) ] && [ "$n1" -le $((20 * 2048 + 16065)) ] || fail "first primary size $n1"

# A second primary asks first; No (or end of input) changes nothing.
before=$(sha "$img")
kd_answer "n" "$img" 1 /CRE /PRI /SZ:10
expect_rc 1 "second primary, no"
expect_text "A primary DOS partition already exists. Create another?" "second primary, no"
[ "$(sha "$img")" = "$before" ] || fail "declined primary changed the image"
kd "$img" 1 /CRE /PRI /SZ:10
expect_rc 1 "second primary, end of input"
[ "$(sha "$img")" = "$before" ] || fail "primary at end of input changed the image"
kd_answer "y" "$img" 1 /CRE /PRI /SZ:10 /END
expect_rc 0 "second primary at end"
read -r s2 n2 t2 <<<"$(part "$img" 2)"
[ $((s2 + n2)) -gt $((262144 - 16065)) ] || fail "/END primary ends at $((s2 + n2)), not near the disk's end"

kd "$img" 1 /CRE /EXT /FOR /SZ:60
expect_rc 0 "extended"
expect_line "/FOR switch ignored for extended DOS partitions" "extended"
read -r s3 n3 t3 <<<"$(part "$img" 3)"
[ "${t3:-}" = 5 ] || [ "${t3:-}" = f ] || fail "extended type ${t3:-none}"
kd "$img" 1 /CRE /EXT
expect_rc 1 "second extended"; expect_line "Extended DOS partition already exists" "second extended"
kd "$img" 1 /CRE /LOG /SZ:16
expect_rc 0 "logical 1"
kd "$img" 1 /CRE /LOG /SZ:16 /END
expect_rc 0 "logical 2 at end"
read -r s5 n5 t5 <<<"$(part "$img" 5)"; read -r s6 n6 t6 <<<"$(part "$img" 6)"
[ -n "${s5:-}" ] && [ -n "${s6:-}" ] || fail "logical drives missing: $(parts "$img")"
[ "${s5:-0}" -ge "$s3" ] && [ $((${s6:-0} + ${n6:-0})) -le $((s3 + n3)) ] || fail "logical drives outside the extended partition"
[ $((${s6:-0} + ${n6:-0})) -gt $((s3 + n3 - 16065)) ] || fail "/END logical not at the end of the extended partition"
before=$(sha "$img")
kd "$img" 1 /CRE /LOG /SZ:55
expect_rc 1 "logical too big"
expect_text "Maximum space available for logical DOS drive is" "logical too big"
[ "$(sha "$img")" = "$before" ] || fail "logical too big changed the image"
kd "$img" 1 /CRE /LOG
expect_rc 0 "logical filling the rest"
kd "$img" 1 /CRE /LOG
expect_rc 1 "logical with no room"
expect_line "All available space in the extended DOS partition is currently assigned to logical DOS drives" "logical with no room"
kd "$img" 1 /CRE /PRI /Y
expect_rc 0 "primary in the remaining space"
[ "$(count_parts "$img")" -ge 7 ] || fail "expected 4 primaries and 3 logical drives: $(parts "$img")"
before=$(sha "$img")
kd "$img" 1 /CRE /PRI /Y /SZ:1
expect_rc 1 "fifth primary"; expect_line "Maximum number of partitions already defined -- 4" "fifth primary"
kd "$img" 1 /CRE /EXT
expect_rc 1 "extended on a full table"
[ "$(sha "$img")" = "$before" ] || fail "refusals on the full table changed the image"

# ---- Sizes in percent, 1 MB alignment, no room left.
img2=$WORK/disk2.img
truncate -s 64M "$img2"
kd "$img2" 1 /CRE /PRI /SZ:50P /ALIGN:1MB
expect_rc 0 "50P"
read -r s n t <<<"$(part "$img2" 1)"
[ $((s % 2048)) -eq 0 ] || fail "1MB alignment: start $s"
[ "$n" -le $((32 * 2048)) ] && [ "$n" -ge $((31 * 2048)) ] || fail "50P of 64 MB gave $n sectors"
kd "$img2" 1 /CRE /PRI /Y /ALIGN:1MB
expect_rc 0 "rest of the disk"
before=$(sha "$img2")
kd "$img2" 1 /CRE /PRI /Y
expect_rc 1 "full disk"
expect_line "All available disk space is currently assigned to other partitions" "full disk"
[ "$(sha "$img2")" = "$before" ] || fail "full disk: image changed"
img3=$WORK/disk3.img
truncate -s 64M "$img3"
kd "$img3" 1 /CRE /PRI /SZ:100P
expect_rc 0 "100P"
read -r s n t <<<"$(part "$img3" 1)"
[ $((s + n)) -gt $((131072 - 16065)) ] || fail "100P left more than a cylinder unused: $s+$n"
before=$(sha "$img3"); kd "$img3" 1 /CRE /PRI /Y /SZ:100P
expect_rc 1 "100P again"; expect_line "All available disk space is currently assigned to other partitions" "100P again"
[ "$(sha "$img3")" = "$before" ] || fail "100P again: image changed"

# ---- GPT: primaries through the GPT driver; extended and logical refused by it.
gpt=$WORK/gpt.img
truncate -s 32M "$gpt"
echo 'label: gpt' | sfdisk -q "$gpt" >/dev/null
kd "$gpt" 1 /CRE /PRI /SZ:10
expect_rc 0 "GPT primary"
[ "$(part "$gpt" 1 | cut -d' ' -f2-)" = "20480 EBD0A0A2-B9E5-4433-87C0-68B6B72699C7" ] || fail "GPT primary: $(parts "$gpt")"
before=$(sha "$gpt")
kd "$gpt" 1 /CRE /EXT
expect_rc 1 "GPT extended"; expect_text "Extended DOS partition could not be created -- " "GPT extended"
kd "$gpt" 1 /CRE /LOG
expect_rc 1 "GPT logical"; expect_text "Logical DOS drive could not be created -- " "GPT logical"
[ "$(sha "$gpt")" = "$before" ] || fail "GPT refusals changed the image"

# ---- Formats. FAT12, FAT16 and FAT32 by size, checked by the FAT checker.
fat_ok() {  # fat_ok IMAGE N LABEL
  local s n t; read -r s n t <<<"$(part "$1" "$2")"
  extract "$1" "$s" "$n" >"$WORK/vol"
  fsck.fat -n "$WORK/vol" >"$WORK/fsck" 2>&1 || fail "fsck.fat on partition $2: $(cat "$WORK/fsck")"
  [ -z "$3" ] || [ "$(fatlabel "$WORK/vol" 2>/dev/null | tr -d ' ')" = "$3" ] || fail "label of partition $2"
  rm -f "$WORK/vol"
}
fatimg=$WORK/fat.img
truncate -s 700M "$fatimg"
kd "$fatimg" 1 /CRE /PRI /SZ:10 /FOR /Q
if printf '%s' "$ERR" | grep -q "FAT formatter is not available"; then
  echo "note: FAT formatter not in this build; format checks skipped"
  expect_rc 1 "format without formatter"
  expect_line "Cannot format primary DOS partition -- The FAT formatter is not available in this build" "no formatter"
else
  expect_rc 0 "FAT12"; [ "$(part "$fatimg" 1 | cut -d' ' -f3)" = 1 ] || fail "FAT12 type"; fat_ok "$fatimg" 1 ""
  kd "$fatimg" 1 /CRE /PRI /Y /SZ:100 /FOR /V:DATA
  expect_rc 0 "FAT16"; fat_ok "$fatimg" 2 DATA
  kd "$fatimg" 1 /CRE /PRI /Y /SZ:520 /FOR /Q
  expect_rc 0 "FAT32"; [ "$(part "$fatimg" 3 | cut -d' ' -f3)" = b ] || fail "FAT32 type"; fat_ok "$fatimg" 3 ""
  refuse_img=$img; img=$WORK/label.img; truncate -s 16M "$img"
  refuse 2 "Invalid volume label -- maximum of 11 characters" 1 /CRE /PRI /Y /FOR /V:ABCDEFGHIJKL
  refuse 2 "Invalid volume label -- may not contain lower-case letters" 1 /CRE /PRI /Y /FOR /V:data
  img=$refuse_img
fi
ntimg=$WORK/nt.img
truncate -s 64M "$ntimg"
kd "$ntimg" 1 /CRE /PRI /SZ:20 /FOR /NTFS:XP
expect_rc 1 "NTFS"
expect_text "Cannot format primary DOS partition -- " "NTFS"
[ "$(part "$ntimg" 1 | cut -d' ' -f3)" = 7 ] || fail "NTFS partition type: $(parts "$ntimg")"
kd "$ntimg" 1 /CRE /PRI /Y /SZ:20 /FOR /EXT2
expect_rc 1 "ext2"
[ "$(part "$ntimg" 2 | cut -d' ' -f3)" = 83 ] || fail "ext2 partition type: $(parts "$ntimg")"

finish
