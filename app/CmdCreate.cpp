// /CRE: creates a primary partition, the extended partition or a logical drive, optionally
// formats it, and prints the disk with the new partition marked.
#include <algorithm>
#include <cctype>
#include <optional>
#include <string>

#include "app/CmdCreate.h"
#include "app/Commands.h"
#include "app/PartitionCommands.h"
#include "app/CmdStatus.h"
#include "app/TableBackups.h"
#include "core/Config.h"
#include "core/Error.h"
#include "core/Message.h"
#include "disk/layout/GptGuid.h"
#include "disk/layout/PartitionTypes.h"
#include "filesystem/Formatter.h"
#include "filesystem/SignatureErase.h"

namespace Kdisk {

using namespace Corvo::Core;
using Corvo::Disk::CreationRequest;
using Corvo::Disk::FormatKind;
using Corvo::Disk::PartitionedDisk;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionRole;
using Corvo::Disk::PartitionScheme;

namespace {

constexpr unsigned kPrimarySlots = 4;

double toMegabytes(const PartitionedDisk& disk, uint64_t blocks) {
  return static_cast<double>(disk.drive().bytesOf(blocks)) / 1048576.0;
}

bool primarySlotsFull(const PartitionedDisk& disk) {
  return disk.scheme() == PartitionScheme::Mbr && disk.primarySlotsInUse() >= kPrimarySlots;
}

// A disk whose medium writes larger sectors than it addresses (512e) reads and rewrites a whole
// physical sector for every write that covers only part of one: cylinder alignment can start a
// partition in the middle of one, 1 MB alignment never does.
void warnOffPhysicalSector(const PartitionedDisk& disk, const CreationRequest& request, const PartitionNode& node) {
  const Corvo::Disk::Geometry& g = disk.drive().geometry();
  const uint32_t physical = g.physicalSectorSize();
  if (request.alignment != CreationRequest::kCylinderAlignment || physical <= disk.drive().bytesPerBlock()) return;
  if (node.firstBlock * disk.drive().bytesPerBlock() % physical == 0) return;
  message(mkWarning,
          "The new partition does not start on a physical sector of the disk (%u bytes), which slows every write to "
          "it; /ALIGN:1MB aligns it",
          physical);
}

// Calls one of the disk layer's create operations and reports why it placed nothing.
PartitionNode* placePartition(FixedDisk& fixed, CreationRequest& request, PartitionNode* (PartitionedDisk::*create)(CreationRequest&),
                              const char* failedText, const char* fullText, const char* maxText) {
  PartitionedDisk& disk = *fixed.layout;
  PartitionNode* node = nullptr;
  if (!backUpTables(fixed, failedText)) return nullptr;
  try {
    TableWatch watch(fixed);
    node = (disk.*create)(request);
  } catch (const Error& e) {
    message(mkError, failedText, e.text().c_str());
    return nullptr;
  }
  if (!node) {
    const auto& g = disk.drive().geometry();
    const bool cylinders = request.alignment == CreationRequest::kCylinderAlignment || request.alignment == 0;
    if (request.largestAvailable == 0 && cylinders && disk.scheme() == PartitionScheme::Mbr &&
        disk.drive().blockCount() < uint64_t{g.heads} * g.sectorsPerTrack)
      // Nothing is assigned: a cylinder-aligned partition cannot fit at all.
      message(mkError, "The disk (%.1fMB) is smaller than one cylinder (%.1fMB) -- use /ALIGN:1MB",
              toMegabytes(disk, disk.drive().blockCount()), toMegabytes(disk, uint64_t{g.heads} * g.sectorsPerTrack));
    else if (request.largestAvailable == 0)
      message(mkError, "%s", fullText);
    else
      message(mkError, maxText, toMegabytes(disk, request.largestAvailable));
    const std::string beyond = beyondReachText(disk);
    if (!beyond.empty()) message(mkError, "%s", beyond.c_str());
    return nullptr;
  }
  if (!disk.lastWarning().empty()) message(mkWarning, "%s", disk.lastWarning().c_str());
  warnOffPhysicalSector(disk, request, *node);
  return node;
}

// Formats the new partition as the request asks. The partition stays in the table whatever
// happens here: it was written before formatting began.
bool formatNewPartition(FixedDisk& disk, const PartitionMark& part, const CreationRequest& request) {
  const Corvo::Filesystem::Formatter* formatter = Corvo::Filesystem::formatterFor(request.formatKind);
  if (!formatter) return true;
  Corvo::Disk::DiskDrive& drive = *disk.drive;
  try {
    drive.prepareForChange(part.firstBlock, part.blockCount);
    Corvo::Disk::RangeBlockDevice device(drive, part.firstBlock, part.blockCount);
    Corvo::Filesystem::eraseSignatures(device);  // nothing of the old contents is found after a cut
    Corvo::Filesystem::FormatOptions options;
    if (!request.label.empty()) options.label = request.label;
    // Only the full FAT format reads the data area back.
    options.verify = request.formatKind == FormatKind::FatFull;
    options.sectorsPerTrack = static_cast<uint16_t>(drive.geometry().sectorsPerTrack);
    options.heads = static_cast<uint16_t>(drive.geometry().heads);
    // The boot sector's hidden-sector field is 32 bits wide.
    options.hiddenSectors = static_cast<uint32_t>(std::min<uint64_t>(part.firstBlock, 0xFFFFFFFFull));
    options.firstSector = part.firstBlock;
    options.versionCode = request.versionCode;
    // A type the user chose says nothing about the FAT variant: the size decides.
    options.partitionType = request.mbrType ? Corvo::Disk::kTypeUnused : part.type;
    options.fat32Support = disk.layout->fat32Support;
    options.ntFat16 = disk.layout->ntFat16;
    print("%s", formatSummaryText(formatter->format(device, options)).c_str());
  } catch (const Error& e) {
    // A failed step of the format is named first; the same wording serves logical drives.
    if (const std::string step = e.property("step"); !step.empty())
      message(mkError, "%s -- %s", step.c_str(), e.text().c_str());
    message(mkError, "Cannot format primary DOS partition -- %s", e.text().c_str());
    return false;
  }
  return true;
}

// The last step of a creation: the drive letter, whose failure is only a warning.
void giveDriveLetter(FixedDisk& disk, const PartitionMark& part, const CreationRequest& request) {
  if (!request.letter) return;
  try {
    disk.drive->assignDriveLetter(part.firstBlock, request.letter);
  } catch (const Error& e) {
    message(mkWarning, "%s", e.text().c_str());
  }
}

bool hasPrimaryDos(const PartitionedDisk& disk) {
  for (const auto& root : disk.roots())
    if (isPrimaryDos(disk, *root)) return true;
  return false;
}

}  // namespace

bool createPrimaryDos(FixedDisk& disk, CreationRequest& request) {
  PartitionedDisk& layout = *disk.layout;
  if (primarySlotsFull(layout)) {
    message(mkError, "Maximum number of partitions already defined -- %d", static_cast<int>(kPrimarySlots));
    return false;
  }
  if (hasPrimaryDos(layout) &&
      message(mkQuestionPrompted, "A primary DOS partition already exists. Create another?") != 1)
    return false;
  PartitionNode* node = placePartition(disk, request, &PartitionedDisk::createPrimary,
                                       "Primary DOS partition could not be created -- %s",
                                       "All available disk space is currently assigned to other partitions",
                                       "Maximum space available for primary DOS partition is %.1fMB");
  if (!node) return false;
  PartitionMark mark = markOf(*node, "*CREATED*");
  if (!formatNewPartition(disk, mark, request) || !showChangedDisk(disk, {}, &mark)) return false;
  giveDriveLetter(disk, mark, request);
  return true;
}

bool createExtendedDos(FixedDisk& disk, CreationRequest& request) {
  PartitionedDisk& layout = *disk.layout;
  if (!layout.capabilities().extendedPartitions) {
    message(mkError, "Extended DOS partition could not be created -- Extended DOS partitions are not supported on %s disks",
            layout.kindName());
    return false;
  }
  if (layout.scheme() == PartitionScheme::Mbr) {
    if (dosExtendedPartition(layout)) {
      message(mkError, "Extended DOS partition already exists");
      return false;
    }
    if (primarySlotsFull(layout)) {
      message(mkError, "Maximum number of partitions already defined -- %d", static_cast<int>(kPrimarySlots));
      return false;
    }
  }
  PartitionNode* node = placePartition(disk, request, &PartitionedDisk::createExtended,
                                       "Extended DOS partition could not be created -- %s",
                                       "All available disk space is currently assigned to other partitions",
                                       "Maximum space available for extended DOS partition is %.1fMB");
  if (!node) return false;
  PartitionMark mark = markOf(*node, "*CREATED*");
  // The partition exists once the table is written: a failed re-read is reported, but the
  // creation itself stands.
  showChangedDisk(disk, {}, &mark);
  return true;
}

bool createLogicalDos(FixedDisk& disk, CreationRequest& request) {
  PartitionedDisk& layout = *disk.layout;
  if (!layout.capabilities().logicalDrives) {
    message(mkError, "Logical DOS drive could not be created -- Logical DOS drives are not supported on %s disks",
            layout.kindName());
    return false;
  }
  if (layout.scheme() == PartitionScheme::Mbr) {
    const PartitionNode* ext = dosExtendedPartition(layout);
    if (!ext) {
      message(mkError, "No extended DOS partition exists");
      return false;
    }
    if (ext->isHiddenType()) {
      message(mkError, "The extended DOS partition is hidden and may not have logical DOS drives created within it");
      return false;
    }
  }
  PartitionNode* node = placePartition(
      disk, request, &PartitionedDisk::createLogical, "Logical DOS drive could not be created -- %s",
      "All available space in the extended DOS partition is currently assigned to logical DOS drives",
      "Maximum space available for logical DOS drive is %.1fMB");
  if (!node) return false;
  PartitionMark mark = markOf(*node, "*CREATED*");
  if (!formatNewPartition(disk, mark, request) || !showChangedDisk(disk, {}, &mark)) return false;
  giveDriveLetter(disk, mark, request);
  return true;
}

namespace {

// What /CRE is asked to do, read from its switches before any disk is looked at.
struct CreateOrder {
  enum class Kind { Primary, Extended, Logical } kind = Kind::Primary;
  CreationRequest request;
  uint32_t diskIndex = 0;
  std::optional<std::string> size;  // the /SZ value
  std::optional<std::string> typeText;  // the /TYPE value
  Corvo::Disk::PartitionTypeChoice type;
  bool no32 = false, ntFat16 = false, noCE = false;
  bool alignGiven = false;  // /ALIGN was given
};

// Reads and checks the switches; returns 0, or the exit code of a refusal it has reported.
int parseCreateSwitches(SwitchSet& set, CreateOrder& order) {
  const bool pri = set.isPresent(swPRI), ext = set.isPresent(swEXT), log = set.isPresent(swLOG);
  const int kinds = int{pri} + int{ext} + int{log};
  if (kinds > 1) {
    message(mkError, "Conflicting switches. Specify one of /PRI, /EXT, or /LOG");
    return 2;
  }
  if (kinds == 0) {
    message(mkError, "Required switch missing. Specify one of /PRI, /EXT, or /LOG");
    return 2;
  }

  CreationRequest& request = order.request;
  const bool format = set.isPresent(swFOR);
  if (format) {
    request.formatKind = FormatKind::FatFull;
    if (ext) message(mkWarning, "/FOR switch ignored for extended DOS partitions");
  }
  if (set.isPresent(swQ)) {
    if (!format) {
      message(mkError, "Conflicting switches. /Q may only be used in conjunction with /FOR");
      return 2;
    }
    request.formatKind = FormatKind::FatQuick;
  }
  std::string value;
  bool hasValue = false;
  const bool ntfs = set.isPresent(swNTFS, &value, &hasValue);
  if (ntfs) {
    if (!format) {
      message(mkError, "Conflicting switches. /NTFS may only be used in conjunction with /FOR");
      return 2;
    }
    request.formatKind = FormatKind::Ntfs;
    if (hasValue) {
      static const struct {
        const char* name;
        int code;
      } versions[] = {{"VISTA", 9}, {"XP", 8}, {"2000", 7}, {"NT4", 6}, {"NT351", 5}};
      int code = 0;
      for (const auto& v : versions) {
        std::string upper = value;
        for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        if (upper == v.name) {
          code = v.code;
          break;
        }
      }
      if (!code) {
        message(mkError, "Invalid NTFS format type specified.");
        return 2;
      }
      request.versionCode = code;
    }
  }
  order.alignGiven = set.isPresent(swALIGN);
  if (set.isPresent(swALIGN, &value)) {
    std::string upper = value;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (upper == "1MB")
      request.alignment = CreationRequest::kMegabyteAlignment;
    else if (upper == "CHS")
      request.alignment = CreationRequest::kCylinderAlignment;
    else {
      message(mkError, "Invalid NTFS alignment type specified.");
      return 2;
    }
  }
  if (set.isPresent(swEXT2)) {
    if (!format) {
      message(mkError, "Conflicting switches. /EXT2 may only be used in conjunction with /FOR");
      return 2;
    }
    request.formatKind = FormatKind::Ext2;
    request.versionCode = 10;
  }
  if (set.isPresent(swEXFAT)) {
    if (!format) {
      message(mkError, "Conflicting switches. /EXFAT may only be used in conjunction with /FOR");
      return 2;
    }
    if (ntfs || set.isPresent(swEXT2)) {
      message(mkError, "Conflicting switches. Specify only one of /NTFS, /EXT2, or /EXFAT");
      return 2;
    }
    request.formatKind = FormatKind::Exfat;
  }
  if (set.isPresent(swV, &value, &hasValue)) {
    if (!format) {
      message(mkError, "Conflicting switches. /V may only be used in conjunction with /FOR");
      return 2;
    }
    if (hasValue) {
      // Checked now so that nothing is written for a label the formatter would refuse.
      if (const Corvo::Filesystem::Formatter* formatter = Corvo::Filesystem::formatterFor(request.formatKind)) {
        if (const std::string problem = formatter->labelProblem(value); !problem.empty()) {
          message(mkError, "%s", problem.c_str());
          return 2;
        }
      }
      request.label = value;
    }
  }
  if (set.isPresent(swLETTER, &value)) {
    // Both refusals are silent by design.
    if (ext) return 2;
    if (value.size() != 1 || !std::isalpha(static_cast<unsigned char>(value[0]))) return 2;
    request.letter = static_cast<char>(std::toupper(static_cast<unsigned char>(value[0])));
  }

  if (set.isPresent(swTYPE, &value)) {
    if (ext) {
      message(mkError, "Conflicting switches. /TYPE may not be used with /EXT");
      return 2;
    }
    auto type = Corvo::Disk::parsePartitionTypeChoice(value);
    if (!type) {
      message(mkError, "Invalid partition type -- %s", value.c_str());
      return 2;
    }
    order.typeText = value;
    order.type = *type;
  }

  order.kind = pri ? CreateOrder::Kind::Primary : ext ? CreateOrder::Kind::Extended : CreateOrder::Kind::Logical;
  order.diskIndex = parseDiskNumber(set);
  if (order.diskIndex == kNoDisk) return 2;
  if (set.isPresent(swSZ, &value)) order.size = value;
  order.no32 = set.isPresent(swNo32);
  order.ntFat16 = set.isPresent(swNTFAT16);
  order.noCE = set.isPresent(swNoCE);
  request.placeAtEnd = set.isPresent(swEND);
  return 0;
}

// Checks the order against the disk and creates (and formats) the partition.
int runCreate(CreateOrder& order) {
  CreationRequest& request = order.request;
  const bool primaryOrLogical = order.kind != CreateOrder::Kind::Extended;
  FixedDisk* disk = findDisk(order.diskIndex);
  if (!disk) return 1;  // findDisk has said why; it returns only disks that were read
  PartitionedDisk& layout = *disk->layout;

  // Cylinders mean nothing on disks whose sectors are not 512 bytes: they align to 1 MiB.
  if (!order.alignGiven && layout.drive().bytesPerBlock() != Corvo::Disk::kSectorSize)
    request.alignment = CreationRequest::kMegabyteAlignment;
  if (order.typeText) {
    const bool mbr = layout.scheme() == PartitionScheme::Mbr;
    if (mbr ? !order.type.mbrType : !order.type.gptType) {
      message(mkError, "Partition type %s cannot be used on %s disk", order.typeText->c_str(), mbr ? "an MBR" : "a GPT");
      return 2;
    }
    if (mbr)
      request.mbrType = *order.type.mbrType;
    else
      request.gptType = *order.type.gptType;
  }

  int sizeMb = 0;
  if (order.size) {
    const std::string& value = *order.size;
    switch (parsePartitionSize(value, layout.drive().bytesOf(layout.drive().blockCount()), sizeMb)) {
      case SizeStatus::Ok: break;
      case SizeStatus::Invalid: message(mkError, "Invalid partition size -- %s", value.c_str()); return 2;
      case SizeStatus::TooSmall: message(mkError, "Partition size to small -- %s", value.c_str()); return 2;
    }
    request.sizeBlocks = layout.drive().blocksOf(static_cast<uint64_t>(sizeMb) << 20);  // 1 MB = 2^20 bytes
    // 100 per cent of an empty disk is all of it that a partition can use: the sectors ahead
    // of the first partition and past the last whole cylinder can never be part of one.
    int percent = 0;
    char c1 = 0, c2 = 0;
    if (scanNumberChars(value, percent, c1, c2) == 2 && percent == 100 && layout.displayList().empty())
      request.sizeBlocks = CreationRequest::kLargest;
  }
  if (const char* limit = fatLimitMessage(primaryOrLogical, sizeMb, order.no32, order.ntFat16)) {
    message(mkError, "%s", limit);
    return 2;
  }
  layout.fat32Support = !order.no32;
  layout.ntFat16 = order.ntFat16;
  if (order.noCE) message(mkWarning, "/-CE switch ignored, switch is redundant");
  if (request.letter && !Corvo::Disk::kSystemUsesDriveLetters)
    message(mkInformation, "Drive letters are not used on this platform; /LETTER:%c is ignored", request.letter);

  bool ok = false;
  switch (order.kind) {
    case CreateOrder::Kind::Primary: ok = createPrimaryDos(*disk, request); break;
    case CreateOrder::Kind::Extended: ok = createExtendedDos(*disk, request); break;
    case CreateOrder::Kind::Logical: ok = createLogicalDos(*disk, request); break;
  }
  return ok ? 0 : 1;
}

}  // namespace

int commandCreate(SwitchSet& set) {
  if (!set.validate({&swCRE, &swPRI, &swEXT, &swLOG, &swSZ, &swEND, &swFOR, &swQ, &swNTFS, &swEXT2, &swEXFAT, &swALIGN, &swV,
                     &swLETTER, &swTYPE, &swNo32, &swNTFAT16, &swNoCE, &swR, &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG})) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  CreateOrder order;
  if (int refused = parseCreateSwitches(set, order)) return refused;
  return runCreate(order);
}

}  // namespace Kdisk
