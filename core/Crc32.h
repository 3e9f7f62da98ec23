// CRC-32 as used by GPT headers and entry arrays (reflected polynomial 0xEDB88320, initial
// value and final XOR all ones).
#pragma once
#include <cstddef>
#include <cstdint>

namespace Corvo::Core {

// CRC of size bytes. Pass the result of an earlier call as previous to continue a running CRC
// over data given in pieces; 0 starts a new one.
uint32_t crc32(const void* data, size_t size, uint32_t previous = 0);

}  // namespace Corvo::Core
