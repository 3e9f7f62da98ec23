// The NTFS formatter. The whole layout is computed first; then the metadata files are built in
// memory (the $LogFile and $Bitmap are generated piece by piece, so memory stays small whatever
// the volume's size) and written in long transfers; the boot sectors come last.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <random>

#include "core/Clock.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "filesystem/fat/BootCode.h"
#include "filesystem/ntfs/Ntfs.h"
#include "filesystem/ntfs/NtfsStructures.h"
#include "filesystem/ntfs/NtfsUpcase.h"

namespace Corvo::Filesystem {

using Core::Error;
using Core::ErrorId;
using namespace Ntfs;

namespace {

constexpr uint64_t kKiB = 1024, kMiB = kKiB * kKiB, kGiB = kMiB * kKiB, kTiB = kGiB * kKiB;
constexpr uint64_t kMaxClusters = 0xFFFFFFFFull;
constexpr uint32_t kMaxClusterBytes = 65536;
constexpr uint64_t kBootBytes = 8192;
constexpr uint64_t kMftRecords = 64;  // the initial $MFT: 64 KiB
constexpr uint64_t kAttrDefBytes = 0xA00;
constexpr uint64_t kSdsBlock = 0x40000;  // $SDS keeps every descriptor twice, 256 KiB apart
constexpr uint16_t kUsn = 1;

// Metadata file record numbers.
enum : uint32_t {
  rMft = 0, rMftMirr = 1, rLogFile = 2, rVolume = 3, rAttrDef = 4, rRoot = 5, rBitmap = 6, rBoot = 7,
  rBadClus = 8, rSecure = 9, rQuota12 = 9, rUpCase = 10, rExtend = 11, rQuota = 24, rObjId = 25, rReparse = 26,
};
constexpr uint32_t kSecurityIdSystem = 0x100, kSecurityIdRoot = 0x101;

struct Target {
  uint8_t major, minor;
  bool v3() const { return major >= 3; }
  bool recordNumbers() const { return major > 3 || (major == 3 && minor >= 1); }
};

Target targetOf(int versionCode) {
  switch (versionCode) {
    case ntWindowsVista:
    case ntWindowsXP: return {3, 1};
    case ntWindows2000: return {3, 0};
    case ntNt4:
    case ntNt351: return {1, 2};
    default:
      throw Error(ErrorId::InvalidArgument, "Unknown NTFS version code").with("versionCode", std::to_string(versionCode));
  }
}

// The cluster size the target Windows version picks by default for the volume's size.
uint32_t defaultClusterBytes(uint64_t volumeBytes, int versionCode) {
  if (volumeBytes > 16 * kTiB) {
    uint32_t c = 8192;
    for (uint64_t limit = 32 * kTiB; volumeBytes > limit && c < kMaxClusterBytes; limit *= 2) c *= 2;
    return c;
  }
  if (versionCode >= ntWindowsXP) return 4096;
  if (volumeBytes <= 512 * kMiB) return 512;
  if (volumeBytes <= 1 * kGiB) return 1024;
  if (volumeBytes <= 2 * kGiB) return 2048;
  return 4096;
}

// Appends bytes (by copy: GCC 12 mistakes vector::insert at the end for an overflow).
void append(std::vector<uint8_t>& out, const std::vector<uint8_t>& more) {
  const size_t at = out.size();
  out.resize(at + more.size());
  if (!more.empty()) std::memcpy(&out[at], more.data(), more.size());
}

// ---- Security descriptors -------------------------------------------------------------------

std::vector<uint8_t> sid(uint8_t authority, std::initializer_list<uint32_t> subAuthorities) {
  std::vector<uint8_t> s(8 + 4 * subAuthorities.size(), 0);
  s[0] = 1;
  s[1] = static_cast<uint8_t>(subAuthorities.size());
  s[7] = authority;
  size_t at = 8;
  for (uint32_t v : subAuthorities) {
    Core::put32(&s[at], v);
    at += 4;
  }
  return s;
}

// A self-relative descriptor: owner and group Administrators, a DACL granting full access to
// Administrators and SYSTEM, and for the root directory to everyone, inherited by its contents.
std::vector<uint8_t> securityDescriptor(bool root) {
  const auto admins = sid(5, {32, 544}), system = sid(5, {18}), everyone = sid(1, {0});
  std::vector<const std::vector<uint8_t>*> trustees = {&admins, &system};
  if (root) trustees.push_back(&everyone);
  std::vector<uint8_t> acl(8, 0);
  for (const auto* who : trustees) {
    std::vector<uint8_t> ace(8, 0);
    ace[0] = 0;                    // access allowed
    ace[1] = root ? 0x03 : 0x00;   // object and container inherit
    Core::put16(&ace[2], static_cast<uint16_t>(8 + who->size()));
    Core::put32(&ace[4], 0x001F01FF);  // full control
    append(ace, *who);
    append(acl, ace);
  }
  acl[0] = 2;
  Core::put16(&acl[2], static_cast<uint16_t>(acl.size()));
  Core::put16(&acl[4], static_cast<uint16_t>(trustees.size()));
  std::vector<uint8_t> sd(20, 0);
  sd[0] = 1;
  Core::put16(&sd[2], 0x8004);  // self-relative, DACL present
  Core::put32(&sd[16], 20);     // DACL
  append(sd, acl);
  Core::put32(&sd[4], static_cast<uint32_t>(sd.size()));  // owner
  append(sd, admins);
  Core::put32(&sd[8], static_cast<uint32_t>(sd.size()));  // group
  append(sd, admins);
  return sd;
}

uint32_t securityHash(const std::vector<uint8_t>& sd) {
  uint32_t hash = 0;
  for (size_t i = 0; i + 4 <= sd.size(); i += 4) hash = ((hash << 3) | (hash >> 29)) + Core::get32(&sd[i]);
  return hash;
}

struct StoredDescriptor {
  uint32_t id;
  std::vector<uint8_t> sd;
  uint32_t hash;
  uint64_t offset;  // in $SDS
  uint32_t length;  // header and descriptor
};

std::vector<StoredDescriptor> storedDescriptors() {
  std::vector<StoredDescriptor> list;
  uint64_t offset = 0;
  for (uint32_t id : {kSecurityIdSystem, kSecurityIdRoot}) {
    StoredDescriptor d{id, securityDescriptor(id == kSecurityIdRoot), 0, offset, 0};
    d.hash = securityHash(d.sd);
    d.length = static_cast<uint32_t>(SecurityHeader::kSize + d.sd.size());
    offset = (offset + d.length + 15) & ~uint64_t(15);
    list.push_back(std::move(d));
  }
  return list;
}

uint64_t sdsDataBytes(const std::vector<StoredDescriptor>& list) {
  return kSdsBlock + list.back().offset + list.back().length;
}

std::vector<uint8_t> securityHeader(const StoredDescriptor& d) {
  std::vector<uint8_t> h(SecurityHeader::kSize, 0);
  SecurityHeader::Hash.put(h.data(), d.hash);
  SecurityHeader::SecurityId.put(h.data(), d.id);
  SecurityHeader::Offset.put(h.data(), d.offset);
  SecurityHeader::Length.put(h.data(), d.length);
  return h;
}

// ---- Attribute definitions ------------------------------------------------------------------

struct AttrDef {
  const char* name;
  uint32_t type, flags, collation;
  uint64_t minSize, maxSize;
};
constexpr uint64_t kAny = ~uint64_t(0);
constexpr uint32_t kIndexable = 0x02, kResidentOnly = 0x40, kAlwaysLog = 0x80;

const AttrDef kAttrDefsV3[] = {
    {"$STANDARD_INFORMATION", atStandardInformation, kResidentOnly, coBinary, 0x30, 0x48},
    {"$ATTRIBUTE_LIST", atAttributeList, kAlwaysLog, coBinary, 0, kAny},
    {"$FILE_NAME", atFileName, kIndexable | kResidentOnly, coFileName, 0x44, 0x242},
    {"$OBJECT_ID", atObjectId, kResidentOnly, coBinary, 0, 0x100},
    {"$SECURITY_DESCRIPTOR", atSecurityDescriptor, kAlwaysLog, coBinary, 0, kAny},
    {"$VOLUME_NAME", atVolumeName, kResidentOnly, coBinary, 2, 0x100},
    {"$VOLUME_INFORMATION", atVolumeInformation, kResidentOnly, coBinary, 0xC, 0xC},
    {"$DATA", atData, 0, coBinary, 0, kAny},
    {"$INDEX_ROOT", atIndexRoot, kResidentOnly, coBinary, 0, kAny},
    {"$INDEX_ALLOCATION", atIndexAllocation, kAlwaysLog, coBinary, 0, kAny},
    {"$BITMAP", atBitmap, kAlwaysLog, coBinary, 0, kAny},
    {"$REPARSE_POINT", atReparsePoint, kAlwaysLog, coBinary, 0, 0x4000},
    {"$EA_INFORMATION", atEaInformation, kResidentOnly, coBinary, 8, 8},
    {"$EA", atEa, 0, coBinary, 0, 0x10000},
    {"$LOGGED_UTILITY_STREAM", atLoggedUtilityStream, kAlwaysLog, coBinary, 0, 0x10000},
};
const AttrDef kAttrDefsV1[] = {
    {"$STANDARD_INFORMATION", atStandardInformation, kResidentOnly, coBinary, 0x30, 0x30},
    {"$ATTRIBUTE_LIST", atAttributeList, kAlwaysLog, coBinary, 0, kAny},
    {"$FILE_NAME", atFileName, kIndexable | kResidentOnly, coFileName, 0x44, 0x242},
    {"$VOLUME_VERSION", 0x40, kResidentOnly, coBinary, 8, 8},
    {"$SECURITY_DESCRIPTOR", atSecurityDescriptor, kAlwaysLog, coBinary, 0, kAny},
    {"$VOLUME_NAME", atVolumeName, kResidentOnly, coBinary, 2, 0x100},
    {"$VOLUME_INFORMATION", atVolumeInformation, kResidentOnly, coBinary, 0xC, 0xC},
    {"$DATA", atData, 0, coBinary, 0, kAny},
    {"$INDEX_ROOT", atIndexRoot, kResidentOnly, coBinary, 0, kAny},
    {"$INDEX_ALLOCATION", atIndexAllocation, kAlwaysLog, coBinary, 0, kAny},
    {"$BITMAP", atBitmap, kAlwaysLog, coBinary, 0, kAny},
    {"$SYMBOLIC_LINK", 0xC0, kAlwaysLog, coBinary, 0, kAny},
    {"$EA_INFORMATION", atEaInformation, kResidentOnly, coBinary, 8, 8},
    {"$EA", atEa, 0, coBinary, 0, 0x10000},
    {"$PROPERTY_SET", atPropertySet, kAlwaysLog, coBinary, 0, kAny},
};

std::vector<uint8_t> attrDefData(const Target& t) {
  std::vector<uint8_t> data(kAttrDefBytes, 0);
  size_t at = 0;
  auto put = [&](const AttrDef& d) {
    uint8_t* e = &data[at];
    for (size_t i = 0; d.name[i]; ++i) Core::put16(e + 2 * i, static_cast<uint8_t>(d.name[i]));
    AttrDefEntry::Type.put(e, d.type);
    AttrDefEntry::CollationRule.put(e, d.collation);
    AttrDefEntry::Flags.put(e, d.flags);
    AttrDefEntry::MinSize.put(e, d.minSize);
    AttrDefEntry::MaxSize.put(e, d.maxSize);
    at += AttrDefEntry::kSize;
  };
  if (t.v3())
    for (const AttrDef& d : kAttrDefsV3) put(d);
  else
    for (const AttrDef& d : kAttrDefsV1) put(d);
  return data;
}

// ---- File records -------------------------------------------------------------------------

uint64_t ntfsTimeNow() {
  const int64_t unixSeconds = static_cast<int64_t>(Core::currentTime());
  return static_cast<uint64_t>(unixSeconds + 11644473600LL) * 10000000ull;
}

std::vector<uint8_t> bytesOf(const std::u16string& s) {
  std::vector<uint8_t> b(2 * s.size());
  for (size_t i = 0; i < s.size(); ++i) Core::put16(&b[2 * i], s[i]);
  return b;
}

// Fills one file record in place; attributes must be added in the order of their types.
class RecordBuilder {
 public:
  RecordBuilder(uint8_t* rec, const Target& t, uint32_t number, uint16_t sequence, uint16_t flags) : rec_(rec) {
    std::memset(rec, 0, kRecordBytes);
    std::memcpy(rec, "FILE", 4);
    const size_t usa = t.recordNumbers() ? 0x30 : 0x2A;
    Multi::UsaOffset.put(rec, usa);
    Multi::UsaCount.put(rec, kRecordBytes / kSector + 1);
    Record::SequenceNumber.put(rec, sequence);
    Record::LinkCount.put(rec, (flags & Record::kInUse) ? 1 : 0);
    at_ = align8(usa + 2 * (kRecordBytes / kSector + 1));
    Record::FirstAttribute.put(rec, at_);
    Record::Flags.put(rec, flags);
    Record::BytesAllocated.put(rec, kRecordBytes);
    if (t.recordNumbers()) Record::RecordNumber.put(rec, number);
    finish();
  }

  void resident(uint32_t type, const std::u16string& name, const std::vector<uint8_t>& value, bool indexed = false) {
    const size_t valueOffset = align8(Attr::kResidentHeader + 2 * name.size());
    uint8_t* a = header(type, name, align8(valueOffset + value.size()), false, Attr::kResidentHeader);
    Attr::ValueLength.put(a, value.size());
    Attr::ValueOffset.put(a, valueOffset);
    Attr::Indexed.put(a, indexed ? 1 : 0);
    if (!value.empty()) std::memcpy(a + valueOffset, value.data(), value.size());
    finish();
  }

  void nonResident(uint32_t type, const std::u16string& name, const std::vector<Run>& runs, uint64_t clusterBytes,
                   uint64_t dataSize) {
    const std::vector<uint8_t> pairs = encodeMappingPairs(runs);
    uint64_t clusters = 0;
    for (const Run& r : runs) clusters += r.length;
    const size_t pairsOffset = align8(Attr::kNonResidentHeader + 2 * name.size());
    uint8_t* a = header(type, name, align8(pairsOffset + pairs.size()), true, Attr::kNonResidentHeader);
    Attr::LowestVcn.put(a, 0);
    Attr::HighestVcn.put(a, clusters - 1);
    Attr::MappingPairsOffset.put(a, pairsOffset);
    Attr::AllocatedSize.put(a, clusters * clusterBytes);
    Attr::DataSize.put(a, dataSize);
    Attr::InitializedSize.put(a, dataSize);
    std::memcpy(a + pairsOffset, pairs.data(), pairs.size());
    finish();
  }

 private:
  uint8_t* header(uint32_t type, const std::u16string& name, size_t length, bool nonResident, size_t nameOffset) {
    if (at_ + length + 8 > kRecordBytes) throw Error(ErrorId::Internal, "An NTFS metadata file record overflows");
    uint8_t* a = rec_ + at_;
    Attr::Type.put(a, type);
    Attr::Length.put(a, length);
    Attr::NonResident.put(a, nonResident ? 1 : 0);
    Attr::NameLength.put(a, name.size());
    Attr::NameOffset.put(a, nameOffset);
    Attr::Id.put(a, nextId_++);
    const auto n = bytesOf(name);
    if (!n.empty()) std::memcpy(a + nameOffset, n.data(), n.size());
    at_ += length;
    return a;
  }
  void finish() {
    Core::put32(rec_ + at_, Attr::kEnd);
    Core::put32(rec_ + at_ + 4, 0);
    Record::BytesInUse.put(rec_, at_ + 8);
    Record::NextAttributeId.put(rec_, nextId_);
  }
  uint8_t* rec_;
  size_t at_ = 0;
  uint16_t nextId_ = 0;
};

// ---- Indexes ------------------------------------------------------------------------------

std::vector<uint8_t> directoryEntry(uint64_t fileRef, const std::vector<uint8_t>& key) {
  std::vector<uint8_t> e(align8(IndexEntry::kKeyOffset + key.size()), 0);
  IndexEntry::FileReference.put(e.data(), fileRef);
  IndexEntry::Length.put(e.data(), e.size());
  IndexEntry::KeyLength.put(e.data(), key.size());
  std::memcpy(&e[IndexEntry::kKeyOffset], key.data(), key.size());
  return e;
}

// An entry of a view index: key, then data (and padding to a multiple of 8 bytes).
std::vector<uint8_t> viewEntry(const std::vector<uint8_t>& key, const std::vector<uint8_t>& data,
                               const std::vector<uint8_t>& padding = {}) {
  const size_t dataOffset = IndexEntry::kKeyOffset + key.size();
  std::vector<uint8_t> e(align8(dataOffset + data.size() + padding.size()), 0);
  IndexEntry::DataOffset.put(e.data(), dataOffset);
  IndexEntry::DataLength.put(e.data(), data.size());
  IndexEntry::Length.put(e.data(), e.size());
  IndexEntry::KeyLength.put(e.data(), key.size());
  std::memcpy(&e[IndexEntry::kKeyOffset], key.data(), key.size());
  if (!data.empty()) std::memcpy(&e[dataOffset], data.data(), data.size());
  if (!padding.empty()) std::memcpy(&e[dataOffset + data.size()], padding.data(), padding.size());
  return e;
}

// The last entry of a node; with a child it points to the index block at that VCN.
std::vector<uint8_t> lastEntry(std::optional<uint64_t> childVcn) {
  std::vector<uint8_t> e(IndexEntry::kKeyOffset + (childVcn ? 8 : 0), 0);
  IndexEntry::Length.put(e.data(), e.size());
  IndexEntry::Flags.put(e.data(), IndexEntry::kLast | (childVcn ? IndexEntry::kHasChild : 0));
  if (childVcn) Core::put64(&e[IndexEntry::kKeyOffset], *childVcn);
  return e;
}

std::vector<uint8_t> concat(const std::vector<std::vector<uint8_t>>& parts) {
  std::vector<uint8_t> out;
  for (const auto& p : parts) append(out, p);
  return out;
}

std::vector<uint8_t> indexRootValue(uint32_t indexedType, uint32_t collation, uint32_t clusterBytes,
                                    const std::vector<uint8_t>& entries, bool hasChildren) {
  std::vector<uint8_t> v(IndexRoot::kHeaderOffset + IndexHeader::kSize, 0);
  IndexRoot::IndexedType.put(v.data(), indexedType);
  IndexRoot::CollationRule.put(v.data(), collation);
  IndexRoot::BlockBytes.put(v.data(), kIndexBlockBytes);
  // Index blocks are addressed in clusters, or in sectors when a cluster is larger than a block.
  IndexRoot::ClustersPerBlock.put(v.data(), clusterBytes <= kIndexBlockBytes ? kIndexBlockBytes / clusterBytes
                                                                             : kIndexBlockBytes / kSector);
  uint8_t* h = &v[IndexRoot::kHeaderOffset];
  IndexHeader::EntriesOffset.put(h, IndexHeader::kSize);
  IndexHeader::IndexLength.put(h, IndexHeader::kSize + entries.size());
  IndexHeader::AllocatedSize.put(h, IndexHeader::kSize + entries.size());
  IndexHeader::Flags.put(h, hasChildren ? IndexHeader::kHasChildren : 0);
  append(v, entries);
  return v;
}

// One index block ("INDX") holding the entries, fixups applied.
std::vector<uint8_t> indexBlock(uint64_t vcn, const std::vector<uint8_t>& entries) {
  std::vector<uint8_t> b(kIndexBlockBytes, 0);
  std::memcpy(b.data(), "INDX", 4);
  const size_t usa = 0x28, usaCount = kIndexBlockBytes / kSector + 1;
  Multi::UsaOffset.put(b.data(), usa);
  Multi::UsaCount.put(b.data(), usaCount);
  IndexBlock::Vcn.put(b.data(), vcn);
  uint8_t* h = &b[IndexBlock::kHeaderOffset];
  const size_t first = align8(usa + 2 * usaCount) - IndexBlock::kHeaderOffset;
  if (IndexBlock::kHeaderOffset + first + entries.size() > kIndexBlockBytes)
    throw Error(ErrorId::Internal, "The NTFS root directory does not fit one index block");
  IndexHeader::EntriesOffset.put(h, first);
  IndexHeader::IndexLength.put(h, first + entries.size());
  IndexHeader::AllocatedSize.put(h, kIndexBlockBytes - IndexBlock::kHeaderOffset);
  std::memcpy(h + first, entries.data(), entries.size());
  applyFixups(b.data(), b.size(), kUsn);
  return b;
}

// ---- The volume ---------------------------------------------------------------------------

struct SystemFile {
  uint32_t record;
  std::u16string name;
  uint32_t parent;
  uint16_t flags;  // record flags
  uint64_t allocated = 0, dataSize = 0;
};

uint16_t sequenceOf(uint32_t record) { return record == 0 || record > 15 ? 1 : static_cast<uint16_t>(record); }

class Volume {
 public:
  Volume(const NtfsLayout& L, const Target& t, uint64_t serial, const std::u16string& label)
      : L_(L), t_(t), serial_(serial), label_(label), now_(ntfsTimeNow()), descriptors_(storedDescriptors()) {}

  std::vector<uint8_t> bootSector(const NtfsFormatOptions& options) const;
  std::vector<uint8_t> mft() const;
  std::vector<uint8_t> rootIndexBlock() const { return indexBlock(0, concat(rootEntries())); }
  uint64_t serial() const { return serial_; }
  std::vector<uint8_t> sds() const;

 private:
  uint64_t clusterBytes() const { return L_.clusterBytes; }
  uint64_t clustersFor(uint64_t bytes) const { return (bytes + L_.clusterBytes - 1) / L_.clusterBytes; }
  std::vector<SystemFile> rootFiles() const;
  std::vector<uint8_t> standardInformation(uint32_t record) const;
  std::vector<uint8_t> fileName(const SystemFile& f) const;
  std::vector<std::vector<uint8_t>> rootEntries() const;
  void common(RecordBuilder& b, const SystemFile& f) const;
  void build(uint8_t* rec, const SystemFile& f) const;
  std::vector<Run> runAt(uint64_t lcn, uint64_t bytes) const { return {Run{lcn, clustersFor(bytes)}}; }

  const NtfsLayout& L_;
  Target t_;
  uint64_t serial_;
  std::u16string label_;
  uint64_t now_;
  std::vector<StoredDescriptor> descriptors_;
};

std::vector<SystemFile> Volume::rootFiles() const {
  const uint16_t file = Record::kInUse, dir = Record::kInUse | Record::kDirectory;
  const uint16_t view = Record::kInUse | Record::kViewIndex;
  const uint64_t cb = clusterBytes();
  auto alloc = [&](uint64_t bytes) { return clustersFor(bytes) * cb; };
  std::vector<SystemFile> files = {
      {rMft, u"$MFT", rRoot, file, L_.mftClusters * cb, L_.mftRecords * kRecordBytes},
      {rMftMirr, u"$MFTMirr", rRoot, file, alloc(L_.mirrorRecords * kRecordBytes), L_.mirrorRecords * kRecordBytes},
      {rLogFile, u"$LogFile", rRoot, file, alloc(L_.logFileBytes), L_.logFileBytes},
      {rVolume, u"$Volume", rRoot, file, 0, 0},
      {rAttrDef, u"$AttrDef", rRoot, file, alloc(kAttrDefBytes), kAttrDefBytes},
      {rRoot, u".", rRoot, dir, 0, 0},
      {rBitmap, u"$Bitmap", rRoot, file, alloc(L_.bitmapBytes), L_.bitmapBytes},
      {rBoot, u"$Boot", rRoot, file, alloc(kBootBytes), kBootBytes},
      {rBadClus, u"$BadClus", rRoot, file, 0, 0},
      {rUpCase, u"$UpCase", rRoot, file, alloc(kUpcaseBytes), kUpcaseBytes},
  };
  if (t_.v3()) {
    files.push_back({rSecure, u"$Secure", rRoot, view, 0, 0});
    files.push_back({rExtend, u"$Extend", rRoot, dir, 0, 0});
  } else {
    files.push_back({rQuota12, u"$Quota", rRoot, file, 0, 0});
  }
  return files;
}

std::vector<uint8_t> Volume::standardInformation(uint32_t record) const {
  std::vector<uint8_t> v(t_.v3() ? StandardInformation::kSizeV3 : StandardInformation::kSizeV1, 0);
  StandardInformation::CreationTime.put(v.data(), now_);
  StandardInformation::ModificationTime.put(v.data(), now_);
  StandardInformation::RecordChangeTime.put(v.data(), now_);
  StandardInformation::AccessTime.put(v.data(), now_);
  StandardInformation::FileAttributes.put(v.data(), kFileHidden | kFileSystem);
  if (t_.v3()) StandardInformation::SecurityId.put(v.data(), record == rRoot ? kSecurityIdRoot : kSecurityIdSystem);
  return v;
}

std::vector<uint8_t> Volume::fileName(const SystemFile& f) const {
  std::vector<uint8_t> v(FileName::kNameOffset + 2 * f.name.size(), 0);
  FileName::ParentReference.put(v.data(), fileReference(f.parent, sequenceOf(f.parent)));
  FileName::CreationTime.put(v.data(), now_);
  FileName::ModificationTime.put(v.data(), now_);
  FileName::RecordChangeTime.put(v.data(), now_);
  FileName::AccessTime.put(v.data(), now_);
  FileName::AllocatedSize.put(v.data(), f.allocated);
  FileName::DataSize.put(v.data(), f.dataSize);
  uint32_t attributes = kFileHidden | kFileSystem;
  if (f.flags & Record::kDirectory) attributes |= kDupFileNameIndex;
  if (f.flags & Record::kViewIndex) attributes |= kDupViewIndex;
  FileName::FileAttributes.put(v.data(), attributes);
  FileName::NameLength.put(v.data(), f.name.size());
  FileName::Namespace.put(v.data(), FileName::kWin32AndDos);
  const auto n = bytesOf(f.name);
  std::memcpy(&v[FileName::kNameOffset], n.data(), n.size());
  return v;
}

std::vector<std::vector<uint8_t>> Volume::rootEntries() const {
  auto files = rootFiles();
  std::sort(files.begin(), files.end(), [](const SystemFile& a, const SystemFile& b) { return compareNames(a.name, b.name) < 0; });
  std::vector<std::vector<uint8_t>> entries;
  for (const SystemFile& f : files) entries.push_back(directoryEntry(fileReference(f.record, sequenceOf(f.record)), fileName(f)));
  entries.push_back(lastEntry(std::nullopt));
  return entries;
}

void Volume::common(RecordBuilder& b, const SystemFile& f) const {
  b.resident(atStandardInformation, u"", standardInformation(f.record));
  b.resident(atFileName, u"", fileName(f), true);
  if (!t_.v3()) b.resident(atSecurityDescriptor, u"", securityDescriptor(f.record == rRoot));
}

std::vector<uint8_t> Volume::sds() const {
  std::vector<uint8_t> data(clustersFor(L_.secureBytes) * clusterBytes(), 0);
  for (const StoredDescriptor& d : descriptors_) {
    for (uint64_t copy : {uint64_t(0), kSdsBlock}) {
      const auto h = securityHeader(d);
      std::memcpy(&data[d.offset + copy], h.data(), h.size());
      std::memcpy(&data[d.offset + copy + h.size()], d.sd.data(), d.sd.size());
    }
  }
  return data;
}

void Volume::build(uint8_t* rec, const SystemFile& f) const {
  RecordBuilder b(rec, t_, f.record, sequenceOf(f.record), f.flags);
  common(b, f);
  const uint32_t cb = L_.clusterBytes;
  switch (f.record) {
    case rMft:
      b.nonResident(atData, u"", runAt(L_.mftLcn, L_.mftRecords * kRecordBytes), cb, L_.mftRecords * kRecordBytes);
      b.nonResident(atBitmap, u"", runAt(L_.mftBitmapLcn, 8), cb, 8);
      break;
    case rMftMirr:
      b.nonResident(atData, u"", runAt(L_.mftMirrLcn, L_.mirrorRecords * kRecordBytes), cb, L_.mirrorRecords * kRecordBytes);
      break;
    case rLogFile: b.nonResident(atData, u"", runAt(L_.logFileLcn, L_.logFileBytes), cb, L_.logFileBytes); break;
    case rVolume: {
      b.resident(atVolumeName, u"", bytesOf(label_));
      std::vector<uint8_t> info(VolumeInformation::kSize, 0);
      VolumeInformation::Major.put(info.data(), t_.major);
      VolumeInformation::Minor.put(info.data(), t_.minor);
      b.resident(atVolumeInformation, u"", info);
      b.resident(atData, u"", {});
      break;
    }
    case rAttrDef: b.nonResident(atData, u"", runAt(L_.attrDefLcn, kAttrDefBytes), cb, kAttrDefBytes); break;
    case rRoot: {
      b.resident(atIndexRoot, u"$I30", indexRootValue(atFileName, coFileName, cb, lastEntry(0), true));
      b.nonResident(atIndexAllocation, u"$I30", runAt(L_.rootIndexLcn, kIndexBlockBytes), cb, kIndexBlockBytes);
      b.resident(atBitmap, u"$I30", {1, 0, 0, 0, 0, 0, 0, 0});
      break;
    }
    case rBitmap: b.nonResident(atData, u"", runAt(L_.bitmapLcn, L_.bitmapBytes), cb, L_.bitmapBytes); break;
    case rBoot: b.nonResident(atData, u"", runAt(0, kBootBytes), cb, kBootBytes); break;
    case rBadClus:
      b.resident(atData, u"", {});
      b.nonResident(atData, u"$Bad", {Run{std::nullopt, L_.clusters}}, cb, L_.clusters * cb);
      break;
    case rUpCase: b.nonResident(atData, u"", runAt(L_.upCaseLcn, kUpcaseBytes), cb, kUpcaseBytes); break;
    default: break;
  }
  if (t_.v3() && f.record == rSecure) {
    b.nonResident(atData, u"$SDS", runAt(L_.secureLcn, L_.secureBytes), cb, L_.secureBytes);
    std::vector<const StoredDescriptor*> byHash;
    for (const auto& d : descriptors_) byHash.push_back(&d);
    std::sort(byHash.begin(), byHash.end(), [](auto* a, auto* b) { return a->hash != b->hash ? a->hash < b->hash : a->id < b->id; });
    std::vector<std::vector<uint8_t>> sdh, sii;
    for (const auto* d : byHash) {
      std::vector<uint8_t> key(8);
      Core::put32(&key[0], d->hash);
      Core::put32(&key[4], d->id);
      sdh.push_back(viewEntry(key, securityHeader(*d), {'I', 0, 'I', 0}));
    }
    for (const auto& d : descriptors_) {
      std::vector<uint8_t> key(4);
      Core::put32(&key[0], d.id);
      sii.push_back(viewEntry(key, securityHeader(d)));
    }
    sdh.push_back(lastEntry(std::nullopt));
    sii.push_back(lastEntry(std::nullopt));
    b.resident(atIndexRoot, u"$SDH", indexRootValue(0, coSecurityHash, cb, concat(sdh), false));
    b.resident(atIndexRoot, u"$SII", indexRootValue(0, coUlong, cb, concat(sii), false));
  } else if (!t_.v3() && f.record == rQuota12) {
    b.resident(atData, u"", {});
  } else if (t_.v3() && f.record == rExtend) {
    std::vector<SystemFile> children = {{rObjId, u"$ObjId", rExtend, Record::kInUse | Record::kViewIndex},
                                        {rQuota, u"$Quota", rExtend, Record::kInUse | Record::kViewIndex},
                                        {rReparse, u"$Reparse", rExtend, Record::kInUse | Record::kViewIndex}};
    std::vector<std::vector<uint8_t>> entries;
    for (const auto& c : children) entries.push_back(directoryEntry(fileReference(c.record, sequenceOf(c.record)), fileName(c)));
    entries.push_back(lastEntry(std::nullopt));
    b.resident(atIndexRoot, u"$I30", indexRootValue(atFileName, coFileName, cb, concat(entries), false));
  } else if (f.record == rQuota) {
    // The default limits (owner 1) and the Administrators' owner id, without limits.
    const auto admins = sid(5, {32, 544});
    std::vector<uint8_t> adminsId(4), defaultId(4), control(QuotaControl::kSize);
    Core::put32(adminsId.data(), QuotaControl::kFirstOwner);
    Core::put32(defaultId.data(), QuotaControl::kDefaultOwner);
    QuotaControl::Version.put(control.data(), QuotaControl::kVersion);
    QuotaControl::Flags.put(control.data(), QuotaControl::kDefaultLimits);
    QuotaControl::ChangeTime.put(control.data(), now_);
    QuotaControl::Threshold.put(control.data(), ~uint64_t{0});
    QuotaControl::Limit.put(control.data(), ~uint64_t{0});
    const std::vector<uint8_t> o = concat({viewEntry(admins, adminsId), lastEntry(std::nullopt)});
    const std::vector<uint8_t> q = concat({viewEntry(defaultId, control), viewEntry(adminsId, concat({control, admins})),
                                           lastEntry(std::nullopt)});
    b.resident(atIndexRoot, u"$O", indexRootValue(0, coSid, cb, o, false));
    b.resident(atIndexRoot, u"$Q", indexRootValue(0, coUlong, cb, q, false));
  } else if (f.record == rObjId) {
    b.resident(atIndexRoot, u"$O", indexRootValue(0, coUlongs, cb, lastEntry(std::nullopt), false));
  } else if (f.record == rReparse) {
    b.resident(atIndexRoot, u"$R", indexRootValue(0, coUlongs, cb, lastEntry(std::nullopt), false));
  }
}

std::vector<uint8_t> Volume::mft() const {
  std::vector<uint8_t> mft(L_.mftRecords * kRecordBytes, 0);
  std::vector<SystemFile> files = rootFiles();
  if (t_.v3()) {
    files.push_back({rQuota, u"$Quota", rExtend, Record::kInUse | Record::kViewIndex});
    files.push_back({rObjId, u"$ObjId", rExtend, Record::kInUse | Record::kViewIndex});
    files.push_back({rReparse, u"$Reparse", rExtend, Record::kInUse | Record::kViewIndex});
  }
  std::vector<bool> done(L_.mftRecords, false);
  for (const SystemFile& f : files) {
    build(&mft[f.record * kRecordBytes], f);
    done[f.record] = true;
  }
  // The other reserved records (up to 15, and up to 23 where $Extend's files follow them) are
  // in use, unnamed and empty: standard information and an empty data stream, so that readers
  // can open every record the $MFT's bitmap marks. The rest are formatted and free.
  const uint32_t reservedEnd = t_.v3() ? uint32_t{rQuota} : 16;
  for (uint32_t r = 0; r < L_.mftRecords; ++r) {
    if (done[r]) continue;
    const bool reserved = r < reservedEnd;
    RecordBuilder b(&mft[r * kRecordBytes], t_, r, reserved ? sequenceOf(r) : 0, reserved ? Record::kInUse : 0);
    if (reserved) {
      b.resident(atStandardInformation, u"", standardInformation(r));
      if (!t_.v3()) b.resident(atSecurityDescriptor, u"", securityDescriptor(false));
      b.resident(atData, u"", {});
    }
    Record::LinkCount.put(&mft[r * kRecordBytes], 0);
  }
  for (uint32_t r = 0; r < L_.mftRecords; ++r) applyFixups(&mft[r * kRecordBytes], kRecordBytes, kUsn);
  return mft;
}

std::vector<uint8_t> Volume::bootSector(const NtfsFormatOptions& options) const {
  std::vector<uint8_t> b(kSector, 0);
  uint8_t* p = b.data();
  Boot::Jump.put(p, 0x9052EB);  // EB 52 90: jump to the boot code
  std::memcpy(p + Boot::kOemOffset, "NTFS    ", 8);
  Boot::BytesPerSector.put(p, kSector);
  Boot::SectorsPerCluster.put(p, L_.clusterBytes / kSector);
  Boot::Media.put(p, 0xF8);
  Boot::SectorsPerTrack.put(p, options.sectorsPerTrack);
  Boot::Heads.put(p, options.heads);
  Boot::HiddenSectors.put(p, options.hiddenSectors);
  Boot::DriveFields.put(p, 0x00800080);
  Boot::TotalSectors.put(p, L_.totalSectors);
  Boot::MftLcn.put(p, L_.mftLcn);
  Boot::MftMirrLcn.put(p, L_.mftMirrLcn);
  // A size in clusters, or as a negative power of two of bytes when a cluster is larger.
  Boot::ClustersPerRecord.put(p, L_.clusterBytes <= kRecordBytes ? kRecordBytes / L_.clusterBytes : 0xF6);
  Boot::ClustersPerIndexBlock.put(p, L_.clusterBytes <= kIndexBlockBytes ? kIndexBlockBytes / L_.clusterBytes : 0xF4);
  Boot::Serial.put(p, serial_);
  // The boot code tells whoever starts from this volume that it holds no system.
  const size_t room = Boot::Signature.offset - Boot::kBootCodeOffset;
  std::memcpy(p + Boot::kBootCodeOffset, BootCode::kFat16Loader, std::min<size_t>(room, BootCode::kFat16LoaderSize));
  Boot::Signature.put(p, 0xAA55);
  return b;
}

// ---- Writing --------------------------------------------------------------------------------

struct Extent {
  uint64_t lcn, clusters;
};

class Writer {
 public:
  Writer(Disk::BlockDevice& device, uint32_t clusterBytes, Core::Progress& progress)
      : device_(device), sector_(device.bytesPerBlock()), spc_(clusterBytes / sector_), progress_(progress),
        chunk_(std::clamp<uint64_t>(device.preferredTransferBlocks(), 2048, 16384) / spc_ * spc_) {}

  // Writes bytes at the cluster, zero-padded to whole clusters.
  void put(uint64_t lcn, const std::vector<uint8_t>& bytes) {
    generate(lcn, bytes.size(), [&](uint64_t offset, uint8_t* out, size_t n) {
      const size_t have = offset < bytes.size() ? std::min<size_t>(n, bytes.size() - offset) : 0;
      if (have) std::memcpy(out, &bytes[offset], have);
    });
  }
  // Writes `bytes` bytes (zero-padded to whole clusters) made by fill(offset, out, n) over a zeroed buffer.
  template <typename Fill>
  void generate(uint64_t lcn, uint64_t bytes, Fill fill) {
    const uint64_t sectors = (bytes + spc_ * sector_ - 1) / (spc_ * sector_) * spc_;
    std::vector<uint8_t> buffer(std::min<uint64_t>(sectors, chunk_) * sector_);
    for (uint64_t done = 0; done < sectors;) {
      Disk::stopIfInterrupted(progress_, device_, "Format");  // the boot sectors come last
      const uint64_t n = std::min<uint64_t>(chunk_, sectors - done);
      std::fill(buffer.begin(), buffer.end(), 0);
      fill(done * sector_, buffer.data(), static_cast<size_t>(n * sector_));
      device_.write(lcn * spc_ + done, n, buffer.data());
      progress_.advance(n);
      done += n;
    }
  }
  // Progress units (512-byte sectors) of a run of clusters.
  static uint64_t sectorsOf(uint64_t bytes, uint32_t clusterBytes) {
    return (bytes + clusterBytes - 1) / clusterBytes * (clusterBytes / kSector);
  }

 private:
  Disk::BlockDevice& device_;
  uint32_t sector_;
  uint64_t spc_;
  Core::Progress& progress_;
  uint64_t chunk_;
};

uint64_t randomSerial() {
  return Core::randomValue<uint64_t>();
}

uint64_t roundUp(uint64_t v, uint64_t unit) { return (v + unit - 1) / unit * unit; }

}  // namespace

std::string ntfsLabelProblem(const std::string& label) {
  if (Ntfs::utf16From(label).size() <= kNtfsLabelUnits) return {};
  return Core::format("Invalid volume label -- maximum of %zu characters for NTFS", kNtfsLabelUnits);
}

NtfsLayout planNtfs(uint64_t sectors, int versionCode) {
  const Target t = targetOf(versionCode);
  NtfsLayout L;
  L.major = t.major;
  L.minor = t.minor;
  const std::string tooSmall = "The partition is too small for an NTFS volume";
  if (sectors < 16) throw Error(ErrorId::FormatFailed, tooSmall).with("sectors", std::to_string(sectors));
  L.totalSectors = sectors - 1;  // the last sector keeps the backup boot sector
  const uint64_t volumeBytes = L.totalSectors * kSector;
  uint32_t cb = defaultClusterBytes(volumeBytes, versionCode);
  while (L.totalSectors / (cb / kSector) > kMaxClusters && cb < kMaxClusterBytes) cb *= 2;
  L.clusterBytes = cb;
  L.clusters = L.totalSectors / (cb / kSector);
  if (L.clusters > kMaxClusters)
    throw Error(ErrorId::FormatFailed, "The partition is too large for an NTFS volume").with("sectors", std::to_string(sectors));
  auto clustersFor = [&](uint64_t bytes) { return (bytes + cb - 1) / cb; };

  const uint64_t bootClusters = clustersFor(kBootBytes);
  L.mftLcn = std::max(bootClusters, clustersFor(16 * kKiB));
  L.mftRecords = kMftRecords;
  L.mftClusters = clustersFor(L.mftRecords * kRecordBytes);
  L.mirrorRecords = std::max<uint64_t>(4, cb / kRecordBytes);
  L.logFileBytes = roundUp(std::clamp<uint64_t>(volumeBytes / 64 / (64 * kKiB) * (64 * kKiB), 256 * kKiB, 64 * kMiB), cb);
  L.bitmapBytes = (L.clusters + 63) / 64 * 8;
  L.secureBytes = t.v3() ? sdsDataBytes(storedDescriptors()) : 0;

  // The other metadata files lie together from the middle of the volume, where the mirror has
  // always been; on small volumes they follow the $MFT.
  const uint64_t sizes[] = {clustersFor(L.mirrorRecords * kRecordBytes), clustersFor(L.logFileBytes),
                            clustersFor(kAttrDefBytes), clustersFor(8), clustersFor(kIndexBlockBytes),
                            clustersFor(L.bitmapBytes), clustersFor(kUpcaseBytes), clustersFor(L.secureBytes)};
  uint64_t rest = 0;
  for (uint64_t s : sizes) rest += s;
  const uint64_t mftEnd = L.mftLcn + L.mftClusters;
  uint64_t at = L.clusters / 2;
  if (at < mftEnd || at + rest > L.clusters) at = mftEnd;
  if (at + rest > L.clusters) throw Error(ErrorId::FormatFailed, tooSmall).with("sectors", std::to_string(sectors));
  uint64_t* places[] = {&L.mftMirrLcn, &L.logFileLcn, &L.attrDefLcn, &L.mftBitmapLcn,
                        &L.rootIndexLcn, &L.bitmapLcn, &L.upCaseLcn, &L.secureLcn};
  for (size_t i = 0; i < std::size(sizes); ++i) {
    *places[i] = at;
    at += sizes[i];
  }
  L.usedClusters = bootClusters + L.mftClusters + rest;
  return L;
}

uint64_t ntfsMinimumSectors(int versionCode) {
  auto fits = [&](uint64_t n) {
    try {
      planNtfs(n, versionCode);
      return true;
    } catch (const Error& e) {
      if (e.id() != ErrorId::FormatFailed) throw;
      return false;
    }
  };
  uint64_t lo = 16, hi = 1 << 16;  // a few MiB always fit
  while (lo < hi) {
    const uint64_t mid = (lo + hi) / 2;
    if (fits(mid))
      hi = mid;
    else
      lo = mid + 1;
  }
  return lo;
}

FormatSummary formatNtfs(Disk::BlockDevice& device, const NtfsFormatOptions& requested) {
  Core::TraceScope scope("formatNtfs");
  NtfsFormatOptions options = requested;
  if (!options.versionCode) options.versionCode = ntWindowsVista;
  std::u16string label;
  if (options.label) {
    if (const std::string problem = ntfsLabelProblem(*options.label); !problem.empty())
      throw Error(ErrorId::InvalidArgument, problem).with("label", *options.label);
    label = utf16From(*options.label);
  }
  Disk::requireSectorSize(device.bytesPerBlock());
  const Target t = targetOf(options.versionCode);
  const uint64_t sectors = device.blockCount();
  NtfsLayout L;
  try {
    L = planNtfs(sectors, options.versionCode);
  } catch (const Error& e) {
    if (e.id() == ErrorId::FormatFailed) {
      uint64_t least = ntfsMinimumSectors(options.versionCode);
      if (sectors < least)
        throw Error(ErrorId::FormatFailed,
                    Core::format("The partition is too small for an NTFS volume (at least %llu sectors)",
                                 static_cast<unsigned long long>(least)), e.properties());
    }
    throw;
  }
  const Volume volume(L, t, options.serial ? *options.serial : randomSerial(), label);
  const uint32_t cb = L.clusterBytes;

  // Everything is built before the first write.
  const std::vector<uint8_t> mft = volume.mft();
  const std::vector<uint8_t> mirror(mft.begin(), mft.begin() + static_cast<std::ptrdiff_t>(L.mirrorRecords * kRecordBytes));
  const std::vector<uint8_t> attrDef = attrDefData(t);
  const std::vector<uint8_t> rootBlock = volume.rootIndexBlock();
  const std::vector<uint8_t> upCase = upcaseTable();
  const std::vector<uint8_t> sds = t.v3() ? volume.sds() : std::vector<uint8_t>();
  const std::vector<uint8_t> boot = volume.bootSector(options);
  std::vector<uint8_t> mftBitmap(8, 0);
  const uint32_t reservedRecords = t.v3() ? rReparse + 1 : 16;
  for (uint32_t r = 0; r < reservedRecords; ++r) mftBitmap[r / 8] |= static_cast<uint8_t>(1u << (r % 8));
  // Clusters in use: $Boot, the $MFT, and the other files in one stretch from the mirror on.
  const uint64_t bootClusters = (kBootBytes + cb - 1) / cb;
  const Extent used[] = {{0, bootClusters},
                         {L.mftLcn, L.mftClusters},
                         {L.mftMirrLcn, L.usedClusters - bootClusters - L.mftClusters}};

  const uint64_t progressTotal = Writer::sectorsOf(kBootBytes, cb) + Writer::sectorsOf(mft.size(), cb) +
                                 Writer::sectorsOf(mirror.size(), cb) + Writer::sectorsOf(L.logFileBytes, cb) +
                                 Writer::sectorsOf(attrDef.size(), cb) + Writer::sectorsOf(8, cb) +
                                 Writer::sectorsOf(rootBlock.size(), cb) + Writer::sectorsOf(L.bitmapBytes, cb) +
                                 Writer::sectorsOf(upCase.size(), cb) + Writer::sectorsOf(sds.size(), cb) + 2;
  Core::Progress progress(Core::format("QuickFormatting %.2fM", double(sectors) * device.bytesPerBlock() / 1048576.0), progressTotal);
  Writer w(device, cb, progress);
  try {
    // A volume half written must not look like NTFS: the old boot sector goes first.
    const std::vector<uint8_t> zero(device.bytesPerBlock(), 0);
    device.write(0, 1, zero.data());
    device.flush();
    w.put(0, std::vector<uint8_t>(kBootBytes, 0));
    w.put(L.mftLcn, mft);
    w.put(L.mftMirrLcn, mirror);
    // An empty log: every byte 0xFF, nothing to restart.
    w.generate(L.logFileLcn, L.logFileBytes, [&](uint64_t offset, uint8_t* out, size_t n) {
      if (offset < L.logFileBytes) std::memset(out, 0xFF, std::min<uint64_t>(n, L.logFileBytes - offset));
    });
    w.put(L.attrDefLcn, attrDef);
    w.put(L.mftBitmapLcn, mftBitmap);
    w.put(L.rootIndexLcn, rootBlock);
    w.generate(L.bitmapLcn, L.bitmapBytes, [&](uint64_t offset, uint8_t* out, size_t n) {
      const uint64_t firstBit = offset * 8, endBit = std::min<uint64_t>(firstBit + uint64_t(n) * 8, L.clusters);
      for (const Extent& e : used) {
        const uint64_t from = std::max(e.lcn, firstBit), to = std::min(e.lcn + e.clusters, endBit);
        for (uint64_t c = from; c < to; ++c) out[(c - firstBit) / 8] |= static_cast<uint8_t>(1u << (c % 8));
      }
    });
    w.put(L.upCaseLcn, upCase);
    if (t.v3()) w.put(L.secureLcn, sds);
    device.flush();
    Disk::stopIfInterrupted(progress, device, "Format");
    // The backup boot sector, then the primary one: only now is the volume there.
    device.write(sectors - 1, 1, boot.data());
    device.flush();
    device.write(0, 1, boot.data());
    device.flush();
    progress.advance(2);
  } catch (const Error&) {
    progress.abandon();
    throw;
  }
  progress.complete();

  const uint64_t freeClusters = L.freeClusters();
  FormatSummary summary;
  summary.say(label.empty() ? "Volume has no label" : "Volume label is " + utf8From(label));
  const uint32_t low = static_cast<uint32_t>(volume.serial());
  summary.say(Core::format("Volume Serial Number is %04X-%04X", low >> 16, low & 0xFFFF));
  summary.say(Core::format("NTFS version %u.%u", t.major, t.minor));
  summary.count(L.clusters * cb, "bytes total disk space");
  summary.count(freeClusters * cb, "bytes available on disk");
  summary.count(cb, "bytes in each allocation unit");
  summary.count(L.clusters, "total allocation units on disk");
  summary.count(freeClusters, "available allocation units on disk");
  summary.count(L.mftLcn, "first cluster of the $MFT");
  return summary;
}

}  // namespace Corvo::Filesystem
