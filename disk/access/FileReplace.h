// Whole-file reads and durable whole-file replacement for small files that must never be
// seen half written (boot.ini, boot-sector files, table backups): the new bytes go to a
// temporary file in the same folder, created exclusively under a fresh name (never an existing
// file or a link planted there), are flushed to the medium, and then take the file's name in
// one rename. A crash at any point leaves either the old file or the new one.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace Corvo::Disk {

bool fileExists(const std::string& path);

// Creates an empty file of that name, only when no file (or link) has the name yet. False
// when it cannot (the system's reason is the last system error).
bool createFileExclusively(const std::string& path);
// Removes the file; false when it cannot.
bool removeFile(const std::string& path);

// Reads the whole file. Throws Core::Error (OpenFailed, ReadFailed; NotSupported when it is
// not a regular file (a FIFO is refused, never waited on); InvalidArgument when it is larger
// than limit bytes).
std::string readWholeFile(const std::string& path, size_t limit);

// Makes path hold exactly bytes. An existing file keeps its permissions (POSIX) or its
// read-only, system and hidden attributes (Windows, cleared for the replacement and given
// back afterwards). Every flush is checked; on failure the old file is untouched, the
// temporary file is removed and Core::Error (WriteFailed) is thrown.
void writeFileDurably(const std::string& path, std::string_view bytes);

// writeFileDurably of previous to backupPath, then of bytes to path: the backup is on the
// medium before the file changes.
void replaceFileKeepingBackup(const std::string& path, std::string_view bytes, std::string_view previous,
                              const std::string& backupPath);

}  // namespace Corvo::Disk
