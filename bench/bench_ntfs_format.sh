#!/usr/bin/env bash
# NTFS format: Kdisk (/CRE /PRI /FOR /NTFS) against mkntfs -Q -F on a volume of the same size, one
# run side by side, reported as the median time ratio of several rounds (target: at most 1.0) with
# the peak memory of each. Sparse images of 64 GiB and 2 TiB, and (as root, when a loop device is free) a 64 GiB
# loop device over a sparse image. Every run gets a fresh image; the rounds alternate which tool
# goes first. Not run by the test suite.
#   bench/bench_ntfs_format.sh path/to/kdisk [work-dir] [rounds]
set -euo pipefail
KDISK=${1:?usage: $0 path/to/kdisk [work-dir] [rounds]}
WORK=$(mktemp -d "${2:-${TMPDIR:-/tmp}}/kdisk-bench-XXXXXX")
ROUNDS=${3:-5}
loop=""
cleanup() { [ -z "$loop" ] || losetup -d "$loop"; rm -rf "$WORK"; }
trap cleanup EXIT
for tool in mkntfs sfdisk jq; do command -v $tool >/dev/null || { echo "$tool is not installed"; exit 1; }; done

# measure OUTFILE COMMAND...: runs the command, appends "seconds kilobytes" to OUTFILE.
measure() {
  local out=$1; shift
  /usr/bin/time -f "%e %M" -a -o "$out" "$@" >/dev/null 2>&1
}

# fresh SIZE KIND: a new sparse image with an empty GPT, written out before the timed run; for
# KIND loop also a loop device over it. Sets disk (what the tools are given) and img.
fresh() {
  [ -z "$loop" ] || { losetup -d "$loop"; loop=""; }
  img=$WORK/bench.img
  rm -f "$img"; truncate -s "$1" "$img"
  printf 'label: gpt\n' | sfdisk -q "$img" >/dev/null
  disk=$img
  if [ "$2" = loop ]; then loop=$(losetup -f --show -P "$img") || return 1; disk=$loop; fi
  sync
}

run_kdisk() {
  fresh "$1" "$2" || return 1
  measure "$WORK/kd" "$KDISK" /NOOSDISK "/ADDDISK=$disk" 1 /CRE /PRI /FOR /NTFS
  read -r start count < <(sfdisk -J "$img" | jq -r '.partitiontable.partitions[0] | "\(.start) \(.size)"')
}

# mkntfs formats the partition Kdisk made (same start and size) on a fresh disk: on a loop device
# the partition's node, in an image a file of the partition's size (mkntfs takes no offset).
run_mkntfs() {
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

# one NAME SIZE KIND: KIND image (a partition in an image file) or loop (a partition on a loop
# device), ROUNDS rounds, odd rounds Kdisk first, even rounds mkntfs first.
one() {
  local name=$1 size=$2 kind=$3 round
  rm -f "$WORK/kd" "$WORK/mk"
  run_kdisk "$size" "$kind" || { echo "$name: skipped (no free loop device)"; return; }
  rm -f "$WORK/kd"  # the first run only learns the partition's place
  for ((round = 1; round <= ROUNDS; round++)); do
    if ((round % 2)); then run_kdisk "$size" "$kind"; run_mkntfs "$size" "$kind"
    else run_mkntfs "$size" "$kind"; run_kdisk "$size" "$kind"; fi
  done
  paste -d' ' "$WORK/kd" "$WORK/mk" | awk -v n="$name" '
    { kt[NR] = $1; km = $2 > km ? $2 : km; mt[NR] = $3; mm = $4 > mm ? $4 : mm; r[NR] = ($3 > 0 ? $1 / $3 : 0)
      runs = runs sprintf(" %.2f/%.2f", $1, $3) }
    function median(a, n,   i, j, t) {
      for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
      return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2 }
    END { printf "%-20s kdisk %6.2f s %6d KiB  mkntfs %6.2f s %6d KiB  median time ratio %.2f  (kdisk/mkntfs s:%s)\n",
                 n, median(kt, NR), km, median(mt, NR), mm, median(r, NR), runs }'
}

echo "load: $(cut -d' ' -f1-3 /proc/loadavg), $ROUNDS rounds"
one "64 GiB sparse image" 64G image
one "2 TiB sparse image" 2T image
if [ "$(id -u)" -eq 0 ] && command -v losetup >/dev/null; then
  one "64 GiB loop device" 64G loop
else
  echo "64 GiB loop device: skipped (needs root and losetup)"
fi
echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
