// /VIEW: prints sectors of a fixed disk as a hexadecimal and character dump, optionally one
// screen at a time. Read-only.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "core/Message.h"
#include "core/Trace.h"

namespace Kdisk {

using Corvo::Core::Error;
using Corvo::Core::message;
using Corvo::Core::messageSink;
using Corvo::Core::mkError;

namespace {

constexpr unsigned kLinesPerPage = 22;

// An unsigned decimal number with nothing else around it; false on overflow.
bool parseUnsigned(const std::string& text, uint64_t& out) {
  if (text.empty()) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    unsigned digit = static_cast<unsigned>(c - '0');
    if (v > (UINT64_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  out = v;
  return true;
}

// Appends one dump line: offset, 16 hex bytes in two groups of 8, and the printable characters.
// Written byte by byte: a long dump formats millions of these lines.
void appendLine(std::string& out, unsigned offset, const uint8_t* p) {
  static const char hex[] = "0123456789abcdef";
  char line[80];
  int n = 0;
  for (int shift = 28; shift >= 0; shift -= 4) line[n++] = hex[(offset >> shift) & 15];
  line[n++] = ' ';
  line[n++] = ' ';
  for (int i = 0; i < 16; ++i) {
    line[n++] = hex[p[i] >> 4];
    line[n++] = hex[p[i] & 15];
    line[n++] = ' ';
    if (i == 7) line[n++] = ' ';
  }
  line[n++] = ' ';
  for (int i = 0; i < 16; ++i) line[n++] = p[i] >= 0x20 && p[i] < 0x7F ? static_cast<char>(p[i]) : '.';
  line[n++] = '\n';
  out.append(line, static_cast<size_t>(n));
}

class Dumper {
 public:
  Dumper(FixedDisk& disk, bool page) : disk_(disk), page_(page) {}

  // 0 when every sector was shown or the user quit at a pause, 1 on a read failure.
  int run(uint64_t start, uint64_t count) {
    if (count < 1) return 0;
    Corvo::Disk::DiskDrive& drive = *disk_.drive;
    uint64_t capacity = std::max<uint32_t>(1, drive.preferredTransferBlocks());
    const size_t sectorBytes = drive.bytesPerBlock();
    std::vector<uint8_t> buffer(static_cast<size_t>(std::min(capacity, count)) * sectorBytes);
    uint64_t sector = start, remaining = count;
    while (remaining) {
      uint64_t run = std::min(capacity, remaining);
      try {
        drive.read(sector, run, buffer.data());
      } catch (const Error&) {
        message(mkError, "Failed to read starting at sector %s from fixed disk %u", std::to_string(sector).c_str(),
                disk_.index + 1);
        return 1;
      }
      out_.reserve(static_cast<size_t>(run) * 2700);
      for (uint64_t i = 0; i < run; ++i) {
        if (!showSector(sector + i, buffer.data() + i * sectorBytes, sectorBytes)) return 0;
      }
      flush();
      sector += run;
      remaining -= run;
    }
    return 0;
  }

 private:
  // False when the user chose to quit.
  bool showSector(uint64_t sector, const uint8_t* data, size_t bytes) {
    out_ += "\nPhysical Disk " + std::to_string(disk_.index + 1) + ", Sector " + std::to_string(sector) + ":\n";
    out_.append(57, '-');
    out_ += '\n';
    lines_ += 2;
    for (unsigned off = 0; off < bytes; off += 16) {
      appendLine(out_, off, data + off);
      ++lines_;
      if (page_ && lines_ >= kLinesPerPage && !pause()) return false;
    }
    return true;
  }

  void flush() {
    if (!out_.empty()) messageSink().output(out_);
    out_.clear();
  }

  bool pause() {
    flush();
    Corvo::Core::print("Press any key to continue or 'q' to quit...");
    int key = messageSink().readKey();
    Corvo::Core::print("\r");
    // End of input cannot answer any further pause either: stop as for 'q'.
    if (key < 0 || std::tolower(key) == 'q') return false;
    lines_ = 0;
    return true;
  }

  FixedDisk& disk_;
  bool page_;
  unsigned lines_ = 0;
  std::string out_;  // text not yet written
};

}  // namespace

int commandView(SwitchSet& set) {
  Corvo::Core::TraceScope scope("commandView");
  if (!set.validate({&swVIEW, &swNUM, &swPAGE, &swX, &swI, &swU, &swS, &swY, &swSURE, &swR, &swDIAG}, 0, 1)) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  uint32_t index = parseDiskNumber(set);
  if (index == kNoDisk) return 2;
  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;

  std::string startText;
  if (!set.isPresent(swVIEW, &startText)) {
    message(mkError, "Required switch missing -- /VIEW");
    return 2;
  }
  const uint64_t sectors = disk->drive->blockCount();
  const unsigned long long last = sectors ? sectors - 1 : 0;
  uint64_t start = 0;
  if (!parseUnsigned(startText, start) || start >= sectors) {
    message(mkError, "Invalid sector number -- %s.  For this disk, sector must be in the range 0..%llu",
            startText.c_str(), last);
    return 2;
  }
  uint64_t count = 1;
  std::string countText;
  if (set.isPresent(swNUM, &countText)) {
    if (!parseUnsigned(countText, count) || count == 0 || count > sectors - start) {
      message(mkError,
              "Invalid number of sectors -- %s.  For this disk, sector + sector number must be in the range 0..%llu",
              countText.c_str(), last);
      return 2;
    }
  }
  return Dumper(*disk, set.isPresent(swPAGE)).run(start, count);
}

}  // namespace Kdisk
