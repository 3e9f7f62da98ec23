#include "disk/layout/GptDisk.h"

namespace Corvo::Disk {
std::unique_ptr<PartitionedDisk> loadGptDisk(DiskDrive&) {
  throw Core::Error(Core::ErrorId::NotSupported, "GPT disks cannot be read by this build");
}
}  // namespace Corvo::Disk
