// A block device over a (sparse) image file, for formatting tests checked by external tools.
#pragma once
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "core/Error.h"
#include "disk/BlockDevice.h"

namespace KdiskTest {

class ImageFileDevice : public Corvo::Disk::BlockDevice {
 public:
  // Creates (truncates) a sparse file of `blocks` sectors.
  ImageFileDevice(const std::string& path, uint64_t blocks) : blocks_(blocks) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd_ < 0 || ::ftruncate(fd_, static_cast<off_t>(blocks * 512)) != 0)
      throw Corvo::Core::Error(Corvo::Core::ErrorId::OpenFailed, "cannot create " + path);
  }
  ~ImageFileDevice() override { ::close(fd_); }
  uint64_t blockCount() const override { return blocks_; }
  uint64_t bytesWritten = 0, writes = 0, lastWriteFirst = ~0ull;  // what the formatter wrote

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override {
    if (::pread(fd_, buffer, count * 512, static_cast<off_t>(first * 512)) != static_cast<ssize_t>(count * 512))
      throw Corvo::Core::Error(Corvo::Core::ErrorId::ReadFailed, "short read");
  }
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override {
    if (::pwrite(fd_, buffer, count * 512, static_cast<off_t>(first * 512)) != static_cast<ssize_t>(count * 512))
      throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "short write");
    bytesWritten += count * 512;
    ++writes;
    lastWriteFirst = first;
  }

 private:
  int fd_ = -1;
  uint64_t blocks_;
};

}  // namespace KdiskTest
