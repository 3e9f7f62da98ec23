#!/usr/bin/env bash
# /STATUS /JSON checked with jq against what sfdisk --json reads from the same images: an MBR
# disk with primaries (one active, one hidden and active), an extended partition with two
# logical drives and a FAT16 volume with a label; a GPT disk with named entries; a disk that
# cannot be opened. Standard output holds the document alone; /JSON with any other command is
# refused as an unknown switch, the image unchanged.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning

mbr=$WORK/mbr.img
truncate -s 64M "$mbr"
sfdisk -q "$mbr" >/dev/null <<'T'
label: dos
label-id: 0x1234abcd
start=2048, size=8192, type=6, bootable
start=10240, size=4096, type=16, bootable
start=16384, size=32768, type=5
start=18432, size=4096, type=83
start=24576, size=4096, type=7
T
if command -v mkfs.fat >/dev/null; then
  mkfs.fat -F 16 -s 1 -n KDISKJSON -C "$WORK/fat.img" 4096 >/dev/null
  dd if="$WORK/fat.img" of="$mbr" bs=512 seek=2048 conv=notrunc status=none
  fat=1
else
  echo "note: mkfs.fat is not installed; the volume label is not checked"; fat=0
fi

gpt=$WORK/gpt.img
truncate -s 32M "$gpt"
sfdisk -q "$gpt" >/dev/null <<'T'
label: gpt
label-id: 5E4B6D3C-2A19-4F08-9C7E-1D2B3A4C5D6E
start=2048, size=4096, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4, name="alpha"
start=8192, size=8192, type=EBD0A0A2-B9E5-4433-87C0-68B6B7260599, name="βeta ω"
T

# json ARGS...: runs kdisk on the three disks; the document is $WORK/doc.json.
json() {
  kd "$mbr" "$gpt" "$WORK/missing.img" -- "$@"
  cp "$WORK/out" "$WORK/doc.json"
  jq -e . "$WORK/doc.json" >/dev/null || fail "$*: standard output is not one JSON document: $OUT"
}
# q FILTER: the filter's raw output on the document.
q() { jq -r "$1" "$WORK/doc.json"; }
# same WHAT EXPECTED ACTUAL
same() { [ "$2" = "$3" ] || fail "$1: expected [$2], got [$3]"; }
# sfdisk_rows IMAGE FILTER: sfdisk's partitions through a jq filter, sorted.
sfdisk_rows() { sfdisk -J "$1" | jq -r ".partitiontable.partitions[] | $2" | sort; }

json /STATUS /JSON
expect_rc 0 "/STATUS /JSON"
same "version" 1 "$(q .version)"
same "disk numbers" "1 2 3" "$(q '[.disks[].number] | map(tostring) | join(" ")')"
same "the finding goes to standard error" "Fixed disk 1 has 2 active partitions" "$(grep -F 'active partitions' <<<"$ERR")"

# ---- MBR disk: every partition as sfdisk reads it, the roles and flags in display order.
same "MBR scheme, signature, size" "MBR 1234ABCD 131072 512" \
  "$(q '.disks[0] | "\(.scheme) \(.signature) \(.totalSectors) \(.sectorSize)"')"
same "MBR disk path" "$mbr" "$(q .disks[0].path)"
same "MBR partitions" \
  "$(sfdisk_rows "$mbr" '"\(.start) \(.size) \(.type) \(.bootable // false)"')" \
  "$(q '.disks[0].partitions[] | "\(.start) \(.size) \(.type | ascii_downcase | ltrimstr("0")) \(.active)"' | sort)"
same "MBR roles" "1 PRIMARY false|2 PRIMARY true|3 EXTENDED false|4 LOGICAL false|5 LOGICAL false" \
  "$(q '[.disks[0].partitions[] | "\(.number) \(.role) \(.hidden)"] | join("|")')"
same "MBR slots" "0 1 2 0 0" "$(q '[.disks[0].partitions[].slot] | map(tostring) | join(" ")')"
same "MBR GPT-only members" "null null null" \
  "$(q '.disks[0] | "\(.guid) \(.partitions[0].typeGuid) \(.partitions[0].name)"')"
same "MBR findings" '["Fixed disk 1 has 2 active partitions"]' "$(jq -c .disks[0].findings "$WORK/doc.json")"
if [ "$fat" = 1 ]; then
  same "FAT volume" "FAT16 KDISKJSON" "$(q '.disks[0].partitions[0] | "\(.filesystem) \(.label)"')"
fi
same "no raw tables without /RAW" "null" "$(q .disks[0].bootRecords)"

# ---- GPT disk: GUIDs and names as sfdisk reads them.
same "GPT scheme and disk GUID" "GPT $(sfdisk -J "$gpt" | jq -r .partitiontable.id)" "$(q '.disks[1] | "\(.scheme) \(.guid)"')"
same "GPT partitions" \
  "$(sfdisk_rows "$gpt" '"\(.start) \(.size) \(.type) \(.uuid) \(.name)"' | tr a-f A-F)" \
  "$(q '.disks[1].partitions[] | "\(.start) \(.size) \(.typeGuid) \(.guid) \(.name)"' | sort | tr a-f A-F)"
same "GPT MBR-only members" "null null false" "$(q '.disks[1] | "\(.signature) \(.partitions[0].type) \(.partitions[0].hidden)"')"
same "GPT type names" "false" "$(q '[.disks[1].partitions[].typeName | length == 0] | any')"

# ---- The disk that cannot be opened: its number, path and why; nothing else.
same "missing disk" "3 $WORK/missing.img true null" \
  "$(q '.disks[2] | "\(.number) \(.path) \(.status != null) \(.partitions)"')"

# ---- One disk, and the raw boot records with /RAW (the same as sfdisk's table).
json 1 /JSON /RAW
expect_rc 0 "1 /JSON /RAW"
same "one disk" 1 "$(q '.disks | length')"
same "boot records: the MBR and two EBRs" 3 "$(q '.disks[0].bootRecords | length')"
same "first slot" "0 80 06 2048 8192" \
  "$(q '.disks[0].bootRecords[0] | "\(.sector) \(.slots[0].status) \(.slots[0].type) \(.slots[0].start) \(.slots[0].count)"')"
json /JSON /LBA
expect_rc 0 "/JSON /LBA"
same "/LBA adds the boot records too" 3 "$(q '.disks[0].bootRecords | length')"

# ---- /JSON belongs to the listing only.
refuse "$mbr" <<'T'
2|Unknown switch -- /JSON|1 /DEL /P:1 /JSON
2|Unknown switch -- /JSON|1 /CRE /PRI /JSON
2|Unknown switch -- /JSON|1 /ACT /P:1 /JSON
2|Unknown switch -- /JSON|1 /VIEW:0 /JSON
2|Switch does not require a value -- /JSON|/STATUS /JSON:1
2|Conflicting switches. Specify either /RAW or /LBA|/STATUS /JSON /RAW /LBA
1|No such fixed disk -- 2|2 /STATUS /JSON
T
finish
