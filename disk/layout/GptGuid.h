// GUIDs of GPT disks: text form, parsing, generation, and the partition type GUIDs the
// program knows by name.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

// Upper-case text form "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX" of a GUID stored in the
// on-disk layout (first three fields little-endian, the last eight bytes as stored).
std::string guidToText(const GuidBytes& guid);
// Parses the text form (either case, optionally in braces). False when malformed.
bool parseGuid(const std::string& text, GuidBytes& out);
// Same, for the built-in tables; the text is known to be well formed.
GuidBytes guidFromText(const char* text);
// A new random (version 4) GUID.
GuidBytes randomGuid();
bool isZeroGuid(const GuidBytes& guid);

struct GptTypeRow {
  GuidBytes guid;
  const char* name;
};
// The named partition types, "Unused" (the zero GUID) first.
const std::array<GptTypeRow, 11>& gptTypeTable();
// The ten non-zero type GUIDs of that table, in the same order.
const std::array<GuidBytes, 10>& gptReservedTypeGuids();
// The name of the first table row with this GUID, then of the types a user can name (below),
// else the GUID's text form in braces.
std::string gptTypeName(const GuidBytes& typeGuid);

// A partition type as a user gives it to a new partition (/CRE /TYPE:): its MBR type byte and its
// GPT type GUID, each absent where the type has no meaning on that scheme.
struct PartitionTypeChoice {
  std::optional<uint8_t> mbrType;
  std::optional<GuidBytes> gptType;
};
// Reads a type: a name meaning the same on both schemes where it exists (EFI, LINUX, SWAP, LVM,
// RAID; GPT only: MSR, BIOSBOOT, RECOVERY; any case), an MBR type byte in hex (one or two
// digits, "0x" allowed) or a GPT type GUID. Nullopt for an unknown name, a malformed byte or
// GUID, and for types no new partition can carry (unused, extended, GPT protective).
std::optional<PartitionTypeChoice> parsePartitionTypeChoice(const std::string& text);
// The name a new GPT entry of this type gets ("EFI system partition", ...).
std::string gptEntryNameFor(const GuidBytes& typeGuid);

// Types the program gives to new partitions.
const GuidBytes& gptTypeMicrosoftBasicData();
const GuidBytes& gptTypeLinuxData();

}  // namespace Corvo::Disk
