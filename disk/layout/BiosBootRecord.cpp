#include "disk/layout/BiosBootRecord.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <string>

#include "core/Config.h"
#include "core/Field.h"
#include "core/Error.h"
#include "core/Md5.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

namespace {
// Fields of the record and of one slot.
constexpr Core::Field16 kWindows9xGuard{218}, kSignatureField{510};
constexpr Core::Field32 kWindows9xId{220}, kWindowsNtId{440};
constexpr Core::Field8 kSlotStatus{0}, kSlotType{4};
constexpr Core::ByteField kSlotStartChs{1, 3}, kSlotEndChs{5, 3};
constexpr Core::Field32 kSlotStartBlock{8}, kSlotBlockCount{12};
constexpr uint8_t kActiveStatus = 0x80;

// A CHS triple: head, then sector in the low 6 bits with cylinder bits 8-9 above them, then
// cylinder bits 0-7.
Chs unpackChs(const uint8_t* p) {
  return Chs{static_cast<uint32_t>(p[2]) | (static_cast<uint32_t>(p[1] & 0xC0) << 2), p[0], p[1] & 0x3Fu};
}
void packChs(uint8_t* p, const Chs& c) {
  p[0] = static_cast<uint8_t>(c.head);
  p[1] = static_cast<uint8_t>((c.sector & 0x3F) | ((c.cylinder >> 2) & 0xC0));
  p[2] = static_cast<uint8_t>(c.cylinder);
}
const Chs kProtectiveStart{0, 0, 2}, kProtectiveEnd{1023, 255, 63};
}  // namespace

BiosBootRecord::BiosBootRecord(bool hasTable, uint64_t slotCount) : slotCount_(slotCount), hasTable_(hasTable) {
  setSignature();
}

BiosBootRecord::BiosBootRecord(bool hasTable, uint64_t slotCount, const uint8_t* image)
    : slotCount_(slotCount), hasTable_(hasTable) {
  if (image) std::memcpy(bytes_.data(), image, kSize);
}

bool BiosBootRecord::hasSignature() const { return getSignature() == kSignature; }
uint16_t BiosBootRecord::getSignature() const { return kSignatureField.get(bytes_.data()); }
void BiosBootRecord::setSignature() { kSignatureField.put(bytes_.data(), kSignature); }
bool BiosBootRecord::isAllZero() const {
  return std::all_of(bytes_.begin(), bytes_.end(), [](uint8_t b) { return b == 0; });
}

bool BiosBootRecord::isSlotEmpty(unsigned slot) const {
  if (!addressable(slot)) return true;
  const uint8_t* p = slotPtr(slot);
  return std::all_of(p, p + kSlotSize, [](uint8_t b) { return b == 0; });
}

uint8_t BiosBootRecord::getType(unsigned slot) const { return addressable(slot) ? kSlotType.get(slotPtr(slot)) : 0; }
void BiosBootRecord::setType(unsigned slot, uint8_t type) {
  if (addressable(slot)) kSlotType.put(slotPtr(slot), type);
}
uint8_t BiosBootRecord::getStatus(unsigned slot) const { return addressable(slot) ? kSlotStatus.get(slotPtr(slot)) : 0; }
bool BiosBootRecord::isActive(unsigned slot) const { return hasTable_ && getStatus(slot) == kActiveStatus; }

void BiosBootRecord::setActive(unsigned slot) {
  if (!hasTable_ || !addressable(slot)) return;
  for (unsigned i = 0; i < slotCount_ && i < kMaxSlots; ++i) kSlotStatus.put(slotPtr(i), 0);
  kSlotStatus.put(slotPtr(slot), kActiveStatus);
}

void BiosBootRecord::deactivate(unsigned slot) {
  if (addressable(slot)) kSlotStatus.put(slotPtr(slot), 0);
}

uint32_t BiosBootRecord::getStartBlock(unsigned slot) const { return addressable(slot) ? kSlotStartBlock.get(slotPtr(slot)) : 0; }
uint32_t BiosBootRecord::getBlockCount(unsigned slot) const { return addressable(slot) ? kSlotBlockCount.get(slotPtr(slot)) : 0; }

Chs BiosBootRecord::getSlotChs(unsigned slot, bool end) const {
  if (!addressable(slot)) return {};
  return unpackChs(slotPtr(slot) + (end ? kSlotEndChs : kSlotStartChs).offset);
}

void BiosBootRecord::clearSlot(unsigned slot) {
  if (addressable(slot)) std::memset(slotPtr(slot), 0, kSlotSize);
}

void BiosBootRecord::setProtectiveSlot(unsigned slot, uint32_t blockCount) {
  if (!addressable(slot)) return;
  uint8_t* p = slotPtr(slot);
  kSlotStatus.put(p, 0);
  packChs(p + kSlotStartChs.offset, kProtectiveStart);
  kSlotType.put(p, kTypeGptProtective);
  packChs(p + kSlotEndChs.offset, kProtectiveEnd);
  kSlotStartBlock.put(p, 1);
  kSlotBlockCount.put(p, blockCount);
}

bool BiosBootRecord::isProtectiveSlot(unsigned slot, uint32_t blockCount) const {
  return getType(slot) == kTypeGptProtective && getStartBlock(slot) == 1 && getBlockCount(slot) == blockCount;
}

uint32_t BiosBootRecord::maxoutCylinder(uint8_t type) {
  int64_t def = isCylinderLimitedType(type) ? 1022 : 1023;
  int64_t v = Core::Config::getInt("BiosBootRecord::MaxoutCylinder", def);
  return static_cast<uint32_t>(std::clamp<int64_t>(v, 0, 1023));
}

Chs BiosBootRecord::blockToChs(uint64_t block, uint8_t type, uint32_t heads, uint32_t sectorsPerTrack, bool* overflow) {
  const uint64_t perCylinder = uint64_t{heads} * sectorsPerTrack;
  if (perCylinder == 0) throw Error(ErrorId::Internal, "Disk geometry has no sectors per cylinder");
  if (overflow) *overflow = false;
  const uint64_t cylinder = block / perCylinder;
  const uint64_t rest = block % perCylinder;
  if (cylinder >= 1024) {
    if (overflow) *overflow = true;
    return Chs{maxoutCylinder(type), heads - 1, sectorsPerTrack};
  }
  return Chs{static_cast<uint32_t>(cylinder), static_cast<uint32_t>(rest / sectorsPerTrack),
             static_cast<uint32_t>(rest % sectorsPerTrack + 1)};
}

void BiosBootRecord::setSlot(unsigned slot, uint64_t startBlock, uint64_t blockCount, uint8_t type, uint32_t heads,
                             uint32_t sectorsPerTrack, uint64_t chsBase) {
  if (!addressable(slot)) return;
  if (startBlock > 0xFFFFFFFFull || blockCount > 0xFFFFFFFFull || blockCount == 0)
    throw Error(ErrorId::InvalidArgument, "A partition table entry cannot describe this range")
        .with("start", std::to_string(startBlock))
        .with("count", std::to_string(blockCount));
  bool overflow = false;
  Chs start = blockToChs(chsBase + startBlock, type, heads, sectorsPerTrack, &overflow);
  if (overflow && isCylinderLimitedType(type)) {
    type = lbaFormOfType(type);
    start = blockToChs(chsBase + startBlock, type, heads, sectorsPerTrack);
  }
  Chs end = blockToChs(chsBase + startBlock + blockCount - 1, type, heads, sectorsPerTrack);
  uint8_t* p = slotPtr(slot);
  kSlotStatus.put(p, 0);
  packChs(p + kSlotStartChs.offset, start);
  kSlotType.put(p, type);
  packChs(p + kSlotEndChs.offset, end);
  kSlotStartBlock.put(p, static_cast<uint32_t>(startBlock));
  kSlotBlockCount.put(p, static_cast<uint32_t>(blockCount));
}

const std::vector<KnownBootCode>& knownBootCodes() {
  static const std::vector<KnownBootCode> known = {{169, "5b4de9c1567ba294000a6f8cf791b1af"},
                                                   {218, "6dde166a00ed7ffb13541ecd09d4d737"},
                                                   {218, "be5a64baa2734460c93f32b4289dfa3f"}};
  return known;
}

bool matchesKnownBootCode(const uint8_t* record, const std::vector<KnownBootCode>& known) {
  for (const KnownBootCode& k : known)
    if (k.length <= BiosBootRecord::kSize && Core::Md5::hex(Core::Md5::of(record, k.length)) == k.md5) return true;
  return false;
}

bool BiosBootRecord::isBootCodeRecognised() const { return matchesKnownBootCode(bytes_.data(), knownBootCodes()); }

bool BiosBootRecord::is9xIdAvailable() const { return is9xIdAvailable(knownBootCodes()); }
bool BiosBootRecord::is9xIdAvailable(const std::vector<KnownBootCode>& known) const {
  return kWindows9xGuard.get(bytes_.data()) == 0 && matchesKnownBootCode(bytes_.data(), known);
}
uint32_t BiosBootRecord::getWindows9xId() const { return kWindows9xId.get(bytes_.data()); }
void BiosBootRecord::setWindows9xId(uint32_t id) {
  if (is9xIdAvailable()) kWindows9xId.put(bytes_.data(), id);
}
void BiosBootRecord::regenerateWindows9xId() { setWindows9xId(newDiskIdentifier()); }

uint32_t BiosBootRecord::getWindowsNtId() const { return kWindowsNtId.get(bytes_.data()); }
void BiosBootRecord::setWindowsNtId(uint32_t id) { kWindowsNtId.put(bytes_.data(), id); }

std::vector<uint8_t> BiosBootRecord::getBootCode() const {
  return std::vector<uint8_t>(bytes_.begin(), bytes_.begin() + static_cast<long>(bootCodeSize()));
}

void BiosBootRecord::setBootCode(const uint8_t* code, size_t length) {
  size_t n = bootCodeSize();
  if (n == 0) return;
  std::memset(bytes_.data(), 0, n);
  if (code) std::memcpy(bytes_.data(), code, std::min(length, n));
}

uint32_t newDiskIdentifier() {
  static std::mt19937 gen(static_cast<uint32_t>(std::random_device{}()) ^
                          static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
  uint32_t v;
  do v = static_cast<uint32_t>(gen());
  while (v == 0);
  return v;
}

}  // namespace Corvo::Disk
