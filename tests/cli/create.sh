#!/usr/bin/env bash
# /CRE on disk images: refusals (exact message, exit code, image byte for byte unchanged), every
# kind of partition on cylinder and 1 MB alignment, at the start and end of free space, sizes in
# MB and percent, full tables, GPT and the formats; sfdisk and fsck.fat read every result.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning

# made IMAGE ARGS...: the creation succeeds and sfdisk finds the table sound.
made() {
  local img=$1; shift
  kd "$img" "$@"
  expect_rc 0 "$*"
  table_ok "$img" "$*"
}

blank=$WORK/blank.img
truncate -s 32M "$blank"
hidden=$WORK/hidden.img
truncate -s 32M "$hidden"
printf 'label: dos\nstart=2048, size=8192, type=15\n' | sfdisk -q "$hidden" >/dev/null
refuse "$hidden" <<<"1|The extended DOS partition is hidden and may not have logical DOS drives created within it|1 /CRE /LOG"
refuse "$blank" <<'T'
2|Required switch missing. Specify one of /PRI, /EXT, or /LOG|1 /CRE
2|Conflicting switches. Specify one of /PRI, /EXT, or /LOG|1 /CRE /PRI /LOG
2|Conflicting switches. /Q may only be used in conjunction with /FOR|1 /CRE /PRI /Q
2|Conflicting switches. /NTFS may only be used in conjunction with /FOR|1 /CRE /PRI /NTFS
2|Invalid NTFS format type specified.|1 /CRE /PRI /FOR /NTFS:WIN7
2|Invalid NTFS alignment type specified.|1 /CRE /PRI /ALIGN:2MB
2|Conflicting switches. /EXT2 may only be used in conjunction with /FOR|1 /CRE /PRI /EXT2
2|Conflicting switches. /V may only be used in conjunction with /FOR|1 /CRE /PRI /V:DATA
2||1 /CRE /EXT /LETTER:E
2||1 /CRE /PRI /LETTER:EF
2||1 /CRE /PRI /LETTER:5
2|Invalid partition size -- 101%|1 /CRE /PRI /SZ:101%
2|Invalid partition size -- 0|1 /CRE /PRI /SZ:0
2|Invalid partition size -- 50MB|1 /CRE /PRI /SZ:50MB
2|Invalid partition size -- 50X|1 /CRE /PRI /SZ:50X
2|Partition size to small -- 1P|1 /CRE /PRI /SZ:1P
2|Switch requires a value -- /SZ|1 /CRE /PRI /SZ
2|Unknown switch -- /BOGUS|1 /CRE /PRI /BOGUS
2|Can not create a drive larger that 2048 MB when FAT32 support is disabled|1 /CRE /PRI /SZ:3000 /-32
2|Can not create a drive larger that 4095 MB when NT support is enabled|1 /CRE /LOG /SZ:4096 /NTFAT16
1|~Maximum space available for primary DOS partition is|1 /CRE /PRI /SZ:3000 /-32 /NTFAT16
1|~Maximum space available for extended DOS partition is|1 /CRE /EXT /SZ:5000 /-32
1|No extended DOS partition exists|1 /CRE /LOG
2|Invalid fixed disk number -- 0|0 /CRE /PRI
2|Invalid partition type -- BOGUS|1 /CRE /PRI /TYPE:BOGUS
2|Invalid partition type -- 1G|1 /CRE /PRI /TYPE:1G
2|Invalid partition type -- 183|1 /CRE /PRI /TYPE:183
2|Invalid partition type -- 0|1 /CRE /PRI /TYPE:0
2|Invalid partition type -- 0F|1 /CRE /PRI /TYPE:0F
2|Invalid partition type -- EE|1 /CRE /PRI /TYPE:EE
2|Invalid partition type -- C12A7328-F81F-11D2-BA4B-00A0C93EC93|1 /CRE /PRI /TYPE:C12A7328-F81F-11D2-BA4B-00A0C93EC93
2|Partition type MSR cannot be used on an MBR disk|1 /CRE /PRI /TYPE:MSR
2|Partition type biosboot cannot be used on an MBR disk|1 /CRE /PRI /TYPE:biosboot
2|Partition type C12A7328-F81F-11D2-BA4B-00A0C93EC93B cannot be used on an MBR disk|1 /CRE /PRI /TYPE:C12A7328-F81F-11D2-BA4B-00A0C93EC93B
2|Conflicting switches. /TYPE may not be used with /EXT|1 /CRE /EXT /TYPE:82
1|No such fixed disk -- 2|2 /CRE /PRI
T

# ---- Cylinder alignment (the default) on 128 MB (16 cylinders of 16065 sectors), filled up.
img=$WORK/chs.img
truncate -s 128M "$img"
made "$img" 1 /CRE /PRI /SZ:20 /-CE /LETTER:E
expect_line "/-CE switch ignored, switch is redundant" "first primary"
expect_text "Drive letters are not used" "first primary"
expect_text "*CREATED*" "first primary"
# A second primary asks first; No or the end of input changes nothing.
for answer in n ""; do
  before=$(sha "$img")
  kd_answer "$answer" "$img" 1 /CRE /PRI /SZ:10
  expect_rc 1 "second primary, answer '$answer'"
  expect_text "A primary DOS partition already exists. Create another?" "second primary"
  [ "$(sha "$img")" = "$before" ] || fail "declined primary (answer '$answer') changed the image"
done
kd_answer "y" "$img" 1 /CRE /PRI /SZ:10 /END
expect_rc 0 "second primary at end"
made "$img" 1 /CRE /EXT /FOR /SZ:60
expect_line "/FOR switch ignored for extended DOS partitions" "extended"
made "$img" 1 /CRE /LOG /SZ:16
made "$img" 1 /CRE /LOG /SZ:16 /END
refuse "$img" <<<"1|~Maximum space available for logical DOS drive is|1 /CRE /LOG /SZ:55"
made "$img" 1 /CRE /LOG
made "$img" 1 /CRE /PRI /Y
# Whole cylinders, sizes rounded up; the first primary and every logical drive one track in;
# /END up to the last whole cylinder; logical drives in disk order; types by size.
want="1 63 48132 4
2 224910 32130 1
3 48195 128520 5
4 176715 48195 4
5 48258 48132 4
6 96453 32067 1
7 128583 48132 4"
[ "$(parts "$img")" = "$want" ] || fail "cylinder layout: $(parts "$img")"
refuse "$img" <<'T'
1|All available space in the extended DOS partition is currently assigned to logical DOS drives|1 /CRE /LOG
1|Maximum number of partitions already defined -- 4|1 /CRE /PRI /Y /SZ:1
1|Extended DOS partition already exists|1 /CRE /EXT
T

# ---- 1 MB alignment and sizes in percent on 64 MB: every start and size a whole MB, the
# logical drives' boot records one MB ahead of their data.
img=$WORK/mb.img
truncate -s 64M "$img"
made "$img" 1 /CRE /PRI /SZ:50P /ALIGN:1MB
made "$img" 1 /CRE /EXT /ALIGN:1MB
made "$img" 1 /CRE /LOG /SZ:8 /ALIGN:1MB
made "$img" 1 /CRE /LOG /SZ:4 /END /ALIGN:1MB
want="1 2048 65536 6
2 67584 63488 5
5 69632 16384 1
6 122880 8192 1"
[ "$(parts "$img")" = "$want" ] || fail "1 MB layout: $(parts "$img")"
refuse "$img" <<<"1|All available disk space is currently assigned to other partitions|1 /CRE /PRI /Y"
# Logical drives aligned to 1 MB in an extended partition placed on cylinders: the first
# drive's boot record stays at the extended partition's start, its data starts on a MB as the
# next one's does.
img=$WORK/mixed.img
truncate -s 200M "$img"
made "$img" 1 /CRE /PRI /SZ:100
made "$img" 1 /CRE /EXT
made "$img" 1 /CRE /LOG /SZ:20 /ALIGN:1MB
made "$img" 1 /CRE /LOG /SZ:20 /ALIGN:1MB
want="1 63 208782 6
2 208845 192780 5
5 208896 40960 4
6 251904 40960 4"
[ "$(parts "$img")" = "$want" ] || fail "1 MB logical drives in a cylinder-aligned extended partition: $(parts "$img")"
table_ok "$img" "mixed alignment"
# A disk smaller than one cylinder holds no cylinder-aligned partition, and says so.
img=$WORK/tiny.img
truncate -s 4M "$img"
refuse "$img" <<<"1|The disk (4.0MB) is smaller than one cylinder (7.8MB) -- use /ALIGN:1MB|1 /CRE /PRI"
made "$img" 1 /CRE /PRI /ALIGN:1MB
[ "$(parts "$img")" = "1 2048 6144 1" ] || fail "4 MB disk with /ALIGN:1MB: $(parts "$img")"
img=$WORK/full.img
truncate -s 64M "$img"
made "$img" 1 /CRE /PRI /SZ:100P
read -r s n t <<<"$(part "$img" 1)"
[ $((s + n)) -gt $((131072 - 16065)) ] || fail "100P left more than a cylinder unused: $s+$n"
refuse "$img" <<<"1|All available disk space is currently assigned to other partitions|1 /CRE /PRI /Y /SZ:100P"

# ---- GPT: primaries at start and end through the GPT driver; extended and logical refused.
gpt=$WORK/gpt.img
truncate -s 32M "$gpt"
echo 'label: gpt' | sfdisk -q "$gpt" >/dev/null
made "$gpt" 1 /CRE /PRI /SZ:10
made "$gpt" 1 /CRE /PRI /Y /SZ:4 /END
want="2048 20480 EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
55296 8192 EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"
[ "$(parts "$gpt" | cut -d' ' -f2-)" = "$want" ] || fail "GPT: $(parts "$gpt")"
refuse "$gpt" <<'T'
1|~Extended DOS partition could not be created -- |1 /CRE /EXT
1|~Logical DOS drive could not be created -- |1 /CRE /LOG
T

# ---- Formats: FAT12, FAT16 and FAT32 by size (FAT16 at FAT32 sizes with /NTFAT16), each read
# by fsck.fat, verified only without /Q, with the disk's geometry, the partition's first sector
# as the hidden sectors and the label asked for; /EXT2 after /NTFS makes an ext2 partition
# (NTFS and ext2 have their own tests).
img=$WORK/fat.img
truncate -s 1200M "$img"
n=0
while IFS='|' read -r args type label progress; do
  n=$((n + 1))
  # shellcheck disable=SC2086
  made "$img" 1 /CRE /PRI /Y $args
  read -r s c t <<<"$(part "$img" $n)"
  [ "${t:-}" = "$type" ] || fail "$args: type ${t:-none}, expected $type"
  extract "$img" "$s" "$c" >"$WORK/vol"
  fsck.fat -n "$WORK/vol" >"$WORK/fsck" 2>&1 || fail "$args: fsck.fat: $(cat "$WORK/fsck")"
  printf '%s\n' "$OUT" | grep -q "^$progress " || fail "$args: no $progress progress display"
  [ "$(od -An -tu4 -j28 -N4 "$WORK/vol" | tr -d ' ')" = "$s" ] || fail "$args: hidden sectors differ from $s"
  [ "$(od -An -tu2 -j24 -N4 "$WORK/vol" | tr -s ' ')" = " 63 255" ] || fail "$args: geometry is not the disk's"
  [ "$label" = - ] || [ "$(fatlabel "$WORK/vol" 2>/dev/null | tr -d ' ')" = "$label" ] || fail "$args: label"
done <<'T'
/SZ:10 /FOR /Q|1|-|QuickFormatting
/SZ:100 /FOR /V:DATA|6|DATA|Verifying
/SZ:520 /FOR /Q|b|-|QuickFormatting
/SZ:520 /FOR /Q /NTFAT16|6|-|QuickFormatting
T
img=$WORK/nt.img
truncate -s 64M "$img"
n=0
for f in "/NTFS /EXT2 83 0"; do
  n=$((n + 1))
  # shellcheck disable=SC2086
  kd "$img" 1 /CRE /PRI /Y /SZ:20 /FOR ${f% * *}
  expect_rc "${f##* }" "$f"
  [ "${f##* }" = 0 ] || expect_text "Cannot format primary DOS partition -- " "$f"
  t=${f% *}; [ "$(part "$img" $n | cut -d' ' -f3)" = "${t##* }" ] || fail "$f: partition type: $(parts "$img")"
done

# Two processes creating logical drives on one image at once: each holds the disk for the whole
# command (the other waits or is refused with nothing written), so the chain holds exactly the
# drives whose command succeeded, and it stays sound.
img=$WORK/race.img
truncate -s 128M "$img"
sfdisk -q "$img" <<<$'label: dos\nstart=2048, type=f'
ok=0
for pair in $(seq 20); do
  for side in a b; do
    "$KDISK" /NOOSDISK "/ADDDISK=$img" 1 /CRE /LOG /SZ:1 /ALIGN:1MB /Y </dev/null >"$WORK/race.$side" 2>&1 &
  done
  for side in a b; do
    wait -n && ok=$((ok + 1))
  done
  grep -h "in use by another program" "$WORK/race.a" "$WORK/race.b" | grep -vxq "Fixed disk 1 is in use by another program" &&
    fail "pair $pair: refusal worded otherwise"
done
table_ok "$img" "concurrent creations"
[ "$(count_parts "$img")" -eq $((ok + 1)) ] || fail "concurrent creations: $ok succeeded, the table has $(count_parts "$img") entries"
[ "$ok" -gt 20 ] || fail "concurrent creations: only $ok of 40 succeeded"

finish
