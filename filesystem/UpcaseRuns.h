// Upper-case tables (NTFS's $UpCase, exFAT's up-case table) written as runs of lower-case
// letters rather than 64 Ki entries.
#pragma once
#include <cstdint>
#include <span>
#include <vector>

namespace Corvo::Filesystem {

// A run of lower-case letters: first, last, step between the letters of the run (1, or 2 where
// upper and lower case alternate) and the distance to the upper-case letter (modulo 2^16).
struct UpcaseRun {
  uint16_t first, last;
  uint8_t step;
  int16_t delta;
};

// For every UTF-16 code unit the unit it compares as: itself unless a run maps it.
inline std::vector<uint16_t> upcaseMap(std::span<const UpcaseRun> runs) {
  std::vector<uint16_t> map(0x10000);
  for (uint32_t c = 0; c < map.size(); ++c) map[c] = static_cast<uint16_t>(c);
  for (const UpcaseRun& r : runs)
    for (uint32_t c = r.first; c <= r.last; c += r.step) map[c] = static_cast<uint16_t>(c + r.delta);
  return map;
}

}  // namespace Corvo::Filesystem
