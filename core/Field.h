// The one way to declare an on-disk field: where it lies inside its structure and how wide it
// is. Values are little-endian. Every structure view (boot records, GPT, FAT, NTFS, ext2) names
// its fields with these and reads and writes them through get and put, never by casting a
// packed struct over a buffer.
#pragma once
#include <cstddef>
#include <cstdint>

namespace Corvo::Core {

// An unsigned little-endian field of Width bytes (1 to sizeof(T)) at `offset` from the start
// of its structure, read as T.
template <typename T, size_t Width = sizeof(T)>
struct Field {
  static_assert(Width >= 1 && Width <= sizeof(T) && sizeof(T) <= 8);
  static constexpr size_t width = Width;
  size_t offset;

  constexpr size_t end() const { return offset + Width; }
  T get(const uint8_t* base) const {
    const uint8_t* p = base + offset;
    uint64_t v = 0;
    for (size_t i = 0; i < Width; ++i) v |= uint64_t{p[i]} << (8 * i);
    return static_cast<T>(v);
  }
  void put(uint8_t* base, T value) const {
    uint8_t* p = base + offset;
    for (size_t i = 0; i < Width; ++i) p[i] = static_cast<uint8_t>(uint64_t{value} >> (8 * i));
  }
};

using Field8 = Field<uint8_t>;
using Field16 = Field<uint16_t>;
using Field32 = Field<uint32_t>;
using Field64 = Field<uint64_t>;

// A run of bytes stored as they are (names, identifiers, boot code).
struct ByteField {
  size_t offset, size;
  constexpr size_t end() const { return offset + size; }
};

}  // namespace Corvo::Core
