#include "app/Commands.h"

namespace Kdisk {
int commandView(SwitchSet&) { return commandNotAvailable("/VIEW"); }
}  // namespace Kdisk
