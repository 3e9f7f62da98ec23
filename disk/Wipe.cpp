#include "disk/Wipe.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <new>
#include <string>

#include "core/Clock.h"
#include "core/Error.h"
#include "core/Message.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;
using Core::message;
using Core::mkError;
using Core::mkWarning;

unsigned wipePassCount(int mode, unsigned customCount) {
  switch (mode) {
    case wmQuick: return 1;
    case wmDod: return 19;
    case wmCustom: return 3 * customCount + 1;
    default: return 0;
  }
}

uint8_t drawWipeRandomByte() {
  uint8_t r = static_cast<uint8_t>(std::rand() & 0xFF);
  for (int i = 0; i < 1000 && (r == 0x35 || r == 0xCA); ++i) r = static_cast<uint8_t>(std::rand() & 0xFF);
  return r;
}

namespace {

// Sector ranges that could not be written, merged as they are added; each failing range is
// added once per pass, so the map stays as small as the number of distinct bad ranges.
class FailedRanges {
 public:
  void add(uint64_t sector) {
    auto next = ranges_.upper_bound(sector);
    if (next != ranges_.begin()) {
      auto prev = std::prev(next);
      if (sector < prev->first + prev->second) return;  // already known
      if (sector == prev->first + prev->second) {
        ++prev->second;
        if (next != ranges_.end() && next->first == sector + 1) {
          prev->second += next->second;
          ranges_.erase(next);
        }
        return;
      }
    }
    if (next != ranges_.end() && next->first == sector + 1) {
      uint64_t count = next->second + 1;
      ranges_.erase(next);
      ranges_[sector] = count;
      return;
    }
    ranges_[sector] = 1;
  }
  std::vector<WipeExtent> list() const {
    std::vector<WipeExtent> out;
    for (const auto& [first, count] : ranges_) out.push_back({first, count});
    return out;
  }

 private:
  std::map<uint64_t, uint64_t> ranges_;
};

// A zero-filled buffer aligned to 4096 bytes.
class PageBuffer {
 public:
  explicit PageBuffer(size_t bytes) : size_(bytes) {
    if (bytes) data_ = static_cast<uint8_t*>(::operator new(bytes, std::align_val_t{4096}));
    if (bytes) std::memset(data_, 0, bytes);
  }
  ~PageBuffer() {
    if (data_) ::operator delete(data_, std::align_val_t{4096});
  }
  PageBuffer(const PageBuffer&) = delete;
  PageBuffer& operator=(const PageBuffer&) = delete;
  uint8_t* data() { return data_; }
  size_t size() const { return size_; }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace

std::vector<WipeExtent> wipeDevice(BlockDevice& device, int mode, unsigned customCount, unsigned partitionNumber,
                                   unsigned diskNumber, const std::vector<WipeExtent>& extents) {
  const unsigned passes = wipePassCount(mode, customCount);
  if (passes == 0) throw Error(ErrorId::InvalidArgument, "Invalid wipe mode");
  device.requireWritable();

  std::vector<WipeExtent> ranges = extents;
  if (ranges.empty()) ranges.push_back({0, device.blockCount()});
  uint64_t total = 0;
  for (const WipeExtent& e : ranges) total += e.count;

  std::srand(static_cast<unsigned>(Core::currentTime()));
  const uint8_t pattern[3] = {0x35, 0xCA, drawWipeRandomByte()};
  message(mkWarning, "Partition will contain 0x%02X for all bytes in all sectors when wipe complete.\n",
          mode == wmQuick ? 0x00 : pattern[2]);

  const size_t sectorBytes = device.bytesPerBlock();
  const double megabytes = static_cast<double>(device.bytesOf(device.blockCount())) / 1048576.0;
  std::string title = std::string(mode == wmDod ? "DoD 5220.22-M STD Wiping " : "Wiping ") +
                      Core::format(" %.2fM", megabytes);
  Core::Progress progress(title, total * passes);

  const uint64_t chunk = std::max<uint32_t>(1, device.preferredTransferBlocks());
  uint64_t largest = 0;
  for (const WipeExtent& e : ranges) largest = std::max(largest, e.count);
  const size_t bufferBytes = static_cast<size_t>(std::min(chunk, largest)) * sectorBytes;
  // The pattern of the pass; during the verifying pass it still holds the last pattern
  // written, which the medium is compared with.
  // Page-aligned, so that a device writing past its cache can take them without a copy.
  PageBuffer buffer(bufferBytes);
  PageBuffer readBack(mode == wmQuick ? 0 : bufferBytes);

  FailedRanges failed;
  // One chunk: a write, or a read of the medium compared sector by sector with the pattern.
  auto transfer = [&](uint64_t first, uint64_t count, bool verifyPass) {
    if (!verifyPass) return device.writeMedium(first, count, buffer.data());
    device.readMedium(first, count, readBack.data());
    if (std::memcmp(readBack.data(), buffer.data(), static_cast<size_t>(count) * sectorBytes) == 0) return;
    for (uint64_t s = 0; s < count; ++s)
      if (std::memcmp(readBack.data() + s * sectorBytes, buffer.data() + s * sectorBytes, sectorBytes) != 0)
        failed.add(first + s);
  };
  try {
    for (unsigned pass = 0; pass < passes; ++pass) {
      progress.setPass(pass + 1, passes);
      const bool verifyPass = mode != wmQuick && pass == passes - 1;
      if (!verifyPass) std::memset(buffer.data(), mode == wmQuick ? 0x00 : pattern[pass % 3], buffer.size());
      for (const WipeExtent& e : ranges) {
        for (uint64_t done = 0; done < e.count;) {
          stopIfInterrupted(progress, device, "Wipe");
          uint64_t n = std::min(chunk, e.count - done);
          uint64_t first = e.first + done;
          try {
            transfer(first, n, verifyPass);
          } catch (const Error&) {
            // Get past the failing chunk one sector at a time; sectors that still fail are
            // reported once the wipe is over.
            for (uint64_t s = first; s < first + n; ++s) {
              try {
                transfer(s, 1, verifyPass);
              } catch (const Error&) {
                failed.add(s);
              }
            }
          }
          progress.advance(n);
          done += n;
        }
      }
      // The pass is on the medium before the next one begins (or the verifying read).
      if (!verifyPass) device.flush();
    }
  } catch (...) {
    progress.abandon();
    throw;
  }
  progress.complete();

  std::vector<WipeExtent> bad = failed.list();
  for (const WipeExtent& e : bad) {
    const std::string from = std::to_string(e.first), to = std::to_string(e.first + e.count - 1);
    if (partitionNumber == 0)
      message(mkError, "Cannot write sectors %s to %s of fixed disk %u", from.c_str(), to.c_str(), diskNumber);
    else
      message(mkError, "Cannot write sectors %s to %s of partition %u on fixed disk %u", from.c_str(), to.c_str(),
              partitionNumber, diskNumber);
  }
  return bad;
}

std::string unwrittenSectorsText(const std::vector<WipeExtent>& failed) {
  uint64_t sectors = 0;
  for (const WipeExtent& e : failed) sectors += e.count;
  return std::to_string(sectors) + (sectors == 1 ? " sector" : " sectors") + " could not be written";
}

std::vector<WipeExtent> extentsOutside(uint64_t count, std::vector<WipeExtent> keep) {
  std::sort(keep.begin(), keep.end(), [](const WipeExtent& a, const WipeExtent& b) { return a.first < b.first; });
  std::vector<WipeExtent> extents;
  uint64_t at = 0;
  for (const WipeExtent& k : keep) {
    uint64_t kFirst = std::min(k.first, count), kEnd = std::min(k.first + k.count, count);
    if (kFirst > at) extents.push_back({at, kFirst - at});
    at = std::max(at, kEnd);
  }
  if (at < count) extents.push_back({at, count - at});
  return extents;
}

std::vector<WipeExtent> wipePartition(DiskDrive& drive, uint64_t first, uint64_t count, int mode,
                                      unsigned customCount, unsigned partitionNumber, unsigned diskNumber,
                                      const std::vector<WipeExtent>& keep) {
  drive.requireWritable();
  drive.prepareForChange(first, count);
  RangeBlockDevice device(drive, first, count);

  std::vector<WipeExtent> extents = extentsOutside(count, keep);
  if (extents.empty()) return {};  // nothing of its own to overwrite
  return wipeDevice(device, mode, customCount, partitionNumber, diskNumber, extents);
}

}  // namespace Corvo::Disk
