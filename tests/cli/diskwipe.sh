#!/usr/bin/env bash
# /DISKWIPE on disk images: refusals and declined questions (image unchanged), every wipe mode
# over images of several sizes with every byte checked, /DISK:ALL with one disk declined,
# /DISK:SYSTEM with the boot disk named by /BOOTDISK, and /KEEPCORVOBOOT keeping a diagnostic
# partition byte for byte. sfdisk and blkid -p decide what is left of the tables.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools blkid

# new_disk NAME SECTORS: an image full of 0x77 with one FAT16 partition and a logical drive.
new_disk() {
  img=$WORK/$1.img
  rm -f "$img"
  truncate -s $(($2 * 512)) "$img"
  fill "$img" 0 "$2" 119
  printf 'label: dos\nstart=2048, size=2048, type=6\nstart=4096, type=5\nstart=6144, size=2048, type=6\n' |
    sfdisk -q "$img" >/dev/null
}
# wiped IMAGE SECTORS BYTE WHAT: every byte is BYTE and no tool finds a table or a filesystem.
wiped() {
  only_byte "$1" 0 "$2" "$3" || fail "$4: not every byte is $3"
  [ -z "$(blkid -p "$1" 2>/dev/null)" ] || fail "$4: blkid -p still finds: $(blkid -p "$1")"
  [ "$(count_parts "$1")" -eq 0 ] || fail "$4: sfdisk still finds partitions"
}

new_disk a 8192
refuse "$img" <<'T'
2|Invalid disk parameter: AL|/DISKWIPE /DISK:AL
2|Conflicting disk parameters. Specify either disk number or disk parameter.|1 /DISKWIPE /DISK:ALL
2|Required parameter missing -- fixed disk number|/DISKWIPE
2|Invalid fixed disk number -- 0|0 /DISKWIPE
2|Conflicting switches. Specify one of /DODWIPE or /CUSTOMWIPE|1 /DISKWIPE /DOD /CUSTOMWIPE:2
2|Invalid custom wipe passes -- 0|1 /DISKWIPE /CUSTOMWIPE:0
2|Invalid custom wipe passes -- 101|1 /DISKWIPE /CUSTOM:101
2|Unknown switch -- /QWIPE|1 /DISKWIPE /QWIPE
2|Failed to determine system disk|/DISKWIPE /DISK:SYSTEM
1|No such fixed disk -- 2|2 /DISKWIPE /Y
1|~All data on fixed disk 1 will be permanently destroyed. Continue?|1 /DISKWIPE /DODWIPE
T
before=$(sha "$img")
kd_answer n "$img" 1 /DISKWIPE
expect_rc 1 "answered No"
[ "$(sha "$img")" = "$before" ] || fail "answered No: image changed"

# ---- Each mode over images of several sizes (not multiples of the transfer length).
while read -r sectors mode; do
  new_disk m "$sectors"
  # shellcheck disable=SC2086
  kd "$img" 1 /DISKWIPE $mode /Y
  expect_rc 0 "$mode on $sectors sectors"
  r=$(first_byte "$img" 0)
  case "$mode" in
    "") [ "$r" = 0 ] || fail "one pass of zeros left $r" ;;
    # The last pass writes the random byte, which is redrawn only while it is 0x35 or 0xCA.
    *) [ "$r" != 53 ] && [ "$r" != 202 ] || fail "$mode: last byte $r" ;;
  esac
  wiped "$img" "$sectors" "$r" "$mode on $sectors sectors"
  expect_line "$(printf 'Partition will contain 0x%02X for all bytes in all sectors when wipe complete.' "$r")" "$mode"
  title=$(awk -v s="$sectors" 'BEGIN { printf "Wiping  %.2fM", s * 512 / 1048576 }')
  case "$mode" in /DOD*) title="DoD 5220.22-M STD $title" ;; esac
  printf '%s\n' "$OUT" | grep -qF "$title" || fail "$mode: no progress display titled '$title'"
done <<'T'
8192
10247 /DODWIPE
12288 /CUSTOMWIPE:1
8197 /DOD
9000 /CUSTOM:2
T

# ---- /DISK:ALL over three disks, the second declined; the invalid number is reported and,
# being no valid number, does not conflict with /DISK:ALL.
new_disk a 8192; new_disk b 8192; new_disk c 8192
before=$(sha "$WORK/b.img")
kd_answer $'y\nn\ny\n' "$WORK/a.img" "$WORK/b.img" "$WORK/c.img" -- x /DISKWIPE /DISK:all
expect_rc 1 "/DISK:ALL with one No"
expect_line "Invalid fixed disk number -- x" "/DISK:ALL with x"
wiped "$WORK/a.img" 8192 0 "/DISK:ALL disk 1"
wiped "$WORK/c.img" 8192 0 "/DISK:ALL disk 3"
[ "$(sha "$WORK/b.img")" = "$before" ] || fail "/DISK:ALL: the declined disk changed"

# ---- /DISK:SYSTEM wipes the disk /BOOTDISK names, and only that one.
new_disk a 8192; new_disk b 8192; new_disk c 8192
sa=$(sha "$WORK/a.img"); sc=$(sha "$WORK/c.img")
kd "$WORK/a.img" "$WORK/b.img" "$WORK/c.img" -- /BOOTDISK=2 /DISKWIPE /DISK:SYSTEMX /DODWIPE /Y
expect_rc 0 "/DISK:SYSTEM"
r=$(first_byte "$WORK/b.img" 0)
wiped "$WORK/b.img" 8192 "$r" "/DISK:SYSTEM"
[ "$(sha "$WORK/a.img")" = "$sa" ] && [ "$(sha "$WORK/c.img")" = "$sc" ] || fail "/DISK:SYSTEM touched another disk"

# ---- /KEEPCORVOBOOT: the diagnostic partition and its entry stay, everything else goes.
img=$WORK/keep.img
truncate -s 8M "$img"
fill "$img" 0 16384 119
sfdisk -q "$img" >/dev/null <<'T'
label: dos
start=2048, size=4096, type=6, bootable
start=6144, size=2048, type=12
start=8192, size=8192, type=5
start=10240, size=4096, type=83
T
fill "$img" 6144 2048 90
kept=$(extract "$img" 6144 2048 | sha256sum)
entry=$(dd if="$img" bs=1 skip=462 count=16 status=none | od -An -tx1)
kd "$img" 1 /DISKWIPE /DODWIPE /KEEPCORVOBOOT /Y
expect_rc 0 "/KEEPCORVOBOOT"
expect_line "Partition 2 on fixed disk 1 is kept" "/KEEPCORVOBOOT"
[ "$(parts "$img" | cut -d' ' -f2-)" = "6144 2048 12" ] || fail "/KEEPCORVOBOOT: table is [$(parts "$img")]"
table_ok "$img" "/KEEPCORVOBOOT"
[ "$(extract "$img" 6144 2048 | sha256sum)" = "$kept" ] || fail "/KEEPCORVOBOOT: the kept partition changed"
[ "$(dd if="$img" bs=1 skip=462 count=16 status=none | od -An -tx1)" = "$entry" ] || fail "/KEEPCORVOBOOT: entry changed"
r=$(first_byte "$img" 1)
expect_line "$(printf 'Partition will contain 0x%02X for all bytes in all sectors when wipe complete.' "$r")" "/KEEPCORVOBOOT"
only_byte "$img" 1 6143 "$r" && only_byte "$img" 8192 8192 "$r" || fail "/KEEPCORVOBOOT: data left outside the kept partition"
[ -z "$(dd if="$img" bs=446 count=1 status=none | tr -d '\0')" ] || fail "/KEEPCORVOBOOT: boot code left in sector 0"
# Without such a partition the switch changes nothing.
new_disk m 8192
kd "$img" 1 /DISKWIPE /KEEPCORVOBOOT /Y
expect_rc 0 "/KEEPCORVOBOOT without a diagnostic partition"
wiped "$img" 8192 0 "/KEEPCORVOBOOT without a diagnostic partition"

finish
