#!/usr/bin/env bash
# /MBR and /REVERT on images: the code area byte for byte under /P, /Z and neither (a code
# shorter than the area leaves the rest, the disk signature included, as it was), the question
# naming what becomes of the disk signature, the code
# from /REPLACE:file, MBR.BIN beside the program or the built-in copy, /WIPE leaving no table
# that sfdisk or blkid finds, and every refusal leaving the image unchanged.
set -euo pipefail
KDISK=$(readlink -f "${1:?usage: mbr.sh path/to/kdisk}")
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/partition.bash"
require_partitioning
need_tools sha256sum cmp blkid perl
work=$WORK
# /REVERT also looks in the current folder: run where no boot code file lies (a build folder
# has MBR.BIN).
cd "$work"
img=$work/disk.img
committed=$(readlink -f "${KDISK_SOURCE:-$here/../..}")/tools/bootcode/MBR.BIN
[ -f "$committed" ] || skip "no MBR.BIN in the source tree ($committed)"

# fresh: a disk with two primaries, an extended partition with two logical drives, disk
# signature 0x12345678 and old boot code (0x5A bytes) before it.
fresh() {
  rm -f "$img"; truncate -s 16M "$img"
  sfdisk -q "$img" <<'T'
label: dos
label-id: 0x12345678
start=2048, size=4096, type=6, bootable
start=6144, size=4096, type=83
start=10240, type=f
size=4096, type=6
size=4096, type=6
T
  head -c 440 /dev/zero | tr "\0" "\132" | dd of="$img" conv=notrunc status=none
  TABLE=$(table_of "$img")
}
bytes() { dd if="$1" bs=1 skip="$2" count="$3" status=none | od -An -tx1 -v | tr -d ' \n'; }
# code_is WHAT FILE LENGTH: bytes 0..LENGTH-1 of sector 0 are the file's.
code_is() { [ "$(bytes "$img" 0 "$3")" = "$(bytes "$2" 0 "$3")" ] || fail "$1: the code area is not $2"; }
table_kept() {
  [ "$(table_of "$img")" = "$TABLE" ] || fail "$1: the table changed: $(table_of "$img")"
  [ "$(bytes "$img" 510 2)" = 55aa ] || fail "$1: no boot signature"
}

# Refusals: exit code, message, arguments; the image unchanged.
fresh
printf '' >"$work/empty.bin"
head -c 513 /dev/zero >"$work/big.bin"
perl -e 'print map { chr($_ % 256) } 0 .. 511' >"$work/sector.bin"
refuse "$img" <<T
2|Conflicting switches. Specify either /P or /Z|1 /MBR /P /Z /Y
2|~Required parameter missing -- fixed disk number|/MBR /Y
1|~No such fixed disk -- 2|2 /MBR /Y
2|~Unknown switch -- /ALL|1 /MBR /ALL /Y
1|~Cannot read boot code file $work/missing.bin -- The boot code file cannot be opened|1 /MBR /REPLACE:$work/missing.bin /Y
1|~Cannot read boot code file $work/empty.bin -- The boot code file is empty|1 /MBR /REPLACE:$work/empty.bin /Y
1|~Cannot read boot code file $work/big.bin -- The boot code file is larger than one sector (512 bytes)|1 /MBR /REPLACE:$work/big.bin /Y
1|~The master boot record of fixed disk 1 will be reinitialised; its disk signature 12345678 is kept. Continue?|1 /MBR
1|~The master boot record of fixed disk 1 will be reinitialised; its disk signatures are cleared. Continue?|1 /MBR /Z
1|~The master boot record of fixed disk 1 will be reinitialised; its disk signature 12345678 is replaced by BBBAB9B8 from the boot code. Continue?|1 /MBR /REPLACE:$work/sector.bin
1|~The master boot record of fixed disk 1 will be reinitialised; its disk signature 12345678 is kept. Continue?|1 /MBR /P /REPLACE:$work/sector.bin
1|~All partitions on fixed disk 1 will be deleted and its master boot record reinitialised; its disk signature 12345678 is kept. Continue?|1 /MBR /WIPE /P
1|Failed to determine system disk|/REVERT /Y
2|~Too many parameters -- 1|1 /REVERT /Y
T
# A copy of the program without MBR.BIN beside it: /REVERT finds no file (the current folder
# has none either).
mkdir -p "$work/lone" "$work/pkg/bin" "$work/pkg/lib/kdisk"
cp "$KDISK" "$work/lone/kdisk"
built=$KDISK
KDISK=$work/lone/kdisk
refuse "$img" <<T
1|~Cannot read boot code file mbr.bin -- The boot code file cannot be opened|/BOOTDISK=1 /REVERT /Y
T
KDISK=$built
# The answer No, typed.
before=$(sha "$img")
kd_answer $'n\n' "$img" 1 /MBR
expect_rc 1 "/MBR answered No"
[ "$(sha "$img")" = "$before" ] || fail "/MBR answered No: the image changed"

# The code and the identifiers: switches, code file, its length, bytes expected at 440..445
# (hex). Bytes 444 and 445 of the fresh disk are 0x5A 0x5A; after a shorter code the old
# code's 0x5A bytes stay.
head -c 100 /dev/zero | tr '\0' '\1' >"$work/short.bin"
while IFS='|' read -r switches file length want; do
  fresh
  printf '\132\132' | dd of="$img" bs=1 seek=444 conv=notrunc status=none
  # shellcheck disable=SC2086
  kd "$img" 1 /MBR /Y $switches
  expect_rc 0 "/MBR $switches"
  expect_text "The master boot record of fixed disk 1 has been reinitialised" "/MBR $switches"
  expect_text "Partitions on fixed disk 1" "/MBR $switches"
  code_is "/MBR $switches" "$file" "$length"
  [ "$length" -ge 440 ] || [ "$(bytes "$img" "$length" $((440 - length)))" = "$(printf '5a%.0s' $(seq $((440 - length))))" ] ||
    fail "/MBR $switches: the code area after the code is not as it was"
  [ "$(bytes "$img" 440 6)" = "$want" ] || fail "/MBR $switches: bytes 440..445 are $(bytes "$img" 440 6), expected $want"
  table_kept "/MBR $switches"
done <<T
|$committed|440|785634125a5a
/P|$committed|440|785634125a5a
/Z|$committed|440|000000005a5a
/REPLACE:$work/short.bin|$work/short.bin|100|785634125a5a
/Z /REPLACE:$work/short.bin|$work/short.bin|100|000000005a5a
/P /REPLACE:$work/sector.bin|$work/sector.bin|440|78563412bcbd
/Z /REPLACE:$work/sector.bin|$work/sector.bin|440|00000000bcbd
/REPLACE:$work/sector.bin|$work/sector.bin|440|b8b9babbbcbd
T

# MBR.BIN beside the program, else the built-in copy.
mkdir -p "$work/bin"
cp "$KDISK" "$work/bin/kdisk"
fresh
KDISK=$work/bin/kdisk kd "$img" 1 /MBR /Y
expect_rc 0 "built-in code"
code_is "built-in code" "$committed" 440
head -c 300 /dev/zero | tr '\0' '\353' >"$work/bin/MBR.BIN"
fresh
KDISK=$work/bin/kdisk kd "$img" 1 /MBR /Y /P
expect_rc 0 "MBR.BIN beside the program"
code_is "MBR.BIN beside the program" "$work/bin/MBR.BIN" 300
[ "$(bytes "$img" 300 140)" = "$(head -c 140 /dev/zero | tr '\0' '\132' | od -An -tx1 -v | tr -d ' \n')" ] ||
  fail "MBR.BIN beside the program: the code area after the file's bytes is not as it was"
table_kept "MBR.BIN beside the program"

# /REVERT: mbr.bin from the current folder onto the boot disk, identifiers kept (a copy of the
# program with no boot code file beside it).
fresh
head -c 446 /dev/zero | tr '\0' '\61' >"$work/mbr.bin"
KDISK=$work/lone/kdisk
(cd "$work" && kd "$img" /BOOTDISK=1 /REVERT /Y)
KDISK=$built
expect_rc 0 "/REVERT"
code_is "/REVERT" "$work/mbr.bin" 440
[ "$(bytes "$img" 440 4)" = 78563412 ] || fail "/REVERT: the disk signature was not kept"
table_kept "/REVERT"

# Installed as the package installs it: the program in bin/, the boot code in lib/kdisk/ in
# capitals. /REVERT and /MBR find it whatever the case, before the current folder's file.
cp "$KDISK" "$work/pkg/bin/kdisk"
perl -e 'print map { chr(($_ * 7) % 256) } 0 .. 439' >"$work/pkg/lib/kdisk/MBR.BIN"
KDISK=$work/pkg/bin/kdisk
for cmd in "/BOOTDISK=1 /REVERT /Y" "1 /MBR /Y"; do
  fresh
  # shellcheck disable=SC2086
  (cd "$work" && kd "$img" $cmd)
  expect_rc 0 "installed: $cmd"
  code_is "installed: $cmd" "$work/pkg/lib/kdisk/MBR.BIN" 440
  table_kept "installed: $cmd"
done
KDISK=$built

# /WIPE: MBR with logical drives, and a GPT disk; afterwards neither tool finds a table entry
# or a GPT, and the old extended boot records are gone.
for label in dos gpt; do
  fresh
  if [ $label = gpt ]; then
    sfdisk -q "$img" <<<$'label: gpt\nstart=2048, size=4096\nstart=8192, size=4096'
  fi
  kd "$img" 1 /MBR /WIPE /Y
  expect_rc 0 "/MBR /WIPE on $label"
  [ "$(count_parts "$img")" = 0 ] || fail "/MBR /WIPE on $label: sfdisk still finds $(parts "$img")"
  pt=$(blkid -p -o value -s PTTYPE "$img" 2>/dev/null || true)
  [ "$pt" != gpt ] && [ "$pt" != PMBR ] || fail "/MBR /WIPE on $label: blkid finds $pt"
  blkid -p -o export "$img" 2>/dev/null | grep -q '^PART_ENTRY' && fail "/MBR /WIPE on $label: blkid finds entries"
  only_byte "$img" 1 1 0 || fail "/MBR /WIPE on $label: sector 1 not cleared"
  only_byte "$img" 32767 1 0 || fail "/MBR /WIPE on $label: the last sector not cleared"
  [ $label = gpt ] || only_byte "$img" 10240 1 0 || fail "/MBR /WIPE on $label: the first extended boot record is left"
  code_is "/MBR /WIPE on $label" "$committed" 440
  [ "$(bytes "$img" 510 2)" = 55aa ] || fail "/MBR /WIPE on $label: no boot signature"
  expect_text "Partitions on fixed disk 1" "/MBR /WIPE on $label"
done
finish
