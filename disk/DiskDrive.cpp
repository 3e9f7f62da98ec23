#include "disk/DiskDrive.h"

#include <algorithm>
#include <cstdio>

#include "core/Config.h"
#include "core/Message.h"
#include "core/Trace.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

void DiskDriveAccess::verify(uint64_t first, uint64_t count) {
  const uint64_t chunk = kDefaultTransferBytes / kAccessUnit;
  std::vector<uint8_t> scratch(static_cast<size_t>(std::min(chunk, count)) * kAccessUnit);
  while (count) {
    uint64_t n = std::min(chunk, count);
    read(first, n, scratch.data());
    first += n;
    count -= n;
  }
}

DiskDrive::DiskDrive(uint32_t numericId, std::unique_ptr<DiskDriveAccess> access)
    : id_(numericId), access_(std::move(access)) {
  Core::TraceScope scope("getGeometry");
  geometry_ = access_->getGeometry();
  const uint32_t bytes = geometry_.bytesPerSector;
  if (bytes > kAccessUnit && bytes % kAccessUnit == 0 && bytes <= 65536) unitsPerBlock_ = bytes / kAccessUnit;
  blocks_ = access_->totalBlocks() / unitsPerBlock_;
  if (geometry_.heads == 0 || geometry_.sectorsPerTrack == 0) {
    geometry_.heads = 255;
    geometry_.sectorsPerTrack = 63;
  }
  if (geometry_.cylinders == 0) geometry_.cylinders = blocks_ / (uint64_t{geometry_.heads} * geometry_.sectorsPerTrack);
}

uint32_t DiskDrive::preferredTransferBlocks() const {
  int64_t bytes = Core::Config::getInt("SequentialAccessDevice::preferredBlockLength", 0);
  const uint32_t least = kDefaultTransferBytes / bytesPerBlock();
  if (bytes >= static_cast<int64_t>(bytesPerBlock()) && bytes <= (int64_t{64} << 20))
    return std::max<uint32_t>(least, static_cast<uint32_t>(blocksOf(static_cast<uint64_t>(bytes))));
  return std::max<uint32_t>(least, access_->preferredTransferBlocks() / unitsPerBlock_);
}

void DiskDrive::requireWritable() const {
  requireSectorSize();
  access_->requireWritable();
}


bool DiskDrive::isBootDisk() const {
  if (Core::Config::has("DiskManager::bootDisk"))
    return Core::Config::getInt("DiskManager::bootDisk", 0) == static_cast<int64_t>(id_) + 1;
  return access_->isBootDisk();
}

void DiskDrive::failed(const Error& e) {
  const ErrorId id = e.id();
  if (id == ErrorId::ReadFailed || id == ErrorId::WriteFailed || id == ErrorId::VerifyFailed)
    ++badMediaCount_;
  else
    ++errCount_;
  lastError_ = e.text();
  Core::DiagnosticLog::write("Disk error");
}

template <class Transfer>
void DiskDrive::counted(Transfer transfer) {
  try {
    transfer();
    ++okCount_;
  } catch (const Error& e) {
    failed(e);
    throw;
  }
}

void DiskDrive::doRead(uint64_t first, uint64_t count, void* buffer) {
  counted([&] { access_->read(first * unitsPerBlock_, count * unitsPerBlock_, buffer); });
}

void DiskDrive::doWrite(uint64_t first, uint64_t count, const void* buffer) {
  requireSectorSize();
  aboutToWrite(first, count);
  counted([&] { access_->write(first * unitsPerBlock_, count * unitsPerBlock_, buffer); });
}

void DiskDrive::doReadMedium(uint64_t first, uint64_t count, void* buffer) {
  counted([&] { access_->readMedium(first * unitsPerBlock_, count * unitsPerBlock_, buffer); });
}

void DiskDrive::doWriteMedium(uint64_t first, uint64_t count, const void* buffer) {
  requireSectorSize();
  aboutToWrite(first, count);
  counted([&] { access_->writeMedium(first * unitsPerBlock_, count * unitsPerBlock_, buffer); });
}

// A failed flush counts as a failed write; a successful one is not a transfer of its own.
void DiskDrive::flush() {
  try {
    access_->flush();
  } catch (const Error& e) {
    failed(e);
    throw;
  }
}

void DiskDrive::doWriteZeros(uint64_t first, uint64_t count) {
  if (isWritable()) aboutToWrite(first, count);
  if (isWritable() && access_->zeroRange(first * unitsPerBlock_, count * unitsPerBlock_, false)) {
    ++okCount_;
    return;
  }
  BlockDevice::doWriteZeros(first, count);  // through doWrite, which refuses what it must
}

bool DiskDrive::doZeroQuickly(uint64_t first, uint64_t count) {
  if (!isWritable()) return false;
  aboutToWrite(first, count);
  if (!access_->zeroRange(first * unitsPerBlock_, count * unitsPerBlock_, true)) return false;
  ++okCount_;
  return true;
}

void DiskDrive::doVerify(uint64_t first, uint64_t count) {
  try {
    access_->verify(first * unitsPerBlock_, count * unitsPerBlock_);
    ++okCount_;
  } catch (const Error& e) {
    Error verify(ErrorId::VerifyFailed, e.text(), e.properties());
    failed(verify);
    throw verify;
  }
}

void DiskDrive::setNativePartitionLayout(const OsLayout& layout) {
  Core::TraceScope scope("setNativePartitionLayout");
  if (Core::Config::getBool("Disk::noOsLayout", false) || !access_->supportsOsLayout()) return;
  access_->setNativePartitionLayout(unitsPerBlock_ == 1 ? layout : inAccessUnits(layout));
}

OsLayout DiskDrive::inAccessUnits(OsLayout layout) const {
  layout.firstUsableBlock *= unitsPerBlock_;
  layout.usableBlocks *= unitsPerBlock_;
  for (OsLayoutEntry& e : layout.entries) {
    e.firstBlock *= unitsPerBlock_;
    e.blockCount *= unitsPerBlock_;
    e.tableBlock *= unitsPerBlock_;
  }
  return layout;
}

void DiskDrive::assignDriveLetter(uint64_t firstBlock, char letter) {
  if (!access_->mountsVolumes()) return;
  if (Core::Config::getBool("Disk::noOsLayout", false))
    throw Core::Error(Core::ErrorId::OsLayoutFailed,
                      Core::format("Cannot assign drive letter %c: -- the system was not told of the new partition", letter));
  access_->assignDriveLetter(firstBlock * unitsPerBlock_, letter);
}

DiskManager& DiskManager::instance() {
  static DiskManager m;
  return m;
}

void DiskManager::reset() {
  // The end of a run: the counters of every drive go to the diagnostic log.
  if (Core::DiagnosticLog::isOpen() && !slots_.empty()) Core::DiagnosticLog::write(diagnostic());
  slots_.clear();
}

std::string DiskManager::diagnostic() const {
  std::string out = "DiskManager diagnostic...\nFixed Drives\n\n";
  for (size_t i = 0; i < slots_.size(); ++i) {
    const Slot& s = slots_[i];
    out += "Drive " + std::to_string(i) + " (" + s.path + ")\n";
    if (!s.drive) {
      out += "  Last Error: " + (s.error ? s.error->text() : std::string("cannot be opened")) + "\n\n";
      continue;
    }
    const DiskDrive& d = *s.drive;
    const Geometry& g = d.geometry();
    char mb[32];
    std::snprintf(mb, sizeof mb, "%.1f", static_cast<double>(d.bytesOf(d.blockCount())) / 1048576.0);
    out += "  Cylinders: " + std::to_string(g.cylinders) + "\n  Heads: " + std::to_string(g.heads) +
           "\n  Sectors per Track: " + std::to_string(g.sectorsPerTrack) +
           "\n  Bytes per Sector: " + std::to_string(g.bytesPerSector) +
           "\n  Total Sectors: " + std::to_string(d.blockCount()) + "\n  MB: " + mb +
           "\n  Successful IO Count: " + std::to_string(d.successfulIoCount()) +
           "\n  Error Count (bad media): " + std::to_string(d.badMediaErrorCount()) +
           "\n  Error Count (other): " + std::to_string(d.otherErrorCount()) +
           "\n  Last Error: " + (d.lastError().empty() ? std::string("none") : d.lastError()) + "\n\n";
  }
  // Floppy drives are not enumerated: the section stays empty.
  out += "Floppy Drives\n\n";
  return out;
}

void DiskManager::enumerate() {
  Core::TraceScope scope("DiskManager::enumerate");
  reset();
  auto addSlot = [this](std::string path, std::unique_ptr<DiskDriveAccess> access, std::optional<Error> err) {
    Slot s;
    s.path = std::move(path);
    if (access) {
      try {
        s.drive = std::make_unique<DiskDrive>(static_cast<uint32_t>(slots_.size()), std::move(access));
      } catch (...) {
        s.error = Core::currentExceptionAsError(ErrorId::OpenFailed, "Cannot open " + s.path);
      }
    } else {
      s.error = err;
    }
    slots_.push_back(std::move(s));
  };
  if (!Core::Config::getBool("OsDrive::Disable", false)) {
    for (auto& c : enumerateOsDisks())
      addSlot(c.path, std::move(c.access), Error(ErrorId::OpenFailed, c.openError).with("path", c.path));
  }
  // Whatever goes wrong while one image is opened (a damaged file, memory running out) is that
  // disk's own status; the disks before and after it stay usable.
  for (const std::string& path : Core::Config::getList(Core::Config::kAddDiskKey)) {
    std::unique_ptr<DiskDriveAccess> access;
    std::optional<Error> failure;
    try {
      access = opener_ ? opener_(path) : openImageDisk(path);
    } catch (...) {
      failure = Core::currentExceptionAsError(ErrorId::OpenFailed, "Cannot open " + path);
    }
    addSlot(path, std::move(access), std::move(failure));
  }
}

DiskDrive* DiskManager::getDrive(size_t index) { return index < slots_.size() ? slots_[index].drive.get() : nullptr; }

std::optional<Error> DiskManager::openError(size_t index) const {
  if (index >= slots_.size()) return Error(ErrorId::NoSuchDisk, "No such disk");
  return slots_[index].error;
}

std::string DiskManager::pathOf(size_t index) const { return index < slots_.size() ? slots_[index].path : std::string(); }

}  // namespace Corvo::Disk
