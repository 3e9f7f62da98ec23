// On-disk structures of NTFS: the boot sector, file records, attribute headers, index headers
// and entries, mapping pairs. Each field is named once here, as an offset and a width, and
// read and written through it (core/Field.h) by the formatter and the readers alike.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/Field.h"

namespace Corvo::Filesystem::Ntfs {

// A little-endian field of Width bytes, read as a 64-bit value.
template <size_t Width>
using Field = Core::Field<uint64_t, Width>;

inline constexpr uint32_t kSector = 512;
inline constexpr uint32_t kRecordBytes = 1024;      // file records
inline constexpr uint32_t kIndexBlockBytes = 4096;  // index buffers

namespace Boot {
inline constexpr Field<3> Jump{0x00};
inline constexpr size_t kOemOffset = 0x03;  // "NTFS    "
inline constexpr Field<2> BytesPerSector{0x0B};
inline constexpr Field<1> SectorsPerCluster{0x0D};
inline constexpr Field<1> Media{0x15};
inline constexpr Field<2> SectorsPerTrack{0x18};
inline constexpr Field<2> Heads{0x1A};
inline constexpr Field<4> HiddenSectors{0x1C};
inline constexpr Field<4> DriveFields{0x24};          // drive number 0x80 and the signature byte 0x80
inline constexpr Field<8> TotalSectors{0x28};         // the volume's sectors, the backup boot sector excluded
inline constexpr Field<8> MftLcn{0x30};
inline constexpr Field<8> MftMirrLcn{0x38};
inline constexpr Field<1> ClustersPerRecord{0x40};    // clusters, or 2^-n bytes as a negative byte
inline constexpr Field<1> ClustersPerIndexBlock{0x44};
inline constexpr Field<8> Serial{0x48};
inline constexpr size_t kBootCodeOffset = 0x54;
inline constexpr Field<2> Signature{0x1FE};           // 0xAA55
}  // namespace Boot

// Header of a multi-sector record ("FILE", "INDX"): the update sequence array lives in it.
namespace Multi {
inline constexpr size_t kMagicOffset = 0;
inline constexpr Field<2> UsaOffset{0x04};
inline constexpr Field<2> UsaCount{0x06};
inline constexpr Field<8> Lsn{0x08};
}  // namespace Multi

namespace Record {
inline constexpr Field<2> SequenceNumber{0x10};
inline constexpr Field<2> LinkCount{0x12};
inline constexpr Field<2> FirstAttribute{0x14};
inline constexpr Field<2> Flags{0x16};
inline constexpr Field<4> BytesInUse{0x18};
inline constexpr Field<4> BytesAllocated{0x1C};
inline constexpr Field<8> BaseRecord{0x20};
inline constexpr Field<2> NextAttributeId{0x28};
inline constexpr Field<4> RecordNumber{0x2C};  // version 3.1 and later only
inline constexpr uint16_t kInUse = 0x01, kDirectory = 0x02, kViewIndex = 0x08;
}  // namespace Record

namespace Attr {
inline constexpr Field<4> Type{0x00};
inline constexpr Field<4> Length{0x04};
inline constexpr Field<1> NonResident{0x08};
inline constexpr Field<1> NameLength{0x09};  // UTF-16 units
inline constexpr Field<2> NameOffset{0x0A};
inline constexpr Field<2> Flags{0x0C};
inline constexpr Field<2> Id{0x0E};
// Resident form.
inline constexpr Field<4> ValueLength{0x10};
inline constexpr Field<2> ValueOffset{0x14};
inline constexpr Field<1> Indexed{0x16};
inline constexpr size_t kResidentHeader = 0x18;
// Non-resident form.
inline constexpr Field<8> LowestVcn{0x10};
inline constexpr Field<8> HighestVcn{0x18};
inline constexpr Field<2> MappingPairsOffset{0x20};
inline constexpr Field<8> AllocatedSize{0x28};
inline constexpr Field<8> DataSize{0x30};
inline constexpr Field<8> InitializedSize{0x38};
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
inline constexpr Field<8> ParentReference{0x00};
inline constexpr Field<8> CreationTime{0x08};
inline constexpr Field<8> ModificationTime{0x10};
inline constexpr Field<8> RecordChangeTime{0x18};
inline constexpr Field<8> AccessTime{0x20};
inline constexpr Field<8> AllocatedSize{0x28};
inline constexpr Field<8> DataSize{0x30};
inline constexpr Field<4> FileAttributes{0x38};
inline constexpr Field<1> NameLength{0x40};
inline constexpr Field<1> Namespace{0x41};
inline constexpr size_t kNameOffset = 0x42;
inline constexpr uint8_t kWin32AndDos = 3;
}  // namespace FileName

namespace StandardInformation {
inline constexpr Field<8> CreationTime{0x00};
inline constexpr Field<8> ModificationTime{0x08};
inline constexpr Field<8> RecordChangeTime{0x10};
inline constexpr Field<8> AccessTime{0x18};
inline constexpr Field<4> FileAttributes{0x20};
inline constexpr Field<4> SecurityId{0x34};  // 3.x only
inline constexpr size_t kSizeV1 = 0x30, kSizeV3 = 0x48;
}  // namespace StandardInformation

// File attribute bits.
inline constexpr uint32_t kFileHidden = 0x02, kFileSystem = 0x04, kFileArchive = 0x20;
inline constexpr uint32_t kDupFileNameIndex = 0x10000000, kDupViewIndex = 0x20000000;

// A quota control entry: the data of a $Quota $Q entry, keyed by owner id; owners other than
// the default one (id 1) carry their SID after the fixed part.
namespace QuotaControl {
inline constexpr Field<4> Version{0x00};
inline constexpr Field<4> Flags{0x04};
inline constexpr Field<8> BytesUsed{0x08};
inline constexpr Field<8> ChangeTime{0x10};
inline constexpr Field<8> Threshold{0x18};
inline constexpr Field<8> Limit{0x20};
inline constexpr Field<8> ExceededTime{0x28};
inline constexpr size_t kSize = 0x30;
inline constexpr uint32_t kVersion = 2, kDefaultLimits = 0x01;
inline constexpr uint32_t kDefaultOwner = 1, kFirstOwner = 0x100;
}  // namespace QuotaControl

namespace VolumeInformation {
inline constexpr Field<1> Major{0x08};
inline constexpr Field<1> Minor{0x09};
inline constexpr Field<2> Flags{0x0A};
inline constexpr size_t kSize = 12;
}  // namespace VolumeInformation

namespace IndexRoot {
inline constexpr Field<4> IndexedType{0x00};
inline constexpr Field<4> CollationRule{0x04};
inline constexpr Field<4> BlockBytes{0x08};
inline constexpr Field<1> ClustersPerBlock{0x0C};
inline constexpr size_t kHeaderOffset = 0x10;
}  // namespace IndexRoot

// The node header shared by index roots and index blocks; offsets count from its start.
namespace IndexHeader {
inline constexpr Field<4> EntriesOffset{0x00};
inline constexpr Field<4> IndexLength{0x04};
inline constexpr Field<4> AllocatedSize{0x08};
inline constexpr Field<1> Flags{0x0C};
inline constexpr size_t kSize = 0x10;
inline constexpr uint8_t kHasChildren = 0x01;
}  // namespace IndexHeader

namespace IndexBlock {
inline constexpr Field<8> Vcn{0x10};
inline constexpr size_t kHeaderOffset = 0x18;
}  // namespace IndexBlock

namespace IndexEntry {
inline constexpr Field<8> FileReference{0x00};  // directory indexes
inline constexpr Field<2> DataOffset{0x00};     // view indexes
inline constexpr Field<2> DataLength{0x02};
inline constexpr Field<2> Length{0x08};
inline constexpr Field<2> KeyLength{0x0A};
inline constexpr Field<2> Flags{0x0C};
inline constexpr size_t kKeyOffset = 0x10;
inline constexpr uint16_t kHasChild = 0x01, kLast = 0x02;
}  // namespace IndexEntry

// Header of a security descriptor in $SDS, also the data of $SDH and $SII entries.
namespace SecurityHeader {
inline constexpr Field<4> Hash{0x00};
inline constexpr Field<4> SecurityId{0x04};
inline constexpr Field<8> Offset{0x08};
inline constexpr Field<4> Length{0x10};
inline constexpr size_t kSize = 0x14;
}  // namespace SecurityHeader

namespace AttrDefEntry {
inline constexpr size_t kSize = 0xA0;  // name: 64 UTF-16 units at offset 0
inline constexpr Field<4> Type{0x80};
inline constexpr Field<4> DisplayRule{0x84};
inline constexpr Field<4> CollationRule{0x88};
inline constexpr Field<4> Flags{0x8C};
inline constexpr Field<8> MinSize{0x90};
inline constexpr Field<8> MaxSize{0x98};
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
