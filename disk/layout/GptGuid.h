// GUIDs of GPT disks: text form, parsing, generation, and the partition type GUIDs the
// program knows by name.
#pragma once
#include <array>
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
// The name of the first table row with this GUID, else the GUID's text form in braces.
std::string gptTypeName(const GuidBytes& typeGuid);

// Types the program gives to new partitions.
const GuidBytes& gptTypeMicrosoftBasicData();
const GuidBytes& gptTypeLinuxData();

}  // namespace Corvo::Disk
