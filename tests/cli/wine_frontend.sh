#!/usr/bin/env bash
# The Windows build under wine: the same front-end behaviour as the native program (messages
# on the same streams, the same exit codes). Uses a private wine prefix and wine server.
set -u
exe=${KDISK_WINE_EXE:-}
if [ -z "$exe" ]; then echo "SKIP: KDISK_WINE_EXE is empty (no Windows build)"; exit 77; fi
if ! command -v wine >/dev/null || ! command -v wineserver >/dev/null; then echo "SKIP: wine is not installed"; exit 77; fi
[ -f "$exe" ] || { echo "SKIP: $exe does not exist"; exit 77; }

export WINEPREFIX
WINEPREFIX=$(mktemp -d /tmp/kdisk-wine-XXXXXX)
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" KDISK_NO_REBOOT=1
unset KDISK_TEST_FAULT DISPLAY
wineserver -p
stop_wine() { wineserver -k 2>/dev/null; wineserver -w 2>/dev/null; rm -rf "$WINEPREFIX"; }
wineboot -i >/dev/null 2>&1

KDISK="wine $exe"
. "$(dirname "$0")/lib/partition.bash"
trap 'stop_wine; rm -rf "$WORK"' EXIT
cd "$WORK" || exit 1

run /VERSION
expect_rc 0 "/VERSION"
[ "$(printf '%s\n' "$out" | head -n1)" = "Kdisk 11.5.1 (build=2259). Built on Dec  8 2009 06:02:36." ] || fail "banner"

run /CRE /DEL
expect_rc 2 "/CRE /DEL"
[ "$err" = "Conflicting switches. Specify one of /CRE, /DEL, /STATUS, /ACT, /HIDE, /MBR, /DISKWIPE or /BOOTINI" ] ||
  fail "conflict message on stderr"
run /STATUS /Y /SURE
expect_rc 2 "/Y /SURE"
expect_in "Conflicting switches. Specify either /Y or /SURE" err "/Y /SURE"
run /ATASECURITY
expect_rc 2 "/ATASECURITY"
expect_in "/ATASECURITY switch is only supported in the DOS version of kdisk" err "/ATASECURITY"

run /?
expect_rc 0 "/?"
expect_in "kdisk disk /CRE {/PRI|/EXT|/LOG} [/SZ:{mbytes|pcent{P|%}}] [/END]" out "general help"
run /? /GPT
expect_rc 0 "/? /GPT"
expect_in "/GPT switch is only supported in the DOS & Vista version of kdisk" out "/? /GPT"

run /USBTIMEOUT=abc
expect_rc 1 "bad start-up switch"
expect_in "USBTIMEOUT" err "bad start-up switch"

printf '# comment\n\n/? /CRE\n/H /DEL\n' >ok.txt
run /BATCH:ok.txt
expect_rc 0 "batch"
expect_in "Command: kdisk /? /CRE " out "batch echo"
expect_in "2 batch commands completed successfully" out "batch count"
printf '/? /CRE\n/ATASECURITY\n/? /DEL\n' >fail.txt
run /BATCH:fail.txt
expect_rc 2 "failing batch line"
expect_not_in "completed successfully" out "failing batch line"
printf '/BATCH:self.txt\n' >self.txt
run /BATCH:self.txt
expect_rc 2 "nesting limit"
expect_in "Maximum depth is 16" err "nesting limit"

mkdir prog && cp "$exe" prog/kdisk.exe
KDISK="wine prog/kdisk.exe"
KDISK_TEST_FAULT=library-error run /STATUS
expect_rc 1 "error file"
expect_in "Unable to complete command! See error file " err "error file"
expect_in "kdiskerr.txt" err "error file"
if [ -f prog/kdiskerr.txt ]; then
  [ "$(head -n1 prog/kdiskerr.txt | tr -d '\r')" = "Kdisk32 11.5.1.2259" ] || fail "error file title"
else
  fail "no error file beside kdisk.exe"
fi

finish
