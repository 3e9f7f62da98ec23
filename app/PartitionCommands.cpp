#include "app/PartitionCommands.h"

#include <algorithm>
#include <cctype>
#include <climits>

#include "disk/layout/GptGuid.h"
#include "disk/layout/PartitionTypes.h"

namespace Kdisk {

using Corvo::Disk::PartitionedDisk;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionRole;
using Corvo::Disk::PartitionScheme;

bool isDosType(uint8_t type) {
  switch (type) {
    case 0x01: case 0x04: case 0x06: case 0x07: case 0x0B: case 0x0C: case 0x0E:
    case 0x11: case 0x14: case 0x16: case 0x17: case 0x1B: case 0x1C: case 0x1E:
      return true;
    default:
      return false;
  }
}

bool isPrimaryDos(const PartitionedDisk& disk, const PartitionNode& node) {
  if (node.role != PartitionRole::Primary) return false;
  if (disk.scheme() == PartitionScheme::Gpt) {
    return node.typeGuid == Corvo::Disk::gptTypeMicrosoftBasicData();
  }
  return isDosType(node.type);
}

bool anotherActivePrimary(const PartitionedDisk& disk, const PartitionNode& node) {
  for (const auto& root : disk.roots())
    if (root.get() != &node && root->active && root->role == PartitionRole::Primary && !root->isExtendedType())
      return true;
  return false;
}

bool isOnlyActivePrimary(const PartitionedDisk& disk, const PartitionNode& node) {
  return node.active && node.role == PartitionRole::Primary && !node.isExtendedType() &&
         !anotherActivePrimary(disk, node);
}

PartitionNode* dosExtendedPartition(const PartitionedDisk& disk) {
  if (disk.scheme() != PartitionScheme::Mbr) return nullptr;
  for (const auto& root : disk.roots()) {
    uint8_t t = root->type;
    if (Corvo::Disk::visibleFormOfType(t) == Corvo::Disk::kTypeExtended ||
        Corvo::Disk::visibleFormOfType(t) == Corvo::Disk::kTypeExtendedLba)
      return root.get();
  }
  return nullptr;
}

int scanNumberChars(const std::string& text, int& number, char& c1, char& c2, bool* overflow) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  size_t digits = i;
  long long value = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
    if (value <= INT_MAX) value = value * 10 + (text[i] - '0');  // saturates past the int range
    ++i;
  }
  if (i == digits) return 0;
  if (negative) value = -value;
  if (overflow) *overflow = value > INT_MAX || value < INT_MIN;
  number = static_cast<int>(value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : value);
  if (i >= text.size()) return 1;
  c1 = text[i++];
  if (i >= text.size()) return 2;
  c2 = text[i];
  return 3;
}

bool scanPositiveNumber(const std::string& text, int& number) {
  char c1 = 0, c2 = 0;
  int n = 0;
  bool overflow = false;
  if (scanNumberChars(text, n, c1, c2, &overflow) != 1 || overflow || n < 1) return false;
  number = n;
  return true;
}

SizeStatus parsePartitionSize(const std::string& value, uint64_t diskBytes, int& megabytes) {
  int number = 0;
  char c1 = 0, c2 = 0;
  int items = scanNumberChars(value, number, c1, c2);
  if (items == 0 || items == 3) return SizeStatus::Invalid;
  if (items == 2 && c1 != 'P' && c1 != 'p' && c1 != '%') return SizeStatus::Invalid;
  if (items == 2 && number > 100) return SizeStatus::Invalid;
  if (number < 1) return SizeStatus::Invalid;
  if (items == 1) {
    megabytes = number;
    return SizeStatus::Ok;
  }
  double diskMb = static_cast<double>(diskBytes) / 1048576.0;
  double mb = diskMb * number / 100.0;
  if (mb < 1.0) return SizeStatus::TooSmall;
  megabytes = static_cast<int>(mb);
  return SizeStatus::Ok;
}

const char* fatLimitMessage(bool primaryOrLogical, int sizeMb, bool no32, bool ntFat16) {
  if (!primaryOrLogical || sizeMb == 0) return nullptr;
  if (no32 && sizeMb > 2048 && !ntFat16) return "Can not create a drive larger that 2048 MB when FAT32 support is disabled";
  if (ntFat16 && sizeMb >= 4096) return "Can not create a drive larger that 4095 MB when NT support is enabled";
  return nullptr;
}

std::string formatSummaryText(const Corvo::Filesystem::FormatSummary& summary) {
  std::string text = "Format complete.\n\n";
  size_t width = 0;
  for (const auto& line : summary.lines)
    if (line.count) width = std::max(width, std::to_string(*line.count).size());
  for (const auto& line : summary.lines) {
    if (line.count) {
      const std::string number = std::to_string(*line.count);
      text += std::string(width - number.size(), ' ') + number + ' ';
    }
    text += line.text + '\n';
  }
  return text + '\n';
}

}  // namespace Kdisk
