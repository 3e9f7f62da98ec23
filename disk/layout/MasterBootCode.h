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
  FromCode,  // the code's own bytes stand where it covers the area, the disk's elsewhere
  Preserve,  // the NT identifier is kept, and the 9x identifier where the record allows one
  Clear,     // both identifiers are zero
};

// Reads a boot-code file of 1 to 512 bytes. Throws Core::Error: OpenFailed when it cannot be
// opened or read, InvalidImage when it is empty or larger than one sector.
std::vector<uint8_t> readBootCodeFile(const std::string& path);

// The master boot record with `code` over the start of its boot code area (the bytes after a
// shorter code, the NT disk signature at 440 under Kdisk's own 440-byte code among them, stay
// as `current` has them), the table and signature of `current` (a record without the
// signature counts as blank: all zero, its table dropped and the signature written), and the
// identifiers as `mode` says.
BiosBootRecord composeMasterBootRecord(const BiosBootRecord& current, const std::vector<uint8_t>& code, DiskIdMode mode);

// What writing `code` under `mode` does to the NT disk signature of the drive's master boot
// record (read from sector 0): kept, cleared, or replaced by bytes 440 to 443 of a code that
// covers them; the value before and after.
struct DiskIdChange {
  enum Kind { Kept, Cleared, FromCode } kind = Kept;
  uint32_t before = 0, after = 0;
};
DiskIdChange diskIdChange(DiskDrive& drive, const std::vector<uint8_t>& code, DiskIdMode mode);

// Writes the new master boot record to the disk. With wipe every partition goes too: the
// slots are cleared, and after the record is on the medium the extended boot records and any
// GPT headers are zeroed, so that no tool finds the old table, and the OS is told the empty
// layout. The caller reads the tables again afterwards (with PartitionedDisk::load: a GPT disk
// may have become an MBR disk). Returns the text of
// a failed OS update (empty when none); throws Core::Error for everything else, before any
// write when a partition cannot be changed.
std::string writeMasterBootCode(PartitionedDisk& layout, const std::vector<uint8_t>& code, DiskIdMode mode, bool wipe);

}  // namespace Corvo::Disk
