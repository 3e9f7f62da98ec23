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
#include "filesystem/fat/BootCode.h"

namespace Corvo::Filesystem {

using Core::Error;
using Core::ErrorId;
using Core::get32;
using Core::put16;
using Core::put32;

namespace {

constexpr uint32_t kSector = 512;
constexpr uint32_t kDirEntrySize = 32;
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

// Prints the failed step's message and throws the step's status. The FAT steps (writing the
// FATs, verifying the data area and marking bad clusters in the FATs) report the bad-sector
// status (WriteFailed) whatever the device said; the other steps pass the device's own status
// through.
enum class StepStatus { Device, BadSectors };
[[noreturn]] void stepFailed(Core::Progress& progress, const char* stepMessage, const Error& e,
                             StepStatus status = StepStatus::Device) {
  progress.abandon();
  Core::message(Core::mkError, stepMessage, e.what());
  throw Error(status == StepStatus::BadSectors ? ErrorId::WriteFailed : e.id(), e.text(), e.properties());
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

bool validateVolumeLabel(const std::string& label, bool report) {
  if (label.size() > 11) {
    if (report) Core::message(Core::mkError, "Invalid volume label -- maximum of 11 characters");
    return false;
  }
  if (!label.empty() && std::isspace(static_cast<unsigned char>(label[0]))) {
    if (report) Core::message(Core::mkError, "Invalid volume label -- may not start with whitespace");
    return false;
  }
  // Then each character in turn, left to right: the first offending character names the rule,
  // so the administrator is told about the leftmost problem ("a*" is refused for its lower-case
  // letter). A character breaks at most one of the three rules, so their order within one
  // character does not matter.
  for (char ch : label) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c != 0 && std::strchr(kForbiddenLabelChars, c)) {
      Core::message(Core::mkError,
                    "Invalid volume label -- may not contain any of the following characters: "
                    "* ? / \\ | . , ; : + = [ ] ( ) & ^ < > \"");
      return false;
    }
    if (c < 0x20 || c >= 0x7F) {
      Core::message(Core::mkError, "Invalid volume label -- may not contain unprintable characters");
      return false;
    }
    if (c >= 'a' && c <= 'z') {
      Core::message(Core::mkError, "Invalid volume label -- may not contain lower-case letters");
      return false;
    }
  }
  return true;
}

uint32_t fatVolumeSerial(const std::tm& t) {
  uint32_t serial = (static_cast<uint32_t>(t.tm_mon + 1 + t.tm_sec) << 24);
  serial += static_cast<uint32_t>(t.tm_mday) << 16;
  serial += static_cast<uint32_t>(t.tm_hour) << 8;
  serial += static_cast<uint32_t>(t.tm_year + 1900 + t.tm_min);
  return serial;
}

FAT::FAT(Disk::BlockDevice& device, int typeIndex) : device_(device), typeIndex_(typeIndex) {
  if (typeIndex < 0 || typeIndex > 2)
    throw Error(ErrorId::InvalidArgument, "Unknown FAT type").with("typeIndex", std::to_string(typeIndex));
}

FAT::~FAT() = default;

const char* FAT::typeName() const {
  static const char* const names[] = {"FAT12", "FAT16", "FAT32"};
  return names[typeIndex_];
}

// FAT12 and FAT16: start at the smallest cluster and double it while the FAT cannot describe
// the whole partition (the remainder is a cluster or more). When the largest cluster still
// leaves a remainder, the volume is laid out with its tail unused.
void FAT::buildLayoutSmall(uint64_t total) {
  FatLayout& L = *layout_;
  const double t = static_cast<double>(total);
  const uint32_t reserved = reservedSectorCount();
  const uint32_t root = (rootDirectoryEntries() * kDirEntrySize + kSector - 1) / kSector;
  const std::string tooSmall = std::string("The partition is too small for a ") + typeName() + " filesystem";
  if (uint64_t(reserved) + root > total) throw Error(ErrorId::BpbFailed, tooSmall);

  const double E = bitsPerFatEntry() / 8.0;
  const double maxClusters = maxClusterCount();
  bool chosen = false;
  for (uint32_t s = minSectorsPerCluster(); s <= maxSectorsPerCluster(); s *= 2) {
    double A = std::floor((t - reserved - root) * kSector - 2 * E);
    double C = std::floor(A / (2 * E + s * double(kSector))) + 2;
    if (C > maxClusters) C = maxClusters;
    if (C < 2) C = 2;
    double fatBytes = std::ceil(C * E);
    uint64_t F = (static_cast<uint64_t>(fatBytes) + kSector - 1) / kSector;
    if (uint64_t(reserved) + 2 * F + root > total) throw Error(ErrorId::BpbFailed, tooSmall);
    uint64_t D = (total - reserved - 2 * F - root) / s * s;
    if (D == 0) throw Error(ErrorId::BpbFailed, tooSmall);
    uint64_t N = std::min<uint64_t>(static_cast<uint64_t>(std::floor(F * double(kSector) / E)), maxClusterCount());
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
  const std::string tooSmall = "The partition is too small for a FAT32 filesystem";
  uint32_t s = total < 0x1000001 ? 8 : total < 0x2000001 ? 16 : total < 0x4000001 ? 32 : 64;
  uint32_t reserved = reservedSectorCount();
  if (reserved > total) throw Error(ErrorId::BpbFailed, tooSmall);

  const double E = 4;
  double A = std::floor((static_cast<double>(total) - reserved) * kSector - 2 * E);
  double C = std::floor(A / (2 * E + s * double(kSector))) + 2;
  if (C > maxClusterCount()) C = maxClusterCount();
  if (C < 2) C = 2;
  uint64_t F = (static_cast<uint64_t>(std::ceil(C * E)) + kSector - 1) / kSector;
  if ((reserved + 2 * F) % 8) reserved += static_cast<uint32_t>(8 - (reserved + 2 * F) % 8);
  if (uint64_t(reserved) + 2 * F > total) throw Error(ErrorId::BpbFailed, tooSmall);
  uint64_t D = (total - reserved - 2 * F) / s * s;
  if (D == 0) throw Error(ErrorId::BpbFailed, tooSmall);
  uint64_t N = std::min<uint64_t>(F * kSector / 4, maxClusterCount());
  uint64_t data = std::min<uint64_t>(D, (N - 2) * s);
  L.reservedSectors = reserved;
  L.rootDirSectors = 0;
  L.sectorsPerCluster = s;
  L.sectorsPerFat = static_cast<uint32_t>(F);
  L.fatSectors = static_cast<uint32_t>(2 * F);
  L.dataSectors = static_cast<uint32_t>(data);
  limitClusterCount();
}

void FAT::fillBootSector(const FatFormatOptions& options, uint64_t total, const std::tm& now) {
  FatLayout& L = *layout_;
  uint8_t* b = L.bootSector.data();
  std::memset(b, 0, kSector);
  const bool fat32 = bpbLayoutKind() == 3;
  b[0] = 0xEB;
  b[1] = fat32 ? 0x58 : 0x3C;
  b[2] = 0x90;
  std::memcpy(b + 3, "MSWIN4.1", 8);
  put16(b + 11, kSector);
  b[13] = static_cast<uint8_t>(L.sectorsPerCluster);
  put16(b + 14, static_cast<uint16_t>(L.reservedSectors));
  b[16] = 2;
  put16(b + 17, rootDirectoryEntries());
  // A volume whose tail is left unused claims only the sectors it lays out, so that every
  // reader derives the same cluster count as the FAT describes.
  uint64_t claimed = total;
  if (L.unusableSectors >= L.sectorsPerCluster)
    claimed = uint64_t(L.reservedSectors) + L.fatSectors + L.rootDirSectors + L.dataSectors;
  if (claimed < 65536) {
    put16(b + 19, static_cast<uint16_t>(claimed));
    put32(b + 32, 0);
  } else {
    put16(b + 19, 0);
    put32(b + 32, claimed > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(claimed));
  }
  b[21] = device_.mediaByte();
  put16(b + 24, options.sectorsPerTrack);
  put16(b + 26, options.heads);
  put32(b + 28, options.hiddenSectors);
  L.volumeSerial = fatVolumeSerial(now);
  const std::string label = options.label && !options.label->empty() ? *options.label : "NO NAME";
  std::string type = typeName();
  if (fat32) {
    put16(b + 22, 0);
    put32(b + 36, L.sectorsPerFat);
    put16(b + 40, 0);
    put16(b + 42, 0);
    put32(b + 44, 2);
    put16(b + 48, 1);
    put16(b + 50, 6);
    b[64] = 0x80;
    b[66] = 0x29;
    put32(b + 67, L.volumeSerial);
    putPaddedName(b + 71, label, 11);
    putPaddedName(b + 82, type, 8);
    std::memcpy(b + BootCode::kFat32LoaderOffset, BootCode::kFat32Loader, BootCode::kFat32LoaderSize);

    uint8_t* f = L.fsInfo.data();
    std::memset(f, 0, kSector);
    put32(f + 0, 0x41615252);
    put32(f + 484, 0x61417272);
    put32(f + 488, 0xFFFFFFFF);
    put32(f + 492, 2);
    f[510] = 0x55;
    f[511] = 0xAA;
  } else {
    put16(b + 22, static_cast<uint16_t>(L.sectorsPerFat));
    b[36] = 0x80;
    b[38] = 0x29;
    put32(b + 39, L.volumeSerial);
    putPaddedName(b + 43, label, 11);
    putPaddedName(b + 54, type, 8);
    std::memcpy(b + BootCode::kFat16LoaderOffset, BootCode::kFat16Loader, BootCode::kFat16LoaderSize);
  }
  b[510] = 0x55;
  b[511] = 0xAA;
}

const FatLayout& FAT::buildBpb(const FatFormatOptions& options, const std::tm& now) {
  Core::TraceScope trace("buildBpb");
  if (!layout_) layout_ = std::make_unique<FatLayout>();
  FatLayout& L = *layout_;
  L = FatLayout{};
  Disk::requireSectorSize(device_.bytesPerBlock());
  const uint64_t deviceTotal = device_.blockCount();
  // The BPB counts sectors in 32 bits: a larger partition is laid out over its first
  // 0xFFFFFFFF sectors and the rest is left unused.
  const uint64_t total = std::min<uint64_t>(deviceTotal, 0xFFFFFFFFull);
  if (bpbLayoutKind() == 3)
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
  device_.write(1, 1, L.fsInfo.data());
  device_.write(7, 1, L.fsInfo.data());
  device_.write(2, 1, BootCode::kFat32BootSector);
  device_.write(8, 1, BootCode::kFat32BootSector);
  for (uint64_t s = 3; s <= 5; ++s) device_.write(s, 1, zero.data());
  if (L.reservedSectors > 9) {
    std::vector<uint8_t> zeros(size_t(L.reservedSectors - 9) * kSector, 0);
    device_.write(9, L.reservedSectors - 9, zeros.data());
  }
  device_.write(6, 1, L.bootSector.data());
}

void FAT::format(const FatFormatOptions& inOptions) {
  Core::TraceScope trace("format");
  FatFormatOptions options = inOptions;
  if (options.label && options.label->empty()) options.label.reset();
  if (options.label && !validateVolumeLabel(*options.label, true))
    throw Error(ErrorId::InvalidArgument, "Invalid volume label").with("label", *options.label);

  if (!layout_) layout_ = std::make_unique<FatLayout>();
  const std::tm now = Core::localNow();
  try {
    buildBpb(options, now);
  } catch (const Error& e) {
    Core::message(Core::mkError, "Cannot create BPB for new filesystem -- %s", e.what());
    throw;
  }
  FatLayout& L = *layout_;
  const bool fat32 = bpbLayoutKind() == 3;
  const uint32_t s = L.sectorsPerCluster;
  const uint32_t F = L.sectorsPerFat;
  const uint64_t dataStart = uint64_t(L.reservedSectors) + L.fatSectors + L.rootDirSectors;

  Core::print("Checking existing disk format.\n");
  const uint64_t progressTotal = dataStart + (options.verify ? L.dataSectors : 0);
  Core::Progress progress(Core::format("%s%.2fM", options.verify ? "Verifying " : "QuickFormatting ",
                                       double(device_.blockCount()) * kSector / 1048576.0),
                          progressTotal);

  // Ctrl-C, checked between steps and between chunks of the data area: the boot sector, written
  // last, is not written, so no half-made filesystem is ever recognised.
  auto stopIfInterrupted = [&] { Disk::stopIfInterrupted(progress, device_, "Format"); };

  // Reserved area: it must be readable before anything is written.
  try {
    device_.verify(0, L.reservedSectors);
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in boot area -- %s", e);
  }
  progress.advance(L.reservedSectors);
  stopIfInterrupted();

  // The old boot sector goes first, so that a format that stops half-way leaves neither the
  // old filesystem (whose FATs are being overwritten) nor a half-made new one.
  try {
    const std::array<uint8_t, kSector> cleared{};
    device_.write(0, 1, cleared.data());
    device_.flush();
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in boot area -- %s", e);
  }

  // The FAT copies: a first sector with the reserved entries, the rest zero in long runs.
  const uint32_t workBlocks = std::clamp<uint32_t>(device_.preferredTransferBlocks(), 1, kMaxWorkBlocks);
  std::array<uint8_t, kSector> firstFatSector{};
  {
    std::vector<uint8_t> entries = initialFatEntries(device_.mediaByte());
    std::memcpy(firstFatSector.data(), entries.data(), entries.size());
    if (fat32) put32(firstFatSector.data() + 8, endOfChain());  // the root directory's cluster
  }
  try {
    std::vector<uint8_t> zeros(size_t(std::min(workBlocks, std::max<uint32_t>(F, 1))) * kSector, 0);
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
    stepFailed(progress, "Bad sectors in FAT table area -- %s", e, StepStatus::BadSectors);
  }

  // Root directory, with the volume label entry first when there is a label.
  const uint64_t rootFirst = uint64_t(L.reservedSectors) + L.fatSectors;
  const uint32_t rootSectors = fat32 ? s : L.rootDirSectors;
  try {
    std::vector<uint8_t> root(size_t(rootSectors) * kSector, 0);
    if (options.label) {
      uint8_t* e = root.data();
      putPaddedName(e, *options.label, 11);
      e[11] = 0x08;  // volume label
      put16(e + 14, dosTime(now));
      put16(e + 16, dosDate(now));
      put16(e + 18, dosDate(now));
      put16(e + 22, dosTime(now));
      put16(e + 24, dosDate(now));
    }
    device_.write(rootFirst, rootSectors, root.data());
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in root directory area -- %s", e);
  }
  progress.advance(L.rootDirSectors);

  if (fat32) {
    L.freeClusters -= 1;
    L.usedClusters += 1;
  }

  // Full format: read the whole data area back; clusters with unreadable sectors are counted
  // and marked bad in both FAT copies. Every failure of this step is reported with the
  // FAT step's message, since this step decides what the FATs record. A bad FAT32 root directory cluster
  // cannot be marked bad (the volume would have no root), so it ends the format; so does a
  // device failure that is not a bad sector.
  if (options.verify) {
    constexpr const char* kVerifyFailed = "Bad sectors in FAT table area -- %s";
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
      stopIfInterrupted();
    }
    if (!bad.empty()) {
      FatPatch patch(bitsPerFatEntry(), firstFatSector);
      for (uint32_t cluster : bad) patch.set(cluster, badClusterMark());
      try {
        for (uint32_t copy = 0; copy < 2; ++copy)
          for (const auto& [index, sector] : patch.sectors())
            device_.write(L.reservedSectors + uint64_t(copy) * F + index, 1, sector.data());
      } catch (const Error& e) {
        stepFailed(progress, kVerifyFailed, e, StepStatus::BadSectors);
      }
      const uint32_t count = static_cast<uint32_t>(bad.size());
      L.badClusters += count;
      L.freeClusters -= count;
    }
  }

  if (fat32) put32(L.fsInfo.data() + 488, L.freeClusters);

  stopIfInterrupted();
  try {
    // Everything the boot sector describes is on the disk before the boot sector itself.
    writeReservedArea();
    device_.flush();
    device_.write(0, 1, L.bootSector.data());
    device_.flush();
  } catch (const Error& e) {
    stepFailed(progress, "Bad sectors in boot area -- %s", e);
  }
  progress.complete();

  Core::print("Format complete.\n");
  Core::print("\n");
  const uint64_t unit = uint64_t(s) * kSector;
  const std::string numbers[] = {
      std::to_string(uint64_t(L.totalClusters) * unit), std::to_string(uint64_t(L.badClusters) * unit),
      std::to_string(uint64_t(L.freeClusters) * unit),  std::to_string(unit),
      std::to_string(L.totalClusters),                  std::to_string(L.badClusters),
      std::to_string(L.freeClusters)};
  int width = 0;
  for (const auto& n : numbers) width = std::max(width, static_cast<int>(n.size()));
  if (options.label)
    Core::print("Volume label is %s\n", options.label->c_str());
  else
    Core::print("Volume has no label\n");
  Core::print("Volume Serial Number is %04X-%04X\n", L.volumeSerial >> 16, L.volumeSerial & 0xFFFF);
  Core::print("%*s %sbytes total disk space\n", width, numbers[0].c_str(), "");
  Core::print("%*s %sbytes in bad sectors\n", width, numbers[1].c_str(), "");
  Core::print("%*s %sbytes available on disk\n", width, numbers[2].c_str(), "");
  Core::print("%*s bytes in each allocation unit\n", width, numbers[3].c_str());
  Core::print("%*s total allocation units on disk\n", width, numbers[4].c_str());
  Core::print("%*s allocation units containing bad sectors\n", width, numbers[5].c_str());
  Core::print("%*s available allocation units on disk\n", width, numbers[6].c_str());
  Core::print("\n");
}

std::unique_ptr<FAT> makeFatType(Disk::BlockDevice& device, int typeIndex) {
  switch (typeIndex) {
    case 0: return std::make_unique<FAT12>(device);
    case 1: return std::make_unique<FAT16>(device);
    case 2: return std::make_unique<FAT32>(device);
    default:
      throw Error(ErrorId::InvalidArgument, "Unknown FAT type").with("typeIndex", std::to_string(typeIndex));
  }
}

void formatFat(Disk::BlockDevice& device, int typeIndex, const FatFormatOptions& options) {
  makeFatType(device, typeIndex)->format(options);
}

}  // namespace Corvo::Filesystem
