// Restart of the machine after a successful command run with /R.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/Selection.h"
#include "core/Config.h"
#include "core/Message.h"

#if defined(_WIN32)
#include <windows.h>
#elif defined(__linux__)
#include <sys/reboot.h>
#include <unistd.h>
#endif

namespace Kdisk {

using namespace Corvo::Core;

namespace {

#if defined(_WIN32)
std::string lastErrorText() {
  DWORD code = GetLastError();
  char buffer[512] = {};
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, buffer,
                           sizeof buffer, nullptr);
  while (n > 0 && (buffer[n - 1] == '\n' || buffer[n - 1] == '\r' || buffer[n - 1] == ' ')) buffer[--n] = 0;
  return n ? std::string(buffer) : "error " + std::to_string(code);
}

// The shutdown privilege must be enabled in the process token before ExitWindowsEx works.
bool enableShutdownPrivilege() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) return false;
  TOKEN_PRIVILEGES tp{};
  tp.PrivilegeCount = 1;
  tp.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  bool ok = LookupPrivilegeValueA(nullptr, "SeShutdownPrivilege", &tp.Privileges[0].Luid) &&
            AdjustTokenPrivileges(token, FALSE, &tp, 0, nullptr, nullptr) && GetLastError() == ERROR_SUCCESS;
  CloseHandle(token);
  return ok;
}
#endif

}  // namespace

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
#if defined(_WIN32)
  if (!enableShutdownPrivilege()) {
    message(mkError, "Cannot reboot the computer -- %s", lastErrorText().c_str());
    return false;
  }
  if (!ExitWindowsEx(EWX_REBOOT | EWX_FORCEIFHUNG, SHTDN_REASON_MAJOR_OTHER | SHTDN_REASON_FLAG_PLANNED)) {
    message(mkError, "Cannot reboot the computer -- %s", lastErrorText().c_str());
    return false;
  }
  return true;
#elif defined(__linux__)
  sync();
  if (reboot(RB_AUTOBOOT) != 0) {
    message(mkError, "Cannot reboot the computer -- %s", std::strerror(errno));
    return false;
  }
  return true;
#else
  message(mkError, "Cannot reboot the computer -- not supported on this platform");
  return false;
#endif
}

}  // namespace Kdisk
