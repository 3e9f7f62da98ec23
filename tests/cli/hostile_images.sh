#!/usr/bin/env bash
# Damaged and hostile disk images: each is refused as inaccessible with the reason, nothing in
# its folder changes (a checksum of every file before and after), no run hangs, and a good
# image added beside it stays usable. The images are made from text here (python, qemu-img).
set -u
KDISK=${1:?usage: hostile_images.sh path/to/kdisk}
export KDISK_NO_REBOOT=1
. "$(dirname "$0")/lib/partition.bash"
need_tools python3 qemu-img mkfifo timeout sfdisk

# hk ARGS...: kdisk with a time limit (a FIFO must never be waited on); sets RC, ERR, OUT.
hk() {
  timeout 30 "$KDISK" /NOOSDISK "$@" </dev/null >"$WORK/out" 2>"$WORK/err"
  RC=$?
  ERR=$(cat "$WORK/err")
  OUT=$(cat "$WORK/out")
}
# tree_sum DIR: one checksum over every file below DIR (names and contents).
tree_sum() { (cd "$1" && find . -type f -print0 | sort -z | xargs -0 -r sha256sum | sha256sum); }

# A sparse VMDK with data in its first grains, then patched by python: $1 the image, $2 the
# patch (python statements over `b`, a bytearray of the file, with h(), gd0 and gt0 at hand).
sparse_patched() {
  local img=$1
  truncate -s 4M "$WORK/seed.raw"
  printf 'DATA' | dd of="$WORK/seed.raw" bs=512 seek=200 conv=notrunc status=none
  qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse "$WORK/seed.raw" "$img"
  python3 - "$img" "$2" <<'PY'
import struct, sys
path, patch = sys.argv[1], sys.argv[2]
b = bytearray(open(path, 'rb').read())
def h(off, fmt='<Q'): return struct.unpack_from(fmt, b, off)[0]
gd = h(56); rgd = h(48)
gd0 = struct.unpack_from('<I', b, gd * 512)[0]          # sector of grain table 0
gt0 = gd0 * 512                                          # byte offset of grain table 0
def gte(i, v): struct.pack_into('<I', b, gt0 + 4 * i, v)
def put(off, fmt, v): struct.pack_into(fmt, b, off, v)
exec(patch)
open(path, 'wb').write(b)
PY
}

flat_with_extent() {  # $1 descriptor, $2 the extent name as written
  printf '# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\ncreateType="monolithicFlat"\nRW 8192 FLAT "%s" 0\n' \
    "$2" >"$1"
}

qcreate() { qemu-img create -q -f vmdk -o "subformat=$1" "$2" 1M; }  # SUBFORMAT IMAGE

# make CASE DIR: builds the hostile image of CASE in DIR (its own folder inside a folder that
# holds a 4 MiB target file, so that "../target.img" exists); prints the image's path.
make_case() {
  local c=$1 d=$2 img
  mkdir -p "$d/img"
  truncate -s 4M "$d/target.img"
  img=$d/img/disk.vmdk
  case $c in
    absolute) flat_with_extent "$img" "$d/target.img" ;;
    parent) flat_with_extent "$img" "../target.img" ;;
    subfolder) mkdir "$d/img/sub" && truncate -s 4M "$d/img/sub/t.img" && flat_with_extent "$img" "sub/t.img" ;;
    fifo) mkfifo "$d/img/pipe" && flat_with_extent "$img" "pipe" ;;
    chardev) ln -s /dev/zero "$d/img/zero" && flat_with_extent "$img" "zero" ;;
    gte_descriptor) sparse_patched "$img" "gte(0, 2)" ;;
    gte_directory) sparse_patched "$img" "gte(0, gd)" ;;
    gte_redundant) sparse_patched "$img" "gte(0, rgd + 1)" ;;
    gte_table) sparse_patched "$img" "gte(1, gd0)" ;;
    gte_far) sparse_patched "$img" "gte(3, 0x7fffff00)" ;;
    gd_descriptor) sparse_patched "$img" "put(gd * 512, '<I', 1)" ;;
    huge_directory)  # 2^28 grain tables claimed (capacity 2^37 sectors, grains of one sector)
      sparse_patched "$img" "put(12, '<Q', 1 << 37); put(20, '<Q', 1)" ;;
    fifo_image) img=$d/img/disk.img && mkfifo "$img" ;;
    flat_type) qcreate monolithicFlat "$img" && sed -i s/monolithicFlat/twoGbMaxExtentFlat/ "$img" ;;
    flat_gone) qcreate monolithicFlat "$img" && rm "$d/img/disk-flat.vmdk" ;;
    flat_short) qcreate monolithicFlat "$img" && truncate -s 4096 "$d/img/disk-flat.vmdk" ;;
    stream) qcreate streamOptimized "$img" ;;
    magic) sparse_patched "$img" "b[0:4] = b'XDMV'" ;;
    compressed) sparse_patched "$img" "b[10] = 1" ;;
    gd_far) sparse_patched "$img" "put(56, '<I', 0xffff)" ;;
    chardev_image) img=$d/img/disk.img && ln -s /dev/zero "$img" ;;
  esac
  printf '%s\n' "$img"
}

n=0
while IFS='|' read -r case reason; do
  n=$((n + 1))
  d=$WORK/case$n
  img=$(make_case "$case" "$d")
  before=$(tree_sum "$d")
  rm -f "$WORK/good.img" && truncate -s 16M "$WORK/good.img"
  good_before=$(sha "$WORK/good.img")
  # Disk 1 is the hostile image: a write command is refused before anything is written.
  hk /ADDDISK="$img" /ADDDISK="$WORK/good.img" 1 /CRE /PRI /Y
  [ "$RC" = 1 ] || fail "$case: /CRE on it ended with $RC, expected 1 ($ERR)"
  expect_text "Cannot access fixed disk 1 -- " "$case"
  expect_text "$reason" "$case"
  [ "$(tree_sum "$d")" = "$before" ] || fail "$case: files changed"
  # Disk 2 stays usable: listed, and created on, with the hostile disk reported beside it.
  hk /ADDDISK="$img" /ADDDISK="$WORK/good.img" 2 /CRE /PRI /SZ:4 /Y
  [ "$RC" = 0 ] || fail "$case: /CRE on the good disk ended with $RC ($ERR)"
  expect_text "$reason" "$case (good disk)"
  [ "$(sfdisk --dump "$WORK/good.img" 2>/dev/null | grep -c 'start=')" = 1 ] || fail "$case: good disk has no partition"
  [ "$(tree_sum "$d")" = "$before" ] || fail "$case: files changed by a command on another disk"
  [ "$(sha "$WORK/good.img")" != "$good_before" ] || fail "$case: good disk unchanged"
  rm -rf "$d"
done <<'EOT'
absolute|is not a file next to the descriptor
parent|extent file "../target.img" is not a file next to the descriptor
subfolder|extent file "sub/t.img" is not a file next to the descriptor
fifo|pipe is a FIFO, not a regular file
chardev|zero is a character device, not a regular file
gte_descriptor|grain table 0 entry 0 points into the embedded descriptor
gte_directory|grain table 0 entry 0 points into the grain directory
gte_redundant|grain table 0 entry 0 points into
gte_table|grain table 0 entry 1 points into grain table 0 of the grain directory
gte_far|grain table 0 entry 3 points beyond the end of the file
gd_descriptor|overlaps
huge_directory|the header claims 268435456 grain tables
fifo_image|it is a FIFO, not a regular file or a block device
flat_type|createType "twoGbMaxExtentFlat" is not supported
flat_gone|disk-flat.vmdk is missing
flat_short|shorter than the descriptor says
stream|not supported
magic|bad magic number
compressed|compressed grains are not supported
gd_far|grain directory lies outside the file
chardev_image|it is a character device, not a regular file or a block device
EOT

# An extent that is a block device (a loop device of this test's own, reached through a link
# next to the descriptor) is refused before it is opened for writing; root only.
if [ "$(id -u)" = 0 ] && command -v losetup >/dev/null && loop=$(losetup -f --show "$WORK/good.img" 2>/dev/null); then
  mkdir -p "$WORK/blk"
  ln -s "$loop" "$WORK/blk/dev"
  flat_with_extent "$WORK/blk/disk.vmdk" dev
  before=$(sha "$WORK/good.img")
  hk /ADDDISK="$WORK/blk/disk.vmdk" 1 /CRE /PRI /Y
  [ "$RC" = 1 ] || fail "block device extent: /CRE ended with $RC"
  expect_text "dev is a block device, not a regular file" "block device extent"
  losetup -d "$loop"
  [ "$(sha "$WORK/good.img")" = "$before" ] || fail "block device extent: the device changed"
else
  echo "note: block device extent not checked (needs root and a free loop device)"
fi

# A header claiming 2^28 grain tables is refused without taking the memory it claims (the
# whole directory used to be read at once: over 2 GB).
d=$WORK/memory
img=$(make_case huge_directory "$d")
truncate -s 1100M "$img"  # room for the whole claimed directory (sparse)
rss=$(python3 - "$KDISK" "$img" "$WORK/good.img" <<'PY'
import resource, subprocess, sys
subprocess.run([sys.argv[1], '/NOOSDISK', '/ADDDISK=' + sys.argv[2], '/ADDDISK=' + sys.argv[3], '/STATUS'],
               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss // 1024)
PY
)
[ "${rss:-99999}" -lt 400 ] || fail "opening the image claiming 2^28 grain tables took ${rss} MB"

finish
