// Test doubles that need no test framework, shared by the unit tests, the fuzz targets and the
// benchmarks: a drive backend over a byte vector with injectable faults, and a message sink
// that shows nothing.
#pragma once
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/Message.h"
#include "disk/DiskDriveAccess.h"

namespace KdiskTest {

class MemoryAccess : public Corvo::Disk::DiskDriveAccess {
 public:
  explicit MemoryAccess(uint64_t blocks) : data(blocks * 512, 0) {}
  std::string path() const override { return "memory"; }
  Corvo::Disk::Geometry getGeometry() const override { return geometry; }
  uint64_t totalBlocks() const override { return data.size() / 512; }
  std::string model() const override { return "Memory disk"; }
  std::string serialNumber() const override { return "SN-0001"; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    ++reads;
    for (uint64_t s : badSectors)
      if (s >= first && s < first + count) throw Corvo::Core::Error(Corvo::Core::ErrorId::ReadFailed, "bad sector");
    std::memcpy(buffer, data.data() + first * 512, count * 512);
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    requireWritable();
    std::memcpy(data.data() + first * 512, buffer, count * 512);
    sectorsWritten += count;
  }
  void flush() override {
    if (failFlush) throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "Cannot flush memory -- injected");
  }
  void requireWritable() const override {
    if (readOnly) throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteProtected, "Cannot write memory -- read-only");
  }
  bool isBootDisk() const override { return bootDisk; }
  void prepareForChange(uint64_t, uint64_t) override {
    if (busy) throw Corvo::Core::Error(Corvo::Core::ErrorId::InUse, "The partition is mounted");
  }

  std::vector<uint8_t> data;
  Corvo::Disk::Geometry geometry{};
  std::set<uint64_t> badSectors;
  bool bootDisk = false, busy = false, readOnly = false, failFlush = false;
  mutable uint64_t reads = 0;
  uint64_t sectorsWritten = 0;
};

// Shows nothing and answers every question No; keeps the last error text and counts the bytes
// of everything it was given.
class SilentSink : public Corvo::Core::MessageSink {
 public:
  std::string lastError;
  size_t bytes = 0;
  void error(const std::string& t) override {
    lastError = t;
    bytes += t.size();
  }
  void warning(const std::string& t) override { bytes += t.size(); }
  void information(const std::string& t) override { bytes += t.size(); }
  bool question(const std::string&) override { return false; }
  void output(const std::string& t) override { bytes += t.size(); }
  void progress(const std::string&, uint64_t, uint64_t) override {}
  int readKey() override { return -1; }
  bool readLine(std::string&) override { return false; }
};

}  // namespace KdiskTest
