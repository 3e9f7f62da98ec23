// Enumeration of the machine's own disks.
#include "disk/DiskDriveAccess.h"
#include "disk/access/LinuxDisks.h"

namespace Corvo::Disk {

#if defined(_WIN32)
std::vector<OsDiskCandidate> enumerateNtDisks();  // DiskDriveAccessNt.cpp
#endif

std::vector<OsDiskCandidate> enumerateOsDisks() {
#if defined(_WIN32)
  return enumerateNtDisks();
#elif defined(__linux__)
  return LinuxDisks::enumerate();
#else
  return {};
#endif
}

}  // namespace Corvo::Disk
