// A disk of the disk manager: a block device over an access backend, with its identity,
// geometry and I/O counters. The drive is addressed in its logical sectors (the backend's
// geometry.bytesPerSector); it turns them into the backend's 512-byte units.
#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "disk/BlockDevice.h"
#include "disk/DiskDriveAccess.h"

namespace Corvo::Disk {

class DiskDrive : public BlockDevice {
 public:
  DiskDrive(uint32_t numericId, std::unique_ptr<DiskDriveAccess> access);

  uint32_t getNumericId() const { return id_; }
  std::string path() const { return access_->path(); }
  std::string model() const { return access_->model(); }
  std::string serialNumber() const { return access_->serialNumber(); }
  const Geometry& geometry() const { return geometry_; }
  uint64_t blockCount() const override { return blocks_; }
  uint32_t bytesPerBlock() const override { return unitsPerBlock_ * kAccessUnit; }
  uint32_t preferredTransferBlocks() const override;
  // Writes are refused (UnsupportedSectorSize) on disks whose logical sectors are not 512 bytes.
  bool isWritable() const {
    const uint32_t b = geometry_.bytesPerSector;
    return b >= kSectorSize && b <= kLargestSectorSize && !(b & (b - 1));
  }
  // Throws UnsupportedSectorSize when the disk's sectors are not 512 bytes.
  void requireSectorSize() const { Disk::requireSectorSize(geometry_.bytesPerSector); }
  // Throws what a write would throw on a disk that cannot be written at all: a sector size
  // other than 512 bytes, or a backend that could open the disk only for reading.
  void requireWritable() const override;
  // The disk the running system started from. "DiskManager::bootDisk" (the /BOOTDISK= start-up
  // switch) names it instead, by its 1-based number, so that images can stand in for it.
  bool isBootDisk() const;
  void flush() override;

  // Tells the OS the new layout unless "Disk::noOsLayout" is set or the backend has no OS
  // view. Throws Core::Error (OsLayoutFailed); the caller reports it as a warning.
  void setNativePartitionLayout(const OsLayout& layout);
  // Mounts the volume of the partition at firstBlock at "X:\" where the backend has volumes;
  // does nothing for images. Throws Core::Error (OsLayoutFailed), also when the system was
  // not told the new layout ("Disk::noOsLayout").
  void assignDriveLetter(uint64_t firstBlock, char letter);
  void prepareForChange(uint64_t firstBlock, uint64_t blockCount) {
    access_->prepareForChange(firstBlock * unitsPerBlock_, blockCount * unitsPerBlock_);
  }
  DiskDriveAccess& access() { return *access_; }
  // Called with the range before every write of sectors (a backup saves what a change is about
  // to overwrite); it may throw, and the write does not happen. Null removes it.
  using WriteObserver = std::function<void(uint64_t first, uint64_t count)>;
  void setWriteObserver(WriteObserver observer) { observer_ = std::move(observer); }
  // Holds the disk for this process alone until unlockExclusive (an advisory lock other
  // partitioners honour too), waiting up to waitMilliseconds for another holder to let go.
  // False when it is still held then; true also where the backend has no such lock.
  bool lockExclusive(unsigned waitMilliseconds) { return access_->lockExclusive(waitMilliseconds); }
  void unlockExclusive() { access_->unlockExclusive(); }

  uint64_t successfulIoCount() const { return okCount_; }
  uint64_t errorCount() const { return errCount_ + badMediaCount_; }
  uint64_t badMediaErrorCount() const { return badMediaCount_; }
  uint64_t otherErrorCount() const { return errCount_; }
  const std::string& lastError() const { return lastError_; }

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override;
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override;
  void doVerify(uint64_t first, uint64_t count) override;
  void doWriteZeros(uint64_t first, uint64_t count) override;
  bool doZeroQuickly(uint64_t first, uint64_t count) override;
  void doReadMedium(uint64_t first, uint64_t count, void* buffer) override;
  void doWriteMedium(uint64_t first, uint64_t count, const void* buffer) override;

 private:
  uint32_t id_;
  std::unique_ptr<DiskDriveAccess> access_;
  Geometry geometry_;
  uint64_t blocks_;
  // Backend units (512 bytes) per logical sector: 1, or 8 on a disk of 4 KiB sectors. A sector
  // size that is no multiple of 512 bytes leaves the drive addressed in 512-byte units (and
  // read only, see isWritable).
  uint32_t unitsPerBlock_ = 1;
  OsLayout inAccessUnits(OsLayout layout) const;
  // Counts a failed transfer (media errors apart from the rest), keeps its text and notes it
  // in the diagnostic log.
  void failed(const Core::Error& e);
  // Runs one transfer (or flush) of the backend and counts its outcome.
  template <class Transfer>
  void counted(Transfer transfer);
  uint64_t okCount_ = 0, errCount_ = 0, badMediaCount_ = 0;
  std::string lastError_;
  WriteObserver observer_;
  void aboutToWrite(uint64_t first, uint64_t count) {
    if (observer_) observer_(first, count);
  }
};

// Finds and numbers the disks: the machine's own (unless "OsDrive::Disable"), then the
// images of /ADDDISK= in the order given. A disk that cannot be opened keeps its number.
class DiskManager {
 public:
  static DiskManager& instance();
  // Opens an image given with /ADDDISK= (openImageDisk unless replaced; tests put failing
  // backends here). A null opener restores the default.
  using ImageOpener = std::function<std::unique_ptr<DiskDriveAccess>(const std::string&)>;
  void setImageOpener(ImageOpener opener) { opener_ = std::move(opener); }
  void enumerate();  // forgets any earlier enumeration
  void reset();
  size_t driveCount() const { return slots_.size(); }
  // Null when the disk could not be opened (see openError).
  DiskDrive* getDrive(size_t index);
  std::optional<Core::Error> openError(size_t index) const;
  std::string pathOf(size_t index) const;
  // The diagnostic dump: every drive's identity, geometry, size and I/O counters.
  std::string diagnostic() const;

 private:
  struct Slot {
    std::string path;
    std::unique_ptr<DiskDrive> drive;
    std::optional<Core::Error> error;
  };
  std::vector<Slot> slots_;
  ImageOpener opener_;
};

}  // namespace Corvo::Disk
