#!/usr/bin/env bash
# Quick ext2 format: Kdisk against mke2fs -t ext2 -F on the same sizes, one run side by side,
# reported as time ratios (target: at most 1.0) with the peak memory of each. Sparse images of
# 64 GiB and 2 TiB, and (as root, when a loop device is free) a 64 GiB loop device over a
# sparse image. Not run by the test suite.
#   bench/bench_ext2_format.sh path/to/kdisk [work-dir]
set -euo pipefail
KDISK=${1:?usage: $0 path/to/kdisk [work-dir]}
WORK=$(mktemp -d "${2:-${TMPDIR:-/tmp}}/kdisk-bench-XXXXXX")
loop=""
cleanup() { [ -z "$loop" ] || losetup -d "$loop"; rm -rf "$WORK"; }
trap cleanup EXIT
command -v mke2fs >/dev/null || { echo "mke2fs is not installed"; exit 1; }

# measure OUTFILE COMMAND...: runs the command, leaves "seconds kilobytes" in OUTFILE.
measure() {
  local out=$1; shift
  /usr/bin/time -f "%e %M" -o "$out" "$@" >/dev/null 2>&1
}

# fresh SIZE KIND: a new sparse image with an empty GPT; for KIND loop also a loop device over
# it. Sets disk (what the tools are given) and img.
fresh() {
  [ -z "$loop" ] || { losetup -d "$loop"; loop=""; }
  img=$WORK/bench.img
  rm -f "$img"; truncate -s "$1" "$img"
  printf 'label: gpt\n' | sfdisk -q "$img" >/dev/null
  disk=$img
  if [ "$2" = loop ]; then loop=$(losetup -f --show -P "$img"); disk=$loop; fi
}

# one NAME SIZE KIND: KIND image (a partition in an image file) or loop (a partition on a loop
# device). Each tool formats the same partition (1 MiB in, to the end) on a fresh disk.
one() {
  local name=$1 size=$2 kind=$3 start count
  fresh "$size" "$kind" || { echo "$name: skipped (no loop device)"; return; }
  measure "$WORK/kd" "$KDISK" /NOOSDISK "/ADDDISK=$disk" 1 /CRE /PRI /FOR /EXT2
  read -r start count < <(sfdisk -J "$img" | jq -r '.partitiontable.partitions[0] | "\(.start) \(.size)"')
  fresh "$size" "$kind"
  # sfdisk may fail to have the kernel re-read a loop device's table; partx adds the partition.
  printf 'start=%s, size=%s, type=L\n' "$start" "$count" | sfdisk -q --append "$disk" >/dev/null 2>&1 || true
  if [ "$kind" = loop ]; then
    [ -b "${loop}p1" ] || partx -a "$loop" 2>/dev/null || true
    measure "$WORK/mk" mke2fs -q -t ext2 -F "${loop}p1"
  else
    measure "$WORK/mk" mke2fs -q -t ext2 -F -E offset=$((start * 512)) "$img" $((count / 8))
  fi
  read -r kt km <"$WORK/kd"
  read -r mt mm <"$WORK/mk"
  awk -v n="$name" -v kt="$kt" -v mt="$mt" -v km="$km" -v mm="$mm" 'BEGIN {
    printf "%-22s kdisk %7.2f s %7d KiB   mke2fs %7.2f s %7d KiB   time ratio %.2f\n",
           n, kt, km, mt, mm, (mt > 0 ? kt / mt : 0) }'
}

one "64 GiB sparse image" 64G image
one "2 TiB sparse image" 2T image
if [ "$(id -u)" -eq 0 ] && command -v losetup >/dev/null; then
  one "64 GiB loop device" 64G loop
else
  echo "64 GiB loop device: skipped (needs root and losetup)"
fi
