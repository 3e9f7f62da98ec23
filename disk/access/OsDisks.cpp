// Enumeration of the machine's own disks.
#include "disk/DiskDriveAccess.h"

namespace Corvo::Disk {

std::vector<OsDiskCandidate> enumerateOsDisks() { return {}; }

}  // namespace Corvo::Disk
