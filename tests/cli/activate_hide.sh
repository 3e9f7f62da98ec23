#!/usr/bin/env bash
# /ACT, /-ACT, /HIDE and /-HIDE on images partitioned by sfdisk: every change is confirmed by
# sfdisk's own reading of the table, and every refusal leaves the image byte-identical.
set -euo pipefail
KDISK=${1:?usage: activate_hide.sh path/to/kdisk}
. "$(dirname "$0")/lib/partition.bash"
need_tools sfdisk sha256sum
work=$WORK
img=$work/disk.img

# Display numbers: 1 NTFS (active), 2 FAT16, 3 Linux, 4 extended, 5 logical FAT16.
truncate -s 8M "$img"
sfdisk -q "$img" <<'T'
label: dos
start=2048, size=2048, type=7, bootable
start=4096, size=2048, type=6
start=6144, size=2048, type=83
start=8192, type=f
size=2048, type=6
T

# unchanged WARNING ARGS...: exit 0 with the warning and the status table, nothing written.
unchanged() {
  local msg=$1 s; shift
  s=$(sum "$img")
  kd "$img" -- "$@"
  expect_rc 0 "$*"
  expect_out "$msg" "$*"
  expect_out "Partitions on fixed disk 1" "$*"
  [ "$(sum "$img")" = "$s" ] || fail "$*: the image changed"
}
# changed MARKER WANT ARGS...: exit 0, the partition marked, sfdisk's table is then WANT
# (one "start size type bootable" line per partition).
changed() {
  local marker=$1 want=$2; shift 2
  kd "$img" -- "$@"
  expect_rc 0 "$*"
  expect_out "$marker" "$*"
  local got; got=$(table_of "$img")
  [ "$got" = "$want" ] || fail "$*: table is"$'\n'"$got"$'\n'"expected"$'\n'"$want"
}
# Expected table with given types for slots 1-4 and the logical drive, and the bootable one.
tbl() {  # tbl T1 T2 T3 T4 T5 BOOTSLOT [no-logicals]
  local b=$6 i t=("$1" "$2" "$3" "$4")
  local starts=(2048 4096 6144 8192) sizes=(2048 2048 2048 8192)
  for i in 0 1 2 3; do echo "${starts[$i]} ${sizes[$i]} ${t[$i]} $([ "$b" = $((i + 1)) ] && echo 1 || echo 0)"; done
  [ -z "${7:-}" ] && echo "10240 2048 $5 0"
  return 0
}

changed_checked=$(table_of "$img")
[ "$changed_checked" = "$(tbl 7 6 83 f 6 1)" ] || { echo "sfdisk produced an unexpected table"; exit 1; }

# Command line and partition number checks: exit code, message, arguments; image unchanged.
refuse "$img" <<'T'
2|~Invalid partition number -- 0|1 /ACT /P:0
2|~Invalid partition number -- 2x|1 /ACT /P:2x
2|~Invalid partition number -- -4294967295|1 /HIDE /P:-4294967295
2|~Invalid partition number -- -1|1 /-HIDE /P:-1
2|~Invalid partition number -- 4294967297|1 /ACT /P:4294967297
2|~Invalid partition number -- 99999999999|1 /-ACT /P:99999999999
2|~Required switch missing -- /P|1 /ACT
1|~Invalid partition number -- 9|1 /HIDE /P:9
2|~Required parameter missing -- fixed disk number|/ACT /P:1
1|~No such fixed disk -- 2|2 /ACT /P:1
T

# /ACT rules, in order.
unchanged "The specified partition is already active" 1 /ACT /P:1
refuse "$img" <<<"1|~Logical DOS drives may not be set active|1 /ACT /P:5"
refuse "$img" <<<"1|~The extended DOS partition may not be set active|1 /ACT /P:4"
changed "*ACTIVATED*" "$(tbl 7 6 83 f 6 2)" 1 /ACT /P:2

# /-ACT: a partition that is not active; the only active one needs a Yes.
unchanged "The specified partition is not active" 1 /-ACT /P:1
refuse "$img" <<<"1|~will not be bootable until a partition is set active. Continue?|1 /-ACT /P:2"
changed "*DEACTIVATED*" "$(tbl 7 6 83 f 6 0)" 1 /-ACT /P:2 /Y
changed "*ACTIVATED*" "$(tbl 7 6 83 f 6 1)" 1 /ACT /P:1

# /HIDE and /-HIDE.
changed "*HIDDEN*" "$(tbl 17 6 83 f 6 1)" 1 /HIDE /P:1
expect_no_out "No partitions are set active" "an image is not the boot disk"
unchanged "The specified partition is already hidden" 1 /HIDE /P:1
refuse "$img" <<<"1|~Cannot hide partitions of this type|1 /HIDE /P:3"
unchanged "The specified partition is not currently hidden" 1 /-HIDE /P:3
changed "*UNHIDDEN*" "$(tbl 7 6 83 f 6 1)" 1 /-HIDE /P:1
changed "*HIDDEN*" "$(tbl 7 16 83 f 6 1)" 1 /HIDE /P:2
refuse "$img" <<<"1|~Hidden partitions may not be set active|1 /ACT /P:2"
changed "*UNHIDDEN*" "$(tbl 7 6 83 f 6 1)" 1 /-HIDE /P:2
changed "*HIDDEN*" "$(tbl 7 6 83 f 16 1)" 1 /HIDE /P:5
changed "*UNHIDDEN*" "$(tbl 7 6 83 f 6 1)" 1 /-HIDE /P:5
# A hidden extended partition holds no chain that sfdisk follows; unhiding brings it back.
changed "*HIDDEN*" "$(tbl 7 6 83 1f 6 1 no-logicals)" 1 /HIDE /P:4
changed "*UNHIDDEN*" "$(tbl 7 6 83 f 6 1)" 1 /-HIDE /P:4

# Unhiding an extended partition while the disk has one already.
truncate -s 8M "$work/two.img"
sfdisk -q "$work/two.img" <<'T'
label: dos
start=2048, size=2048, type=1f
start=4096, type=5
T
img=$work/two.img
refuse "$img" <<<"1|~Unhiding this partition would result in there being more than one extended DOS partition|1 /-HIDE /P:1"

# GPT disks have neither active flags nor hidden types.
truncate -s 8M "$work/gpt.img"
printf 'label: gpt\nstart=2048, size=2048\n' | sfdisk -q "$work/gpt.img"
img=$work/gpt.img
refuse "$img" <<<"1|~GPT disk|1 /ACT /P:1"
refuse "$img" <<<"1|~GPT disk|1 /HIDE /P:1"
finish
