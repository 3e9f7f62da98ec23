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

# kd_answer TEXT IMAGE ARGS... : runs kdisk on the image with TEXT as the console input; sets
# RC, OUT and ERR. With WINE set the Windows build runs under wine and gets the image's
# Windows path. kd IMAGE ARGS... : the same with no input at all.
kd_answer() {
  local answer=$1 img=$2; shift 2
  [ -z "${WINE:-}" ] || img="Z:$(printf '%s' "$img" | tr '/' '\\')"
  printf '%s' "$answer" | ${WINE:-} "$KDISK" /NOOSDISK "/ADDDISK=$img" "$@" >"$WORK/out" 2>"$WORK/err"
  RC=$?; OUT=$(tr -d '\r' <"$WORK/out"); ERR=$(tr -d '\r' <"$WORK/err")
}
kd() { kd_answer "" "$@"; }

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

# refuse IMAGE: one refusal per line of standard input, "CODE|MESSAGE|ARGS": the exit code,
# the message as a whole line ("~text": anywhere; empty: no output at all), the image unchanged.
refuse() {
  local img=$1 code msg args before
  while IFS='|' read -r code msg args; do
    before=$(sha "$img")
    # shellcheck disable=SC2086
    kd "$img" $args
    expect_rc "$code" "$args"
    case "$msg" in
      "") [ -z "$ERR$OUT" ] || fail "$args: expected silence, got: $ERR $OUT" ;;
      "~"*) expect_text "${msg#\~}" "$args" ;;
      *) expect_line "$msg" "$args" ;;
    esac
    [ "$(sha "$img")" = "$before" ] || fail "$args: image changed"
  done
}
# table_ok IMAGE CONTEXT: sfdisk finds the table sound (no overlaps, nothing past the end, GPT
# headers and CRCs right).
table_ok() {
  sfdisk --verify "$1" >"$WORK/verify" 2>&1 || fail "$2: sfdisk --verify: $(cat "$WORK/verify")"
}

# parts IMAGE : one line per partition as sfdisk reads it: "number start size type".
parts() {
  sfdisk -J "$1" 2>/dev/null | sed -n '/^{/,$p' |  # past notes such as "omitting empty partition"
    jq -r --arg img "$1" '.partitiontable.partitions[]? | "\(.node[($img | length):]) \(.start) \(.size) \(.type)"'
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

# Every check reads the tables back with sfdisk.
require_partitioning() { command -v sfdisk >/dev/null && command -v jq >/dev/null || skip "needs sfdisk and jq"; }
