# Helpers for command-line tests that run kdisk on image files they create themselves.
# Sourced by tests/cli/*.sh after KDISK is set to the binary under test.

# Skips the test (exit 77) unless every named tool is on PATH.
need_tools() {
  local t
  for t in "$@"; do
    command -v "$t" >/dev/null 2>&1 || { echo "SKIP: $t is not installed"; exit 77; }
  done
}

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
finish() {
  if [ "$failures" -ne 0 ]; then echo "$failures check(s) failed"; exit 1; fi
  echo "all checks passed"; exit 0
}

# Runs kdisk on the given images only: kd IMG... -- ARGS...; output (stdout and stderr, carriage
# returns removed) in $out, exit code in $rc. With KDISK_RUNNER=wine the Windows build runs and
# the images are passed by their Windows paths.
kd() {
  local disks=() p
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    p=$1
    [ "${KDISK_RUNNER:-}" = wine ] && p=$(winepath -w "$p" 2>/dev/null)
    disks+=("/ADDDISK=$p"); shift
  done
  shift
  set +e
  out=$(${KDISK_RUNNER:-} "$KDISK" /NOOSDISK "${disks[@]}" "$@" 2>&1 </dev/null)
  rc=$?
  set -e
  out=${out//$'\r'/}
}

# expect_rc WANT WHAT: checks the last kd exit code.
expect_rc() { [ "$rc" -eq "$1" ] || fail "$2: exit code $rc, expected $1; output:"$'\n'"$out"; }
# expect_out TEXT WHAT: the last kd output contains TEXT (fixed string).
expect_out() { grep -qF -- "$1" <<<"$out" || fail "$2: output lacks '$1'; output:"$'\n'"$out"; }
expect_no_out() { ! grep -qF -- "$1" <<<"$out" || fail "$2: output has '$1'"; }

sum() { sha256sum "$1" | cut -d' ' -f1; }

# The table as sfdisk reads it, one partition a line: "start size type bootable".
table_of() { sfdisk --dump "$1" 2>/dev/null | awk -F'[:,]' '/start=/ {
  s = ""; z = ""; t = ""; b = 0
  for (i = 2; i <= NF; i++) { f = $i; gsub(/ /, "", f)
    if (f ~ /^start=/) s = substr(f, 7); else if (f ~ /^size=/) z = substr(f, 6)
    else if (f ~ /^type=/) t = substr(f, 6); else if (f == "bootable") b = 1 }
  print s, z, t, b }'; }
