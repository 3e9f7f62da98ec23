#!/usr/bin/env bash
# Wipe throughput: /QWIPE and one DoD pass cycle (/CUSTOMWIPE:1: three writing passes and a
# verify) over a 1 GiB partition of an image, against dd writing zeros over the same range.
# Each timing includes flushing the image file to storage, as dd's conv=fsync does.
# Usage: bench/bench_wipe.sh path/to/kdisk
set -euo pipefail
KDISK=${1:?usage: bench_wipe.sh path/to/kdisk}
work=$(mktemp -d "${TMPDIR:-/tmp}/kdisk-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
img=$work/bench.img
first=2048 count=$((2 * 1024 * 1024))  # 1 GiB in sectors
truncate -s $(((first + count + 2048) * 512)) "$img"
table() { printf 'label: dos\nstart=%d, size=%d, type=6\n' "$first" "$count" | sfdisk -q "$img" >/dev/null; }
now() { date +%s.%N; }
mibps() { awk -v b="$1" -v s="$2" 'BEGIN { printf "%.1f", b / 1048576 / s }'; }

# Allocate the file's blocks first so that no run pays for allocating them.
dd if=/dev/zero of="$img" bs=4M seek=$((first * 512)) count=256 oflag=seek_bytes conv=fsync,notrunc status=none
t0=$(now); dd if=/dev/zero of="$img" bs=4M seek=$((first * 512)) count=256 oflag=seek_bytes conv=fsync,notrunc status=none; t1=$(now)
dd_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')

table; t0=$(now); "$KDISK" /NOOSDISK "/ADDDISK=$img" 1 /DEL /P:1 /QWIPE >/dev/null 2>&1; sync "$img"; t1=$(now)
q_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')

table; t0=$(now); "$KDISK" /NOOSDISK "/ADDDISK=$img" 1 /DEL /P:1 /CUSTOMWIPE:1 >/dev/null 2>&1; sync "$img"; t1=$(now)
c_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')

bytes=$((count * 512))
echo "dd zeros        : $(mibps "$bytes" "$dd_s") MiB/s"
echo "/QWIPE          : $(mibps "$bytes" "$q_s") MiB/s  ratio to dd $(awk -v a="$dd_s" -v b="$q_s" 'BEGIN { printf "%.2f", a / b }')"
echo "/CUSTOMWIPE:1   : $(mibps $((bytes * 3)) "$c_s") MiB/s written (3 passes + verify)  ratio to dd per pass $(awk -v a="$dd_s" -v b="$c_s" 'BEGIN { printf "%.2f", a * 3 / b }')"
