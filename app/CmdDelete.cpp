#include "app/Commands.h"

namespace Kdisk {
int commandDelete(SwitchSet&) { return commandNotAvailable("/DEL"); }
}  // namespace Kdisk
