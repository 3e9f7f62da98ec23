#!/usr/bin/env bash
# The progress display and Ctrl-C. Through a pipe: plain lines only (start, every tenth with the
# pass, end); on a terminal (script's pseudo-terminal): one line redrawn in place with a bar,
# the pass, MB/s and the times, a few times a second. SIGINT and SIGTERM during a /DODWIPE stop
# it with exit code 1 and the partition table exactly as it was (sfdisk --dump), on an image and
# (as root) on a loop device; outside a wipe SIGINT ends Kdisk at once.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning

title="DoD 5220.22-M STD Wiping  8.00M"
small=$WORK/small.img
truncate -s 16M "$small"
printf 'label: dos\nstart=2048, size=16384, type=6\n' | sfdisk -q "$small" >/dev/null

# ---- Through a pipe: exactly eleven lines, percentages 0, 10, ..., 90, 100, no carriage return.
kd "$small" 1 /DEL /P:1 /DODWIPE
expect_rc 0 "piped /DODWIPE"
grep -q $'\r' "$WORK/out" && fail "piped progress holds carriage returns"
lines=$(grep -F "$title" "$WORK/out")
[ "$(sed -n 1p <<<"$lines")" = "$title   0%" ] || fail "first progress line: $(sed -n 1p <<<"$lines")"
[ "$(tail -n 1 <<<"$lines")" = "$title 100%" ] || fail "last progress line: $(tail -n 1 <<<"$lines")"
[ "$(wc -l <<<"$lines")" -eq 11 ] || fail "expected 11 progress lines, got: $lines"
for t in 10 20 30 40 50 60 70 80 90; do
  grep -Eq "^$title  $t%  pass [0-9]+ of 19  ([0-9]+\.[0-9]|--\.-) MB/s  elapsed [0-9]+:[0-9]{2}:[0-9]{2}  left ([0-9]+:[0-9]{2}:[0-9]{2}|--:--:--)$" \
    <<<"$lines" || fail "no line for $t%: $lines"
done
grep -F -- "[#" "$WORK/out" && fail "piped progress draws a bar"

# ---- On a terminal: the line is redrawn in place, not once per chunk.
if command -v script >/dev/null; then
  printf 'label: dos\nstart=2048, size=16384, type=6\n' | sfdisk -q "$small" >/dev/null
  script -qec "stty cols 150; $KDISK /NOOSDISK /ADDDISK=$small 1 /DEL /P:1 /DODWIPE" /dev/null \
    </dev/null >"$WORK/tty" 2>&1
  draws=$(tr -cd '\r' <"$WORK/tty" | wc -c)
  last=$(tr '\r' '\n' <"$WORK/tty" | grep -F "$title" | tail -n 1)
  grep -aq "pass 19 of 19" "$WORK/tty" || fail "terminal line shows no pass numbers"
  grep -aEq "$title \[#+\] 100%  pass 19 of 19  [0-9.-]+ MB/s  elapsed " <<<"$last" ||
    fail "terminal line at the end: '$last'"
  grep -aEq "\[#*\.+\] +[0-9]+%" "$WORK/tty" || fail "terminal line shows no partly filled bar"
  # Start, 19 passes, ten tenths and a few redraws a second: far fewer than the 2432 chunks.
  [ "$draws" -ge 12 ] && [ "$draws" -lt 200 ] || fail "terminal line drawn $draws times"
  [ "$(count_parts "$small")" -eq 0 ] || fail "the wipe on the terminal did not delete"
else
  echo "note: script is not installed; the terminal line is not checked"
fi

# ---- Interruption. start_wipe IMAGE-OR-DEVICE: starts /DEL /P:1 /DODWIPE in the background with
# job control on, so that the signal is not ignored; waits for the start line.
start_wipe() {
  set -m
  "$KDISK" /NOOSDISK "/ADDDISK=$1" 1 /DEL /P:1 /DODWIPE </dev/null >"$WORK/out" 2>"$WORK/err" &
  pid=$!
  set +m
  for _ in $(seq 1 100); do grep -q "   0%" "$WORK/out" && return 0; sleep 0.1; done
  fail "no progress from the wipe on $1"
}
# stop_wipe SIGNAL: sends the signal, waits at most 20 s for the exit; sets RC.
stop_wipe() {
  sleep "${WAIT:-0.3}"
  kill -"$1" "$pid"
  for _ in $(seq 1 200); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  if kill -0 "$pid" 2>/dev/null; then
    kill -KILL "$pid"; fail "the wipe went on after SIG$1"
  fi
  wait "$pid"; RC=$?
  ERR=$(cat "$WORK/err"); OUT=$(cat "$WORK/out")
}
# interrupted TARGET IMAGE SIGNAL: the wipe stops with exit code 1, the table is unchanged.
interrupted() {
  local before
  before=$(sfdisk --dump "$2")
  start_wipe "$1"
  stop_wipe "$3"
  expect_rc 1 "SIG$3 during /DODWIPE on $1"
  grep -Eq "^Cannot wipe primary DOS partition -- Wipe interrupted after [0-9]+ of 2097152 sectors in pass [0-9]+ of 19$" \
    <<<"$ERR" || fail "SIG$3 on $1: message: $ERR"
  [ "$(sfdisk --dump "$2")" = "$before" ] || fail "SIG$3 on $1 changed the table"
  grep -q '100%' <<<"$OUT" && fail "SIG$3 on $1: the progress reported completion"
}

big=$WORK/big.img
truncate -s 1100M "$big"
printf 'label: dos\nstart=2048, size=2097152, type=7\n' | sfdisk -q "$big" >/dev/null
interrupted "$big" "$big" INT
interrupted "$big" "$big" TERM

if [ "$(id -u)" -eq 0 ] && command -v losetup >/dev/null; then
  if dev=$(losetup -f --show "$big" 2>/dev/null); then
    interrupted "$dev" "$big" INT
    losetup -d "$dev"
  else
    echo "note: no loop device available; the loop device case is not checked"
  fi
else
  echo "note: not root; the loop device case is not checked"
fi

# ---- A FAT32 disk made by mkfs.fat --mbr=y: partition 1 starts at sector 0, in the master boot
# record. The wipe leaves that sector alone and says so, so SIGINT at any moment of the wipe
# leaves the table as it was.
if command -v mkfs.fat >/dev/null && mkfs.fat --mbr=y -F 32 "$big" >/dev/null 2>&1; then
  before=$(sfdisk --dump "$big")
  grep -q 'start= *0,' <<<"$before" || fail "mkfs.fat --mbr=y: partition 1 does not start at sector 0: $before"
  for WAIT in 0 0.2 0.5 1 1.5; do
    start_wipe "$big"
    stop_wipe INT
    expect_rc 1 "SIGINT after ${WAIT}s of the wipe of a partition over the master boot record"
    grep -qx "1 sector of the partition holds a partition table and is left as it is" <<<"$OUT" ||
      fail "the wipe over the master boot record does not say so: $OUT"
    [ "$(sfdisk --dump "$big")" = "$before" ] || fail "SIGINT after ${WAIT}s: the table is gone: $(sfdisk --dump "$big" 2>&1)"
  done
  WAIT=0.3
else
  echo "note: mkfs.fat cannot make a disk with --mbr=y; the wipe over the master boot record is not checked"
fi

# ---- Outside a wipe (waiting at a question) SIGINT ends Kdisk at once, writing nothing.
printf 'label: dos\nstart=2048, size=8192, type=5\nstart=4096, size=2048, type=6\n' | sfdisk -q "$small" >/dev/null
sum_before=$(sha "$small")
set -m
sleep 30 | "$KDISK" /NOOSDISK "/ADDDISK=$small" 1 /DEL /EXT >"$WORK/out" 2>&1 &
pid=$!
set +m
for _ in $(seq 1 50); do grep -q "Delete it anyway" "$WORK/out" && break; sleep 0.1; done
grep -q "Delete it anyway" "$WORK/out" || fail "no question asked: $(cat "$WORK/out")"
kill -INT "$pid"
for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
kill -0 "$pid" 2>/dev/null && { kill -KILL "$pid"; fail "SIGINT at a question did not end Kdisk"; }
kill %1 2>/dev/null; wait 2>/dev/null
[ "$(sha "$small")" = "$sum_before" ] || fail "SIGINT at a question changed the image"
finish
