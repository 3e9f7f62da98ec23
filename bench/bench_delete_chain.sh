#!/usr/bin/env bash
# Deleting an extended partition that holds a long chain of logical drives: /DEL /EXT on chains
# of 1000 and 3000 drives, against sfdisk deleting the same extended partition. Deleting grows
# with the chain's length, not with its square: the time per drive stays about the same.
# Usage: bench/bench_delete_chain.sh path/to/kdisk
set -euo pipefail
KDISK=${1:?usage: bench_delete_chain.sh path/to/kdisk}
work=$(mktemp -d "${TMPDIR:-/tmp}/kdisk-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
img=$work/chain.img
now() { date +%s.%N; }

# chain N: an extended partition at 2048 holding N logical drives of 3 sectors, each right
# after its extended boot record.
chain() {
  python3 - "$img" "$1" <<'PY'
import struct, sys
path, n = sys.argv[1], int(sys.argv[2])
data = bytearray((2048 + 4 * n + 2048) * 512)
def record(sector, slots):
    b = sector * 512
    for i, (typ, start, count) in enumerate(slots):
        data[b + 446 + 16 * i + 4] = typ
        data[b + 446 + 16 * i + 8:b + 446 + 16 * i + 16] = struct.pack("<II", start, count)
    data[b + 510:b + 512] = b"\x55\xaa"
record(0, [(0x05, 2048, 4 * n)])
for i in range(n):
    record(2048 + 4 * i, [(0x83, 1, 3)] + ([(0x05, 4 * (i + 1), 4)] if i + 1 < n else []))
open(path, "wb").write(data)
PY
}

for n in 1000 3000; do
  chain "$n"
  t0=$(now); "$KDISK" /NOOSDISK "/ADDDISK=$img" 1 /DEL /EXT /Y >/dev/null 2>&1; t1=$(now)
  k_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')
  chain "$n"
  t0=$(now); sfdisk -q --no-reread --no-tell-kernel --delete "$img" 1 >/dev/null 2>&1; t1=$(now)
  s_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')
  echo "$n drives: /DEL /EXT $(printf '%.3f' "$k_s") s ($(awk -v s="$k_s" -v n="$n" 'BEGIN { printf "%.1f", s * 1e6 / n }') us per drive)," \
    "sfdisk --delete $(printf '%.3f' "$s_s") s, ratio to sfdisk $(awk -v a="$k_s" -v b="$s_s" 'BEGIN { printf "%.2f", a / b }')"
done
