#!/usr/bin/env bash
# NTFS format: Kdisk (/CRE /PRI /FOR /NTFS) against mkntfs -Q -F on a volume of the same size, one
# run side by side, reported as the median time ratio of several rounds (target: at most 1.0)
# with the peak memory of each. Sparse images of 64 GiB and 2 TiB, and (as root, when a loop
# device is free) a 64 GiB loop device over a sparse image. Every run gets a fresh image; the
# rounds alternate which tool goes first. Not run by the test suite.
#   bench/bench_ntfs_format.sh path/to/kdisk [work-dir] [rounds]
set -euo pipefail
OTHER=mkntfs FORMAT_SWITCH=/NTFS

# mkntfs formats the partition Kdisk made (same start and size) on a fresh disk: on a loop device
# the partition's node, in an image a file of the partition's size (mkntfs takes no offset).
run_other() {
  fresh "$1" "$2"
  printf 'start=%s, size=%s, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n' "$start" "$count" |
    sfdisk -q --append "$disk" >/dev/null 2>&1 || true
  if [ "$2" = loop ]; then
    # sfdisk may fail to have the kernel re-read a loop device's table; partx adds the partition.
    [ -b "${loop}p1" ] || partx -a "$loop" 2>/dev/null || true
    measure "$WORK/mk" mkntfs -Q -F -p "$start" "${loop}p1"
  else
    rm -f "$WORK/vol.img"; truncate -s $((count * 512)) "$WORK/vol.img"; sync
    measure "$WORK/mk" mkntfs -Q -F -p "$start" "$WORK/vol.img"
  fi
}

. "$(dirname "$0")/lib/format_bench.bash"
