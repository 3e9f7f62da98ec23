// Feeds arbitrary sector images to the partition table reader (and one edit on top) through an
// in-memory disk. Every sector of the disk repeats one of the input's 512-byte chunks, so
// chains, loops and links to any sector are easy to reach.
#include <cstdint>
#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "core/Error.h"
#include "disk/DiskDrive.h"
#include "disk/PartitionedDisk.h"

using namespace Corvo::Disk;

namespace {

class FuzzAccess : public DiskDriveAccess {
 public:
  FuzzAccess(std::vector<std::vector<uint8_t>> chunks, uint64_t blocks) : chunks_(std::move(chunks)), blocks_(blocks) {}
  std::string path() const override { return "fuzz"; }
  Geometry getGeometry() const override { return Geometry{}; }
  uint64_t totalBlocks() const override { return blocks_; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    auto* out = static_cast<uint8_t*>(buffer);
    for (uint64_t s = first; s < first + count; ++s, out += 512) {
      auto it = written_.find(s);
      if (it != written_.end())
        std::memcpy(out, it->second.data(), 512);
      else
        std::memcpy(out, chunks_[s % chunks_.size()].data(), 512);
    }
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    if (written_.size() > 4096) throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "too many writes");
    const auto* in = static_cast<const uint8_t*>(buffer);
    for (uint64_t s = first; s < first + count; ++s, in += 512) written_[s].assign(in, in + 512);
  }

 private:
  std::vector<std::vector<uint8_t>> chunks_;
  std::map<uint64_t, std::vector<uint8_t>> written_;
  uint64_t blocks_;
};

void exercise(PartitionedDisk& disk) {
  for (PartitionNode* n : disk.displayList()) {
    volatile uint64_t last = n->lastBlock();
    (void)last;
    (void)n->isHiddenType();
    (void)n->extendedContainer();
  }
  (void)disk.rawTables();
  (void)disk.facts();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  // Header: disk size selector, operation, alignment; then 512-byte chunks.
  const uint64_t sizes[] = {1, 64, 4096, 409600, 1ull << 24, 1ull << 33};
  const uint64_t blocks = sizes[data[0] % 6];
  const uint8_t op = data[1];
  const int64_t alignment = data[2] & 1 ? 2048 : -1;
  data += 4;
  size -= 4;
  std::vector<std::vector<uint8_t>> chunks;
  for (size_t off = 0; off < size && chunks.size() < 64; off += 512) {
    std::vector<uint8_t> c(512, 0);
    std::memcpy(c.data(), data + off, std::min<size_t>(512, size - off));
    chunks.push_back(std::move(c));
  }
  if (chunks.empty()) chunks.emplace_back(512, 0);
  try {
    DiskDrive drive(0, std::make_unique<FuzzAccess>(std::move(chunks), blocks));
    auto disk = PartitionedDisk::load(drive);
    exercise(*disk);
    CreationRequest r;
    r.alignment = alignment;
    r.sizeBlocks = (op & 0x40) ? CreationRequest::kLargest : 2048u * ((op >> 3) & 7) + 1;
    r.placeAtEnd = op & 0x80;
    auto list = disk->displayList();
    try {
      switch (op & 7) {
        case 1: disk->createPrimary(r); break;
        case 2: disk->createExtended(r); break;
        case 3: disk->createLogical(r); break;
        case 4: if (!list.empty()) disk->remove(*list[op % list.size()]); break;
        case 5: if (!list.empty()) disk->setType(*list[op % list.size()], 0x17); break;
        case 6: disk->removeAll(); break;
        case 7: if (!list.empty()) disk->clearActive(*list[op % list.size()]); break;
        default: break;
      }
    } catch (const Corvo::Core::Error&) {
    }
    disk->reload();
    exercise(*disk);
  } catch (const Corvo::Core::Error&) {
  }
  return 0;
}
