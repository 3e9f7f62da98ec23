#include "app/Wipe.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "core/Error.h"
#include "core/Message.h"

namespace Kdisk {

using Corvo::Core::Error;
using Corvo::Core::ErrorId;
using Corvo::Core::message;
using Corvo::Core::mkError;
using Corvo::Core::mkWarning;
using Corvo::Disk::BlockDevice;
using Corvo::Disk::kSectorSize;

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

// Ctrl-C: what was written so far is flushed to the medium and the wipe ends with an error, so
// that the partition table is left alone.
void stopIfInterrupted(Corvo::Core::Progress& progress, BlockDevice& device) {
  if (!Corvo::Core::interruptRequested()) return;
  Error stop = progress.interruption("Wipe");
  device.flush();
  throw stop;
}

}  // namespace

std::vector<WipeExtent> wipeDevice(BlockDevice& device, int mode, unsigned customCount, unsigned partitionNumber,
                                   unsigned diskNumber, const std::vector<WipeExtent>& extents) {
  const unsigned passes = wipePassCount(mode, customCount);
  if (passes == 0) throw Error(ErrorId::InvalidArgument, "Invalid wipe mode");

  std::vector<WipeExtent> ranges = extents;
  if (ranges.empty()) ranges.push_back({0, device.blockCount()});
  uint64_t total = 0;
  for (const WipeExtent& e : ranges) total += e.count;

  std::srand(static_cast<unsigned>(std::time(nullptr)));
  const uint8_t pattern[3] = {0x35, 0xCA, drawWipeRandomByte()};
  message(mkWarning, "Partition will contain 0x%02X for all bytes in all sectors when wipe complete.\n",
          mode == wmQuick ? 0x00 : pattern[2]);

  const double megabytes = static_cast<double>(device.blockCount()) * kSectorSize / 1048576.0;
  std::string title = std::string(mode == wmDod ? "DoD 5220.22-M STD Wiping " : "Wiping ") +
                      Corvo::Core::format(" %.2fM", megabytes);
  Corvo::Core::Progress progress(title, total * passes);

  const uint64_t chunk = std::max<uint32_t>(1, device.preferredTransferBlocks());
  uint64_t largest = 0;
  for (const WipeExtent& e : ranges) largest = std::max(largest, e.count);
  std::vector<uint8_t> buffer(static_cast<size_t>(std::min(chunk, largest)) * kSectorSize);

  FailedRanges failed;
  for (unsigned pass = 0; pass < passes; ++pass) {
    progress.setPass(pass + 1, passes);
    const bool verifyPass = mode != wmQuick && pass == passes - 1;
    if (!verifyPass) std::memset(buffer.data(), mode == wmQuick ? 0x00 : pattern[pass % 3], buffer.size());
    auto transfer = [&](uint64_t first, uint64_t count) {
      if (verifyPass)
        device.verify(first, count);
      else
        device.write(first, count, buffer.data());
    };
    for (const WipeExtent& e : ranges) {
      for (uint64_t done = 0; done < e.count;) {
        stopIfInterrupted(progress, device);
        uint64_t n = std::min(chunk, e.count - done);
        uint64_t first = e.first + done;
        try {
          transfer(first, n);
        } catch (const Error&) {
          // Get past the failing chunk one sector at a time; sectors that still fail are
          // reported once the wipe is over.
          for (uint64_t s = first; s < first + n; ++s) {
            try {
              transfer(s, 1);
            } catch (const Error&) {
              failed.add(s);
            }
          }
        }
        progress.advance(n);
        done += n;
      }
    }
  }
  progress.complete();
  device.flush();

  std::vector<WipeExtent> bad = failed.list();
  for (const WipeExtent& e : bad)
    message(mkError, "Cannot write sectors %s to %s of partition %u on fixed disk %u", std::to_string(e.first).c_str(),
            std::to_string(e.first + e.count - 1).c_str(), partitionNumber, diskNumber);
  return bad;
}

std::vector<WipeExtent> wipePartition(Corvo::Disk::DiskDrive& drive, uint64_t first, uint64_t count, int mode,
                                      unsigned customCount, unsigned partitionNumber, unsigned diskNumber,
                                      const std::vector<WipeExtent>& keep) {
  if (!drive.isWritable())
    throw Error(ErrorId::UnsupportedSectorSize, "Writing to disks whose sectors are not 512 bytes is not supported");
  drive.prepareForChange(first, count);
  Corvo::Disk::RangeBlockDevice device(drive, first, count);

  // The extents to wipe: the whole range except the kept extents.
  std::vector<WipeExtent> kept = keep;
  std::sort(kept.begin(), kept.end(), [](const WipeExtent& a, const WipeExtent& b) { return a.first < b.first; });
  std::vector<WipeExtent> extents;
  uint64_t at = 0;
  for (const WipeExtent& k : kept) {
    uint64_t kFirst = std::min(k.first, count), kEnd = std::min(k.first + k.count, count);
    if (kFirst > at) extents.push_back({at, kFirst - at});
    at = std::max(at, kEnd);
  }
  if (at < count) extents.push_back({at, count - at});
  if (extents.empty()) return {};  // nothing of its own to overwrite
  return wipeDevice(device, mode, customCount, partitionNumber, diskNumber, extents);
}

}  // namespace Kdisk
