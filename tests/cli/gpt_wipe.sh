#!/usr/bin/env bash
# /GPT /WIPE on disk images: refusals and a declined question (image unchanged); an MBR disk
# with primaries and logical drives, a GPT disk and a grown GPT disk become empty GPT disks of
# their whole size with no trace of the old tables for sfdisk, blkid -p or /STATUS; a 4 TiB
# sparse image gets a table of its whole size; /CRE /PRI works on the result.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools blkid

# empty_gpt IMAGE SECTORS WHAT: sfdisk sees a sound, empty GPT over the whole disk with its
# backup header in the last sector, and blkid -p sees a GPT and nothing of an MBR.
empty_gpt() {
  local json
  table_ok "$1" "$3"
  json=$(sfdisk -J "$1" 2>/dev/null)
  [ "$(jq -r '.partitiontable.label' <<<"$json")" = gpt ] || fail "$3: not a GPT disk"
  [ "$(jq -r '.partitiontable.partitions | length' <<<"$json")" = 0 ] || fail "$3: partitions left: $json"
  [ "$(jq -r '.partitiontable.firstlba' <<<"$json")" = 34 ] || fail "$3: first usable LBA"
  [ "$(jq -r '.partitiontable.lastlba' <<<"$json")" = $(($2 - 34)) ] || fail "$3: last usable LBA"
  [ "$(dd if="$1" bs=512 skip=$(($2 - 1)) count=1 status=none | head -c 8)" = "EFI PART" ] ||
    fail "$3: no backup header in the last sector"
  [ "$(blkid -p -o value -s PTTYPE "$1")" = gpt ] || fail "$3: blkid -p: $(blkid -p "$1")"
}

img=$WORK/mbr.img
truncate -s 64M "$img"
fill "$img" 0 131072 119
sfdisk -q "$img" >/dev/null <<'T'
label: dos
start=2048, size=8192, type=6, bootable
start=10240, size=8192, type=83
start=18432, size=8192, type=7
start=26624, type=5
start=28672, size=4096, type=6
start=34816, size=4096, type=6
start=40960, size=4096, type=83
start=47104, size=4096, type=7
start=53248, size=4096, type=6
T
[ "$(count_parts "$img")" -eq 9 ] || fail "set-up: $(parts "$img")"
# signed IMAGE: the sectors after sector 0 that end in the boot record signature 0x55 0xAA.
signed() {
  perl -e 'open(my $f, "<", $ARGV[0]) or die; binmode $f; my ($s, $b) = (0, "");
    while (read($f, $b, 512) == 512) { print "$s " if $s && substr($b, 510, 2) eq "\x55\xaa"; $s++ }' "$1"
}
[ "$(signed "$img" | wc -w)" -eq 5 ] || fail "set-up: extended boot records at [$(signed "$img")]"
refuse "$img" <<'T'
2|Required switch missing -- /WIPE|1 /GPT
2|Required parameter missing -- fixed disk number|/GPT /WIPE
2|Unknown switch -- /DODWIPE|1 /GPT /WIPE /DODWIPE
1|No such fixed disk -- 2|2 /GPT /WIPE /Y
1|~All partitions on fixed disk 1 will be deleted and the disk reinitialised as an empty GPT disk. Continue?|1 /GPT /WIPE
T

kd "$img" 1 /GPT /WIPE /Y
expect_rc 0 "MBR disk"
empty_gpt "$img" 131072 "MBR disk"
[ -z "$(signed "$img")" ] || fail "extended boot records left at [$(signed "$img")]"
kd "$img" 1 /STATUS
expect_rc 0 "status of the new disk"
for t in FAT16 EXTENDED LOGICAL; do expect_not_in "$t" out "status after /GPT /WIPE"; done
kd "$img" 1 /CRE /PRI /SZ:10
expect_rc 0 "/CRE /PRI on the new disk"
table_ok "$img" "/CRE /PRI on the new disk"
[ "$(count_parts "$img")" -eq 1 ] || fail "/CRE /PRI: $(parts "$img")"

# A GPT disk that has grown: the old backup header lay at the old end; the new disk GUID
# differs from the old one.
img=$WORK/gpt.img
truncate -s 16M "$img"
printf 'label: gpt\nstart=2048, size=4096\nstart=6144, size=4096\n' | sfdisk -q "$img" >/dev/null
old_guid=$(sfdisk -J "$img" | jq -r .partitiontable.id)
truncate -s 24M "$img"
kd "$img" 1 /GPT /WIPE /Y
expect_rc 0 "grown GPT disk"
empty_gpt "$img" 49152 "grown GPT disk"
[ "$(sfdisk -J "$img" | jq -r .partitiontable.id)" != "$old_guid" ] || fail "the disk GUID was kept"
[ "$(dd if="$img" bs=512 skip=32767 count=1 status=none | head -c 8 | tr -d "\\0")" != "EFI PART" ] ||
  fail "the old backup header at the old end is still there"

# 4 TiB: the whole size in the GPT, the protective entry capped at 0xFFFFFFFF sectors.
img=$WORK/big.img
truncate -s 4T "$img"
kd "$img" 1 /GPT /WIPE /Y
expect_rc 0 "4 TiB disk"
empty_gpt "$img" $((4 << 31)) "4 TiB disk"
[ "$(dd if="$img" bs=1 skip=450 count=1 status=none | od -An -tx1 | tr -d ' ')" = ee ] || fail "4 TiB: no 0xEE entry"
[ "$(dd if="$img" bs=1 skip=458 count=4 status=none | od -An -tx1 | tr -d ' ')" = ffffffff ] ||
  fail "4 TiB: protective entry not capped"

finish
