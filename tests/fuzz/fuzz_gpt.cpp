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
#include "core/Message.h"
#include "disk/DiskDrive.h"
#include "disk/layout/GptDisk.h"
#include "disk/layout/GptFormat.h"
#include "tests/support/InMemory.h"

namespace {

using namespace Corvo::Disk;

// Gives the header in `sector` correct CRCs for whatever it says, so that the fuzzer reaches
// the checks behind the CRCs.
void fixCrcs(std::vector<uint8_t>& disk, uint64_t sector) {
  uint8_t* block = &disk[sector * 512];
  GptHeader header(block);
  const uint64_t entries = header.entriesBlock();
  const uint64_t bytes = uint64_t{header.entryCount()} * header.entrySize();
  if (entries < disk.size() / 512 && bytes <= disk.size() - entries * 512)
    header.setEntriesCrc(Corvo::Core::crc32(&disk[entries * 512], bytes));
  header.copyTo(block);
  GptHeader::storeImageCrc(block, std::clamp<uint32_t>(header.headerSize(), GptHeader::kSize, 512));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool sinkSet = [] {
    Corvo::Core::setMessageSink(std::make_unique<KdiskTest::SilentSink>());
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

  auto access = std::make_unique<KdiskTest::MemoryAccess>(0);
  access->data = std::move(disk);
  DiskDrive drive(0, std::move(access));
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
