// Lays out and writes a new exFAT volume. The allocation bitmap, the up-case table and the
// root directory take the first clusters of the heap, each contiguous and chained in the FAT.
#include <algorithm>
#include <cstring>

#include "core/Clock.h"
#include "core/Endian.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "core/Utf.h"
#include "filesystem/exfat/Exfat.h"
#include "filesystem/exfat/ExfatStructures.h"
#include "filesystem/fat/Fat.h"

namespace Corvo::Filesystem {

using Core::Error;
using Core::ErrorId;
namespace X = Exfat;

namespace {

constexpr uint64_t kKiB = 1024, kMiB = 1024 * kKiB, kGiB = 1024 * kMiB;
// Zeroing goes in pieces of this size, with a look at Ctrl-C between them.
constexpr uint64_t kZeroChunkBytes = 64 * kMiB;
// Sectors zeroed at the end of the partition, where old signatures (a RAID superblock, another
// filesystem's backup boot sector) would otherwise survive.
constexpr uint64_t kTailSectors = 256;

uint64_t alignUp(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

uint8_t log2Of(uint64_t value) {
  uint8_t shift = 0;
  while ((uint64_t{1} << shift) < value) ++shift;
  return shift;
}

void putBytes(uint8_t* base, X::Bytes field, const void* data, size_t size) {
  std::memcpy(base + field.offset, data, std::min(size, field.size));
}

struct Identity {
  std::string label;
  std::u16string labelUnits;
  uint32_t serial = 0;
};

// The main boot region: boot sector, extended boot sectors, OEM parameters (no parameters),
// the reserved sector and the checksum sector. The backup region is the same bytes.
std::vector<uint8_t> bootRegion(const ExfatLayout& L, const ExfatFormatOptions& options, const Identity& id) {
  namespace B = X::Boot;
  const uint32_t S = L.bytesPerSector;
  std::vector<uint8_t> region(size_t{S} * X::kBootRegionSectors, 0);
  uint8_t* boot = region.data();
  putBytes(boot, B::jumpBoot, X::kJumpBoot, sizeof X::kJumpBoot);
  putBytes(boot, B::fileSystemName, X::kFileSystemName, B::fileSystemName.size);
  B::partitionOffset.put(boot, options.firstSector);
  B::volumeLength.put(boot, L.volumeSectors);
  B::fatOffset.put(boot, L.fatOffset);
  B::fatLength.put(boot, L.fatLength);
  B::clusterHeapOffset.put(boot, L.clusterHeapOffset);
  B::clusterCount.put(boot, L.clusterCount);
  B::rootDirectoryCluster.put(boot, L.rootCluster());
  B::volumeSerial.put(boot, id.serial);
  B::fileSystemRevision.put(boot, X::kRevision);
  B::bytesPerSectorShift.put(boot, log2Of(S));
  B::sectorsPerClusterShift.put(boot, log2Of(L.sectorsPerCluster));
  B::numberOfFats.put(boot, 1);
  B::driveSelect.put(boot, X::kDriveSelect);
  B::percentInUse.put(boot, static_cast<uint8_t>(uint64_t{L.usedClusters()} * 100 / L.clusterCount));
  std::memset(boot + B::bootCode.offset, X::kHalt, B::bootCode.size);
  B::bootSignature.put(boot, X::kBootSignature);
  for (uint32_t i = 1; i <= X::kExtendedBootSectors; ++i)
    Core::put32(boot + size_t{S} * (i + 1) - 4, X::kExtendedBootSignature);
  const uint32_t sum = X::bootChecksum(region.data(), S);
  uint8_t* checksums = boot + size_t{S} * X::kChecksumSector;
  for (uint32_t at = 0; at < S; at += 4) Core::put32(checksums + at, sum);
  return region;
}

// The FAT's first sectors: entries 0 and 1, then the chains of the bitmap, the up-case table
// and the root directory (cluster 2 up to the root's cluster).
std::vector<uint8_t> fatHead(const ExfatLayout& L) {
  const uint32_t entries = L.rootCluster() + 1;
  std::vector<uint8_t> fat(alignUp(uint64_t{entries} * X::kFatEntryBytes, L.bytesPerSector), 0);
  Core::put32(&fat[0], X::kFatMediaEntry);
  Core::put32(&fat[4], X::kFatEntry1);
  auto chain = [&fat](uint32_t first, uint32_t count) {
    for (uint32_t c = first; c < first + count; ++c)
      Core::put32(&fat[size_t{c} * X::kFatEntryBytes], c + 1 < first + count ? c + 1 : X::kEndOfChain);
  };
  chain(L.bitmapCluster(), L.bitmapClusters);
  chain(L.upcaseCluster(), L.upcaseClusters);
  chain(L.rootCluster(), 1);
  return fat;
}

// The bitmap's first sectors: one bit per used cluster, cluster 2 in the lowest bit.
std::vector<uint8_t> bitmapHead(const ExfatLayout& L) {
  const uint32_t used = L.usedClusters();
  std::vector<uint8_t> bits(alignUp((used + 7) / 8, L.bytesPerSector), 0);
  for (uint32_t i = 0; i < used; ++i) bits[i / 8] = static_cast<uint8_t>(bits[i / 8] | (1u << (i % 8)));
  return bits;
}

// The root directory's cluster: the volume label (or an unused label entry), the allocation
// bitmap and the up-case table. No volume GUID entry: checkers in common use take it for damage.
std::vector<uint8_t> rootDirectory(const ExfatLayout& L, const Identity& id) {
  std::vector<uint8_t> dir(L.clusterBytes(), 0);
  uint8_t* e = dir.data();
  if (id.labelUnits.empty()) {
    X::Entry::type.put(e, X::kTypeNoVolumeLabel);
  } else {
    X::Entry::type.put(e, X::kTypeVolumeLabel);
    X::Label::characterCount.put(e, static_cast<uint8_t>(id.labelUnits.size()));
    for (size_t i = 0; i < id.labelUnits.size(); ++i)
      Core::put16(e + X::Label::volumeLabel.offset + 2 * i, static_cast<uint16_t>(id.labelUnits[i]));
  }
  e += X::kEntryBytes;
  X::Entry::type.put(e, X::kTypeAllocationBitmap);
  X::Bitmap::flags.put(e, 0);  // the first (only) bitmap
  X::Bitmap::firstCluster.put(e, L.bitmapCluster());
  X::Bitmap::dataLength.put(e, L.bitmapBytes);
  e += X::kEntryBytes;
  const std::vector<uint8_t>& upcase = exfatUpcaseTable();
  X::Entry::type.put(e, X::kTypeUpcaseTable);
  X::Upcase::tableChecksum.put(e, X::tableChecksum(upcase.data(), upcase.size()));
  X::Upcase::firstCluster.put(e, L.upcaseCluster());
  X::Upcase::dataLength.put(e, upcase.size());
  return dir;
}

// Writes and zeros in the device's sectors, counting progress and stopping at Ctrl-C between
// pieces (never once the main boot sector is due).
class Writer {
 public:
  Writer(Disk::BlockDevice& device, Core::Progress& progress, uint32_t bytesPerSector)
      : device_(device), progress_(progress), sector_(bytesPerSector) {}
  void write(uint64_t first, const std::vector<uint8_t>& data) {
    device_.write(first, data.size() / sector_, data.data());
    progress_.advance(data.size() / sector_);
  }
  void zero(uint64_t first, uint64_t count) {
    const uint64_t chunk = kZeroChunkBytes / sector_;
    for (uint64_t at = first; at < first + count; at += chunk) {
      Disk::stopIfInterrupted(progress_, device_, "Format");
      const uint64_t n = std::min(chunk, first + count - at);
      device_.writeZeros(at, n);
      progress_.advance(n);
    }
  }
  // Everything so far on the medium; then Ctrl-C may still stop the format.
  void settle() {
    device_.flush();
    Disk::stopIfInterrupted(progress_, device_, "Format");
  }

 private:
  Disk::BlockDevice& device_;
  Core::Progress& progress_;
  uint32_t sector_;
};

FormatSummary summaryOf(const ExfatLayout& L, const Identity& id) {
  FormatSummary s;
  s.say(id.label.empty() ? "Volume has no label" : "Volume label is " + id.label);
  s.say(Core::format("Volume Serial Number is %04X-%04X", id.serial >> 16, id.serial & 0xFFFF));
  const uint64_t cb = L.clusterBytes();
  s.count(cb * L.clusterCount, "bytes total disk space");
  s.count(cb * L.freeClusters(), "bytes available on disk");
  s.count(cb, "bytes in each allocation unit");
  s.count(L.clusterCount, "total allocation units on disk");
  s.count(L.freeClusters(), "available allocation units on disk");
  return s;
}

}  // namespace

std::string exfatLabelProblem(const std::string& label) {
  const std::u16string units = Core::utf16FromUtf8(label);
  if (units.size() > X::kLabelUnits) return "Invalid volume label -- maximum of 11 characters for exFAT";
  for (char16_t c : units) {
    if (c < 0x20) return "Invalid volume label -- may not contain unprintable characters";
    if (c < 0x80 && std::strchr("\"*/:<>?\\|", static_cast<char>(c)))
      return "Invalid volume label -- may not contain any of the following characters: \" * / : < > ? \\ |";
  }
  return {};
}

ExfatLayout planExfat(uint64_t sectors, uint32_t bytesPerSector) {
  if (bytesPerSector < 512 || bytesPerSector > 4096 || (bytesPerSector & (bytesPerSector - 1)))
    throw Error(ErrorId::UnsupportedSectorSize, "exFAT volumes have sectors of 512 to 4096 bytes")
        .with("bytesPerSector", std::to_string(bytesPerSector));
  const Error tooSmall(ErrorId::FormatFailed, "The partition is too small for an exFAT volume");
  const uint64_t bytes = sectors * bytesPerSector;
  if (bytes < kMiB) throw tooSmall;
  ExfatLayout L;
  L.bytesPerSector = bytesPerSector;
  L.volumeSectors = sectors;
  const uint64_t clusterBytes = bytes <= 256 * kMiB ? 4 * kKiB : bytes <= 32 * kGiB ? 32 * kKiB : 128 * kKiB;
  L.sectorsPerCluster = static_cast<uint32_t>(clusterBytes / bytesPerSector);
  const uint64_t align = (clusterBytes >= 32 * kKiB ? kMiB : clusterBytes) / bytesPerSector;
  const uint64_t fatOffset = alignUp(2 * X::kBootRegionSectors, align);
  if (sectors <= fatOffset) throw tooSmall;
  // The FAT is sized for every cluster the space after it could hold; the heap's alignment only
  // takes clusters away.
  const uint64_t most = std::min<uint64_t>((sectors - fatOffset) / L.sectorsPerCluster, X::kMaxClusters);
  const uint64_t fatLength = alignUp((most + 2) * X::kFatEntryBytes, bytesPerSector) / bytesPerSector;
  const uint64_t heap = alignUp(fatOffset + fatLength, align);
  if (heap >= sectors) throw tooSmall;
  const uint64_t clusters = (sectors - heap) / L.sectorsPerCluster;
  if (clusters > X::kMaxClusters || heap > 0xFFFFFFFFull)
    throw Error(ErrorId::FormatFailed, "The partition is too large for an exFAT volume")
        .with("sectors", std::to_string(sectors));
  L.fatOffset = static_cast<uint32_t>(fatOffset);
  L.fatLength = static_cast<uint32_t>(fatLength);
  L.clusterHeapOffset = static_cast<uint32_t>(heap);
  L.clusterCount = static_cast<uint32_t>(clusters);
  L.bitmapBytes = (clusters + 7) / 8;
  L.bitmapClusters = static_cast<uint32_t>(alignUp(L.bitmapBytes, clusterBytes) / clusterBytes);
  L.upcaseClusters = static_cast<uint32_t>(alignUp(exfatUpcaseTable().size(), clusterBytes) / clusterBytes);
  if (L.clusterCount <= L.usedClusters()) throw tooSmall;
  return L;
}

FormatSummary formatExfat(Disk::BlockDevice& device, const ExfatFormatOptions& options) {
  Core::TraceScope trace("formatExfat");
  Identity id;
  id.label = options.label.value_or("");
  if (const std::string problem = exfatLabelProblem(id.label); !problem.empty())
    throw Error(ErrorId::InvalidArgument, problem).with("label", id.label);
  id.labelUnits = Core::utf16FromUtf8(id.label);
  const uint32_t S = device.bytesPerBlock();
  const ExfatLayout L = planExfat(device.blockCount(), S);
  device.requireWritable();  // a disk that takes no writes at all is refused before the first
  id.serial = options.serial ? *options.serial : fatVolumeSerial(Core::localNow());

  const std::vector<uint8_t> boot = bootRegion(L, options, id);
  const std::vector<uint8_t> mainRest(boot.begin() + S, boot.end());
  const std::vector<uint8_t> mainBootSector(boot.begin(), boot.begin() + S);
  const std::vector<uint8_t>& upcase = exfatUpcaseTable();
  std::vector<uint8_t> upcaseSectors(upcase);
  upcaseSectors.resize(alignUp(upcase.size(), S), 0);
  // Where the metadata ends: the root directory's cluster is the last one in use.
  const uint64_t metadataEnd = L.clusterSector(L.rootCluster() + 1);
  const uint64_t total = device.blockCount();
  const uint64_t tailFirst = std::max(metadataEnd, total > kTailSectors ? total - kTailSectors : 0);

  Core::Progress progress(Core::format("QuickFormatting %.2fM", double(total) * S / kMiB), metadataEnd + (total - tailFirst));
  try {
    Writer out(device, progress, S);
    // Whatever volume was here stops counting before anything new is written. Where the device
    // zeros the whole partition without writing it (a sparse image, a disk's own zero-out),
    // nothing else needs zeroing.
    const bool allZero = device.zeroQuickly(0, total);
    if (!allZero) out.zero(0, 2 * X::kBootRegionSectors);
    out.settle();
    if (!allZero) {
      out.zero(2 * X::kBootRegionSectors, metadataEnd - 2 * X::kBootRegionSectors);
      out.zero(tailFirst, total - tailFirst);
    }
    out.write(L.fatOffset, fatHead(L));
    out.write(L.clusterSector(L.bitmapCluster()), bitmapHead(L));
    out.write(L.clusterSector(L.upcaseCluster()), upcaseSectors);
    out.write(L.clusterSector(L.rootCluster()), rootDirectory(L, id));
    out.write(1, mainRest);
    out.settle();
    // The backup boot region describes a volume that is now on the medium; the main boot
    // sector, which makes it a volume, comes last.
    out.write(X::kBackupBootRegion, boot);
    out.settle();
    out.write(0, mainBootSector);
    device.flush();
  } catch (const Error&) {
    progress.abandon();
    throw;
  }
  progress.complete();
  return summaryOf(L, id);
}

}  // namespace Corvo::Filesystem
