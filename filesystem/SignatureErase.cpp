#include "filesystem/SignatureErase.h"

#include <algorithm>

#include "core/Trace.h"

namespace Corvo::Filesystem {

using Disk::SectorRange;

namespace {
constexpr uint64_t kKiB = 1024 / Disk::kSectorSize;  // sectors per KiB
}  // namespace

std::vector<SectorRange> signatureAreas(uint64_t blocks) {
  std::vector<SectorRange> areas{{0, 68 * kKiB}};
  for (uint64_t kib = 128; kib <= 4096; kib *= 2) areas.push_back({kib * kKiB, 1});  // LUKS2 secondary headers
  for (uint64_t mirror : {uint64_t{64} << 10, uint64_t{256} << 20}) areas.push_back({mirror * kKiB, 4 * kKiB});
  areas.push_back({blocks / 2, 1});
  const uint64_t tail = std::min<uint64_t>(blocks, 128 * kKiB);
  areas.push_back({blocks - tail, tail});

  std::vector<SectorRange> out;
  std::sort(areas.begin(), areas.end(), [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
  for (SectorRange a : areas) {
    if (a.first >= blocks) continue;
    a.count = std::min(a.count, blocks - a.first);
    if (!out.empty() && a.first <= out.back().first + out.back().count)
      out.back().count = std::max(out.back().first + out.back().count, a.first + a.count) - out.back().first;
    else
      out.push_back(a);
  }
  return out;
}

void eraseSignatures(Disk::BlockDevice& device) {
  Core::TraceScope scope("eraseSignatures");
  const std::vector<SectorRange> areas = signatureAreas(device.blockCount());
  uint64_t largest = 0;
  for (const SectorRange& a : areas) largest = std::max(largest, a.count);
  const std::vector<uint8_t> zeros(static_cast<size_t>(largest) * Disk::kSectorSize, 0);
  for (const SectorRange& a : areas) device.write(a.first, a.count, zeros.data());
  // On the medium before the first structure of the new filesystem.
  device.flush();
}

}  // namespace Corvo::Filesystem
