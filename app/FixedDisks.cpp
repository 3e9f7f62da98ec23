#include "app/FixedDisks.h"

namespace Kdisk {
void buildFixedDiskTable() {}
void releaseFixedDiskTable() {}
std::vector<FixedDisk*> fixedDisks() { return {}; }
uint32_t parseDiskNumber(const SwitchSet&) { return kNoDisk; }
FixedDisk* findDisk(uint32_t) { return nullptr; }
void reportInaccessibleDisks() {}
int selectDiskList(const SwitchSet&, std::vector<uint32_t>&) { return 2; }
uint32_t systemDisk() { return kNoDisk; }
}  // namespace Kdisk
