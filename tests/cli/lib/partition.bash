# Shared helpers of the partition command-line tests. Source after setting KDISK (the binary).
# Every run passes /NOOSDISK and reaches only the images the test made.

FAILS=0
WORK=$(mktemp -d "${TMPDIR:-/tmp}/kdisk-cli-XXXXXX")
trap 'rm -rf "$WORK"' EXIT

fail() { echo "FAIL: $*" >&2; FAILS=$((FAILS + 1)); }
finish() {
  if [ "$FAILS" -ne 0 ]; then echo "$FAILS check(s) failed" >&2; exit 1; fi
  echo "all checks passed"; exit 0
}
skip() { echo "SKIP: $*"; exit 77; }

# kd IMAGE ARGS... : runs kdisk on the image with standard input from /dev/null; sets RC, OUT, ERR.
kd() {
  local img=$1; shift
  "$KDISK" /NOOSDISK "/ADDDISK=$img" "$@" >"$WORK/out" 2>"$WORK/err" </dev/null
  RC=$?; OUT=$(cat "$WORK/out"); ERR=$(cat "$WORK/err")
}
# kd_answer TEXT IMAGE ARGS... : the same with TEXT as the console input.
kd_answer() {
  local answer=$1 img=$2; shift 2
  printf '%s' "$answer" | "$KDISK" /NOOSDISK "/ADDDISK=$img" "$@" >"$WORK/out" 2>"$WORK/err"
  RC=$?; OUT=$(cat "$WORK/out"); ERR=$(cat "$WORK/err")
}

# Fails unless the last run ended with the code; the context names the case.
expect_rc() { [ "$RC" = "$1" ] || fail "$2: exit code $RC, expected $1 (stderr: $ERR)"; }
# Fails unless some line of the run's stderr+stdout is exactly the text.
expect_line() {
  printf '%s\n%s\n' "$ERR" "$OUT" | grep -Fxq -- "$1" || fail "$2: no line '$1' in: $ERR $OUT"
}
expect_text() {
  printf '%s\n%s\n' "$ERR" "$OUT" | grep -Fq -- "$1" || fail "$2: no text '$1' in: $ERR $OUT"
}

sha() { sha256sum "$1" | cut -d' ' -f1; }

# parts IMAGE : one line per partition as sfdisk sees it: "number start size type".
parts() {
  sfdisk --dump "$1" 2>/dev/null | awk -v img="$1" '
    index($1, img) == 1 && $2 == ":" {
      n = substr($1, length(img) + 1); start = size = type = ""
      for (i = 3; i <= NF; i++) {
        f = $i; gsub(/,/, "", f)
        if (f ~ /^start=/) { sub(/start=/, "", f); start = f; if (f == "") start = $(i + 1) }
        if (f ~ /^size=/) { sub(/size=/, "", f); size = f; if (f == "") size = $(i + 1) }
        if (f ~ /^type=/) { sub(/type=/, "", f); type = f }
      }
      gsub(/,/, "", start); gsub(/,/, "", size)
      print n, start, size, type
    }'
}
# part IMAGE N : "start size type" of partition N (empty when absent).
part() { parts "$1" | awk -v n="$2" '$1 == n { print $2, $3, $4 }'; }
count_parts() { parts "$1" | wc -l; }

# fill IMAGE START COUNT BYTE : writes BYTE (decimal) over COUNT sectors from START.
fill() {
  head -c $(($3 * 512)) /dev/zero | tr '\0' "\\$(printf %03o "$4")" |
    dd of="$1" bs=1M seek=$(($2 * 512)) oflag=seek_bytes conv=notrunc status=none
}
# only_byte IMAGE START COUNT BYTE : true when every byte of the range is BYTE (decimal).
only_byte() {
  local left
  left=$(extract "$1" "$2" "$3" | tr -d "\\$(printf %03o "$4")" | wc -c)
  [ "$left" -eq 0 ]
}
# extract IMAGE START COUNT : the sectors on standard output.
extract() { dd if="$1" bs=1M skip=$(($2 * 512)) count=$(($3 * 512)) iflag=skip_bytes,count_bytes status=none; }
# first_byte IMAGE SECTOR : the first byte of the sector, decimal.
first_byte() { dd if="$1" bs=512 skip="$2" count=1 status=none | od -An -tu1 -N1 | tr -d ' '; }

# The front end and the MBR driver must be in the build for these tests to mean anything.
require_partitioning() {
  "$KDISK" /VERSION >/dev/null 2>&1 || skip "kdisk has no front end in this build"
  local probe="$WORK/probe.img"
  truncate -s 16M "$probe"
  kd "$probe" 1 /CRE /PRI
  case "$ERR$OUT" in
    *"not available in this build"* | *"cannot be read by this build"*) skip "partitioning not in this build: $ERR" ;;
  esac
  rm -f "$probe"
}
# True when the status display is in the build (its output is checked only then).
have_status() { "$KDISK" /NOOSDISK /STATUS >/dev/null 2>&1; }
