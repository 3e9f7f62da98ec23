#include "disk/layout/PartitionTypes.h"

#include <algorithm>
#include <array>

namespace Corvo::Disk {
namespace {

constexpr PartitionTypeInfo kTypes[] = {
    {0x00, "UNUSED", pcOther, false, true},  // the unused row carries the hidden flag
    {0x01, "FAT12", pcFat12, false, false},
    {0x02, "XENIX", pcOther, false, false},
    {0x03, "XENIX", pcOther, false, false},
    {0x04, "FAT16", pcFat16, false, false},
    {0x05, "", pcExtended, false, false},
    {0x06, "FAT16", pcFat16, false, false},
    {0x07, "NTFS/HPFS", pcNtfs, false, false},
    {0x0A, "OS/2 BOOT", pcOther, false, false},
    {0x0B, "FAT32", pcFat32, false, false},
    {0x0C, "FAT32", pcFat32, true, false},
    {0x0E, "FAT16", pcFat16, true, false},
    {0x0F, "", pcExtended, true, false},
    {0x11, "FAT12", pcFat12, false, true},
    {0x12, "DIAGNOSTIC", pcDiagnostic, false, false},
    {0x14, "FAT16", pcFat16, false, true},
    {0x15, "", pcHiddenExtended, false, true},
    {0x16, "FAT16", pcFat16, false, true},
    {0x17, "NTFS/HPFS", pcNtfs, false, true},
    {0x1B, "FAT32", pcFat32, false, true},
    {0x1C, "FAT32", pcFat32, true, true},
    {0x1E, "FAT16", pcFat16, true, true},
    {0x1F, "", pcHiddenExtended, true, true},
    {0x27, "MSRecovery", pcNtfs, false, false},
    {0x42, "DYNAMIC", pcOther, true, false},
    {0x63, "UNIX SYS V", pcOther, false, false},
    {0x70, "", pcFat16, false, false},  // nameless FAT16-category row, kept on purpose
    {0x81, "MINIX", pcOther, false, false},
    {0x82, "LINUX SWAP", pcLinuxSwap, false, false},
    {0x83, "LINUX", pcLinux, false, false},
    {0x84, "OS/2", pcOther, false, true},
    {0x85, "LINUX EXT", pcLinuxExtended, false, false},
    {0x8E, "LVM STORAGE", pcLinux, false, false},
    {0xA0, "DIAGNOSTIC", pcDiagnostic3, false, true},
    {0xAF, "Apple HFS+", pcOther, false, false},
    {0xDE, "DIAGNOSTIC", pcDiagnostic2, false, true},
    {0xEF, "EFI System", pcFat32, true, false},
    {0xFD, "LINUX RAID", pcOther, false, false},
    {0xFE, "DIAGNOSTIC", pcDiagnostic4, false, true},
};

constexpr PartitionKind kKinds[] = {
    {0, "Raw"},           {1, "Native"},       {2, "FAT"},          {3, "FAT12"},
    {4, "FAT16"},         {5, "FAT32"},        {6, "NTFS"},         {7, "Linux Swap"},
    {8, "Ext2"},          {9, "Ext3"},         {10, "Reiser"},      {11, "EWF"},
    {10000, "Extended"},  {20000, "Hidden PW"}, {20001, "Embedded PW"}, {20002, "Recovery"},
    {20009, "APM Reserved"}, {20010, "OEM"},   {20011, "EFI System"}, {20012, "MS Reserved"},
    {21001, "Automation"}, {21002, "Recovery"},
};

// Visible type -> hidden type.
constexpr std::array<std::array<uint8_t, 2>, 9> kHidden = {{
    {0x01, 0x11}, {0x04, 0x14}, {0x05, 0x15}, {0x06, 0x16}, {0x07, 0x17},
    {0x0B, 0x1B}, {0x0C, 0x1C}, {0x0E, 0x1E}, {0x0F, 0x1F},
}};

template <size_t N>
bool inSet(uint8_t type, const uint8_t (&set)[N]) {
  return std::find(set, set + N, type) != set + N;
}

}  // namespace

std::span<const PartitionTypeInfo> partitionTypeTable() { return kTypes; }

PartitionTypeInfo lookupPartitionType(uint8_t type) {
  auto it = std::lower_bound(std::begin(kTypes), std::end(kTypes), type,
                             [](const PartitionTypeInfo& row, uint8_t t) { return row.type < t; });
  if (it != std::end(kTypes) && it->type == type) return *it;
  return PartitionTypeInfo{type, "UNKNOWN", pcOther, false, false};
}

const char* categoryFilesystemName(int category) {
  switch (category) {
    case pcFat12: return "FAT12";
    case pcFat16: return "FAT16";
    case pcFat32: return "FAT32";
    case pcNtfs: return "NTFS/HPFS";
    case pcLinux: return "EXT2FS";
    case pcDiagnostic:
    case pcDiagnostic2:
    case pcDiagnostic3:
    case pcDiagnostic4: return "DIAGNOSTIC";
    default: return "";
  }
}

bool isExtendedClassType(uint8_t type) {
  static const uint8_t set[] = {0x05, 0x0F, 0x85};
  return inSet(type, set);
}
bool isDiagnosticType(uint8_t type) {
  static const uint8_t set[] = {0x12, 0xA0, 0xDE, 0xFE};
  return inSet(type, set);
}
bool isChsFatType(uint8_t type) {
  static const uint8_t set[] = {0x01, 0x04, 0x05, 0x06, 0x0B, 0x11, 0x14, 0x16, 0x1B};
  return inSet(type, set);
}
bool isCylinderLimitedType(uint8_t type) {
  static const uint8_t set[] = {0x01, 0x04, 0x06, 0x0B, 0x0C, 0x0E, 0x11, 0x12, 0x14,
                                0x16, 0x1B, 0x1C, 0x1E, 0xA0, 0xDE, 0xEF, 0xFE};
  return inSet(type, set);
}

uint8_t lbaFormOfType(uint8_t type) {
  switch (type) {
    case 0x04:
    case 0x06: return 0x0E;
    case 0x05: return 0x0F;
    case 0x0B: return 0x0C;
    case 0x14:
    case 0x16: return 0x1E;
    case 0x1B: return 0x1C;
    default: return type;
  }
}

uint8_t hiddenFormOfType(uint8_t type) {
  for (const auto& pair : kHidden)
    if (pair[0] == type) return pair[1];
  return type;
}
uint8_t visibleFormOfType(uint8_t type) {
  for (const auto& pair : kHidden)
    if (pair[1] == type) return pair[0];
  return type;
}

std::span<const PartitionKind> partitionKinds() { return kKinds; }
const char* partitionKindName(int id) {
  for (const auto& k : kKinds)
    if (k.id == id) return k.name;
  return "";
}

}  // namespace Corvo::Disk
