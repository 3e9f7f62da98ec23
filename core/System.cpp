#include "core/System.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#if defined(_WIN32)
#include <windows.h>
#elif defined(__linux__)
#include <sys/reboot.h>
#include <unistd.h>
#endif

namespace Corvo::Core {

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '.'))
    text.pop_back();
  return text;
}

#if defined(_WIN32)
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

std::string systemErrorText(unsigned long code) {
#if defined(_WIN32)
  char buffer[512] = {};
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           static_cast<DWORD>(code), 0, buffer, sizeof buffer, nullptr);
  std::string text = trimmed(std::string(buffer, n));
#else
  std::string text = trimmed(std::strerror(static_cast<int>(code)));
#endif
  return text.empty() ? "error " + std::to_string(code) : text;
}

std::string lastSystemErrorText() {
#if defined(_WIN32)
  return systemErrorText(GetLastError());
#else
  return systemErrorText(static_cast<unsigned long>(errno));
#endif
}

std::string executableFolder() {
#if defined(_WIN32)
  char buffer[MAX_PATH * 2] = {};
  DWORD n = GetModuleFileNameA(nullptr, buffer, sizeof buffer);
  if (n == 0 || n >= sizeof buffer) return {};
  return std::filesystem::path(std::string(buffer, n)).parent_path().string();
#elif defined(__linux__)
  char buffer[4096];
  ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return {};
  return std::filesystem::path(std::string(buffer, static_cast<size_t>(n))).parent_path().string();
#else
  return {};
#endif
}

namespace {

// The entry of the folder named `name` in any case of its letters (the exact name first).
std::string fileInFolder(const std::filesystem::path& folder, const std::string& name) {
  std::error_code ec;
  if (std::filesystem::is_regular_file(folder / name, ec)) return (folder / name).string();
  auto lower = [](std::string s) {
    for (char& c : s)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
  };
  const std::string wanted = lower(name);
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
    if (lower(it->path().filename().string()) == wanted && it->is_regular_file(ec)) return it->path().string();
  return {};
}

}  // namespace

std::string findDataFile(const std::string& name, bool currentFolder) {
  std::vector<std::filesystem::path> folders;
  const std::string program = executableFolder();
  if (!program.empty()) {
    folders.push_back(program);
#if !defined(_WIN32)
    folders.push_back(std::filesystem::path(program).parent_path() / "lib" / "kdisk");
#endif
  }
#if !defined(_WIN32)
  folders.push_back("/usr/lib/kdisk");
#endif
  if (currentFolder) folders.push_back(".");
  for (const auto& folder : folders) {
    std::string found = fileInFolder(folder, name);
    if (!found.empty()) return found;
  }
  return {};
}

std::string userStateFolder() {
  auto env = [](const char* name) {
    const char* v = std::getenv(name);
    return v && *v ? std::string(v) : std::string();
  };
#if defined(_WIN32)
  const std::string local = env("LOCALAPPDATA");
  return local.empty() ? std::string() : local + "\\Kdisk";
#else
  // Only an absolute XDG_STATE_HOME counts; a relative one is to be ignored.
  const std::string state = env("XDG_STATE_HOME");
  if (!state.empty() && state[0] == '/') return state + "/kdisk";
  const std::string home = env("HOME");
  return home.empty() ? std::string() : home + "/.local/state/kdisk";
#endif
}

bool restartComputer(std::string& why) {
#if defined(_WIN32)
  if (!enableShutdownPrivilege() ||
      !ExitWindowsEx(EWX_REBOOT | EWX_FORCEIFHUNG, SHTDN_REASON_MAJOR_OTHER | SHTDN_REASON_FLAG_PLANNED)) {
    why = lastSystemErrorText();
    return false;
  }
  return true;
#elif defined(__linux__)
  sync();
  if (reboot(RB_AUTOBOOT) != 0) {
    why = lastSystemErrorText();
    return false;
  }
  return true;
#else
  why = "not supported on this platform";
  return false;
#endif
}

}  // namespace Corvo::Core
