// Test doubles that need no test framework, shared by the unit tests, the fuzz targets and the
// benchmarks: the one configurable drive backend (MemoryAccess), and a message sink that
// shows nothing.
#pragma once
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/Error.h"
#include "core/Message.h"
#include "disk/DiskDriveAccess.h"

namespace KdiskTest {

// The one configurable disk of the tests, held in memory: any sector size (geometry), faults
// (reads or writes touching chosen sectors fail, a failing flush, read-only, busy), the
// system's view (layouts taken or refused, prepared ranges), and a record of every write and
// flush in order; after stopAfter writes every further write fails, as if the machine had
// stopped there. Transfers are in the backends' 512-byte units.
class MemoryAccess : public Corvo::Disk::DiskDriveAccess {
 public:
  struct Event {
    bool flush = false;
    uint64_t first = 0;         // writes: the first unit
    std::vector<uint8_t> data;  // writes: the bytes written
  };
  explicit MemoryAccess(uint64_t units, uint32_t bytesPerSector = 512) : data(units * 512, 0) {
    geometry.bytesPerSector = bytesPerSector;
  }
  explicit MemoryAccess(std::vector<uint8_t> image) : data(std::move(image)) {}
  // A copy of an image file.
  static std::unique_ptr<MemoryAccess> fromImage(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    auto mem = std::make_unique<MemoryAccess>(static_cast<uint64_t>(in.tellg()) / 512);
    in.seekg(0).read(reinterpret_cast<char*>(mem->data.data()), static_cast<std::streamsize>(mem->data.size()));
    return mem;
  }
  std::string path() const override { return "memory"; }
  Corvo::Disk::Geometry getGeometry() const override { return geometry; }
  uint64_t totalBlocks() const override { return data.size() / 512; }
  std::string model() const override { return "Memory disk"; }
  std::string serialNumber() const override { return "SN-0001"; }
  void read(uint64_t first, uint64_t count, void* buffer) override {
    ++reads;
    if (touches(badSectors, first, count)) throw Corvo::Core::Error(Corvo::Core::ErrorId::ReadFailed, "bad sector");
    std::memcpy(buffer, data.data() + first * 512, count * 512);
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    requireWritable();
    if (writes >= stopAfter) throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "The disk stopped");
    if (touches(failWrites, first, count))
      throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "Injected write fault");
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    std::memcpy(data.data() + first * 512, bytes, count * 512);
    ++writes;
    sectorsWritten += count;
    if (recording) log.push_back({false, first, std::vector<uint8_t>(bytes, bytes + count * 512)});
  }
  void flush() override {
    if (failFlush) throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "Cannot flush memory -- injected");
    if (recording) log.push_back({true, 0, {}});
  }
  void requireWritable() const override {
    if (readOnly) throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteProtected, "Cannot write memory -- read-only");
  }
  bool isBootDisk() const override { return bootDisk; }
  void prepareForChange(uint64_t first, uint64_t count) override {
    prepared.push_back({first, count});
    if (busy) throw Corvo::Core::Error(Corvo::Core::ErrorId::InUse, "The partition is mounted");
  }
  bool supportsOsLayout() const override { return osLayout; }
  void setNativePartitionLayout(const Corvo::Disk::OsLayout& layout) override {
    layouts.push_back(layout);
    if (refuseLayout) throw Corvo::Core::Error(Corvo::Core::ErrorId::OsLayoutFailed, "The system refused the layout");
  }

  std::vector<uint8_t> data;
  Corvo::Disk::Geometry geometry{};
  std::set<uint64_t> badSectors, failWrites;
  bool bootDisk = false, busy = false, readOnly = false, failFlush = false;
  bool osLayout = false, refuseLayout = false;
  bool recording = false;  // keep the log of writes and flushes
  size_t stopAfter = SIZE_MAX;
  std::vector<Event> log;
  std::vector<std::pair<uint64_t, uint64_t>> prepared;
  std::vector<Corvo::Disk::OsLayout> layouts;
  mutable uint64_t reads = 0;
  uint64_t writes = 0, sectorsWritten = 0;

 private:
  static bool touches(const std::set<uint64_t>& sectors, uint64_t first, uint64_t count) {
    auto it = sectors.lower_bound(first);
    return it != sectors.end() && *it < first + count;
  }
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
