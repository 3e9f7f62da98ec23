#!/usr/bin/env bash
# Quick exFAT format: Kdisk (/CRE /PRI /FOR /EXFAT) against mkfs.exfat (its default quick format)
# on a volume of the same size, one run side by side, reported as the median time ratio of
# several rounds (target: at most 1.0) with the peak memory of each (target: under 16 MiB).
# Sparse images of 64 GiB and 2 TiB, and (as root, when a loop device is free) a 64 GiB loop
# device over a sparse image. Every run gets a fresh image; the rounds alternate which tool
# goes first. Not run by the test suite.
#   bench/bench_exfat_format.sh path/to/kdisk [work-dir] [rounds]
set -euo pipefail
OTHER=mkfs.exfat FORMAT_SWITCH=/EXFAT

# mkfs.exfat formats the partition Kdisk made (same start and size) on a fresh disk: on a loop
# device the partition's node, in an image a file of the partition's size (it takes no offset).
run_other() {
  fresh "$1" "$2"
  printf 'start=%s, size=%s, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n' "$start" "$count" |
    sfdisk -q --append "$disk" >/dev/null 2>&1 || true
  if [ "$2" = loop ]; then
    # sfdisk may fail to have the kernel re-read a loop device's table; partx adds the partition.
    [ -b "${loop}p1" ] || partx -a "$loop" 2>/dev/null || true
    measure "$WORK/mk" mkfs.exfat "${loop}p1"
  else
    rm -f "$WORK/vol.img"; truncate -s $((count * 512)) "$WORK/vol.img"; sync
    measure "$WORK/mk" mkfs.exfat "$WORK/vol.img"
  fi
}

. "$(dirname "$0")/lib/format_bench.bash"
