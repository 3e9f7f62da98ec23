#include "disk/layout/GptFormat.h"

#include <algorithm>
#include <cstring>

#include "core/Crc32.h"
#include "core/Endian.h"
#include "core/Field.h"
#include "core/Message.h"
#include "disk/DiskDrive.h"

namespace Corvo::Disk {

namespace {
GuidBytes guidAt(const uint8_t* p) {
  GuidBytes g;
  std::memcpy(g.data(), p, g.size());
  return g;
}
// The header's fields.
namespace H {
constexpr Core::ByteField signature{0, 8}, diskGuid{56, 16};
constexpr Core::Field32 revision{8}, size{12}, crc{16}, entryCount{80}, entrySize{84}, entriesCrc{88};
constexpr Core::Field64 myBlock{24}, alternateBlock{32}, firstUsableBlock{40}, lastUsableBlock{48}, entriesBlock{72};
}  // namespace H
// An entry's fields; the name is kNameUnits UTF-16 units.
namespace E {
constexpr Core::ByteField typeGuid{0, 16}, uniqueGuid{16, 16}, name{56, 72};
constexpr Core::Field64 firstBlock{32}, lastBlock{40}, attributes{48};
}  // namespace E
// The largest entry array accepted when reading (the usual one is 16 KiB).
constexpr uint64_t kMaxEntryArrayBytes = 16u << 20;
}  // namespace

// ---- GptHeader

GptHeader::GptHeader() {
  std::memcpy(bytes_.data() + H::signature.offset, "EFI PART", H::signature.size);
  H::revision.put(bytes_.data(), kRevision);
  H::size.put(bytes_.data(), kSize);
  H::entryCount.put(bytes_.data(), kDefaultEntryCount);
  H::entrySize.put(bytes_.data(), kDefaultEntrySize);
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
uint32_t GptHeader::revision() const { return H::revision.get(bytes_.data()); }
uint32_t GptHeader::headerSize() const { return H::size.get(bytes_.data()); }
uint32_t GptHeader::headerCrc() const { return H::crc.get(bytes_.data()); }
uint64_t GptHeader::myBlock() const { return H::myBlock.get(bytes_.data()); }
uint64_t GptHeader::alternateBlock() const { return H::alternateBlock.get(bytes_.data()); }
uint64_t GptHeader::firstUsableBlock() const { return H::firstUsableBlock.get(bytes_.data()); }
uint64_t GptHeader::lastUsableBlock() const { return H::lastUsableBlock.get(bytes_.data()); }
GuidBytes GptHeader::diskGuid() const { return guidAt(&bytes_[H::diskGuid.offset]); }
uint64_t GptHeader::entriesBlock() const { return H::entriesBlock.get(bytes_.data()); }
uint32_t GptHeader::entryCount() const { return H::entryCount.get(bytes_.data()); }
uint32_t GptHeader::entrySize() const { return H::entrySize.get(bytes_.data()); }
uint32_t GptHeader::entriesCrc() const { return H::entriesCrc.get(bytes_.data()); }

void GptHeader::setMyBlock(uint64_t v) { H::myBlock.put(bytes_.data(), v); }
void GptHeader::setAlternateBlock(uint64_t v) { H::alternateBlock.put(bytes_.data(), v); }
void GptHeader::setFirstUsableBlock(uint64_t v) { H::firstUsableBlock.put(bytes_.data(), v); }
void GptHeader::setLastUsableBlock(uint64_t v) { H::lastUsableBlock.put(bytes_.data(), v); }
void GptHeader::setEntriesBlock(uint64_t v) { H::entriesBlock.put(bytes_.data(), v); }
void GptHeader::setEntryCount(uint32_t v) { H::entryCount.put(bytes_.data(), v); }
void GptHeader::setEntrySize(uint32_t v) { H::entrySize.put(bytes_.data(), v); }
void GptHeader::setEntriesCrc(uint32_t v) { H::entriesCrc.put(bytes_.data(), v); }
void GptHeader::setHeaderSize(uint32_t v) { H::size.put(bytes_.data(), v); }

uint32_t GptHeader::imageCrc(const uint8_t* block, uint32_t size) {
  const uint8_t zero[4] = {};
  uint32_t crc = Core::crc32(block, H::crc.offset);
  crc = Core::crc32(zero, sizeof zero, crc);
  return Core::crc32(block + H::crc.end(), static_cast<uint32_t>(size - H::crc.end()), crc);
}
void GptHeader::storeImageCrc(uint8_t* block, uint32_t size) { H::crc.put(block, imageCrc(block, size)); }
uint32_t GptHeader::computeHeaderCrc() const { return imageCrc(bytes_.data(), kSize); }
void GptHeader::updateHeaderCrc() { storeImageCrc(bytes_.data(), kSize); }

void GptHeader::setGptUuid(const GuidBytes& guid) {
  const GuidBytes old = diskGuid();
  std::memcpy(&bytes_[H::diskGuid.offset], guid.data(), guid.size());
  if (old == guid) return;
  for (GptHeader* h = alternate_; h && h != this && h->diskGuid() == old; h = h->alternate_)
    std::memcpy(&h->bytes_[H::diskGuid.offset], guid.data(), guid.size());
}

// ---- GptRecord

GptRecord::GptRecord(const uint8_t* bytes) { std::memcpy(bytes_.data(), bytes, kSize); }
void GptRecord::copyTo(uint8_t* out) const { std::memcpy(out, bytes_.data(), kSize); }
bool GptRecord::isUsed() const {
  return std::any_of(bytes_.begin(), bytes_.begin() + E::typeGuid.end(), [](uint8_t b) { return b != 0; });
}
bool GptRecord::isAllZero() const {
  return std::all_of(bytes_.begin(), bytes_.end(), [](uint8_t b) { return b == 0; });
}
GuidBytes GptRecord::typeGuid() const { return guidAt(&bytes_[E::typeGuid.offset]); }
GuidBytes GptRecord::uniqueGuid() const { return guidAt(&bytes_[E::uniqueGuid.offset]); }
uint64_t GptRecord::firstBlock() const { return E::firstBlock.get(bytes_.data()); }
uint64_t GptRecord::lastBlock() const { return E::lastBlock.get(bytes_.data()); }
uint64_t GptRecord::attributes() const { return E::attributes.get(bytes_.data()); }
std::u16string GptRecord::name() const {
  std::u16string out;
  for (size_t i = 0; i < kNameUnits; ++i) {
    char16_t c = static_cast<char16_t>(Core::get16(&bytes_[E::name.offset + 2 * i]));
    if (!c) break;
    out += c;
  }
  return out;
}
void GptRecord::setTypeGuid(const GuidBytes& g) { std::memcpy(&bytes_[E::typeGuid.offset], g.data(), E::typeGuid.size); }
void GptRecord::setUniqueGuid(const GuidBytes& g) { std::memcpy(&bytes_[E::uniqueGuid.offset], g.data(), E::uniqueGuid.size); }
void GptRecord::setFirstBlock(uint64_t v) { E::firstBlock.put(bytes_.data(), v); }
void GptRecord::setLastBlock(uint64_t v) { E::lastBlock.put(bytes_.data(), v); }
void GptRecord::setAttributes(uint64_t v) { E::attributes.put(bytes_.data(), v); }
void GptRecord::setName(const std::u16string& name) {
  std::memset(&bytes_[E::name.offset], 0, E::name.size);
  for (size_t i = 0; i < name.size() && i < kNameUnits; ++i) Core::put16(&bytes_[E::name.offset + 2 * i], name[i]);
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

uint64_t gptEntryArrayBlocks(uint32_t entryCount, uint32_t entrySize, uint32_t blockBytes) {
  return (uint64_t{entryCount} * entrySize + blockBytes - 1) / blockBytes;
}

std::string readGptCopy(BlockDevice& disk, uint64_t at, GptTableCopy& out) {
  using Core::format;
  const uint32_t blockBytes = disk.bytesPerBlock();
  const uint64_t blocks = disk.blockCount();
  if (at >= blocks) return format("would lie at block %llu, beyond the end of the disk", (unsigned long long)at);

  std::vector<uint8_t> sector(blockBytes);
  try {
    disk.read(at, 1, sector.data());
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

  const uint64_t arrayBlocks = gptEntryArrayBlocks(count, esize, blockBytes);
  const uint64_t last = blocks - 1;
  const uint64_t first = h.firstUsableBlock(), lastUsable = h.lastUsableBlock();
  const uint64_t entries = h.entriesBlock();
  if (lastUsable > last || first > last)
    return format("points outside the disk: its usable area is blocks %llu to %llu, but the disk's last block is %llu",
                  (unsigned long long)first, (unsigned long long)lastUsable, (unsigned long long)last);
  if (entries > last || arrayBlocks > blocks - entries)
    return format(
        "points outside the disk: its entry array starts at block %llu and takes %llu blocks, but the "
        "disk's last block is %llu",
        (unsigned long long)entries, (unsigned long long)arrayBlocks, (unsigned long long)last);
  if (h.alternateBlock() > last)
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
    disk.read(entries, arrayBlocks, array.data());
  } catch (const Core::Error& e) {
    return "has an entry array that cannot be read -- " + e.text();
  }
  array.resize(size_t{count} * esize);
  if (Core::crc32(array.data(), array.size()) != h.entriesCrc()) return "has a wrong partition entry array CRC";
  out.header = h;
  out.entries = std::move(array);
  return {};
}

}  // namespace Corvo::Disk
