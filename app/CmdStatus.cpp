#include "app/Commands.h"

namespace Kdisk {
int commandStatus(SwitchSet&) { return commandNotAvailable("/STATUS"); }
}  // namespace Kdisk
