// Reading and listing 128 added raw images (target: well under a second): the disk
// enumeration alone, then the whole status display (partition tables read and checked,
// contents recognised, every disk and partition listed).
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "core/Config.h"
#include "core/Message.h"
#include "disk/DiskDrive.h"
#include "disk/layout/BiosBootRecord.h"
#include "tests/support/InMemory.h"

using namespace Corvo;

namespace {
double msSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}
}  // namespace

int main() {
  namespace fs = std::filesystem;
  std::string tmpl = (fs::temp_directory_path() / "kdisk-bench-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) return 1;
  Core::Config::setBool("OsDrive::Disable", true);
  // Each image: 64 MiB with one primary partition from 1 MiB to the end.
  Disk::BiosBootRecord mbr;
  mbr.setSlot(0, 2048, 131072 - 2048, 0x83, 255, 63);
  for (int i = 0; i < 128; ++i) {
    std::string path = tmpl + "/disk" + std::to_string(i) + ".img";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(mbr.data()), Disk::BiosBootRecord::kSize);
    fs::resize_file(path, uint64_t{64} << 20);
    Core::Config::append(Core::Config::kAddDiskKey, path);
  }
  auto t0 = std::chrono::steady_clock::now();
  Disk::DiskManager::instance().enumerate();
  const double enumerateMs = msSince(t0);
  size_t usable = 0;
  for (size_t i = 0; i < Disk::DiskManager::instance().driveCount(); ++i)
    usable += Disk::DiskManager::instance().getDrive(i) != nullptr;

  auto sink = std::make_unique<KdiskTest::SilentSink>();
  KdiskTest::SilentSink* counted = sink.get();
  auto console = Core::setMessageSink(std::move(sink));
  t0 = std::chrono::steady_clock::now();
  Kdisk::buildFixedDiskTable();
  Kdisk::SwitchSet set({"kdisk", "/STATUS"});
  const int rc = Kdisk::commandStatus(set);
  const double listMs = msSince(t0);
  auto finished = Core::setMessageSink(std::move(console));  // keeps the counting sink alive

  std::printf("enumerate: %zu disks (%zu usable) in %.2f ms\n", Disk::DiskManager::instance().driveCount(), usable,
              enumerateMs);
  std::printf("read, check and list them: %.2f ms (%zu bytes of output, exit code %d)\n", listMs, counted->bytes, rc);
  Kdisk::releaseFixedDiskTable();
  Disk::DiskManager::instance().reset();
  fs::remove_all(tmpl);
  return usable == 128 && rc == 0 && enumerateMs + listMs < 1000 ? 0 : 1;
}
