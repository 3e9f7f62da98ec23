// Restart of the machine after a successful command run with /R.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "app/Selection.h"
#include "core/Config.h"
#include "core/Message.h"
#include "core/System.h"

namespace Kdisk {

using namespace Corvo::Core;

bool attemptReboot() {
  // A restart is refused when it cannot help: the tests forbid it, and a run that only
  // reached disk image files changed nothing the running system has to pick up.
  if (const char* no = std::getenv("KDISK_NO_REBOOT"); no && *no) {
    message(mkInformation, "Reboot requested -- not done because KDISK_NO_REBOOT is set");
    return false;
  }
  if (Config::getBool("OsDrive::Disable", false)) {
    message(mkInformation, "Reboot requested -- not done because only disk image files are in use");
    return false;
  }
  message(mkInformation, "Rebooting the computer...");
  std::fflush(stdout);
  std::string why;
  if (!restartComputer(why)) {
    message(mkError, "Cannot reboot the computer -- %s", why.c_str());
    return false;
  }
  return true;
}

}  // namespace Kdisk
