// The upper-case table of NTFS volumes and the file-name collation built on it.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/Endian.h"

namespace Corvo::Filesystem::Ntfs {

inline constexpr size_t kUpcaseBytes = 0x10000 * 2;

char16_t upcase(char16_t c);
// The $UpCase file's data: 64 Ki little-endian code units.
std::vector<uint8_t> upcaseTable();
// Orders two file names as the file-name collation does: unit by unit through the table,
// a name before every longer name that starts with it.
int compareNames(const std::u16string& a, const std::u16string& b);

}  // namespace Corvo::Filesystem::Ntfs
