// Last-resort handling of a library error that reached the program's top level: the error is
// written to an error file with a short header, and the handler picks the exit code.
#pragma once
#include <string>
#include <vector>

#include "core/Error.h"

namespace Corvo::Core {

class AbortServerReporter {
 public:
  virtual ~AbortServerReporter() = default;

  // Writes the error file and tells the user where it is; returns the process exit code.
  virtual int handle(const Error& error);

  // Writes the header and the error report to the first folder of errorFileFolders() that
  // accepts the file. Returns the path written, or an empty string when no folder did.
  std::string writeErrorFile(const Error& error) const;

  // The five header lines (each without its newline), the last one empty.
  std::vector<std::string> header() const;

 protected:
  // First header line: product and full version.
  virtual std::string title() const = 0;
  // The notice; it takes two lines of the header.
  virtual std::string notice() const = 0;
  virtual std::string errorFileName() const = 0;
  // Folders tried in order; an empty entry is the current folder.
  virtual std::vector<std::string> errorFileFolders() const;
  // Tells the user what happened; path is empty when no error file could be written.
  virtual void announce(const Error& error, const std::string& path) const;
  virtual int exitCode() const { return 1; }
};

}  // namespace Corvo::Core
