#include "disk/MbrTestSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>

#include "core/Error.h"

namespace KdiskTest {

using namespace Corvo::Disk;

std::string describe(const std::vector<PartView>& parts) {
  std::ostringstream s;
  for (const auto& p : parts)
    s << "start=" << p.start << " size=" << p.size << " type=" << std::hex << p.type << std::dec
      << (p.boot ? " boot" : "") << "\n";
  return s.str();
}

bool makeImage(const std::string& path, uint64_t mb, const std::string& script) {
  if (runCommand("rm -f '" + path + "' && truncate -s " + std::to_string(mb) + "M '" + path + "'") != 0) return false;
  if (script.empty()) return true;
  std::string scriptFile = path + ".sfdisk";
  std::ofstream(scriptFile) << script;
  std::string out;
  int rc = runCommand("sfdisk -q --no-reread --no-tell-kernel '" + path + "' < '" + scriptFile + "'", &out);
  if (rc != 0) fprintf(stderr, "sfdisk failed: %s\n", out.c_str());
  return rc == 0;
}

std::vector<PartView> sfdiskView(const std::string& path) {
  std::string out;
  runCommand("sfdisk --json '" + path + "' 2>/dev/null", &out);
  std::vector<PartView> parts;
  std::regex entry(R"re("start":\s*(\d+),\s*"size":\s*(\d+),\s*"type":\s*"([0-9a-fA-F]+)"(,\s*"bootable":\s*true)?)re");
  for (auto it = std::sregex_iterator(out.begin(), out.end(), entry); it != std::sregex_iterator(); ++it) {
    PartView p;
    p.start = std::stoull((*it)[1]);
    p.size = std::stoull((*it)[2]);
    p.type = static_cast<unsigned>(std::stoul((*it)[3], nullptr, 16));
    p.boot = (*it)[4].matched;
    parts.push_back(p);
  }
  std::sort(parts.begin(), parts.end(), [](const PartView& a, const PartView& b) { return a.start < b.start; });
  return parts;
}

bool sfdiskClean(const std::string& path, std::string* report) {
  std::string out;
  int rc = runCommand("sfdisk --verify '" + path + "'", &out);
  if (report) *report = out;
  return rc == 0 && out.find("No errors detected") != std::string::npos && out.find("corrupt") == std::string::npos &&
         out.find("not on the end") == std::string::npos;
}

std::vector<PartView> modelView(const PartitionedDisk& disk) {
  std::vector<PartView> parts;
  for (PartitionNode* n : disk.displayList()) parts.push_back({n->firstBlock, n->blockCount, n->type, n->active});
  std::sort(parts.begin(), parts.end(), [](const PartView& a, const PartView& b) { return a.start < b.start; });
  return parts;
}

std::unique_ptr<DiskDrive> openDrive(const std::string& path) { return std::make_unique<DiskDrive>(0, openImageDisk(path)); }

void patchSector(const std::string& path, uint64_t sector, size_t offset, const std::vector<uint8_t>& bytes) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(static_cast<std::streamoff>(sector * 512 + offset));
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace KdiskTest
