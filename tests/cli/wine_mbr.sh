#!/usr/bin/env bash
# The Windows build under wine rewrites the master boot code of an image: the code is MBR.BIN's
# (beside kdisk.exe, or the built-in copy), /P keeps the disk signature and the table, and a
# conflicting line leaves the image unchanged.
set -euo pipefail
. "$(dirname "$0")/lib/partition.bash"
wine_start
need_tools sfdisk od
KDISK=$exe KDISK_RUNNER=wine work=$WORK
committed=${KDISK_SOURCE:-$(dirname "$0")/../..}/tools/bootcode/MBR.BIN
[ -f "$committed" ] || skip "no MBR.BIN in the source tree ($committed)"
img=$work/disk.img
truncate -s 16M "$img"
sfdisk -q "$img" <<<$'label: dos\nlabel-id: 0x0badcafe\nstart=2048, size=8192, type=6, bootable'
table=$(table_of "$img")
bytes() { dd if="$img" bs=1 skip="$1" count="$2" status=none | od -An -tx1 -v | tr -d ' \n'; }

refuse "$img" <<<"2|Conflicting switches. Specify either /P or /Z|1 /MBR /P /Z /Y"
kd "$img" 1 /MBR /P /Y
expect_rc 0 "/MBR /P under wine"
expect_text "The master boot record of fixed disk 1 has been reinitialised" "/MBR /P under wine"
[ "$(bytes 0 440)" = "$(od -An -tx1 -v "$committed" | tr -d ' \n')" ] || fail "the code area is not MBR.BIN"
[ "$(bytes 440 4)" = fecaad0b ] || fail "the disk signature was not kept: $(bytes 440 4)"
[ "$(table_of "$img")" = "$table" ] || fail "the table changed: $(table_of "$img")"
finish
