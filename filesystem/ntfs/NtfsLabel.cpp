// Reads the volume label of an NTFS volume: boot sector, $MFT record 0 and its data runs,
// $Volume's record, its $VOLUME_NAME. Every size and position is checked before it is used;
// anything out of place gives no label.
#include <cstring>

#include "core/Endian.h"
#include "core/Error.h"
#include "filesystem/ntfs/Ntfs.h"
#include "filesystem/ntfs/NtfsStructures.h"

namespace Corvo::Filesystem {

using namespace Ntfs;

namespace {

constexpr uint32_t kVolumeRecord = 3;

// The first unnamed attribute of the type in a file record whose fixups were removed.
const uint8_t* findAttribute(const std::vector<uint8_t>& rec, uint32_t type) {
  size_t at = Record::FirstAttribute.get(rec.data());
  const size_t end = std::min<size_t>(rec.size(), Record::BytesInUse.get(rec.data()));
  while (at + Attr::kResidentHeader <= end) {
    const uint8_t* a = &rec[at];
    const uint32_t t = static_cast<uint32_t>(Attr::Type.get(a));
    const uint64_t length = Attr::Length.get(a);
    if (t == Attr::kEnd || length < Attr::kResidentHeader || length > end - at || length % 8) return nullptr;
    if (t == type && Attr::NameLength.get(a) == 0) return a;
    at += length;
  }
  return nullptr;
}

// Reads one file record (any number of sectors) given where each of its sectors lies.
template <typename SectorOf>
bool readRecord(Disk::BlockDevice& device, size_t bytes, SectorOf sectorOf, std::vector<uint8_t>& rec) {
  rec.assign(bytes, 0);
  for (size_t k = 0; k < bytes / kSector; ++k) {
    const std::optional<uint64_t> sector = sectorOf(k);
    if (!sector || *sector >= device.blockCount()) return false;
    device.read(*sector, 1, &rec[k * kSector]);
  }
  return std::memcmp(rec.data(), "FILE", 4) == 0 && removeFixups(rec.data(), rec.size()) &&
         Record::FirstAttribute.get(rec.data()) < bytes;
}

}  // namespace

std::string ntfsVolumeLabel(Disk::BlockDevice& device) {
  try {
    if (device.blockCount() < 2) return {};
    std::vector<uint8_t> bs(kSector);
    device.read(0, 1, bs.data());
    if (std::memcmp(&bs[Boot::kOemOffset], "NTFS    ", 8) != 0 || Boot::BytesPerSector.get(bs.data()) != kSector)
      return {};
    const uint64_t spcByte = Boot::SectorsPerCluster.get(bs.data());
    uint64_t clusterBytes = spcByte <= 0x80 ? spcByte * kSector : spcByte >= 0xF4 ? uint64_t(1) << (256 - spcByte) : 0;
    if (clusterBytes < kSector || (clusterBytes & (clusterBytes - 1))) return {};
    const int8_t perRecord = static_cast<int8_t>(Boot::ClustersPerRecord.get(bs.data()));
    const uint64_t recordBytes =
        perRecord > 0 ? perRecord * clusterBytes : perRecord <= -9 && perRecord >= -16 ? uint64_t(1) << -perRecord : 0;
    if (recordBytes < kSector || recordBytes > 65536 || recordBytes % kSector) return {};
    const uint64_t sectorsPerCluster = clusterBytes / kSector;
    const uint64_t mftLcn = Boot::MftLcn.get(bs.data());
    if (mftLcn >= device.blockCount() / sectorsPerCluster) return {};

    // Record 0 describes the $MFT itself; its first clusters are where the boot sector says.
    std::vector<uint8_t> rec;
    if (!readRecord(device, recordBytes, [&](size_t k) -> std::optional<uint64_t> { return mftLcn * sectorsPerCluster + k; },
                    rec))
      return {};
    const uint8_t* data = findAttribute(rec, atData);
    if (!data || Attr::NonResident.get(data) != 1 || Attr::LowestVcn.get(data) != 0) return {};
    const size_t length = Attr::Length.get(data), pairs = Attr::MappingPairsOffset.get(data);
    if (pairs >= length) return {};
    const auto runs = decodeMappingPairs(data + pairs, length - pairs);
    if (!runs) return {};
    auto sectorOf = [&](size_t k) -> std::optional<uint64_t> {
      const uint64_t offset = kVolumeRecord * recordBytes + k * kSector;
      uint64_t vcn = offset / clusterBytes;
      for (const Run& r : *runs) {
        if (vcn < r.length) {
          if (!r.lcn || *r.lcn > device.blockCount() / sectorsPerCluster) return std::nullopt;
          return (*r.lcn + vcn) * sectorsPerCluster + (offset % clusterBytes) / kSector;
        }
        vcn -= r.length;
      }
      return std::nullopt;
    };
    if (!readRecord(device, recordBytes, sectorOf, rec)) return {};
    if (!(Record::Flags.get(rec.data()) & Record::kInUse)) return {};
    const uint8_t* name = findAttribute(rec, atVolumeName);
    if (!name || Attr::NonResident.get(name) != 0) return {};
    const uint64_t valueLength = Attr::ValueLength.get(name), valueOffset = Attr::ValueOffset.get(name);
    if (valueOffset + valueLength > Attr::Length.get(name) || valueLength % 2) return {};
    std::u16string label;
    for (uint64_t i = 0; i < valueLength / 2; ++i) label.push_back(static_cast<char16_t>(Core::get16(name + valueOffset + 2 * i)));
    return utf8From(label);
  } catch (const Core::Error&) {
    return {};
  }
}

}  // namespace Corvo::Filesystem
