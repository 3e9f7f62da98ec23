#!/usr/bin/env bash
# Table backups and /RESTORE: every writing command saves the sectors it overwrites in the
# backup folder and names the file; restoring that file brings back the table exactly (sfdisk's
# dump and the whole image byte for byte). A backup that cannot be written stops the command
# before its first write; a restore of another disk's backup, of a damaged file, or answered
# No changes nothing.
set -u
KDISK=${1:?usage: backup_restore.sh path/to/kdisk}
. "$(dirname "$0")/lib/partition.bash"
require_partitioning
need_tools sha256sum cmp
img=$WORK/disk.img
bk=$WORK/backups

# fresh LABEL: a 32 MiB image with a table of that label: MBR with a primary, an extended
# partition and two logical drives, or GPT with two entries.
fresh() {
  rm -f "$img"; truncate -s 32M "$img"
  if [ "$1" = dos ]; then
    sfdisk -q "$img" <<<$'label: dos\nlabel-id: 0x12345678\nstart=2048, size=4096, type=6\nstart=6144, size=30720, type=f\nstart=8192, size=4096, type=6\nstart=14336, size=4096, type=83'
  else
    sfdisk -q "$img" <<<$'label: gpt\nstart=2048, size=4096\nstart=8192, size=4096'
  fi
}
# saved_file: the backup the last run named.
saved_file() { sed -n 's/^The partition tables of fixed disk 1 are saved in //p' <<<"$out" | tail -n1; }

# Each change, then its backup restored: the image is the one before the change.
while IFS='|' read -r label args; do
  fresh "$label"
  before=$(sha "$img"); dump=$(sfdisk --dump "$img")
  # shellcheck disable=SC2086
  kd "$img" /BACKUPDIR="$bk" 1 $args /Y
  expect_rc 0 "$label: $args"
  file=$(saved_file)
  [ -f "$file" ] || { fail "$label: $args: no backup named (output: $out)"; continue; }
  [ "$(sha "$img")" != "$before" ] || fail "$label: $args: the command changed nothing"
  kd "$img" /BACKUPDIR="$bk" 1 "/RESTORE:$file" /Y
  expect_rc 0 "$label: $args: restore"
  [ "$(sfdisk --dump "$img")" = "$dump" ] || fail "$label: $args: sfdisk reads another table after the restore"
  [ "$(sha "$img")" = "$before" ] || fail "$label: $args: the image differs after the restore"
  table_ok "$img" "$label: $args: restored"
done <<'T'
dos|/CRE /LOG /SZ:2 /ALIGN:1MB
dos|/CRE /PRI /SZ:2 /ALIGN:1MB
dos|/DEL /P:3
dos|/DEL /P:2
dos|/DEL /ALL
dos|/ACT /P:1
dos|/HIDE /P:1
dos|/MBR
dos|/MBR /WIPE
dos|/GPT /WIPE
gpt|/CRE /PRI /SZ:2
gpt|/DEL /P:1
gpt|/GPT /WIPE
gpt|/MBR /WIPE
T

# The restore is itself saved and can be undone; without /BACKUPDIR= the user's state folder
# (here the test's own XDG_STATE_HOME) holds the files.
fresh dos
kd "$img" 1 /DEL /P:1 /Y
first=$(saved_file); after=$(sha "$img")
case "$first" in "$XDG_STATE_HOME/kdisk/"*) ;; *) fail "default folder: backup in '$first'" ;; esac
kd "$img" 1 "/RESTORE:$first" /Y
expect_rc 0 "restore"
second=$(saved_file)
[ -f "$second" ] && [ "$second" != "$first" ] || fail "the restore saved no backup of its own"
kd "$img" 1 "/RESTORE:$second" /Y
expect_rc 0 "undo the restore"
[ "$(sha "$img")" = "$after" ] || fail "undoing the restore did not bring back the changed table"

# Refusals: nothing written, the image unchanged.
fresh dos
cp "$img" "$WORK/other.img"
kd "$WORK/other.img" /BACKUPDIR="$bk" 1 /ACT /P:1 /Y
other=$(saved_file)
cp "$other" "$WORK/damaged.kdbak"
printf 'X' | dd of="$WORK/damaged.kdbak" bs=1 seek=300 conv=notrunc status=none
printf 'not a folder' >"$WORK/file"
refuse "$img" <<T
1|~Cannot save the partition tables of fixed disk 1 -- |/BACKUPDIR=$WORK/file 1 /CRE /PRI /SZ:2 /Y
1|~Cannot save the partition tables of fixed disk 1 -- |/BACKUPDIR=$WORK/file 1 /DEL /P:1 /QWIPE /Y
1|~Cannot save the partition tables of fixed disk 1 -- |/BACKUPDIR=$WORK/file 1 /MBR /Y
1|~Cannot save the partition tables of fixed disk 1 -- |/BACKUPDIR=$WORK/file 1 /GPT /WIPE /Y
1|~Cannot save the partition tables of fixed disk 1 -- |/BACKUPDIR=$WORK/file 1 /DISKWIPE /Y
1|~the backup does not belong to this disk: it was saved from $WORK/other.img|1 /RESTORE:$other /Y
1|~Cannot read backup file $WORK/damaged.kdbak -- |1 /RESTORE:$WORK/damaged.kdbak /Y
1|~Cannot read backup file $WORK/none.kdbak -- |1 /RESTORE:$WORK/none.kdbak /Y
2|Switch requires a value -- /RESTORE|1 /RESTORE: /Y
T
[ ! -e "$XDG_STATE_HOME/kdisk" ] || [ -z "$(find "$XDG_STATE_HOME/kdisk" -newer "$WORK/file")" ] ||
  fail "a refused command left a backup"
# The question, answered No and at the end of input.
kd "$img" 1 /CRE /LOG /SZ:2 /ALIGN:1MB /Y
file=$(saved_file)
for answer in $'n\n' ""; do
  before=$(sha "$img")
  kd_answer "$answer" "$img" 1 "/RESTORE:$file"
  expect_rc 1 "restore answered '$answer'"
  expect_text "will be replaced by the" "restore question"
  [ "$(sha "$img")" = "$before" ] || fail "restore answered '$answer': the image changed"
done
finish
