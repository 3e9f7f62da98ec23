#include "support/TestSupport.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

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

void forEachCrashImage(const std::vector<uint8_t>& before, const std::vector<MemoryAccess::Event>& log,
                       const std::function<void(const std::vector<uint8_t>&)>& visit) {
  constexpr size_t kAllSubsetsUpTo = 8;
  std::vector<uint8_t> durable = before, image;
  auto apply = [](std::vector<uint8_t>& to, const MemoryAccess::Event& w) {
    std::memcpy(to.data() + w.first * 512, w.data.data(), w.data.size());
  };
  size_t i = 0;
  while (true) {
    std::vector<const MemoryAccess::Event*> group;
    for (; i < log.size() && !log[i].flush; ++i) group.push_back(&log[i]);
    if (group.size() <= kAllSubsetsUpTo) {
      for (size_t mask = 0; mask < (size_t{1} << group.size()); ++mask) {
        image = durable;
        for (size_t k = 0; k < group.size(); ++k)
          if (mask & (size_t{1} << k)) apply(image, *group[k]);
        visit(image);
      }
    } else {
      image = durable;
      visit(image);
      for (const auto* w : group) {
        apply(image, *w);
        visit(image);
      }
    }
    for (const auto* w : group) apply(durable, *w);
    if (i >= log.size()) break;
    ++i;  // the flush
  }
  visit(durable);
}

size_t imageHash(const std::vector<uint8_t>& image) {
  return std::hash<std::string_view>{}(std::string_view(reinterpret_cast<const char*>(image.data()), image.size()));
}

void writeSparseImage(const std::string& path, const std::vector<uint8_t>& image) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) std::abort();
  static const std::array<uint8_t, 512> zero{};
  auto isZero = [&](size_t at) { return std::memcmp(image.data() + at, zero.data(), 512) == 0; };
  for (size_t at = 0; at < image.size();) {
    if (isZero(at)) {
      at += 512;
      continue;
    }
    size_t end = at + 512;  // one write per run of sectors that are not zero
    while (end < image.size() && !isZero(end)) end += 512;
    std::fseek(f, static_cast<long>(at), SEEK_SET);
    std::fwrite(image.data() + at, 1, end - at, f);
    at = end;
  }
  std::fclose(f);
  if (::truncate(path.c_str(), static_cast<off_t>(image.size())) != 0) std::abort();
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
