#include "support/TestSupport.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "core/Config.h"

namespace KdiskTest {

namespace {
// Unit tests never reach the machine's own disks: every test starts as if /NOOSDISK had been
// given, so a disk manager enumerated inside a test sees only the images the test adds.
class NoOsDisks : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override { Corvo::Core::Config::setBool("OsDrive::Disable", true); }
};
const bool gNoOsDisksRegistered = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new NoOsDisks);
  return true;
}();
}  // namespace

using Corvo::Core::Error;
using Corvo::Core::ErrorId;

void MemoryBlockDevice::doRead(uint64_t first, uint64_t count, void* buffer) {
  std::memcpy(buffer, data_.data() + first * 512, count * 512);
}
void MemoryBlockDevice::doWrite(uint64_t first, uint64_t count, const void* buffer) {
  std::memcpy(data_.data() + first * 512, buffer, count * 512);
  ++writes;
  sectorsWritten += count;
}

bool FaultInjectingBlockDevice::hits(uint64_t first, uint64_t count) const {
  auto it = badSectors.lower_bound(first);
  return it != badSectors.end() && *it < first + count;
}
void FaultInjectingBlockDevice::doRead(uint64_t first, uint64_t count, void* buffer) {
  ++transfers;
  if (failReads && hits(first, count)) throw Error(ErrorId::ReadFailed, "Injected read fault");
  inner_.read(first, count, buffer);
}
void FaultInjectingBlockDevice::doWrite(uint64_t first, uint64_t count, const void* buffer) {
  ++transfers;
  if (failWrites && hits(first, count)) throw Error(ErrorId::WriteFailed, "Injected write fault");
  inner_.write(first, count, buffer);
}
void FaultInjectingBlockDevice::doVerify(uint64_t first, uint64_t count) {
  ++transfers;
  if (failReads && hits(first, count)) throw Error(ErrorId::VerifyFailed, "Injected verify fault");
  inner_.verify(first, count);
}

bool CaptureSink::question(const std::string& t) {
  questions += t + "\n";
  if (answers.empty()) return false;
  bool a = answers.front();
  answers.erase(answers.begin());
  return a;
}

ScopedCapture::ScopedCapture() {
  auto s = std::make_unique<CaptureSink>();
  sink_ = s.get();
  Corvo::Core::setMessageSink(std::move(s));
}
ScopedCapture::~ScopedCapture() { Corvo::Core::setMessageSink(nullptr); }

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "kdisk-test-XXXXXX").string();
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) std::abort();
  path_ = buf.data();
}
TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

int runCommand(const std::string& command, std::string* output) {
  std::string full = command + " 2>&1";
  FILE* p = popen(full.c_str(), "r");
  if (!p) return -1;
  std::array<char, 4096> buf;
  std::string out;
  size_t n;
  while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out.append(buf.data(), n);
  int status = pclose(p);
  if (output) *output = out;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveTool(const std::string& name) { return runCommand("command -v " + name + " >/dev/null") == 0; }

}  // namespace KdiskTest
