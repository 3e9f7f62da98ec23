// Feeds arbitrary bytes to the GPT reader as the start and the end of a small disk: reading
// must never throw or crash, and the checks and a create/delete round on what was read must
// only ever fail with an error object.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "app/Consistency.h"
#include "core/Crc32.h"
#include "core/Endian.h"
#include "core/Message.h"
#include "disk/DiskDrive.h"
#include "disk/layout/GptDisk.h"

namespace {

using namespace Corvo::Disk;

class FuzzAccess : public DiskDriveAccess {
 public:
  explicit FuzzAccess(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  std::string path() const override { return "fuzz"; }
  Geometry getGeometry() const override { return {}; }
  uint64_t totalBlocks() const override { return bytes_.size() / 512; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    std::memcpy(buffer, &bytes_[first * 512], count * 512);
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    std::memcpy(&bytes_[first * 512], buffer, count * 512);
  }

 private:
  std::vector<uint8_t> bytes_;
};

class SilentSink : public Corvo::Core::MessageSink {
 public:
  void error(const std::string&) override {}
  void warning(const std::string&) override {}
  void information(const std::string&) override {}
  bool question(const std::string&) override { return false; }
  void output(const std::string&) override {}
  void progress(const std::string&, uint64_t, uint64_t) override {}
  int readKey() override { return -1; }
  bool readLine(std::string&) override { return false; }
};

// Gives the header in `sector` correct CRCs for whatever it says, so that the fuzzer reaches
// the checks behind the CRCs.
void fixCrcs(std::vector<uint8_t>& disk, uint64_t sector) {
  using namespace Corvo::Core;
  uint8_t* h = &disk[sector * 512];
  uint64_t entries = get64(h + 72);
  uint64_t bytes = uint64_t{get32(h + 80)} * get32(h + 84);
  if (entries < disk.size() / 512 && bytes <= disk.size() - entries * 512)
    put32(h + 88, crc32(&disk[entries * 512], bytes));
  uint32_t size = std::clamp<uint32_t>(get32(h + 12), 92, 512);
  put32(h + 16, 0);
  put32(h + 16, crc32(h, size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool sinkSet = [] {
    Corvo::Core::setMessageSink(std::make_unique<SilentSink>());
    return true;
  }();
  (void)sinkSet;
  // 8 MiB disk: the first half of the input from sector 0, the second half ending at the
  // disk's last byte, so that both header copies and both entry arrays can be reached.
  constexpr size_t kDisk = 8u << 20;
  std::vector<uint8_t> disk(kDisk, 0);
  size_t head = std::min(size / 2, kDisk / 2), tail = std::min(size - size / 2, kDisk / 2);
  std::memcpy(disk.data(), data, head);
  std::memcpy(disk.data() + kDisk - tail, data + size / 2, tail);

  if (size && (data[0] & 1)) fixCrcs(disk, 1);
  if (size && (data[0] & 2)) fixCrcs(disk, kDisk / 512 - 1);

  DiskDrive drive(0, std::make_unique<FuzzAccess>(std::move(disk)));
  auto gpt = loadGptDisk(drive);  // must not throw
  Kdisk::checkPartitionTables(*gpt, 0, true);
  try {
    CreationRequest request;
    request.sizeBlocks = 4096;
    gpt->createPrimary(request);
    if (!gpt->roots().empty()) gpt->remove(*gpt->roots().front());
    gpt->removeAll();
    gpt->reload();
  } catch (const Corvo::Core::Error&) {
  }
  return 0;
}
