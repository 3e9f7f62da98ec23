#include "filesystem/ext2/Ext2.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "core/Clock.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/layout/GptGuid.h"
#include "filesystem/ext2/Ext2Structures.h"

namespace Corvo::Filesystem {

using Core::Error;
using Core::ErrorId;
namespace X = Ext2;

namespace {

constexpr uint64_t kMiB = 1024 * 1024;
// Zero runs up to this size travel with the surrounding metadata; longer ones are zeroed by the
// device's quickest means.
constexpr uint64_t kInlineZeroBytes = 64 * 1024;
// The write buffer: metadata runs are gathered up to this size before they go to the device.
constexpr size_t kWriteBufferBytes = 4 * kMiB;
// Sectors zeroed at the end of the partition, where old signatures (RAID superblocks, the copy
// of another filesystem's boot sector) would otherwise survive.
constexpr uint64_t kTailSectors = 256;
// A last group smaller than its own metadata and this many blocks is left out.
constexpr uint32_t kMinTailDataBlocks = 50;
constexpr uint32_t kMinInodes = 16;

bool isPowerOf(uint32_t n, uint32_t base) {
  while (n > 1 && n % base == 0) n /= base;
  return n == 1;
}

// Whole bytes at a time: the padding of an inode bitmap alone is tens of thousands of bits in
// every group.
void setBits(uint8_t* bitmap, uint32_t from, uint32_t to) {
  for (; from < to && from % 8; ++from) bitmap[from / 8] = static_cast<uint8_t>(bitmap[from / 8] | (1u << (from % 8)));
  const uint32_t wholeEnd = to / 8 * 8;
  if (from < wholeEnd) {
    std::memset(bitmap + from / 8, 0xFF, (wholeEnd - from) / 8);
    from = wholeEnd;
  }
  for (; from < to; ++from) bitmap[from / 8] = static_cast<uint8_t>(bitmap[from / 8] | (1u << (from % 8)));
}

void putBytes(uint8_t* base, X::Bytes field, const uint8_t* data, size_t size) {
  std::memcpy(base + field.offset, data, std::min(size, field.size));
}

X::F32 inodeBlockPointer(uint32_t index) { return X::F32{X::Inode::kBlockPointers + 4 * size_t{index}}; }

Ext2Uuid randomUuid() {
  const Disk::GuidBytes g = Disk::randomGuid();
  Ext2Uuid u;
  std::copy(g.begin(), g.end(), u.begin());
  u[6] = static_cast<uint8_t>((u[6] & 0x0F) | 0x40);  // version 4, in the byte order of the text form
  u[8] = static_cast<uint8_t>((u[8] & 0x3F) | 0x80);
  return u;
}

std::string uuidText(const Ext2Uuid& u) {
  std::string s;
  for (size_t i = 0; i < u.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) s += '-';
    s += Core::format("%02x", u[i]);
  }
  return s;
}

// Gathers consecutive blocks into large writes; long zero runs go to the device's zeroing.
class SequentialWriter {
 public:
  SequentialWriter(Disk::BlockDevice& device, uint32_t blockSize)
      : device_(device), blockSize_(blockSize), sectorsPerBlock_(blockSize / device.bytesPerBlock()) {
    buffer_.reserve(kWriteBufferBytes);
  }
  // Zero-filled room for `count` blocks from `block` on, valid until the next call. Blocks are
  // put in ascending order; count * block size never exceeds the buffer.
  uint8_t* put(uint64_t block, uint32_t count) {
    const size_t bytes = size_t{count} * blockSize_;
    if (!buffer_.empty() && (block != next_ || buffer_.size() + bytes > kWriteBufferBytes)) flush();
    if (buffer_.empty()) first_ = block;
    const size_t at = buffer_.size();
    buffer_.resize(at + bytes, 0);
    next_ = block + count;
    return buffer_.data() + at;
  }
  void zeros(uint64_t block, uint64_t count) {
    if (!count) return;
    if (count * blockSize_ <= kInlineZeroBytes) {
      put(block, static_cast<uint32_t>(count));
      return;
    }
    flush();
    device_.writeZeros(block * sectorsPerBlock_, count * sectorsPerBlock_);
  }
  void flush() {
    if (buffer_.empty()) return;
    device_.write(first_ * sectorsPerBlock_, buffer_.size() / device_.bytesPerBlock(), buffer_.data());
    buffer_.clear();
  }

 private:
  Disk::BlockDevice& device_;
  uint32_t blockSize_, sectorsPerBlock_;
  std::vector<uint8_t> buffer_;
  uint64_t first_ = 0, next_ = 0;
};

struct Identity {
  Ext2Uuid uuid{}, hashSeed{};
  uint32_t now = 0;
  std::string label;
};

void fillSuperblock(uint8_t* sb, const Ext2Layout& L, const Identity& id, uint32_t group) {
  namespace S = X::Super;
  std::memset(sb, 0, X::kSuperblockSize);
  S::inodesCount.put(sb, static_cast<uint32_t>(L.inodeCount));
  S::blocksCount.put(sb, L.blockCount);
  S::reservedBlocksCount.put(sb, L.reservedBlocks);
  S::freeBlocksCount.put(sb, static_cast<uint32_t>(L.freeBlocks));
  S::freeInodesCount.put(sb, static_cast<uint32_t>(L.freeInodes));
  S::firstDataBlock.put(sb, L.firstDataBlock);
  const uint32_t logSize = L.blockSize == 1024 ? 0 : 2;
  S::logBlockSize.put(sb, logSize);
  S::logFragmentSize.put(sb, logSize);
  S::blocksPerGroup.put(sb, L.blocksPerGroup);
  S::fragmentsPerGroup.put(sb, L.blocksPerGroup);
  S::inodesPerGroup.put(sb, L.inodesPerGroup);
  S::writeTime.put(sb, id.now);
  S::maxMountCount.put(sb, 0xFFFF);  // -1: no check forced by the number of mounts
  S::magic.put(sb, X::kMagic);
  S::state.put(sb, X::kStateClean);
  S::errors.put(sb, X::kErrorsContinue);
  S::lastCheck.put(sb, id.now);
  S::creatorOs.put(sb, X::kCreatorLinux);
  S::revision.put(sb, X::kDynamicRevision);
  S::firstInode.put(sb, X::kFirstInode);
  S::inodeSize.put(sb, static_cast<uint16_t>(L.inodeSize));
  S::blockGroupNumber.put(sb, static_cast<uint16_t>(group));
  S::featureCompat.put(sb, X::kCompatExtAttr | X::kCompatDirIndex);
  S::featureIncompat.put(sb, X::kIncompatFiletype);
  S::featureRoCompat.put(sb, X::kRoCompatSparseSuper | X::kRoCompatLargeFile);
  putBytes(sb, S::uuid, id.uuid.data(), id.uuid.size());
  putBytes(sb, S::volumeName, reinterpret_cast<const uint8_t*>(id.label.data()), id.label.size());
  putBytes(sb, S::hashSeed, id.hashSeed.data(), id.hashSeed.size());
  S::defaultHashVersion.put(sb, X::kHashHalfMd4);
  S::defaultMountOptions.put(sb, X::kMountUserXattr | X::kMountAcl);
  S::mkfsTime.put(sb, id.now);
  if (L.inodeSize > X::kGoodOldInodeSize) {
    S::minExtraInodeSize.put(sb, X::kLargeInodeExtra);
    S::wantExtraInodeSize.put(sb, X::kLargeInodeExtra);
  }
  S::flags.put(sb, X::kFlagSignedHash);
}

// Descriptors first .. first + count - 1 into out (count * 32 bytes, zeroed by the caller).
void fillDescriptors(uint8_t* out, const Ext2Layout& L, uint64_t first, uint64_t count) {
  namespace G = X::Group;
  for (uint64_t i = 0; i < count && first + i < L.groupCount; ++i) {
    const uint32_t g = static_cast<uint32_t>(first + i);
    uint8_t* d = out + i * X::kGroupDescriptorSize;
    G::blockBitmap.put(d, L.blockBitmapBlock(g));
    G::inodeBitmap.put(d, L.inodeBitmapBlock(g));
    G::inodeTable.put(d, L.inodeTableBlock(g));
    G::freeBlocksCount.put(d, static_cast<uint16_t>(L.groupBlocks(g) - L.groupUsedBlocks(g)));
    G::freeInodesCount.put(d, static_cast<uint16_t>(L.inodesPerGroup - (g == 0 ? X::kFirstInode : 0)));
    G::usedDirsCount.put(d, g == 0 ? 2 : 0);
  }
}

void fillDirectoryInode(uint8_t* inode, const Ext2Layout& L, uint32_t now, uint16_t mode, uint16_t links,
                        uint32_t firstBlock, uint32_t blocks) {
  namespace I = X::Inode;
  I::mode.put(inode, static_cast<uint16_t>(X::kModeDirectory | mode));
  I::size.put(inode, blocks * L.blockSize);
  I::accessTime.put(inode, now);
  I::changeTime.put(inode, now);
  I::modifyTime.put(inode, now);
  I::linksCount.put(inode, links);
  I::sectors.put(inode, blocks * (L.blockSize / X::kInodeSectorBytes));
  for (uint32_t i = 0; i < blocks; ++i) inodeBlockPointer(i).put(inode, firstBlock + i);
  if (L.inodeSize > X::kGoodOldInodeSize) {
    I::extraSize.put(inode, X::kLargeInodeExtra);
    I::creationTime.put(inode, now);
  }
}

// Adds a directory entry at `at`; returns the offset of the next one.
size_t putEntry(uint8_t* block, size_t at, uint32_t inode, const char* name, size_t recordLength) {
  namespace D = X::DirEntry;
  const size_t nameLength = std::strlen(name);
  D::inode.put(block + at, inode);
  D::recordLength.put(block + at, static_cast<uint16_t>(recordLength));
  D::nameLength.put(block + at, static_cast<uint8_t>(nameLength));
  D::fileType.put(block + at, X::kFileTypeDirectory);
  std::memcpy(block + at + D::kName, name, nameLength);
  return at + recordLength;
}

// The root directory's block followed by lost+found's blocks.
void fillDirectories(uint8_t* p, const Ext2Layout& L) {
  const size_t B = L.blockSize;
  size_t at = putEntry(p, 0, X::kRootInode, ".", 12);
  at = putEntry(p, at, X::kRootInode, "..", 12);
  putEntry(p, at, X::kLostFoundInode, "lost+found", B - at);
  uint8_t* lf = p + B;
  at = putEntry(lf, 0, X::kLostFoundInode, ".", 12);
  putEntry(lf, at, X::kRootInode, "..", B - at);
  for (uint32_t i = 1; i < L.lostFoundBlocks; ++i) X::DirEntry::recordLength.put(lf + i * B, static_cast<uint16_t>(B));
}

FormatSummary summaryOf(const Ext2Layout& L, const Identity& id) {
  FormatSummary s;
  s.say(id.label.empty() ? "Volume has no label" : "Volume label is " + id.label);
  s.say("Volume UUID is " + uuidText(id.uuid));
  s.count(L.blockSize, "bytes in each block");
  s.count(L.blockCount, "total blocks");
  s.count(L.freeBlocks, "free blocks");
  s.count(L.reservedBlocks, "blocks reserved for the administrator");
  s.count(L.inodeCount, Core::format("inodes of %u bytes", L.inodeSize));
  s.count(L.groupCount, Core::format("block groups of %u blocks", L.blocksPerGroup));
  if (L.unusedSectors) s.count(L.unusedSectors, "sectors at the end of the partition left unused");
  const std::vector<uint32_t> copies = L.superblockCopies();
  if (copies.empty()) {
    s.say("No superblock backups");
  } else {
    std::string list;
    for (uint32_t b : copies) list += (list.empty() ? "" : ", ") + std::to_string(b);
    s.say("Superblock backups at blocks " + list);
  }
  return s;
}

}  // namespace

std::string ext2LabelProblem(const std::string& label) {
  if (label.size() <= kExt2LabelBytes) return {};
  return Core::format("Invalid volume label -- maximum of %zu bytes for ext2", kExt2LabelBytes);
}

bool Ext2Layout::hasSuperblockCopy(uint32_t group) const {
  return group <= 1 || isPowerOf(group, 3) || isPowerOf(group, 5) || isPowerOf(group, 7);
}
uint32_t Ext2Layout::groupFirstBlock(uint32_t group) const { return firstDataBlock + group * blocksPerGroup; }
uint32_t Ext2Layout::groupBlocks(uint32_t group) const {
  return group + 1 < groupCount ? blocksPerGroup : blockCount - groupFirstBlock(group);
}
uint32_t Ext2Layout::blockBitmapBlock(uint32_t group) const {
  return groupFirstBlock(group) + (hasSuperblockCopy(group) ? 1 + descriptorBlocks : 0);
}
uint32_t Ext2Layout::inodeBitmapBlock(uint32_t group) const { return blockBitmapBlock(group) + 1; }
uint32_t Ext2Layout::inodeTableBlock(uint32_t group) const { return blockBitmapBlock(group) + 2; }
uint32_t Ext2Layout::groupUsedBlocks(uint32_t group) const {
  return inodeTableBlock(group) + inodeTableBlocks - groupFirstBlock(group) + (group == 0 ? 1 + lostFoundBlocks : 0);
}
std::vector<uint32_t> Ext2Layout::superblockCopies() const {
  std::vector<uint32_t> out;
  for (uint32_t g = 1; g < groupCount; ++g)
    if (hasSuperblockCopy(g)) out.push_back(groupFirstBlock(g));
  return out;
}

Ext2Layout computeExt2Layout(uint64_t sectors, uint32_t sectorBytes) {
  const uint64_t bytes = sectors * sectorBytes;
  Ext2Layout L;
  // Small volumes get 1 KiB blocks and more inodes for their size; tiny ones small inodes too.
  L.blockSize = bytes >= 512 * kMiB ? 4096 : 1024;
  const bool tiny = bytes < 3 * kMiB;
  L.inodeSize = tiny ? 128 : 256;
  const uint64_t bytesPerInode = L.blockSize == 1024 ? (tiny ? 8192 : 4096) : (bytes >= (4 * kMiB << 20) ? 32768 : 16384);
  L.firstDataBlock = L.blockSize == 1024 ? 1 : 0;
  L.blocksPerGroup = 8 * L.blockSize;  // one bitmap block describes the group
  L.lostFoundBlocks = std::clamp<uint32_t>(16384 / L.blockSize, 2, X::kDirectBlocks);
  const uint32_t inodeUnit = std::max<uint32_t>(8, L.blockSize / L.inodeSize);  // whole bitmap bytes and table blocks
  const Error tooSmall(ErrorId::FormatFailed, "The partition is too small for an ext2 filesystem");

  uint64_t blocks = std::min<uint64_t>(bytes / L.blockSize, 0xFFFFFFFFull);
  for (;;) {
    if (blocks <= L.firstDataBlock) throw tooSmall;
    const uint64_t groups = (blocks - L.firstDataBlock + L.blocksPerGroup - 1) / L.blocksPerGroup;
    const uint64_t inodes = std::max<uint64_t>(blocks * L.blockSize / bytesPerInode, kMinInodes);
    uint64_t perGroup = (inodes + groups - 1) / groups;
    perGroup = std::min<uint64_t>((perGroup + inodeUnit - 1) / inodeUnit * inodeUnit, 8 * L.blockSize);
    L.blockCount = static_cast<uint32_t>(blocks);
    L.groupCount = static_cast<uint32_t>(groups);
    L.inodesPerGroup = static_cast<uint32_t>(perGroup);
    L.inodeTableBlocks = static_cast<uint32_t>(perGroup * L.inodeSize / L.blockSize);
    L.descriptorBlocks = static_cast<uint32_t>((groups * X::kGroupDescriptorSize + L.blockSize - 1) / L.blockSize);
    const uint32_t tail = static_cast<uint32_t>((blocks - L.firstDataBlock) % L.blocksPerGroup);
    if (groups > 1 && tail && tail < L.groupUsedBlocks(L.groupCount - 1) + kMinTailDataBlocks) {
      blocks -= tail;  // too small a last group: the filesystem ends with the group before
      continue;
    }
    break;
  }
  if (L.groupUsedBlocks(0) > L.groupBlocks(0)) throw tooSmall;

  L.inodeCount = uint64_t{L.inodesPerGroup} * L.groupCount;
  L.freeInodes = L.inodeCount - X::kFirstInode;
  L.freeBlocks = 0;
  for (uint32_t g = 0; g < L.groupCount; ++g) L.freeBlocks += L.groupBlocks(g) - L.groupUsedBlocks(g);
  L.reservedBlocks = static_cast<uint32_t>(uint64_t{L.blockCount} * 5 / 100);
  L.unusedSectors = sectors - uint64_t{L.blockCount} * (L.blockSize / sectorBytes);
  return L;
}

FormatSummary formatExt2(Disk::BlockDevice& device, const Ext2FormatOptions& options) {
  Core::TraceScope trace("formatExt2");
  Identity id;
  id.label = options.label.value_or("");
  if (const std::string problem = ext2LabelProblem(id.label); !problem.empty())
    throw Error(ErrorId::InvalidArgument, problem).with("label", id.label);
  Disk::requireSectorSize(device.bytesPerBlock());
  const uint32_t sector = device.bytesPerBlock();
  const Ext2Layout L = computeExt2Layout(device.blockCount(), sector);
  id.uuid = options.uuid ? *options.uuid : randomUuid();
  id.hashSeed = options.hashSeed ? *options.hashSeed : randomUuid();
  id.now = options.now ? *options.now : static_cast<uint32_t>(Core::currentTime());

  const uint32_t B = L.blockSize;
  Core::Progress progress(Core::format("QuickFormatting %.2fM", double(device.blockCount()) * sector / kMiB),
                          L.groupCount + 2);
  try {
    // Whatever superblock was here stops counting before any new metadata is written. Where
    // the device zeros the whole partition without writing it (a sparse image, a disk's own
    // zero-out), the inode tables need no zeroing of their own.
    const bool allZero = device.zeroQuickly(0, device.blockCount());
    if (!allZero) {
      const std::vector<uint8_t> head(X::kSuperblockOffset + 3 * X::kSuperblockSize, 0);
      device.write(0, head.size() / sector, head.data());
    }
    device.flush();
    progress.advance(1);

    SequentialWriter out(device, B);
    const uint64_t descriptorsPerBlock = B / X::kGroupDescriptorSize;
    const uint32_t chunkBlocks = static_cast<uint32_t>(kWriteBufferBytes / B) - 1;
    for (uint32_t g = 0; g < L.groupCount; ++g) {
      Disk::stopIfInterrupted(progress, device, "Format");  // the primary superblock is never written
      const uint32_t first = L.groupFirstBlock(g);
      if (L.hasSuperblockCopy(g)) {
        if (g > 0) fillSuperblock(out.put(first, 1), L, id, g);  // group 0's comes last
        for (uint32_t i = 0; i < L.descriptorBlocks; i += chunkBlocks) {
          const uint32_t n = std::min(chunkBlocks, L.descriptorBlocks - i);
          fillDescriptors(out.put(first + 1 + i, n), L, i * descriptorsPerBlock, n * descriptorsPerBlock);
        }
      }
      uint8_t* bitmaps = out.put(L.blockBitmapBlock(g), 2);
      setBits(bitmaps, 0, L.groupUsedBlocks(g));
      setBits(bitmaps, L.groupBlocks(g), 8 * B);  // past the end of a short last group
      setBits(bitmaps + B, L.inodesPerGroup, 8 * B);
      uint32_t written = 0;
      if (g == 0) {
        setBits(bitmaps + B, 0, X::kFirstInode);  // the reserved inodes and lost+found
        written = (X::kFirstInode * L.inodeSize + B - 1) / B;
        uint8_t* table = out.put(L.inodeTableBlock(0), written);
        const uint32_t root = L.rootDirectoryBlock();
        fillDirectoryInode(table + (X::kRootInode - 1) * L.inodeSize, L, id.now, 0755, 3, root, 1);
        fillDirectoryInode(table + (X::kLostFoundInode - 1) * L.inodeSize, L, id.now, 0700, 2, root + 1,
                           L.lostFoundBlocks);
      }
      if (!allZero) out.zeros(L.inodeTableBlock(g) + written, L.inodeTableBlocks - written);
      if (g == 0) fillDirectories(out.put(L.rootDirectoryBlock(), 1 + L.lostFoundBlocks), L);
      progress.advance(1);
    }
    out.flush();
    const uint64_t sectorsPerBlock = B / sector, total = device.blockCount();
    const uint32_t last = L.groupCount - 1;
    const uint64_t metadataEnd = (uint64_t{L.groupFirstBlock(last)} + L.groupUsedBlocks(last)) * sectorsPerBlock;
    const uint64_t tailFirst = std::max(metadataEnd, total > kTailSectors ? total - kTailSectors : 0);
    if (tailFirst < total && !allZero) device.writeZeros(tailFirst, total - tailFirst);
    // Everything the superblock points at is on the medium before the superblock itself.
    device.flush();
    Disk::stopIfInterrupted(progress, device, "Format");

    std::vector<uint8_t> sb(X::kSuperblockSize);
    fillSuperblock(sb.data(), L, id, 0);
    device.write(X::kSuperblockOffset / sector, X::kSuperblockSize / sector, sb.data());
    device.flush();
  } catch (const Error&) {
    progress.abandon();
    throw;
  }
  progress.complete();
  return summaryOf(L, id);
}

std::string Ext2::volumeLabelOf(const uint8_t* partitionStart, size_t length) {
  if (!partitionStart || length < kSuperblockOffset + kSuperblockSize) return {};
  const uint8_t* sb = partitionStart + kSuperblockOffset;
  if (Super::magic.get(sb) != kMagic) return {};
  const char* name = reinterpret_cast<const char*>(sb + Super::volumeName.offset);
  std::string label(name, std::find(name, name + Super::volumeName.size, '\0'));
  while (!label.empty() && label.back() == ' ') label.pop_back();
  return label;
}

}  // namespace Corvo::Filesystem
