#!/usr/bin/env bash
# The README is the one source of the usage texts: its synopsis block is exactly what
# `kdisk /?` prints, and the manual page made from it (tools/manpage.sh, at build time) is the
# one the build installs, renders without roff warnings and carries the same synopsis.
set -u
KDISK=$1
. "$(dirname "$0")/lib/partition.bash"
src=${KDISK_SOURCE:-$(cd "$(dirname "$0")/../.." && pwd)}
readme=$src/README.md

# The synopsis lines of the general help: from the first command line to the /? line.
run /?
expect_rc 0 "/?"
help=$(sed 's/[[:space:]]*$//' <<<"$out" | awk '/^kdisk /{on=1} on{print} /^kdisk \/\? /{exit}')
block=$(awk '/^### Synopsis$/{s=1; next} s && /^```/{if (c) exit; c=1; next} s && c' "$readme")
[ -n "$help" ] || fail "kdisk /? printed no synopsis"
[ "$help" = "$block" ] || fail "README synopsis and kdisk /? differ:"$'\n'"$(diff <(echo "$block") <(echo "$help"))"

# The listing's own help names /JSON, as the README's usage section does.
run /? /STATUS
grep -q '^ *\[/SER\] \[/JSON\]$' <<<"$out" || fail "/? /STATUS does not show /JSON: $out"
grep -q '^kdisk \[disk\] /STATUS /JSON' "$readme" || fail "README has no /STATUS /JSON usage"

# The manual page.
man=$WORK/kdisk.1
bash "$src/tools/manpage.sh" "$readme" "test" >"$man" || fail "tools/manpage.sh failed"
built=$(dirname "$KDISK")/kdisk.1
if [ -f "$built" ]; then
  diff <(sed 1,2d "$built") <(sed 1,2d "$man") >/dev/null || fail "$built is not the page made from the README"
else
  echo "note: $built was not built; comparing with the build's page skipped"
fi
if command -v groff >/dev/null; then
  warnings=$(groff -man -Tutf8 -ww -z "$man" 2>&1)
  [ -z "$warnings" ] || fail "groff warnings: $warnings"
  text=$(groff -man -Tutf8 -P-cbou -rLL=200n "$man" 2>/dev/null)
  while IFS= read -r l; do
    grep -qF -- "$l" <<<"$text" || fail "manual page lacks the synopsis line '$l'"
  done <<<"$(sed 's/^ *//' <<<"$help")"
  for s in NAME SYNOPSIS DESCRIPTION USAGE "START-UP SWITCHES" "EXIT CODES"; do
    grep -q "^$s" <<<"$text" || fail "manual page has no section $s"
  done
else
  echo "note: groff is not installed; the rendered page is not checked"
fi
finish
