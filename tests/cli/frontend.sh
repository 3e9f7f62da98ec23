#!/usr/bin/env bash
# Command-line behaviour of the front end: conflicts, switch errors, help, banner, batch mode,
# the error file and exit codes. Every run passes /NOOSDISK and reaches no disk.
set -u
KDISK_BIN=${1:?usage: frontend.sh path/to/kdisk}
KDISK=$KDISK_BIN
export KDISK_NO_REBOOT=1
unset KDISK_TEST_FAULT
. "$(dirname "$0")/lib/partition.bash"

# --- banner
for args in "/VERSION" "/ver" "/CRE /DEL /VERSION" "/VERSION /FOO:bar"; do
  run $args
  expect_rc 0 "$args"
  [ "$(printf '%s\n' "$out" | head -n1)" = "Kdisk 11.5.1 (build=2259). Built on Dec  8 2009 06:02:36." ] ||
    fail "$args: banner line"
  [ "$(printf '%s\n' "$out" | wc -l)" -ge 2 ] || fail "$args: notice line missing"
done

# --- conflicting command switches and /Y with /SURE: exit 2, exact messages
general="Conflicting switches. Specify one of /CRE, /DEL, /STATUS, /ACT, /HIDE, /MBR, /DISKWIPE or /BOOTINI"
while IFS='|' read -r args msg; do
  run $args
  expect_rc 2 "$args"
  [ "$err" = "$msg" ] || fail "$args: stderr is not exactly '$msg'"
  [ -z "$out" ] || fail "$args: unexpected output"
done <<EOT
/CRE /DEL|$general
1 /STATUS /VIEW:0|$general
/MBR /GPT /?|$general
/ACT /-ACT /CRE|Conflicting switches. Specify either /ACT or /-ACT
/hide /-Hide|Conflicting switches. Specify either /HIDE or /-HIDE
/STATUS /Y /SURE|Conflicting switches. Specify either /Y or /SURE
/Y /SURE|Conflicting switches. Specify either /Y or /SURE
/ATASECURITY|/ATASECURITY switch is only supported in the DOS version of kdisk
EOT

# --- switch errors reported by the command bodies (exit 2, exact text)
while IFS='|' read -r args msg; do
  run $args
  if [ "$rc" = 1 ] && case "$err" in *"not available in this build"*) true ;; *) false ;; esac; then
    echo "note: '$args' not checked, the command is not in this build"
    continue
  fi
  expect_rc 2 "$args"
  expect_in "$msg" err "$args"
done <<EOT
/STATUS /FOO|Unknown switch -- /FOO
/STATUS /STAT|Unknown switch -- /STAT
/STATUS:5|Switch does not require a value -- /STATUS
1 /CRE /PRI /SZ|Switch requires a value -- /SZ
1 /CRE /PRI /SZ:10 /SZ:20|Conflicting values for switch -- /SZ:10 /SZ:20
1 /ACT|Required switch missing -- /P
EOT

# --- help: exit 0, nothing else runs
run /?
expect_rc 0 "/?"
for t in "Fixed Disk Partitioning Utility" "Kdisk 11.5.1" "kdisk disk /DEL {/P:partn-no|/ALL}" \
  "Adding virtual disks as regular disks to the disk list." "/ADDDISK=" "/AD=" "VMDK" \
  "Option to preserve Corvo Boot Partition during disk wipe operation" "kdisk /keepcorvoboot" \
  "kdisk disk /GPT /WIPE" "kdisk [disk] /BATCH[:filename]" "[/SER] [/JSON]"; do
  expect_in "$t" out "/?"
done
helptext=$out
for h in --help -h; do  # other programs' help requests
  run $h
  expect_rc 0 "$h"
  [ "$out" = "$helptext" ] && [ -z "$err" ] || fail "$h: not the general help: $err $out"
done
while IFS='|' read -r args text; do
  run $args
  expect_rc 0 "$args"
  expect_in "$text" out "$args"
  [ -z "$err" ] || fail "$args: help wrote to stderr"
done <<EOT
/? /CRE|Creates fixed disk partitions and logical drives.
/? /CRE|kdisk disk /CRE {/PRI|/EXT|/LOG} [/SZ:{mbytes|pcent{P|%}}] [/END]
/? /STATUS|Default is to list all fixed disks.
/? /DISKWIPE|Preserve Corvo partition which was used to boot.
/h /DEL|kdisk disk /DEL {/P:partn-no|/ALL}
/HELP /STATUS|Displays information about fixed disk partitions.
/? /-HIDE|Hides a regular partition or unhides a hidden partition.
/? /MBR|kdisk disk /MBR [/WIPE] [/P|/Z] [/X] [/I] [/U] [/S] [/Y] [/R]
/? /GPT|/GPT switch is only supported in the DOS & Vista version of kdisk
/? /REVERT|Reverts the bootable disks mbr to the contents of the mbr.bin file.
/? /DISKWIPE|Wipes the contents of the whole disk.
/? /BOOTINI|kdisk /BOOTINI /REMOVE /ENTRY:no [/INIFILE:filename] [/R]
/? /VIEW:0|Views the contents of one or more sectors of a physical disk.
/BATCH /H|Executes a batch file of kdisk commands.
/? /CRE /NOOSLAYOUT|OS update of disk layout change is skipped.
EOT

# --- library start-up failures: exit 1 with the switch named
for args in "/USBTIMEOUT=abc" "/NOUSB=1" "/ADDDISK"; do
  run $args /?
  expect_rc 1 "$args"
  sw=${args%%=*}
  expect_in "${sw#/}" err "$args"
  expect_not_in "Fixed Disk" out "$args"
done

# --- /DIAG
run /DIAG:"$WORK/diag.log" /?
expect_rc 0 "/DIAG"
[ -s "$WORK/diag.log" ] || fail "/DIAG: no log written"
run /DIAG /?
expect_rc 2 "/DIAG without a value"

# --- /R: no reboot after failure; after success the restart is reported as not done here
run /STATUS /R
if [ "$rc" = 0 ]; then expect_in "Reboot requested -- not done" out "/STATUS /R"; else expect_not_in "Reboot" out "/STATUS /R"; fi
run /CRE /DEL /R
expect_not_in "Reboot" out "failed line with /R"

# --- batch files
b=$WORK/batch
mkdir -p "$b"
printf '# comment\n\n/? /CRE\n   \n/H /DEL\r\n/? /VIEW:1' >"$b/ok.txt"
run /BATCH:"$b/ok.txt"
expect_rc 0 "batch ok"
expect_in "Command: kdisk /? /CRE " out "batch echo"
expect_in "Command: kdisk /H /DEL " out "batch echo CRLF"
expect_in "3 batch commands completed successfully" out "batch count"

printf '#only\n\n#comments\n' >"$b/empty.txt"

printf '/? /CRE\n/ATASECURITY\n/? /DEL\n' >"$b/fail.txt"
run /BATCH:"$b/fail.txt"
expect_rc 2 "failing line"
expect_not_in "completed successfully" out "failing line"
expect_not_in "Command: kdisk /? /DEL" out "line after the failing one"

printf '/? /CRE\n/CRE /DEL\n/? /DEL\n' >"$b/raise.txt"
run 1 /BATCH:"$b/raise.txt"
expect_rc 2 "raised exit code in batch"
expect_in "$general" err "raised exit code in batch"
expect_not_in "Command: kdisk 1 /? /DEL" out "raised exit code in batch"


# 255 characters plus newline is accepted; 256 characters is too long (with or without newline)
l255="/?$(printf '%253s' '')"
printf '%s\n' "$l255" >"$b/l255.txt"
run /BATCH:"$b/l255.txt"
expect_rc 0 "255-character line"
printf '%s \n' "$l255" >"$b/l256.txt"
run /BATCH:"$b/l256.txt"
expect_rc 2 "256-character line"
[ "$err" = "Line too long -- Maximum line length is 255  characters" ] || fail "256-character line message"

# nesting: 16 levels run, the 17th is refused with exit 2
for i in $(seq 1 17); do printf '/BATCH:%s\n' "$b/n$((i + 1)).txt" >"$b/n$i.txt"; done
printf '/? /CRE\n' >"$b/n17.txt"
printf '/? /CRE\n' >"$b/m16.txt"
sed "s|n16.txt|m16.txt|" "$b/n15.txt" >"$b/m15.txt"
for i in $(seq 14 -1 1); do sed "s|n$((i + 1)).txt|m$((i + 1)).txt|" "$b/n$i.txt" >"$b/m$i.txt"; done
run /BATCH:"$b/m1.txt"
expect_rc 0 "16 nested batch files"
expect_in "1 batch command completed successfully" out "16 nested batch files"
[ "$(printf '%s\n' "$out" | grep -c 'completed successfully')" = 1 ] || fail "nested files report no count of their own"
# comments only, a missing file, a folder, 17 nested files: exit code and message.
while IFS='|' read -r code where args text; do
  run $args
  expect_rc "$code" "$args"
  expect_in "$text" "$where" "$args"
done <<T
0|out|/BATCH:$b/empty.txt|0 batch commands completed successfully
2|err|/BATCH:$b/missing.txt|Cannot open batch file $b/missing.txt -- 
2|err|/BATCH:$b|batch file $b -- 
2|err|/BATCH:$b/n1.txt|Maximum depth reached for nested batch files -- Maximum depth is 16
T

# interactive batch: lines from standard input, a failing line does not stop it
printf '/? /CRE\n/ATASECURITY\n/? /DEL\n\n' >"$b/typed.txt"
RUN_STDIN=$b/typed.txt run /BATCH
expect_rc 0 "interactive batch"
expect_in "Complete the following command (ENTER to quit):" out "interactive batch"
expect_in "> kdisk " out "interactive prompt"
expect_in "Deletes fixed disk partitions" out "interactive line after a failure"

# --- error file for a library error reaching the top level: beside the program
d=$WORK/prog
mkdir -p "$d"
cp "$KDISK_BIN" "$d/kdisk"
KDISK="$d/kdisk"
KDISK_TEST_FAULT=library-error run /STATUS
KDISK=$KDISK_BIN
expect_rc 1 "error file"
expect_in "Unable to complete command! See error file $d/kdiskerr.txt" err "error file"
if [ -f "$d/kdiskerr.txt" ]; then
  mapfile -t lines <"$d/kdiskerr.txt"
  [ "${lines[0]}" = "Kdisk32 11.5.1.2259" ] || fail "error file title: ${lines[0]}"
  [[ "${lines[3]}" =~ ^Error\ generated\ at\ [0-3][0-9]/[01][0-9]/[0-9]{4}\ [0-2][0-9]:[0-5][0-9]:[0-5][0-9]$ ]] ||
    fail "error file time line: ${lines[3]}"
  [ -z "${lines[4]}" ] || fail "error file header does not end with an empty line"
  grep -q "KDISK_TEST_FAULT" "$d/kdiskerr.txt" || fail "error file has no report"
else
  fail "no error file in $d"
fi

KDISK="$d/kdisk"
rm -f "$d/kdiskerr.txt"
KDISK_TEST_FAULT=access-denied run /STATUS
KDISK=$KDISK_BIN
expect_rc 1 "access denied"
[ "$err" = "Disk access has been denied in the current context." ] || fail "access denied message"
[ ! -e "$d/kdiskerr.txt" ] || fail "access denied wrote an error file"

finish
