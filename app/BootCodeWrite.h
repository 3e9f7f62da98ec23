// Shared steps of /MBR and /REVERT: reading a boot-code file and writing the master boot
// code to one fixed disk, with the messages and the status table.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "app/FixedDisks.h"
#include "disk/layout/MasterBootCode.h"

namespace Kdisk {

// Reads the file into code; prints why and returns false when it cannot be used.
bool loadBootCodeFile(const std::string& path, std::vector<uint8_t>& code);

// The busy check before the master boot record changes: nothing may hold sector 0 (a volume
// made on the whole disk), and with wipe nothing on the disk at all. Prints why and returns
// false when something does.
bool bootRecordFree(FixedDisk& disk, bool wipe);

// Writes the code to the disk (see Corvo::Disk::writeMasterBootCode), then prints the disk's
// status table. Returns the exit code.
int writeBootCodeToDisk(FixedDisk& disk, const std::vector<uint8_t>& code, Corvo::Disk::DiskIdMode mode, bool wipe);

}  // namespace Kdisk
