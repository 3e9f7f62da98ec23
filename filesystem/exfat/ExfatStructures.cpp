#include "filesystem/exfat/ExfatStructures.h"

namespace Corvo::Filesystem::Exfat {

// Both sums rotate right by one bit before adding the next byte.
uint32_t bootChecksum(const uint8_t* region, uint32_t bytesPerSector) {
  uint32_t sum = 0;
  const size_t bytes = size_t{bytesPerSector} * kChecksumSector;
  for (size_t i = 0; i < bytes; ++i) {
    if (isVolatileBootByte(i)) continue;
    sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + region[i];
  }
  return sum;
}

uint32_t tableChecksum(const uint8_t* data, size_t size) {
  uint32_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + data[i];
  return sum;
}

}  // namespace Corvo::Filesystem::Exfat
