// VMDK virtual disks: the text descriptor (monolithicFlat, or embedded in a sparse extent)
// and the hosted sparse extent (monolithicSparse).
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "disk/DiskDriveAccess.h"

namespace Corvo::Disk::Vmdk {

inline constexpr uint32_t kSparseMagic = 0x564D444B;  // "KDMV"

struct Extent {
  bool writable = true;   // RW; RDONLY and NOACCESS are not
  bool readable = true;   // false for NOACCESS
  uint64_t sectors = 0;
  std::string type;       // FLAT, SPARSE, ZERO, ...
  std::string file;       // as written in the descriptor
  uint64_t offset = 0;    // first sector inside the extent file (FLAT)
};

struct Descriptor {
  std::string createType;
  std::vector<Extent> extents;
  uint64_t cylinders = 0;  // ddb.geometry.*, 0 when absent
  uint32_t heads = 0, sectors = 0;
};

// Parses descriptor text. Throws Core::Error (InvalidImage) naming `file` and the line.
Descriptor parseDescriptor(const std::string& text, const std::string& file);

// The fields of a hosted sparse extent header (first 512 bytes of the file).
struct SparseHeader {
  uint32_t version = 0;
  uint32_t flags = 0;
  uint64_t capacity = 0;       // sectors
  uint64_t grainSize = 0;      // sectors
  uint64_t descriptorOffset = 0, descriptorSize = 0;
  uint32_t gtesPerGt = 0;
  uint64_t rgdOffset = 0, gdOffset = 0, overhead = 0;
  uint16_t compressAlgorithm = 0;
  bool redundantGt() const { return (flags & 2) != 0; }
  bool compressed() const { return (flags & 0x10000) != 0 || compressAlgorithm != 0; }
  uint64_t gdEntries() const;
};

// Decodes and checks a sparse header. Throws Core::Error (InvalidImage) naming `file`.
SparseHeader parseSparseHeader(const uint8_t* sector, const std::string& file);

// True when the first bytes of a file look like a VMDK (sparse magic or descriptor text).
bool looksLikeVmdk(const uint8_t* head, size_t n);

// Opens a VMDK given by its descriptor file or its sparse extent.
std::unique_ptr<DiskDriveAccess> open(const std::string& path);

}  // namespace Corvo::Disk::Vmdk
