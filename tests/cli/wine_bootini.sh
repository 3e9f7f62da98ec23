#!/usr/bin/env bash
# The Windows build under wine adds a boot-sector entry (its file on C:\ by default) and
# removes it again; boot.ini is compared byte for byte, keeps its attributes and its backup.
set -u
. "$(dirname "$0")/lib/partition.bash"
wine_start
require_partitioning
need_tools cmp
KDISK=$exe WINE=wine
golden=$(cd "$(dirname "$0")/bootini" && pwd)

img=$WORK/disk.img
truncate -s 16M "$img"
kd "$img" 1 /CRE /PRI /SZ:4 /FOR /Q
expect_rc 0 "create"
start=$(sfdisk -J "$img" | jq '.partitiontable.partitions[0].start')

mkdir "$WORK/c"
ini=$WORK/c/boot.ini
cp "$golden/xp.ini" "$ini"
win_ini=$(winepath -w "$ini")
attrib() { wine cmd /c attrib "$win_ini" 2>/dev/null | tr -d '\r' | cut -c1-12; }
wine cmd /c attrib +r +s +h "$win_ini" >/dev/null 2>&1
attributes=$(attrib)
echo "boot.ini attributes under wine: $attributes"

kd "$img" /BOOTINI /ADD /D:1 /P:1 "/DESC:Lab: DOS 6.22?" "/INIFILE:$win_ini"
expect_rc 0 "add"
cmp -s "$ini" "$golden/xp.add-dat.expected" || fail "add: boot.ini is"$'\n'"$(od -c "$ini")"
cmp -s "$ini.bak" "$golden/xp.ini" || fail "add: boot.ini.bak is not the previous file"
extract "$img" "$start" 1 | cmp -s - "$WINEPREFIX/drive_c/Lab DOS 6.22.dat" ||
  fail "add: C:\\Lab DOS 6.22.dat is not the partition's first sector"
[ "$(attrib)" = "$attributes" ] || fail "add: attributes '$attributes' became '$(attrib)'"

kd "$img" /BOOTINI /REMOVE /ENTRY:2 "/INIFILE:$win_ini"
expect_rc 0 "remove"
cmp -s "$ini" "$golden/xp.ini" || fail "remove: boot.ini is"$'\n'"$(od -c "$ini")"
cmp -s "$ini.bak" "$golden/xp.add-dat.expected" || fail "remove: boot.ini.bak is not the previous file"
[ "$(attrib)" = "$attributes" ] || fail "remove: attributes '$attributes' became '$(attrib)'"
[ -z "$(find "$WORK/c" -name '*.kdisk-*')" ] || fail "a temporary file is left"
finish
