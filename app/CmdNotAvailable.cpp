// Commands whose bodies this build does not have yet: a plain error, never a pretend success.
#include "app/Commands.h"
#include "core/Message.h"

namespace Kdisk {

using namespace Corvo::Core;

int commandNotAvailable(const char* switchName) {
  message(mkError, "The %s command is not available in this build", switchName);
  return 1;
}

}  // namespace Kdisk
