#include "app/ErrorReport.h"

#include <cstdio>
#include <filesystem>

#include "app/Version.h"
#include "core/Message.h"
#include "core/System.h"

namespace Kdisk {

using namespace Corvo::Core;

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
