#!/usr/bin/env bash
# Status display and sector view on images partitioned by sfdisk: the listed partitions agree
# with sfdisk's own reading, labels and filesystems are recognised, /VIEW dumps the right bytes
# and checks its ranges, and nothing here writes to the image.
set -euo pipefail
KDISK=${1:?usage: status_view.sh path/to/kdisk}
. "$(dirname "$0")/lib/partition.bash"
need_tools sfdisk jq mkfs.fat mkfs.ext2 sha256sum od
work=$WORK
img=$work/disk.img blank=$work/blank.img gpt=$work/gpt.img

# 64 MB: FAT16 (active), NTFS-typed, swap-typed, and an extended partition with ext2 and FAT32
# drives.
truncate -s 64M "$img"
sfdisk -q "$img" <<'T'
label: dos
start=2048, size=20480, type=6, bootable
start=22528, size=8192, type=7
start=30720, size=2048, type=82
start=32768, type=f
size=8192, type=83
type=c
T
mkfs.fat -F 16 --offset=2048 -n KDLABEL "$img" 10240 >/dev/null 2>&1
l5=$(sfdisk --json "$img" | jq '.partitiontable.partitions[4].start')
truncate -s 4M "$work/ext2.part"
mkfs.ext2 -q -F -L KDEXT "$work/ext2.part"
dd if="$work/ext2.part" of="$img" bs=512 seek="$l5" conv=notrunc status=none
truncate -s 16M "$blank"
before=$(sum "$img")

# Exact starts, sizes and types: the /LBA slot tables, made absolute, against sfdisk.
kd "$img" -- 1 /LBA
expect_rc 0 "/LBA"
mine=$(awk '
  /^Master boot record at sector/ { base = 0; ebr = 0 }
  /^Extended boot record at sector/ { base = $6 + 0; ebr = 1 }
  /^ +[1-4] +[0-9A-F][0-9A-F] +[0-9A-F][0-9A-F] +[0-9]+ +[0-9]+$/ {
    if ($3 == "00") next
    if (!ebr) print $4, $5, $3
    else if ($1 == 1) print base + $4, $5, $3 }' <<<"$out" | while read -r s z t; do
  printf '%s %s %x\n' "$s" "$z" "0x$t"; done | sort -n)
theirs=$(sfdisk --json "$img" | jq -r '.partitiontable.partitions[] | "\(.start) \(.size) \(.type)"' | sort -n)
[ "$mine" = "$theirs" ] || fail "/LBA tables disagree with sfdisk:"$'\n'"$mine"$'\n'"--- sfdisk:"$'\n'"$theirs"

# The listing: display numbers in slot order, the extended partition followed by its drives.
kd "$img" -- 1
expect_rc 0 "status of disk 1"
rows=$(grep -E '^ +[0-9]+  [0-9A-F]{2}  ' <<<"$out" || true)
want=$(sfdisk --json "$img" | jq -r '.partitiontable.partitions[] | "\(.size) \(.type)"' | while read -r z t; do
  printf '%02X %s\n' "0x$t" "$(awk -v z="$z" 'BEGIN { printf "%.1fMB", z * 512 / 1048576 }')"; done)
got=$(awk '{ for (i = 3; i <= NF; i++) if ($i ~ /MB$/) { print $2, $i; break } }' <<<"$rows")
[ "$got" = "$want" ] || fail "status rows disagree with sfdisk:"$'\n'"$got"$'\n'"--- sfdisk:"$'\n'"$want"
[ "$(awk '{ print $1 }' <<<"$rows" | tr '\n' ' ')" = "1 2 3 4 5 6 " ] || fail "display numbers: $rows"
grep -E '^ +1  06  FAT16 +KDLABEL +10\.0MB  FAT16 +PRIMARY +Yes$' <<<"$rows" >/dev/null || fail "row 1: $rows"
grep -E '^ +2  07  NTFS/HPFS +4\.0MB +PRIMARY$' <<<"$rows" >/dev/null || fail "row 2: $rows"
grep -E '^ +3  82  LINUX SWAP +1\.0MB +PRIMARY$' <<<"$rows" >/dev/null || fail "row 3: $rows"
grep -E '^ +4  0F  +[0-9.]+MB +EXTENDED$' <<<"$rows" >/dev/null || fail "row 4: $rows"
grep -E '^ +5  83  LINUX +KDEXT +4\.0MB  EXT2FS +LOGICAL$' <<<"$rows" >/dev/null || fail "row 5: $rows"
grep -E '^ +6  0C  FAT32 +[0-9.]+MB +LOGICAL$' <<<"$rows" >/dev/null || fail "row 6: $rows"
expect_out "   1         " "disk table row"

# /RAW: the CHS values as stored in the first slot.
kd "$img" -- 1 /RAW
expect_rc 0 "/RAW"
read -r h s c <<<"$(od -An -tu1 -j447 -N3 "$img")"
chs=$(awk '/^Master boot record/ { m = 1 } m && /^ +1 +80 +06 / { print $4, $5, $6; exit }' <<<"$out")
[ "$chs" = "$((c | ((s & 192) << 2))) $h $((s & 63))" ] || fail "/RAW start CHS '$chs' (bytes $h $s $c)"
[ "$(grep -c '^Extended boot record at sector' <<<"$out")" = 2 ] || fail "/RAW shows two extended boot records"

# All disks: both in the disk table, the blank one without partitions.
kd "$img" "$blank" -- /STATUS /SER
expect_rc 0 "status of all disks"
expect_out "No partitions" "blank disk"
[ "$(grep -cE '^ +[12] +[0-9]+ +255 +63 ' <<<"$out")" = 2 ] || fail "disk table: $out"

# Switch checks.
kd "$img" -- /RAW /LBA;   expect_rc 2 "/RAW with /LBA"
kd "$img" -- 3;           expect_rc 1 "no disk 3"; expect_out "No such fixed disk -- 3" "no disk 3"
kd "$img" -- 1 /NUM:2;    expect_rc 2 "/NUM on status"; expect_out "Unknown switch -- /NUM" "/NUM on status"

# /VIEW of the boot record: the 55 AA signature at offset 0x1fe.
kd "$img" -- 1 /VIEW:0
expect_rc 0 "/VIEW:0"
expect_out "Physical Disk 1, Sector 0:" "/VIEW:0 header"
grep -qE '^000001f0  ([0-9a-f]{2} ){8} ([0-9a-f]{2} ){6}55 aa  ' <<<"$out" || fail "/VIEW:0 lacks 55 aa: $out"
[ "$(grep -c '^[0-9a-f]\{8\}  ' <<<"$out")" = 32 ] || fail "/VIEW:0 shows 32 lines"
kd "$img" -- 1 /VIEW:2048 /NUM:3
[ "$(grep -c '^Physical Disk 1, Sector 20\(48\|49\|50\):' <<<"$out")" = 3 ] || fail "/NUM:3"
grep -qE '^00000000  eb 3c 90 ' <<<"$out" || fail "FAT boot sector at 2048: $out"
n=$((64 * 2048))
kd "$img" -- 1 /VIEW:$n;   expect_rc 2 "/VIEW past the end"
expect_out "Invalid sector number -- $n.  For this disk, sector must be in the range 0..$((n - 1))" "/VIEW:$n"
kd "$img" -- 1 /VIEW:$((n - 1)); expect_rc 0 "/VIEW of the last sector"
kd "$img" -- 1 /VIEW:0 /NUM:0; expect_rc 2 "/NUM:0"
expect_out "Invalid number of sectors -- 0.  For this disk, sector + sector number must be in the range 0..$((n - 1))" "/NUM:0"
kd "$img" -- 1 /VIEW:$((n - 1)) /NUM:2; expect_rc 2 "/NUM past the end"
kd "$img" -- 1 /VIEW:x;    expect_rc 2 "/VIEW:x"
kd "$img" -- /VIEW:0;      expect_rc 2 "/VIEW without a disk"
kd "$img" -- 2 /VIEW:0;    expect_rc 1 "/VIEW of a missing disk"

# GPT: entries with their type names; unknown GUIDs in braces.
truncate -s 32M "$gpt"
sfdisk -q "$gpt" <<'T'
label: gpt
start=2048, size=4096, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B
start=6144, size=8192, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4
T
kd "$gpt" -- 1
expect_rc 0 "GPT status"
expect_out "(GPT)" "GPT status"
grep -qE '^ +1 .*2\.0MB .*EFI System$' <<<"$out" || fail "GPT entry 1: $out"
grep -qE '^ +2 .*4\.0MB .*Linux Data$' <<<"$out" || fail "GPT entry 2: $out"

[ "$(sum "$img")" = "$before" ] || fail "status and view changed the image"

# The same image through a loop device (root only): the same slot tables as the image file.
if [ "$(id -u)" = 0 ] && command -v losetup >/dev/null; then
  if dev=$(losetup -f --show -P -r "$img" 2>/dev/null); then
    trap 'losetup -d "$dev"; rm -rf "$work"' EXIT
    kd "$img" -- 1 /LBA;  file_tables=$(sed -n '/^Master/,$p' <<<"$out")
    kd "$dev" -- 1 /LBA;  expect_rc 0 "/LBA of $dev"
    loop_tables=$(sed -n '/^Master/,$p' <<<"$out")
    [ -n "$loop_tables" ] && [ "$loop_tables" = "$file_tables" ] || fail "$dev shows other tables:"$'\n'"$out"
  else
    echo "note: no loop device available; the loop device check was skipped"
  fi
else
  echo "note: not root or no losetup; the loop device check was skipped"
fi
finish
