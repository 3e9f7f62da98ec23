// Quick format of sparse image files: this formatter against mkfs.fat on the same size.
// Reports wall time (including fsync of the image) and the bytes each leaves allocated in
// the sparse file, plus the bytes this formatter handed to write().
//
//   build: cmake -S . -B build-bench -DKDISK_BENCH=ON -DKDISK_TESTS=OFF && cmake --build build-bench
//   run:   build-bench/bench_fat_format [directory for the images, default /tmp] [runs, default 3]
//
// Each side runs `runs` times on a fresh image; the fastest run is reported.
//
// A 2 TiB partition does not fit the 32-bit sector count of the BPB: the formatter lays the
// volume out over the first 0xFFFFFFFF sectors and leaves the last sector unused.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/Message.h"
#include "filesystem/fat/Fat.h"
#include "tests/support/InMemory.h"

namespace {

class SparseImage : public Corvo::Disk::BlockDevice {
 public:
  SparseImage(const std::string& path, uint64_t blocks) : blocks_(blocks) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd_ < 0 || ::ftruncate(fd_, static_cast<off_t>(blocks * 512)) != 0) {
      std::perror(path.c_str());
      std::exit(1);
    }
  }
  ~SparseImage() override { ::close(fd_); }
  uint64_t blockCount() const override { return blocks_; }
  void flush() override { ::fsync(fd_); }
  uint64_t bytesWritten = 0;

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override {
    if (::pread(fd_, buffer, count * 512, static_cast<off_t>(first * 512)) != static_cast<ssize_t>(count * 512))
      throw Corvo::Core::Error(Corvo::Core::ErrorId::ReadFailed, "read failed");
  }
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override {
    if (::pwrite(fd_, buffer, count * 512, static_cast<off_t>(first * 512)) != static_cast<ssize_t>(count * 512))
      throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "write failed");
    bytesWritten += count * 512;
  }

 private:
  int fd_ = -1;
  uint64_t blocks_;
};

uint64_t allocatedBytes(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? uint64_t(st.st_blocks) * 512 : 0;
}

double seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : "/tmp";
  const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
  struct Case {
    const char* name;
    int type;
    uint64_t bytes;
    const char* mkfsType;
  } cases[] = {
      {"FAT16 1 GiB", 1, 1ull << 30, "16"},
      {"FAT32 32 GiB", 2, 32ull << 30, "32"},
      {"FAT32 2 TiB", 2, 2ull << 40, "32"},
  };
  std::printf("%-14s %10s %10s %7s %14s %14s %7s %14s\n", "case", "ours s", "mkfs s", "time", "ours alloc",
              "mkfs alloc", "bytes", "ours written");
  for (const Case& c : cases) {
    const std::string ours = dir + "/bench_fat_ours.img", theirs = dir + "/bench_fat_mkfs.img";
    double ourTime = 1e30, theirTime = 1e30;
    uint64_t ourWritten = 0, ourAlloc = 0, theirAlloc = 0;
    bool ok = true, theirsOk = true;
    for (int run = 0; run < runs && ok; ++run) {
      auto sink = std::make_unique<KdiskTest::SilentSink>();
      KdiskTest::SilentSink* quiet = sink.get();
      Corvo::Core::setMessageSink(std::move(sink));
      {
        SparseImage image(ours, c.bytes / 512);
        auto start = std::chrono::steady_clock::now();
        try {
          Corvo::Filesystem::formatFat(image, Corvo::Filesystem::FatType(c.type), {});
        } catch (const Corvo::Core::Error& e) {
          ok = false;
          std::printf("%-14s formatter failed: %s %s\n", c.name, e.what(), quiet->lastError.c_str());
        }
        ourTime = std::min(ourTime, seconds(start));
        ourWritten = image.bytesWritten;
      }
      Corvo::Core::setMessageSink(nullptr);
      ourAlloc = allocatedBytes(ours);
      ::unlink(ours.c_str());
    }
    for (int run = 0; run < runs && theirsOk; ++run) {
      // mkfs.fat on a fresh sparse file of the same size, then fsync like the formatter does.
      int fd = ::open(theirs.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(c.bytes)) != 0) std::perror(theirs.c_str());
      if (fd >= 0) ::close(fd);
      std::string cmd = std::string("mkfs.fat -F ") + c.mkfsType + " " + theirs + " >/dev/null 2>&1";
      auto start = std::chrono::steady_clock::now();
      theirsOk = std::system(cmd.c_str()) == 0;
      fd = ::open(theirs.c_str(), O_RDWR);
      if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
      }
      theirTime = std::min(theirTime, seconds(start));
      theirAlloc = allocatedBytes(theirs);
      ::unlink(theirs.c_str());
    }

    std::printf("%-14s %10.3f %10s %7s %14llu %14s %7s %14llu\n", c.name, ourTime,
                theirsOk ? std::to_string(theirTime).substr(0, 6).c_str() : "failed",
                theirsOk && ok ? std::to_string(ourTime / theirTime).substr(0, 5).c_str() : "-",
                static_cast<unsigned long long>(ourAlloc),
                theirsOk ? std::to_string(theirAlloc).c_str() : "-",
                theirsOk && ok && theirAlloc ? std::to_string(double(ourAlloc) / double(theirAlloc)).substr(0, 5).c_str() : "-",
                static_cast<unsigned long long>(ourWritten));
  }
  std::printf("time and bytes columns are ratios ours/mkfs.fat (below 1: ours is faster / writes less)\n");
  return 0;
}
