// Files named on the command line (/ADDDISK=, /BATCH:, /DIAG:) and the kind of file they turn
// out to be. A FIFO, a socket or a device must be refused, never waited on.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

namespace Corvo::Core {

// Why the open file is not an accepted kind ("a FIFO", "a character device", ...), or null
// when it is one: a regular file always; a block device or disk and a terminal (console) when
// allowed. `native` is the file descriptor (POSIX) or the HANDLE (Windows).
const char* unacceptedFileKind(intptr_t native, bool blockDeviceOk, bool terminalOk);

// Opens a regular file or a terminal with a stdio mode ("rb", "a"), without waiting on a FIFO
// or a device. Returns null with `why` set to the system's reason or to what the file is.
std::FILE* openRegularOrTerminal(const std::string& path, const char* mode, std::string& why);

// True when both names reach the same existing file (links and different spellings included).
bool sameFile(const std::string& a, const std::string& b);

}  // namespace Corvo::Core
