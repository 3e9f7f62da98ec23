// The program's handler for library errors that reach the top level: writes kdiskerr.txt
// beside the program and tells the user where it is.
#pragma once
#include <string>
#include <vector>

#include "core/AbortServerReporter.h"

namespace Kdisk {

class AbortServerReporterKdisk : public Corvo::Core::AbortServerReporter {
 public:
  // programPath: the program as started (first argument); its folder is tried first.
  explicit AbortServerReporterKdisk(std::string programPath) : programPath_(std::move(programPath)) {}

  // Denied disk access is reported on the console only; every other error gets the file.
  int handle(const Corvo::Core::Error& error) override;

 protected:
  std::string title() const override;
  std::string notice() const override;
  std::string errorFileName() const override;
  std::vector<std::string> errorFileFolders() const override;

 private:
  std::string programPath_;
};

}  // namespace Kdisk
