// Disks added with /ADDDISK=: block device nodes go to the block-device backend (which can
// tell the kernel a new layout), VMDK files to the VMDK backend, anything else is a raw image.
#include <algorithm>
#include <cctype>
#include <string>

#include "core/Config.h"
#include "core/Error.h"
#include "disk/DiskDriveAccess.h"
#include "disk/access/FileIo.h"
#include "disk/access/LinuxDisks.h"
#include "disk/access/Vmdk.h"

namespace Corvo::Disk {
namespace {

using Core::Error;
using Core::ErrorId;

class RawImageAccess : public DiskDriveAccess {
 public:
  explicit RawImageAccess(const std::string& path) {
    file_.open(path, FileIo::Accept::RegularOrBlock);
    blocks_ = file_.size() / 512;
    if (blocks_ == 0)
      throw Error(ErrorId::InvalidImage, "Cannot use disk image " + path + " -- it is smaller than one sector")
          .with("path", path);
  }
  std::string path() const override { return file_.path(); }
  // Images have the sector sizes the start-up switches give them (512 bytes unless told).
  Geometry getGeometry() const override {
    Geometry g;
    g.cylinders = blocks_ / (255 * 63);
    g.bytesPerSector = static_cast<uint32_t>(Core::Config::getInt(Core::Config::kImageSectorSizeKey, 512));
    g.physicalBytesPerSector = std::max(
        g.bytesPerSector, static_cast<uint32_t>(Core::Config::getInt(Core::Config::kImagePhysicalSectorSizeKey, 0)));
    return g;
  }
  uint64_t totalBlocks() const override { return blocks_; }
  std::string model() const override { return "Image file"; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    file_.readAt(first * 512, buffer, static_cast<size_t>(count) * 512);
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    file_.writeAt(first * 512, buffer, static_cast<size_t>(count) * 512);
  }
  bool zeroRange(uint64_t first, uint64_t count, bool quickOnly) override {
    return file_.zeroRange(first * 512, count * 512, quickOnly);
  }
  void flush() override { file_.sync(); }
  // The image may be attached to a loop device whose filesystems are mounted.
  void prepareForChange(uint64_t firstBlock, uint64_t blockCount) override {
    LinuxDisks::refuseIfImageBusy(file_.path(), firstBlock, blockCount);
  }
  void readMedium(uint64_t first, uint64_t count, void* buffer) override {
    file_.readMediumAt(first * 512, buffer, static_cast<size_t>(count) * 512);
  }
  void requireWritable() const override { file_.requireWritable(); }
  bool lockExclusive(unsigned waitMilliseconds) override { return file_.lockExclusive(waitMilliseconds); }
  void unlockExclusive() override { file_.unlock(); }

 private:
  FileIo file_;
  uint64_t blocks_ = 0;
};

}  // namespace

std::unique_ptr<DiskDriveAccess> openImageDisk(const std::string& path) {
  if (LinuxDisks::isBlockDevice(path)) return LinuxDisks::openBlockDevice(path);
  uint8_t head[512] = {};
  size_t got;
  {
    FileIo probe;
    probe.openReadOnly(path, FileIo::Accept::RegularOrBlock);
    got = probe.readSome(0, head, sizeof head);
  }
  if (Vmdk::looksLikeVmdk(head, got)) return Vmdk::open(path);
  // A file named .vmdk that is neither a sparse extent nor a descriptor is a broken VMDK,
  // except the data file of a flat image, which is a raw image of its own.
  std::string lower;
  for (char c : path) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  auto endsWith = [&](const char* tail) {
    std::string t = tail;
    return lower.size() >= t.size() && lower.compare(lower.size() - t.size(), t.size(), t) == 0;
  };
  if (endsWith(".vmdk") && !endsWith("-flat.vmdk")) return Vmdk::open(path);
  return std::make_unique<RawImageAccess>(path);
}

}  // namespace Corvo::Disk
