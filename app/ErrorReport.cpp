#include "app/ErrorReport.h"

#include <cstdio>
#include <filesystem>

#include "app/Version.h"
#include "core/Message.h"

#if defined(_WIN32)
#include <windows.h>
#elif defined(__linux__)
#include <unistd.h>
#endif

namespace Kdisk {

using namespace Corvo::Core;

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

int AbortServerReporterKdisk::handle(const Error& error) {
  if (error.id() == ErrorId::AccessDenied) {
    std::fflush(stdout);
    message(mkError, "Disk access has been denied in the current context.\n");
    return 1;
  }
  return AbortServerReporter::handle(error);
}

std::string AbortServerReporterKdisk::title() const {
  return format("%s %d.%d.%d.%d", kErrorFileTitle, kVersionMajor, kVersionMinor, kVersionPatch, kBuildNumber);
}

std::string AbortServerReporterKdisk::notice() const { return kNotice; }

std::string AbortServerReporterKdisk::errorFileName() const { return kErrorFileName; }

std::vector<std::string> AbortServerReporterKdisk::errorFileFolders() const {
  std::vector<std::string> folders;
  std::string exe = executableFolder();
  if (!exe.empty()) folders.push_back(exe);
  std::filesystem::path started(programPath_);
  if (started.has_parent_path()) {
    std::string dir = started.parent_path().string();
    if (dir != exe) folders.push_back(dir);
  }
  folders.push_back("");  // the current folder
  return folders;
}

}  // namespace Kdisk
