#include "filesystem/SignatureErase.h"

#include <algorithm>

#include "core/Trace.h"

namespace Corvo::Filesystem {

using Disk::SectorRange;

namespace {
constexpr uint64_t kKiB = 1024;
}  // namespace

std::vector<SectorRange> signatureAreas(uint64_t blocks, uint32_t bytesPerBlock) {
  const uint64_t bytes = blocks * bytesPerBlock;
  // In bytes: offset and length.
  std::vector<SectorRange> areas{{0, 68 * kKiB}};
  for (uint64_t at = 128 * kKiB; at <= 4096 * kKiB; at *= 2) areas.push_back({at, 4 * kKiB});  // LUKS2 secondary headers
  for (uint64_t mirror : {uint64_t{64} << 20, uint64_t{256} << 30}) areas.push_back({mirror, 4 * kKiB});
  areas.push_back({blocks / 2 * bytesPerBlock, bytesPerBlock});
  const uint64_t tail = std::min<uint64_t>(bytes, 128 * kKiB);
  areas.push_back({bytes - tail, tail});

  std::vector<SectorRange> out;
  std::sort(areas.begin(), areas.end(), [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
  for (const SectorRange& a : areas) {
    // The blocks the bytes touch, on the device.
    const uint64_t first = a.first / bytesPerBlock;
    const uint64_t end = std::min(blocks, (a.first + a.count + bytesPerBlock - 1) / bytesPerBlock);
    if (first >= end) continue;
    if (!out.empty() && first <= out.back().first + out.back().count)
      out.back().count = std::max(out.back().first + out.back().count, end) - out.back().first;
    else
      out.push_back({first, end - first});
  }
  return out;
}

void eraseSignatures(Disk::BlockDevice& device) {
  Core::TraceScope scope("eraseSignatures");
  const uint32_t blockBytes = device.bytesPerBlock();
  const std::vector<SectorRange> areas = signatureAreas(device.blockCount(), blockBytes);
  uint64_t largest = 0;
  for (const SectorRange& a : areas) largest = std::max(largest, a.count);
  const std::vector<uint8_t> zeros(static_cast<size_t>(largest) * blockBytes, 0);
  for (const SectorRange& a : areas) device.write(a.first, a.count, zeros.data());
  // On the medium before the first structure of the new filesystem.
  device.flush();
}

}  // namespace Corvo::Filesystem
