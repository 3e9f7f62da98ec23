// MBR partition type bytes: the front end's type table (names, categories, LBA and hidden
// flags), the type classes the disk layer tests, the LBA forms and the hidden forms, and the
// library's partition kinds.
#pragma once
#include <cstdint>
#include <span>

namespace Corvo::Disk {

// Type bytes the code acts on by name.
inline constexpr uint8_t kTypeUnused = 0x00;
inline constexpr uint8_t kTypeFat12 = 0x01;
inline constexpr uint8_t kTypeFat16Small = 0x04;     // FAT16 below 32 MB
inline constexpr uint8_t kTypeExtended = 0x05;
inline constexpr uint8_t kTypeFat16 = 0x06;
inline constexpr uint8_t kTypeNtfs = 0x07;
inline constexpr uint8_t kTypeFat32 = 0x0B;
inline constexpr uint8_t kTypeFat32Lba = 0x0C;
inline constexpr uint8_t kTypeFat16Lba = 0x0E;
inline constexpr uint8_t kTypeExtendedLba = 0x0F;
inline constexpr uint8_t kTypeHiddenOffset = 0x10;   // hidden form = visible form + 0x10
inline constexpr uint8_t kTypeLinux = 0x83;
inline constexpr uint8_t kTypeLinuxExtended = 0x85;
inline constexpr uint8_t kTypeGptProtective = 0xEE;
inline constexpr uint8_t kTypeEfiSystem = 0xEF;

// Categories of the type table.
enum PartitionCategory : int {
  pcFat12 = 0,
  pcFat16 = 1,
  pcFat32 = 2,
  pcNtfs = 3,
  pcExtended = 4,
  pcHiddenExtended = 5,
  pcOther = 6,
  pcDiagnostic = 7,
  pcLinux = 8,
  pcLinuxSwap = 9,
  pcLinuxExtended = 10,
  pcDiagnostic2 = 11,
  pcDiagnostic3 = 12,
  pcDiagnostic4 = 13,
};

struct PartitionTypeInfo {
  uint8_t type = 0;
  const char* name = "";  // empty: the front end prints no name
  int category = pcOther;
  bool lba = false;
  bool hidden = false;
};

// The whole table, sorted by type byte.
std::span<const PartitionTypeInfo> partitionTypeTable();
// The row of a type byte; a byte missing from the table gives the row "UNKNOWN", category 6,
// both flags clear, with the type field set to the byte looked up.
PartitionTypeInfo lookupPartitionType(uint8_t type);
// Filesystem name of a category: "FAT12", "FAT16", "FAT32", "NTFS/HPFS", "EXT2FS",
// "DIAGNOSTIC"; "" for the others.
const char* categoryFilesystemName(int category);

// Type classes.
bool isExtendedClassType(uint8_t type);     // 0x05, 0x0F, 0x85: opens a chain
bool isDiagnosticType(uint8_t type);        // 0x12, 0xA0, 0xDE, 0xFE
bool isChsFatType(uint8_t type);            // CHS-addressed FAT family
bool isCylinderLimitedType(uint8_t type);   // MaxoutCylinder defaults to 1022 for these
// LBA form of a type (0x04/0x06 -> 0x0E, 0x05 -> 0x0F, 0x0B -> 0x0C, 0x14/0x16 -> 0x1E,
// 0x1B -> 0x1C); every other type is returned unchanged.
uint8_t lbaFormOfType(uint8_t type);

// Hidden forms: hiding adds 0x10 to 0x01, 0x04, 0x05, 0x06, 0x07, 0x0B, 0x0C, 0x0E and 0x0F;
// unhiding is the exact inverse. Both return a type without such a form unchanged.
uint8_t hiddenFormOfType(uint8_t type);
uint8_t visibleFormOfType(uint8_t type);

// Partition kinds of the library (filesystem kinds below 10000, 10000 the extended container,
// 20000 and above reserved partitions).
struct PartitionKind {
  int id;
  const char* name;
};
std::span<const PartitionKind> partitionKinds();
const char* partitionKindName(int id);  // "" for an unknown id

}  // namespace Corvo::Disk
