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
#include "core/Error.h"
#include "core/Message.h"
#include "disk/DiskDrive.h"
#include "disk/layout/BiosBootRecord.h"
#include "filesystem/Recognition.h"
#include "tests/support/InMemory.h"

using namespace Corvo::Disk;

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
  BiosBootRecord mbr;
  mbr.setSlot(0, 1, partSectors, type, 255, 63);
  std::memcpy(image.data(), mbr.data(), BiosBootRecord::kSize);

  auto previous = Corvo::Core::setMessageSink(std::make_unique<KdiskTest::SilentSink>());
  try {
    auto access = std::make_unique<KdiskTest::MemoryAccess>(0);
    access->data = std::move(image);
    access->readOnly = true;
    auto drive = std::make_unique<DiskDrive>(0, std::move(access));
    auto record = std::make_unique<Kdisk::FixedDisk>();
    record->drive = drive.get();
    record->layout = PartitionedDisk::load(*drive);
    Kdisk::printDiskStatus(*record);
  } catch (const Corvo::Core::Error&) {
  }
  Corvo::Core::setMessageSink(std::move(previous));
  return 0;
}
