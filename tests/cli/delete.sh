#!/usr/bin/env bash
# /DEL on disk images laid out by sfdisk: refusals and declined questions (image unchanged),
# deletion of every kind and of all, the bytes every wipe mode leaves behind, MBR and GPT; the
# remaining table is read back with sfdisk after each change.
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
# expect_layout CONTEXT NAMES: the table holds exactly the entries named (P1 ... L6).
expect_layout() {
  local want="" e
  for e in $2; do want+="${!e}"$'\n'; done
  [ "$(printf '%s' "$want" | sort)" = "$(parts "$img" | cut -d' ' -f2- | sort)" ] ||
    fail "$1: table is [$(parts "$img")], expected [$2]"
  table_ok "$img" "$1"
}
intact() { only_byte "$img" "$1" "$2" 119 || fail "$3: sectors $1+$2 were changed"; }

fresh
refuse "$img" <<'T'
2|Required switch missing. Specify one of /PRI, /EXT, /LOG, /P, or /ALL|1 /DEL
2|Conflicting switches. Specify one of /PRI, /EXT, /LOG, /P, or /ALL|1 /DEL /PRI /ALL
2|Invalid primary DOS partition number -- 0|1 /DEL /PRI:0
2|Invalid extended DOS partition number -- x|1 /DEL /EXT:x
2|Invalid logical DOS drive number -- 2x|1 /DEL /LOG:2x
2|Invalid partition number -- -1|1 /DEL /P:-1
2|Invalid partition number -- -4294967295|1 /DEL /P:-4294967295
2|Invalid partition number -- 2147483648|1 /DEL /P:2147483648
2|Invalid logical DOS drive number -- 99999999999|1 /DEL /LOG:99999999999
2|Switch requires a value -- /LOG|1 /DEL /LOG
2|Conflicting switches. Specify one of /QWIPE, /DODWIPE, or /CUSTOMWIPE|1 /DEL /ALL /QWIPE /DODWIPE
2|Invalid custom wipe passes -- 0|1 /DEL /ALL /CUSTOMWIPE:0
2|Invalid custom wipe passes -- 101|1 /DEL /ALL /CUSTOMWIPE:101
1|Invalid partition number -- 9|1 /DEL /P:9
1|Invalid primary DOS partition number -- 3|1 /DEL /PRI:3
1|Invalid logical drive number -- 3|1 /DEL /LOG:3
1|Invalid extended DOS partition number -- 2|1 /DEL /EXT:2
1|~The extended DOS partition contains 2 logical DOS drives. Delete it anyway?|1 /DEL /EXT /QWIPE
1|No such fixed disk -- 2|2 /DEL /ALL
T
# The question names one drive without the plural; No and the end of input change nothing.
kd "$img" 1 /DEL /LOG:2
for answer in n ""; do
  before=$(sha "$img")
  kd_answer "$answer" "$img" 1 /DEL /P:3 /DODWIPE
  expect_rc 1 "one logical drive, answer '$answer'"
  expect_text "The extended DOS partition contains 1 logical DOS drive. Delete it anyway?" "one logical drive"
  [ "$(sha "$img")" = "$before" ] || fail "declined extended deletion (answer '$answer') changed the image"
done

# ---- Deletion of each kind, without a wipe (the data stays).
while IFS='|' read -r args want; do
  fresh
  # shellcheck disable=SC2086
  kd "$img" 1 /DEL $args
  expect_rc 0 "$args"; expect_layout "$args" "$want"; intact 6144 4096 "$args"
  [ -z "$want" ] || expect_text "*DELETED*" "$args"
done <<'T'
/PRI|P2 P3 P4 L5 L6
/PRI:2|P1 P2 P3 L5 L6
/LOG:1|P1 P2 P3 P4 L6
/LOG:2|P1 P2 P3 P4 L5
/EXT /Y|P1 P2 P4
/P:1|P2 P3 P4 L5 L6
/P:2|P1 P3 P4 L5 L6
/P:3 /Y|P1 P2 P4
/P:5|P1 P2 P3 P4 L5
/P:6|P1 P2 P3 L5 L6
/ALL|
T
refuse "$img" <<'T'
1|No partitions to delete|1 /DEL /ALL
1|No primary DOS partition to delete|1 /DEL /PRI
1|No extended DOS partition to delete|1 /DEL /EXT
1|No logical drive(s) to delete|1 /DEL /LOG:1
T

# ---- Wipes of the first logical drive: the progress title, the byte the last pass left
# everywhere, the neighbours untouched.
for mode in /QWIPE /DODWIPE /CUSTOMWIPE:1 /CUSTOMWIPE:2; do
  fresh; kd "$img" 1 /DEL /P:4 "$mode"
  expect_rc 0 "$mode"
  r=$(first_byte "$img" 12288)
  if [ "$mode" = /QWIPE ]; then [ "$r" = 0 ]; else [ "$r" != 53 ] && [ "$r" != 202 ]; fi ||
    fail "$mode: last byte $r"
  only_byte "$img" 12288 4096 "$r" || fail "$mode: partition not uniformly $r"
  expect_line "$(printf 'Partition will contain 0x%02X for all bytes in all sectors when wipe complete.' "$r")" "$mode"
  title="Wiping  2.00M"; [ "$mode" = /DODWIPE ] && title="DoD 5220.22-M STD $title"
  printf '%s\n' "$OUT" | grep -q "^$title" || fail "$mode: no progress display titled '$title'"
  intact 18432 4096 "$mode"; intact 2048 4096 "$mode"
  expect_layout "$mode" "P1 P2 P3 P4 L6"
done
fresh; kd "$img" 1 /DEL /ALL /QWIPE
expect_rc 0 "/ALL /QWIPE"
for n in 1 2 3 4 5 6; do expect_line "Wiping Partition $n:" "/ALL /QWIPE"; done
only_byte "$img" 2048 $((55296 - 2048)) 0 || fail "/ALL /QWIPE left data between the first and last partition"
expect_layout "/ALL /QWIPE" ""

# ---- GPT: one entry wiped and removed, the other untouched; then all; both tables stay valid.
img=$WORK/gpt.img
truncate -s 16M "$img"
printf 'label: gpt\nstart=2048, size=4096\nstart=6144, size=4096, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4\n' |
  sfdisk -q "$img" >/dev/null
fill "$img" 2048 8192 119
kd "$img" 1 /DEL /P:2 /QWIPE
expect_rc 0 "GPT /P:2"; table_ok "$img" "GPT /P:2"
only_byte "$img" 6144 4096 0 || fail "GPT /QWIPE left data"
intact 2048 4096 "GPT neighbour"
[ "$(parts "$img" | cut -d' ' -f2,3)" = "2048 4096" ] || fail "GPT table: $(parts "$img")"
kd "$img" 1 /DEL /ALL
expect_rc 0 "GPT /ALL"; table_ok "$img" "GPT /ALL"
[ "$(count_parts "$img")" -eq 0 ] || fail "GPT /ALL left: $(parts "$img")"

finish
