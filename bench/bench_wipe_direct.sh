#!/usr/bin/env bash
# Wipe passes on a loop device against dd past the page cache over the same range, side by side
# in one run: a partition wipe (/DEL /CUSTOMWIPE:1: three writing passes and a verifying read of
# the medium) and whole-disk wipes (/DISKWIPE: one pass of zeros; /DISKWIPE /CUSTOMWIPE:1).
# dd does the same passes: `dd bs=4M oflag=direct` for a writing pass, `dd bs=4M iflag=direct`
# for the verifying read. The ratio is dd's time for those passes over Kdisk's time, so 0.9 or
# more means every pass runs at least at 0.9 x dd. Rounds alternate which tool goes first; the
# median ratio counts, and the peak memory of both is reported. Needs root.
# The backing file lies in memory (/dev/shm, or $BENCH_DIR) and is written whole once before
# the first timing, so every run meets the same allocated extents and no run pays for the
# backing disk's flushes. The partition table a partition wipe needs is written outside the
# timing.
# Usage: bench/bench_wipe_direct.sh path/to/kdisk [disk size in MiB, default 4096] [rounds, default 5]
set -euo pipefail
KDISK=${1:?usage: bench_wipe_direct.sh path/to/kdisk [MiB] [rounds]}
mib=${2:-4096}
rounds=${3:-5}
[ "$(id -u)" -eq 0 ] || { echo "skipped: needs root (loop device)" >&2; exit 77; }
command -v sfdisk >/dev/null || { echo "skipped: needs sfdisk" >&2; exit 77; }
[ -x /usr/bin/time ] || { echo "skipped: needs /usr/bin/time (package time)" >&2; exit 77; }
work=$(mktemp -d "${BENCH_DIR:-/dev/shm}/kdisk-bench-XXXXXX")
img=$work/bench.img
fallocate -l "${mib}M" "$img"
dev=$(losetup -f --show "$img")
trap 'losetup -d "$dev"; rm -rf "$work"' EXIT
dd if=/dev/zero of="$dev" bs=1M count="$mib" oflag=direct status=none
echo "load before: $(uptime | sed 's/.*load average: //')"
sectors=$((mib * 2048))
first=2048 count=$((sectors - 4096))

table() { printf 'label: dos\nstart=%d, size=%d, type=6\n' "$first" "$count" | sfdisk -q "$dev" >/dev/null 2>&1; }
# timed CMD...: "seconds peak-KiB" of one command.
timed() {
  /usr/bin/time -f '%e %M' -o "$work/time" "$@" >/dev/null 2>&1 || echo "failed: $*" >&2
  cat "$work/time"
}
# dd_passes FIRST COUNT WRITES READS: seconds (and peak KiB) for dd doing the same passes.
dd_passes() {
  local t=0 m=0 r i
  for ((i = 0; i < $3 + $4; i++)); do
    if ((i < $3)); then
      r=$(timed dd if=/dev/zero of="$dev" bs=4M seek=$(($1 * 512)) count=$(($2 * 512)) \
        oflag=direct,seek_bytes iflag=count_bytes status=none)
    else
      r=$(timed dd if="$dev" of=/dev/null bs=4M skip=$(($1 * 512)) count=$(($2 * 512)) \
        iflag=direct,skip_bytes,count_bytes status=none)
    fi
    t=$(awk -v a="$t" -v b="${r% *}" 'BEGIN { print a + b }')
    ((${r#* } > m)) && m=${r#* }
  done
  echo "$t $m"
}
kdisk_run() { timed "$KDISK" /NOOSDISK "/ADDDISK=$dev" "$@"; }

# compare NAME SETUP FIRST COUNT WRITES READS KDISK-ARGS...: rounds alternating the order.
compare() {
  local name=$1 setup=$2 f=$3 c=$4 w=$5 rd=$6 i d k
  shift 6
  : >"$work/ratios"
  for ((i = 0; i < rounds; i++)); do
    if ((i % 2)); then
      $setup; k=$(kdisk_run "$@"); d=$(dd_passes "$f" "$c" "$w" "$rd")
    else
      d=$(dd_passes "$f" "$c" "$w" "$rd"); $setup; k=$(kdisk_run "$@")
    fi
    echo "${d% *} ${k% *} ${d#* } ${k#* }" >>"$work/ratios"
  done
  sort -g -k5 <(awk '{ printf "%s %s %s %s %.3f\n", $1, $2, $3, $4, $1 / $2 }' "$work/ratios") |
    awk -v n="$name" -v mb=$((c / 2048)) -v p=$((w + rd)) '
      { r[NR] = $5; d[NR] = $1; k[NR] = $2; if ($3 > dm) dm = $3; if ($4 > km) km = $4 }
      END { m = int((NR + 1) / 2)
        printf "%-26s dd %6.0f MiB/s  kdisk %6.0f MiB/s per pass  median ratio %.2f  (runs %s..%s)  peak dd %.1f MiB, kdisk %.1f MiB\n",
          n, mb * p / d[m], mb * p / k[m], r[m], r[1], r[NR], dm / 1024, km / 1024 }'
}
none() { :; }

compare "partition /CUSTOMWIPE:1" table "$first" "$count" 3 1 1 /DEL /P:1 /CUSTOMWIPE:1 /Y
compare "/DISKWIPE (zeros)" none 0 "$sectors" 1 0 1 /DISKWIPE /Y
compare "/DISKWIPE /CUSTOMWIPE:1" none 0 "$sectors" 3 1 1 /DISKWIPE /CUSTOMWIPE:1 /Y
echo "load after: $(uptime | sed 's/.*load average: //')"
