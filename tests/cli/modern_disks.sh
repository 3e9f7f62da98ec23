#!/usr/bin/env bash
# Disks of today: partition types chosen by name, byte or GUID (/TYPE:) on MBR and GPT disks,
# disks larger than an MBR can address, 512e disks (512-byte sectors on a medium that writes
# 4096 bytes at a time) and the image sector size switches. sfdisk, fsck.fat and the JSON
# listing judge; every refusal leaves the image byte for byte as it was.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools fsck.fat python3

# json_of IMAGE [START-UP SWITCHES...]: the JSON listing of the image, in $WORK/doc.json.
json_of() {
  kd "$@" /STATUS /JSON
  expect_rc 0 "/STATUS /JSON $*"
  printf '%s' "$OUT" >"$WORK/doc.json"
}
q() { jq -r "$1" "$WORK/doc.json"; }
# fat_ok IMAGE N CONTEXT: partition N holds a FAT volume fsck.fat finds clean.
fat_ok() {
  local start size
  read -r start size _ <<<"$(part "$1" "$2")"
  extract "$1" "$start" "$size" >"$WORK/vol"
  fsck.fat -n "$WORK/vol" >"$WORK/fsck" 2>&1 || fail "$3: fsck.fat: $(cat "$WORK/fsck")"
}

# ---- /TYPE on MBR disks: the byte in the slot, the name in the listing. With /FOR the type
# replaces the filesystem's own (an EFI system partition holds FAT).
img=$WORK/mbr.img
while IFS='|' read -r kind args byte name; do
  rm -f "$img"; truncate -s 64M "$img"
  n=1
  if [ "$kind" = LOG ]; then
    kd "$img" 1 /CRE /EXT; expect_rc 0 "$args: extended"
    n=5
  fi
  # shellcheck disable=SC2086
  kd "$img" 1 /CRE /$kind /SZ:20 $args
  expect_rc 0 "$kind $args"
  table_ok "$img" "$args"
  [ "$(part "$img" "$n" | cut -d' ' -f3)" = "$byte" ] || fail "$args: sfdisk reads type $(part "$img" "$n")"
  expect_text "*CREATED*" "$args"
  json_of "$img"
  [ "$(q ".disks[0].partitions[] | select(.number == $((n == 5 ? 2 : 1))) | .typeName")" = "$name" ] ||
    fail "$args: JSON names the type $(q '[.disks[0].partitions[].typeName] | join(",")')"
  case "$args" in *NTFS*) ;; *"/FOR"*) fat_ok "$img" "$n" "$args" ;; esac
done <<'T'
PRI|/TYPE:EFI /FOR /Q|ef|EFI System
PRI|/TYPE:linux|83|LINUX
PRI|/TYPE:SWAP|82|LINUX SWAP
PRI|/TYPE:LVM|8e|LVM STORAGE
PRI|/TYPE:RAID|fd|LINUX RAID
PRI|/TYPE:0x1c /FOR|1c|FAT32
PRI|/TYPE:a5|a5|UNKNOWN
PRI|/TYPE:RAID /FOR /NTFS|fd|LINUX RAID
LOG|/TYPE:82|82|LINUX SWAP
LOG|/TYPE:EFI /FOR /Q|ef|EFI System
T

# ---- /TYPE on GPT disks: the GUID in the entry, the name in the listing and the status table.
gpt=$WORK/gpt.img
truncate -s 128M "$gpt"
kd "$gpt" 1 /GPT /WIPE /Y; expect_rc 0 "/GPT /WIPE"
n=0
while IFS='|' read -r args guid name; do
  n=$((n + 1))
  # shellcheck disable=SC2086
  kd "$gpt" 1 /CRE /PRI /SZ:8 $args
  expect_rc 0 "GPT $args"
  [ "$(part "$gpt" "$n" | cut -d' ' -f3)" = "$guid" ] || fail "GPT $args: sfdisk reads $(part "$gpt" "$n")"
  [ -z "$name" ] || expect_text "$name" "GPT $args: status table"
done <<'T'
/TYPE:EFI /FOR /Q|C12A7328-F81F-11D2-BA4B-00A0C93EC93B|EFI System
/TYPE:LINUX|0FC63DAF-8483-4772-8E79-3D69D8477DE4|Linux Data
/TYPE:swap|0657FD6D-A4AB-43C4-84E5-0933C84B4F4F|Linux Swap
/TYPE:LVM|E6D6D379-F507-44C2-A23C-238F2A3DF928|Linux LVM
/TYPE:RAID|A19D880F-05FC-4D3B-A006-743F0F84911E|Linux Raid
/TYPE:MSR|E3C9E316-0B5C-4DB8-817D-F92DF00215AE|Microsoft Reserved
/TYPE:BIOSBOOT|21686148-6449-6E6F-744E-656564454649|BIOS Boot
/TYPE:RECOVERY|DE94BBA4-06D1-4D40-A16A-BFD50179D6AC|Windows Recovery
/TYPE:{933ac7e1-2eb4-4f13-b844-0e14e2aef915}|933AC7E1-2EB4-4F13-B844-0E14E2AEF915|{933AC7E1-2EB4-4F13-B844-0E14E2AEF915}
/FOR /EXT2|0FC63DAF-8483-4772-8E79-3D69D8477DE4|Linux Data
/FOR /Q|EBD0A0A2-B9E5-4433-87C0-68B6B72699C7|Microsoft Basic Data
T
table_ok "$gpt" "GPT types"
fat_ok "$gpt" 1 "GPT EFI system partition"
json_of "$gpt"
[ "$(q '[.disks[0].partitions[].typeName] | join(",")')" = \
  "EFI System,Linux Data,Linux Swap,Linux LVM,Linux Raid,Microsoft Reserved,BIOS Boot,Windows Recovery,{933AC7E1-2EB4-4F13-B844-0E14E2AEF915},Linux Data,Microsoft Basic Data" ] ||
  fail "GPT type names in JSON: $(q '[.disks[0].partitions[].typeName] | join(",")')"
[ "$(q '.disks[0].partitions[0].name')" = "EFI system partition" ] || fail "EFI entry name: $(q '.disks[0].partitions[0].name')"
refuse "$gpt" <<'T'
2|Partition type 82 cannot be used on a GPT disk|1 /CRE /PRI /TYPE:82
2|Partition type 0xEF cannot be used on a GPT disk|1 /CRE /PRI /TYPE:0xEF
2|Invalid partition type -- 00000000-0000-0000-0000-000000000000|1 /CRE /PRI /TYPE:00000000-0000-0000-0000-000000000000
2|Invalid partition type -- ESP|1 /CRE /PRI /TYPE:ESP
T

# ---- Past the reach of an MBR: 2^32 - 1 sectors. The status display says what lies beyond and
# that /GPT /WIPE reaches it; /CRE stays within and refuses a size that does not fit there.
big=$WORK/big.img
truncate -s 3T "$big"
beyond="1048576.0MB at the end of the disk lie beyond the reach of its MBR partition table (2097152.0MB); /GPT /WIPE reaches all of it"
kd "$big" 1 /STATUS
expect_rc 0 "3 TiB status"
expect_line "Fixed disk 1 -- $beyond" "3 TiB status"
before=$(sparse_sum "$big")
kd "$big" 1 /CRE /PRI /SZ:2200000
expect_rc 1 "3 TiB /SZ:2200000"
expect_line "$beyond" "3 TiB /SZ:2200000"
[ "$(sparse_sum "$big")" = "$before" ] || fail "3 TiB /SZ:2200000: image changed"
kd "$big" 1 /CRE /PRI /ALIGN:1MB
expect_rc 0 "3 TiB largest"
expect_text "$beyond" "3 TiB largest"
read -r start size _ <<<"$(part "$big" 1)"
[ $((start + size)) -le 4294967295 ] && [ $((start + size)) -gt $((4294967295 - 2048)) ] ||
  fail "3 TiB largest: partition $start+$size"
json_of "$big"
[ "$(q .disks[0].sectorsBeyondReach)" = $((3 * 2 ** 31 - 4294967295)) ] || fail "JSON beyond: $(q .disks[0].sectorsBeyondReach)"
kd "$big" 1 /GPT /WIPE /Y; expect_rc 0 "3 TiB /GPT /WIPE"
kd "$big" 1 /CRE /PRI /SZ:2200000
expect_rc 0 "3 TiB GPT /SZ:2200000"
expect_no_out "beyond the reach" "3 TiB GPT"
[ "$(part "$big" 1 | cut -d' ' -f2)" = $((2200000 * 2048)) ] || fail "3 TiB GPT: $(part "$big" 1)"

# ---- 512e: 512-byte sectors on 4096-byte physical ones (told with /PHYSICALSECTORSIZE= for
# an image). Cylinder alignment starts at sector 63: /CRE warns and names /ALIGN:1MB.
e512=$WORK/512e.img
truncate -s 64M "$e512"
json_of "$e512" /PHYSICALSECTORSIZE=4096
[ "$(q '.disks[0] | "\(.sectorSize) \(.physicalSectorSize)"')" = "512 4096" ] || fail "512e sizes: $(q '.disks[0] | "\(.sectorSize) \(.physicalSectorSize)"')"
json_of "$e512"
[ "$(q '.disks[0] | "\(.sectorSize) \(.physicalSectorSize)"')" = "512 512" ] || fail "512n sizes: $(q '.disks[0] | "\(.sectorSize) \(.physicalSectorSize)"')"
offsector="The new partition does not start on a physical sector of the disk (4096 bytes), which slows every write to it; /ALIGN:1MB aligns it"
kd "$e512" /PHYSICALSECTORSIZE=4096 1 /CRE /PRI /SZ:8
expect_rc 0 "512e cylinder"
expect_line "$offsector" "512e cylinder"
kd "$e512" /PHYSICALSECTORSIZE=4096 1 /CRE /PRI /SZ:8 /ALIGN:1MB /Y
expect_rc 0 "512e 1MB"
expect_no_out "physical sector" "512e 1MB"
kd "$e512" 1 /CRE /PRI /SZ:8 /Y
expect_rc 0 "512n cylinder"
expect_no_out "physical sector" "512n cylinder"

# ---- Image sector sizes: 512 or 4096, anything else is a bad command line.
refuse "$e512" <<'T'
2|Start-up switch /SECTORSIZE takes one of 512,4096 (/SECTORSIZE=n), not "1024"|/SECTORSIZE=1024 /STATUS
2|Start-up switch /SECTORSIZE takes one of 512,4096 (/SECTORSIZE=n), not ""|/SECTORSIZE /STATUS
2|Start-up switch /SECTORSIZE takes one of 512,4096 (/SECTORSIZE=n), not "4k"|/sectorsize=4k /STATUS
2|Start-up switch /PHYSICALSECTORSIZE takes one of 512,4096 (/PHYSICALSECTORSIZE=n), not "2048"|/PHYSICALSECTORSIZE=2048 /STATUS
T
json_of "$e512" /SECTORSIZE=4096
[ "$(q '.disks[0] | "\(.sectorSize) \(.physicalSectorSize)"')" = "4096 4096" ] || fail "4Kn sizes: $(q '.disks[0] | "\(.sectorSize) \(.physicalSectorSize)"')"
finish
