#include "disk/layout/GptGuid.h"

#include <cctype>
#include <cstdio>
#include <random>

#include "core/Clock.h"
#include "core/Error.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

namespace {
// Byte order of the text form's 16 bytes within the on-disk layout.
constexpr int kTextOrder[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

std::string guidToText(const GuidBytes& guid) {
  std::string out;
  out.reserve(36);
  static const char* hex = "0123456789ABCDEF";
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    uint8_t b = guid[kTextOrder[i]];
    out += hex[b >> 4];
    out += hex[b & 15];
  }
  return out;
}

bool parseGuid(const std::string& text, GuidBytes& out) {
  std::string t = text;
  if (t.size() == 38 && t.front() == '{' && t.back() == '}') t = t.substr(1, 36);
  if (t.size() != 36) return false;
  GuidBytes g{};
  size_t pos = 0;
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      if (t[pos] != '-') return false;
      ++pos;
    }
    int hi = hexValue(t[pos]), lo = hexValue(t[pos + 1]);
    if (hi < 0 || lo < 0) return false;
    g[kTextOrder[i]] = static_cast<uint8_t>(hi << 4 | lo);
    pos += 2;
  }
  out = g;
  return true;
}

GuidBytes guidFromText(const char* text) {
  GuidBytes g{};
  if (!parseGuid(text, g)) throw Core::Error(Core::ErrorId::Internal, std::string("Malformed built-in GUID ") + text);
  return g;
}

GuidBytes randomGuid() {
  GuidBytes g{};
  Core::randomBytes(g.data(), g.size());
  g[7] = static_cast<uint8_t>((g[7] & 0x0F) | 0x40);  // version 4 (high nibble of field 3)
  g[8] = static_cast<uint8_t>((g[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return g;
}

bool isZeroGuid(const GuidBytes& guid) {
  for (uint8_t b : guid)
    if (b) return false;
  return true;
}

const std::array<GptTypeRow, 11>& gptTypeTable() {
  static const std::array<GptTypeRow, 11> table = {{
      {guidFromText("00000000-0000-0000-0000-000000000000"), "Unused"},
      {guidFromText("C12A7328-F81F-11D2-BA4B-00A0C93EC93B"), "EFI System"},
      {guidFromText("024DEE41-33E7-11D3-9D69-0008C781F39F"), "Legcay MBR"},
      {guidFromText("E3C9E316-0B5C-4DB8-817D-F92DF00215AE"), "Microsoft Reserved"},
      {guidFromText("EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"), "Microsoft Basic Data"},
      {guidFromText("AF9B60A0-1431-4F62-BC68-3311714A69AD"), "Dynamic Disk Data"},
      {guidFromText("5808C8AA-7E8F-42E0-85D2-E1E90434CFB3"), "Dynamic Disk Database"},
      {guidFromText("A19D880F-05FC-4D3B-A006-743F0F84911E"), "Linux Raid"},
      {guidFromText("0657FD6D-A4AB-43C4-84E5-0933C84B4F4F"), "Linux Swap"},
      {guidFromText("E6D6D379-F507-44C2-A23C-238F2A3DF928"), "Linux LVM"},
      {guidFromText("48465300-0000-11AA-AA11-00306543ECAC"), "Apple HFS+"},
  }};
  return table;
}

const std::array<GuidBytes, 10>& gptReservedTypeGuids() {
  static const std::array<GuidBytes, 10> guids = [] {
    std::array<GuidBytes, 10> out{};
    for (size_t i = 0; i < out.size(); ++i) out[i] = gptTypeTable()[i + 1].guid;
    return out;
  }();
  return guids;
}

namespace {

// The types a user can name. mbrType 0: none on MBR disks.
struct NamedType {
  const char* name;
  uint8_t mbrType;
  const char* guid;
  const char* display;    // the status display's name where the table above has none
  const char* entryName;  // the name a new GPT entry gets
};
constexpr NamedType kNamedTypes[] = {
    {"EFI", kTypeEfiSystem, "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", nullptr, "EFI system partition"},
    {"LINUX", kTypeLinux, "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux Data", "Linux filesystem"},
    {"SWAP", 0x82, "0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", nullptr, "Linux swap"},
    {"LVM", 0x8E, "E6D6D379-F507-44C2-A23C-238F2A3DF928", nullptr, "Linux LVM"},
    {"RAID", 0xFD, "A19D880F-05FC-4D3B-A006-743F0F84911E", nullptr, "Linux RAID"},
    {"MSR", 0, "E3C9E316-0B5C-4DB8-817D-F92DF00215AE", nullptr, "Microsoft reserved partition"},
    {"BIOSBOOT", 0, "21686148-6449-6E6F-744E-656564454649", "BIOS Boot", "BIOS boot partition"},
    {"RECOVERY", 0, "DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows Recovery", "Basic data partition"},
};

}  // namespace

std::optional<PartitionTypeChoice> parsePartitionTypeChoice(const std::string& text) {
  std::string upper;
  for (char c : text) upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const NamedType& t : kNamedTypes)
    if (upper == t.name) {
      PartitionTypeChoice choice;
      if (t.mbrType) choice.mbrType = t.mbrType;
      choice.gptType = guidFromText(t.guid);
      return choice;
    }
  GuidBytes guid{};
  if (parseGuid(text, guid)) {
    if (isZeroGuid(guid)) return std::nullopt;
    return PartitionTypeChoice{std::nullopt, guid};
  }
  std::string digits = upper.rfind("0X", 0) == 0 ? upper.substr(2) : upper;
  if (digits.empty() || digits.size() > 2) return std::nullopt;
  int value = 0;
  for (char c : digits) {
    const int v = hexValue(c);
    if (v < 0) return std::nullopt;
    value = value * 16 + v;
  }
  const auto type = static_cast<uint8_t>(value);
  if (type == kTypeUnused || type == kTypeGptProtective || isExtendedClassType(visibleFormOfType(type)))
    return std::nullopt;
  return PartitionTypeChoice{type, std::nullopt};
}

std::string gptEntryNameFor(const GuidBytes& typeGuid) {
  for (const NamedType& t : kNamedTypes)
    if (guidFromText(t.guid) == typeGuid) return t.entryName;
  return "Basic data partition";
}

std::string gptTypeName(const GuidBytes& typeGuid) {
  for (const auto& row : gptTypeTable())
    if (row.guid == typeGuid) return row.name;
  for (const NamedType& t : kNamedTypes)
    if (t.display && guidFromText(t.guid) == typeGuid) return t.display;
  std::string braced(1, '{');
  braced += guidToText(typeGuid);
  braced += '}';
  return braced;
}

const GuidBytes& gptTypeMicrosoftBasicData() { return gptTypeTable()[4].guid; }
const GuidBytes& gptTypeLinuxData() {
  static const GuidBytes g = guidFromText(kNamedTypes[1].guid);
  return g;
}

}  // namespace Corvo::Disk
