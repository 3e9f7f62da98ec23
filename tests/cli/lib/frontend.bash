# Helpers for the front-end command-line tests. Source after setting KDISK (the program to run,
# possibly "wine path/kdisk.exe").

fe_failures=0
fe_tmp=$(mktemp -d /tmp/kdisk-cli-XXXXXX)
trap 'rm -rf "$fe_tmp"' EXIT

# run ARGS...: runs $KDISK /NOOSDISK ARGS; sets $rc, $out (stdout) and $err (stderr), CRs removed.
run() {
  local stdin=/dev/null
  if [ -n "${RUN_STDIN:-}" ]; then stdin=$RUN_STDIN; fi
  $KDISK /NOOSDISK "$@" <"$stdin" >"$fe_tmp/out" 2>"$fe_tmp/err"
  rc=$?
  out=$(tr -d '\r' <"$fe_tmp/out")
  err=$(tr -d '\r' <"$fe_tmp/err")
}

fail() {
  echo "FAIL: $*" >&2
  echo "  rc=$rc" >&2
  echo "  stdout: $(printf '%s' "$out" | head -c 600)" >&2
  echo "  stderr: $(printf '%s' "$err" | head -c 600)" >&2
  fe_failures=$((fe_failures + 1))
}

expect_rc() { [ "$rc" = "$1" ] || fail "$2: exit code $rc, expected $1"; }
# expect_in TEXT WHERE(out|err) WHAT: the fixed text must occur in stdout or stderr.
expect_in() {
  local hay=$out
  [ "$2" = err ] && hay=$err
  case "$hay" in *"$1"*) ;; *) fail "$3: '$1' not in std$2" ;; esac
}
expect_not_in() {
  local hay=$out
  [ "$2" = err ] && hay=$err
  case "$hay" in *"$1"*) fail "$3: '$1' unexpectedly in std$2" ;; esac
}

fe_finish() {
  if [ "$fe_failures" -ne 0 ]; then
    echo "$fe_failures check(s) failed" >&2
    exit 1
  fi
  echo "all checks passed"
  exit 0
}
