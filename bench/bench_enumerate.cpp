// Time of one disk enumeration over 128 added raw images (target: well under a second).
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "core/Config.h"
#include "disk/DiskDrive.h"

using namespace Corvo;

int main() {
  namespace fs = std::filesystem;
  std::string tmpl = (fs::temp_directory_path() / "kdisk-bench-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) return 1;
  Core::Config::setBool("OsDrive::Disable", true);
  for (int i = 0; i < 128; ++i) {
    std::string path = tmpl + "/disk" + std::to_string(i) + ".img";
    if (std::FILE* f = std::fopen(path.c_str(), "wb")) std::fclose(f);
    fs::resize_file(path, uint64_t{64} << 20);
    Core::Config::append(Core::Config::kAddDiskKey, path);
  }
  auto t0 = std::chrono::steady_clock::now();
  Disk::DiskManager::instance().enumerate();
  auto t1 = std::chrono::steady_clock::now();
  size_t usable = 0;
  for (size_t i = 0; i < Disk::DiskManager::instance().driveCount(); ++i)
    usable += Disk::DiskManager::instance().getDrive(i) != nullptr;
  std::printf("enumerate: %zu disks (%zu usable) in %.2f ms\n", Disk::DiskManager::instance().driveCount(), usable,
              std::chrono::duration<double, std::milli>(t1 - t0).count());
  Disk::DiskManager::instance().reset();
  fs::remove_all(tmpl);
  return usable == 128 ? 0 : 1;
}
