// On-disk structures of ext2 (revision 1): the superblock, the group descriptor, the inode and
// the directory entry. Each field is named once here, with its offset inside its structure, and
// read and written through it (core/Field.h) by the formatter and the readers alike.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/Field.h"

namespace Corvo::Filesystem::Ext2 {

using F8 = Core::Field8;
using F16 = Core::Field16;
using F32 = Core::Field32;
// A byte array field (UUIDs, the volume name).
using Bytes = Core::ByteField;

inline constexpr uint32_t kSuperblockOffset = 1024;  // bytes from the start of the partition
inline constexpr uint32_t kSuperblockSize = 1024;
inline constexpr uint16_t kMagic = 0xEF53;
// An inode counts its blocks in units of this many bytes, whatever the device's sectors.
inline constexpr uint32_t kInodeSectorBytes = 512;

// The superblock; offsets from its own start.
namespace Super {
inline constexpr F32 inodesCount{0}, blocksCount{4}, reservedBlocksCount{8}, freeBlocksCount{12},
    freeInodesCount{16}, firstDataBlock{20}, logBlockSize{24}, logFragmentSize{28}, blocksPerGroup{32},
    fragmentsPerGroup{36}, inodesPerGroup{40}, mountTime{44}, writeTime{48};
inline constexpr F16 mountCount{52}, maxMountCount{54}, magic{56}, state{58}, errors{60}, minorRevision{62};
inline constexpr F32 lastCheck{64}, checkInterval{68}, creatorOs{72}, revision{76};
inline constexpr F16 defaultReservedUid{80}, defaultReservedGid{82};
inline constexpr F32 firstInode{84};
inline constexpr F16 inodeSize{88}, blockGroupNumber{90};
inline constexpr F32 featureCompat{92}, featureIncompat{96}, featureRoCompat{100};
inline constexpr Bytes uuid{104, 16}, volumeName{120, 16}, lastMounted{136, 64};
inline constexpr F16 reservedGdtBlocks{206};
inline constexpr Bytes hashSeed{236, 16};
inline constexpr F8 defaultHashVersion{252};
inline constexpr F32 defaultMountOptions{256}, mkfsTime{264};
inline constexpr F16 minExtraInodeSize{348}, wantExtraInodeSize{350};
inline constexpr F32 flags{352};
}  // namespace Super

// Values of the superblock fields the formatter sets.
inline constexpr uint16_t kStateClean = 1;
inline constexpr uint16_t kErrorsContinue = 1;
inline constexpr uint32_t kCreatorLinux = 0;
inline constexpr uint32_t kDynamicRevision = 1;
inline constexpr uint32_t kFirstInode = 11;  // the first inode that is not reserved: lost+found
inline constexpr uint32_t kCompatExtAttr = 0x0008, kCompatDirIndex = 0x0020;
inline constexpr uint32_t kCompatHasJournal = 0x0004;  // ext3; never set here
inline constexpr uint32_t kIncompatFiletype = 0x0002;
inline constexpr uint32_t kRoCompatSparseSuper = 0x0001, kRoCompatLargeFile = 0x0002;
inline constexpr uint8_t kHashHalfMd4 = 1;
inline constexpr uint32_t kMountUserXattr = 0x0004, kMountAcl = 0x0008;
inline constexpr uint32_t kFlagSignedHash = 0x0001;

// The 32-byte group descriptor.
inline constexpr uint32_t kGroupDescriptorSize = 32;
namespace Group {
inline constexpr F32 blockBitmap{0}, inodeBitmap{4}, inodeTable{8};
inline constexpr F16 freeBlocksCount{12}, freeInodesCount{14}, usedDirsCount{16};
}  // namespace Group

// The inode (128 bytes, more with the extra fields of larger inodes).
namespace Inode {
inline constexpr F16 mode{0}, uid{2};
inline constexpr F32 size{4}, accessTime{8}, changeTime{12}, modifyTime{16}, deleteTime{20};
inline constexpr F16 gid{24}, linksCount{26};
inline constexpr F32 sectors{28}, flags{32};
inline constexpr size_t kBlockPointers = 40;  // twelve direct, then the indirect pointers
inline constexpr F16 extraSize{128};
inline constexpr F32 creationTime{144};
}  // namespace Inode
inline constexpr uint32_t kBadBlocksInode = 1, kRootInode = 2, kLostFoundInode = 11;
inline constexpr uint32_t kDirectBlocks = 12;
inline constexpr uint16_t kModeDirectory = 0x4000;
inline constexpr uint16_t kGoodOldInodeSize = 128;
inline constexpr uint16_t kLargeInodeExtra = 32;  // the extra fields a 256-byte inode carries

// A directory entry: inode, record length, name length, file type, then the name.
namespace DirEntry {
inline constexpr F32 inode{0};
inline constexpr F16 recordLength{4};
inline constexpr F8 nameLength{6}, fileType{7};
inline constexpr size_t kName = 8;
}  // namespace DirEntry
inline constexpr uint8_t kFileTypeDirectory = 2;

// The volume label of an ext2/ext3 superblock, read from the partition's first bytes (at least
// 2048): up to the first NUL, trailing blanks removed. Empty without the ext2 magic.
std::string volumeLabelOf(const uint8_t* partitionStart, size_t length);

}  // namespace Corvo::Filesystem::Ext2
