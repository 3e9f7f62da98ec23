#!/usr/bin/env bash
# A disk made by Kdisk alone starts a UEFI machine, with 512-byte sectors and with 4096-byte ones
# (an NVMe namespace formatted so): /GPT /WIPE, then an EFI system partition
# (/CRE /PRI /SZ:300 /TYPE:EFI /FOR /Q) with a loader copied to \EFI\BOOT\BOOTX64.EFI. The
# firmware (OVMF) must find the partition, read its FAT and start the loader, which writes a
# line to the serial port and powers the machine off.
set -euo pipefail
KDISK=${1:?usage: uefi_boot.sh path/to/kdisk}
here=$(cd "$(dirname "$0")" && pwd)
. "$here/lib/partition.bash"
need_tools qemu-system-x86_64 grub-mkstandalone mcopy mmd sfdisk jq timeout
code=/usr/share/OVMF/OVMF_CODE_4M.fd vars=/usr/share/OVMF/OVMF_VARS_4M.fd
[ -r "$code" ] && [ -r "$vars" ] || skip "OVMF firmware (package ovmf) is not installed"
[ -d /usr/lib/grub/x86_64-efi ] || skip "the UEFI loader modules (package grub-efi-amd64-bin) are not installed"
work=$WORK
export MTOOLS_SKIP_CHECK=1

printf 'echo KDISK-UEFI-OK\nhalt\n' >"$work/loader.cfg"
grub-mkstandalone -O x86_64-efi -o "$work/BOOTX64.EFI" --install-modules="normal echo halt configfile" \
  --locales="" --themes="" --fonts="" "boot/grub/grub.cfg=$work/loader.cfg"

# uefi_boot IMAGE DEVICE-ARGS: starts the machine from the image (at most 120 seconds) and
# leaves the serial port's text in SERIAL.
uefi_boot() {
  local img=$1; shift
  cp "$vars" "$work/vars.fd"
  timeout 120 qemu-system-x86_64 -display none -m 256 -no-reboot -nodefaults -serial "file:$work/serial" \
    -drive "if=pflash,format=raw,readonly=on,file=$code" -drive "if=pflash,format=raw,file=$work/vars.fd" \
    -drive "if=none,id=disk,format=raw,file=$img" "$@" >/dev/null 2>&1 || true
  SERIAL=$(tr -d '\r\000' <"$work/serial")
}

# esp_start IMAGE BYTES: START, the first sector of the image's first partition as sfdisk reads
# it (a 4096-byte-sector image through a read-only loop device of that sector size), after
# checking that it is an EFI system partition.
esp_start() {
  local dev=$1 loopdev="" json
  if [ "$2" != 512 ]; then
    loopdev=$(losetup -f --show -r -b "$2" "$1") || { fail "$2: no loop device"; return; }
    dev=$loopdev
  fi
  json=$(sfdisk -J "$dev")
  [ -z "$loopdev" ] || losetup -d "$loopdev"
  [ "$(jq -r .partitiontable.sectorsize <<<"$json")" = "$2" ] || fail "$2: sfdisk reads $(jq -r .partitiontable.sectorsize <<<"$json")-byte sectors"
  [ "$(jq -r '.partitiontable.partitions[0].type' <<<"$json")" = C12A7328-F81F-11D2-BA4B-00A0C93EC93B ] ||
    fail "$2: the partition is not an EFI system partition"
  START=$(jq -r '.partitiontable.partitions[0].start' <<<"$json")
}

# Sector size | the start-up switches of Kdisk | the disk as the machine sees it.
while IFS='|' read -r bytes startup device; do
  [ "$bytes" = 512 ] || [ "$(id -u)" -eq 0 ] || { echo "note: $bytes-byte sectors need root for a loop device"; continue; }
  img=$work/uefi-$bytes.img
  rm -f "$img"; truncate -s 512M "$img"
  # shellcheck disable=SC2086
  kd "$img" $startup 1 /GPT /WIPE /Y; expect_rc 0 "$bytes: /GPT /WIPE"
  # shellcheck disable=SC2086
  kd "$img" $startup 1 /CRE /PRI /SZ:300 /TYPE:EFI /FOR /Q; expect_rc 0 "$bytes: EFI system partition"
  esp_start "$img" "$bytes"
  volume="$img@@$((START * bytes))"
  mmd -i "$volume" ::EFI ::EFI/BOOT
  mcopy -i "$volume" "$work/BOOTX64.EFI" ::EFI/BOOT/BOOTX64.EFI
  # shellcheck disable=SC2086
  uefi_boot "$img" $device
  grep -q "KDISK-UEFI-OK" <<<"$SERIAL" || fail "$bytes: the loader did not run; serial port: ${SERIAL: -800}"
done <<'T'
512||-device virtio-blk-pci,drive=disk
4096|/SECTORSIZE=4096|-device nvme,drive=disk,serial=kdisk,logical_block_size=4096,physical_block_size=4096
T
finish
