// Positional file I/O shared by the image backends: whole-byte reads and writes at 64-bit
// offsets, on POSIX and on Windows.
#pragma once
#include <cstdint>
#include <string>

namespace Corvo::Disk {

class FileIo {
 public:
  FileIo() = default;
  ~FileIo();
  FileIo(const FileIo&) = delete;
  FileIo& operator=(const FileIo&) = delete;

  // What the opened file may be. A file that is not accepted is closed again before anything
  // is read or written, and opening it never waits (a FIFO without a writer, a terminal).
  enum class Accept : uint32_t { Any = 0, RegularFile = 1, RegularOrBlock = 2 };

  // Opens read-write when possible, else read-only. Throws Core::Error (OpenFailed) naming
  // the file and the system's reason, or (NotSupported) naming what it is when the kind of
  // file is not accepted.
  void open(const std::string& path, Accept accept = Accept::Any);
  // Opens read-only; throws like open().
  void openReadOnly(const std::string& path, Accept accept = Accept::Any);
  bool isOpen() const;
  bool writable() const { return writable_; }
  const std::string& path() const { return path_; }
  uint64_t size() const;

  // Throw Core::Error (ReadFailed / WriteFailed) naming the file on failure or a short
  // transfer.
  void readAt(uint64_t offset, void* buffer, size_t bytes) const;
  void writeAt(uint64_t offset, const void* buffer, size_t bytes);
  // Reads as much as there is; returns the byte count (0 at end of file).
  size_t readSome(uint64_t offset, void* buffer, size_t bytes) const;
  // Makes the byte range read as zeros without writing it through here: a hole punched into
  // the file (or a zeroed range where holes are not supported). quickOnly: only where the file
  // system does not write the zeros itself (Windows: sparse files). False when it cannot.
  bool zeroRange(uint64_t offset, uint64_t bytes, bool quickOnly);
  // Reads what the storage under the file holds, not the system's cached copy (call sync()
  // first). Throws like readAt.
  void readMediumAt(uint64_t offset, void* buffer, size_t bytes);
  // Makes the writes so far durable; throws Core::Error (WriteFailed) naming the file when the
  // system reports that they could not be stored. Does nothing on a read-only file.
  void sync();
  // Throws the error writeAt would give (WriteProtected) when the file is open read-only.
  void requireWritable() const;
  // An exclusive advisory lock on the file (flock), tried until waitMilliseconds have passed;
  // false when another holder kept it. True where there are no such locks.
  bool lockExclusive(unsigned waitMilliseconds);
  void unlock();

 private:
  void doOpen(const std::string& path, bool tryWrite, Accept accept);
  [[noreturn]] void refuseKind(const std::string& path, const char* what, Accept accept);
  std::string path_;
  bool writable_ = false;
#if defined(_WIN32)
  void* handle_ = nullptr;
  // A second, unbuffered handle and its sector-aligned buffer for readMediumAt.
  void* uncached_ = nullptr;
  uint8_t* aligned_ = nullptr;
#else
  int fd_ = -1;
#endif
};

#if !defined(_WIN32)
// Positional transfers with pread / pwrite, repeated after short transfers and interrupted
// calls until all `bytes` have moved. Return the bytes moved: fewer when a call failed (errno
// says why) or moved nothing (end of file or device, no space: errno is then 0).
size_t readFully(int fd, uint64_t offset, void* buffer, size_t bytes);
size_t writeFully(int fd, uint64_t offset, const void* buffer, size_t bytes);
#endif

}  // namespace Corvo::Disk
