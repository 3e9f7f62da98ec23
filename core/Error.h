// Error objects of the library: a numeric id, a message text and named properties.
// The library throws them; the front end turns them into messages and exit codes.
#pragma once
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Corvo::Core {

enum class ErrorId : int {
  Internal = 1,
  InvalidArgument = 2,
  OutOfRange = 3,        // a block access outside a device
  ReadFailed = 4,
  WriteFailed = 5,       // also the FAT formatter's bad-sector status
  VerifyFailed = 6,
  OpenFailed = 7,
  AccessDenied = 8,
  NoSuchDisk = 9,
  UnsupportedSectorSize = 10,  // writes refused on disks whose sectors are not 512 bytes
  InvalidImage = 11,     // a broken or unsupported image file (VMDK and the like)
  InvalidTable = 12,     // a partition table that cannot be used
  InUse = 13,            // a partition or volume that is mounted or cannot be locked
  NoSpace = 14,
  NotSupported = 15,
  OsLayoutFailed = 16,
  BadStartupSwitch = 17,
  FormatFailed = 18,
  BpbFailed = 19,
  WriteProtected = 20,
  Overlap = 21,
  Interrupted = 22,      // Ctrl-C stopped a long operation at a chunk boundary
};

class Error : public std::runtime_error {
 public:
  using Properties = std::vector<std::pair<std::string, std::string>>;

  Error(ErrorId id, const std::string& text, Properties props = {})
      : std::runtime_error(text), id_(id), props_(std::move(props)) {}

  ErrorId id() const { return id_; }
  int numericId() const { return static_cast<int>(id_); }
  std::string text() const { return what(); }
  const Properties& properties() const { return props_; }
  std::string property(const std::string& name) const;
  Error& with(const std::string& name, const std::string& value) {
    props_.emplace_back(name, value);
    return *this;
  }
  // Multi-line report: id, text and every property, one per line.
  std::string report() const;

 private:
  ErrorId id_;
  Properties props_;
};

// Called inside a catch block: the exception being handled as an error object. Error objects
// pass unchanged; anything else (std::bad_alloc included) becomes an error of the given id with
// the text "<context> -- <reason>".
Error currentExceptionAsError(ErrorId id, const std::string& context);

}  // namespace Corvo::Core
