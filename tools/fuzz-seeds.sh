#!/usr/bin/env bash
# Makes the seed corpora of the fuzz targets (tests/fuzz/seeds/<target>/) with real tools:
# sfdisk for partition tables, mkfs.fat, mkfs.ext2, mkntfs and mkswap for partition contents.
# Each seed keeps only the sectors its target reads, laid out the way the target expects.
# Run it again after changing a target's input layout and commit the result.
set -euo pipefail
cd "$(dirname "$0")/.."
out=tests/fuzz/seeds
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
for t in sfdisk mkfs.fat mkfs.ext2 mkntfs mkswap python3; do
  command -v "$t" >/dev/null || { echo "$t is not installed" >&2; exit 1; }
done
mkdir -p "$out/gpt" "$out/tables" "$out/content" "$out/switches"

# fuzz_gpt: the first half of the input is the start of an 8 MiB disk, the second half its
# end. A GPT of 4 entries fits in 3 sectors at each end; one of 128 entries in 34.
gpt() {  # name, entries, sfdisk lines
  local img=$tmp/$1.img n=$(($2 / 4 + 2))
  truncate -s 8M "$img"
  printf 'label: gpt\ntable-length: %s\n%b' "$2" "$3" | sfdisk -q "$img"
  { head -c $((n * 512)) "$img"; tail -c $((n * 512)) "$img"; } >"$out/gpt/$1"
}
gpt two_entries 4 'start=2048, size=4096, type=L\nstart=6144, size=8192, type=S\n'
gpt full_table 128 'size=2048, type=U, name="EFI"\nsize=4096, type=L, name="root"\ntype=H\n'

# fuzz_tables: 4 header bytes (disk size selector, operation, alignment, unused), then
# 512-byte chunks; sector s of the disk reads chunk s % count. The boot records of an
# sfdisk-made chain are placed at their own chunks.
truncate -s 200M "$tmp/mbr.img"
printf 'label: dos\nstart=2048, size=8192, type=c, bootable\nstart=10240, size=300000, type=5\nstart=12288, size=4096, type=83\nstart=18432, size=8192, type=7\n' |
  sfdisk -q "$tmp/mbr.img"
python3 - "$tmp/mbr.img" "$out/tables/logical_chain" <<'PY'
import struct, sys
img, dest = sys.argv[1], sys.argv[2]
b = open(img, 'rb').read()
def sector(s): return b[s * 512:(s + 1) * 512]
def entry(sec, i): return struct.unpack_from('<BBBBBBBBII', sec, 446 + 16 * i)
records = [0]
ext = next(e[8] for i in range(4) for e in [entry(sector(0), i)] if e[4] in (5, 15))
at = ext
while at and len(records) < 8:
    records.append(at)
    link = entry(sector(at), 1)
    at = ext + link[8] if link[4] in (5, 15) else 0
n = next(n for n in range(len(records), 64) if len({r % n for r in records}) == len(records))
chunks = [bytes(512)] * n
for r in records: chunks[r % n] = sector(r)
# Disk size 409600 sectors (selector 3), operation 3: a logical drive is created.
open(dest, 'wb').write(bytes([3, 3, 1, 0]) + b''.join(chunks))
PY

# fuzz_content: the first byte is the partition type, the rest the partition's first sectors
# (as far as recognition and the label readers look).
content() {  # name, type byte, bytes kept, image
  { printf "\\$(printf %03o "$2")"; head -c "$3" "$4"; } >"$out/content/$1"
}
truncate -s 200K "$tmp/fat.img" && mkfs.fat -n SEEDFAT -r 16 "$tmp/fat.img" >/dev/null
content fat12 1 4096 "$tmp/fat.img"
truncate -s 512K "$tmp/ext.img" && mkfs.ext2 -q -F -L seedext -b 1024 "$tmp/ext.img"
content ext2 131 2048 "$tmp/ext.img"
truncate -s 2M "$tmp/ntfs.img" && mkntfs -q -F -f -L SEEDNTFS "$tmp/ntfs.img" >/dev/null 2>&1
content ntfs 7 20480 "$tmp/ntfs.img"
truncate -s 64K "$tmp/swap.img" && mkswap -L seedswap "$tmp/swap.img" >/dev/null
content swap 130 4096 "$tmp/swap.img"

# fuzz_switches: the first byte picks the accepted switch list, the rest is a command line.
sw() { { printf "\\$(printf %03o "$2")"; printf '%s' "$3"; } >"$out/switches/$1"; }
sw create 5 '1 /CRE /PRI /SZ:50P /FOR /Q /V:DATA'
sw delete 6 '1 /DEL /P:1 /DODWIPE /Y'
sw status 7 '/STATUS /RAW /X /I'
sw view 19 '1 /VIEW:0 /NUM:2 /PAGE'
sw batch 18 '/BATCH:"make it.txt" /Y /DIAG:log.txt'
ls -l "$out"/*
