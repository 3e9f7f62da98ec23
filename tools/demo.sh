#!/usr/bin/env bash
# Builds Kdisk and runs its main job on a demo disk image: a blank 256 MB image gets a FAT
# primary partition, an extended partition with a logical drive, and the result is listed.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DKDISK_TESTS=OFF >/dev/null
cmake --build build-demo -j"$(nproc)" --target kdisk
img=build-demo/demo.img
rm -f "$img"
truncate -s 256M "$img"
kdisk() { build-demo/kdisk /NOOSDISK "/ADDDISK=$img" "$@"; }
set -x
kdisk 1 /CRE /PRI /SZ:100 /FOR /Q /V:DEMO
kdisk 1 /CRE /EXT
kdisk 1 /CRE /LOG /SZ:50
kdisk 1 /ACT /P:1
kdisk /STATUS
