#include "app/Commands.h"

namespace Kdisk {
int commandCreate(SwitchSet&) { return commandNotAvailable("/CRE"); }
}  // namespace Kdisk
