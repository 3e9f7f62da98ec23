// Raw image files added with /ADDDISK=. (VMDK and block device nodes are recognised here too
// as they are added.)
#include <cstdio>
#include <string>

#include "core/Error.h"
#include "disk/DiskDriveAccess.h"

namespace Corvo::Disk {
namespace {

using Core::Error;
using Core::ErrorId;

int seekTo(std::FILE* f, uint64_t offset) {
#if defined(_WIN32)
  return _fseeki64(f, static_cast<long long>(offset), SEEK_SET);
#else
  return fseeko(f, static_cast<off_t>(offset), SEEK_SET);
#endif
}

class RawImageAccess : public DiskDriveAccess {
 public:
  explicit RawImageAccess(const std::string& path) : path_(path) {
    file_ = std::fopen(path.c_str(), "r+b");
    if (!file_) file_ = std::fopen(path.c_str(), "rb");
    if (!file_) throw Error(ErrorId::OpenFailed, "Cannot open disk image " + path).with("path", path);
    std::fseek(file_, 0, SEEK_END);
#if defined(_WIN32)
    uint64_t size = static_cast<uint64_t>(_ftelli64(file_));
#else
    uint64_t size = static_cast<uint64_t>(ftello(file_));
#endif
    blocks_ = size / 512;
  }
  ~RawImageAccess() override {
    if (file_) std::fclose(file_);
  }
  std::string path() const override { return path_; }
  Geometry getGeometry() const override {
    Geometry g;
    g.cylinders = blocks_ / (255 * 63);
    return g;
  }
  uint64_t totalBlocks() const override { return blocks_; }
  std::string model() const override { return "Image file"; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    if (seekTo(file_, first * 512) != 0 || std::fread(buffer, 512, count, file_) != count)
      throw Error(ErrorId::ReadFailed, "Cannot read disk image " + path_).with("sector", std::to_string(first));
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    if (seekTo(file_, first * 512) != 0 || std::fwrite(buffer, 512, count, file_) != count || std::fflush(file_) != 0)
      throw Error(ErrorId::WriteFailed, "Cannot write disk image " + path_).with("sector", std::to_string(first));
  }

 private:
  std::string path_;
  std::FILE* file_ = nullptr;
  uint64_t blocks_ = 0;
};

}  // namespace

std::unique_ptr<DiskDriveAccess> openImageDisk(const std::string& path) { return std::make_unique<RawImageAccess>(path); }

}  // namespace Corvo::Disk
