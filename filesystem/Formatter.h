// The formatter interface: every filesystem the creation command can format a new partition
// with is a Formatter, found by its format kind in one registry (Formatter.cpp).
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "disk/BlockDevice.h"
#include "disk/PartitionedDisk.h"

namespace Corvo::Filesystem {

// What every format is asked with. The sector size is not an option: a formatter asks the
// device (bytesPerBlock()).
struct FormatOptions {
  std::optional<std::string> label;  // no label when not given or empty
  bool verify = false;               // full format: the data area is read back (FAT only)
  uint16_t sectorsPerTrack = 63;     // the disk's geometry, for the boot sector
  uint16_t heads = 255;
  uint32_t hiddenSectors = 0;        // the partition's first sector on the disk (32 bits wide)
  int versionCode = 0;               // per kind: the NTFS target (NtfsTarget); 0 the default
  // The partition's type byte and the FAT rules of the command (/-32, /NTFAT16): the FAT
  // formatter picks FAT12, FAT16 or FAT32 from them and the partition's size.
  uint8_t partitionType = 0;
  bool fat32Support = true, ntFat16 = false;
};

// What a finished format reports, in order: lines of text and counted lines (a number and
// what it counts). The front end prints it; no formatter prints its own summary.
struct FormatSummary {
  struct Line {
    std::string text;
    std::optional<uint64_t> count;
    bool operator==(const Line&) const = default;
  };
  std::vector<Line> lines;

  void say(std::string text) { lines.push_back({std::move(text), std::nullopt}); }
  void count(uint64_t value, std::string text) { lines.push_back({std::move(text), value}); }
  // The number of the counted line with this text; nullopt when there is none.
  std::optional<uint64_t> countOf(const std::string& text) const;
};

class Formatter {
 public:
  virtual ~Formatter() = default;
  virtual Disk::FormatKind kind() const = 0;
  // The message that refuses the label ("Invalid volume label -- ..."); empty when the label
  // may be used. Prints nothing.
  virtual std::string labelProblem(const std::string& label) const = 0;
  // Writes the filesystem over the whole device and returns its summary. Progress goes through
  // Core::Progress; failures are thrown as Core::Error (a failed step of the format names
  // itself in the error's "step" property), nothing is printed.
  virtual FormatSummary format(Disk::BlockDevice& device, const FormatOptions& options) const = 0;
};

// A formatter made of its kind, its label rule and its format function, which takes the
// common options or a kind's options derived from them (the extra fields left at their
// defaults).
template <typename Options>
class FormatterOf : public Formatter {
 public:
  using LabelRule = std::string (*)(const std::string& label);
  using FormatFunction = FormatSummary (*)(Disk::BlockDevice& device, const Options& options);
  FormatterOf(Disk::FormatKind kind, LabelRule labelRule, FormatFunction formatFunction)
      : kind_(kind), labelRule_(labelRule), format_(formatFunction) {}
  Disk::FormatKind kind() const override { return kind_; }
  std::string labelProblem(const std::string& label) const override { return labelRule_(label); }
  FormatSummary format(Disk::BlockDevice& device, const FormatOptions& options) const override {
    Options own;
    static_cast<FormatOptions&>(own) = options;
    return format_(device, own);
  }

 private:
  Disk::FormatKind kind_;
  LabelRule labelRule_;
  FormatFunction format_;
};

// The formatter of a format kind; nullptr for FormatKind::None and unknown kinds.
const Formatter* formatterFor(Disk::FormatKind kind);

// The error of a failed format step: the cause's id (or `id` when given), its text and
// properties, and the step's own message in the property "step".
Core::Error stepError(const char* step, const Core::Error& cause, std::optional<Core::ErrorId> id = std::nullopt);

}  // namespace Corvo::Filesystem
