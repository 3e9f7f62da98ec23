#include "disk/access/FileReplace.h"

#include <cstdio>

#include "core/Error.h"
#include "core/System.h"
#include "disk/access/FileIo.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

namespace {

Error writeError(const std::string& path, const std::string& step) {
  return Error(ErrorId::WriteFailed, "Cannot write " + path + " -- " + step + ": " + Core::lastSystemErrorText())
      .with("path", path);
}

// A temporary file's name: beside the target, so that the rename stays on one volume, made of
// the process id and a count. It is created exclusively, so a name taken (or planted) by
// someone else is never used: the next count is tried.
std::string temporaryName(const std::string& path) {
  static unsigned count = 0;
#if defined(_WIN32)
  const unsigned long pid = GetCurrentProcessId();
#else
  const unsigned long pid = static_cast<unsigned long>(::getpid());
#endif
  char tail[48];
  std::snprintf(tail, sizeof tail, ".kdisk-%lu-%u.tmp", pid, count++);
  return path + tail;
}

}  // namespace

std::string readWholeFile(const std::string& path, size_t limit) {
  FileIo file;
  file.openReadOnly(path, FileIo::Accept::RegularFile);  // a FIFO or a device is refused, never waited on
  uint64_t size = file.size();
  if (size > limit)
    throw Error(ErrorId::InvalidArgument, path + " is larger than " + std::to_string(limit) + " bytes")
        .with("path", path);
  std::string bytes(static_cast<size_t>(size), '\0');
  file.readAt(0, bytes.data(), bytes.size());
  return bytes;
}

#if defined(_WIN32)

bool fileExists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

bool createFileExclusively(const std::string& path) {
  HANDLE h = CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  CloseHandle(h);
  return true;
}

bool removeFile(const std::string& path) { return DeleteFileA(path.c_str()) != 0; }

void writeFileDurably(const std::string& path, std::string_view bytes) {
  std::string temp;
  HANDLE h = INVALID_HANDLE_VALUE;
  // CREATE_NEW never opens what is there already (a file or a link); a taken name is retried.
  for (int attempt = 0; attempt < 16 && h == INVALID_HANDLE_VALUE; ++attempt) {
    temp = temporaryName(path);
    h = CreateFileA(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE && GetLastError() != ERROR_FILE_EXISTS) break;
  }
  if (h == INVALID_HANDLE_VALUE) throw writeError(temp, "cannot create the temporary file");
  DWORD put = 0;
  bool ok = WriteFile(h, bytes.data(), static_cast<DWORD>(bytes.size()), &put, nullptr) && put == bytes.size();
  std::string step = ok ? "" : "cannot write the temporary file";
  if (ok && !FlushFileBuffers(h)) ok = false, step = "cannot flush the temporary file";
  if (!CloseHandle(h) && ok) ok = false, step = "cannot close the temporary file";
  if (!ok) {
    Error e = writeError(temp, step);
    DeleteFileA(temp.c_str());
    throw e;
  }
  // Read-only, system and hidden files cannot be replaced: the bits are cleared for the
  // rename and given to the new file afterwards.
  const DWORD kept = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_HIDDEN;
  DWORD attributes = GetFileAttributesA(path.c_str());
  const bool existed = attributes != INVALID_FILE_ATTRIBUTES;
  if (existed && (attributes & kept) && !SetFileAttributesA(path.c_str(), attributes & ~kept)) {
    Error e = writeError(path, "cannot clear its read-only, system and hidden attributes");
    DeleteFileA(temp.c_str());
    throw e;
  }
  if (!MoveFileExA(temp.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    Error e = writeError(path, "cannot replace it with " + temp);
    DeleteFileA(temp.c_str());
    if (existed && (attributes & kept)) SetFileAttributesA(path.c_str(), attributes);
    throw e;
  }
  if (existed && (attributes & kept) && !SetFileAttributesA(path.c_str(), attributes & (kept | FILE_ATTRIBUTE_ARCHIVE)))
    throw writeError(path, "written, but its read-only, system and hidden attributes could not be set again");
}

#else

bool fileExists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

bool createFileExclusively(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

bool removeFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

void writeFileDurably(const std::string& path, std::string_view bytes) {
  struct stat old {};
  const bool existed = ::stat(path.c_str(), &old) == 0;
  // O_EXCL never opens what is there already, a file or a link; a taken name is retried.
  std::string temp;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    temp = temporaryName(path);
    fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, existed ? (old.st_mode & 07777) : 0644);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) throw writeError(temp, "cannot create the temporary file");
  std::string step;
  size_t done = 0;
  while (done < bytes.size() && step.empty()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) step = "cannot write the temporary file";
    else done += static_cast<size_t>(n);
  }
  if (step.empty() && existed && ::fchmod(fd, old.st_mode & 07777) != 0) step = "cannot copy the permissions";
  if (step.empty() && ::fsync(fd) != 0) step = "cannot flush the temporary file";
  if (::close(fd) != 0 && step.empty()) step = "cannot close the temporary file";
  if (step.empty() && ::rename(temp.c_str(), path.c_str()) != 0) step = "cannot rename the temporary file";
  if (!step.empty()) {
    Error e = writeError(temp, step);
    ::unlink(temp.c_str());
    throw e;
  }
  // The rename is on the medium only when the folder is.
  std::string folder = path.find('/') == std::string::npos ? std::string(".") : path.substr(0, path.rfind('/'));
  if (folder.empty()) folder = "/";
  int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) throw writeError(folder, "cannot open the folder to flush it");
  const bool synced = ::fsync(dir) == 0;
  ::close(dir);
  if (!synced) throw writeError(folder, "cannot flush the folder");
}

#endif

void replaceFileKeepingBackup(const std::string& path, std::string_view bytes, std::string_view previous,
                              const std::string& backupPath) {
  writeFileDurably(backupPath, previous);
  writeFileDurably(path, bytes);
}

}  // namespace Corvo::Disk
