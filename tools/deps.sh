#!/usr/bin/env bash
# Installs what building and testing Kdisk needs on Debian (run as root; skipped when present).
set -euo pipefail
build_pkgs=(cmake g++ make libgtest-dev libgmock-dev)
test_pkgs=(fdisk util-linux mtools dosfstools e2fsprogs qemu-utils g++-mingw-w64-x86-64-posix wine wine64
           clang-14 libclang-rt-14-dev libbenchmark-dev ntfs-3g qemu-system-x86 jq strace groff-base
           exfatprogs exfat-fuse ovmf grub-efi-amd64-bin grub-common python3
           btrfs-progs reiserfsprogs cryptsetup-bin lvm2 xorriso lintian)
want=("${build_pkgs[@]}")
[ "${1:-}" = "--test" ] && want+=("${test_pkgs[@]}")
missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
