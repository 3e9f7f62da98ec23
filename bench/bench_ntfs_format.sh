#!/usr/bin/env bash
# NTFS format time and peak memory: Kdisk (/CRE /PRI /FOR /NTFS on a one-disk image) against
# mkntfs -Q -F on a volume of the same size, side by side in one run: a 64 GiB and a 2 TiB
# sparse image, and (as root) a 64 GiB loop device. Each timing ends with the image's data
# flushed to storage. Target: ratio (Kdisk / mkntfs) at most 1, Kdisk's memory flat.
# Usage: bench/bench_ntfs_format.sh path/to/kdisk
set -euo pipefail
KDISK=${1:?usage: bench_ntfs_format.sh path/to/kdisk}
command -v mkntfs >/dev/null || { echo "needs mkntfs (ntfs-3g)"; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/kdisk-bench-XXXXXX")
loop=""
trap '[ -z "$loop" ] || losetup -d "$loop"; rm -rf "$work"' EXIT
now() { date +%s.%N; }
# timed FILE CMD...: runs the command, prints "seconds peak-KiB"; syncs FILE before stopping.
timed() {
  local file=$1 t0 t1; shift
  t0=$(now)
  /usr/bin/time -f %M -o "$work/rss" "$@" >/dev/null 2>&1
  sync "$file"
  t1=$(now)
  echo "$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }') $(cat "$work/rss")"
}
report() {  # report WHAT KDISK-RESULT MKNTFS-RESULT
  local ks km ms mm
  read -r ks km <<<"$2"
  read -r ms mm <<<"$3"
  printf '%-22s kdisk %8.3fs %7d KiB   mkntfs %8.3fs %7d KiB   time ratio %.2f\n' "$1" "$ks" "$km" "$ms" "$mm" \
    "$(awk -v a="$ks" -v b="$ms" 'BEGIN { print a / b }')"
}

for size in 64G 2T; do
  img=$work/disk.img vol=$work/vol.img
  rm -f "$img" "$vol"
  truncate -s "$size" "$img"
  printf 'label: gpt\n' | sfdisk -q "$img" >/dev/null
  k=$(timed "$img" "$KDISK" /NOOSDISK "/ADDDISK=$img" 1 /CRE /PRI /FOR /NTFS)
  sectors=$(sfdisk -J "$img" | jq '.partitiontable.partitions[0].size')
  truncate -s $((sectors * 512)) "$vol"
  m=$(timed "$vol" mkntfs -Q -F "$vol")
  report "$size sparse image" "$k" "$m"
  rm -f "$img" "$vol"
done

if [ "$(id -u)" = 0 ]; then
  img=$work/disk.img
  truncate -s 64G "$img"
  loop=$(losetup -f --show "$img")
  printf 'label: gpt\n' | sfdisk -q "$loop" >/dev/null 2>&1
  k=$(timed "$img" "$KDISK" /NOOSDISK "/ADDDISK=$loop" 1 /CRE /PRI /FOR /NTFS)
  m=$(timed "$img" mkntfs -Q -F "$loop")
  report "64G loop device" "$k" "$m"
else
  echo "64G loop device: skipped (needs root)"
fi
