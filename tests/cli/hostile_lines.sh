#!/usr/bin/env bash
# Hostile command lines and files named on them: FIFOs and devices as /BATCH:, /DIAG:,
# /REPLACE: and /INIFILE: targets are refused at once, a /DIAG: log that cannot be written says so, a log on an added
# disk image is refused, a NUL byte ends a batch line, control characters in an unknown switch
# are shown, not sent, and a very long line of repeated switches is checked in linear time.
set -u
KDISK=${1:?usage: hostile_lines.sh path/to/kdisk}
export KDISK_NO_REBOOT=1
. "$(dirname "$0")/lib/partition.bash"
need_tools mkfifo timeout python3

# hl ARGS...: kdisk with a time limit (nothing here may wait on a FIFO); sets RC, ERR, OUT.
hl() {
  timeout "${LIMIT:-60}" "$KDISK" /NOOSDISK "$@" </dev/null >"$WORK/out" 2>"$WORK/err"
  RC=$?
  ERR=$(cat "$WORK/err")
  OUT=$(cat "$WORK/out")
}

img=$WORK/disk.img
truncate -s 8M "$img"
ln -s "$img" "$WORK/link.img"
mkfifo "$WORK/fifo"
mkdir "$WORK/folder"
printf '/STATUS\n' >"$WORK/ok.txt"
python3 - "$WORK" <<'PY'
import sys
w = sys.argv[1]
open(w + '/nul.txt', 'wb').write(b'/STATUS\0 /FOO\n\0' + b'x' * 300 + b'\n/STATUS /RAW\0\n')
PY

# args | exit code | a line of the output (stderr, then stdout) | (image unchanged by all)
before=$(sha "$img")
while IFS='|' read -r args code line; do
  args=${args//@/$WORK}
  line=${line//@/$WORK}
  # shellcheck disable=SC2086
  hl /ADDDISK="$img" $args
  expect_rc "$code" "$args"
  expect_line "$line" "$args"
  [ "$(sha "$img")" = "$before" ] || fail "$args: image changed"
done <<'EOT'
/BATCH:@/fifo|2|Cannot open batch file @/fifo -- it is a FIFO, not a regular file or a terminal
/BATCH:/dev/zero|2|Cannot open batch file /dev/zero -- it is a character device, not a regular file or a terminal
/BATCH:@/folder|2|Cannot open batch file @/folder -- it is a folder, not a regular file or a terminal
/STATUS /DIAG:@/fifo|2|Cannot open diagnostic log @/fifo -- it is a FIFO, not a regular file or a terminal
/STATUS /DIAG:/dev/full|2|Cannot open diagnostic log /dev/full -- it is a character device, not a regular file or a terminal
/STATUS /DIAG:@/disk.img|2|Cannot open diagnostic log @/disk.img -- it is fixed disk 1
1 /CRE /PRI /Y /DIAG:@/link.img|2|Cannot open diagnostic log @/link.img -- it is fixed disk 1
/BATCH:@/nul.txt|0|2 batch commands completed successfully
1 /MBR /REPLACE:@/fifo /Y|1|Cannot read boot code file @/fifo -- The boot code file is a FIFO, not a regular file
/BOOTINI /DEFAULT /TIMEOUT:5 /INIFILE:@/fifo|1|Cannot read boot.ini file @/fifo -- Cannot use @/fifo -- it is a FIFO, not a regular file
EOT

# The NUL byte ends each line: the words after it never ran, the long tail is not "too long".
hl /ADDDISK="$img" /BATCH:"$WORK/nul.txt"
expect_line "Command: kdisk /STATUS " "NUL batch"
expect_line "Command: kdisk /STATUS /RAW " "NUL batch"
case "$OUT$ERR" in *FOO* | *"Line too long"*) fail "NUL batch: text after a NUL byte was used" ;; esac

# A log on a file system that is full (a file size limit stands in for it; SIGXFSZ ignored so
# that the write fails instead of ending the process). The limit holds for every file the run
# writes, so its messages come through a pipe.
log_limited() {  # KiB, args...: sets RC and ERR
  local kib=$1; shift
  ERR=$(trap '' XFSZ; ulimit -f "$kib"; "$KDISK" /NOOSDISK "$@" 2>&1 >/dev/null </dev/null)
  RC=$?
  OUT=
}
log_limited 0 /ADDDISK="$img" /STATUS /DIAG:"$WORK/full.log"
expect_rc 2 "log limit 0"
expect_line "Cannot open diagnostic log $WORK/full.log -- it cannot be written (File too large)" "log limit 0"
head -c 900 /dev/zero | tr '\0' '#' >"$WORK/full.log"  # the first line fits below the limit, not the rest
log_limited 1 /ADDDISK="$img" /STATUS /DIAG:"$WORK/full.log"
expect_rc 0 "log limit 1 KiB"
expect_line "Cannot write diagnostic log $WORK/full.log -- File too large" "log limit 1 KiB"

# Control characters typed into a switch are shown in caret notation, never written raw.
hl /STATUS $'/FOO\e]0;x\a\x7f'
expect_rc 2 "control characters"
expect_line "Unknown switch -- /FOO^[]0;x^G^?" "control characters"
case "$ERR" in *$'\e'* | *$'\a'*) fail "control characters reached the terminal" ;; esac
hl $'1\e[2J' /STATUS
expect_line "Invalid fixed disk number -- 1^[[2J" "control characters in the disk number"

# 100,000 repeated switches: checked within a few seconds (a check comparing every pair took
# about a minute), and the last one conflicting with the first is still found.
mapfile -t many < <(yes /SZ:10 | head -n 100000)
LIMIT=20 hl /ADDDISK="$img" 1 /CRE /PRI "${many[@]}" /SZ:11 /Y
expect_rc 2 "100000 switches"
expect_line "Conflicting values for switch -- /SZ:10 /SZ:11" "100000 switches"
[ "$(sha "$img")" = "$before" ] || fail "100000 switches: image changed"

finish
