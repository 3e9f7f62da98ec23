#include "disk/access/LinuxDisks.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <map>

#include "core/Config.h"
#include "core/Error.h"
#include "core/Trace.h"
#include "disk/access/FileIo.h"

#if defined(__linux__)
#include <dirent.h>
#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#endif

namespace Corvo::Disk::LinuxDisks {

using Core::Error;
using Core::ErrorId;

namespace {

bool allDigits(const std::string& s, size_t from, size_t to) {
  if (from >= to) return false;
  for (size_t i = from; i < to; ++i)
    if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
  return true;
}
bool allLower(const std::string& s, size_t from) {
  if (from >= s.size()) return false;
  for (size_t i = from; i < s.size(); ++i)
    if (s[i] < 'a' || s[i] > 'z') return false;
  return true;
}

// Families in the order they are listed; the rest of the name is compared naturally.
const char* const kFamilies[] = {"sd", "vd", "xvd", "nvme", "mmcblk"};

int familyOf(const std::string& name) {
  for (int i = 0; i < static_cast<int>(std::size(kFamilies)); ++i) {
    const std::string f = kFamilies[i];
    if (name.rfind(f, 0) == 0) return i;
  }
  return static_cast<int>(std::size(kFamilies));
}

// Compares the run of letters or digits: letters by length then alphabet (sdz < sdaa),
// digits by value.
int compareRest(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    bool da = std::isdigit(static_cast<unsigned char>(a[i])), db = std::isdigit(static_cast<unsigned char>(b[j]));
    if (da != db) return da ? -1 : 1;
    size_t ie = i, je = j;
    while (ie < a.size() && (std::isdigit(static_cast<unsigned char>(a[ie])) != 0) == da) ++ie;
    while (je < b.size() && (std::isdigit(static_cast<unsigned char>(b[je])) != 0) == db) ++je;
    std::string ta = a.substr(i, ie - i), tb = b.substr(j, je - j);
    if (da) {
      ta.erase(0, std::min(ta.find_first_not_of('0'), ta.size() - 1));
      tb.erase(0, std::min(tb.find_first_not_of('0'), tb.size() - 1));
    }
    if (ta.size() != tb.size()) return ta.size() < tb.size() ? -1 : 1;
    if (int c = ta.compare(tb)) return c < 0 ? -1 : 1;
    i = ie;
    j = je;
  }
  if (i < a.size()) return 1;
  if (j < b.size()) return -1;
  return 0;
}

}  // namespace

bool isWholeDiskName(const std::string& name) {
  if (name.rfind("xvd", 0) == 0) return allLower(name, 3);
  if (name.rfind("sd", 0) == 0 || name.rfind("vd", 0) == 0) return allLower(name, 2);
  if (name.rfind("nvme", 0) == 0) {
    size_t n = name.find('n', 4);
    return n != std::string::npos && allDigits(name, 4, n) && allDigits(name, n + 1, name.size());
  }
  if (name.rfind("mmcblk", 0) == 0) return allDigits(name, 6, name.size());
  return false;
}

bool diskNameLess(const std::string& a, const std::string& b) {
  int fa = familyOf(a), fb = familyOf(b);
  if (fa != fb) return fa < fb;
  size_t skip = fa < static_cast<int>(std::size(kFamilies)) ? std::strlen(kFamilies[fa]) : 0;
  int c = compareRest(a.substr(skip), b.substr(skip));
  return c != 0 ? c < 0 : a < b;
}

std::vector<KernelStep> planKernelUpdate(const std::vector<KernelPartition>& current, const OsLayout& layout) {
  std::map<uint32_t, std::pair<uint64_t, uint64_t>> want;
  for (const OsLayoutEntry& e : layout.entries) {
    if (e.number == 0 || e.blockCount == 0) continue;
    want[e.number] = {e.firstBlock, e.container ? std::min<uint64_t>(e.blockCount, 2) : e.blockCount};
  }
  std::vector<KernelStep> deletes, resizes, adds;
  std::map<uint32_t, bool> kept;
  for (const KernelPartition& p : current) {
    auto it = want.find(p.number);
    if (it == want.end() || it->second.first != p.start) {
      deletes.push_back({KernelStep::Delete, p.number, p.start, p.size});
      continue;
    }
    kept[p.number] = true;
    if (it->second.second != p.size) resizes.push_back({KernelStep::Resize, p.number, p.start, it->second.second});
  }
  for (const auto& [number, range] : want)
    if (!kept.count(number)) adds.push_back({KernelStep::Add, number, range.first, range.second});
  std::vector<KernelStep> plan = std::move(deletes);
  // Shrinks before growths so a growing partition never overlaps one not yet shrunk.
  std::stable_sort(resizes.begin(), resizes.end(), [&](const KernelStep& x, const KernelStep& y) {
    auto grows = [&](const KernelStep& s) {
      for (const KernelPartition& p : current)
        if (p.number == s.number) return s.size > p.size;
      return false;
    };
    return !grows(x) && grows(y);
  });
  plan.insert(plan.end(), resizes.begin(), resizes.end());
  plan.insert(plan.end(), adds.begin(), adds.end());
  return plan;
}

#if defined(__linux__)

namespace {

std::string readSysfs(const std::string& path) {
  std::ifstream in(path);
  if (!in) return {};
  std::stringstream ss;
  ss << in.rdbuf();
  std::string s = ss.str();
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return {};
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

uint64_t readSysfsNumber(const std::string& path) {
  std::string s = readSysfs(path);
  return s.empty() ? 0 : std::strtoull(s.c_str(), nullptr, 10);
}

std::string devString(dev_t d) { return std::to_string(major(d)) + ":" + std::to_string(minor(d)); }

std::string realPath(const std::string& p) {
  char buf[PATH_MAX];
  if (!::realpath(p.c_str(), buf)) return {};
  return buf;
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) {
      std::string n = e->d_name;
      if (n != "." && n != "..") names.push_back(n);
    }
    ::closedir(d);
  }
  return names;
}

// Sysfs directory of the whole disk holding device `d` (itself when it is a whole disk).
std::string wholeDiskSysfs(dev_t d) {
  std::string p = realPath("/sys/dev/block/" + devString(d));
  if (p.empty()) return {};
  if (::access((p + "/partition").c_str(), F_OK) == 0) p = p.substr(0, p.rfind('/'));
  return p;
}

// The sysfs directories of the disks under the device holding the root filesystem: the
// disk itself, or the disks under a device-mapper or md device.
void rootDisks(const std::string& sys, std::vector<std::string>& out, int depth = 0) {
  if (sys.empty() || depth > 8) return;
  std::string disk = sys;
  if (::access((disk + "/partition").c_str(), F_OK) == 0) disk = disk.substr(0, disk.rfind('/'));
  auto slaves = listDir(disk + "/slaves");
  if (slaves.empty()) {
    out.push_back(disk);
    return;
  }
  for (const std::string& s : slaves) rootDisks(realPath(disk + "/slaves/" + s), out, depth + 1);
}

// Mount points per device number, from /proc/self/mountinfo.
std::multimap<std::string, std::string> mountedDevices() {
  std::multimap<std::string, std::string> m;
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    std::string id, parent, devno, root, point;
    if (ls >> id >> parent >> devno >> root >> point) m.emplace(devno, point);
  }
  return m;
}

// Device numbers in use as swap, from /proc/swaps.
std::vector<std::string> swapDevices() {
  std::vector<std::string> out;
  std::ifstream in("/proc/swaps");
  std::string line;
  std::getline(in, line);  // heading
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    std::string file;
    struct stat st {};
    if (ls >> file && ::stat(file.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) out.push_back(devString(st.st_rdev));
  }
  return out;
}

[[noreturn]] void refuseBusy(const char* what, const std::string& node, const std::string& why) {
  throw Error(ErrorId::InUse, std::string(what) + " " + node + " is in use (" + why + "); unmount it first")
      .with("device", node)
      .with("reason", why);
}

// Why a block device is busy (mounted, swap, held by a device mapper or md device, or opened
// exclusively by another program), or empty when it is free. sysDir is its sysfs directory.
std::string busyReason(const std::string& node, const std::string& devno, const std::string& sysDir,
                       const std::multimap<std::string, std::string>& mounts, const std::vector<std::string>& swaps,
                       bool tryExclusive) {
  if (auto m = mounts.find(devno); m != mounts.end()) return "mounted on " + m->second;
  if (std::find(swaps.begin(), swaps.end(), devno) != swaps.end()) return "used as swap";
  auto holders = listDir(sysDir + "/holders");
  if (!holders.empty()) return "held by " + holders.front();
  if (!tryExclusive) return {};
  int fd = ::open(node.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
  if (fd < 0 && errno == EBUSY) return "it cannot be opened exclusively";
  if (fd >= 0) ::close(fd);
  return {};
}

std::vector<KernelPartition> kernelPartitionsOf(const std::string& sysfs) {
  std::vector<KernelPartition> parts;
  for (const std::string& n : listDir(sysfs)) {
    std::string dir = sysfs + "/" + n;
    if (::access((dir + "/partition").c_str(), F_OK) != 0) continue;
    KernelPartition p;
    p.name = n;
    p.number = static_cast<uint32_t>(readSysfsNumber(dir + "/partition"));
    p.start = readSysfsNumber(dir + "/start");
    p.size = readSysfsNumber(dir + "/size");
    parts.push_back(p);
  }
  std::sort(parts.begin(), parts.end(), [](auto& a, auto& b) { return a.number < b.number; });
  return parts;
}

void refuseIfBusy(const std::string& node, dev_t dev, uint64_t first, uint64_t count, bool followShared = true);

// Calls check(loop device node, its device number, range) for every loop device other than
// `skip` whose backing file `matches`, with the part of image range [first, first + count) that
// it maps, in its own sectors.
template <class Match, class Check>
void forEachLoopOver(const Match& matches, uint64_t first, uint64_t count, const std::string& skip, const Check& check) {
  for (const std::string& n : listDir("/sys/block")) {
    if (n.rfind("loop", 0) != 0 || n == skip) continue;
    const std::string dir = "/sys/block/" + n;
    std::string backing = readSysfs(dir + "/loop/backing_file");
    if (backing.empty()) continue;
    const std::string deleted = " (deleted)";
    if (backing.size() > deleted.size() && backing.compare(backing.size() - deleted.size(), deleted.size(), deleted) == 0)
      continue;  // a file that no longer exists is not this image
    struct stat st {};
    if (::stat(backing.c_str(), &st) != 0 || !matches(st)) continue;
    // Image sectors [offset, offset + size) are the loop device's sectors [0, size).
    const uint64_t offset = readSysfsNumber(dir + "/loop/offset") / 512, size = readSysfsNumber(dir + "/size");
    const uint64_t end = first + count;
    if (end <= offset || first >= offset + size) continue;
    const uint64_t from = first > offset ? first - offset : 0, to = std::min(end - offset, size);
    unsigned maj = 0, min = 0;
    if (std::sscanf(readSysfs(dir + "/dev").c_str(), "%u:%u", &maj, &min) != 2) continue;
    check("/dev/" + n, makedev(maj, min), from, to - from);
  }
}

// The other ways to the same sectors of a block device: loop devices over the device node
// itself, and, for a loop device, the file (or device) behind it and every other loop device
// over that file. Each is checked as a device of its own.
void refuseIfSharedBusy(const std::string& node, dev_t dev, const std::string& sys, uint64_t first, uint64_t count) {
  const std::string self = sys.substr(sys.rfind('/') + 1);
  auto checkOther = [&](const std::string& other, dev_t otherDev, uint64_t from, uint64_t n) {
    try {
      refuseIfBusy(other, otherDev, from, n, false);
    } catch (const Error& e) {
      throw Error(ErrorId::InUse, node + " shares its sectors with " + other + " -- " + e.text(), e.properties());
    }
  };
  forEachLoopOver([&](const struct stat& st) { return S_ISBLK(st.st_mode) && st.st_rdev == dev; }, first, count, self,
                  checkOther);
  const std::string backing = readSysfs(sys + "/loop/backing_file");
  struct stat file {};
  if (backing.empty() || ::stat(backing.c_str(), &file) != 0) return;
  const uint64_t offset = readSysfsNumber(sys + "/loop/offset") / 512;
  if (S_ISBLK(file.st_mode)) {
    checkOther(backing, file.st_rdev, first + offset, count);
    return;
  }
  forEachLoopOver([&](const struct stat& st) { return st.st_dev == file.st_dev && st.st_ino == file.st_ino; },
                  first + offset, count, self, checkOther);
}

// Refuses (InUse) a write to sectors [first, first + count) of the block device `node` when
// the device or a partition of it that overlaps the range is busy, or (followShared) another
// way to the same sectors is (refuseIfSharedBusy). A partition node is busy as a whole. The
// whole disk counts as held exclusively only when none of its partitions is the holder (a
// mounted partition claims its disk too).
void refuseIfBusy(const std::string& node, dev_t dev, uint64_t first, uint64_t count, bool followShared) {
  const std::string devno = devString(dev);
  const std::string sys = realPath("/sys/dev/block/" + devno);
  if (sys.empty()) return;
  const auto mounts = mountedDevices();
  const auto swaps = swapDevices();
  const bool isPartition = ::access((sys + "/partition").c_str(), F_OK) == 0;
  if (isPartition) {
    std::string why = busyReason(node, devno, sys, mounts, swaps, true);
    if (!why.empty()) refuseBusy("Partition", node, why);
    return;
  }
  if (std::string why = busyReason(node, devno, sys, mounts, swaps, false); !why.empty()) refuseBusy("Disk", node, why);
  bool partitionHeld = false;
  for (const KernelPartition& p : kernelPartitionsOf(sys)) {
    const std::string partNode = "/dev/" + p.name;
    const std::string partDevno = readSysfs(sys + "/" + p.name + "/dev");
    const bool overlaps = p.start < first + count && first < p.start + p.size;
    std::string why = busyReason(partNode, partDevno, sys + "/" + p.name, mounts, swaps, true);
    if (why.empty()) continue;
    if (overlaps) refuseBusy("Partition", partNode, why);
    partitionHeld = true;
  }
  if (!partitionHeld) {
    int fd = ::open(node.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    if (fd < 0 && errno == EBUSY) refuseBusy("Disk", node, "it cannot be opened exclusively");
    if (fd >= 0) ::close(fd);
  }
  if (followShared) refuseIfSharedBusy(node, dev, sys, first, count);
}

class LinuxBlockDeviceAccess : public DiskDriveAccess {
 public:
  explicit LinuxBlockDeviceAccess(const std::string& devPath) : path_(devPath) {
    fd_ = ::open(devPath.c_str(), O_RDWR | O_CLOEXEC);
    if (fd_ < 0) {
      writeError_ = std::strerror(errno);
      fd_ = ::open(devPath.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (fd_ < 0)
      throw Error(ErrorId::OpenFailed, "Cannot open " + devPath + " -- " + std::strerror(errno)).with("path", devPath);
    struct stat st {};
    if (::fstat(fd_, &st) != 0 || !S_ISBLK(st.st_mode)) {
      ::close(fd_);
      throw Error(ErrorId::OpenFailed, "Cannot open " + devPath + " -- not a block device").with("path", devPath);
    }
    dev_ = st.st_rdev;
    int readOnly = 0;
    if (writeError_.empty() && ::ioctl(fd_, BLKROGET, &readOnly) == 0 && readOnly) writeError_ = "the device is read-only";
    uint64_t bytes = 0;
    if (::ioctl(fd_, BLKGETSIZE64, &bytes) != 0) {
      std::string why = std::strerror(errno);
      ::close(fd_);
      throw Error(ErrorId::OpenFailed, "Cannot get the size of " + devPath + " -- " + why).with("path", devPath);
    }
    blocks_ = bytes / 512;
    int ssz = 0;
    if (::ioctl(fd_, BLKSSZGET, &ssz) == 0 && ssz > 0) geometry_.bytesPerSector = static_cast<uint32_t>(ssz);
    unsigned int pbsz = 0;
    if (::ioctl(fd_, BLKPBSZGET, &pbsz) == 0 && pbsz > 0) geometry_.physicalBytesPerSector = pbsz;
    hd_geometry g{};
    if (::ioctl(fd_, HDIO_GETGEO, &g) == 0 && g.heads && g.sectors) {
      geometry_.heads = g.heads;
      geometry_.sectorsPerTrack = g.sectors;
    }
    geometry_.cylinders = blocks_ / (uint64_t{geometry_.heads} * geometry_.sectorsPerTrack);
    sysfs_ = wholeDiskSysfs(dev_);
    // A node of a partition is usable as a disk but has no partitions of its own.
    if (!sysfs_.empty() && realPath("/sys/dev/block/" + devString(dev_)) != sysfs_) sysfs_.clear();
    loadIdentity();
  }
  ~LinuxBlockDeviceAccess() override {
    if (fd_ >= 0) ::close(fd_);
    if (directFd_ >= 0) ::close(directFd_);
    std::free(bounce_);
  }

  std::string path() const override { return path_; }
  Geometry getGeometry() const override { return geometry_; }
  uint64_t totalBlocks() const override { return blocks_; }
  std::string model() const override { return model_; }
  std::string serialNumber() const override { return serial_; }

  void read(uint64_t first, uint64_t count, void* buffer) override {
    const size_t bytes = static_cast<size_t>(count) * 512;
    const size_t done = readFully(fd_, first * 512, buffer, bytes);
    if (done < bytes) throw ioError(false, first + done / 512);
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    requireWritable();
    const size_t bytes = static_cast<size_t>(count) * 512;
    const size_t done = writeFully(fd_, first * 512, buffer, bytes);
    if (done < bytes) throw ioError(true, first + done / 512);
  }
  // The device's own zero-out. Punching a hole asks for it without the kernel's fallback of
  // writing zero pages (the quick way); BLKZEROOUT may fall back to that. Both drop the cached
  // pages of the range, so later reads see the zeros.
  bool zeroRange(uint64_t first, uint64_t count, bool quickOnly) override {
    if (!writeError_.empty()) return false;
    if (::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(first * 512),
                    static_cast<off_t>(count * 512)) == 0)
      return true;
    uint64_t range[2] = {first * 512, count * 512};
    return !quickOnly && ::ioctl(fd_, BLKZEROOUT, range) == 0;
  }
  // BLKFLSBUF only drops the kernel's buffers (and needs privileges); the flush is fsync.
  void flush() override {
    if (!writeError_.empty()) return;
    if (::fsync(fd_) != 0)
      throw Error(ErrorId::WriteFailed, "Cannot flush " + path_ + " -- " + std::strerror(errno)).with("path", path_);
    ::ioctl(fd_, BLKFLSBUF, 0);
  }
  void requireWritable() const override {
    if (!writeError_.empty())
      throw Error(ErrorId::WriteProtected, "Cannot write " + path_ + " -- opened read-only (" + writeError_ + ")")
          .with("path", path_);
  }

  // Wipes move 4 MiB at a time, past the page cache (O_DIRECT) where the device allows it.
  uint32_t preferredTransferBlocks() const override { return kDirectBytes / 512; }
  void writeMedium(uint64_t first, uint64_t count, const void* buffer) override {
    requireWritable();
    if (!directPath(first, count)) return write(first, count, buffer);
    directTransfer(first, count, const_cast<void*>(buffer), true);
  }
  void readMedium(uint64_t first, uint64_t count, void* buffer) override {
    if (directPath(first, count)) return directTransfer(first, count, buffer, false);
    // Without O_DIRECT: the range's cached pages (clean after a flush) are dropped so that
    // the read goes to the device.
    ::posix_fadvise(fd_, static_cast<off_t>(first * 512), static_cast<off_t>(count * 512), POSIX_FADV_DONTNEED);
    read(first, count, buffer);
  }

  bool isBootDisk() const override {
    struct stat st {};
    if (sysfs_.empty() || ::stat("/", &st) != 0 || major(st.st_dev) == 0) return false;
    std::vector<std::string> disks;
    rootDisks(realPath("/sys/dev/block/" + devString(st.st_dev)), disks);
    return std::find(disks.begin(), disks.end(), sysfs_) != disks.end();
  }

  // A device whose partitions the kernel does not show (a loop device attached without
  // partition scanning) has no system view to update.
  bool supportsOsLayout() const override { return !sysfs_.empty() && readSysfs(sysfs_ + "/partscan") != "0"; }

  void prepareForChange(uint64_t firstBlock, uint64_t blockCount) override {
    Core::TraceScope scope("prepareForChange");
    refuseIfBusy(path_, dev_, firstBlock, blockCount);
  }

  // The lock partitioners and udev take on the whole-disk node.
  bool lockExclusive(unsigned waitMilliseconds) override {
    for (unsigned waited = 0;; waited += 50) {
      if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
      if (errno != EWOULDBLOCK && errno != EINTR) return true;
      if (waited >= waitMilliseconds) return false;
      ::usleep(50 * 1000);
    }
  }
  void unlockExclusive() override { ::flock(fd_, LOCK_UN); }

  void setNativePartitionLayout(const OsLayout& layout) override {
    Core::TraceScope scope("setNativePartitionLayout");
    if (sysfs_.empty()) return;
    std::vector<KernelPartition> current = kernelPartitions();
    std::string failure;
    for (const KernelStep& s : planKernelUpdate(current, layout)) {
      blkpg_partition part{};
      part.start = static_cast<long long>(s.start * 512);
      part.length = static_cast<long long>(s.size * 512);
      part.pno = static_cast<int>(s.number);
      blkpg_ioctl_arg arg{};
      arg.op = s.op == KernelStep::Delete   ? BLKPG_DEL_PARTITION
               : s.op == KernelStep::Resize ? BLKPG_RESIZE_PARTITION
                                            : BLKPG_ADD_PARTITION;
      arg.datalen = sizeof part;
      arg.data = &part;
      if (::ioctl(fd_, BLKPG, &arg) != 0) {
        static const char* const opName[] = {"delete", "resize", "add"};
        failure = std::string("cannot ") + opName[s.op] + " partition " + std::to_string(s.number) + " (" +
                  std::strerror(errno) + ")";
        break;
      }
    }
    if (failure.empty()) return;
    if (::ioctl(fd_, BLKRRPART) == 0) return;
    std::string reread = std::strerror(errno);
    throw Error(ErrorId::OsLayoutFailed, "The system could not be told the new layout of " + path_ + " -- " +
                                             failure + "; rereading the table failed too (" + reread + ")")
        .with("path", path_);
  }

 private:
  std::vector<KernelPartition> kernelPartitions() const { return kernelPartitionsOf(sysfs_); }

  void loadIdentity() {
    if (sysfs_.empty()) return;
    for (const char* f : {"/device/model", "/device/name", "/device/product"}) {
      model_ = readSysfs(sysfs_ + f);
      if (!model_.empty()) break;
    }
    std::string vendor = readSysfs(sysfs_ + "/device/vendor");
    if (!vendor.empty() && vendor.rfind("0x", 0) != 0 && model_.rfind(vendor, 0) != 0) model_ = vendor + " " + model_;
    for (const char* f : {"/device/serial", "/serial", "/device/wwid", "/wwid"}) {
      serial_ = readSysfs(sysfs_ + f);
      if (!serial_.empty()) break;
    }
    if (model_.empty() && sysfs_.find("/virtual/block/loop") != std::string::npos) model_ = "Loop device";
  }

  // The error of a transfer that stopped at `sector` (errno 0: the device ended there).
  Error ioError(bool isWrite, uint64_t sector) const {
    const std::string why = errno != 0 ? std::strerror(errno) : "end of device";
    return Error(isWrite ? ErrorId::WriteFailed : ErrorId::ReadFailed,
                 std::string(isWrite ? "Cannot write " : "Cannot read ") + path_ + " -- " + why)
        .with("path", path_)
        .with("sector", std::to_string(sector));
  }

  // True when the range can go through the O_DIRECT handle (opened on first use, with a
  // page-aligned bounce buffer): whole logical sectors of the device.
  bool directPath(uint64_t first, uint64_t count) {
    const uint64_t bps = std::max<uint32_t>(geometry_.bytesPerSector, 512);
    if ((first * 512) % bps || (count * 512) % bps) return false;
    if (directFd_ >= 0) return true;
    if (directTried_) return false;
    directTried_ = true;
    void* p = nullptr;
    if (::posix_memalign(&p, 4096, kDirectBytes) != 0) return false;
    bounce_ = static_cast<uint8_t*>(p);
    directFd_ = ::open(path_.c_str(), (writeError_.empty() ? O_RDWR : O_RDONLY) | O_DIRECT | O_CLOEXEC);
    return directFd_ >= 0;
  }
  void directTransfer(uint64_t first, uint64_t count, void* buffer, bool isWrite) {
    auto* user = static_cast<uint8_t*>(buffer);
    // A page-aligned caller's buffer goes to the device as it is; others through the bounce buffer.
    const bool aligned = reinterpret_cast<uintptr_t>(user) % 4096 == 0;
    uint64_t offset = first * 512, left = count * 512;
    while (left) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(left, kDirectBytes));
      uint8_t* io = aligned ? user : bounce_;
      if (isWrite && !aligned) std::memcpy(bounce_, user, n);
      const size_t done = isWrite ? writeFully(directFd_, offset, io, n) : readFully(directFd_, offset, io, n);
      if (done < n) throw ioError(isWrite, (offset + done) / 512);
      if (!isWrite && !aligned) std::memcpy(user, bounce_, n);
      user += n;
      offset += n;
      left -= n;
    }
  }

  static constexpr size_t kDirectBytes = size_t{4} << 20;
  std::string path_;
  int fd_ = -1;
  int directFd_ = -1;
  bool directTried_ = false;
  uint8_t* bounce_ = nullptr;
  dev_t dev_{};
  std::string writeError_;  // why the device could not be opened for writing
  std::string sysfs_;       // the whole disk's sysfs directory
  Geometry geometry_;
  uint64_t blocks_ = 0;
  std::string model_, serial_;
};

}  // namespace

bool isBlockDevice(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode);
}

void refuseIfImageBusy(const std::string& imagePath, uint64_t firstBlock, uint64_t blockCount) {
  Core::TraceScope scope("prepareForChange");
  struct stat image {};
  if (::stat(imagePath.c_str(), &image) != 0) return;
  forEachLoopOver([&](const struct stat& st) { return st.st_dev == image.st_dev && st.st_ino == image.st_ino; },
                  firstBlock, blockCount, std::string(),
                  [&](const std::string& loop, dev_t loopDev, uint64_t from, uint64_t count) {
                    try {
                      refuseIfBusy(loop, loopDev, from, count, false);
                    } catch (const Error& e) {
                      throw Error(ErrorId::InUse, "Disk image " + imagePath + " is attached to " + loop + " -- " + e.text(),
                                  e.properties());
                    }
                  });
}

std::unique_ptr<DiskDriveAccess> openBlockDevice(const std::string& devPath) {
  return std::make_unique<LinuxBlockDeviceAccess>(devPath);
}

std::vector<OsDiskCandidate> enumerate() {
  Core::TraceScope scope("enumerateOsDisks");
  std::vector<std::string> names;
  for (const std::string& n : listDir("/sys/block"))
    if (isWholeDiskName(n) && readSysfs("/sys/block/" + n + "/hidden") != "1") names.push_back(n);
  std::sort(names.begin(), names.end(), diskNameLess);
  // "DiskManager::driveCount" limits how many disks (in this order) are tried; -1 tries all.
  const int64_t driveCount = Core::Config::getInt("DiskManager::driveCount", -1);
  if (driveCount >= 0 && names.size() > static_cast<uint64_t>(driveCount)) names.resize(static_cast<size_t>(driveCount));
  const bool noUsb = Core::Config::getBool("Usb::Disable", false);
  const bool no1394 = Core::Config::getBool("IEEE1394::Disable", false);
  std::vector<OsDiskCandidate> out;
  for (const std::string& n : names) {
    std::string where = realPath("/sys/block/" + n);
    if (noUsb && where.find("/usb") != std::string::npos) continue;
    if (no1394 && where.find("/fw") != std::string::npos) continue;
    OsDiskCandidate c;
    c.path = "/dev/" + n;
    try {
      c.access = openBlockDevice(c.path);
    } catch (const Error& e) {
      c.openError = e.text();
    }
    out.push_back(std::move(c));
  }
  return out;
}

#else

bool isBlockDevice(const std::string&) { return false; }

void refuseIfImageBusy(const std::string&, uint64_t, uint64_t) {}

std::unique_ptr<DiskDriveAccess> openBlockDevice(const std::string& devPath) {
  throw Error(ErrorId::NotSupported, "Block devices are not supported on this system: " + devPath)
      .with("path", devPath);
}

std::vector<OsDiskCandidate> enumerate() { return {}; }

#endif

}  // namespace Corvo::Disk::LinuxDisks
