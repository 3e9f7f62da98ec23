# Shared helpers of the partition command-line tests. Source after setting KDISK (the binary).
# Every run passes /NOOSDISK and reaches only the images the test made.

FAILS=0
WORK=$(mktemp -d "${TMPDIR:-/tmp}/kdisk-cli-XXXXXX")
trap 'rm -rf "$WORK"' EXIT
# The table backups of writing commands go to the user's state folder: the test's own.
export XDG_STATE_HOME=$WORK/state

fail() { echo "FAIL: $*" >&2; FAILS=$((FAILS + 1)); }
finish() {
  if [ "$FAILS" -ne 0 ]; then echo "$FAILS check(s) failed" >&2; exit 1; fi
  echo "all checks passed"; exit 0
}
skip() { echo "SKIP: $*"; exit 77; }

# kd_answer TEXT IMAGE ARGS... or kd_answer TEXT IMAGE... -- ARGS...: runs kdisk on the images
# with TEXT as the console input; sets RC (and rc), OUT, ERR and out (stderr then stdout).
# With WINE (or KDISK_RUNNER) set to wine the Windows build runs and gets Windows paths.
# kd ...: the same with no input at all. Works with and without set -e.
kd_answer() {
  local answer=$1 wine=${WINE:-${KDISK_RUNNER:-}} disks=() p e=$-; shift
  case " $* " in
    *" -- "*) while [ "$1" != "--" ]; do disks+=("$1"); shift; done; shift ;;
    *) disks=("$1"); shift ;;
  esac
  local args=()
  for p in "${disks[@]}"; do
    [ -z "$wine" ] || p="Z:$(printf '%s' "$p" | tr '/' '\\')"
    args+=("/ADDDISK=$p")
  done
  set +e
  $wine "$KDISK" /NOOSDISK "${args[@]}" "$@" < <(printf '%s' "$answer") >"$WORK/out" 2>"$WORK/err"
  RC=$?
  [[ $e == *e* ]] && set -e
  rc=$RC; OUT=$(tr -d '\r' <"$WORK/out"); ERR=$(tr -d '\r' <"$WORK/err")
  out=$ERR$'\n'$OUT
}
kd() { kd_answer "" "$@"; }
# run ARGS...: runs $KDISK (may be "wine path/kdisk.exe") /NOOSDISK ARGS with no disk, input from
# $RUN_STDIN or none; sets RC (and rc), out (stdout) and err (stderr), carriage returns removed.
run() {
  local e=$-
  set +e
  $KDISK /NOOSDISK "$@" <"${RUN_STDIN:-/dev/null}" >"$WORK/out" 2>"$WORK/err"
  RC=$?
  [[ $e == *e* ]] && set -e
  rc=$RC; out=$(tr -d '\r' <"$WORK/out"); err=$(tr -d '\r' <"$WORK/err"); ERR=$err
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

# Skips the test (exit 77) unless every named tool is on PATH.
need_tools() {
  local t
  for t in "$@"; do command -v "$t" >/dev/null 2>&1 || skip "$t is not installed"; done
}
# expect_out TEXT WHAT: the last run's output contains TEXT (fixed string); expect_no_out: lacks it.
expect_out() { grep -qF -- "$1" <<<"$out" || fail "$2: output lacks '$1'; output:"$'\n'"$out"; }
expect_no_out() { ! grep -qF -- "$1" <<<"$out" || fail "$2: output has '$1'"; }
sum() { sha "$1"; }

# The table as sfdisk reads it, one partition a line: "start size type bootable".
table_of() { sfdisk --dump "$1" 2>/dev/null | awk -F'[:,]' '/start=/ {
  s = ""; z = ""; t = ""; b = 0
  for (i = 2; i <= NF; i++) { f = $i; gsub(/ /, "", f)
    if (f ~ /^start=/) s = substr(f, 7); else if (f ~ /^size=/) z = substr(f, 6)
    else if (f ~ /^type=/) t = substr(f, 6); else if (f == "bootable") b = 1 }
  print s, z, t, b }'; }
# expect_in TEXT WHERE(out|err) WHAT: the fixed text occurs (or, expect_not_in, does not) in
# stdout or stderr of the last run.
expect_in() {
  local hay=$out
  [ "$2" = err ] && hay=$err
  case "$hay" in *"$1"*) ;; *) fail "$3: '$1' not in std$2 (stdout: ${out:0:600} stderr: ${err:0:600})" ;; esac
}
expect_not_in() {
  local hay=$out
  [ "$2" = err ] && hay=$err
  case "$hay" in *"$1"*) fail "$3: '$1' unexpectedly in std$2" ;; esac
}
# wine_start: skips unless KDISK_WINE_EXE names a Windows build and wine is installed; sets exe
# and starts a private wine prefix and server under $WORK, both stopped and removed on exit.
wine_start() {
  exe=${KDISK_WINE_EXE:-}
  [ -n "$exe" ] || skip "KDISK_WINE_EXE is empty (no Windows build)"
  [ -f "$exe" ] || skip "$exe does not exist"
  need_tools wine wineserver winepath
  export WINEPREFIX=$WORK/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" KDISK_NO_REBOOT=1
  unset DISPLAY
  mkdir -p "$WINEPREFIX"
  wineserver -p
  trap 'wineserver -k 2>/dev/null; wineserver -w 2>/dev/null; rm -rf "$WORK"' EXIT
  wineboot -i >/dev/null 2>&1
}

# sparse_sum IMAGE: a checksum of a sparse image's data extents, where they lie and its size:
# as telling as the whole image's checksum (a write, even of zeros, allocates) without reading
# terabytes of holes.
sparse_sum() {
  python3 - "$1" <<'PY'
import hashlib, os, sys
fd = os.open(sys.argv[1], os.O_RDONLY)
h, pos = hashlib.sha256(), 0
while True:
    try:
        start = os.lseek(fd, pos, os.SEEK_DATA)
    except OSError:
        break
    end = os.lseek(fd, start, os.SEEK_HOLE)
    h.update(f"{start}-{end};".encode())
    os.lseek(fd, start, os.SEEK_SET)
    left = end - start
    while left:
        chunk = os.read(fd, min(left, 1 << 20))
        h.update(chunk)
        left -= len(chunk)
    pos = end
h.update(str(os.fstat(fd).st_size).encode())
print(h.hexdigest())
PY
}
