#!/usr/bin/env bash
# Hostile partition tables: chains of extended boot records that reach the master boot record
# or overlap themselves, chains that cannot be read to their end, very long chains and GPT
# entries that run to the end of the address space. Each damaged table is listed with its
# finding, and every change that would touch the damaged part is refused with the image
# unchanged.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools python3 sha256sum

# mk RECIPE IMAGE: builds the hostile image. Sectors are 512 bytes; slot starts of an extended
# boot record count from the record (logical drive) or from the extended partition (link).
mk() {
  python3 - "$1" "$2" <<'PY'
import struct, subprocess, sys, zlib
recipe, path = sys.argv[1], sys.argv[2]
MB = 1 << 20
with open(path, "wb") as f:
    f.truncate(64 * MB)

def record(sector, slots):
    b = bytearray(512)
    for i, (typ, start, count) in enumerate(slots):
        if typ:
            b[446 + 16 * i + 4] = typ
            b[446 + 16 * i + 8:446 + 16 * i + 16] = struct.pack("<II", start, count)
    b[510:512] = b"\x55\xaa"
    with open(path, "r+b") as f:
        f.seek(sector * 512)
        f.write(b)

EXT = 10240  # the extended partition of the MBR recipes: 10240 + 40960 sectors
def mbr(ext_start=EXT):
    record(0, [(0x83, 2048, 8192), (0x05, ext_start, 40960)])

if recipe == "ext_at_mbr":          # the extended partition starts in the master boot record
    mbr(0)
elif recipe == "ebr_in_drive":      # the second record lies inside the first logical drive
    mbr()
    record(EXT, [(0x06, 2048, 8192), (0x05, 4096, 4096)])
    record(EXT + 4096, [(0x83, 1, 100)])
elif recipe == "drive_over_ebr":    # the third drive covers the second record
    mbr()
    record(EXT, [(0x83, 2048, 2048), (0x05, 20480, 4096)])
    record(EXT + 20480, [(0x83, 2048, 2048), (0x05, 6144, 4096)])
    record(EXT + 6144, [(0x83, 1, 20000)])
elif recipe == "ebr_loop":          # the second record links back to the first
    mbr()
    record(EXT, [(0x83, 2048, 2048), (0x05, 8192, 4096)])
    record(EXT + 8192, [(0x83, 2048, 2048), (0x05, 0, 4096)])
elif recipe == "ebr_unsigned":      # the chain links to a record without a signature
    mbr()
    record(EXT, [(0x83, 2048, 2048), (0x05, 8192, 4096)])
elif recipe == "past_end":          # entry 2 runs past the end of the disk (131072 sectors)
    record(0, [(0x06, 2048, 8192), (0x07, 120000, 20000)])
elif recipe == "beyond_end":        # entry 2 starts past the end of the disk
    record(0, [(0x06, 2048, 8192), (0x0C, 200000, 8192)])
elif recipe in ("long_chain", "chain3000"):  # logical drives of 3 sectors, each after its record
    n = 1030 if recipe == "long_chain" else 3000
    record(0, [(0x05, 2048, 4 * n)])
    for i in range(n):
        nxt = (0x05, 4 * (i + 1), 4) if i + 1 < n else (0, 0, 0)
        record(2048 + 4 * i, [(0x83, 1, 3), nxt])
elif recipe in ("gpt_to_top", "gpt_lba0"):
    # gpt_to_top: entry 2 ends at LBA 2^64 - 1; gpt_lba0: entry 1 starts at LBA 0. CRCs correct.
    subprocess.run(["sfdisk", "-q", "--no-reread", "--no-tell-kernel", path], check=True,
                   input=b"label: gpt\nstart=2048, size=8192\nstart=12288, size=8192\n")
    with open(path, "r+b") as f:
        data = bytearray(f.read())
    last = len(data) // 512 - 1
    for header in (1, last):
        h = header * 512
        entries = struct.unpack_from("<Q", data, h + 72)[0] * 512
        count, size = struct.unpack_from("<II", data, h + 80)
        if recipe == "gpt_to_top":
            struct.pack_into("<Q", data, entries + size + 40, (1 << 64) - 1)
        else:
            struct.pack_into("<Q", data, entries + 32, 0)
        struct.pack_into("<I", data, h + 88, zlib.crc32(data[entries:entries + count * size]))
        struct.pack_into("<I", data, h + 16, 0)
        struct.pack_into("<I", data, h + 16, zlib.crc32(data[h:h + struct.unpack_from("<I", data, h + 12)[0]]))
    with open(path, "r+b") as f:
        f.write(data)
PY
}

# recipe|command|exit code|finding (a whole line)|refusal (text in the output; empty: none)
while IFS='|' read -r recipe cmd code finding refusal; do
  [ -n "$recipe" ] || continue
  img=$WORK/$recipe.img
  mk "$recipe" "$img" || { fail "$recipe: recipe failed"; continue; }
  before=$(sha "$img")
  # shellcheck disable=SC2086
  kd "$img" 1 $cmd
  what="$recipe: $cmd"
  expect_rc "$code" "$what"
  expect_line "$finding" "$what"
  [ -z "$refusal" ] || expect_text "$refusal" "$what"
  [ "$(sha "$img")" = "$before" ] || fail "$what: image changed"
done <<'T'
ext_at_mbr|/STATUS|0|Fixed disk 1: The chain of extended boot records reaches the master boot record|
ext_at_mbr|/CRE /LOG /SZ:1|1|Fixed disk 1: The chain of extended boot records reaches the master boot record|Logical DOS drive could not be created -- The chain of extended boot records is damaged
ebr_in_drive|/CRE /LOG /SZ:1|1|Fixed disk 1: The extended boot record at sector 14336 lies inside a logical drive of its own chain|Logical DOS drive could not be created -- The chain of extended boot records is damaged
ebr_in_drive|/DEL /LOG:1|1|Fixed disk 1: The extended boot record at sector 14336 lies inside a logical drive of its own chain|Cannot delete logical DOS drive -- The chain of extended boot records is damaged
ebr_in_drive|/HIDE /P:3|1|Fixed disk 1: The extended boot record at sector 14336 lies inside a logical drive of its own chain|Cannot hide partition -- The chain of extended boot records is damaged
drive_over_ebr|/DEL /LOG:1|1|Fixed disk 1: The logical drive at sector 16385 covers the extended boot record at sector 30720 of its own chain|Cannot delete logical DOS drive -- The chain of extended boot records is damaged
drive_over_ebr|/CRE /LOG /SZ:1|1|Fixed disk 1: The logical drive at sector 16385 covers the extended boot record at sector 30720 of its own chain|Logical DOS drive could not be created -- The chain of extended boot records is damaged
ebr_loop|/DEL /LOG:2|1|Fixed disk 1: The chain of extended boot records loops back to sector 10240|Cannot delete logical DOS drive -- The chain of extended boot records is damaged
ebr_unsigned|/DEL /LOG:1|1|Fixed disk 1: The extended boot record at sector 18432 has no 0xAA55 signature|Cannot delete logical DOS drive -- The chain of extended boot records is damaged
ebr_unsigned|/-ACT /P:3|0|Fixed disk 1: The extended boot record at sector 18432 has no 0xAA55 signature|The specified partition is not active
gpt_to_top|/STATUS|0|Fixed disk 1 has partition(s) that extend past the end of the disk|
gpt_to_top|/CRE /PRI /SZ:2|1|Fixed disk 1 has partition(s) that extend past the end of the disk|Maximum space available for primary DOS partition is 1.0MB
gpt_to_top|/DEL /P:2 /QWIPE /Y|1|Fixed disk 1 has partition(s) that extend past the end of the disk|Cannot wipe Non-DOS partition -- The partition extends past the end of the disk (sectors 12288 to 18446744073709551614 of a disk of 131072 sectors)
past_end|/ACT /P:2|1|Fixed disk 1 has partition(s) that extend past the end of the disk|Cannot set partition active -- The partition extends past the end of the disk (sectors 120000 to 139999 of a disk of 131072 sectors)
past_end|/HIDE /P:2|1|Fixed disk 1 has partition(s) that extend past the end of the disk|Cannot hide partition -- The partition extends past the end of the disk (sectors 120000 to 139999
past_end|/DEL /P:2 /DODWIPE /Y|1|Fixed disk 1 has partition(s) that extend past the end of the disk|Cannot wipe primary DOS partition -- The partition extends past the end of the disk
past_end|/DEL /ALL /QWIPE /Y|1|Fixed disk 1 has partition(s) that extend past the end of the disk|Cannot wipe partition(s) -- The partition extends past the end of the disk
beyond_end|/ACT /P:2|1|Fixed disk 1: Partition table entry 2 starts at sector 200000, beyond the end of the disk|Cannot set partition active -- The partition extends past the end of the disk (sectors 200000 to 208191 of a disk of 131072 sectors)
beyond_end|/HIDE /P:2|1|Fixed disk 1: Partition table entry 2 starts at sector 200000, beyond the end of the disk|Cannot hide partition -- The partition extends past the end of the disk
beyond_end|/DEL /P:2 /CUSTOMWIPE:1 /Y|1|Fixed disk 1: Partition table entry 2 starts at sector 200000, beyond the end of the disk|Cannot wipe primary DOS partition -- The partition extends past the end of the disk
T

# Deleting an entry that reaches past the end of the disk, without a wipe, repairs the table.
for recipe in past_end beyond_end; do
  img=$WORK/$recipe.img
  kd "$img" 1 /DEL /P:2 /Y
  expect_rc 0 "$recipe: /DEL /P:2"
  [ "$(table_of "$img")" = "2048 8192 6 0" ] || fail "$recipe: sfdisk reads after /DEL /P:2: $(table_of "$img")"
done

# logicals IMAGE: "start size" of every logical drive, walking the chain of the first extended
# partition (sfdisk and blkid stop reading long chains early).
logicals() {
  python3 - "$1" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read()
slot = lambda sector, i: struct.unpack_from("<BxxxII", data, sector * 512 + 446 + 16 * i + 4)
ext = next(slot(0, i)[1] for i in range(4) if slot(0, i)[0] in (0x05, 0x0F))
block, seen = ext, set()
while block not in seen and data[block * 512 + 510:block * 512 + 512] == b"\x55\xaa":
    seen.add(block)
    typ, start, count = slot(block, 0)
    if typ:
        print(block + start, count)
    typ, start, count = slot(block, 1)
    if not typ:
        break
    block = ext + start
PY
}

# A chain longer than any fixed limit is read to its end: deleting drive 1025 of 1030 leaves
# the other 1029 in place.
img=$WORK/long_chain.img
mk long_chain "$img"
logicals "$img" >"$WORK/long.before"
[ "$(wc -l <"$WORK/long.before")" -eq 1030 ] || fail "long_chain: the recipe holds $(wc -l <"$WORK/long.before") drives"
kd "$img" 1 /DEL /LOG:1025
expect_rc 0 "long_chain: /DEL /LOG:1025"
logicals "$img" >"$WORK/long.after"
sed '1025d' "$WORK/long.before" | cmp -s - "$WORK/long.after" ||
  fail "long_chain: other drives changed: $(diff <(sed '1025d' "$WORK/long.before") "$WORK/long.after" | head -5)"
[ "$(table_of "$img" | head -1)" = "2048 4120 5 0" ] || fail "long_chain: sfdisk reads the MBR as $(table_of "$img" | head -1)"

# Deleting the extended partition of a 3000-drive chain clears every record (the records that
# stay are gathered once, not looked up again for each record): no drive is left to find.
img=$WORK/chain3000.img
mk chain3000 "$img"
kd_answer $'y\n' "$img" 1 /DEL /EXT
expect_rc 0 "chain3000: /DEL /EXT"
expect_text "The extended DOS partition contains 3000 logical DOS drives. Delete it anyway?" "chain3000: /DEL /EXT"
[ "$(count_parts "$img")" -eq 0 ] || fail "chain3000: sfdisk still finds $(count_parts "$img") partitions"
python3 - "$img" <<'PY' || fail "chain3000: extended boot records are left"
import sys
data = open(sys.argv[1], "rb").read()
sys.exit(any(any(data[(2048 + 4 * i) * 512:(2049 + 4 * i) * 512]) for i in range(3000)))
PY

# A wipe of a GPT entry that covers LBA 0 cannot leave the protective MBR destroyed: the
# surviving entry stays visible to sfdisk.
img=$WORK/gpt_lba0.img
mk gpt_lba0 "$img"
kd "$img" 1 /DEL /P:1 /QWIPE /Y
expect_rc 0 "gpt_lba0: /DEL /P:1 /QWIPE"
expect_line "34 sectors of the partition hold partition tables and are left as they are" "gpt_lba0: /DEL /P:1 /QWIPE"
table_ok "$img" "gpt_lba0 after wipe"
[ "$(table_of "$img" | cut -d' ' -f1,2)" = "12288 8192" ] || fail "gpt_lba0: sfdisk reads: $(table_of "$img")"
blkid -p -o value -s PTTYPE "$img" | grep -qx gpt || fail "gpt_lba0: blkid does not see a GPT"

# A GPT image cut short (its backup past the end): the partitions are read from the primary as
# sfdisk reads them, the misplaced backup is a finding, and the next change writes the backup
# at the image's real end; a change that would put the backup over a partition is refused.
img=$WORK/cut.img
for cut in 65528K 40M; do  # within the backup array (sfdisk reads the primary), and far past it
  truncate -s 64M "$img"
  printf 'label: gpt\nstart=2048, size=16384\nstart=18432, size=8192\n' | sfdisk -q "$img" >/dev/null
  truncate -s "$cut" "$img"
  kd "$img" 1 /STATUS
  expect_rc 0 "GPT cut to $cut: /STATUS"
  expect_text "The backup GPT header would lie at block 131071, past the disk's last block" "GPT cut to $cut"
  [ "$(grep -cE '^ +[12]  .* PRIMARY ' <<<"$OUT")" = 2 ] || fail "GPT cut to $cut: partitions not listed: $OUT"
  kd "$img" /STATUS /JSON
  mine=$(jq -r '[.disks[0].partitions[] | "\(.start) \(.size)"] | join(",")' "$WORK/out")
  [ "$mine" = "2048 16384,18432 8192" ] || fail "GPT cut to $cut: /JSON lists $mine"
  [ "$cut" != 65528K ] || [ "$(sfdisk -J "$img" 2>/dev/null |
    jq -r '[.partitiontable.partitions[] | "\(.start) \(.size)"] | join(",")')" = "$mine" ] ||
    fail "GPT cut to $cut: sfdisk reads otherwise"
  kd "$img" 1 /CRE /PRI /SZ:4 /Y
  expect_rc 0 "GPT cut to $cut: /CRE"
  table_ok "$img" "GPT cut to $cut, after /CRE"
  [ "$(table_of "$img" | cut -d' ' -f1,2 | head -2 | paste -sd,)" = "2048 16384,18432 8192" ] ||
    fail "GPT cut to $cut: the partitions moved: $(table_of "$img")"
  kd "$img" 1 /STATUS
  ! grep -q "GPT header" <<<"$out" || fail "GPT cut to $cut, after /CRE: still a finding: $out"
done
truncate -s 64M "$img"
printf 'label: gpt\nstart=2048, size=16384\nstart=18432, size=8192\n' | sfdisk -q "$img" >/dev/null
truncate -s 12M "$img"  # through partition 2
before=$(sha "$img")
kd "$img" 1 /CRE /PRI /SZ:1 /Y
expect_rc 1 "GPT cut through a partition: /CRE"
[ "$(sha "$img")" = "$before" ] || fail "GPT cut through a partition: image changed"
finish
