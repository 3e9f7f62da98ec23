#!/usr/bin/env bash
# The Windows build under wine: the same front-end behaviour as the native program (messages
# on the same streams, the same exit codes). Uses a private wine prefix and wine server.
set -u
unset KDISK_TEST_FAULT
. "$(dirname "$0")/lib/partition.bash"
wine_start
KDISK="wine $exe"
cd "$WORK" || exit 1

run /VERSION
expect_rc 0 "/VERSION"
[ "$(printf '%s\n' "$out" | head -n1)" = "Kdisk 11.5.1 (build=2259). Built on Dec  8 2009 06:02:36." ] || fail "banner"

run /CRE /DEL
expect_rc 2 "/CRE /DEL"
[ "$err" = "Conflicting switches. Specify one of /CRE, /DEL, /STATUS, /ACT, /HIDE, /MBR, /DISKWIPE or /BOOTINI" ] ||
  fail "conflict message on stderr"
while IFS='|' read -r code where args text; do
  # shellcheck disable=SC2086
  run $args
  expect_rc "$code" "$args"
  expect_in "$text" "$where" "$args"
done <<'T'
2|err|/STATUS /Y /SURE|Conflicting switches. Specify either /Y or /SURE
2|err|/ATASECURITY|/ATASECURITY switch is only supported in the DOS version of kdisk
0|out|/?|kdisk disk /CRE {/PRI|/EXT|/LOG} [/SZ:{mbytes|pcent{P|%}}] [/END]
0|out|/? /GPT|/GPT switch is only supported in the DOS & Vista version of kdisk
1|err|/USBTIMEOUT=abc|USBTIMEOUT
T

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
