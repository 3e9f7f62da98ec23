// The fixed disk table: one record per disk of the disk manager, in the manager's order, with
// every accessible disk's partition tables read and checked once per command line.
#include "app/FixedDisks.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "app/Consistency.h"
#include "core/Config.h"
#include "core/Message.h"
#include "core/Trace.h"

namespace Kdisk {

using Corvo::Core::Error;
using Corvo::Core::ErrorId;
using Corvo::Core::message;
using Corvo::Core::mkError;

namespace {

std::vector<std::unique_ptr<FixedDisk>>& table() {
  static std::vector<std::unique_ptr<FixedDisk>> t;
  return t;
}

std::string statusText(const FixedDisk& d) {
  if (d.status) return d.status->text();
  return "The disk could not be opened";
}

// How long a writing command waits for another program to let go of a disk.
constexpr unsigned kLockWaitMilliseconds = 5000;

// Why the disk cannot be used, as the command reports it: a disk held by another program is
// named alone, any other failure under "Cannot access fixed disk".
void reportStatus(const FixedDisk& d) {
  if (d.status && !d.status->property("heldElsewhere").empty())
    message(mkError, "%s", d.status->text().c_str());
  else
    message(mkError, "Cannot access fixed disk %u -- %s", d.index + 1, statusText(d).c_str());
}

// Scans a whole decimal int the way "%d%c" accepts exactly one item: optional blanks, an
// optional sign, digits, and nothing after them. Values outside int are not numbers.
bool scanInt(const std::string& text, long& out) {
  const char* s = text.c_str();
  while (std::isspace(static_cast<unsigned char>(*s))) ++s;
  const char* digits = s;
  if (*digits == '+' || *digits == '-') ++digits;
  if (!std::isdigit(static_cast<unsigned char>(*digits))) return false;
  errno = 0;
  char* end = nullptr;
  long v = std::strtol(s, &end, 10);
  if (errno == ERANGE || v < INT_MIN || v > INT_MAX || *end != '\0') return false;
  out = v;
  return true;
}

// Compares the first characters of value with keyword (its whole length), ignoring case.
bool startsWithKeyword(const std::string& value, const char* keyword) {
  size_t i = 0;
  for (; keyword[i]; ++i) {
    if (i >= value.size()) return false;
    if (std::toupper(static_cast<unsigned char>(value[i])) != keyword[i]) return false;
  }
  return true;
}

}  // namespace

void buildFixedDiskTable(bool exclusive) {
  Corvo::Core::TraceScope scope("buildFixedDiskTable");
  releaseFixedDiskTable();
  exclusive = exclusive && !Corvo::Core::Config::getBool("DestinationDiskLocker::Disable", false);
  auto& manager = Corvo::Disk::DiskManager::instance();
  for (size_t i = 0; i < manager.driveCount() && i < kMaxFixedDisks; ++i) {
    auto record = std::make_unique<FixedDisk>();
    record->index = static_cast<uint32_t>(i);
    record->drive = manager.getDrive(i);
    if (!record->drive) {
      record->status = manager.openError(i);
      if (!record->status)
        record->status = Error(ErrorId::OpenFailed, "The disk could not be opened").with("path", manager.pathOf(i));
    } else if (exclusive && !record->drive->lockExclusive(kLockWaitMilliseconds)) {
      record->status = Error(ErrorId::InUse, Corvo::Core::format("Fixed disk %u is in use by another program", record->index + 1))
                           .with("heldElsewhere", "1");
    } else {
      record->locked = exclusive;
      try {
        record->layout = Corvo::Disk::PartitionedDisk::load(*record->drive);
        checkPartitionTables(*record->layout, record->index, record->drive->isBootDisk());
      } catch (...) {
        // The disk keeps its number; its error is what every command reports for it, and the
        // other disks stay usable whatever went wrong here (memory running out included).
        record->layout.reset();
        record->status = Corvo::Core::currentExceptionAsError(ErrorId::ReadFailed, "Cannot read the partition tables");
      }
    }
    table().push_back(std::move(record));
  }
}

void releaseFixedDiskTable() {
  for (auto& r : table())
    if (r->locked && r->drive) r->drive->unlockExclusive();
  table().clear();
}

void adoptFixedDisk(std::unique_ptr<FixedDisk> record) {
  if (table().size() < kMaxFixedDisks) table().push_back(std::move(record));
}

std::vector<FixedDisk*> fixedDisks() {
  std::vector<FixedDisk*> out;
  for (auto& r : table()) out.push_back(r.get());
  return out;
}

uint32_t parseDiskNumber(const SwitchSet& set) {
  const std::string* param = set.firstParameter();
  if (!param) {
    message(mkError, "Required parameter missing -- fixed disk number");
    return kNoDisk;
  }
  long n = 0;
  if (!scanInt(*param, n) || n - 1 < 0) {
    message(mkError, "Invalid fixed disk number -- %s", Corvo::Core::visibleText(*param).c_str());
    return kNoDisk;
  }
  return static_cast<uint32_t>(n - 1);
}

FixedDisk* findDisk(uint32_t index) {
  for (auto& r : table()) {
    if (r->index != index) continue;
    if (!r->ok()) {
      reportStatus(*r);
      return nullptr;
    }
    reportInaccessibleDisks();
    return r.get();
  }
  message(mkError, "No such fixed disk -- %u", index + 1);
  return nullptr;
}

void reportInaccessibleDisks() {
  for (auto& r : table())
    if (!r->ok()) reportStatus(*r);
}

int selectDiskList(const SwitchSet& set, std::vector<uint32_t>& list) {
  const std::string* param = set.firstParameter();
  uint32_t index = kNoDisk;
  if (param) index = parseDiskNumber(set);
  std::string value;
  if (!set.isPresent(swDISK, &value)) {
    if (!param) {
      message(mkError, "Required parameter missing -- fixed disk number");
      return 2;
    }
    list.push_back(index);  // an invalid number was reported already and stays all-ones
    return 0;
  }
  if (index != kNoDisk) {
    message(mkError, "Conflicting disk parameters. Specify either disk number or disk parameter.");
    return 2;
  }
  if (startsWithKeyword(value, "SYSTEM")) {
    uint32_t sys = systemDisk();
    if (sys == kNoDisk) {
      message(mkError, "Failed to determine system disk");
      return 2;
    }
    list.push_back(sys);
    return 0;
  }
  if (startsWithKeyword(value, "ALL")) {
    for (auto& r : table()) list.push_back(r->index);
    return 0;
  }
  message(mkError, "Invalid disk parameter: %s", value.c_str());
  return 2;
}

uint32_t systemDisk() {
  for (auto& r : table())
    if (r->drive && r->drive->isBootDisk()) return r->index;
  return kNoDisk;
}

}  // namespace Kdisk
