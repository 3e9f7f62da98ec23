#include "disk/access/NtBuffers.h"

#include <algorithm>
#include <map>

#include "core/Endian.h"
#include "core/Error.h"

namespace Corvo::Disk::NtBuffers {

using Core::Error;
using Core::ErrorId;
using Core::get32;
using Core::get64;
using Core::put32;
using Core::put64;

namespace {

bool isExtendedType(uint8_t t) { return t == 0x05 || t == 0x0F || t == 0x85; }

[[noreturn]] void shortReply(const char* what, size_t n) {
  throw Error(ErrorId::InvalidArgument, std::string("The system's ") + what + " reply is too short or inconsistent")
      .with("bytes", std::to_string(n));
}

// Offsets inside PARTITION_INFORMATION_EX.
constexpr size_t kExStyle = 0, kExStart = 8, kExLength = 16, kExNumber = 24, kExRewrite = 28;
constexpr size_t kExMbrType = 32, kExMbrBoot = 33, kExMbrRecognized = 34, kExMbrHidden = 36;
constexpr size_t kExGptType = 32, kExGptId = 48, kExGptAttributes = 64, kExGptName = 72;
constexpr size_t kGptNameChars = 36;

}  // namespace

GrowResult callGrowing(size_t initial, size_t step, int maxCalls, std::vector<uint32_t> growOn, const IoctlCall& call) {
  GrowResult r;
  size_t size = initial;
  for (int i = 0; i < maxCalls; ++i, size += step) {
    r.buffer.assign(size, 0);
    r.sizesTried.push_back(size);
    r.error = call(r.buffer);
    if (r.error == 0 || std::find(growOn.begin(), growOn.end(), r.error) == growOn.end()) break;
  }
  return r;
}

GrowResult getGeometryEx(const IoctlCall& call) {
  return callGrowing(kGeometryExSize, kGeometryExGrowth, kGeometryExMaxCalls, {kErrorMoreData, kErrorInsufficientBuffer},
                     call);
}

GrowResult getLayoutEx(const IoctlCall& call) {
  // The reply can hold at most a few thousand entries; stop long before any absurd size.
  return callGrowing(kLayoutExInitial, kLayoutExGrowth, 64, {kErrorInsufficientBuffer}, call);
}

std::vector<uint8_t> encodeGeometry(const NtGeometry& g, bool ex) {
  std::vector<uint8_t> b(ex ? kGeometryExSize : kGeometrySize, 0);
  put64(b.data(), g.cylinders);
  put32(b.data() + 8, g.mediaType);
  put32(b.data() + 12, g.tracksPerCylinder);
  put32(b.data() + 16, g.sectorsPerTrack);
  put32(b.data() + 20, g.bytesPerSector);
  if (ex) put64(b.data() + 24, g.diskSize.value_or(0));
  return b;
}

std::optional<NtGeometry> parseGeometry(const uint8_t* p, size_t n) {
  if (n < kGeometrySize) return std::nullopt;
  NtGeometry g;
  g.cylinders = get64(p);
  g.mediaType = get32(p + 8);
  g.tracksPerCylinder = get32(p + 12);
  g.sectorsPerTrack = get32(p + 16);
  g.bytesPerSector = get32(p + 20);
  return g;
}

std::optional<NtGeometry> parseGeometryEx(const uint8_t* p, size_t n) {
  if (n < 32) return std::nullopt;
  auto g = parseGeometry(p, n);
  g->diskSize = get64(p + 24);
  return g;
}

bool toGeometry(const NtGeometry& g, Geometry& out, uint64_t& totalBlocks) {
  if (g.bytesPerSector == 0) return false;
  out.cylinders = g.cylinders;
  out.heads = g.tracksPerCylinder;
  out.sectorsPerTrack = g.sectorsPerTrack;
  out.bytesPerSector = g.bytesPerSector;
  uint64_t bytes = g.diskSize ? *g.diskSize / g.bytesPerSector * g.bytesPerSector
                              : g.cylinders * g.tracksPerCylinder * g.sectorsPerTrack * g.bytesPerSector;
  totalBlocks = bytes / 512;
  return true;
}

NtLayout toNtLayout(const OsLayout& layout) {
  NtLayout nt;
  nt.style = layout.style;
  nt.signature = layout.signature;
  nt.diskGuid = layout.diskGuid;
  nt.startingUsableOffset = layout.firstUsableBlock * 512;
  nt.usableLength = layout.usableBlocks * 512;
  if (layout.style == OsLayout::Gpt) {
    // The system writes the entries in array order: each one goes to its own slot, with
    // unused entries in between, so no entry moves.
    for (const OsLayoutEntry& e : layout.entries) {
      if (e.number == 0) continue;
      if (nt.partitions.size() < e.number) nt.partitions.resize(e.number);
      NtPartition& p = nt.partitions[e.number - 1];
      p.startingOffset = e.firstBlock * 512;
      p.length = e.blockCount * 512;
      p.number = e.number;
      p.typeGuid = e.typeGuid;
      p.uniqueGuid = e.uniqueGuid;
      p.attributes = e.attributes;
      p.name = e.name.substr(0, kGptNameChars);
    }
    nt.maxPartitionCount = std::max<uint32_t>(128, static_cast<uint32_t>(nt.partitions.size()));
    return nt;
  }
  nt.partitions.resize(4);
  const OsLayoutEntry* container = nullptr;
  std::vector<const OsLayoutEntry*> logicals;
  for (const OsLayoutEntry& e : layout.entries) {
    if (e.number >= 1 && e.number <= 4) {
      NtPartition& p = nt.partitions[e.number - 1];
      p.startingOffset = e.firstBlock * 512;
      p.length = e.blockCount * 512;
      p.number = e.number;
      p.type = e.type;
      p.boot = e.active;
      p.recognized = !e.container && e.type != 0;
      p.hiddenSectors = static_cast<uint32_t>(e.firstBlock);
      if (e.container) container = &e;
    } else if (e.number > 4) {
      logicals.push_back(&e);
    }
  }
  std::sort(logicals.begin(), logicals.end(), [](auto* a, auto* b) { return a->number < b->number; });
  if (!container || logicals.empty()) return nt;
  // Where each logical drive's boot record sits: given by the partition code, else the
  // first one at the start of the extended partition and the others at the same distance
  // before their drive.
  const uint64_t gap = logicals[0]->firstBlock - container->firstBlock;
  auto recordOf = [&](size_t i) {
    if (i == 0) return container->firstBlock;
    if (logicals[i]->tableBlock) return logicals[i]->tableBlock;
    return logicals[i]->firstBlock - gap;
  };
  for (size_t i = 0; i < logicals.size(); ++i) {
    const OsLayoutEntry& e = *logicals[i];
    uint64_t record = recordOf(i);
    NtPartition drive;
    drive.startingOffset = e.firstBlock * 512;
    drive.length = e.blockCount * 512;
    drive.number = e.number;
    drive.type = e.type;
    drive.boot = e.active;
    drive.recognized = e.type != 0;
    drive.hiddenSectors = static_cast<uint32_t>(e.firstBlock - record);
    NtPartition link;
    if (i + 1 < logicals.size()) {
      uint64_t next = recordOf(i + 1);
      link.startingOffset = next * 512;
      link.length = (logicals[i + 1]->firstBlock + logicals[i + 1]->blockCount - next) * 512;
      link.type = 0x05;
      link.hiddenSectors = static_cast<uint32_t>(next - container->firstBlock);
    }
    nt.partitions.push_back(drive);
    nt.partitions.push_back(link);
    nt.partitions.push_back(NtPartition{});
    nt.partitions.push_back(NtPartition{});
  }
  return nt;
}

OsLayout fromNtLayout(const NtLayout& nt) {
  OsLayout l;
  l.style = nt.style == 1 ? OsLayout::Gpt : OsLayout::Mbr;
  l.signature = nt.signature;
  l.diskGuid = nt.diskGuid;
  l.firstUsableBlock = nt.startingUsableOffset / 512;
  l.usableBlocks = nt.usableLength / 512;
  for (size_t i = 0; i < nt.partitions.size(); ++i) {
    const NtPartition& p = nt.partitions[i];
    if (p.length == 0) continue;
    if (l.style == OsLayout::Mbr && (p.type == 0 || (i >= 4 && isExtendedType(p.type)))) continue;
    OsLayoutEntry e;
    e.number = p.number;
    e.firstBlock = p.startingOffset / 512;
    e.blockCount = p.length / 512;
    e.type = p.type;
    e.active = p.boot;
    e.container = l.style == OsLayout::Mbr && isExtendedType(p.type);
    e.typeGuid = p.typeGuid;
    e.uniqueGuid = p.uniqueGuid;
    e.attributes = p.attributes;
    e.name = p.name;
    l.entries.push_back(e);
  }
  return l;
}

std::vector<uint8_t> buildLayoutEx(const NtLayout& layout) {
  std::vector<uint8_t> b(kLayoutExHeader + kLayoutExEntry * layout.partitions.size(), 0);
  put32(b.data(), layout.style);
  put32(b.data() + 4, static_cast<uint32_t>(layout.partitions.size()));
  if (layout.style == 1) {
    std::copy(layout.diskGuid.begin(), layout.diskGuid.end(), b.begin() + 8);
    put64(b.data() + 24, layout.startingUsableOffset);
    put64(b.data() + 32, layout.usableLength);
    put32(b.data() + 40, layout.maxPartitionCount);
  } else {
    put32(b.data() + 8, layout.signature);
  }
  for (size_t i = 0; i < layout.partitions.size(); ++i) {
    const NtPartition& p = layout.partitions[i];
    uint8_t* e = b.data() + kLayoutExHeader + i * kLayoutExEntry;
    put32(e + kExStyle, layout.style);
    put64(e + kExStart, p.startingOffset);
    put64(e + kExLength, p.length);
    put32(e + kExNumber, p.number);
    e[kExRewrite] = p.rewrite ? 1 : 0;
    if (layout.style == 1) {
      std::copy(p.typeGuid.begin(), p.typeGuid.end(), e + kExGptType);
      std::copy(p.uniqueGuid.begin(), p.uniqueGuid.end(), e + kExGptId);
      put64(e + kExGptAttributes, p.attributes);
      for (size_t c = 0; c < p.name.size() && c < kGptNameChars; ++c)
        Core::put16(e + kExGptName + 2 * c, static_cast<uint16_t>(p.name[c]));
    } else {
      e[kExMbrType] = p.type;
      e[kExMbrBoot] = p.boot ? 1 : 0;
      e[kExMbrRecognized] = p.recognized ? 1 : 0;
      put32(e + kExMbrHidden, p.hiddenSectors);
    }
  }
  return b;
}

NtLayout parseLayoutEx(const uint8_t* p, size_t n) {
  if (n < kLayoutExHeader) shortReply("partition layout", n);
  NtLayout l;
  l.style = get32(p);
  uint32_t count = get32(p + 4);
  if (count > (n - kLayoutExHeader) / kLayoutExEntry) shortReply("partition layout", n);
  if (l.style == 1) {
    std::copy(p + 8, p + 24, l.diskGuid.begin());
    l.startingUsableOffset = get64(p + 24);
    l.usableLength = get64(p + 32);
    l.maxPartitionCount = get32(p + 40);
  } else {
    l.signature = get32(p + 8);
  }
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* e = p + kLayoutExHeader + size_t{i} * kLayoutExEntry;
    NtPartition q;
    q.startingOffset = get64(e + kExStart);
    q.length = get64(e + kExLength);
    q.number = get32(e + kExNumber);
    q.rewrite = e[kExRewrite] != 0;
    if (get32(e + kExStyle) == 1) {
      std::copy(e + kExGptType, e + kExGptType + 16, q.typeGuid.begin());
      std::copy(e + kExGptId, e + kExGptId + 16, q.uniqueGuid.begin());
      q.attributes = get64(e + kExGptAttributes);
      for (size_t c = 0; c < kGptNameChars; ++c) {
        char16_t ch = static_cast<char16_t>(Core::get16(e + kExGptName + 2 * c));
        if (!ch) break;
        q.name.push_back(ch);
      }
    } else {
      q.type = e[kExMbrType];
      q.boot = e[kExMbrBoot] != 0;
      q.recognized = e[kExMbrRecognized] != 0;
      q.hiddenSectors = get32(e + kExMbrHidden);
    }
    l.partitions.push_back(q);
  }
  return l;
}

std::vector<uint8_t> buildLayoutOld(const NtLayout& layout) {
  const size_t count = layout.partitions.size();
  std::vector<uint8_t> b(kLayoutOldHeader + kLayoutOldEntry * std::max<size_t>(count, 1), 0);
  put32(b.data(), static_cast<uint32_t>(count));
  put32(b.data() + 4, layout.signature);
  for (size_t i = 0; i < count; ++i) {
    const NtPartition& p = layout.partitions[i];
    uint8_t* e = b.data() + kLayoutOldHeader + i * kLayoutOldEntry;
    put64(e, p.startingOffset);
    put64(e + 8, p.length);
    put32(e + 16, p.hiddenSectors);
    put32(e + 20, p.number);
    e[24] = p.type;
    e[25] = p.boot ? 1 : 0;
    e[26] = p.recognized ? 1 : 0;
    e[27] = 1;  // rewrite
  }
  return b;
}

NtLayout parseLayoutOld(const uint8_t* p, size_t n) {
  if (n < kLayoutOldHeader) shortReply("partition layout", n);
  NtLayout l;
  uint32_t count = get32(p);
  l.signature = get32(p + 4);
  if (count > (n - kLayoutOldHeader) / kLayoutOldEntry) shortReply("partition layout", n);
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* e = p + kLayoutOldHeader + size_t{i} * kLayoutOldEntry;
    NtPartition q;
    q.startingOffset = get64(e);
    q.length = get64(e + 8);
    q.hiddenSectors = get32(e + 16);
    q.number = get32(e + 20);
    q.type = e[24];
    q.boot = e[25] != 0;
    q.recognized = e[26] != 0;
    q.rewrite = e[27] != 0;
    l.partitions.push_back(q);
  }
  return l;
}

std::vector<uint8_t> layoutExToOld(const uint8_t* ex, size_t n) {
  NtLayout l = parseLayoutEx(ex, n);
  if (l.style != 0) throw Error(ErrorId::NotSupported, "Only MBR layouts have an older form");
  return buildLayoutOld(l);
}

std::vector<uint8_t> buildDevicePropertyQuery() {
  // PropertyId = StorageDeviceProperty (0), QueryType = PropertyStandardQuery (0).
  return std::vector<uint8_t>(12, 0);
}

std::vector<uint8_t> buildAlignmentPropertyQuery() {
  // PropertyId = StorageAccessAlignmentProperty (6), QueryType = PropertyStandardQuery (0).
  std::vector<uint8_t> b(12, 0);
  put32(b.data(), 6);
  return b;
}

uint32_t parsePhysicalSectorSize(const uint8_t* p, size_t n) {
  // Version, Size, BytesPerCacheLine, BytesOffsetForCacheAlignment, BytesPerLogicalSector,
  // BytesPerPhysicalSector, ...
  return n < 24 ? 0 : get32(p + 20);
}

std::optional<StorageDescriptor> parseStorageDescriptor(const uint8_t* p, size_t n) {
  if (n < 36) return std::nullopt;
  size_t size = std::min<size_t>(n, get32(p + 4));
  StorageDescriptor d;
  d.removable = p[10] != 0;
  d.busType = get32(p + 28);
  auto text = [&](size_t field) {
    uint32_t off = get32(p + field);
    std::string s;
    if (off == 0 || off >= size) return s;
    for (size_t i = off; i < size && p[i]; ++i) s.push_back(static_cast<char>(p[i]));
    size_t b = s.find_first_not_of(' ');
    if (b == std::string::npos) return std::string();
    return s.substr(b, s.find_last_not_of(' ') - b + 1);
  };
  d.vendor = text(12);
  d.product = text(16);
  d.revision = text(20);
  d.serial = text(24);
  return d;
}

std::vector<uint8_t> buildVerify(uint64_t startingOffset, uint32_t length) {
  std::vector<uint8_t> b(16, 0);
  put64(b.data(), startingOffset);
  put32(b.data() + 8, length);
  return b;
}

std::vector<DiskExtent> parseVolumeDiskExtents(const uint8_t* p, size_t n) {
  std::vector<DiskExtent> out;
  if (n < 8) return out;
  uint32_t count = get32(p);
  for (uint32_t i = 0; i < count && 8 + (size_t{i} + 1) * 24 <= n; ++i) {
    const uint8_t* e = p + 8 + size_t{i} * 24;
    out.push_back({get32(e), get64(e + 8), get64(e + 16)});
  }
  return out;
}

}  // namespace Corvo::Disk::NtBuffers
