// Access backends: how one disk is reached (an OS raw device, a block device node, an image
// file). Platform code lives only behind this interface.
#pragma once
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Corvo::Disk {

// Backends address disks in units of 512 bytes whatever the logical sector size; DiskDrive
// turns its logical sectors into these units.
inline constexpr uint32_t kAccessUnit = 512;

struct Geometry {
  uint64_t cylinders = 0;
  uint32_t heads = 255;
  uint32_t sectorsPerTrack = 63;
  uint32_t bytesPerSector = 512;  // the disk's logical sector size
  // The sector size the medium writes in (4096 on 512e disks); 0 when the backend cannot tell,
  // which counts as the logical size.
  uint32_t physicalBytesPerSector = 0;
  uint32_t physicalSectorSize() const { return physicalBytesPerSector ? physicalBytesPerSector : bytesPerSector; }
};

// The partition layout as the operating system is told about it after a change.
struct OsLayoutEntry {
  uint32_t number = 0;  // the OS's partition number (1-based, as its device names count)
  uint64_t firstBlock = 0;
  uint64_t blockCount = 0;
  uint8_t type = 0;     // MBR type byte
  bool active = false;
  bool container = false;  // the extended partition itself (the OS shows it as a tiny device)
  std::array<uint8_t, 16> typeGuid{};    // GPT
  std::array<uint8_t, 16> uniqueGuid{};  // GPT
  uint64_t attributes = 0;               // GPT
  std::u16string name;                   // GPT
  // Logical drives: the sector of the extended boot record holding the entry (0: not given).
  // Systems that rewrite the boot records from the layout need it.
  uint64_t tableBlock = 0;
};

struct OsLayout {
  enum Style : uint32_t { Mbr = 0, Gpt = 1 } style = Mbr;
  uint32_t signature = 0;             // MBR disk signature
  std::array<uint8_t, 16> diskGuid{};  // GPT
  uint64_t firstUsableBlock = 0, usableBlocks = 0;  // GPT
  std::vector<OsLayoutEntry> entries;
};

class DiskDriveAccess {
 public:
  virtual ~DiskDriveAccess() = default;

  virtual std::string path() const = 0;
  virtual Geometry getGeometry() const = 0;
  // Total size in units of kAccessUnit bytes.
  virtual uint64_t totalBlocks() const = 0;
  virtual std::string model() const { return {}; }
  virtual std::string serialNumber() const { return {}; }

  // Transfers in units of kAccessUnit bytes; ranges are already checked. Throw Core::Error on failure.
  virtual void read(uint64_t first, uint64_t count, void* buffer) = 0;
  virtual void write(uint64_t first, uint64_t count, const void* buffer) = 0;
  // Reads back without writing; the default reads into a scratch buffer.
  virtual void verify(uint64_t first, uint64_t count);
  // Zeros the sectors without transferring them when the backend has a reliable way (punching
  // or zeroing a range of an image file, the device's zero-out). quickOnly: only a way that
  // does not write the range (a hole, an unmapped range), never one that writes zeros itself.
  // False when it has none or it failed; the caller then writes zeros itself.
  virtual bool zeroRange(uint64_t /*first*/, uint64_t /*count*/, bool /*quickOnly*/) { return false; }
  // Makes every write so far durable. A flush the system reports as failed throws
  // Core::Error (WriteFailed): the data written before it may not be on the medium.
  virtual void flush() {}

  // Transfers that bypass the system's cache where the backend can (the passes of a wipe and
  // its verifying read): writeMedium hands the sectors to the device at once, readMedium
  // returns what the medium holds rather than a cached copy. Only a flush() afterwards makes
  // the writes durable. The defaults are read() and write().
  virtual void readMedium(uint64_t first, uint64_t count, void* buffer) { read(first, count, buffer); }
  virtual void writeMedium(uint64_t first, uint64_t count, const void* buffer) { write(first, count, buffer); }
  // Sectors the backend moves best in one transfer; 0 leaves the disk layer's default.
  virtual uint32_t preferredTransferBlocks() const { return 0; }
  // Throws the error a write would give (WriteProtected) when the disk can only be read, so
  // that a long operation is refused before it starts.
  virtual void requireWritable() const {}

  // The disk the running system started from.
  virtual bool isBootDisk() const { return false; }
  // Tells the OS the new layout; backends without an OS view (images) do nothing.
  virtual bool supportsOsLayout() const { return false; }
  virtual void setNativePartitionLayout(const OsLayout&) {}
  // Systems that mount volumes at drive letters: the letter "X:\" for the volume that starts at
  // firstBlock. Throws Core::Error (OsLayoutFailed) when it cannot be given. Backends without
  // volumes of their own (images, Linux block devices) have none to mount.
  virtual bool mountsVolumes() const { return false; }
  virtual void assignDriveLetter(uint64_t /*firstBlock*/, char /*letter*/) {}
  // Called before the sectors of an existing partition are changed (delete, wipe, hide,
  // format): locks and dismounts its volumes, or checks that it is not mounted or in use.
  // Throws Core::Error (InUse) and writes nothing when the partition is busy.
  virtual void prepareForChange(uint64_t /*firstBlock*/, uint64_t /*blockCount*/) {}
  // An exclusive advisory lock on the disk (POSIX: flock on the device node or image file),
  // tried until waitMilliseconds have passed. Backends without one (Windows, which locks the
  // volumes in prepareForChange) return true.
  virtual bool lockExclusive(unsigned /*waitMilliseconds*/) { return true; }
  virtual void unlockExclusive() {}
};

// True where the running system names volumes by drive letters.
#if defined(_WIN32)
constexpr bool kSystemUsesDriveLetters = true;
#else
constexpr bool kSystemUsesDriveLetters = false;
#endif

// Opens a disk given with /ADDDISK=: a raw image file, a block device node, or a VMDK
// (monolithicFlat or monolithicSparse). Throws Core::Error naming the file and the reason.
std::unique_ptr<DiskDriveAccess> openImageDisk(const std::string& path);

// A disk of the machine found by enumeration, or the reason it could not be opened.
struct OsDiskCandidate {
  std::string path;
  std::unique_ptr<DiskDriveAccess> access;  // null when opening failed
  std::string openError;                   // why, when access is null
};
// Enumerates the machine's fixed disks in the platform's order (Linux: /sys/block;
// Windows: \\.\PhysicalDriveN). Honours "Usb::Disable", "IEEE1394::Disable" and
// "DiskManager::driveCount".
std::vector<OsDiskCandidate> enumerateOsDisks();

}  // namespace Corvo::Disk
