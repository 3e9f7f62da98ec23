#!/usr/bin/env bash
# The Windows build under wine creates, formats, activates, wipes and deletes on an image the
# same way as the native program. Uses a private wine prefix and wine server.
set -u
. "$(dirname "$0")/lib/partition.bash"
wine_start
require_partitioning
KDISK=$exe WINE=wine

img=$WORK/disk.img
truncate -s 32M "$img"
refuse "$img" <<<"2|Invalid partition size -- 101%|1 /CRE /PRI /SZ:101%"

kd "$img" 1 /CRE /PRI /SZ:10 /FOR /Q /V:WINE
expect_rc 0 "create and format"; table_ok "$img" "create"
read -r s n t <<<"$(part "$img" 1)"
[ "${t:-}" = 1 ] || fail "type ${t:-none}, expected FAT12: $(parts "$img")"
extract "$img" "${s:-0}" "${n:-1}" >"$WORK/vol"
fsck.fat -n "$WORK/vol" >"$WORK/fsck" 2>&1 || fail "fsck.fat: $(cat "$WORK/fsck")"
[ "$(fatlabel "$WORK/vol" 2>/dev/null | tr -d ' ')" = WINE ] || fail "volume label"

kd "$img" 1 /ACT /P:1
expect_rc 0 "activate"; expect_text "*ACTIVATED*" "activate"
[ "$(sfdisk -J "$img" | jq '.partitiontable.partitions[0].bootable')" = true ] || fail "partition 1 not bootable"

kd "$img" 1 /DEL /P:1 /DODWIPE
expect_rc 0 "delete with DoD wipe"; table_ok "$img" "delete"
[ "$(count_parts "$img")" -eq 0 ] || fail "table not empty: $(parts "$img")"
r=$(first_byte "$img" "${s:-0}")
[ "$r" != 53 ] && [ "$r" != 202 ] || fail "last pass byte $r"
only_byte "$img" "${s:-0}" "${n:-1}" "$r" || fail "partition not uniformly $r after the DoD wipe"
expect_line "$(printf 'Partition will contain 0x%02X for all bytes in all sectors when wipe complete.' "$r")" "DoD"
finish
