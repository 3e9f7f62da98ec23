#include "disk/BlockDevice.h"

#include <algorithm>
#include <string>

#include "core/Interrupt.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

void BlockDevice::checkRange(uint64_t first, uint64_t count, const char* what) const {
  uint64_t total = blockCount();
  if (first > total || count > total - first)
    throw Error(ErrorId::OutOfRange, std::string("Attempt to ") + what + " sectors outside the device")
        .with("first", std::to_string(first))
        .with("count", std::to_string(count))
        .with("blockCount", std::to_string(total));
}

void BlockDevice::read(uint64_t first, uint64_t count, void* buffer) {
  checkRange(first, count, "read");
  if (count) doRead(first, count, buffer);
}

std::vector<uint8_t> BlockDevice::readSector(uint64_t at) {
  std::vector<uint8_t> sector(bytesPerBlock());
  read(at, 1, sector.data());
  return sector;
}

void BlockDevice::write(uint64_t first, uint64_t count, const void* buffer) {
  checkRange(first, count, "write");
  if (count) doWrite(first, count, buffer);
}

void BlockDevice::verify(uint64_t first, uint64_t count) {
  checkRange(first, count, "verify");
  if (count) doVerify(first, count);
}

void BlockDevice::writeZeros(uint64_t first, uint64_t count) {
  checkRange(first, count, "write");
  if (count) doWriteZeros(first, count);
}

bool BlockDevice::zeroQuickly(uint64_t first, uint64_t count) {
  checkRange(first, count, "write");
  return count == 0 || doZeroQuickly(first, count);
}

void BlockDevice::doWriteZeros(uint64_t first, uint64_t count) {
  const uint64_t maxZeroBlocks = blocksOf(uint64_t{8} << 20);
  const uint64_t chunk = std::clamp<uint64_t>(preferredTransferBlocks(), 1, std::max<uint64_t>(1, maxZeroBlocks));
  const std::vector<uint8_t> zeros(static_cast<size_t>(bytesOf(std::min(chunk, count))), 0);
  while (count) {
    const uint64_t n = std::min(chunk, count);
    doWrite(first, n, zeros.data());
    first += n;
    count -= n;
  }
}

void BlockDevice::readMedium(uint64_t first, uint64_t count, void* buffer) {
  checkRange(first, count, "read");
  if (count) doReadMedium(first, count, buffer);
}

void BlockDevice::writeMedium(uint64_t first, uint64_t count, const void* buffer) {
  checkRange(first, count, "write");
  if (count) doWriteMedium(first, count, buffer);
}

void BlockDevice::doVerify(uint64_t first, uint64_t count) {
  uint64_t chunk = std::max<uint32_t>(1, preferredTransferBlocks());
  std::vector<uint8_t> scratch(static_cast<size_t>(bytesOf(std::min(chunk, count))));
  while (count) {
    uint64_t n = std::min(chunk, count);
    try {
      doRead(first, n, scratch.data());
    } catch (const Error& e) {
      throw Error(ErrorId::VerifyFailed, e.text()).with("first", std::to_string(first)).with("count", std::to_string(n));
    }
    first += n;
    count -= n;
  }
}

RangeBlockDevice::RangeBlockDevice(BlockDevice& parent, uint64_t first, uint64_t count)
    : parent_(parent), first_(first), count_(count) {
  if (first > parent.blockCount() || count > parent.blockCount() - first)
    throw Error(ErrorId::OutOfRange, "Partition range lies outside the disk")
        .with("first", std::to_string(first))
        .with("count", std::to_string(count));
}

void RangeBlockDevice::doRead(uint64_t first, uint64_t count, void* buffer) { parent_.read(first_ + first, count, buffer); }
void RangeBlockDevice::doWrite(uint64_t first, uint64_t count, const void* buffer) {
  parent_.write(first_ + first, count, buffer);
}
void RangeBlockDevice::doVerify(uint64_t first, uint64_t count) { parent_.verify(first_ + first, count); }
void RangeBlockDevice::doWriteZeros(uint64_t first, uint64_t count) { parent_.writeZeros(first_ + first, count); }
void RangeBlockDevice::doReadMedium(uint64_t first, uint64_t count, void* buffer) {
  parent_.readMedium(first_ + first, count, buffer);
}
void RangeBlockDevice::doWriteMedium(uint64_t first, uint64_t count, const void* buffer) {
  parent_.writeMedium(first_ + first, count, buffer);
}

void requireSectorSize(uint32_t bytesPerSector) {
  if (bytesPerSector != kSectorSize)
    throw Core::Error(Core::ErrorId::UnsupportedSectorSize,
                      "Writing to disks whose sectors are not 512 bytes is not supported")
        .with("bytesPerSector", std::to_string(bytesPerSector));
}

void stopIfInterrupted(Core::Progress& progress, BlockDevice& device, const char* operation) {
  if (!Core::interruptRequested()) return;
  Core::Error stop = progress.interruption(operation);
  device.flush();
  throw stop;
}

}  // namespace Corvo::Disk
