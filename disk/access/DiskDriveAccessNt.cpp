// Windows raw disk access through \\.\PhysicalDriveN and the disk enumeration of the disk
// manager. The request and reply buffers are built and decoded by NtBuffers.
#if defined(_WIN32)

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "core/Config.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/System.h"
#include "core/Trace.h"
#include "disk/DiskDriveAccess.h"
#include "disk/access/FileIo.h"
#include "disk/access/NtBuffers.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

namespace {

constexpr uint32_t kBounceBytes = 1u << 20;

std::string narrow(const std::wstring& w) {
  std::string s;
  for (wchar_t c : w) s.push_back(c < 128 ? static_cast<char>(c) : '?');
  return s;
}

// One DeviceIoControl call in the shape NtBuffers expects (0 or the Windows error code).
uint32_t ioctl(HANDLE h, DWORD code, const std::vector<uint8_t>* in, std::vector<uint8_t>* out,
               DWORD* returned = nullptr) {
  DWORD got = 0;
  BOOL ok = DeviceIoControl(h, code, in ? const_cast<uint8_t*>(in->data()) : nullptr,
                            in ? static_cast<DWORD>(in->size()) : 0, out ? out->data() : nullptr,
                            out ? static_cast<DWORD>(out->size()) : 0, &got, nullptr);
  if (returned) *returned = got;
  return ok ? 0 : GetLastError();
}

std::string errorText(uint32_t code) {
  SetLastError(code);
  return Core::lastSystemErrorText();
}

class DiskDriveAccessNt : public DiskDriveAccess {
 public:
  // Opens \\.\PhysicalDrive<index>; read-write when allowed, else read-only. Throws
  // Core::Error (OpenFailed) with the system's error code in "code".
  static std::unique_ptr<DiskDriveAccessNt> make(uint32_t index) {
    return std::unique_ptr<DiskDriveAccessNt>(new DiskDriveAccessNt(index));
  }
  ~DiskDriveAccessNt() override {
    unlock();
    if (h_ != INVALID_HANDLE_VALUE) CloseHandle(h_);
    if (bounce_) VirtualFree(bounce_, 0, MEM_RELEASE);
  }

  std::string path() const override { return path_; }
  Geometry getGeometry() const override { return geometry_; }
  uint64_t totalBlocks() const override { return blocks_; }
  std::string model() const override { return model_; }
  std::string serialNumber() const override { return serial_; }
  uint32_t busType() const { return busType_; }
  bool geometryValid() const { return geometryValid_; }
  // True when the first sector can be read through this handle.
  bool testReadAccess() {
    try {
      rawIo(0, std::max<uint32_t>(geometry_.bytesPerSector, 512), false);
      return true;
    } catch (const Error&) {
      return false;
    }
  }

  void read(uint64_t first, uint64_t count, void* buffer) override {
    transfer(first, count, buffer, false);
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    requireWritable();
    transfer(first, count, const_cast<void*>(buffer), true);
  }
  void requireWritable() const override {
    if (!writable_)
      throw Error(ErrorId::WriteProtected, "Cannot write " + path_ + " -- the disk could only be opened read-only")
          .with("path", path_);
  }
  void verify(uint64_t first, uint64_t count) override {
    Core::TraceScope scope("verify");
    while (count) {
      uint64_t n = std::min<uint64_t>(count, 2048);
      auto in = NtBuffers::buildVerify(first * 512, static_cast<uint32_t>(n * 512));
      uint32_t err = ioctl(h_, IOCTL_DISK_VERIFY, &in, nullptr);
      if (err == ERROR_INVALID_FUNCTION || err == ERROR_NOT_SUPPORTED) {
        DiskDriveAccess::verify(first, count);  // the driver cannot verify: read back instead
        return;
      }
      if (err)
        throw Error(ErrorId::VerifyFailed, "Cannot verify " + path_ + " -- " + errorText(err))
            .with("path", path_)
            .with("sector", std::to_string(first));
      first += n;
      count -= n;
    }
  }
  // The handle is unbuffered and write-through, so reads and writes already reach the
  // medium; the flush still asks the disk to empty its own cache.
  void flush() override {
    if (writable_ && !FlushFileBuffers(h_))
      throw Error(ErrorId::WriteFailed, "Cannot flush " + path_ + " -- " + Core::lastSystemErrorText()).with("path", path_);
  }

  bool isBootDisk() const override {
    char sysDir[MAX_PATH] = {};
    if (!GetSystemDirectoryA(sysDir, MAX_PATH) || sysDir[1] != ':') return false;
    std::string volume = std::string("\\\\.\\") + sysDir[0] + ":";
    HANDLE v = CreateFileA(volume.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (v == INVALID_HANDLE_VALUE) return false;
    bool mine = false;
    for (const auto& e : volumeExtents(v)) mine |= e.diskNumber == index_;
    CloseHandle(v);
    return mine;
  }

  bool supportsOsLayout() const override { return writable_; }

  // The layout as the system sees it now.
  OsLayout getNativePartitionLayout() {
    Core::TraceScope scope("getNativePartitionLayout");
    auto r = NtBuffers::getLayoutEx(
        [&](std::vector<uint8_t>& b) { return ioctl(h_, IOCTL_DISK_GET_DRIVE_LAYOUT_EX, nullptr, &b); });
    if (r.error == 0) return NtBuffers::fromNtLayout(NtBuffers::parseLayoutEx(r.buffer.data(), r.buffer.size()));
    std::vector<uint8_t> old(NtBuffers::kLayoutOldHeader + NtBuffers::kLayoutOldEntry * 128, 0);
    uint32_t err = ioctl(h_, IOCTL_DISK_GET_DRIVE_LAYOUT, nullptr, &old);
    if (err)
      throw Error(ErrorId::ReadFailed, "Cannot read the system's partition layout of " + path_ + " -- " + errorText(err))
          .with("path", path_);
    return NtBuffers::fromNtLayout(NtBuffers::parseLayoutOld(old.data(), old.size()));
  }

  void setNativePartitionLayout(const OsLayout& layout) override {
    Core::TraceScope scope("setNativePartitionLayout");
    std::vector<uint8_t> ex = NtBuffers::buildLayoutEx(NtBuffers::toNtLayout(layout));
    uint32_t err = ioctl(h_, IOCTL_DISK_SET_DRIVE_LAYOUT_EX, &ex, nullptr);
    if (err == 0) return updated();
    std::string why = errorText(err);
    if (layout.style == OsLayout::Mbr) {
      std::vector<uint8_t> old = NtBuffers::layoutExToOld(ex.data(), ex.size());
      uint32_t err2 = ioctl(h_, IOCTL_DISK_SET_DRIVE_LAYOUT, &old, nullptr);
      if (err2 == 0) return updated();
      why += "; the older request failed too (" + errorText(err2) + ")";
    }
    throw Error(ErrorId::OsLayoutFailed, "The system could not be told the new layout of " + path_ + " -- " + why)
        .with("path", path_);
  }

  bool mountsVolumes() const override { return true; }

  // Mounts the volume that starts at the partition's first byte on this disk at "X:\". The
  // volume shows up once the system has taken the new layout, which can take a moment.
  void assignDriveLetter(uint64_t firstBlock, char letter) override {
    Core::TraceScope scope("assignDriveLetter");
    const uint64_t offset = firstBlock * 512;
    for (int attempt = 0; attempt < 20; ++attempt) {
      for (const std::wstring& name : getLogicalVolumes()) {
        HANDLE v = CreateFileW(name.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        if (v == INVALID_HANDLE_VALUE) continue;
        const std::vector<NtBuffers::DiskExtent> extents = volumeExtents(v);
        CloseHandle(v);
        if (extents.empty() || extents[0].diskNumber != index_ || extents[0].startingOffset != offset) continue;
        const wchar_t mountPoint[] = {static_cast<wchar_t>(letter), L':', L'\\', 0};
        const std::wstring volume = name + L"\\";  // the mount point names the volume's root
        if (!SetVolumeMountPointW(mountPoint, volume.c_str()))
          throw Error(ErrorId::OsLayoutFailed,
                      Core::format("Cannot assign drive letter %c: to the new partition -- Windows error %lu", letter,
                                   static_cast<unsigned long>(GetLastError())));
        return;
      }
      Sleep(500);
    }
    throw Error(ErrorId::OsLayoutFailed,
                Core::format("Cannot assign drive letter %c: -- the system shows no volume for the new partition", letter));
  }

  // Locks and dismounts every volume on the range; refuses when one cannot be locked.
  void prepareForChange(uint64_t firstBlock, uint64_t blockCount) override {
    Core::TraceScope scope("doLock");
    if (Core::Config::getBool("DestinationDiskLocker::Disable", false)) return;
    const uint64_t from = firstBlock * 512, to = (firstBlock + blockCount) * 512;
    for (const std::wstring& name : getLogicalVolumes()) {
      HANDLE v = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                             OPEN_EXISTING, 0, nullptr);
      if (v == INVALID_HANDLE_VALUE) continue;
      bool overlaps = false;
      for (const auto& e : volumeExtents(v))
        overlaps |= e.diskNumber == index_ && e.startingOffset < to && from < e.startingOffset + e.length;
      if (!overlaps) {
        CloseHandle(v);
        continue;
      }
      DWORD got = 0;
      if (!DeviceIoControl(v, FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0, &got, nullptr)) {
        std::string why = Core::lastSystemErrorText();
        CloseHandle(v);
        throw Error(ErrorId::InUse, "Volume " + narrow(name) + " on " + path_ + " is in use and cannot be locked -- " + why)
            .with("volume", narrow(name))
            .with("path", path_);
      }
      DeviceIoControl(v, FSCTL_DISMOUNT_VOLUME, nullptr, 0, nullptr, 0, &got, nullptr);
      locked_.push_back(v);
    }
  }

  void unlock() {
    Core::TraceScope scope("doUnlock");
    for (HANDLE v : locked_) {
      DWORD got = 0;
      DeviceIoControl(v, FSCTL_UNLOCK_VOLUME, nullptr, 0, nullptr, 0, &got, nullptr);
      CloseHandle(v);
    }
    locked_.clear();
  }

 private:
  explicit DiskDriveAccessNt(uint32_t index) : index_(index), path_("\\\\.\\PhysicalDrive" + std::to_string(index)) {
    h_ = CreateFileA(path_.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                     OPEN_EXISTING, FILE_FLAG_NO_BUFFERING | FILE_FLAG_WRITE_THROUGH, nullptr);
    writable_ = h_ != INVALID_HANDLE_VALUE;
    if (!writable_)
      h_ = CreateFileA(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       FILE_FLAG_NO_BUFFERING, nullptr);
    if (h_ == INVALID_HANDLE_VALUE) {
      DWORD code = GetLastError();
      throw Error(ErrorId::OpenFailed, "Cannot open " + path_ + " -- " + errorText(code))
          .with("path", path_)
          .with("code", std::to_string(code));
    }
    bounce_ = static_cast<uint8_t*>(VirtualAlloc(nullptr, kBounceBytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    if (!bounce_) {
      CloseHandle(h_);
      throw Error(ErrorId::OpenFailed, "Cannot open " + path_ + " -- out of memory for the transfer buffer")
          .with("path", path_);
    }
    loadGeometry();
    loadPhysicalSectorSize();
    loadIdentity();
  }

  void loadGeometry() {
    Core::TraceScope scope("getGeometry");
    auto r = NtBuffers::getGeometryEx(
        [&](std::vector<uint8_t>& b) { return ioctl(h_, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, &b); });
    if (r.error == 0)
      if (auto g = NtBuffers::parseGeometryEx(r.buffer.data(), r.buffer.size()))
        geometryValid_ = NtBuffers::toGeometry(*g, geometry_, blocks_);
    if (geometryValid_) return;
    std::vector<uint8_t> b(NtBuffers::kGeometrySize, 0);
    if (ioctl(h_, IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, &b) == 0)
      if (auto g = NtBuffers::parseGeometry(b.data(), b.size()))
        geometryValid_ = NtBuffers::toGeometry(*g, geometry_, blocks_);
  }

  // Disks that write larger sectors than they address (512e) say so in their alignment
  // descriptor; older systems and drivers answer nothing, and the logical size stands.
  void loadPhysicalSectorSize() {
    auto query = NtBuffers::buildAlignmentPropertyQuery();
    std::vector<uint8_t> reply(64, 0);
    DWORD got = 0;
    if (ioctl(h_, IOCTL_STORAGE_QUERY_PROPERTY, &query, &reply, &got) != 0) return;
    geometry_.physicalBytesPerSector = NtBuffers::parsePhysicalSectorSize(reply.data(), got);
  }

  void loadIdentity() {
    auto query = NtBuffers::buildDevicePropertyQuery();
    std::vector<uint8_t> reply(1024, 0);
    DWORD got = 0;
    if (ioctl(h_, IOCTL_STORAGE_QUERY_PROPERTY, &query, &reply, &got) != 0) return;
    if (auto d = NtBuffers::parseStorageDescriptor(reply.data(), got)) {
      busType_ = d->busType;
      model_ = d->vendor.empty() || d->product.rfind(d->vendor, 0) == 0 ? d->product : d->vendor + " " + d->product;
      serial_ = d->serial;
    }
  }

  // Moves whole logical sectors through a page-aligned bounce buffer, as unbuffered device
  // handles require aligned buffers, offsets and lengths.
  void transfer(uint64_t first, uint64_t count, void* buffer, bool isWrite) {
    const uint64_t bps = std::max<uint32_t>(geometry_.bytesPerSector, 512);
    uint64_t offset = first * 512, remaining = count * 512;
    auto* user = static_cast<uint8_t*>(buffer);
    while (remaining) {
      uint64_t alignedStart = offset / bps * bps;
      uint64_t lead = offset - alignedStart;
      uint64_t chunk = std::min<uint64_t>(remaining, kBounceBytes - lead);
      uint64_t span = (lead + chunk + bps - 1) / bps * bps;
      if (span > kBounceBytes) {
        chunk -= span - kBounceBytes;
        span = kBounceBytes;
      }
      if (isWrite) {
        if (lead || chunk != span) rawIo(alignedStart, span, false);
        std::memcpy(bounce_ + lead, user, static_cast<size_t>(chunk));
        rawIo(alignedStart, span, true);
      } else {
        rawIo(alignedStart, span, false);
        std::memcpy(user, bounce_ + lead, static_cast<size_t>(chunk));
      }
      user += chunk;
      offset += chunk;
      remaining -= chunk;
    }
  }

  void rawIo(uint64_t offset, uint64_t bytes, bool isWrite) {
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(offset);
    ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD done = 0;
    BOOL ok = isWrite ? WriteFile(h_, bounce_, static_cast<DWORD>(bytes), &done, &ov)
                      : ReadFile(h_, bounce_, static_cast<DWORD>(bytes), &done, &ov);
    if (!ok || done != bytes) {
      std::string why = ok ? std::string("short transfer") : Core::lastSystemErrorText();
      throw Error(isWrite ? ErrorId::WriteFailed : ErrorId::ReadFailed,
                  std::string(isWrite ? "Cannot write " : "Cannot read ") + path_ + " -- " + why)
          .with("path", path_)
          .with("sector", std::to_string(offset / 512));
    }
  }

  void updated() {
    DWORD got = 0;
    DeviceIoControl(h_, IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, &got, nullptr);
  }

  static std::vector<NtBuffers::DiskExtent> volumeExtents(HANDLE v) {
    std::vector<uint8_t> b(8 + 24 * 4, 0);
    for (int i = 0; i < 8; ++i) {
      uint32_t err = ioctl(v, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, &b);
      if (err == 0) return NtBuffers::parseVolumeDiskExtents(b.data(), b.size());
      if (err != ERROR_MORE_DATA && err != ERROR_INSUFFICIENT_BUFFER) break;
      b.assign(b.size() * 2, 0);
    }
    return {};
  }

  // Every volume of the machine, as \\?\Volume{...} paths without the trailing backslash.
  static std::vector<std::wstring> getLogicalVolumes() {
    std::vector<std::wstring> out;
    wchar_t name[MAX_PATH];
    HANDLE f = FindFirstVolumeW(name, MAX_PATH);
    if (f == INVALID_HANDLE_VALUE) return out;
    do {
      std::wstring n = name;
      if (!n.empty() && n.back() == L'\\') n.pop_back();
      out.push_back(n);
    } while (FindNextVolumeW(f, name, MAX_PATH));
    FindVolumeClose(f);
    return out;
  }

  uint32_t index_;
  std::string path_;
  HANDLE h_ = INVALID_HANDLE_VALUE;
  bool writable_ = false;
  uint8_t* bounce_ = nullptr;
  Geometry geometry_;
  bool geometryValid_ = false;
  uint64_t blocks_ = 0;
  uint32_t busType_ = 0;
  std::string model_, serial_;
  std::vector<HANDLE> locked_;
};

}  // namespace

// Probes \\.\PhysicalDrive0, 1, ... until "DiskManager::driveCount" indices were tried or,
// when it is -1, until 8 indices in a row do not exist. A disk that exists but cannot be
// opened (access denied, sharing violation) keeps its place with the reason.
std::vector<OsDiskCandidate> enumerateNtDisks() {
  Core::TraceScope scope("DiskManagerNt::enumerate");
  const int64_t driveCount = Core::Config::getInt("DiskManager::driveCount", -1);
  const bool noUsb = Core::Config::getBool("Usb::Disable", false);
  const bool no1394 = Core::Config::getBool("IEEE1394::Disable", false);
  std::vector<OsDiskCandidate> out;
  std::set<std::string> seen;
  int misses = 0;
  for (uint32_t index = 0; driveCount < 0 ? misses < 8 : index < driveCount; ++index) {
    OsDiskCandidate c;
    c.path = "\\\\.\\PhysicalDrive" + std::to_string(index);
    std::unique_ptr<DiskDriveAccessNt> access;
    try {
      access = DiskDriveAccessNt::make(index);
    } catch (const Error& e) {
      DWORD code = static_cast<DWORD>(std::stoul(e.property("code").empty() ? "0" : e.property("code")));
      if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND || code == 0) {
        ++misses;
        continue;
      }
      misses = 0;
      if (!seen.insert(c.path).second) continue;
      c.openError = e.text();
      out.push_back(std::move(c));
      continue;
    }
    misses = 0;
    if (!seen.insert(c.path).second) continue;
    if (noUsb && access->busType() == NtBuffers::kBusUsb) continue;
    if (no1394 && access->busType() == NtBuffers::kBusIeee1394) continue;
    // No SCSI pass-through access object here: a disk the raw device handle cannot serve
    // is listed with the reason.
    if (!access->geometryValid()) {
      c.openError = "Cannot get the geometry of " + c.path;
    } else if (!access->testReadAccess()) {
      c.openError = "Cannot read " + c.path;
    } else {
      c.access = std::move(access);
    }
    out.push_back(std::move(c));
  }
  return out;
}

}  // namespace Corvo::Disk

#endif
