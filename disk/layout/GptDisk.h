// The GPT table driver.
#pragma once
#include <memory>

#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

// Reads a GPT disk (the caller found the protective 0xEE entry in the MBR). Damage that
// leaves no usable header copy is reported in facts().problems with no partitions.
std::unique_ptr<PartitionedDisk> loadGptDisk(DiskDrive& drive);

}  // namespace Corvo::Disk
