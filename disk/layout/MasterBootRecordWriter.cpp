#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include "core/Error.h"
#include "core/Trace.h"
#include "disk/layout/GptFormat.h"
#include "disk/access/FileIo.h"
#include "disk/layout/MasterBootCode.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

std::vector<uint8_t> readBootCodeFile(const std::string& path) {
  // Only a regular file: a FIFO or a device is refused at once, never waited on.
  FileIo file;
  try {
    file.openReadOnly(path, FileIo::Accept::RegularFile);
  } catch (const Error& e) {
    if (e.id() == ErrorId::NotSupported)
      throw Error(ErrorId::NotSupported, "The boot code file is " + e.property("kind") + ", not a regular file")
          .with("path", path);
    throw Error(ErrorId::OpenFailed, "The boot code file cannot be opened").with("path", path);
  }
  std::vector<uint8_t> code(static_cast<size_t>(std::min<uint64_t>(file.size(), BiosBootRecord::kSize + 1)));
  try {
    if (!code.empty()) code.resize(file.readSome(0, code.data(), code.size()));
  } catch (const Error&) {
    throw Error(ErrorId::OpenFailed, "The boot code file cannot be read").with("path", path);
  }
  if (code.empty()) throw Error(ErrorId::InvalidImage, "The boot code file is empty").with("path", path);
  if (code.size() > BiosBootRecord::kSize)
    throw Error(ErrorId::InvalidImage, "The boot code file is larger than one sector (512 bytes)").with("path", path);
  return code;
}

BiosBootRecord composeMasterBootRecord(const BiosBootRecord& current, const std::vector<uint8_t>& code, DiskIdMode mode) {
  BiosBootRecord next(true, 4, current.data());
  if (!current.hasSignature()) next = BiosBootRecord(true, 4);
  // The code covers the area from its start; what it does not cover stays as it is on the disk.
  std::vector<uint8_t> area = next.getBootCode();
  std::copy_n(code.begin(), std::min(code.size(), area.size()), area.begin());
  next.setBootCode(area.data(), area.size());
  switch (mode) {
    case DiskIdMode::FromCode:
      break;
    case DiskIdMode::Preserve:
      next.setWindowsNtId(current.getWindowsNtId());
      // Written only where the new code leaves room for it (a recognised image).
      if (current.is9xIdAvailable()) next.setWindows9xId(current.getWindows9xId());
      break;
    case DiskIdMode::Clear:
      next.clearWindowsNtId();
      next.setWindows9xId(0);
      break;
  }
  return next;
}

DiskIdChange diskIdChange(DiskDrive& drive, const std::vector<uint8_t>& code, DiskIdMode mode) {
  const std::vector<uint8_t> sector = drive.readSector(0);
  const BiosBootRecord current(true, 4, sector.data());
  DiskIdChange change;
  change.before = current.hasSignature() ? current.getWindowsNtId() : 0;
  change.after = composeMasterBootRecord(current, code, mode).getWindowsNtId();
  change.kind = mode == DiskIdMode::Clear                                             ? DiskIdChange::Cleared
                : mode == DiskIdMode::FromCode && code.size() > kMasterBootCodeSize ? DiskIdChange::FromCode
                                                                                      : DiskIdChange::Kept;
  return change;
}

namespace {

bool hasGptHeader(DiskDrive& drive, uint64_t block) {
  return GptHeader(drive.readSector(block).data()).hasSignature();
}

// The sectors that must be zeroed so that the old partitions are found nowhere: every extended
// boot record, and the GPT headers (primary, backup at the end, and wherever the primary says
// its backup is).
std::set<uint64_t> staleTableBlocks(PartitionedDisk& layout) {
  DiskDrive& drive = layout.drive();
  const uint64_t blocks = drive.blockCount();
  std::set<uint64_t> stale;
  if (layout.scheme() == PartitionScheme::Mbr)
    for (const RawBootRecord& r : layout.rawTables())
      if (r.block > 0 && r.block < blocks) stale.insert(r.block);
  if (blocks > 2) {
    GptHeader primary(drive.readSector(1).data());
    if (primary.hasSignature()) {
      stale.insert(1);
      if (primary.alternateBlock() > 1 && primary.alternateBlock() < blocks && hasGptHeader(drive, primary.alternateBlock()))
        stale.insert(primary.alternateBlock());
    }
    if (hasGptHeader(drive, blocks - 1)) stale.insert(blocks - 1);
  }
  return stale;
}

}  // namespace

std::string writeMasterBootCode(PartitionedDisk& layout, const std::vector<uint8_t>& code, DiskIdMode mode, bool wipe) {
  Core::TraceScope scope("writeMasterBootCode");
  DiskDrive& drive = layout.drive();
  drive.requireSectorSize();
  if (code.empty() || code.size() > BiosBootRecord::kSize)
    throw Error(ErrorId::InvalidArgument, "The boot code does not fit one sector").with("size", std::to_string(code.size()));

  std::set<uint64_t> stale;
  if (wipe) {
    // Every partition must be free to change before the first sector is written.
    for (const PartitionNode* n : layout.displayList()) drive.prepareForChange(n->firstBlock, n->blockCount);
    stale = staleTableBlocks(layout);
  }
  BiosBootRecord next = composeMasterBootRecord(BiosBootRecord(true, 4, drive.readSector(0).data()), code, mode);
  if (wipe)
    for (unsigned s = 0; s < BiosBootRecord::kMaxSlots; ++s) next.clearSlot(s);

  // The master boot record first: once it is on the medium nothing links to the old extended
  // boot records or GPT any more, and they can go.
  drive.writeRecord(0, next.data(), BiosBootRecord::kSize);
  drive.flush();
  if (!stale.empty()) {
    const std::vector<uint8_t> zero(drive.bytesPerBlock(), 0);
    for (uint64_t b : stale) drive.write(b, 1, zero.data());
    drive.flush();
  }
  if (!wipe) return {};
  OsLayout empty;
  empty.style = OsLayout::Mbr;
  empty.signature = next.getWindowsNtId();
  return reportOsLayout(drive, empty);
}

}  // namespace Corvo::Disk
