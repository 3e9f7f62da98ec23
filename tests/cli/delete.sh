#!/usr/bin/env bash
# /DEL on disk images laid out by sfdisk: switch errors (image unchanged), the choice of the
# partition, the questions, deletion of every kind and of all, and the bytes every wipe mode
# leaves behind; the remaining table is checked with sfdisk after each change.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning

# 32 MB: 1 FAT16 (active), 2 Linux, 3 extended with logical drives 5 (FAT16) and 6 (NTFS),
# 4 FAT16; display numbers 1 2 3, then 4 and 5 for the logical drives, 6 for slot 4.
# Every partition's data is 0x77.
base=$WORK/base.img
truncate -s 32M "$base"
sfdisk -q "$base" >/dev/null <<'T'
label: dos
start=2048, size=4096, type=6, bootable
start=6144, size=4096, type=83
start=10240, size=40960, type=5
start=51200, size=4096, type=6
start=12288, size=4096, type=6
start=18432, size=4096, type=7
T
for r in "2048 4096" "6144 4096" "51200 4096" "12288 4096" "18432 4096"; do fill "$base" $r 119; done
P1="2048 4096 6"; P2="6144 4096 83"; P3="10240 40960 5"; P4="51200 4096 6"; L5="12288 4096 6"; L6="18432 4096 7"

fresh() { cp "$base" "$WORK/d.img"; img=$WORK/d.img; }
# expect_layout CONTEXT ENTRY... : the table holds exactly these "start size type" entries.
expect_layout() {
  local ctx=$1; shift
  local want got
  want=$(printf '%s\n' "$@" | sed '/^$/d' | sort)
  got=$(parts "$img" | cut -d' ' -f2- | sort)
  [ "$want" = "$got" ] || fail "$ctx: table is [$got], expected [$want]"
}
intact() { only_byte "$img" "$1" "$2" 119 || fail "$3: sectors $1+$2 were changed"; }

# ---- Refusals: exact message, exit code, image unchanged.
fresh
refuse() {
  local code=$1 msg=$2 before; shift 2
  before=$(sha "$img")
  kd "$img" "$@"
  expect_rc "$code" "$*"; expect_line "$msg" "$*"
  [ "$(sha "$img")" = "$before" ] || fail "$*: image changed"
}
refuse 2 "Required switch missing. Specify one of /PRI, /EXT, /LOG, /P, or /ALL" 1 /DEL
refuse 2 "Conflicting switches. Specify one of /PRI, /EXT, /LOG, /P, or /ALL" 1 /DEL /PRI /ALL
refuse 2 "Invalid primary DOS partition number -- 0" 1 /DEL /PRI:0
refuse 2 "Invalid extended DOS partition number -- x" 1 /DEL /EXT:x
refuse 2 "Invalid logical DOS drive number -- 2x" 1 /DEL /LOG:2x
refuse 2 "Invalid partition number -- -1" 1 /DEL /P:-1
refuse 2 "Switch requires a value -- /LOG" 1 /DEL /LOG
refuse 2 "Conflicting switches. Specify one of /QWIPE, /DODWIPE, or /CUSTOMWIPE" 1 /DEL /ALL /QWIPE /DODWIPE
refuse 2 "Invalid custom wipe passes -- 0" 1 /DEL /ALL /CUSTOMWIPE:0
refuse 2 "Invalid custom wipe passes -- 101" 1 /DEL /ALL /CUSTOMWIPE:101
refuse 1 "Invalid partition number -- 9" 1 /DEL /P:9
refuse 1 "Invalid primary DOS partition number -- 3" 1 /DEL /PRI:3
refuse 1 "Invalid logical drive number -- 3" 1 /DEL /LOG:3
refuse 1 "Invalid extended DOS partition number -- 2" 1 /DEL /EXT:2
refuse 1 "No such fixed disk -- 2" 2 /DEL /ALL
before=$(sha "$img")
kd_answer "n" "$img" 1 /DEL /EXT /QWIPE
expect_rc 1 "extended declined"
expect_text "The extended DOS partition contains 2 logical DOS drives. Delete it anyway?" "extended declined"
[ "$(sha "$img")" = "$before" ] || fail "declined extended deletion changed the image"
kd "$img" 1 /DEL /EXT
expect_rc 1 "extended at end of input"
[ "$(sha "$img")" = "$before" ] || fail "extended deletion at end of input changed the image"

# ---- Deletion of each kind (no wipe: the data stays).
fresh; kd "$img" 1 /DEL /PRI
expect_rc 0 "/PRI"; expect_layout "/PRI" "$P2" "$P3" "$P4" "$L5" "$L6"; intact 2048 4096 "/PRI without wipe"
have_status && expect_text "*DELETED*" "/PRI"
fresh; kd "$img" 1 /DEL /PRI:2
expect_rc 0 "/PRI:2"; expect_layout "/PRI:2" "$P1" "$P2" "$P3" "$L5" "$L6"
fresh; kd "$img" 1 /DEL /LOG:2
expect_rc 0 "/LOG:2"; expect_layout "/LOG:2" "$P1" "$P2" "$P3" "$P4" "$L5"
fresh; kd "$img" 1 /DEL /LOG:1
expect_rc 0 "/LOG:1"; expect_layout "/LOG:1" "$P1" "$P2" "$P3" "$P4" "$L6"
fresh; kd_answer "y" "$img" 1 /DEL /EXT
expect_rc 0 "/EXT"; expect_layout "/EXT" "$P1" "$P2" "$P4"
fresh; kd "$img" 1 /DEL /P:2
expect_rc 0 "/P:2 (Linux)"; expect_layout "/P:2" "$P1" "$P3" "$P4" "$L5" "$L6"
fresh; kd "$img" 1 /DEL /P:5
expect_rc 0 "/P:5 (second logical)"; expect_layout "/P:5" "$P1" "$P2" "$P3" "$P4" "$L5"
fresh; kd "$img" 1 /DEL /P:6
expect_rc 0 "/P:6 (last primary)"; expect_layout "/P:6" "$P1" "$P2" "$P3" "$L5" "$L6"
fresh; kd "$img" 1 /DEL /P:3 /Y
expect_rc 0 "/P:3 (extended)"; expect_layout "/P:3" "$P1" "$P2" "$P4"
fresh; kd "$img" 1 /DEL /ALL
expect_rc 0 "/ALL"; expect_layout "/ALL"; intact 6144 4096 "/ALL without wipe"
kd "$img" 1 /DEL /ALL
expect_rc 1 "/ALL on empty"; expect_line "No partitions to delete" "/ALL on empty"
kd "$img" 1 /DEL /PRI; expect_rc 1 "no primary"; expect_line "No primary DOS partition to delete" "no primary"
kd "$img" 1 /DEL /EXT; expect_rc 1 "no extended"; expect_line "No extended DOS partition to delete" "no extended"
kd "$img" 1 /DEL /LOG:1; expect_rc 1 "no logical"; expect_line "No logical drive(s) to delete" "no logical"

# ---- Wipes: the bytes left behind, the neighbours untouched.
fresh; kd "$img" 1 /DEL /P:1 /QWIPE
expect_rc 0 "/QWIPE"
expect_line "Partition will contain 0x00 for all bytes in all sectors when wipe complete." "/QWIPE"
only_byte "$img" 2048 4096 0 || fail "/QWIPE left non-zero bytes"
intact 6144 4096 "/QWIPE neighbour"; expect_layout "/QWIPE" "$P2" "$P3" "$P4" "$L5" "$L6"
for mode in /DODWIPE /CUSTOMWIPE:1 /CUSTOMWIPE:2; do
  fresh; kd "$img" 1 /DEL /P:4 "$mode"
  expect_rc 0 "$mode"
  r=$(first_byte "$img" 12288)
  [ "$r" != 53 ] && [ "$r" != 202 ] && [ "$r" != 119 ] || fail "$mode: last byte $r"
  only_byte "$img" 12288 4096 "$r" || fail "$mode: partition not uniformly $r"
  expect_line "$(printf 'Partition will contain 0x%02X for all bytes in all sectors when wipe complete.' "$r")" "$mode"
  intact 18432 4096 "$mode neighbour"; intact 2048 4096 "$mode neighbour"
  expect_layout "$mode" "$P1" "$P2" "$P3" "$P4" "$L6"
done
fresh; kd "$img" 1 /DEL /ALL /QWIPE
expect_rc 0 "/ALL /QWIPE"
for n in 1 2 3 4 5 6; do expect_line "Wiping Partition $n:" "/ALL /QWIPE"; done
only_byte "$img" 2048 $((55296 - 2048)) 0 || fail "/ALL /QWIPE left data between the first and last partition"
expect_layout "/ALL /QWIPE"

# ---- GPT: the second entry wiped and removed, the first untouched.
img=$WORK/gpt.img
truncate -s 16M "$img"
printf 'label: gpt\nstart=2048, size=4096\nstart=6144, size=4096, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4\n' |
  sfdisk -q "$img" >/dev/null
fill "$img" 2048 8192 119
kd "$img" 1 /DEL /P:2 /QWIPE
expect_rc 0 "GPT /P:2"
only_byte "$img" 6144 4096 0 || fail "GPT /QWIPE left data"
intact 2048 4096 "GPT neighbour"
[ "$(count_parts "$img")" -eq 1 ] && [ "$(part "$img" 1 | cut -d' ' -f1)" = 2048 ] || fail "GPT table: $(parts "$img")"

finish
