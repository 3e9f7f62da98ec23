#include "core/FileKind.h"

#include <cerrno>
#include <cstring>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace Corvo::Core {

#if defined(_WIN32)

const char* unacceptedFileKind(intptr_t native, bool blockDeviceOk, bool terminalOk) {
  HANDLE h = reinterpret_cast<HANDLE>(native);
  switch (GetFileType(h)) {
    case FILE_TYPE_DISK: {
      BY_HANDLE_FILE_INFORMATION info{};
      // Files answer with their attributes; raw disks do not.
      if (GetFileInformationByHandle(h, &info)) {
        if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return "a folder";
        return nullptr;
      }
      return blockDeviceOk ? nullptr : "a disk device";
    }
    case FILE_TYPE_CHAR: {
      DWORD mode = 0;
      if (terminalOk && GetConsoleMode(h, &mode)) return nullptr;
      return "a character device";
    }
    case FILE_TYPE_PIPE: return "a pipe";
    default: return "a special file";
  }
}

std::FILE* openRegularOrTerminal(const std::string& path, const char* mode, std::string& why) {
  const bool append = mode[0] == 'a';
  int fd = _open(path.c_str(), append ? (_O_WRONLY | _O_CREAT | _O_APPEND | _O_BINARY) : (_O_RDONLY | _O_BINARY),
                 _S_IREAD | _S_IWRITE);
  if (fd < 0) {
    why = std::strerror(errno);
    return nullptr;
  }
  if (const char* what = unacceptedFileKind(_get_osfhandle(fd), false, true)) {
    _close(fd);
    why = std::string("it is ") + what + ", not a regular file or a terminal";
    return nullptr;
  }
  std::FILE* f = _fdopen(fd, mode);
  if (!f) {
    why = std::strerror(errno);
    _close(fd);
  }
  return f;
}

bool sameFile(const std::string& a, const std::string& b) {
  auto identity = [](const std::string& p, BY_HANDLE_FILE_INFORMATION& info) {
    HANDLE h = CreateFileA(p.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    bool ok = GetFileInformationByHandle(h, &info) != 0;
    CloseHandle(h);
    return ok;
  };
  BY_HANDLE_FILE_INFORMATION x{}, y{};
  return identity(a, x) && identity(b, y) && x.dwVolumeSerialNumber == y.dwVolumeSerialNumber &&
         x.nFileIndexHigh == y.nFileIndexHigh && x.nFileIndexLow == y.nFileIndexLow;
}

#else

const char* unacceptedFileKind(intptr_t native, bool blockDeviceOk, bool terminalOk) {
  const int fd = static_cast<int>(native);
  struct stat st {};
  if (fstat(fd, &st) != 0) return "of a kind that cannot be told";
  if (S_ISREG(st.st_mode)) return nullptr;
  if (S_ISBLK(st.st_mode)) return blockDeviceOk ? nullptr : "a block device";
  if (S_ISCHR(st.st_mode)) return terminalOk && isatty(fd) ? nullptr : "a character device";
  if (S_ISDIR(st.st_mode)) return "a folder";
  if (S_ISFIFO(st.st_mode)) return "a FIFO";
  if (S_ISSOCK(st.st_mode)) return "a socket";
  return "a special file";
}

std::FILE* openRegularOrTerminal(const std::string& path, const char* mode, std::string& why) {
  const bool append = mode[0] == 'a';
  // Non-blocking, so that opening a FIFO returns at once; cleared again for the transfers.
  int fd = ::open(path.c_str(), (append ? O_WRONLY | O_CREAT | O_APPEND : O_RDONLY) | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                  0666);
  if (fd < 0) {
    why = errno == ENXIO ? "it is a FIFO, not a regular file or a terminal" : std::strerror(errno);
    return nullptr;
  }
  if (const char* what = unacceptedFileKind(fd, false, true)) {
    ::close(fd);
    why = std::string("it is ") + what + ", not a regular file or a terminal";
    return nullptr;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  std::FILE* f = ::fdopen(fd, mode);
  if (!f) {
    why = std::strerror(errno);
    ::close(fd);
  }
  return f;
}

bool sameFile(const std::string& a, const std::string& b) {
  struct stat x {}, y {};
  return ::stat(a.c_str(), &x) == 0 && ::stat(b.c_str(), &y) == 0 && x.st_dev == y.st_dev && x.st_ino == y.st_ino;
}

#endif

}  // namespace Corvo::Core
