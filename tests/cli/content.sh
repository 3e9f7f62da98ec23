#!/usr/bin/env bash
# What /STATUS and /STATUS /JSON say a partition holds, judged by blkid -p: volumes made by the
# real tools (mkfs.fat, fatlabel, mkntfs with non-ASCII labels, mkfs.exfat, mke2fs, mkswap,
# mkreiserfs, mkfs.btrfs, cryptsetup, pvcreate, xorriso) and by hand where no tool exists
# (BitLocker's boot sector, a big-endian swap area), each copied into a partition of one GPT
# disk, plus an NTFS volume Kdisk formats there itself. For every partition the filesystem and
# the whole label in /JSON are blkid's (FAT labels in the DOS code page as fatlabel reads them),
# and the text table shows the same, the label cut on a character boundary at its column with
# every column in its place.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools blkid mkfs.fat fatlabel mkntfs mke2fs mkswap
export LC_ALL=C.UTF-8

# ---- The volumes, in partition order: "file|size in MiB" in $WORK/vols.
mkdir "$WORK/v"
: >"$WORK/vols"
# vol NAME MIB TOOL COMMAND: runs COMMAND (with $f the new file of MIB MiB) when TOOL exists.
vol() {
  local name=$1 mib=$2 tool=$3 f=$WORK/v/$1.img; shift 3
  if ! command -v "$tool" >/dev/null; then echo "note: $tool is not installed; no $name volume"; return; fi
  truncate -s "${mib}M" "$f"
  if ! eval "$*" >"$WORK/mk.log" 2>&1; then fail "making $name: $(cat "$WORK/mk.log")"; rm -f "$f"; return; fi
  echo "$name|$mib" >>"$WORK/vols"
}
# patch FILE OFFSET HEXBYTES: writes the bytes at the offset.
patch() { printf "$(sed 's/../\\x&/g' <<<"$3")" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }
hex() { printf %s "$1" | od -An -tx1 | tr -d ' \n'; }
# Directory entry offset of the first root directory entry of a FAT12/16 image.
fat_root() {
  od -An -tu2 -j14 -N2 "$1" | { read -r rs; n=$(od -An -tu1 -j16 -N1 "$1"); spf=$(od -An -tu2 -j22 -N2 "$1")
    echo $(((rs + n * spf) * 512)); }
}

vol fat12 2 mkfs.fat 'mkfs.fat -F 12 -n FLOPPY "$f"'
# The label entry removed from the root directory (its first byte 0xE5) leaves the boot
# sector's stale copy, which no reader takes.
vol fat16-removed 16 mkfs.fat 'mkfs.fat -F 16 -n STALE "$f" && patch "$f" "$(fat_root "$f")" e5'
# A label whose first character is 0xE5 in the code page (Õ) is stored with the 0x05 escape.
vol fat16-escape 16 fatlabel 'mkfs.fat -F 16 -n PLACEHOLDER "$f" && patch "$f" "$(fat_root "$f")" 055245208f522020202020'
vol fat32 40 mkfs.fat 'mkfs.fat -F 32 -n "MY DATA" "$f"'
vol ntfs-ru 8 mkntfs 'mkntfs -q -F -f -L "Новый том" "$f"'
vol ntfs-long 8 mkntfs 'mkntfs -q -F -f -L "ProjectArchive2024Backup" "$f"'
vol exfat 8 mkfs.exfat 'mkfs.exfat -L "Reisefotos" "$f"'
vol exfat-u 8 mkfs.exfat 'mkfs.exfat -L "Über 2024" "$f"'
vol ext2 4 mke2fs 'mke2fs -q -F -t ext2 -L "sixteen-byte-lbl" "$f"'
vol ext3 8 mke2fs 'mke2fs -q -F -t ext3 -L "Ωmega" "$f"'
vol ext4 8 mke2fs 'mke2fs -q -F -t ext4 -L "data4" "$f"'
vol ext4-empty 8 mke2fs 'mke2fs -q -F -t ext4 "$f"'
vol jbd 4 mke2fs 'mke2fs -q -F -O journal_dev -L "ext-journal" "$f"'
vol swap 1 mkswap 'mkswap -L "swaplabel" "$f"'
vol swap-8k 1 mkswap 'mkswap -p 8192 -L "pages8k" "$f"'
# A swap area made on a big-endian machine: version 1 and the last page number byte-swapped.
vol swap-be 1 mkswap 'mkswap -L "bigendian" "$f" && patch "$f" 1024 00000001 && patch "$f" 1028 000000ff'
vol reiserfs 34 mkreiserfs 'mkreiserfs -q -f -l "reiser36" "$f"'
vol btrfs 16 mkfs.btrfs 'mkfs.btrfs -q -M -L "butter" "$f"'
vol luks 20 cryptsetup 'printf pw >"$WORK/key" && cryptsetup luksFormat -q --type luks2 --label "vault" \
  --pbkdf pbkdf2 --pbkdf-force-iterations 1000 --key-file "$WORK/key" "$f"'
vol iso 2 xorriso 'mkdir -p "$WORK/isodir" && echo hi >"$WORK/isodir/a" && rm -f "$f" &&
  xorriso -as mkisofs -quiet -V "DISC_2024" -o "$f" "$WORK/isodir"'
# An LVM2 physical volume: pvcreate on a loop device over the file when the machine allows it.
lvm() {
  local loop
  loop=$(losetup -f --show "$f") || return 1
  pvcreate -ff -y "$loop"
  local rc=$?
  losetup -d "$loop"
  return $rc
}
if [ "$(id -u)" = 0 ] && command -v losetup >/dev/null; then vol lvm 4 pvcreate lvm; else echo "note: not root; no LVM volume"; fi
# BitLocker (Windows 7 and later): a boot sector with "-FVE-FS-" as its OEM name and a FAT32
# type string, the three metadata block offsets at 176 and a metadata block at the first.
vol bitlocker 2 blkid 'patch "$f" 0 "eb5890$(hex -FVE-FS-)0002" && patch "$f" 82 "$(hex "FAT32   ")" &&
  patch "$f" 510 55aa && patch "$f" 176 000001000000000000010100000000000002010000000000 &&
  patch "$f" 65536 "$(hex -FVE-FS-)00000200"'

# ---- One GPT disk: every volume in a partition of its size, 8 MiB left for Kdisk's NTFS.
img=$WORK/disk.img
total=2
while IFS='|' read -r name mib; do total=$((total + mib)); done <"$WORK/vols"
truncate -s $(((total + 9) * 1048576)) "$img"
{
  echo "label: gpt"
  while IFS='|' read -r name mib; do echo "size=${mib}MiB, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"; done <"$WORK/vols"
} | sfdisk -q "$img" >/dev/null || fail "sfdisk"
n=0
while IFS='|' read -r name mib; do
  n=$((n + 1))
  read -r s _ <<<"$(part "$img" "$n")"
  dd if="$WORK/v/$name.img" of="$img" bs=1M seek=$((s * 512)) oflag=seek_bytes conv=notrunc,sparse status=none
done <"$WORK/vols"
count=$n

kd "$img" 1 /CRE /PRI /SZ:8 /FOR /NTFS /V:ProjectArchive2024Backup /Q /Y
[ "$RC" = 0 ] || fail "/CRE /FOR /NTFS with a 24-character label: exit code $RC: $ERR $OUT"
count=$((count + 1))
read -r s z _ <<<"$(part "$img" "$count")"
extract "$img" "$s" "$z" >"$WORK/v/kdisk-ntfs.img"
echo "kdisk-ntfs|8" >>"$WORK/vols"

# ---- What blkid sees against what Kdisk lists.
kd "$img" 1 /STATUS
expect_rc 0 "/STATUS"
rows=$(sed -n '/^Partitions on fixed disk/,$p' <<<"$OUT" | grep -E '^ +[0-9]+  ')
kd "$img" /STATUS /JSON
expect_rc 0 "/STATUS /JSON"
cp "$WORK/out" "$WORK/doc.json"
jq -e . "$WORK/doc.json" >/dev/null || fail "/JSON: not one document: $OUT"

# The System column's name for blkid's TYPE (and VERSION of vfat).
kdisk_name() {
  case "$1" in
    vfat) echo "$2" ;; ntfs) echo NTFS/HPFS ;; exfat) echo EXFAT ;; ext2) echo EXT2FS ;; ext3) echo EXT3FS ;;
    ext4) echo EXT4FS ;; jbd) echo "EXT JRNL" ;; swap) echo "LINUX SWAP" ;; reiserfs) echo REISERFS ;;
    btrfs) echo BTRFS ;; crypto_LUKS) echo LUKS ;; LVM2_member) echo LVM2 ;; iso9660) echo ISO9660 ;;
    BitLocker) echo BITLOCKER ;; *) echo "?$1" ;;
  esac
}
n=0
sizecol=""
while IFS='|' read -r name mib; do
  n=$((n + 1))
  f=$WORK/v/$name.img
  type=$(blkid -p -s TYPE -o value "$f")
  [ -n "$type" ] || { fail "$name: blkid names no type"; continue; }
  want=$(kdisk_name "$type" "$(blkid -p -s VERSION -o value "$f")")
  label=$(blkid -p -s LABEL -o value "$f")
  [ "$type" = vfat ] && label=$(fatlabel "$f" 2>/dev/null | sed 's/ *$//')
  got=$(jq -r --argjson i $((n - 1)) '.disks[0].partitions[$i] | "\(.filesystem)|\(.label // "")"' "$WORK/doc.json")
  [ "$got" = "$want|$label" ] || fail "$name: /JSON says [$got], blkid [$want|$label]"
  row=$(awk -v n="$n" '$1 == n' <<<"$rows")
  [ -n "$row" ] || { fail "$name: no row $n: $rows"; continue; }
  # GPT rows: number (9), label (12 columns), size (11), system (10), usage, type.
  shown=${row:11:12} system=${row:38:10}
  expected=${label:0:12}
  while [ ${#expected} -lt 12 ]; do expected+=" "; done
  [ "$shown" = "$expected" ] || fail "$name: label column [$shown], expected [$expected]: $row"
  [ "${system%"${system##*[! ]}"}" = "$want" ] || fail "$name: System column [$system], expected [$want]: $row"
  [ "${row:23:2}" = "  " ] || fail "$name: columns out of place: $row"
  at=${row%%MB *}
  [ -z "$sizecol" ] && sizecol=${#at}
  [ "${#at}" = "$sizecol" ] || fail "$name: the size column moved: $row"
done <"$WORK/vols"
[ "$n" -ge 10 ] || fail "only $n volumes were made"

# An empty partition's type names no content: the System column is blank as /JSON's is null.
mbr=$WORK/mbr.img
truncate -s 8M "$mbr"
printf 'label: dos\nstart=2048, size=4096, type=83\n' | sfdisk -q "$mbr" >/dev/null
kd "$mbr" 1 /STATUS
grep -Eq '^ +1  83  LINUX +2\.0MB +PRIMARY$' <<<"$OUT" || fail "empty type 83: $OUT"
kd "$mbr" /STATUS /JSON
[ "$(jq -r '.disks[0].partitions[0].filesystem' "$WORK/out")" = null ] || fail "empty type 83 in /JSON: $OUT"
finish
