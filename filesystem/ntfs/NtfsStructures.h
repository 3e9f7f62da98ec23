// On-disk structures of NTFS: the boot sector, file records, attribute headers, index headers
// and entries, mapping pairs. Each field is named once here, as an offset and a width, and
// read and written through the little-endian accessors by the formatter and the readers alike.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Endian.h"

namespace Corvo::Filesystem::Ntfs {

// A little-endian field of Width bytes at Offset from the start of its structure.
template <size_t Offset, size_t Width>
struct Field {
  static constexpr size_t offset = Offset;
  static uint64_t get(const uint8_t* base) {
    uint64_t v = 0;
    for (size_t i = 0; i < Width; ++i) v |= uint64_t(base[Offset + i]) << (8 * i);
    return v;
  }
  static void put(uint8_t* base, uint64_t v) {
    for (size_t i = 0; i < Width; ++i) base[Offset + i] = static_cast<uint8_t>(v >> (8 * i));
  }
};

inline constexpr uint32_t kSector = 512;
inline constexpr uint32_t kRecordBytes = 1024;      // file records
inline constexpr uint32_t kIndexBlockBytes = 4096;  // index buffers

namespace Boot {
using Jump = Field<0x00, 3>;
inline constexpr size_t kOemOffset = 0x03;  // "NTFS    "
using BytesPerSector = Field<0x0B, 2>;
using SectorsPerCluster = Field<0x0D, 1>;
using Media = Field<0x15, 1>;
using SectorsPerTrack = Field<0x18, 2>;
using Heads = Field<0x1A, 2>;
using HiddenSectors = Field<0x1C, 4>;
using DriveFields = Field<0x24, 4>;          // drive number 0x80 and the signature byte 0x80
using TotalSectors = Field<0x28, 8>;         // the volume's sectors, the backup boot sector excluded
using MftLcn = Field<0x30, 8>;
using MftMirrLcn = Field<0x38, 8>;
using ClustersPerRecord = Field<0x40, 1>;    // clusters, or 2^-n bytes as a negative byte
using ClustersPerIndexBlock = Field<0x44, 1>;
using Serial = Field<0x48, 8>;
inline constexpr size_t kBootCodeOffset = 0x54;
using Signature = Field<0x1FE, 2>;           // 0xAA55
}  // namespace Boot

// Header of a multi-sector record ("FILE", "INDX"): the update sequence array lives in it.
namespace Multi {
inline constexpr size_t kMagicOffset = 0;
using UsaOffset = Field<0x04, 2>;
using UsaCount = Field<0x06, 2>;
using Lsn = Field<0x08, 8>;
}  // namespace Multi

namespace Record {
using SequenceNumber = Field<0x10, 2>;
using LinkCount = Field<0x12, 2>;
using FirstAttribute = Field<0x14, 2>;
using Flags = Field<0x16, 2>;
using BytesInUse = Field<0x18, 4>;
using BytesAllocated = Field<0x1C, 4>;
using BaseRecord = Field<0x20, 8>;
using NextAttributeId = Field<0x28, 2>;
using RecordNumber = Field<0x2C, 4>;  // version 3.1 and later only
inline constexpr uint16_t kInUse = 0x01, kDirectory = 0x02, kViewIndex = 0x08;
}  // namespace Record

namespace Attr {
using Type = Field<0x00, 4>;
using Length = Field<0x04, 4>;
using NonResident = Field<0x08, 1>;
using NameLength = Field<0x09, 1>;  // UTF-16 units
using NameOffset = Field<0x0A, 2>;
using Flags = Field<0x0C, 2>;
using Id = Field<0x0E, 2>;
// Resident form.
using ValueLength = Field<0x10, 4>;
using ValueOffset = Field<0x14, 2>;
using Indexed = Field<0x16, 1>;
inline constexpr size_t kResidentHeader = 0x18;
// Non-resident form.
using LowestVcn = Field<0x10, 8>;
using HighestVcn = Field<0x18, 8>;
using MappingPairsOffset = Field<0x20, 2>;
using AllocatedSize = Field<0x28, 8>;
using DataSize = Field<0x30, 8>;
using InitializedSize = Field<0x38, 8>;
inline constexpr size_t kNonResidentHeader = 0x40;
inline constexpr uint32_t kEnd = 0xFFFFFFFF;
}  // namespace Attr

// Attribute type codes.
enum AttributeType : uint32_t {
  atStandardInformation = 0x10, atAttributeList = 0x20, atFileName = 0x30, atObjectId = 0x40,
  atSecurityDescriptor = 0x50, atVolumeName = 0x60, atVolumeInformation = 0x70, atData = 0x80,
  atIndexRoot = 0x90, atIndexAllocation = 0xA0, atBitmap = 0xB0, atReparsePoint = 0xC0,
  atEaInformation = 0xD0, atEa = 0xE0, atPropertySet = 0xF0, atLoggedUtilityStream = 0x100,
};

// Collation rules of indexes.
enum Collation : uint32_t { coBinary = 0, coFileName = 1, coUlong = 0x10, coSid = 0x11, coSecurityHash = 0x12, coUlongs = 0x13 };

namespace FileName {
using ParentReference = Field<0x00, 8>;
using CreationTime = Field<0x08, 8>;
using ModificationTime = Field<0x10, 8>;
using RecordChangeTime = Field<0x18, 8>;
using AccessTime = Field<0x20, 8>;
using AllocatedSize = Field<0x28, 8>;
using DataSize = Field<0x30, 8>;
using FileAttributes = Field<0x38, 4>;
using NameLength = Field<0x40, 1>;
using Namespace = Field<0x41, 1>;
inline constexpr size_t kNameOffset = 0x42;
inline constexpr uint8_t kWin32AndDos = 3;
}  // namespace FileName

namespace StandardInformation {
using CreationTime = Field<0x00, 8>;
using ModificationTime = Field<0x08, 8>;
using RecordChangeTime = Field<0x10, 8>;
using AccessTime = Field<0x18, 8>;
using FileAttributes = Field<0x20, 4>;
using SecurityId = Field<0x34, 4>;  // 3.x only
inline constexpr size_t kSizeV1 = 0x30, kSizeV3 = 0x48;
}  // namespace StandardInformation

// File attribute bits.
inline constexpr uint32_t kFileHidden = 0x02, kFileSystem = 0x04, kFileArchive = 0x20;
inline constexpr uint32_t kDupFileNameIndex = 0x10000000, kDupViewIndex = 0x20000000;

// A quota control entry: the data of a $Quota $Q entry, keyed by owner id; owners other than
// the default one (id 1) carry their SID after the fixed part.
namespace QuotaControl {
using Version = Field<0x00, 4>;
using Flags = Field<0x04, 4>;
using BytesUsed = Field<0x08, 8>;
using ChangeTime = Field<0x10, 8>;
using Threshold = Field<0x18, 8>;
using Limit = Field<0x20, 8>;
using ExceededTime = Field<0x28, 8>;
inline constexpr size_t kSize = 0x30;
inline constexpr uint32_t kVersion = 2, kDefaultLimits = 0x01;
inline constexpr uint32_t kDefaultOwner = 1, kFirstOwner = 0x100;
}  // namespace QuotaControl

namespace VolumeInformation {
using Major = Field<0x08, 1>;
using Minor = Field<0x09, 1>;
using Flags = Field<0x0A, 2>;
inline constexpr size_t kSize = 12;
}  // namespace VolumeInformation

namespace IndexRoot {
using IndexedType = Field<0x00, 4>;
using CollationRule = Field<0x04, 4>;
using BlockBytes = Field<0x08, 4>;
using ClustersPerBlock = Field<0x0C, 1>;
inline constexpr size_t kHeaderOffset = 0x10;
}  // namespace IndexRoot

// The node header shared by index roots and index blocks; offsets count from its start.
namespace IndexHeader {
using EntriesOffset = Field<0x00, 4>;
using IndexLength = Field<0x04, 4>;
using AllocatedSize = Field<0x08, 4>;
using Flags = Field<0x0C, 1>;
inline constexpr size_t kSize = 0x10;
inline constexpr uint8_t kHasChildren = 0x01;
}  // namespace IndexHeader

namespace IndexBlock {
using Vcn = Field<0x10, 8>;
inline constexpr size_t kHeaderOffset = 0x18;
}  // namespace IndexBlock

namespace IndexEntry {
using FileReference = Field<0x00, 8>;  // directory indexes
using DataOffset = Field<0x00, 2>;     // view indexes
using DataLength = Field<0x02, 2>;
using Length = Field<0x08, 2>;
using KeyLength = Field<0x0A, 2>;
using Flags = Field<0x0C, 2>;
inline constexpr size_t kKeyOffset = 0x10;
inline constexpr uint16_t kHasChild = 0x01, kLast = 0x02;
}  // namespace IndexEntry

// Header of a security descriptor in $SDS, also the data of $SDH and $SII entries.
namespace SecurityHeader {
using Hash = Field<0x00, 4>;
using SecurityId = Field<0x04, 4>;
using Offset = Field<0x08, 8>;
using Length = Field<0x10, 4>;
inline constexpr size_t kSize = 0x14;
}  // namespace SecurityHeader

namespace AttrDefEntry {
inline constexpr size_t kSize = 0xA0;  // name: 64 UTF-16 units at offset 0
using Type = Field<0x80, 4>;
using DisplayRule = Field<0x84, 4>;
using CollationRule = Field<0x88, 4>;
using Flags = Field<0x8C, 4>;
using MinSize = Field<0x90, 8>;
using MaxSize = Field<0x98, 8>;
}  // namespace AttrDefEntry

inline uint64_t fileReference(uint64_t record, uint16_t sequence) { return record | (uint64_t(sequence) << 48); }
inline size_t align8(size_t n) { return (n + 7) & ~size_t(7); }

// One run of clusters; lcn nullopt for a sparse run.
struct Run {
  std::optional<uint64_t> lcn;
  uint64_t length = 0;
};
std::vector<uint8_t> encodeMappingPairs(const std::vector<Run>& runs);
// Decodes mapping pairs from p (at most `bytes` bytes); nullopt when they are malformed.
std::optional<std::vector<Run>> decodeMappingPairs(const uint8_t* p, size_t bytes);

// Protects a multi-sector record: the last two bytes of every sector move into the update
// sequence array and are replaced by the update sequence number.
void applyFixups(uint8_t* record, size_t bytes, uint16_t usn);
// Undoes applyFixups; false when a sector's tail does not carry the number (a torn write) or
// the array does not fit.
bool removeFixups(uint8_t* record, size_t bytes);

// UTF-8 text (bytes that are not UTF-8 count as Latin-1) to UTF-16 code units, and back.
std::u16string utf16From(const std::string& text);
std::string utf8From(const std::u16string& text);

}  // namespace Corvo::Filesystem::Ntfs
