#include "disk/access/FileIo.h"

#include <algorithm>
#include <cstring>

#include "core/Error.h"
#include "core/FileKind.h"
#include "core/System.h"

#if defined(_WIN32)
#include <windows.h>
#include <winioctl.h>
#else
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#endif
#if defined(__linux__)
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

#if defined(_WIN32)

FileIo::~FileIo() {
  if (handle_) CloseHandle(static_cast<HANDLE>(handle_));
  if (uncached_) CloseHandle(static_cast<HANDLE>(uncached_));
  if (aligned_) VirtualFree(aligned_, 0, MEM_RELEASE);
}

bool FileIo::isOpen() const { return handle_ != nullptr; }

void FileIo::doOpen(const std::string& path, bool tryWrite, Accept accept) {
  path_ = path;
  HANDLE h = INVALID_HANDLE_VALUE;
  if (tryWrite) {
    h = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    writable_ = h != INVALID_HANDLE_VALUE;
  }
  if (h == INVALID_HANDLE_VALUE)
    h = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE)
    throw Error(ErrorId::OpenFailed, "Cannot open " + path + " -- " + Core::lastSystemErrorText()).with("path", path);
  handle_ = h;
  if (accept == Accept::Any) return;
  if (const char* what = Core::unacceptedFileKind(reinterpret_cast<intptr_t>(h), accept == Accept::RegularOrBlock, false)) {
    CloseHandle(h);
    handle_ = nullptr;
    writable_ = false;
    refuseKind(path, what, accept);
  }
}

uint64_t FileIo::size() const {
  LARGE_INTEGER s{};
  if (!GetFileSizeEx(static_cast<HANDLE>(handle_), &s)) return 0;
  return static_cast<uint64_t>(s.QuadPart);
}

namespace {
// Positional transfers in pieces of at most 1 GiB until all `bytes` have moved. `call` moves one
// piece and returns false when the system call failed; the loop ends early at a piece of 0 bytes.
template <class Buffer, class Call>
size_t transferFully(uint64_t offset, Buffer* buffer, size_t bytes, Call call) {
  size_t done = 0;
  while (done < bytes) {
    OVERLAPPED ov{};
    const uint64_t at = offset + done;
    ov.Offset = static_cast<DWORD>(at);
    ov.OffsetHigh = static_cast<DWORD>(at >> 32);
    DWORD moved = 0;
    if (!call(buffer + done, static_cast<DWORD>(std::min<size_t>(bytes - done, 1u << 30)), &moved, &ov)) break;
    if (moved == 0) break;
    done += moved;
  }
  return done;
}
}  // namespace

size_t FileIo::readSome(uint64_t offset, void* buffer, size_t bytes) const {
  bool failed = false;
  const size_t done = transferFully(offset, static_cast<char*>(buffer), bytes,
                                    [&](char* at, DWORD want, DWORD* got, OVERLAPPED* ov) {
                                      if (ReadFile(static_cast<HANDLE>(handle_), at, want, got, ov)) return true;
                                      failed = GetLastError() != ERROR_HANDLE_EOF;
                                      return false;
                                    });
  if (failed)
    throw Error(ErrorId::ReadFailed, "Cannot read " + path_ + " -- " + Core::lastSystemErrorText())
        .with("path", path_)
        .with("offset", std::to_string(offset + done));
  return done;
}

void FileIo::writeAt(uint64_t offset, const void* buffer, size_t bytes) {
  requireWritable();
  const size_t done = transferFully(offset, static_cast<const char*>(buffer), bytes,
                                    [&](const char* at, DWORD want, DWORD* put, OVERLAPPED* ov) {
                                      return WriteFile(static_cast<HANDLE>(handle_), at, want, put, ov) != FALSE;
                                    });
  if (done < bytes)
    throw Error(ErrorId::WriteFailed, "Cannot write " + path_ + " -- " + Core::lastSystemErrorText())
        .with("path", path_)
        .with("offset", std::to_string(offset + done));
}

bool FileIo::zeroRange(uint64_t offset, uint64_t bytes, bool quickOnly) {
  if (!writable_) return false;
  BY_HANDLE_FILE_INFORMATION info{};
  if (quickOnly && (!GetFileInformationByHandle(static_cast<HANDLE>(handle_), &info) ||
                    !(info.dwFileAttributes & FILE_ATTRIBUTE_SPARSE_FILE)))
    return false;  // the file system would write the zeros
  FILE_ZERO_DATA_INFORMATION range{};
  range.FileOffset.QuadPart = static_cast<LONGLONG>(offset);
  range.BeyondFinalZero.QuadPart = static_cast<LONGLONG>(offset + bytes);
  DWORD returned = 0;
  return DeviceIoControl(static_cast<HANDLE>(handle_), FSCTL_SET_ZERO_DATA, &range, sizeof range, nullptr, 0,
                         &returned, nullptr) != 0;
}

// Windows locks the volumes of a disk it changes (prepareForChange); an image file has no
// advisory lock of its own there.
bool FileIo::lockExclusive(unsigned) { return true; }
void FileIo::unlock() {}

void FileIo::sync() {
  if (writable_ && !FlushFileBuffers(static_cast<HANDLE>(handle_)))
    throw Error(ErrorId::WriteFailed, "Cannot flush " + path_ + " -- " + Core::lastSystemErrorText()).with("path", path_);
}

namespace {
// Unbuffered reads need offsets, lengths and buffers aligned to the volume's sector size;
// 4096 covers every sector size in use.
constexpr uint64_t kUncachedAlign = 4096;
constexpr size_t kUncachedBytes = size_t{1} << 20;
}  // namespace

void FileIo::readMediumAt(uint64_t offset, void* buffer, size_t bytes) {
  if (!uncached_) {
    HANDLE h = CreateFileA(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_FLAG_NO_BUFFERING, nullptr);
    aligned_ = static_cast<uint8_t*>(VirtualAlloc(nullptr, kUncachedBytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (h == INVALID_HANDLE_VALUE || !aligned_) {
      // No unbuffered path to the file: after sync() the cached copy is what was stored.
      if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
      readAt(offset, buffer, bytes);
      return;
    }
    uncached_ = h;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  while (bytes) {
    const uint64_t start = offset / kUncachedAlign * kUncachedAlign, lead = offset - start;
    const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes, kUncachedBytes - lead));
    const DWORD span = static_cast<DWORD>((lead + n + kUncachedAlign - 1) / kUncachedAlign * kUncachedAlign);
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(start);
    ov.OffsetHigh = static_cast<DWORD>(start >> 32);
    DWORD got = 0;
    // The last span may reach past the end of the file; only the bytes asked for must be there.
    if (!ReadFile(static_cast<HANDLE>(uncached_), aligned_, span, &got, &ov) && GetLastError() != ERROR_HANDLE_EOF)
      throw Error(ErrorId::ReadFailed, "Cannot read " + path_ + " -- " + Core::lastSystemErrorText())
          .with("path", path_)
          .with("offset", std::to_string(offset));
    if (got < lead + n)
      throw Error(ErrorId::ReadFailed, "Cannot read " + path_ + " -- unexpected end of file")
          .with("path", path_)
          .with("offset", std::to_string(offset));
    std::memcpy(out, aligned_ + lead, n);
    out += n;
    offset += n;
    bytes -= n;
  }
}

#else

namespace {
template <class Buffer, class Call>
size_t transferFully(uint64_t offset, Buffer* buffer, size_t bytes, Call call) {
  size_t done = 0;
  while (done < bytes) {
    const ssize_t n = call(buffer + done, bytes - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = 0;
      break;
    }
    done += static_cast<size_t>(n);
  }
  return done;
}
}  // namespace

size_t readFully(int fd, uint64_t offset, void* buffer, size_t bytes) {
  return transferFully(offset, static_cast<char*>(buffer), bytes,
                       [fd](char* at, size_t n, off_t pos) { return ::pread(fd, at, n, pos); });
}

size_t writeFully(int fd, uint64_t offset, const void* buffer, size_t bytes) {
  return transferFully(offset, static_cast<const char*>(buffer), bytes,
                       [fd](const char* at, size_t n, off_t pos) { return ::pwrite(fd, at, n, pos); });
}

FileIo::~FileIo() {
  if (fd_ >= 0) ::close(fd_);
}

bool FileIo::isOpen() const { return fd_ >= 0; }

void FileIo::doOpen(const std::string& path, bool tryWrite, Accept accept) {
  path_ = path;
  // Without blocking, so that a FIFO or a terminal is found out instead of waited for.
  const int flags = O_CLOEXEC | (accept == Accept::Any ? 0 : O_NONBLOCK | O_NOCTTY);
  int fd = -1;
  if (tryWrite) {
    fd = ::open(path.c_str(), O_RDWR | flags);
    writable_ = fd >= 0;
  }
  if (fd < 0) fd = ::open(path.c_str(), O_RDONLY | flags);
  if (fd < 0) throw Error(ErrorId::OpenFailed, "Cannot open " + path + " -- " + Core::lastSystemErrorText()).with("path", path);
  fd_ = fd;
  if (accept == Accept::Any) return;
  if (const char* what = Core::unacceptedFileKind(fd, accept == Accept::RegularOrBlock, false)) {
    ::close(fd);
    fd_ = -1;
    writable_ = false;
    refuseKind(path, what, accept);
  }
  // Regular files and block devices: back to ordinary blocking transfers.
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

uint64_t FileIo::size() const {
  struct stat st {};
  if (fstat(fd_, &st) != 0) return 0;
#if defined(__linux__)
  if (S_ISBLK(st.st_mode)) {
    uint64_t bytes = 0;
    if (ioctl(fd_, BLKGETSIZE64, &bytes) == 0) return bytes;
    return 0;
  }
#endif
  return static_cast<uint64_t>(st.st_size);
}

size_t FileIo::readSome(uint64_t offset, void* buffer, size_t bytes) const {
  const size_t done = readFully(fd_, offset, buffer, bytes);
  if (done < bytes && errno != 0)
    throw Error(ErrorId::ReadFailed, "Cannot read " + path_ + " -- " + Core::lastSystemErrorText())
        .with("path", path_)
        .with("offset", std::to_string(offset + done));
  return done;
}

void FileIo::writeAt(uint64_t offset, const void* buffer, size_t bytes) {
  requireWritable();
  const size_t done = writeFully(fd_, offset, buffer, bytes);
  if (done < bytes)
    throw Error(ErrorId::WriteFailed, "Cannot write " + path_ + " -- " + (errno != 0 ? Core::lastSystemErrorText() : "no space"))
        .with("path", path_)
        .with("offset", std::to_string(offset + done));
}

bool FileIo::zeroRange(uint64_t offset, uint64_t bytes, bool /*quickOnly*/) {
#if defined(__linux__)
  if (!writable_) return false;
  const off_t at = static_cast<off_t>(offset), length = static_cast<off_t>(bytes);
  for (int mode : {FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE}) {
    int rc;
    do rc = ::fallocate(fd_, mode, at, length);
    while (rc != 0 && errno == EINTR);
    if (rc == 0) return true;
  }
#else
  (void)offset, (void)bytes;
#endif
  return false;
}

bool FileIo::lockExclusive(unsigned waitMilliseconds) {
  // Polled, so that the wait has a limit and Ctrl-C is not held up by a blocking call.
  for (unsigned waited = 0;; waited += 50) {
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return true;  // a file system without locks
    if (waited >= waitMilliseconds) return false;
    ::usleep(50 * 1000);
  }
}

void FileIo::unlock() { ::flock(fd_, LOCK_UN); }

void FileIo::sync() {
  if (writable_ && ::fsync(fd_) != 0)
    throw Error(ErrorId::WriteFailed, "Cannot flush " + path_ + " -- " + Core::lastSystemErrorText()).with("path", path_);
}

void FileIo::readMediumAt(uint64_t offset, void* buffer, size_t bytes) {
#if defined(POSIX_FADV_DONTNEED)
  // Written pages are clean after sync(); dropping them makes the read go to the storage.
  ::posix_fadvise(fd_, static_cast<off_t>(offset), static_cast<off_t>(bytes), POSIX_FADV_DONTNEED);
#endif
  readAt(offset, buffer, bytes);
}

#endif

void FileIo::open(const std::string& path, Accept accept) { doOpen(path, true, accept); }
void FileIo::openReadOnly(const std::string& path, Accept accept) { doOpen(path, false, accept); }

void FileIo::refuseKind(const std::string& path, const char* what, Accept accept) {
  const char* wanted = accept == Accept::RegularFile ? "a regular file" : "a regular file or a block device";
  throw Error(ErrorId::NotSupported, "Cannot use " + path + " -- it is " + what + ", not " + wanted)
      .with("path", path)
      .with("kind", what);
}

void FileIo::requireWritable() const {
  if (!writable_)
    throw Error(ErrorId::WriteProtected, "Cannot write " + path_ + " -- it could only be opened read-only")
        .with("path", path_);
}


void FileIo::readAt(uint64_t offset, void* buffer, size_t bytes) const {
  if (readSome(offset, buffer, bytes) != bytes)
    throw Error(ErrorId::ReadFailed, "Cannot read " + path_ + " -- unexpected end of file")
        .with("path", path_)
        .with("offset", std::to_string(offset));
}

}  // namespace Corvo::Disk
