// Test helpers shared by the unit tests: in-memory and fault-injecting block devices, a
// capturing message sink, temporary files and running external tools.
#pragma once
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "core/Message.h"
#include "disk/BlockDevice.h"
#include "disk/DiskDriveAccess.h"
#include "support/InMemory.h"

namespace KdiskTest {

// A disk held in memory.
class MemoryBlockDevice : public Corvo::Disk::BlockDevice {
 public:
  explicit MemoryBlockDevice(uint64_t blocks) : data_(blocks * 512, 0) {}
  uint64_t blockCount() const override { return data_.size() / 512; }
  std::vector<uint8_t>& data() { return data_; }
  uint8_t* sector(uint64_t n) { return data_.data() + n * 512; }
  uint64_t writes = 0, sectorsWritten = 0;

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override;
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override;

 private:
  std::vector<uint8_t> data_;
};

// Fails every transfer that touches one of the chosen sectors (reads, writes and verifies).
class FaultInjectingBlockDevice : public Corvo::Disk::BlockDevice {
 public:
  explicit FaultInjectingBlockDevice(Corvo::Disk::BlockDevice& inner) : inner_(inner) {}
  uint64_t blockCount() const override { return inner_.blockCount(); }
  uint32_t preferredTransferBlocks() const override { return inner_.preferredTransferBlocks(); }
  std::set<uint64_t> badSectors;
  bool failReads = true, failWrites = true;
  uint64_t transfers = 0;

 protected:
  void doRead(uint64_t first, uint64_t count, void* buffer) override;
  void doWrite(uint64_t first, uint64_t count, const void* buffer) override;
  void doVerify(uint64_t first, uint64_t count) override;

 private:
  bool hits(uint64_t first, uint64_t count) const;
  Corvo::Disk::BlockDevice& inner_;
};

// Every image a disk can hold after a stop at any point of the logged writes: writes between
// two flushes may reach the medium in any order, so each group of writes after the last
// completed flush contributes each of its subsets (its prefixes only when it is too large).
void forEachCrashImage(const std::vector<uint8_t>& before, const std::vector<MemoryAccess::Event>& log,
                       const std::function<void(const std::vector<uint8_t>&)>& visit);
// A hash of an image's bytes, to tell images apart.
size_t imageHash(const std::vector<uint8_t>& image);
// Writes an image to a sparse file (only sectors that are not zero are written).
void writeSparseImage(const std::string& path, const std::vector<uint8_t>& image);

// Captures every message; questions are answered from a queue (empty queue: no).
class CaptureSink : public Corvo::Core::MessageSink {
 public:
  std::string errors, warnings, infos, out, questions;
  std::vector<bool> answers;
  void error(const std::string& t) override { errors += t + "\n"; }
  void warning(const std::string& t) override { warnings += t + "\n"; }
  void information(const std::string& t) override { infos += t + "\n"; }
  bool question(const std::string& t) override;
  void output(const std::string& t) override { out += t; }
  void progress(const std::string&, uint64_t, uint64_t) override {}
  int readKey() override { return -1; }
  bool readLine(std::string&) override { return false; }
};

// Installs a CaptureSink for the lifetime of the object.
class ScopedCapture {
 public:
  ScopedCapture();
  ~ScopedCapture();
  CaptureSink& sink() { return *sink_; }

 private:
  CaptureSink* sink_;
};

// A fresh temporary directory, removed with its contents at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Runs a shell command; returns its exit status and fills output with stdout+stderr.
int runCommand(const std::string& command, std::string* output = nullptr);
// True when the tool is on PATH.
bool haveTool(const std::string& name);

}  // namespace KdiskTest
