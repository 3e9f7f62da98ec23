#include "app/Commands.h"

namespace Kdisk {
int commandActivate(CommandCode code, SwitchSet&) { return commandNotAvailable(code == ccActivate ? "/ACT" : "/-ACT"); }
int commandHide(CommandCode code, SwitchSet&) { return commandNotAvailable(code == ccHide ? "/HIDE" : "/-HIDE"); }
}  // namespace Kdisk
