#include "app/Commands.h"

namespace Kdisk {
int commandStatus(SwitchSet&) { return commandNotAvailable("/STATUS"); }
}  // namespace Kdisk

#include "app/Status.h"
namespace Kdisk {
void printDiskStatus(FixedDisk&, const PartitionMark*) {}
}  // namespace Kdisk
