// The status display: a table of the fixed disks, then each disk's partitions with their type,
// volume label, size, filesystem and role; /RAW and /LBA show the boot records' slot tables.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "app/CmdStatus.h"
#include "app/StatusJson.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "core/Utf.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/GptGuid.h"
#include "disk/layout/PartitionTypes.h"
#include "filesystem/Recognition.h"
#include "filesystem/ext2/Ext2Structures.h"
#include "filesystem/ntfs/Ntfs.h"

namespace Kdisk {

using Corvo::Core::Error;
using Corvo::Core::format;
using Corvo::Core::message;
using Corvo::Core::mkError;
using Corvo::Core::mkWarning;
using Corvo::Core::print;
using Corvo::Disk::GuidBytes;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionRole;
using Corvo::Disk::PartitionScheme;
namespace Fs = Corvo::Filesystem;

namespace {

std::string sizeText(const Corvo::Disk::BlockDevice& disk, uint64_t sectors) {
  return format("%.1fMB", static_cast<double>(disk.bytesOf(sectors)) / 1048576.0);
}

// ---- Content: filesystem and volume label ------------------------------------------------

struct Content {
  std::string system;  // empty when nothing was recognised
  std::string label;
};

Content readContent(Corvo::Disk::DiskDrive& drive, const PartitionNode& node) {
  Content c;
  if (node.isExtendedType() || node.blockCount == 0) return c;
  // A partition that reaches past the end of the disk is read as far as the disk goes; one
  // whose start cannot be read shows no content.
  if (node.firstBlock >= drive.blockCount()) return c;
  const uint64_t count = std::min<uint64_t>(node.blockCount, drive.blockCount() - node.firstBlock);
  try {
    Corvo::Disk::RangeBlockDevice partition(drive, node.firstBlock, count);
    const uint64_t sectors = std::min<uint64_t>(partition.blocksOf(Fs::kContentBytes + partition.bytesPerBlock() - 1), count);
    std::vector<uint8_t> buf(partition.bytesOf(sectors), 0);
    partition.read(0, sectors, buf.data());
    const unsigned code = Fs::detectContent(buf.data(), buf.size(), 0);
    switch (code) {
      case Fs::ctFat12: c.system = "FAT12"; c.label = Fs::fatVolumeLabel(partition, false); break;
      case Fs::ctFat16: c.system = "FAT16"; c.label = Fs::fatVolumeLabel(partition, false); break;
      case Fs::ctFat32: c.system = "FAT32"; c.label = Fs::fatVolumeLabel(partition, true); break;
      case Fs::ctNtfs: c.system = "NTFS/HPFS"; c.label = Fs::ntfsVolumeLabel(partition); break;
      case Fs::ctLinuxSwap: c.system = "LINUX SWAP"; break;
      case Fs::ctExt2:
      case Fs::ctExt3:
        c.system = code == Fs::ctExt3 ? "EXT3FS" : "EXT2FS";
        c.label = Fs::Ext2::volumeLabelOf(buf.data(), buf.size());
        break;
      case Fs::ctReiser: c.system = "REISERFS"; break;
      default: break;
    }
  } catch (const Error&) {
    return Content{};
  }
  // Labels are shown in one column; keep them printable and short.
  for (char& ch : c.label)
    if (static_cast<unsigned char>(ch) < 0x20) ch = '?';
  if (c.label.size() > 16) c.label.resize(16);
  return c;
}

// ---- Printing -----------------------------------------------------------------------------

struct Options {
  bool raw = false, lba = false, serial = false;
};

std::string rtrim(std::string s) {
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

void printDiskHeader() { print("Disk  Cylinders  Heads  Sectors         Size  %s\n", "Model"); }

void printDiskRow(const FixedDisk& d, const Options& opt) {
  if (!d.drive) {
    print("%4u  %s\n", d.index + 1, d.status ? ("not accessible -- " + d.status->text()).c_str() : "not accessible");
    return;
  }
  const auto& g = d.drive->geometry();
  std::string ident = opt.serial ? d.drive->serialNumber() : d.drive->model();
  std::string line = format("%4u  %9llu  %5u  %7u  %11s  %s", d.index + 1, static_cast<unsigned long long>(g.cylinders),
                            g.heads, g.sectorsPerTrack, sizeText(*d.drive, d.drive->blockCount()).c_str(), ident.c_str());
  if (!d.drive->isWritable()) line += format("  (sector size %u bytes: read only)", g.bytesPerSector);
  if (!d.ok() && d.status) line += "  not accessible -- " + d.status->text();
  print("%s\n", rtrim(line).c_str());
}

struct Row {
  std::string number;
  const PartitionNode* node = nullptr;  // null for a removed partition's snapshot
  uint64_t blockCount = 0;
  uint8_t type = 0;
  PartitionRole role = PartitionRole::Unknown;
  bool active = false;
  const char* marker = nullptr;
};

std::vector<Row> buildRows(const Corvo::Disk::PartitionedDisk& layout, const PartitionMark* mark) {
  std::vector<Row> rows;
  auto list = layout.displayList();
  for (size_t i = 0; i < list.size(); ++i) {
    const PartitionNode* n = list[i];
    Row r;
    r.number = std::to_string(i + 1);
    r.node = n;
    r.blockCount = n->blockCount;
    r.type = n->type;
    r.role = n->role;
    r.active = n->active;
    if (mark && !mark->removed && n->firstBlock == mark->firstBlock &&
        (mark->role == PartitionRole::Unknown || mark->role == n->role))
      r.marker = mark->marker;
    rows.push_back(r);
  }
  if (mark && mark->removed) {
    Row r;
    r.number = "-";
    r.blockCount = mark->blockCount;
    r.type = mark->type;
    r.role = mark->role;
    r.marker = mark->marker;
    // Its old place: a logical drive among the logical drives by position on the disk, any
    // other partition before the first top-level partition that starts after it.
    size_t at = rows.size();
    bool logical = mark->role == PartitionRole::Logical;
    for (size_t i = 0; i < rows.size(); ++i) {
      const PartitionNode* n = rows[i].node;
      if (logical) {
        if (n->role == PartitionRole::Extended && n->firstBlock <= mark->firstBlock &&
            mark->firstBlock <= n->lastBlock()) {
          at = i + 1;
          while (at < rows.size() && rows[at].node->isLogical() && rows[at].node->firstBlock < mark->firstBlock) ++at;
          break;
        }
      } else if (!n->isLogical() && n->firstBlock > mark->firstBlock) {
        at = i;
        break;
      }
    }
    rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(at), r);
  }
  return rows;
}

void printPartitions(FixedDisk& d, const PartitionMark* mark) {
  auto& layout = *d.layout;
  auto rows = buildRows(layout, mark);
  bool gpt = layout.scheme() == PartitionScheme::Gpt;
  print("\nPartitions on fixed disk %u (%s):\n", d.index + 1, layout.kindName());
  if (rows.empty()) {
    print("  No partitions\n");
    return;
  }
  if (gpt)
    print("Partition  Volume Label         Size  System      Usage      Type\n");
  else
    print("Partition  Id  Type         Volume Label         Size  System      Usage      Active\n");
  for (const Row& r : rows) {
    Content content;
    if (r.node) content = readContent(*d.drive, *r.node);
    std::string line;
    if (gpt) {
      std::string system = content.system;
      std::string type = r.node ? Corvo::Disk::gptTypeName(r.node->typeGuid) : "";
      line = format("%9s  %-12s  %11s  %-10s  %-9s  %s", r.number.c_str(), content.label.c_str(),
                    sizeText(*d.drive, r.blockCount).c_str(), system.c_str(), Corvo::Disk::roleName(r.role), type.c_str());
    } else {
      const Corvo::Disk::PartitionTypeInfo t = Corvo::Disk::lookupPartitionType(r.type);
      std::string system = content.system.empty() ? Corvo::Disk::categoryFilesystemName(t.category) : content.system;
      line = format("%9s  %02X  %-11s  %-12s  %11s  %-10s  %-9s  %-6s", r.number.c_str(), r.type, t.name,
                    content.label.c_str(), sizeText(*d.drive, r.blockCount).c_str(), system.c_str(),
                    Corvo::Disk::roleName(r.role), r.active ? "Yes" : "");
    }
    if (r.marker) line += std::string("  ") + r.marker;
    print("%s\n", rtrim(line).c_str());
  }
}

void printRawTables(FixedDisk& d, bool lba) {
  auto tables = d.layout->rawTables();
  for (size_t i = 0; i < tables.size(); ++i) {
    const auto& t = tables[i];
    const Corvo::Disk::BiosBootRecord record(true, 4, t.bytes.data());
    const uint16_t sig = record.getSignature();
    print("\n%s at sector %llu%s:\n", i == 0 ? "Master boot record" : "Extended boot record",
          static_cast<unsigned long long>(t.block), record.hasSignature() ? "" : format(" (no 55 AA signature: %04X)", sig).c_str());
    if (lba)
      print("Slot  Boot  Type         Start         Count\n");
    else
      print("Slot  Boot  Type  Start Cyl Head Sec    End Cyl Head Sec\n");
    for (unsigned s = 0; s < 4; ++s) {
      const unsigned status = record.getStatus(s), type = record.getType(s);
      if (lba) {
        print("%4u    %02X    %02X  %12u  %12u\n", s + 1, status, type, record.getStartBlock(s), record.getBlockCount(s));
      } else {
        const Corvo::Disk::Chs a = record.getSlotChs(s, false), z = record.getSlotChs(s, true);
        print("%4u    %02X    %02X  %9u %4u %3u  %9u %4u %3u\n", s + 1, status, type, a.cylinder, a.head, a.sector,
              z.cylinder, z.head, z.sector);
      }
    }
  }
}

void printProblems(const FixedDisk& d) {
  for (const std::string& p : d.layout->facts().problems) message(mkWarning, "Fixed disk %u -- %s", d.index + 1, p.c_str());
}

void printDisk(FixedDisk& d, const PartitionMark* mark, const Options& opt) {
  if (!d.ok()) return;
  if (opt.raw || opt.lba) {
    printRawTables(d, opt.lba);
    if (d.layout->scheme() == PartitionScheme::Gpt) printPartitions(d, mark);
  } else {
    printPartitions(d, mark);
  }
  printProblems(d);
}

}  // namespace

PartitionContent partitionContent(Corvo::Disk::DiskDrive& drive, const PartitionNode& node) {
  Content c = readContent(drive, node);
  return {c.system, c.label};
}

void printDiskStatus(FixedDisk& disk, const PartitionMark* mark) {
  Options opt;
  printDiskHeader();
  printDiskRow(disk, opt);
  printDisk(disk, mark, opt);
}

int commandStatus(SwitchSet& set) {
  Corvo::Core::TraceScope scope("commandStatus");
  if (!set.validate({&swSTATUS, &swRAW, &swLBA, &swSER, &swJSON, &swX, &swI, &swU, &swS, &swY, &swSURE, &swR, &swDIAG},
                    0, 1)) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  Options opt;
  opt.raw = set.isPresent(swRAW);
  opt.lba = set.isPresent(swLBA);
  opt.serial = set.isPresent(swSER);
  if (opt.raw && opt.lba) {
    message(mkError, "Conflicting switches. Specify either /RAW or /LBA");
    return 2;
  }
  const bool json = set.isPresent(swJSON);
  if (set.firstParameter()) {
    uint32_t index = parseDiskNumber(set);
    if (index == kNoDisk) return 2;
    FixedDisk* d = findDisk(index);
    if (!d) return 1;
    if (json) return printStatusJson({d}, opt.raw || opt.lba);
    printDiskHeader();
    printDiskRow(*d, opt);
    printDisk(*d, nullptr, opt);
    return 0;
  }
  auto disks = fixedDisks();
  if (disks.empty()) {
    message(mkError, "No fixed disks found");
    return 1;
  }
  reportInaccessibleDisks();
  if (json) return printStatusJson(disks, opt.raw || opt.lba);
  printDiskHeader();
  for (FixedDisk* d : disks) printDiskRow(*d, opt);
  for (FixedDisk* d : disks) printDisk(*d, nullptr, opt);
  return 0;
}

PartitionMark markOf(const Corvo::Disk::PartitionNode& node, const char* marker, bool removed) {
  PartitionMark m;
  m.firstBlock = node.firstBlock;
  m.blockCount = node.blockCount;
  m.type = node.type;
  m.role = node.role;
  m.marker = marker;
  m.removed = removed;
  return m;
}

bool showChangedDisk(FixedDisk& disk, const std::string& warning, const PartitionMark* mark, Reread reread,
                     bool show) {
  if (!warning.empty()) message(mkWarning, "%s", warning.c_str());
  try {
    if (reread == Reread::Anew)
      disk.layout = Corvo::Disk::PartitionedDisk::load(*disk.drive);
    else
      disk.layout->reload();
  } catch (const Error& e) {
    message(mkError, "Cannot reload partition table -- %s", e.text().c_str());
    return false;
  }
  if (show) printDiskStatus(disk, mark);
  return true;
}

}  // namespace Kdisk
