#include "disk/layout/GptFormat.h"

#include <algorithm>
#include <cstring>

#include "core/Crc32.h"
#include "core/Endian.h"
#include "core/Message.h"
#include "disk/DiskDrive.h"

namespace Corvo::Disk {

using Core::get32;
using Core::get64;
using Core::put32;
using Core::put64;

namespace {
GuidBytes guidAt(const uint8_t* p) {
  GuidBytes g;
  std::memcpy(g.data(), p, g.size());
  return g;
}
// The largest entry array accepted when reading (the usual one is 16 KiB).
constexpr uint64_t kMaxEntryArrayBytes = 16u << 20;
}  // namespace

// ---- GptHeader

GptHeader::GptHeader() {
  std::memcpy(bytes_.data(), "EFI PART", 8);
  put32(&bytes_[8], kRevision);
  put32(&bytes_[12], kSize);
  put32(&bytes_[80], kDefaultEntryCount);
  put32(&bytes_[84], kDefaultEntrySize);
}
GptHeader::GptHeader(const uint8_t* bytes) { copyFrom(bytes); }
GptHeader::GptHeader(const GptHeader& other) : bytes_(other.bytes_) {}
GptHeader& GptHeader::operator=(const GptHeader& other) {
  bytes_ = other.bytes_;
  return *this;
}
void GptHeader::copyTo(uint8_t* out) const { std::memcpy(out, bytes_.data(), kSize); }
void GptHeader::copyFrom(const uint8_t* in) { std::memcpy(bytes_.data(), in, kSize); }

bool GptHeader::hasSignature() const { return Core::bytesEqual(bytes_.data(), "EFI PART", 8); }
uint32_t GptHeader::revision() const { return get32(&bytes_[8]); }
uint32_t GptHeader::headerSize() const { return get32(&bytes_[12]); }
uint32_t GptHeader::headerCrc() const { return get32(&bytes_[16]); }
uint64_t GptHeader::myBlock() const { return get64(&bytes_[24]); }
uint64_t GptHeader::alternateBlock() const { return get64(&bytes_[32]); }
uint64_t GptHeader::firstUsableBlock() const { return get64(&bytes_[40]); }
uint64_t GptHeader::lastUsableBlock() const { return get64(&bytes_[48]); }
GuidBytes GptHeader::diskGuid() const { return guidAt(&bytes_[56]); }
uint64_t GptHeader::entriesBlock() const { return get64(&bytes_[72]); }
uint32_t GptHeader::entryCount() const { return get32(&bytes_[80]); }
uint32_t GptHeader::entrySize() const { return get32(&bytes_[84]); }
uint32_t GptHeader::entriesCrc() const { return get32(&bytes_[88]); }

void GptHeader::setMyBlock(uint64_t v) { put64(&bytes_[24], v); }
void GptHeader::setAlternateBlock(uint64_t v) { put64(&bytes_[32], v); }
void GptHeader::setFirstUsableBlock(uint64_t v) { put64(&bytes_[40], v); }
void GptHeader::setLastUsableBlock(uint64_t v) { put64(&bytes_[48], v); }
void GptHeader::setEntriesBlock(uint64_t v) { put64(&bytes_[72], v); }
void GptHeader::setEntryCount(uint32_t v) { put32(&bytes_[80], v); }
void GptHeader::setEntrySize(uint32_t v) { put32(&bytes_[84], v); }
void GptHeader::setEntriesCrc(uint32_t v) { put32(&bytes_[88], v); }
void GptHeader::setHeaderSize(uint32_t v) { put32(&bytes_[12], v); }

uint32_t GptHeader::imageCrc(const uint8_t* block, uint32_t size) {
  const uint8_t zero[4] = {};
  uint32_t crc = Core::crc32(block, 16);
  crc = Core::crc32(zero, sizeof zero, crc);
  return Core::crc32(block + 20, size - 20, crc);
}
void GptHeader::storeImageCrc(uint8_t* block, uint32_t size) { put32(block + 16, imageCrc(block, size)); }
uint32_t GptHeader::computeHeaderCrc() const { return imageCrc(bytes_.data(), kSize); }
void GptHeader::updateHeaderCrc() { storeImageCrc(bytes_.data(), kSize); }

void GptHeader::setGptUuid(const GuidBytes& guid) {
  const GuidBytes old = diskGuid();
  std::memcpy(&bytes_[56], guid.data(), guid.size());
  if (old == guid) return;
  for (GptHeader* h = alternate_; h && h != this && h->diskGuid() == old; h = h->alternate_)
    std::memcpy(&h->bytes_[56], guid.data(), guid.size());
}

// ---- GptRecord

GptRecord::GptRecord(const uint8_t* bytes) { std::memcpy(bytes_.data(), bytes, kSize); }
void GptRecord::copyTo(uint8_t* out) const { std::memcpy(out, bytes_.data(), kSize); }
bool GptRecord::isUsed() const {
  return std::any_of(bytes_.begin(), bytes_.begin() + 16, [](uint8_t b) { return b != 0; });
}
bool GptRecord::isAllZero() const {
  return std::all_of(bytes_.begin(), bytes_.end(), [](uint8_t b) { return b == 0; });
}
GuidBytes GptRecord::typeGuid() const { return guidAt(&bytes_[0]); }
GuidBytes GptRecord::uniqueGuid() const { return guidAt(&bytes_[16]); }
uint64_t GptRecord::firstBlock() const { return get64(&bytes_[32]); }
uint64_t GptRecord::lastBlock() const { return get64(&bytes_[40]); }
uint64_t GptRecord::attributes() const { return get64(&bytes_[48]); }
std::u16string GptRecord::name() const {
  std::u16string out;
  for (size_t i = 0; i < kNameUnits; ++i) {
    char16_t c = static_cast<char16_t>(Core::get16(&bytes_[56 + 2 * i]));
    if (!c) break;
    out += c;
  }
  return out;
}
void GptRecord::setTypeGuid(const GuidBytes& g) { std::memcpy(&bytes_[0], g.data(), 16); }
void GptRecord::setUniqueGuid(const GuidBytes& g) { std::memcpy(&bytes_[16], g.data(), 16); }
void GptRecord::setFirstBlock(uint64_t v) { put64(&bytes_[32], v); }
void GptRecord::setLastBlock(uint64_t v) { put64(&bytes_[40], v); }
void GptRecord::setAttributes(uint64_t v) { put64(&bytes_[48], v); }
void GptRecord::setName(const std::u16string& name) {
  std::memset(&bytes_[56], 0, 2 * kNameUnits);
  for (size_t i = 0; i < name.size() && i < kNameUnits; ++i) Core::put16(&bytes_[56 + 2 * i], name[i]);
}

// ---- Table copies

GptRecord GptTableCopy::record(uint32_t index) const {
  return GptRecord(entries.data() + size_t{index} * header.entrySize());
}
void GptTableCopy::setRecord(uint32_t index, const GptRecord& record) {
  uint8_t* p = entries.data() + size_t{index} * header.entrySize();
  std::memset(p, 0, header.entrySize());
  record.copyTo(p);
}

uint32_t gptBlockUnit(const BlockDevice& disk) {
  if (const auto* drive = dynamic_cast<const DiskDrive*>(&disk)) {
    uint32_t bytes = drive->geometry().bytesPerSector;
    if (bytes > kSectorSize && bytes % kSectorSize == 0 && bytes <= 65536) return bytes / kSectorSize;
  }
  return 1;
}

uint64_t gptEntryArrayBlocks(uint32_t entryCount, uint32_t entrySize, uint32_t unit) {
  uint64_t blockBytes = uint64_t{unit} * kSectorSize;
  return (uint64_t{entryCount} * entrySize + blockBytes - 1) / blockBytes;
}

std::string readGptCopy(BlockDevice& disk, uint64_t at, GptTableCopy& out, bool pastEndAllowed) {
  using Core::format;
  const uint32_t unit = gptBlockUnit(disk);
  const uint64_t blockBytes = uint64_t{unit} * kSectorSize;
  const uint64_t blocks = disk.blockCount() / unit;
  if (at >= blocks) return format("would lie at block %llu, beyond the end of the disk", (unsigned long long)at);

  std::vector<uint8_t> sector(blockBytes);
  try {
    disk.read(at * unit, unit, sector.data());
  } catch (const Core::Error& e) {
    return "cannot be read -- " + e.text();
  }
  GptHeader h(sector.data());
  if (!h.hasSignature()) return "has no GPT signature";
  uint32_t size = h.headerSize();
  if (size < GptHeader::kSize || size > blockBytes) return format("has an invalid header size of %u bytes", size);
  if (GptHeader::imageCrc(sector.data(), size) != h.headerCrc()) return "has a wrong header CRC";
  if (h.myBlock() != at)
    return format("gives block %llu as its own position, but it lies at block %llu", (unsigned long long)h.myBlock(),
                  (unsigned long long)at);
  uint32_t count = h.entryCount(), esize = h.entrySize();
  if (esize < GptRecord::kSize || esize % 8 != 0 || esize > 4096)
    return format("has an invalid entry size of %u bytes", esize);
  if (count == 0 || uint64_t{count} * esize > kMaxEntryArrayBytes)
    return format("has an invalid entry count of %u", count);

  const uint64_t arrayBlocks = gptEntryArrayBlocks(count, esize, unit);
  const uint64_t last = blocks - 1;
  const uint64_t first = h.firstUsableBlock(), lastUsable = h.lastUsableBlock();
  const uint64_t entries = h.entriesBlock();
  if ((lastUsable > last && !pastEndAllowed) || first > last)
    return format("points outside the disk: its usable area is blocks %llu to %llu, but the disk's last block is %llu",
                  (unsigned long long)first, (unsigned long long)lastUsable, (unsigned long long)last);
  if (entries > last || arrayBlocks > blocks - entries)
    return format(
        "points outside the disk: its entry array starts at block %llu and takes %llu blocks, but the "
        "disk's last block is %llu",
        (unsigned long long)entries, (unsigned long long)arrayBlocks, (unsigned long long)last);
  if (h.alternateBlock() > last && !pastEndAllowed)
    return format("points outside the disk: its other copy is at block %llu, but the disk's last block is %llu",
                  (unsigned long long)h.alternateBlock(), (unsigned long long)last);
  if (first > lastUsable + 1)
    return format("has an invalid usable area (blocks %llu to %llu)", (unsigned long long)first,
                  (unsigned long long)lastUsable);
  auto insideUsable = [&](uint64_t a, uint64_t b) { return first <= lastUsable && a <= lastUsable && b >= first; };
  const uint64_t other = h.alternateBlock();
  const bool arrayOverHeader =
      (entries <= at && at < entries + arrayBlocks) || (entries <= other && other < entries + arrayBlocks);
  if (insideUsable(at, at) || insideUsable(entries, entries + arrayBlocks - 1) || insideUsable(other, other) ||
      entries == 0 || other == 0 || other == at || arrayOverHeader)
    return "places its header, its entry array or its other copy inside the usable area, over the master boot "
           "record or over each other";

  std::vector<uint8_t> array(arrayBlocks * blockBytes);
  try {
    disk.read(entries * unit, arrayBlocks * unit, array.data());
  } catch (const Core::Error& e) {
    return "has an entry array that cannot be read -- " + e.text();
  }
  array.resize(size_t{count} * esize);
  if (Core::crc32(array.data(), array.size()) != h.entriesCrc()) return "has a wrong partition entry array CRC";
  out.header = h;
  out.entries = std::move(array);
  return {};
}

// ---- DiskFormatPropertiesGpt

void DiskFormatPropertiesGpt::setGptSlotCount(uint32_t count) {
  slotCount_ = count;
  slotCountAvailable_ = true;
}
void DiskFormatPropertiesGpt::setGptUuid(const GuidBytes& guid) {
  uuid_ = guid;
  uuidAvailable_ = true;
}
void DiskFormatPropertiesGpt::read(BlockDevice& disk) {
  slotCountAvailable_ = uuidAvailable_ = false;
  const uint64_t blocks = disk.blockCount() / gptBlockUnit(disk);
  GptTableCopy copy;
  if (blocks < 3 || (!readGptCopy(disk, 1, copy).empty() && !readGptCopy(disk, blocks - 1, copy).empty())) return;
  setGptSlotCount(copy.header.entryCount());
  setGptUuid(copy.header.diskGuid());
}

}  // namespace Corvo::Disk
