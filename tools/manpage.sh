#!/usr/bin/env bash
# Writes the manual page kdisk.1 (roff) to standard output from the README: its opening
# paragraphs become DESCRIPTION, the "Synopsis" block SYNOPSIS, and the sections "Usage",
# "Start-up switches" and "Exit codes" the sections of the same names. The README is the one
# source of the usage texts; nothing here is written by hand twice.
#   tools/manpage.sh README.md [version]
set -euo pipefail
readme=${1:?usage: manpage.sh README.md [version]}
version=${2:-}
[ -r "$readme" ] || { echo "manpage.sh: cannot read $readme" >&2; exit 1; }

awk -v version="$version" '
function esc(s) {
  gsub(/\\/, "\\e", s)
  gsub(/-/, "\\-", s)
  return s
}
# Inline markdown: `code` in bold, the rest as text.
function inline(s,   out, i, n, parts) {
  s = esc(s)
  n = split(s, parts, "`")
  out = ""
  for (i = 1; i <= n; i++) out = out ((i % 2 == 0) ? "\\fB" parts[i] "\\fR" : parts[i])
  return out
}
# A roff text line must not start with a control character.
function line(s) {
  if (s ~ /^[.\047]/) s = "\\&" s
  print s
}
function cells(row, arr,   n, i) {
  sub(/^[ \t]*\|/, "", row); sub(/\|[ \t]*$/, "", row)
  n = split(row, arr, "|")
  for (i = 1; i <= n; i++) { gsub(/^[ \t]+|[ \t]+$/, "", arr[i]) }
  return n
}
# First pass: the synopsis block, which goes first whatever its place in the README.
FNR == NR {
  if ($0 ~ /^#/) insyn = ($0 == "### Synopsis")
  else if (insyn && $0 ~ /^```/) { if (synblock) insyn = 0; synblock = !synblock }
  else if (insyn && synblock) syn[nsyn++] = $0
  next
}
FNR == 1 {
  print ".\\\" Generated from README.md by tools/manpage.sh; edit the README instead."
  print ".TH KDISK 1 \"\" \"Kdisk " version "\" \"Kdisk\""
  print ".SH NAME"
  print "kdisk \\- partition fixed disks from the command line"
  print ".SH SYNOPSIS"
  print ".nf"
  for (i = 0; i < nsyn; i++) line(esc(syn[i]))
  print ".fi"
  section = "intro"; incode = 0; intable = 0
}
/^```/ {
  if (incode) { if (show) { print ".RE"; print ".fi" }; incode = 0; next }
  incode = 1; show = (section == "body")
  if (show) { print ".PP"; print ".nf"; print ".RS 2" }
  next
}
incode { if (show) line(esc($0)); next }
/^# / { next }
/^## / {
  name = substr($0, 4)
  keep = (name == "Usage" || name == "Start-up switches" || name == "Exit codes")
  section = keep ? "body" : "skip"
  if (keep) { up = toupper(name); print ".SH " esc(up) }
  next
}
/^### / {
  name = substr($0, 5)
  if (!keep) next
  section = (name == "Synopsis") ? "synopsis" : "body"
  if (section == "body") print ".SS " inline(name)
  next
}
/^#### / {
  if (keep && section == "body") { print ".PP"; print ".B " inline(substr($0, 6)) }
  next
}
section == "intro" {
  if ($0 == "") { if (started) print ".PP"; next }
  if (!started) { print ".SH DESCRIPTION"; started = 1 }
  line(inline($0)); next
}
section == "skip" { next }
section == "synopsis" { next }
/^\|/ {
  n = cells($0, c)
  if (c[1] ~ /^-+$/) next
  if (!intable) { intable = 1; header = 1 }
  if (header) { header = 0; next }
  print ".TP"
  line(inline(c[1]))
  text = ""
  for (i = 2; i <= n; i++) if (c[i] != "") text = text (text == "" ? "" : "; ") c[i]
  if (text != "") line(inline(text))
  next
}
{ intable = 0 }
/^$/ { print ".PP"; next }
{ line(inline($0)) }
' "$readme" "$readme"
