#!/usr/bin/env bash
# Wipe passes on a loop device against `dd bs=4M oflag=direct` over the same range, side by
# side in one run: a partition wipe (/DEL /CUSTOMWIPE:1, three writing passes and a verifying
# read of the medium) and whole-disk wipes (/DISKWIPE, one pass of zeros; /DISKWIPE
# /CUSTOMWIPE:1). The ratio is dd's time per pass over Kdisk's time per writing pass (the
# verifying read counted against Kdisk), so 0.9 or more meets the target. Needs root.
# The backing file lies in memory (/dev/shm, or $BENCH_DIR) and is written whole once before
# the first timing, so every run meets the same allocated extents and no run pays for the
# backing disk's flushes; the shortest of three runs counts.
# Usage: bench/bench_wipe_direct.sh path/to/kdisk [disk size in MiB, default 4096]
set -euo pipefail
KDISK=${1:?usage: bench_wipe_direct.sh path/to/kdisk [MiB]}
mib=${2:-4096}
[ "$(id -u)" -eq 0 ] || { echo "skipped: needs root (loop device)" >&2; exit 77; }
work=$(mktemp -d "${BENCH_DIR:-/dev/shm}/kdisk-bench-XXXXXX")
img=$work/bench.img
fallocate -l "${mib}M" "$img"
dev=$(losetup -f --show "$img")
trap 'losetup -d "$dev"; rm -rf "$work"' EXIT
dd if=/dev/zero of="$dev" bs=1M count="$mib" oflag=direct status=none
echo "load: $(uptime | sed 's/.*load average: //')"
sectors=$((mib * 2048))
first=2048 count=$((sectors - 4096))
now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { print b - a }'; }
table() { printf 'label: dos\nstart=%d, size=%d, type=6\n' "$first" "$count" | sfdisk -q "$dev" >/dev/null 2>&1; }
# best CMD...: the shortest of three timings (the machine may be busy with other work).
best() { local a b c; a=$("$@"); b=$("$@"); c=$("$@"); printf '%s\n%s\n%s\n' "$a" "$b" "$c" | sort -g | head -1; }
# dd_direct FIRST COUNT: seconds for dd writing zeros over the range, past the page cache.
dd_direct() {
  local t0 t1
  t0=$(now)
  dd if=/dev/zero of="$dev" bs=4M seek=$(($1 * 512)) count=$(($2 * 512)) oflag=direct,seek_bytes iflag=count_bytes \
    status=none
  t1=$(now)
  secs "$t0" "$t1"
}
# kdisk_run ARGS...: seconds for one Kdisk command on the loop device.
kdisk_run() {
  local t0 t1
  t0=$(now)
  "$KDISK" /NOOSDISK "/ADDDISK=$dev" "$@" >/dev/null 2>&1 || echo "kdisk $* failed" >&2
  t1=$(now)
  secs "$t0" "$t1"
}
report() {  # NAME DD_SECONDS KDISK_SECONDS WRITING_PASSES
  awk -v n="$1" -v d="$2" -v k="$3" -v p="$4" -v mb="$5" 'BEGIN {
    printf "%-28s dd %7.1f MiB/s   kdisk %7.1f MiB/s per pass   ratio %.2f\n", n, mb / d, mb * p / k, d * p / k }'
}

part_mb=$((count / 2048))
dd_part=$(best dd_direct "$first" "$count")
part_wipe() { table; kdisk_run 1 /DEL /P:1 /CUSTOMWIPE:1 /Y; }
k=$(best part_wipe)
report "partition /CUSTOMWIPE:1" "$dd_part" "$k" 3 "$part_mb"

dd_disk=$(best dd_direct 0 "$sectors")
k=$(best kdisk_run 1 /DISKWIPE /Y)
report "/DISKWIPE (zeros)" "$dd_disk" "$k" 1 "$mib"
k=$(best kdisk_run 1 /DISKWIPE /CUSTOMWIPE:1 /Y)
report "/DISKWIPE /CUSTOMWIPE:1" "$dd_disk" "$k" 3 "$mib"
