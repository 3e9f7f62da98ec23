#!/usr/bin/env bash
# The Windows build under wine wipes a whole image in DoD mode (every writing pass flushed, the
# verifying pass reading the file past the system's cache) and reinitialises one as an empty
# GPT disk, as the native program does. Uses a private wine prefix and wine server.
set -u
. "$(dirname "$0")/lib/partition.bash"
wine_start
require_partitioning
KDISK=$exe WINE=wine

img=$WORK/disk.img
truncate -s 6M "$img"
fill "$img" 0 12288 119
printf 'label: dos\nstart=2048, size=4096, type=6\n' | sfdisk -q "$img" >/dev/null
before=$(sha "$img")
kd_answer n "$img" 1 /DISKWIPE /DODWIPE
expect_rc 1 "/DISKWIPE answered No"
[ "$(sha "$img")" = "$before" ] || fail "/DISKWIPE answered No changed the image"
kd "$img" 1 /DISKWIPE /DODWIPE /Y
expect_rc 0 "/DISKWIPE /DODWIPE"
r=$(first_byte "$img" 0)
[ "$r" != 53 ] && [ "$r" != 202 ] || fail "last pass byte $r"
only_byte "$img" 0 12288 "$r" || fail "image not uniformly $r after /DISKWIPE /DODWIPE"

kd "$img" 1 /GPT /WIPE /Y
expect_rc 0 "/GPT /WIPE"
table_ok "$img" "/GPT /WIPE"
[ "$(sfdisk -J "$img" | jq -r '.partitiontable.label + " " + (.partitiontable.lastlba | tostring)')" = "gpt 12254" ] ||
  fail "/GPT /WIPE: $(sfdisk -J "$img")"
finish
