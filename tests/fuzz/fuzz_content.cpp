// Feeds arbitrary partition contents to content recognition and to the status display's
// label readers (FAT root directory, NTFS $Volume record, ext superblock). The input is the
// content of one partition starting at sector 1 of a small in-memory disk; the first byte
// picks the partition's type byte.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "app/FixedDisks.h"
#include "app/CmdStatus.h"
#include "core/Endian.h"
#include "core/Error.h"
#include "core/Message.h"
#include "disk/DiskDrive.h"
#include "filesystem/Recognition.h"

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
  void write(uint64_t, uint64_t, const void*) override {
    throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "read-only");
  }

 private:
  std::vector<uint8_t> bytes_;
};

class NullSink : public Corvo::Core::MessageSink {
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace Fs = Corvo::Filesystem;
  if (size < 1 || size > (1u << 20)) return 0;
  const uint8_t type = data[0] ? data[0] : 0x83;
  ++data;
  --size;
  for (unsigned mode : {0u, 1000u, 1001u, 1002u, 7u}) (void)Fs::detectContent(data, size, mode);
  (void)Fs::volumeLabelOf(data, size);

  // Sector 0: an MBR with one partition over the rest of the disk; then the input, padded.
  const uint64_t partSectors = std::max<uint64_t>((size + 511) / 512, 1);
  std::vector<uint8_t> image((1 + partSectors) * 512, 0);
  std::memcpy(image.data() + 512, data, size);
  uint8_t* slot = image.data() + 446;
  slot[4] = type;
  Corvo::Core::put32(slot + 8, 1);
  Corvo::Core::put32(slot + 12, static_cast<uint32_t>(partSectors));
  image[510] = 0x55;
  image[511] = 0xAA;

  auto previous = Corvo::Core::setMessageSink(std::make_unique<NullSink>());
  try {
    auto drive = std::make_unique<DiskDrive>(0, std::make_unique<FuzzAccess>(std::move(image)));
    auto record = std::make_unique<Kdisk::FixedDisk>();
    record->drive = drive.get();
    record->layout = PartitionedDisk::load(*drive);
    Kdisk::printDiskStatus(*record);
  } catch (const Corvo::Core::Error&) {
  }
  Corvo::Core::setMessageSink(std::move(previous));
  return 0;
}
