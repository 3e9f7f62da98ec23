// Block devices: a disk, a partition (a range of a disk), an image. Every device is addressed in
// its own logical sectors of bytesPerBlock() bytes (512 unless the device says otherwise);
// every access outside the device is refused with an error object, never performed.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "core/Error.h"
#include "core/Message.h"

namespace Corvo::Disk {

// The default logical sector size, the one of the MBR's own record, and the only size that
// writes are allowed on for now (see requireSectorSize).
inline constexpr uint32_t kSectorSize = 512;
// Preferred transfer length: at least 1 MiB.
inline constexpr uint32_t kDefaultTransferBytes = 1u << 20;

class BlockDevice {
 public:
  virtual ~BlockDevice() = default;

  virtual uint64_t blockCount() const = 0;
  // The logical sector size: the unit of every address and count of this device.
  virtual uint32_t bytesPerBlock() const { return kSectorSize; }
  // Sectors moved by one transfer of the preferred length (reads, writes, wipes, verify).
  virtual uint32_t preferredTransferBlocks() const { return kDefaultTransferBytes / bytesPerBlock(); }
  // Bytes in `blocks` sectors, and whole sectors in `bytes` (rounded down).
  uint64_t bytesOf(uint64_t blocks) const { return blocks * bytesPerBlock(); }
  uint64_t blocksOf(uint64_t bytes) const { return bytes / bytesPerBlock(); }
  // Media descriptor byte for FAT: 0xF8 for a fixed disk.
  virtual uint8_t mediaByte() const { return 0xF8; }

  // Multi-sector transfers. Throw Core::Error (OutOfRange, ReadFailed, WriteFailed, ...).
  void read(uint64_t first, uint64_t count, void* buffer);
  // One sector in a buffer of bytesPerBlock() bytes (a 512-byte record is its first bytes).
  std::vector<uint8_t> readSector(uint64_t at);
  void write(uint64_t first, uint64_t count, const void* buffer);
  // Checks that the sectors can be read back; writes nothing. Throws VerifyFailed.
  void verify(uint64_t first, uint64_t count);
  // Writes zeros over the sectors. Devices that can zero a range without moving its bytes (a
  // hole punched in an image file, a disk's own zero-out command) do so; the others, and every
  // failure of that quick way, write zero buffers. Throws like write().
  void writeZeros(uint64_t first, uint64_t count);
  // Zeros the sectors only when the device can do it without writing them (a hole punched in
  // a sparse image file, a disk's own zero-out command); false, with nothing changed, when it
  // cannot. Throws OutOfRange for a range outside the device.
  bool zeroQuickly(uint64_t first, uint64_t count);
  // Makes every write so far durable; throws Core::Error (WriteFailed) when it cannot.
  virtual void flush() {}
  // Transfers past the system's cache (see DiskDriveAccess): a write handed to the device at
  // once, a read of what the medium holds. Devices without such a path read and write.
  void readMedium(uint64_t first, uint64_t count, void* buffer);
  void writeMedium(uint64_t first, uint64_t count, const void* buffer);
  // Throws the device's own error (WriteProtected, UnsupportedSectorSize) when it cannot be
  // written at all.
  virtual void requireWritable() const {}

 protected:
  // Implementations receive only ranges that lie inside the device.
  virtual void doRead(uint64_t first, uint64_t count, void* buffer) = 0;
  virtual void doWrite(uint64_t first, uint64_t count, const void* buffer) = 0;
  virtual void doReadMedium(uint64_t first, uint64_t count, void* buffer) { doRead(first, count, buffer); }
  virtual void doWriteMedium(uint64_t first, uint64_t count, const void* buffer) { doWrite(first, count, buffer); }
  // Default: reads the range in preferred-length transfers into a scratch buffer.
  virtual void doVerify(uint64_t first, uint64_t count);
  // Default: zero buffers of the preferred transfer length (at most 8 MiB) through doWrite.
  virtual void doWriteZeros(uint64_t first, uint64_t count);
  virtual bool doZeroQuickly(uint64_t /*first*/, uint64_t /*count*/) { return false; }

 private:
  void checkRange(uint64_t first, uint64_t count, const char* what) const;
};

// A window of another device: sector 0 here is sector `first` there.
class RangeBlockDevice : public BlockDevice {
 public:
  RangeBlockDevice(BlockDevice& parent, uint64_t first, uint64_t count);
  uint64_t blockCount() const override { return count_; }
  uint32_t bytesPerBlock() const override { return parent_.bytesPerBlock(); }
  uint32_t preferredTransferBlocks() const override { return parent_.preferredTransferBlocks(); }
  uint8_t mediaByte() const override { return parent_.mediaByte(); }
  void flush() override { parent_.flush(); }
  void requireWritable() const override { parent_.requireWritable(); }
  uint64_t firstBlock() const { return first_; }

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override;
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override;
  void doVerify(uint64_t first, uint64_t count) override;
  void doWriteZeros(uint64_t first, uint64_t count) override;
  bool doZeroQuickly(uint64_t first, uint64_t count) override { return parent_.zeroQuickly(first_ + first, count); }
  void doReadMedium(uint64_t first, uint64_t count, void* buffer) override;
  void doWriteMedium(uint64_t first, uint64_t count, const void* buffer) override;

 private:
  BlockDevice& parent_;
  uint64_t first_, count_;
};

// The one place that refuses writes by sector size: throws UnsupportedSectorSize unless
// sectors of bytesPerSector bytes are 512 bytes. Devices call it from requireWritable() and
// before every write.
void requireSectorSize(uint32_t bytesPerSector);

// Ctrl-C between the chunks of a long operation (a wipe, a format): when the user asked to
// stop, flushes what was written and throws the progress display's interruption error naming
// the operation ("Wipe", "Format"). Does nothing otherwise.
void stopIfInterrupted(Core::Progress& progress, BlockDevice& device, const char* operation);

}  // namespace Corvo::Disk
