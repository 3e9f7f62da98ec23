#!/usr/bin/env bash
# The whole test suite: unit and command-line tests on a normal build, the same under
# AddressSanitizer + UBSan, the Windows build under wine, and short fuzz runs.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh --test
jobs=$(nproc)

echo "== Windows build (mingw-w64)"
cmake -S . -B build-mingw -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-mingw -j"$jobs" --target kdisk
# The command-line suites run their wine parts against this executable.
export KDISK_WINE_EXE="$PWD/build-mingw/kdisk.exe"

echo "== native build and tests"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"

(cd build && ctest --output-on-failure -j"$jobs")

echo "== packages (.deb and Windows zip)"
tools/package.sh build build-mingw

echo "== AddressSanitizer + UBSan build and tests"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKDISK_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 KDISK_WINE_EXE= ctest --output-on-failure -j"$jobs")

echo "== fuzz targets (bounded runs)"
cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++-14 -DKDISK_FUZZ=ON -DKDISK_TESTS=OFF >/dev/null
cmake --build build-fuzz -j"$jobs"
for f in build-fuzz/fuzz_*; do
  [ -x "$f" ] || continue
  echo "-- $f"
  # New inputs go to a scratch corpus; the seeds made by tools/fuzz-seeds.sh start it.
  corpus=$(mktemp -d)
  seeds=tests/fuzz/seeds/${f##*/fuzz_}
  [ -d "$seeds" ] || seeds=
  "$f" -max_total_time=30 -rss_limit_mb=2048 -print_final_stats=0 "$corpus" ${seeds:+"$seeds"} 2>&1 | tail -n 2
  rm -rf "$corpus"
done
echo "== all test stages passed"
