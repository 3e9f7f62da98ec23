// Byte layouts of the Windows disk device-control requests and replies. They are built and
// decoded here as plain bytes (little-endian, x64 alignment) so they can be checked on any
// platform; DiskDriveAccessNt only moves the buffers through DeviceIoControl.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "disk/DiskDriveAccess.h"

namespace Corvo::Disk::NtBuffers {

// Windows error codes that ask for a larger reply buffer.
inline constexpr uint32_t kErrorInsufficientBuffer = 122;
inline constexpr uint32_t kErrorMoreData = 234;

// Buffer sizes of the requests.
inline constexpr size_t kGeometrySize = 24;        // DISK_GEOMETRY
inline constexpr size_t kGeometryExSize = 40;      // DISK_GEOMETRY_EX (first call)
inline constexpr size_t kGeometryExGrowth = 1024;
inline constexpr int kGeometryExMaxCalls = 11;
inline constexpr size_t kLayoutExHeader = 48;      // DRIVE_LAYOUT_INFORMATION_EX up to its entries
inline constexpr size_t kLayoutExEntry = 144;      // PARTITION_INFORMATION_EX
inline constexpr size_t kLayoutExInitial = 5808;   // room for 40 entries
inline constexpr size_t kLayoutExGrowth = 1152;    // 8 more entries
inline constexpr size_t kLayoutOldHeader = 8;      // DRIVE_LAYOUT_INFORMATION up to its entries
inline constexpr size_t kLayoutOldEntry = 32;      // PARTITION_INFORMATION
inline constexpr uint32_t kBusIeee1394 = 4;
inline constexpr uint32_t kBusUsb = 7;

// One device-control call: fills the buffer and returns 0, or returns the Windows error code.
using IoctlCall = std::function<uint32_t(std::vector<uint8_t>& buffer)>;

struct GrowResult {
  uint32_t error = 0;             // 0 on success
  std::vector<uint8_t> buffer;    // the reply (size = the buffer size of the last call)
  std::vector<size_t> sizesTried; // every buffer size used, in order
};
// Calls with a zeroed buffer of `initial` bytes; while the call fails with one of the
// `growOn` codes, grows the buffer by `step` and calls again, at most `maxCalls` calls.
GrowResult callGrowing(size_t initial, size_t step, int maxCalls, std::vector<uint32_t> growOn, const IoctlCall& call);
// The two requests that use it.
GrowResult getGeometryEx(const IoctlCall& call);  // 40 bytes, +1024 on 234/122, 11 calls
GrowResult getLayoutEx(const IoctlCall& call);    // 5808 bytes, +1152 on 122

// DISK_GEOMETRY (24 bytes) and the geometry part of DISK_GEOMETRY_EX.
struct NtGeometry {
  uint64_t cylinders = 0;
  uint32_t mediaType = 0, tracksPerCylinder = 0, sectorsPerTrack = 0, bytesPerSector = 0;
  std::optional<uint64_t> diskSize;  // bytes; only in the EX reply
};
std::vector<uint8_t> encodeGeometry(const NtGeometry& g, bool ex);  // for tests and fakes
std::optional<NtGeometry> parseGeometry(const uint8_t* p, size_t n);    // nullopt when short
std::optional<NtGeometry> parseGeometryEx(const uint8_t* p, size_t n);  // nullopt when short
// The disk's geometry and total 512-byte sectors from a reply; false when bytes per sector
// is zero (the geometry is not valid). Total: disk size / bytes per sector for the EX reply,
// cylinders x heads x sectors for the old one, in 512-byte sectors.
bool toGeometry(const NtGeometry& g, Geometry& out, uint64_t& totalBlocks);

// One entry of a Windows layout, in table order. For MBR disks the entries come in groups
// of four: the MBR's slots, then each extended boot record's slots (logical drive, link to
// the next record, two empty ones).
struct NtPartition {
  uint64_t startingOffset = 0, length = 0;  // bytes
  uint32_t number = 0;
  bool rewrite = true;
  // MBR
  uint8_t type = 0;
  bool boot = false, recognized = false;
  uint32_t hiddenSectors = 0;
  // GPT
  std::array<uint8_t, 16> typeGuid{}, uniqueGuid{};
  uint64_t attributes = 0;
  std::u16string name;
};
struct NtLayout {
  uint32_t style = 0;  // 0 MBR, 1 GPT
  uint32_t signature = 0;
  std::array<uint8_t, 16> diskGuid{};
  uint64_t startingUsableOffset = 0, usableLength = 0;
  uint32_t maxPartitionCount = 128;
  std::vector<NtPartition> partitions;
};

// Turns the layout the partition code reports into the entries Windows expects. MBR:
// primary slots by number (1-4), then a group of four per logical drive with the link to
// the next extended boot record.
NtLayout toNtLayout(const OsLayout& layout);
// Back to the partition code's view: used entries only, link entries dropped.
OsLayout fromNtLayout(const NtLayout& nt);

// DRIVE_LAYOUT_INFORMATION_EX: 48 + 144 x count bytes.
std::vector<uint8_t> buildLayoutEx(const NtLayout& layout);
// Throws Core::Error (InvalidArgument) when the reply is short or its count does not fit.
NtLayout parseLayoutEx(const uint8_t* p, size_t n);
// DRIVE_LAYOUT_INFORMATION (MBR only): 8 + 32 x count bytes, at least 40.
std::vector<uint8_t> buildLayoutOld(const NtLayout& layout);
NtLayout parseLayoutOld(const uint8_t* p, size_t n);
// The fallback of the update: the EX request rewritten as the older request (rewrite = 1).
std::vector<uint8_t> layoutExToOld(const uint8_t* ex, size_t n);

// STORAGE_PROPERTY_QUERY for the device descriptor (12 bytes), and its reply.
std::vector<uint8_t> buildDevicePropertyQuery();
struct StorageDescriptor {
  uint32_t busType = 0;
  bool removable = false;
  std::string vendor, product, revision, serial;
};
std::optional<StorageDescriptor> parseStorageDescriptor(const uint8_t* p, size_t n);
// The same query for the access alignment descriptor, and the physical sector size in its reply
// (0 when the reply is too short to hold it).
std::vector<uint8_t> buildAlignmentPropertyQuery();
uint32_t parsePhysicalSectorSize(const uint8_t* p, size_t n);

// VERIFY_INFORMATION (16 bytes).
std::vector<uint8_t> buildVerify(uint64_t startingOffset, uint32_t length);

// VOLUME_DISK_EXTENTS: the (disk number, offset, length) runs of one volume.
struct DiskExtent {
  uint32_t diskNumber = 0;
  uint64_t startingOffset = 0, length = 0;
};
std::vector<DiskExtent> parseVolumeDiskExtents(const uint8_t* p, size_t n);

}  // namespace Corvo::Disk::NtBuffers
