// The master boot code: the built-in copy, boot-code files, and rewriting the code area of a
// disk's master boot record (optionally deleting every partition with it).
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "disk/PartitionedDisk.h"
#include "disk/layout/BiosBootRecord.h"

namespace Corvo::Disk {

// The built-in master boot code (tools/bootcode/mbr.S). It stays clear of the NT disk
// signature at 440 and of the partition table.
inline constexpr size_t kMasterBootCodeSize = 440;
extern const uint8_t kMasterBootCode[kMasterBootCodeSize];

// The file the master boot code is installed as beside the program.
inline constexpr const char* kMasterBootCodeFileName = "MBR.BIN";

// What happens to the Windows disk identifiers when the code is written.
enum class DiskIdMode {
  FromCode,  // the code's own bytes stand, over the whole boot code area
  Preserve,  // the NT identifier is kept, and the 9x identifier where the record allows one
  Clear,     // both identifiers are zero
};

// Reads a boot-code file of 1 to 512 bytes. Throws Core::Error: OpenFailed when it cannot be
// opened or read, InvalidImage when it is empty or larger than one sector.
std::vector<uint8_t> readBootCodeFile(const std::string& path);

// The master boot record with `code` in its boot code area (the bytes from the start, zero
// after them up to the table), the table and signature of `current` (a record without the
// signature counts as blank: its table is dropped and the signature written), and the
// identifiers as `mode` says.
BiosBootRecord composeMasterBootRecord(const BiosBootRecord& current, const std::vector<uint8_t>& code, DiskIdMode mode);

// Writes the new master boot record to the disk. With wipe every partition goes too: the
// slots are cleared, and after the record is on the medium the extended boot records and any
// GPT headers are zeroed, so that no tool finds the old table, and the OS is told the empty
// layout. The caller reads the tables again afterwards (with PartitionedDisk::load: a GPT disk
// may have become an MBR disk). Returns the text of
// a failed OS update (empty when none); throws Core::Error for everything else, before any
// write when a partition cannot be changed.
std::string writeMasterBootCode(PartitionedDisk& layout, const std::vector<uint8_t>& code, DiskIdMode mode, bool wipe);

}  // namespace Corvo::Disk
