#!/usr/bin/env bash
# Golden outputs of the status display: /STATUS, /RAW, /LBA and /SER on images built from text
# by sfdisk, compared byte for byte with tests/cli/golden/. The 9 GiB image puts cylinders above
# 255 into the raw CHS fields, so a slip in the cylinder's high bits shows. Run with
# KDISK_UPDATE_GOLDEN=1 to rewrite the expected files after an intended change.
set -euo pipefail
KDISK=${1:?usage: status_golden.sh path/to/kdisk}
. "$(dirname "$0")/lib/partition.bash"
need_tools sfdisk mkfs.fat
golden=$(dirname "$0")/golden

mbr=$WORK/mbr.img gpt=$WORK/gpt.img blank=$WORK/blank.img
truncate -s 9G "$mbr"
sfdisk -q "$mbr" <<'T'
label: dos
label-id: 0x12345678
start=63, size=4194241, type=6, bootable
start=4194304, size=8388608, type=7
start=12582912, type=f
size=2097152, type=83
type=c
T
mkfs.fat -F 16 -i 0BADF00D --offset=63 -n GOLDEN "$mbr" 2097120 >/dev/null 2>&1

truncate -s 64M "$gpt"
sfdisk -q "$gpt" <<'T'
label: gpt
label-id: 6F1E2D3C-4B5A-4978-8695-A4B3C2D1E0F1
first-lba: 34
start=2048, size=20480, type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7, uuid=11111111-2222-4333-8444-555555555555, name="Data"
start=22528, size=16384, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4, uuid=AAAAAAAA-BBBB-4CCC-8DDD-EEEEEEEEEEEE, name="Linux"
T
truncate -s 16M "$blank"

for img in "$mbr" "$gpt" "$blank"; do
  name=$(basename "$img" .img)
  for view in STATUS RAW LBA SER; do
    args=(/STATUS); [ "$view" = STATUS ] || args+=("/$view")
    kd "$img" -- 1 "${args[@]}"
    expect_rc 0 "$name /$view"
    expected=$golden/$name-${view,,}.txt
    if [ -n "${KDISK_UPDATE_GOLDEN:-}" ]; then
      printf '%s\n' "$OUT" >"$expected"
    elif ! diff -u "$expected" <(printf '%s\n' "$OUT") >"$WORK/diff"; then
      fail "$name /$view differs from $(basename "$expected"):"$'\n'"$(cat "$WORK/diff")"
    fi
  done
done
finish
