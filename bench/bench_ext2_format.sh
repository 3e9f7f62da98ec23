#!/usr/bin/env bash
# Quick ext2 format: Kdisk against mke2fs -t ext2 -F on the same partition, one run side by side,
# reported as the median time ratio of several rounds (target: at most 1.0) with the peak memory
# of each. Sparse images of 64 GiB and 2 TiB, and (as root, when a loop device is free) a 64 GiB
# loop device over a sparse image. Every run gets a fresh image; the rounds alternate which tool
# goes first. Not run by the test suite.
#   bench/bench_ext2_format.sh path/to/kdisk [work-dir] [rounds]
set -euo pipefail
OTHER=mke2fs FORMAT_SWITCH=/EXT2

# mke2fs formats the partition Kdisk made (same start and size) on a fresh disk. Its size
# argument is given in KiB: without a unit it would be read as 1 KiB blocks.
run_other() {
  fresh "$1" "$2"
  printf 'start=%s, size=%s, type=L\n' "$start" "$count" | sfdisk -q --append "$disk" >/dev/null 2>&1 || true
  if [ "$2" = loop ]; then
    # sfdisk may fail to have the kernel re-read a loop device's table; partx adds the partition.
    [ -b "${loop}p1" ] || partx -a "$loop" 2>/dev/null || true
    measure "$WORK/mk" mke2fs -q -t ext2 -F "${loop}p1"
  else
    measure "$WORK/mk" mke2fs -q -t ext2 -F -E offset=$((start * 512)) "$img" "$((count / 2))k"
  fi
}

. "$(dirname "$0")/lib/format_bench.bash"
