#!/usr/bin/env bash
# Disks that Kdisk partitions, formats, activates and gives its master boot code start the
# system in an emulator: a stand-in IO.SYS (boot/iosys.S) copied in with mtools reports on the
# debug port what the FAT loader handed it. Without the system files the loader must not jump
# and says so on the text screen. The master boot code alone is
# proven by chain-loading a stand-in volume boot sector (boot/chain.S).
set -euo pipefail
KDISK=${1:?usage: boot.sh path/to/kdisk}
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/partition.bash"
need_tools qemu-system-x86_64 as objcopy mcopy sfdisk jq timeout
work=$WORK
export MTOOLS_SKIP_CHECK=1

for f in iosys chain; do
  as --32 -o "$work/$f.o" "$here/boot/$f.S" && objcopy -O binary -j .text "$work/$f.o" "$work/$f.bin"
done
printf 'stand-in MSDOS.SYS\r\n' >"$work/msdos.sys"

# boot IMAGE: runs the emulator until the stand-in ends it, the text screen shows a final
# message, or 60 seconds pass. Sets DBG (the debug port's text) and CON (the text screen).
boot() {
  local dbg=$work/dbg screen=$work/screen mon=$work/monitor pid i
  : >"$dbg"; rm -f "$screen" "$mon"; mkfifo "$mon"
  exec 3<>"$mon"  # held open both ways: writes never block, even after the emulator ended
  qemu-system-x86_64 -display none -m 16 -no-reboot -drive "file=$1,format=raw,if=ide" \
    -debugcon "file:$dbg" -device isa-debug-exit,iobase=0xf4,iosize=4 -monitor stdio <&3 >/dev/null 2>&1 &
  pid=$!
  CON=
  for ((i = 0; i < 200; i++)); do
    sleep 0.3
    kill -0 "$pid" 2>/dev/null || break
    echo "pmemsave 0xb8000 4000 \"$screen\"" >&3
    sleep 0.1
    [ -f "$screen" ] && CON=$(tr -d '\000\007' <"$screen")
    grep -qE 'press any key|operating system|partition table' <<<"$CON" && break
  done
  echo quit >&3
  wait "$pid" 2>/dev/null || true
  exec 3>&-
  DBG=$(tr -d '\r\000' <"$dbg")
}

# volume IMAGE N: the mtools address of partition N.
volume() { echo "$1@@$(($(part "$1" "$2" | cut -d' ' -f1) * 512))"; }

# make IMAGE SIZE FORMAT-ARGS [FIRST]: a fresh disk with a FAT primary (after a small
# unformatted one when FIRST is given), activated, with Kdisk's master boot code.
make() {
  local img=$1 size=$2 args=$3 n=1
  rm -f "$img"; truncate -s "$size" "$img"
  if [ -n "${4:-}" ]; then
    kd "$img" 1 /CRE /PRI /SZ:2; expect_rc 0 "$img: first primary"; n=2
    args="$args /Y"  # a second primary needs a Yes
  fi
  # shellcheck disable=SC2086
  kd "$img" 1 /CRE /PRI $args /FOR /Q; expect_rc 0 "$img: create $args"
  kd "$img" 1 /ACT /P:$n; expect_rc 0 "$img: activate"
  kd "$img" 1 /MBR /Y; expect_rc 0 "$img: /MBR"
  NUM=$n
}

started="IO.SYS started, drive 80h, BPB at SS:BP, four sectors"
# Filesystem, disk size, creation switches, system file name, a primary before it.
while IFS='|' read -r fs size args sysname first; do
  img=$work/$fs.img
  make "$img" "$size" "$args" "$first"
  start=$(part "$img" "$NUM" | cut -d' ' -f1)
  off=54; [ "$fs" = FAT32 ] && off=82
  [ "$(dd if="$img" bs=1 skip=$((start * 512 + off)) count=5 status=none)" = "$fs" ] || fail "$fs $args: not a $fs volume"
  # Without the system files the loader says so and does not jump.
  mcopy -i "$(volume "$img" "$NUM")" "$work/msdos.sys" ::MSDOS.SYS
  boot "$img"
  [ -z "$DBG" ] || fail "$fs $args: without IO.SYS something ran: $DBG"
  grep -q "Invalid system disk" <<<"$CON" || fail "$fs $args: no 'Invalid system disk' on the console: $CON"
  mcopy -i "$(volume "$img" "$NUM")" "$work/iosys.bin" "::$sysname"
  boot "$img"
  [ "$DBG" = "$started" ] || fail "$fs $args $sysname: debug port says '$DBG' (console: $CON)"
done <<'T'
FAT12|40M|/SZ:12|IO.SYS|
FAT16|120M|/SZ:100 /ALIGN:1MB|IO.SYS|first
FAT16|120M|/SZ:100|IO.SYS|
FAT32|700M|/SZ:560 /ALIGN:1MB|WINBOOT.SYS|first
FAT32|700M|/SZ:560|IO.SYS|
T

# FAT32 with both IO.SYS and WINBOOT.SYS (the latter first in the directory and no system at
# all): IO.SYS is started.
img=$work/both.img
make "$img" 700M "/SZ:560"
printf 'not a system file\r\n' >"$work/winboot.sys"
for f in msdos.sys:MSDOS.SYS winboot.sys:WINBOOT.SYS iosys.bin:IO.SYS; do
  mcopy -i "$(volume "$img" 1)" "$work/${f%%:*}" "::${f#*:}"
done
boot "$img"
[ "$DBG" = "$started" ] || fail "IO.SYS and WINBOOT.SYS: debug port says '$DBG' (console: $CON)"
rm -f "$img"

# IO.SYS without MSDOS.SYS is no system disk either.
img=$work/nomsdos.img
make "$img" 40M "/SZ:12"
mcopy -i "$(volume "$img" 1)" "$work/iosys.bin" ::IO.SYS
boot "$img"
[ -z "$DBG" ] || fail "IO.SYS alone: something ran: $DBG"
grep -q "Invalid system disk" <<<"$CON" || fail "IO.SYS alone: no 'Invalid system disk': $CON"

# The master boot code alone: table entries written by sfdisk, the stand-in boot sector (or
# nothing) in the active partition. Table | first sector of partition 3 | debug port | console.
while IFS='|' read -r table content want_dbg want_con; do
  img=$work/mbr.img
  rm -f "$img"; truncate -s 8M "$img"
  printf 'label: dos\n%s\n' "$table" | tr ';' '\n' | sfdisk -q "$img"
  [ "$content" = chain ] && dd if="$work/chain.bin" of="$img" bs=512 seek=6144 conv=notrunc status=none
  kd "$img" 1 /MBR /Y; expect_rc 0 "/MBR on: $table"
  boot "$img"
  [ "$DBG" = "$want_dbg" ] || fail "$table: debug port says '$DBG', expected '$want_dbg'"
  [ -z "$want_con" ] || grep -q "$want_con" <<<"$CON" || fail "$table: no '$want_con' on the console: $CON"
done <<'T'
start=2048,size=2048,type=83;start=4096,size=2048,type=6;start=6144,size=2048,type=6,bootable|chain|chain-loaded, drive 80h, active entry, start 00001800|
start=2048,size=2048,type=83;start=4096,size=2048,type=6;start=6144,size=2048,type=6,bootable|none||Missing operating system
start=2048,size=2048,type=83,bootable;start=4096,size=2048,type=6;start=6144,size=2048,type=6,bootable|chain||Invalid partition table
T
finish
