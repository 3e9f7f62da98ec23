#include "filesystem/fat/Fat.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <map>

#include "core/Clock.h"
#include "core/Endian.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/layout/PartitionTypes.h"
#include "filesystem/fat/BootCode.h"
#include "filesystem/fat/FatStructures.h"

namespace Corvo::Filesystem {

using Core::Error;
using Core::ErrorId;
using Core::get32;
using Core::put32;

namespace {

// The sector size the BPB records and the one the FAT sectors below are built for; the
// formatter refuses devices with other sectors (requireSectorSize).
constexpr uint32_t kSector = 512;
constexpr uint32_t kDirEntrySize = FatDirEntry::kSize;
// FAT32's reserved area: FSInfo in sector 1, a third boot sector in 2, the backup copies of
// all three from sector 6; the root directory is cluster 2.
constexpr uint16_t kFsInfoSector = 1, kBackupBootSector = 6;
constexpr uint32_t kFat32RootCluster = 2;
// Upper bound of the zero-fill and verify buffer, whatever transfer length the device asks for.
constexpr uint32_t kMaxWorkBlocks = 16384;

const char kForbiddenLabelChars[] = "*?/\\|.,;:+=[]()&^<>\"";

// The label as stored on disk: 11 bytes, space-padded.
void putPaddedName(uint8_t* p, const std::string& text, size_t width) {
  std::memset(p, ' ', width);
  std::memcpy(p, text.data(), std::min(text.size(), width));
}

uint16_t dosTime(const std::tm& t) {
  return static_cast<uint16_t>((t.tm_hour << 11) | (t.tm_min << 5) | (std::min(t.tm_sec, 59) / 2));
}
uint16_t dosDate(const std::tm& t) {
  int year = std::clamp(t.tm_year - 80, 0, 127);
  return static_cast<uint16_t>((year << 9) | ((t.tm_mon + 1) << 5) | t.tm_mday);
}

bool isMediaError(ErrorId id) {
  return id == ErrorId::ReadFailed || id == ErrorId::WriteFailed || id == ErrorId::VerifyFailed;
}

// Throws the failed step's error. The FAT steps (writing the FATs, verifying the data area and
// marking bad clusters in the FATs) report the bad-sector status (WriteFailed) whatever the
// device said; the other steps pass the device's own status through.
enum class StepStatus { Device, BadSectors };
[[noreturn]] void stepFailed(Core::Progress& progress, const char* step, const Error& e,
                             StepStatus status = StepStatus::Device) {
  progress.abandon();
  if (status == StepStatus::BadSectors) throw stepError(step, e, ErrorId::WriteFailed);
  throw stepError(step, e);
}

// FAT entries of one FAT copy that differ from a freshly written FAT, kept by sector.
class FatPatch {
 public:
  FatPatch(unsigned bits, std::array<uint8_t, kSector> firstSector) : bits_(bits), first_(firstSector) {}
  void set(uint32_t cluster, uint32_t value) {
    switch (bits_) {
      case 12: {
        uint64_t off = uint64_t(cluster) * 3 / 2;
        if (cluster & 1) {
          byteAt(off) = static_cast<uint8_t>((byteAt(off) & 0x0F) | ((value << 4) & 0xF0));
          byteAt(off + 1) = static_cast<uint8_t>(value >> 4);
        } else {
          byteAt(off) = static_cast<uint8_t>(value);
          byteAt(off + 1) = static_cast<uint8_t>((byteAt(off + 1) & 0xF0) | ((value >> 8) & 0x0F));
        }
        break;
      }
      case 16:
        for (unsigned i = 0; i < 2; ++i) byteAt(uint64_t(cluster) * 2 + i) = static_cast<uint8_t>(value >> (8 * i));
        break;
      default:
        for (unsigned i = 0; i < 4; ++i) byteAt(uint64_t(cluster) * 4 + i) = static_cast<uint8_t>(value >> (8 * i));
        break;
    }
  }
  const std::map<uint32_t, std::array<uint8_t, kSector>>& sectors() const { return sectors_; }

 private:
  uint8_t& byteAt(uint64_t offset) {
    uint32_t index = static_cast<uint32_t>(offset / kSector);
    auto it = sectors_.find(index);
    if (it == sectors_.end()) {
      std::array<uint8_t, kSector> s{};
      if (index == 0) s = first_;
      it = sectors_.emplace(index, s).first;
    }
    return it->second[offset % kSector];
  }
  unsigned bits_;
  std::array<uint8_t, kSector> first_;
  std::map<uint32_t, std::array<uint8_t, kSector>> sectors_;
};

}  // namespace

std::string fatLabelProblem(const std::string& label) {
  if (label.size() > 11) return "Invalid volume label -- maximum of 11 characters";
  if (!label.empty() && std::isspace(static_cast<unsigned char>(label[0])))
    return "Invalid volume label -- may not start with whitespace";
  // Then each character in turn, left to right: the first offending character names the rule,
  // so the administrator is told about the leftmost problem ("a*" is refused for its lower-case
  // letter). A character breaks at most one of the three rules, so their order within one
  // character does not matter.
  for (char ch : label) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c != 0 && std::strchr(kForbiddenLabelChars, c))
      return "Invalid volume label -- may not contain any of the following characters: "
             "* ? / \\ | . , ; : + = [ ] ( ) & ^ < > \"";
    if (c < 0x20 || c >= 0x7F) return "Invalid volume label -- may not contain unprintable characters";
    if (c >= 'a' && c <= 'z') return "Invalid volume label -- may not contain lower-case letters";
  }
  return {};
}

FatType fatTypeIndexFor(uint8_t type, uint64_t blocks, bool fat32Support, bool ntFat16) {
  switch (type) {
    case Disk::kTypeFat12: return ftFat12;
    case Disk::kTypeFat16Small: case Disk::kTypeFat16: case Disk::kTypeFat16Lba: return ftFat16;
    case Disk::kTypeFat32: case Disk::kTypeFat32Lba: return ftFat32;
    default: break;
  }
  const bool fat32Allowed = fat32Support && !ntFat16;
  if (blocks < 32774) return ftFat12;
  if (blocks >= 1048577 && (blocks > 8387872 || fat32Allowed)) return ftFat32;
  return ftFat16;
}

uint32_t fatVolumeSerial(const std::tm& t) {
  uint32_t serial = (static_cast<uint32_t>(t.tm_mon + 1 + t.tm_sec) << 24);
  serial += static_cast<uint32_t>(t.tm_mday) << 16;
  serial += static_cast<uint32_t>(t.tm_hour) << 8;
  serial += static_cast<uint32_t>(t.tm_year + 1900 + t.tm_min);
  return serial;
}

FAT::FAT(Disk::BlockDevice& device, FatType type) : device_(device), type_(type) {
  if (type < ftFat12 || type > ftFat32)
    throw Error(ErrorId::InvalidArgument, "Unknown FAT type").with("typeIndex", std::to_string(type));
}

FAT::~FAT() = default;

const char* FAT::typeName() const {
  static const char* const names[] = {"FAT12", "FAT16", "FAT32"};
  return names[type_];
}

// FAT12 and FAT16: start at the smallest cluster and double it while the FAT cannot describe
// the whole partition (the remainder is a cluster or more). When the largest cluster still
// leaves a remainder, the volume is laid out with its tail unused.
void FAT::buildLayoutSmall(uint64_t total) {
  FatLayout& L = *layout_;
  const uint32_t sector = device_.bytesPerBlock();
  const double t = static_cast<double>(total);
  const uint32_t reserved = reservedSectorCount();
  const uint32_t root = (rootDirectoryEntries() * kDirEntrySize + sector - 1) / sector;
  const std::string tooSmall = std::string("The partition is too small for a ") + typeName() + " filesystem";
  if (uint64_t(reserved) + root > total) throw Error(ErrorId::BpbFailed, tooSmall);

  const double E = bitsPerFatEntry() / 8.0;
  const double maxClusters = maxClusterCount();
  bool chosen = false;
  for (uint32_t s = minSectorsPerCluster(); s <= maxSectorsPerCluster(); s *= 2) {
    double A = std::floor((t - reserved - root) * sector - 2 * E);
    double C = std::floor(A / (2 * E + s * double(sector))) + 2;
    if (C > maxClusters) C = maxClusters;
    if (C < 2) C = 2;
    double fatBytes = std::ceil(C * E);
    uint64_t F = (static_cast<uint64_t>(fatBytes) + sector - 1) / sector;
    if (uint64_t(reserved) + 2 * F + root > total) throw Error(ErrorId::BpbFailed, tooSmall);
    uint64_t D = (total - reserved - 2 * F - root) / s * s;
    if (D == 0) throw Error(ErrorId::BpbFailed, tooSmall);
    uint64_t N = std::min<uint64_t>(static_cast<uint64_t>(std::floor(F * double(sector) / E)), maxClusterCount());
    uint64_t data = std::min<uint64_t>(D, (N - 2) * s);
    L.reservedSectors = reserved;
    L.rootDirSectors = root;
    L.sectorsPerCluster = s;
    L.sectorsPerFat = static_cast<uint32_t>(F);
    L.fatSectors = static_cast<uint32_t>(2 * F);
    L.dataSectors = static_cast<uint32_t>(data);
    uint64_t remainder = total - reserved - 2 * F - root - data;
    chosen = true;
    if (remainder < s) break;
  }
  if (!chosen) throw Error(ErrorId::BpbFailed, tooSmall);
  limitClusterCount();
}

// Readers tell the FAT types apart by the cluster count alone: a volume with 4085 clusters or
// more is read as FAT16, one with 65525 or more as FAT32. The largest counts the layout allows
// (up to the maximum cluster count less the two reserved entries) would be misread, so the
// data area is cut to one cluster below that; the sectors it loses stay unused.
void FAT::limitClusterCount() {
  FatLayout& L = *layout_;
  const uint64_t limit = uint64_t(maxClusterCount()) - 3;
  if (L.dataSectors / L.sectorsPerCluster > limit) L.dataSectors = static_cast<uint32_t>(limit * L.sectorsPerCluster);
}

// FAT32: cluster size from the partition size, one pass, then the reserved area is grown so
// that the data area starts on a 4 KB boundary.
void FAT::buildLayoutFat32(uint64_t total) {
  FatLayout& L = *layout_;
  const uint32_t sector = device_.bytesPerBlock();
  const std::string tooSmall = "The partition is too small for a FAT32 filesystem";
  uint32_t s = total < 0x1000001 ? 8 : total < 0x2000001 ? 16 : total < 0x4000001 ? 32 : 64;
  uint32_t reserved = reservedSectorCount();
  if (reserved > total) throw Error(ErrorId::BpbFailed, tooSmall);

  const double E = 4;
  double A = std::floor((static_cast<double>(total) - reserved) * sector - 2 * E);
  double C = std::floor(A / (2 * E + s * double(sector))) + 2;
  if (C > maxClusterCount()) C = maxClusterCount();
  if (C < 2) C = 2;
  uint64_t F = (static_cast<uint64_t>(std::ceil(C * E)) + sector - 1) / sector;
  if ((reserved + 2 * F) % 8) reserved += static_cast<uint32_t>(8 - (reserved + 2 * F) % 8);
  if (uint64_t(reserved) + 2 * F > total) throw Error(ErrorId::BpbFailed, tooSmall);
  uint64_t D = (total - reserved - 2 * F) / s * s;
  if (D == 0) throw Error(ErrorId::BpbFailed, tooSmall);
  uint64_t N = std::min<uint64_t>(F * sector / 4, maxClusterCount());
  uint64_t data = std::min<uint64_t>(D, (N - 2) * s);
  L.reservedSectors = reserved;
  L.rootDirSectors = 0;
  L.sectorsPerCluster = s;
  L.sectorsPerFat = static_cast<uint32_t>(F);
  L.fatSectors = static_cast<uint32_t>(2 * F);
  L.dataSectors = static_cast<uint32_t>(data);
  limitClusterCount();
}

void FAT::fillBootSector(const FormatOptions& options, uint64_t total, const std::tm& now) {
  FatLayout& L = *layout_;
  L.bootSector.fill(0);
  FatBootSector b(L.bootSector.data());
  const bool fat32 = bpbLayoutKind() == blFat32;
  b.setJump(fat32);
  b.setOemName("MSWIN4.1");
  b.setBytesPerSector(kSector);
  b.setSectorsPerCluster(static_cast<uint8_t>(L.sectorsPerCluster));
  b.setReservedSectors(static_cast<uint16_t>(L.reservedSectors));
  b.setFatCount(2);
  b.setRootEntries(rootDirectoryEntries());
  // A volume whose tail is left unused claims only the sectors it lays out, so that every
  // reader derives the same cluster count as the FAT describes.
  uint64_t claimed = total;
  if (L.unusableSectors >= L.sectorsPerCluster)
    claimed = uint64_t(L.reservedSectors) + L.fatSectors + L.rootDirSectors + L.dataSectors;
  if (claimed < 65536)
    b.setTotalSectors16(static_cast<uint16_t>(claimed));
  else
    b.setTotalSectors32(claimed > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(claimed));
  b.setMedia(device_.mediaByte());
  b.setSectorsPerTrack(options.sectorsPerTrack);
  b.setHeads(options.heads);
  b.setHiddenSectors(options.hiddenSectors);
  L.volumeSerial = fatVolumeSerial(now);
  const std::string label = options.label && !options.label->empty() ? *options.label : "NO NAME";
  std::string type = typeName();
  if (fat32) {
    b.setSectorsPerFat32(L.sectorsPerFat);
    b.setRootCluster(kFat32RootCluster);
    b.setFsInfoSector(kFsInfoSector);
    b.setBackupBootSector(kBackupBootSector);
    std::memcpy(L.bootSector.data() + BootCode::kFat32LoaderOffset, BootCode::kFat32Loader,
                BootCode::kFat32LoaderSize);
    FatFsInfo::init(L.fsInfo.data(), 0xFFFFFFFF, kFat32RootCluster);
  } else {
    b.setSectorsPerFat16(static_cast<uint16_t>(L.sectorsPerFat));
    std::memcpy(L.bootSector.data() + BootCode::kFat16LoaderOffset, BootCode::kFat16Loader,
                BootCode::kFat16LoaderSize);
  }
  b.setExtended(fat32, L.volumeSerial);
  putPaddedName(b.labelField(fat32), label, FatBootSector::kLabelSize);
  putPaddedName(b.typeNameField(fat32), type, FatBootSector::kTypeNameSize);
  b.setSignature();
}

const FatLayout& FAT::buildBpb(const FormatOptions& options, const std::tm& now) {
  Core::TraceScope trace("buildBpb");
  if (!layout_) layout_ = std::make_unique<FatLayout>();
  FatLayout& L = *layout_;
  L = FatLayout{};
  Disk::requireSectorSize(device_.bytesPerBlock());
  const uint64_t deviceTotal = device_.blockCount();
  // The BPB counts sectors in 32 bits: a larger partition is laid out over its first
  // 0xFFFFFFFF sectors and the rest is left unused.
  const uint64_t total = std::min<uint64_t>(deviceTotal, 0xFFFFFFFFull);
  if (bpbLayoutKind() == blFat32)
    buildLayoutFat32(total);
  else
    buildLayoutSmall(total);
  L.unusableSectors = deviceTotal - L.reservedSectors - L.fatSectors - L.rootDirSectors - L.dataSectors;
  L.totalClusters = L.freeClusters = L.dataSectors / L.sectorsPerCluster;
  L.usedClusters = L.badClusters = 0;
  fillBootSector(options, total, now);
  return L;
}

void FAT::writeReservedArea() {}

void FAT32::writeReservedArea() {
  const FatLayout& L = *layout_;
  std::array<uint8_t, kSector> zero{};
  const uint64_t third = kFsInfoSector + 1, backupEnd = kBackupBootSector + third + 1;
  device_.write(kFsInfoSector, 1, L.fsInfo.data());
  device_.write(kBackupBootSector + kFsInfoSector, 1, L.fsInfo.data());
  device_.write(third, 1, BootCode::kFat32BootSector);
  device_.write(kBackupBootSector + third, 1, BootCode::kFat32BootSector);
  for (uint64_t s = third + 1; s < kBackupBootSector; ++s) device_.write(s, 1, zero.data());
  if (L.reservedSectors > backupEnd) {
    std::vector<uint8_t> zeros(size_t(L.reservedSectors - backupEnd) * device_.bytesPerBlock(), 0);
    device_.write(backupEnd, L.reservedSectors - backupEnd, zeros.data());
  }
  device_.write(kBackupBootSector, 1, L.bootSector.data());
}

FormatSummary FAT::format(const FormatOptions& inOptions) {
  Core::TraceScope trace("format");
  FormatOptions options = inOptions;
  if (options.label && options.label->empty()) options.label.reset();
  if (options.label) {
    if (const std::string problem = fatLabelProblem(*options.label); !problem.empty())
      throw Error(ErrorId::InvalidArgument, problem).with("label", *options.label);
  }

  if (!layout_) layout_ = std::make_unique<FatLayout>();
  const std::tm now = Core::localNow();
  try {
    buildBpb(options, now);
  } catch (const Error& e) {
    throw stepError("Cannot create BPB for new filesystem", e);
  }
  const FatLayout& L = *layout_;
  const uint64_t dataStart = uint64_t(L.reservedSectors) + L.fatSectors + L.rootDirSectors;

  Core::print("Checking existing disk format.\n");
  const uint64_t progressTotal = dataStart + (options.verify ? L.dataSectors : 0);
  Core::Progress progress(Core::format("%s%.2fM", options.verify ? "Verifying " : "QuickFormatting ",
                                       double(device_.blockCount()) * device_.bytesPerBlock() / 1048576.0),
                          progressTotal);
  const uint32_t workBlocks = std::clamp<uint32_t>(device_.preferredTransferBlocks(), 1, kMaxWorkBlocks);

  // Ctrl-C is checked between steps and between chunks of the data area: the boot sector,
  // written last, is not written, so no half-made filesystem is ever recognised.
  clearBootArea(progress);
  const std::array<uint8_t, 512> firstFatSector = writeFats(progress, workBlocks);
  writeRootDirectory(progress, options, now);
  if (bpbLayoutKind() == blFat32) {
    layout_->freeClusters -= 1;
    layout_->usedClusters += 1;
  }
  if (options.verify) verifyDataArea(progress, firstFatSector, workBlocks);
  stopIfInterrupted(progress);
  writeBootSector(progress);
  progress.complete();
  return summary(options);
}

void FAT::stopIfInterrupted(Core::Progress& progress) { Disk::stopIfInterrupted(progress, device_, "Format"); }

// The reserved area must be readable before anything is written. Then the old boot sector goes,
// so that a format that stops half-way leaves neither the old filesystem (whose FATs are being
// overwritten) nor a half-made new one.
void FAT::clearBootArea(Core::Progress& progress) {
  const FatLayout& L = *layout_;
  try {
    device_.verify(0, L.reservedSectors);
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in boot area", e);
  }
  progress.advance(L.reservedSectors);
  stopIfInterrupted(progress);
  try {
    const std::array<uint8_t, kSector> cleared{};
    device_.write(0, 1, cleared.data());
    device_.flush();
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in boot area", e);
  }
}

// The FAT copies: a first sector with the reserved entries, the rest zero in long runs.
// Returns that first sector.
std::array<uint8_t, 512> FAT::writeFats(Core::Progress& progress, uint32_t workBlocks) {
  const FatLayout& L = *layout_;
  const uint32_t F = L.sectorsPerFat;
  std::array<uint8_t, kSector> firstFatSector{};
  std::vector<uint8_t> entries = initialFatEntries(device_.mediaByte());
  std::memcpy(firstFatSector.data(), entries.data(), entries.size());
  if (bpbLayoutKind() == blFat32) put32(firstFatSector.data() + 8, endOfChain());  // the root directory's cluster
  try {
    std::vector<uint8_t> zeros(size_t(std::min(workBlocks, std::max<uint32_t>(F, 1))) * device_.bytesPerBlock(), 0);
    for (uint32_t copy = 0; copy < 2; ++copy) {
      const uint64_t first = L.reservedSectors + uint64_t(copy) * F;
      device_.write(first, 1, firstFatSector.data());
      progress.advance(1);
      for (uint64_t done = 1; done < F;) {
        uint64_t n = std::min<uint64_t>(workBlocks, F - done);
        device_.write(first + done, n, zeros.data());
        done += n;
        progress.advance(n);
      }
    }
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in FAT table area", e, StepStatus::BadSectors);
  }
  return firstFatSector;
}

// Root directory, with the volume label entry first when there is a label.
void FAT::writeRootDirectory(Core::Progress& progress, const FormatOptions& options, const std::tm& now) {
  const FatLayout& L = *layout_;
  const uint64_t rootFirst = uint64_t(L.reservedSectors) + L.fatSectors;
  const uint32_t rootSectors = bpbLayoutKind() == blFat32 ? L.sectorsPerCluster : L.rootDirSectors;
  try {
    std::vector<uint8_t> root(size_t(rootSectors) * device_.bytesPerBlock(), 0);
    if (options.label) {
      uint8_t* e = root.data();
      putPaddedName(e + FatDirEntry::kName.offset, *options.label, FatDirEntry::kName.size);
      FatDirEntry::kAttributes.put(e, FatDirEntry::kAttrVolumeLabel);
      FatDirEntry::kCreateTime.put(e, dosTime(now));
      FatDirEntry::kCreateDate.put(e, dosDate(now));
      FatDirEntry::kAccessDate.put(e, dosDate(now));
      FatDirEntry::kWriteTime.put(e, dosTime(now));
      FatDirEntry::kWriteDate.put(e, dosDate(now));
    }
    device_.write(rootFirst, rootSectors, root.data());
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in root directory area", e);
  }
  progress.advance(L.rootDirSectors);
}

// Full format: read the whole data area back; clusters with unreadable sectors are counted
// and marked bad in both FAT copies. Every failure of this step is reported with the
// FAT step's message, since this step decides what the FATs record. A bad FAT32 root directory cluster
// cannot be marked bad (the volume would have no root), so it ends the format; so does a
// device failure that is not a bad sector.
void FAT::verifyDataArea(Core::Progress& progress, const std::array<uint8_t, 512>& firstFatSector, uint32_t workBlocks) {
  FatLayout& L = *layout_;
  const bool fat32 = bpbLayoutKind() == blFat32;
  const uint32_t s = L.sectorsPerCluster;
  const uint64_t dataStart = uint64_t(L.reservedSectors) + L.fatSectors + L.rootDirSectors;
  constexpr const char* kVerifyFailed = "Bad sectors in FAT table area";
  std::vector<uint32_t> bad;
  const uint64_t chunk = std::max<uint64_t>(s, workBlocks / s * s);
  for (uint64_t done = 0; done < L.dataSectors;) {
    uint64_t n = std::min<uint64_t>(chunk, L.dataSectors - done);
    try {
      device_.verify(dataStart + done, n);
    } catch (const Error& e) {
      if (!isMediaError(e.id())) stepFailed(progress, kVerifyFailed, e, StepStatus::BadSectors);
      for (uint64_t c = 0; c < n; c += s) {
        try {
          device_.verify(dataStart + done + c, s);
        } catch (const Error& clusterError) {
          uint32_t cluster = static_cast<uint32_t>((done + c) / s + 2);
          if (!isMediaError(clusterError.id()) || (fat32 && cluster == 2))
            stepFailed(progress, kVerifyFailed, clusterError, StepStatus::BadSectors);
          bad.push_back(cluster);
        }
      }
    }
    done += n;
    progress.advance(n);
    stopIfInterrupted(progress);
  }
  if (bad.empty()) return;
  FatPatch patch(bitsPerFatEntry(), firstFatSector);
  for (uint32_t cluster : bad) patch.set(cluster, badClusterMark());
  try {
    for (uint32_t copy = 0; copy < 2; ++copy)
      for (const auto& [index, sector] : patch.sectors())
        device_.write(L.reservedSectors + uint64_t(copy) * L.sectorsPerFat + index, 1, sector.data());
  } catch (const Error& e) {
    stepFailed(progress, kVerifyFailed, e, StepStatus::BadSectors);
  }
  const uint32_t count = static_cast<uint32_t>(bad.size());
  L.badClusters += count;
  L.freeClusters -= count;
}

// Everything the boot sector describes is on the disk before the boot sector itself.
void FAT::writeBootSector(Core::Progress& progress) {
  FatLayout& L = *layout_;
  if (bpbLayoutKind() == blFat32) FatFsInfo::setFreeCount(L.fsInfo.data(), L.freeClusters);
  try {
    writeReservedArea();
    device_.flush();
    device_.write(0, 1, L.bootSector.data());
    device_.flush();
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in boot area", e);
  }
}

FormatSummary FAT::summary(const FormatOptions& options) const {
  const FatLayout& L = *layout_;
  const uint64_t unit = uint64_t(L.sectorsPerCluster) * device_.bytesPerBlock();
  FormatSummary s;
  s.say(options.label ? "Volume label is " + *options.label : "Volume has no label");
  s.say(Core::format("Volume Serial Number is %04X-%04X", L.volumeSerial >> 16, L.volumeSerial & 0xFFFF));
  s.count(L.totalClusters * unit, "bytes total disk space");
  s.count(L.badClusters * unit, "bytes in bad sectors");
  s.count(L.freeClusters * unit, "bytes available on disk");
  s.count(unit, "bytes in each allocation unit");
  s.count(L.totalClusters, "total allocation units on disk");
  s.count(L.badClusters, "allocation units containing bad sectors");
  s.count(L.freeClusters, "available allocation units on disk");
  return s;
}

std::unique_ptr<FAT> makeFatType(Disk::BlockDevice& device, FatType type) {
  switch (type) {
    case ftFat12: return std::make_unique<FAT12>(device);
    case ftFat16: return std::make_unique<FAT16>(device);
    case ftFat32: return std::make_unique<FAT32>(device);
    default:
      throw Error(ErrorId::InvalidArgument, "Unknown FAT type").with("typeIndex", std::to_string(type));
  }
}

FormatSummary formatFat(Disk::BlockDevice& device, FatType type, const FormatOptions& options) {
  return makeFatType(device, type)->format(options);
}

FormatSummary formatFatPartition(Disk::BlockDevice& device, const FormatOptions& options) {
  return formatFat(device, fatTypeIndexFor(options.partitionType, device.blockCount(), options.fat32Support, options.ntFat16),
                   options);
}

}  // namespace Corvo::Filesystem
