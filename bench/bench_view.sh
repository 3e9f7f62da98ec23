#!/usr/bin/env bash
# /VIEW of 100,000 sectors to /dev/null: counts the read system calls that move the dumped
# sectors (they must be transfers of the drive's preferred length, 2048 sectors by default)
# and compares the time with dd reading the same bytes in 1 MiB blocks.
# Usage: bench/bench_view.sh path/to/kdisk
set -euo pipefail
KDISK=${1:?usage: bench_view.sh path/to/kdisk}
command -v strace >/dev/null || { echo "SKIP: strace is not installed"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
img=$work/view.img
sectors=100000
truncate -s $((sectors * 512)) "$img"
printf 'label: dos\nstart=2048, type=83\n' | sfdisk -q "$img"

run() { "$KDISK" /NOOSDISK "/ADDDISK=$img" 1 /VIEW:0 /NUM:$sectors >/dev/null; }

strace -f -qq -e trace=read,pread64,readv,preadv -o "$work/trace" "$KDISK" /NOOSDISK "/ADDDISK=$img" \
  1 /VIEW:0 /NUM:$sectors >/dev/null
# Reads of 1 MiB or more can only be transfers from the image.
big=$(awk -F'= ' '{ n = $NF + 0; if (n >= 1048576) b++ } END { print b + 0 }' "$work/trace")
small=$(awk -F'= ' '/read/ { n = $NF + 0; if (n >= 512 && n < 1048576) s++ } END { print s + 0 }' "$work/trace")
expected=$(((sectors + 2047) / 2048))
echo "sectors dumped:            $sectors"
echo "reads of >= 1 MiB:         $big (expected about $expected transfers of 2048 sectors)"
echo "reads below 1 MiB:         $small (partition table reads, the last short run)"

t0=$(date +%s.%N); run; t1=$(date +%s.%N)
dd if="$img" of=/dev/null bs=1M status=none; t2=$(date +%s.%N)
awk -v a="$t0" -v b="$t1" -v c="$t2" 'BEGIN { printf "kdisk /VIEW:              %.3f s\ndd (read only):            %.3f s\n", b - a, c - b }'
# The dump formats 51 MB of sectors into 3.2 million lines: formatting dominates, not reading.
[ "$big" -ge $((expected - 1)) ] && [ "$big" -le $((expected + 1)) ] || { echo "FAIL: not read in preferred-length transfers"; exit 1; }
