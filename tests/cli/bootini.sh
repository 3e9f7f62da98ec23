#!/usr/bin/env bash
# /BOOTINI on the boot.ini files under tests/cli/bootini: every edit is compared byte for byte
# with the expected file, the previous file must come back as boot.ini.bak, and every refusal
# leaves boot.ini and its backup unchanged. Partitions come from an image Kdisk made, read
# back with sfdisk.
set -u
KDISK=${1:?usage: bootini.sh path/to/kdisk}
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools cmp sha256sum
golden=$(cd "$(dirname "$0")/bootini" && pwd)

# Display numbers: 1 primary, 2 extended, 3 and 4 its logical drives, 5 primary in slot 3.
img=$WORK/disk.img
truncate -s 40M "$img"
for c in "/CRE /PRI /SZ:4 /FOR /Q" "/CRE /EXT /SZ:16" "/CRE /LOG /SZ:4 /FOR /Q" "/CRE /LOG /SZ:4 /FOR /Q" \
  "/CRE /PRI /SZ:4 /FOR /Q /Y"; do
  # shellcheck disable=SC2086
  kd "$img" 1 $c
  [ "$RC" = 0 ] || { echo "cannot make the test image: $c: $ERR"; exit 1; }
done
# The loader numbers primaries (slots 1-4, no extended types) first, then logical drives
# (sfdisk numbers 5 on): sfdisk's numbers 3 and 5 must be ARC partitions 2 and 3.
arc=$(sfdisk -J "$img" | jq -r '[.partitiontable.partitions[] | {n: (.node | capture("(?<n>[0-9]+)$").n | tonumber), t: .type}]
  | ([.[] | select(.n <= 4 and (.t | IN("5", "f", "85") | not))] | map(.n)) as $p
  | ([.[] | select(.n > 4)] | map(.n)) as $l | "\($p | index(3) + 1) \($l | index(5) + 1 + ($p | length))"')
[ "$arc" = "2 3" ] || { echo "unexpected test image layout (ARC numbers $arc): $(parts "$img")"; exit 1; }
image_sum=$(sha "$img")
# Disk 2, for the refusals: a GPT disk.
gpt=$WORK/gpt.img
truncate -s 4M "$gpt"
printf 'label: gpt\n,1M\n' | sfdisk -q "$gpt" >/dev/null 2>&1 || { echo "sfdisk cannot make a GPT image"; exit 1; }

# edit INPUT EXPECTED ARGS...: runs /BOOTINI on a copy of INPUT; boot.ini must then equal
# EXPECTED and boot.ini.bak the input.
edit() {
  local input=$1 expected=$2 dir; shift 2
  dir=$(mktemp -d "$WORK/case-XXXX")
  cp "$golden/$input" "$dir/boot.ini"
  kd "$img" /BOOTINI "/INIFILE:$dir/boot.ini" "$@"
  expect_rc 0 "$input $*"
  cmp -s "$dir/boot.ini" "$golden/$expected" ||
    fail "$input $*: boot.ini differs from $expected:"$'\n'"$(diff <(od -c "$golden/$expected") <(od -c "$dir/boot.ini"))"
  cmp -s "$dir/boot.ini.bak" "$golden/$input" || fail "$input $*: boot.ini.bak is not the previous file"
  [ -z "$(find "$dir" -name '*.kdisk-*')" ] || fail "$input $*: a temporary file is left"
  last=$dir
}

edit xp.ini xp.add-winnt.expected /ADD /D:1 /P:5 "/DESC:Windows XP second copy" /WINNT /SYSFOLDER:WINDOWS
expect_line 'Boot entry 2 added -- multi(0)disk(0)rdisk(0)partition(2)\WINDOWS="Windows XP second copy"' "add"
edit xp.ini xp.add-dat.expected /ADD /D:1 /P:3 "/DESC:Lab: DOS 6.22?"
start=$(sfdisk -J "$img" | jq '.partitiontable.partitions[] | select(.node | endswith("5")) | .start')
extract "$img" "$start" 1 | cmp -s - "$last/Lab DOS 6.22.dat" || fail "the .dat file is not the first sector of partition 3"
# Links planted at the names temporary files could take are never followed or reused.
dir=$(mktemp -d "$WORK/links-XXXX")
cp "$golden/several.ini" "$dir/boot.ini"
printf 'victim\n' >"$dir/victim"
(
  for name in boot.ini.kdisk-new boot.ini.bak.kdisk-new; do ln -s victim "$dir/$name"; done
  for n in 0 1 2 3; do ln -s victim "$dir/boot.ini.kdisk-$BASHPID-$n.tmp"; ln -s victim "$dir/boot.ini.bak.kdisk-$BASHPID-$n.tmp"; done
  exec "$KDISK" /NOOSDISK /BOOTINI "/INIFILE:$dir/boot.ini" /DEFAULT /ENTRY:4 /TIMEOUT:5 </dev/null >/dev/null 2>&1
) || fail "planted links: /BOOTINI failed"
[ "$(cat "$dir/victim")" = victim ] || fail "planted links: a link was followed"
[ ! -L "$dir/boot.ini" ] && [ ! -L "$dir/boot.ini.bak" ] || fail "planted links: boot.ini or its backup is a link"
cmp -s "$dir/boot.ini" "$golden/several.default4.expected" || fail "planted links: boot.ini is not the edited file"
[ "$(find "$dir" -type f -name '*.kdisk-*' | wc -l)" -eq 0 ] || fail "planted links: a temporary file is left"
edit several.ini several.remove2.expected /REMOVE /ENTRY:2
expect_line 'Entry 1 "Microsoft Windows 2000 Professional" is now the default' "remove the default"
edit several.ini several.remove5.expected /REMOVE /ENTRY:5
edit several.ini several.default4.expected /DEFAULT /ENTRY:4 /TIMEOUT:5
edit comments.ini comments.default2.expected /DEFAULT /TIMEOUT:0 /ENTRY:2
edit comments.ini comments.add.expected /ADD /D:1 /P:1 "/DESC:Lab NT" /WINNT
edit comments.ini comments.remove1.expected /REMOVE /ENTRY:1
edit lf.ini lf.add.expected /ADD /D:1 /P:3 "/DESC:Logical NT" /WINNT
edit lf.ini lf.remove2.expected /REMOVE /ENTRY:2

# Other ways to name the disk, the folder and the boot-sector file: the new last line.
while IFS='|' read -r line args; do
  dir=$(mktemp -d "$WORK/add-XXXX"); mkdir "$dir/sub"; cp "$golden/xp.ini" "$dir/boot.ini"
  # shellcheck disable=SC2086
  kd "$img" /BOOTINI /ADD "/INIFILE:$dir/boot.ini" /DESC:New ${args//@/$dir}
  expect_rc 0 "$args"
  [ "$(tail -n 1 "$dir/boot.ini")" = "$line"$'\r' ] || fail "$args: last line $(tail -n 1 "$dir/boot.ini")"
done <<'T'
multi(0)disk(0)rdisk(0)partition(4)\w\x="New"|/D:1 /P:4 /WINNT /SYSFOLDER:w/x
multi(0)disk(0)rdisk(0)partition(1)\WINNT="New"|1 /P:1 /WINNT
C:\sub\three.dat="New"|/D:1 /P:3 /BSECTFILE:@/sub/three.dat
T
extract "$img" "$start" 1 | cmp -s - "$dir/sub/three.dat" || fail "/BSECTFILE: not the first sector of partition 3"

# The listing numbers the entries and marks the default; it writes nothing.
dir=$WORK/list; mkdir "$dir"; cp "$golden/several.ini" "$dir/boot.ini"
for args in "/BOOTINI" "/BOOTINI /DEFAULT"; do
  # shellcheck disable=SC2086
  kd "$img" $args "/INIFILE:$dir/boot.ini"
  expect_rc 0 "$args"
  expect_line '   2 * "Microsoft Windows XP Professional"' "$args"
  expect_line '   4   "Microsoft Windows Recovery Console"' "$args"
  expect_line '       C:\CMDCONS\BOOTSECT.DAT /cmdcons' "$args"
  cmp -s "$dir/boot.ini" "$golden/several.ini" && [ ! -e "$dir/boot.ini.bak" ] || fail "$args wrote"
done

# Refusals: CODE|MESSAGE (a whole line, or ~text found anywhere)|INPUT, then the arguments one
# per field. boot.ini and its backup stay byte for byte as they were (compared with cmp).
printf '[operating systems]\r\nC:\\="DOS"\r\n' >"$WORK/noloader.ini"
printf '[boot loader]\r\ntimeout=1\r\n' >"$WORK/nosystems.ini"
{ cat "$golden/several.ini"; printf 'garbage line\r\n'; } >"$WORK/garbage.ini"
cp "$golden/xp.ini" "$WORK/xp.ini"
printf '\377\376[\0b\0' >"$WORK/utf16.ini"
refusals() {
  cat <<'T'
1|~same path and comes first|several.ini|/DEFAULT|/ENTRY:3
1|~there is no boot entry 6 (the file has 5)|several.ini|/REMOVE|/ENTRY:6
1|~entry 1 is the only boot entry|xp.ini|/REMOVE|/ENTRY:1
1|~entry 1 already starts multi(0)disk(0)rdisk(0)partition(1)\WINDOWS|xp.ini|/ADD|/D:1|/P:1|/WINNT|/SYSFOLDER:WINDOWS|/DESC:Microsoft Windows XP Professional
1|No such fixed disk -- 3|xp.ini|/ADD|/D:3|/P:1|/WINNT|/DESC:x
1|Fixed disk 2 is a GPT disk -- the boot loader cannot start Windows from it|xp.ini|/ADD|/D:2|/P:1|/WINNT|/DESC:x
1|Invalid partition number -- 9|xp.ini|/ADD|/D:1|/P:9|/WINNT|/DESC:x
1|Partition 2 is an extended partition and cannot be started from the boot menu|xp.ini|/ADD|/D:1|/P:2|/DESC:x
2|Conflicting switches. Specify one of /ADD, /REMOVE or /DEFAULT|xp.ini|/ADD|/REMOVE|/ENTRY:1
2|Invalid timeout -- abc (0 to 999 seconds)|xp.ini|/DEFAULT|/TIMEOUT:abc
2|Invalid entry number -- 0|xp.ini|/REMOVE|/ENTRY:0
2|Required switch missing -- /ENTRY|xp.ini|/REMOVE
2|Required switch missing -- /D|xp.ini|/ADD|/P:1|/DESC:x
2|Required switch missing -- /DESC|xp.ini|/ADD|/D:1|/P:1
2|Invalid description -- a"b|xp.ini|/ADD|/D:1|/P:1|/DESC:a"b
2|Unknown switch -- /TIMEOUT|xp.ini|/REMOVE|/ENTRY:1|/TIMEOUT:3
2|Too many parameters -- 2|xp.ini|1|2|/DEFAULT
2|~Conflicting disk parameters|xp.ini|1|/ADD|/D:2|/P:1|/WINNT|/DESC:x
2|Invalid fixed disk number -- 0|xp.ini|/ADD|/D:0|/P:1|/WINNT|/DESC:x
2|Invalid partition number -- 1x|xp.ini|/ADD|/D:1|/P:1x|/WINNT|/DESC:x
2|Conflicting values for switch -- /DESC:a /DESC:b|xp.ini|/ADD|/D:1|/P:1|/WINNT|/DESC:a|/DESC:b
2|Unknown switch -- /ENTRY|xp.ini|/ADD|/D:1|/P:1|/WINNT|/DESC:x|/ENTRY:1
2|Conflicting switches. /SYSFOLDER may only be used in conjunction with /WINNT|xp.ini|/ADD|/D:1|/P:1|/SYSFOLDER:X|/DESC:x
2|Conflicting switches. /BSECTFILE may not be used in conjunction with /WINNT|xp.ini|/ADD|/D:1|/P:1|/WINNT|/BSECTFILE:x|/DESC:x
2|~must lie in the folder of|xp.ini|/ADD|/D:1|/P:1|/BSECTFILE:/elsewhere/x.dat|/DESC:x
1|~no [boot loader] section|noloader.ini|/DEFAULT|/TIMEOUT:3
1|~no [operating systems] section|nosystems.ini|/REMOVE|/ENTRY:1
1|~line 10 cannot be read (no '=' between path and description): garbage line|garbage.ini|/DEFAULT|/ENTRY:1
1|~UTF-16|utf16.ini|/DEFAULT|/ENTRY:1
T
}
printf 'previous\r\n' >"$WORK/previous.bak"
n=0
while IFS='|' read -r -a f; do
  code=${f[0]} msg=${f[1]} input=${f[2]}
  src=$golden/$input
  [ -f "$src" ] || src=$WORK/$input
  dir=$WORK/refuse$((++n))
  mkdir "$dir"
  cp "$src" "$dir/boot.ini"
  cp "$WORK/previous.bak" "$dir/boot.ini.bak"
  kd "$img" "$gpt" -- /BOOTINI "/INIFILE:$dir/boot.ini" "${f[@]:3}"
  what="$input ${f[*]:3}"
  expect_rc "$code" "$what"
  case "$msg" in "~"*) expect_text "${msg#\~}" "$what" ;; *) expect_line "$msg" "$what" ;; esac
  # Byte for byte as before, and nothing added beside them.
  cmp -s "$dir/boot.ini" "$src" && cmp -s "$dir/boot.ini.bak" "$WORK/previous.bak" ||
    fail "$what: boot.ini or its backup changed"
  files=("$dir"/*)
  [ "${#files[@]}" = 2 ] || fail "$what: files were added: ${files[*]}"
done < <(refusals)

# No boot.ini at all, and no /INIFILE: on a system without C:\boot.ini.
kd "$img" /BOOTINI /REMOVE /ENTRY:1 "/INIFILE:$WORK/none/boot.ini"
expect_rc 1 "missing file"; expect_text "Cannot open $WORK/none/boot.ini" "missing file"
kd "$img" /BOOTINI /REMOVE /ENTRY:1
expect_rc 2 "no /INIFILE"; expect_text "Required switch missing -- /INIFILE" "no /INIFILE"

# A boot-sector file that exists with other contents is replaced only after a Yes; a No
# changes nothing.
dir=$WORK/dat; mkdir "$dir"; cp "$golden/xp.ini" "$dir/boot.ini"
printf 'other' >"$dir/Lab DOS 6.22.dat"
before="$(sha "$dir/boot.ini") $(sha "$dir/Lab DOS 6.22.dat")"
kd_answer $'n\n' "$img" /BOOTINI /ADD /D:1 /P:3 "/DESC:Lab: DOS 6.22?" "/INIFILE:$dir/boot.ini"
expect_rc 1 "No to overwrite"; expect_text "already exists. Overwrite it?" "No to overwrite"
[ "$(sha "$dir/boot.ini") $(sha "$dir/Lab DOS 6.22.dat")" = "$before" ] && [ ! -e "$dir/boot.ini.bak" ] ||
  fail "No to overwrite: files changed"
kd "$img" /BOOTINI /ADD /D:1 /P:3 "/DESC:Lab: DOS 6.22?" "/INIFILE:$dir/boot.ini" /Y
expect_rc 0 "Yes to overwrite"
cmp -s "$dir/boot.ini" "$golden/xp.add-dat.expected" || fail "Yes to overwrite: boot.ini"
extract "$img" "$start" 1 | cmp -s - "$dir/Lab DOS 6.22.dat" || fail "Yes to overwrite: .dat"

[ "$(sha "$img")" = "$image_sum" ] || fail "/BOOTINI changed the disk image"
finish
