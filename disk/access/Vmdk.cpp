#include "disk/access/Vmdk.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <set>

#include "core/Endian.h"
#include "core/Error.h"
#include "core/Message.h"
#include "disk/access/FileIo.h"
#include "disk/access/LinuxDisks.h"

namespace Corvo::Disk::Vmdk {

using Core::Error;
using Core::ErrorId;

namespace {

constexpr uint64_t kGdAtEnd = ~uint64_t{0};
constexpr uint64_t kMaxCapacity = uint64_t{1} << 41;  // 1 PiB in sectors: anything larger is corrupt

[[noreturn]] void fail(const std::string& file, const std::string& reason) {
  throw Error(ErrorId::InvalidImage, "Cannot use VMDK image " + file + " -- " + reason)
      .with("path", file)
      .with("reason", reason);
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

std::string unquote(std::string s) {
  s = trim(s);
  if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
  return s;
}

bool parseNumber(const std::string& s, uint64_t& out) {
  if (s.empty() || s.size() > 19) return false;
  out = 0;
  for (char c : s) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    out = out * 10 + static_cast<uint64_t>(c - '0');
  }
  return true;
}

std::string directoryOf(const std::string& path) {
  size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// An extent is a file next to its descriptor, named by its plain file name: no folder, no
// drive, no device. Whatever else a descriptor names (an absolute path, "../x", a drive-relative
// "C:x") could reach beyond the images the administrator added.
std::string resolveExtent(const std::string& descriptorPath, const std::string& file) {
  bool plain = !file.empty() && file != "." && file != ".." && file.find_first_of("/\\:") == std::string::npos;
  for (char c : file)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) plain = false;
  if (!plain)
    fail(descriptorPath, "extent file \"" + Core::visibleText(file) +
                             "\" is not a file next to the descriptor (folders and absolute paths are not allowed)");
  return directoryOf(descriptorPath) + file;
}

Geometry geometryFrom(const Descriptor& d, uint64_t blocks) {
  Geometry g;
  if (d.heads && d.sectors && d.heads <= 255 && d.sectors <= 63) {
    g.heads = d.heads;
    g.sectorsPerTrack = d.sectors;
  }
  g.cylinders = d.cylinders && d.heads == g.heads ? d.cylinders : blocks / (uint64_t{g.heads} * g.sectorsPerTrack);
  return g;
}

// --- monolithicFlat: one or more flat (or zero) extents laid end to end. ---
class FlatVmdkAccess : public DiskDriveAccess {
 public:
  FlatVmdkAccess(const std::string& path, const Descriptor& d) : path_(path) {
    if (d.createType != "monolithicFlat")
      fail(path, "createType \"" + d.createType + "\" is not supported (only monolithicFlat and monolithicSparse)");
    if (d.extents.empty()) fail(path, "the descriptor lists no extents");
    uint64_t at = 0;
    for (const Extent& e : d.extents) {
      Piece p;
      p.first = at;
      p.sectors = e.sectors;
      p.extent = e;
      if (e.type == "FLAT" || e.type == "VMFS") {
        std::string where = resolveExtent(path, e.file);
        p.file = std::make_unique<FileIo>();
        try {
          if (e.writable)
            p.file->open(where, FileIo::Accept::RegularFile);
          else
            p.file->openReadOnly(where, FileIo::Accept::RegularFile);
        } catch (const Error& err) {
          if (err.id() == ErrorId::NotSupported)
            fail(path, "extent file " + where + " is " + err.property("kind") + ", not a regular file");
          fail(path, "extent file " + where + " is missing or cannot be opened (" + err.text() + ")");
        }
        if (p.file->size() < (e.offset + e.sectors) * 512)
          fail(path, "extent file " + where + " is shorter than the descriptor says");
      } else if (e.type != "ZERO") {
        fail(path, "extent type " + e.type + " is not supported in a monolithicFlat image");
      }
      at += e.sectors;
      pieces_.push_back(std::move(p));
    }
    blocks_ = at;
    geometry_ = geometryFrom(d, blocks_);
  }

  std::string path() const override { return path_; }
  Geometry getGeometry() const override { return geometry_; }
  uint64_t totalBlocks() const override { return blocks_; }
  std::string model() const override { return "VMDK image"; }

  void read(uint64_t first, uint64_t count, void* buffer) override {
    auto* out = static_cast<uint8_t*>(buffer);
    forEachPiece(first, count, [&](Piece& p, uint64_t inPiece, uint64_t n) {
      if (!p.extent.readable) throw Error(ErrorId::ReadFailed, "VMDK extent is not accessible").with("path", path_);
      if (!p.file)
        std::memset(out, 0, static_cast<size_t>(n) * 512);
      else
        p.file->readAt((p.extent.offset + inPiece) * 512, out, static_cast<size_t>(n) * 512);
      out += n * 512;
    });
  }
  void write(uint64_t first, uint64_t count, const void* buffer) override {
    auto* in = static_cast<const uint8_t*>(buffer);
    forEachPiece(first, count, [&](Piece& p, uint64_t inPiece, uint64_t n) {
      if (!p.file || !p.extent.writable)
        throw Error(ErrorId::WriteProtected, "Cannot write " + path_ + " -- the extent is read-only")
            .with("path", path_)
            .with("sector", std::to_string(p.first + inPiece));
      p.file->writeAt((p.extent.offset + inPiece) * 512, in, static_cast<size_t>(n) * 512);
      in += n * 512;
    });
  }
  void flush() override {
    for (auto& p : pieces_)
      if (p.file) p.file->sync();
  }
  // An extent file attached to a loop device whose filesystems are mounted is as busy as the
  // device itself.
  void prepareForChange(uint64_t firstBlock, uint64_t blockCount) override {
    forEachPiece(firstBlock, blockCount, [&](Piece& p, uint64_t inPiece, uint64_t n) {
      if (p.file) LinuxDisks::refuseIfImageBusy(p.file->path(), p.extent.offset + inPiece, n);
    });
  }
  // The first extent file stands for the disk.
  bool lockExclusive(unsigned waitMilliseconds) override {
    for (auto& p : pieces_)
      if (p.file) return p.file->lockExclusive(waitMilliseconds);
    return true;
  }
  void unlockExclusive() override {
    for (auto& p : pieces_)
      if (p.file) return p.file->unlock();
  }
  void requireWritable() const override {
    for (const auto& p : pieces_) {
      if (!p.file || !p.extent.writable)
        throw Error(ErrorId::WriteProtected, "Cannot write " + path_ + " -- the extent is read-only").with("path", path_);
      p.file->requireWritable();
    }
  }

 private:
  struct Piece {
    uint64_t first = 0, sectors = 0;
    Extent extent;
    std::unique_ptr<FileIo> file;  // null for a ZERO extent
  };
  template <class F>
  void forEachPiece(uint64_t first, uint64_t count, F f) {
    for (Piece& p : pieces_) {
      if (!count) break;
      if (first >= p.first + p.sectors) continue;
      uint64_t inPiece = first - p.first, n = std::min(count, p.sectors - inPiece);
      f(p, inPiece, n);
      first += n;
      count -= n;
    }
  }

  std::string path_;
  std::vector<Piece> pieces_;
  uint64_t blocks_ = 0;
  Geometry geometry_;
};

// --- monolithicSparse: a hosted sparse extent with grain directory and grain tables. ---
//
// Nothing the header or the tables claim is trusted: the directories, the grain tables and
// every grain they point at must lie inside the file, and no grain may lie on the header, the
// embedded descriptor, a directory or a grain table (a write there would destroy the image's
// own metadata). The whole image is checked when it is opened, so a damaged one is refused
// before anything is written; memory stays bounded by the file's size whatever the header
// says, and grain tables are read when a sector under them is first used.
class SparseVmdkAccess : public DiskDriveAccess {
 public:
  explicit SparseVmdkAccess(const std::string& path) {
    file_.open(path, FileIo::Accept::RegularOrBlock);
    uint8_t sector[512];
    if (file_.readSome(0, sector, sizeof sector) != sizeof sector) fail(path, "the file is too short for a header");
    h_ = parseSparseHeader(sector, path);
    fileSectors_ = (file_.size() + 511) / 512;
    addMetadata(0, 1, "the header");
    if (h_.descriptorOffset && h_.descriptorSize) {
      if (h_.descriptorSize > 2048 || h_.descriptorOffset + h_.descriptorSize > fileSectors_)
        fail(path, "the embedded descriptor lies outside the file");
      std::string text(static_cast<size_t>(h_.descriptorSize) * 512, '\0');
      file_.readAt(h_.descriptorOffset * 512, text.data(), text.size());
      text.resize(std::strlen(text.c_str()));
      Descriptor d = parseDescriptor(text, path);
      if (d.createType != "monolithicSparse")
        fail(path, "createType \"" + d.createType + "\" is not supported (only monolithicFlat and monolithicSparse)");
      geometry_ = geometryFrom(d, h_.capacity);
      addMetadata(h_.descriptorOffset, h_.descriptorSize, "the embedded descriptor");
    } else {
      geometry_ = geometryFrom(Descriptor{}, h_.capacity);
    }
    gtSectors_ = (uint64_t{h_.gtesPerGt} * 4 + 511) / 512;
    gdEntries_ = h_.gdEntries();
    if (gdEntries_ > kMaxDirectoryEntries)
      fail(path, "the header claims " + std::to_string(gdEntries_) + " grain tables (at most " +
                     std::to_string(kMaxDirectoryEntries) + " are supported)");
    gd_.offset = h_.gdOffset;
    loadDirectory(gd_, "grain directory");
    if (h_.redundantGt() && h_.rgdOffset) {
      rgd_.offset = h_.rgdOffset;
      loadDirectory(rgd_, "redundant grain directory");
    }
    std::sort(metadata_.begin(), metadata_.end());
    for (size_t i = 1; i < metadata_.size(); ++i)
      if (metadata_[i].first < metadata_[i - 1].end)
        fail(path, metadata_[i].what + " overlaps " + metadata_[i - 1].what);
    // Every grain entry, one table at a time.
    for (const auto& [t, at] : gd_.tables) readTable(t, at);
    nextFree_ = fileSectors_;
  }

  std::string path() const override { return file_.path(); }
  Geometry getGeometry() const override { return geometry_; }
  uint64_t totalBlocks() const override { return h_.capacity; }
  std::string model() const override { return "VMDK image"; }

  void read(uint64_t first, uint64_t count, void* buffer) override {
    auto* out = static_cast<uint8_t*>(buffer);
    while (count) {
      uint64_t grain = first / h_.grainSize, inGrain = first % h_.grainSize;
      uint64_t n = std::min(count, h_.grainSize - inGrain);
      size_t bytes = static_cast<size_t>(n) * 512;
      uint32_t gte = entry(grain);
      if (gte <= 1) {
        std::memset(out, 0, bytes);
      } else {
        size_t got = file_.readSome((uint64_t{gte} + inGrain) * 512, out, bytes);
        std::memset(out + got, 0, bytes - got);
      }
      out += bytes;
      first += n;
      count -= n;
    }
  }

  void write(uint64_t first, uint64_t count, const void* buffer) override {
    auto* in = static_cast<const uint8_t*>(buffer);
    std::set<uint64_t> dirtyTables;
    std::vector<uint8_t> grainBuf;
    while (count) {
      uint64_t grain = first / h_.grainSize, inGrain = first % h_.grainSize;
      uint64_t n = std::min(count, h_.grainSize - inGrain);
      size_t bytes = static_cast<size_t>(n) * 512;
      uint32_t gte = entry(grain);
      if (gte > 1) {
        file_.writeAt((uint64_t{gte} + inGrain) * 512, in, bytes);
      } else {
        // First write to this grain: the whole grain goes to the end of the file, then the
        // grain tables point at it.
        grainBuf.assign(static_cast<size_t>(h_.grainSize) * 512, 0);
        std::memcpy(grainBuf.data() + inGrain * 512, in, bytes);
        uint64_t t = grain / h_.gtesPerGt;
        ensureTable(t);
        uint64_t at = allocate(h_.grainSize);
        file_.writeAt(at * 512, grainBuf.data(), grainBuf.size());
        table(t)[grain % h_.gtesPerGt] = static_cast<uint32_t>(at);
        dirtyTables.insert(t);
      }
      in += bytes;
      first += n;
      count -= n;
    }
    if (dirtyTables.empty()) return;
    // The new grains are on the medium before the tables make them part of the disk.
    file_.sync();
    for (uint64_t t : dirtyTables) {
      storeTable(t, gd_.find(t));
      if (rgd_.offset) storeTable(t, rgd_.find(t));
    }
  }

  void flush() override { file_.sync(); }
  void requireWritable() const override { file_.requireWritable(); }
  bool lockExclusive(unsigned waitMilliseconds) override { return file_.lockExclusive(waitMilliseconds); }
  void unlockExclusive() override { file_.unlock(); }
  // Grains lie anywhere in the file: a loop device over any part of it that is in use makes
  // the whole image busy.
  void prepareForChange(uint64_t, uint64_t) override {
    LinuxDisks::refuseIfImageBusy(file_.path(), 0, std::max<uint64_t>(fileSectors_, nextFree_));
  }

 private:
  // A header may claim no more grain tables than a disk of the largest supported capacity
  // with 64 KiB grains needs (128 MiB of directory).
  static constexpr uint64_t kMaxDirectoryEntries = uint64_t{1} << 25;

  // A grain directory: where it lies and its non-zero entries (table index, table sector),
  // sorted by table index. Zero entries are not kept, so the memory used follows the tables
  // that really exist in the file, not the directory's claimed size.
  struct Directory {
    uint64_t offset = 0;
    std::vector<std::pair<uint64_t, uint32_t>> tables;
    uint32_t find(uint64_t t) const {
      auto it = std::lower_bound(tables.begin(), tables.end(), std::make_pair(t, uint32_t{0}));
      return it != tables.end() && it->first == t ? it->second : 0;
    }
    void set(uint64_t t, uint32_t at) {
      auto it = std::lower_bound(tables.begin(), tables.end(), std::make_pair(t, uint32_t{0}));
      if (it != tables.end() && it->first == t)
        it->second = at;
      else
        tables.insert(it, {t, at});
    }
  };

  // A range of sectors holding the image's own structures.
  struct Region {
    uint64_t first, end;
    std::string what;
    bool operator<(const Region& o) const { return first < o.first; }
  };

  void addMetadata(uint64_t first, uint64_t sectors, std::string what) {
    if (first > fileSectors_ || sectors > fileSectors_ - first) fail(file_.path(), what + " lies outside the file");
    metadata_.push_back({first, first + sectors, std::move(what)});
  }

  // Reads a directory in bounded pieces and checks every table it names.
  void loadDirectory(Directory& dir, const std::string& what) {
    const uint64_t sectors = (gdEntries_ * 4 + 511) / 512;
    if (dir.offset > fileSectors_ || sectors > fileSectors_ - dir.offset)
      fail(file_.path(), "the " + what + " lies outside the file");
    addMetadata(dir.offset, sectors, "the " + what);
    const uint64_t maxTables = fileSectors_ / gtSectors_;
    std::vector<uint8_t> raw;
    constexpr uint64_t kChunk = 16384;  // entries read at a time
    for (uint64_t base = 0; base < gdEntries_; base += kChunk) {
      const uint64_t n = std::min(kChunk, gdEntries_ - base);
      raw.resize(static_cast<size_t>(n) * 4);
      file_.readAt(dir.offset * 512 + base * 4, raw.data(), raw.size());
      for (uint64_t i = 0; i < n; ++i) {
        const uint32_t at = Core::get32(raw.data() + 4 * i);
        if (!at) continue;
        if (at + gtSectors_ > fileSectors_)
          fail(file_.path(), "the " + what + " points beyond the end of the file");
        if (dir.tables.size() >= maxTables)
          fail(file_.path(), "the " + what + " names more grain tables than the file can hold");
        dir.tables.emplace_back(base + i, at);
        metadata_.push_back({at, at + gtSectors_, "grain table " + std::to_string(base + i) + " of the " + what});
      }
    }
  }

  // Reads grain table t from sector `at` and checks every entry.
  std::vector<uint32_t> readTable(uint64_t t, uint32_t at) const {
    std::vector<uint8_t> raw(static_cast<size_t>(h_.gtesPerGt) * 4);
    file_.readAt(uint64_t{at} * 512, raw.data(), raw.size());
    std::vector<uint32_t> gt(h_.gtesPerGt);
    for (size_t i = 0; i < gt.size(); ++i) {
      gt[i] = Core::get32(raw.data() + 4 * i);
      if (gt[i] > 1) checkGrain(t, i, gt[i]);
    }
    return gt;
  }

  // A grain starts inside the file and lies on none of the image's structures.
  void checkGrain(uint64_t t, size_t i, uint32_t at) const {
    const std::string where = "grain table " + std::to_string(t) + " entry " + std::to_string(i);
    if (at >= fileSectors_) fail(file_.path(), where + " points beyond the end of the file");
    const uint64_t end = uint64_t{at} + h_.grainSize;
    auto next = std::upper_bound(metadata_.begin(), metadata_.end(), Region{at, at, {}});
    if (next != metadata_.begin() && std::prev(next)->end > at)
      fail(file_.path(), where + " points into " + std::prev(next)->what);
    if (next != metadata_.end() && next->first < end)
      fail(file_.path(), where + " points into " + next->what);
  }

  std::vector<uint32_t>& table(uint64_t t) {
    auto it = tables_.find(t);
    if (it != tables_.end()) return it->second;
    const uint32_t at = gd_.find(t);
    std::vector<uint32_t> gt = at ? readTable(t, at) : std::vector<uint32_t>(h_.gtesPerGt, 0);
    return tables_.emplace(t, std::move(gt)).first->second;
  }

  uint32_t entry(uint64_t grain) {
    uint64_t t = grain / h_.gtesPerGt;
    if (t >= gdEntries_ || !gd_.find(t)) return 0;
    return table(t)[grain % h_.gtesPerGt];
  }

  uint64_t allocate(uint64_t sectors) {
    uint64_t at = nextFree_;
    if (at + sectors > 0xFFFFFFFFu) throw Error(ErrorId::NoSpace, "VMDK image is full: " + file_.path());
    nextFree_ += sectors;
    return at;
  }

  // Makes sure grain table t exists (in both copies) before a grain is entered in it.
  void ensureTable(uint64_t t) {
    table(t);
    if (gd_.find(t) && (!rgd_.offset || rgd_.find(t))) return;
    std::vector<uint8_t> zeros(static_cast<size_t>(gtSectors_) * 512, 0);
    auto place = [&](Directory& dir) {
      if (dir.find(t)) return;
      uint64_t at = allocate(gtSectors_);
      file_.writeAt(at * 512, zeros.data(), zeros.size());
      // The empty table is on the medium before the directory points at it.
      file_.sync();
      uint8_t e[4];
      Core::put32(e, static_cast<uint32_t>(at));
      file_.writeAt(dir.offset * 512 + t * 4, e, 4);
      dir.set(t, static_cast<uint32_t>(at));
      Region r{at, at + gtSectors_, "grain table " + std::to_string(t)};
      metadata_.insert(std::upper_bound(metadata_.begin(), metadata_.end(), r), r);
    };
    if (rgd_.offset) place(rgd_);
    place(gd_);
  }

  void storeTable(uint64_t t, uint32_t at) {
    const std::vector<uint32_t>& gt = tables_.at(t);
    std::vector<uint8_t> raw(gt.size() * 4);
    for (size_t i = 0; i < gt.size(); ++i) Core::put32(raw.data() + 4 * i, gt[i]);
    file_.writeAt(uint64_t{at} * 512, raw.data(), raw.size());
  }

  FileIo file_;
  SparseHeader h_;
  Geometry geometry_;
  uint64_t fileSectors_ = 0, gdEntries_ = 0;
  Directory gd_, rgd_;
  std::vector<Region> metadata_;  // sorted by first sector once the image is checked
  std::map<uint64_t, std::vector<uint32_t>> tables_;
  uint64_t gtSectors_ = 4;
  uint64_t nextFree_ = 0;
};

}  // namespace

Descriptor parseDescriptor(const std::string& text, const std::string& file) {
  Descriptor d;
  size_t pos = 0;
  int lineNo = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = trim(text.substr(pos, end - pos));
    pos = end + 1;
    ++lineNo;
    if (line.empty() || line[0] == '#') continue;
    size_t sp = line.find_first_of(" \t");
    std::string word = line.substr(0, sp);
    if (word == "RW" || word == "RDONLY" || word == "NOACCESS") {
      Extent e;
      e.writable = word == "RW";
      e.readable = word != "NOACCESS";
      std::string rest = sp == std::string::npos ? std::string() : trim(line.substr(sp));
      size_t s2 = rest.find_first_of(" \t");
      if (s2 == std::string::npos || !parseNumber(rest.substr(0, s2), e.sectors))
        fail(file, "bad extent line " + std::to_string(lineNo) + ": " + line);
      rest = trim(rest.substr(s2));
      size_t s3 = rest.find_first_of(" \t");
      e.type = rest.substr(0, s3);
      rest = s3 == std::string::npos ? std::string() : trim(rest.substr(s3));
      if (!rest.empty()) {
        if (rest[0] != '"') fail(file, "bad extent line " + std::to_string(lineNo) + ": " + line);
        size_t q = rest.find('"', 1);
        if (q == std::string::npos) fail(file, "bad extent line " + std::to_string(lineNo) + ": " + line);
        e.file = rest.substr(1, q - 1);
        std::string off = trim(rest.substr(q + 1));
        if (!off.empty() && !parseNumber(off, e.offset))
          fail(file, "bad extent offset on line " + std::to_string(lineNo) + ": " + line);
      } else if (e.type != "ZERO") {
        fail(file, "extent line " + std::to_string(lineNo) + " names no file");
      }
      if (e.sectors == 0 || e.sectors > kMaxCapacity) fail(file, "bad extent size on line " + std::to_string(lineNo));
      d.extents.push_back(e);
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) fail(file, "unrecognised descriptor line " + std::to_string(lineNo) + ": " + line);
    std::string key = trim(line.substr(0, eq)), value = unquote(line.substr(eq + 1));
    uint64_t n = 0;
    if (key == "createType") {
      d.createType = value;
    } else if (key == "parentCID") {
      if (value != "ffffffff" && value != "FFFFFFFF")
        fail(file, "images with a parent (delta disks) are not supported");
    } else if (key == "ddb.geometry.cylinders" && parseNumber(value, n)) {
      d.cylinders = n;
    } else if (key == "ddb.geometry.heads" && parseNumber(value, n) && n <= 0xFFFFFFFFu) {
      d.heads = static_cast<uint32_t>(n);
    } else if (key == "ddb.geometry.sectors" && parseNumber(value, n) && n <= 0xFFFFFFFFu) {
      d.sectors = static_cast<uint32_t>(n);
    }
  }
  if (d.createType.empty()) fail(file, "the descriptor has no createType");
  return d;
}

uint64_t SparseHeader::gdEntries() const {
  uint64_t perTable = grainSize * gtesPerGt;
  return perTable ? (capacity + perTable - 1) / perTable : 0;
}

SparseHeader parseSparseHeader(const uint8_t* p, const std::string& file) {
  using Core::get16;
  using Core::get32;
  using Core::get64;
  if (get32(p) != kSparseMagic) fail(file, "bad magic number in the sparse extent header");
  SparseHeader h;
  h.version = get32(p + 4);
  h.flags = get32(p + 8);
  h.capacity = get64(p + 12);
  h.grainSize = get64(p + 20);
  h.descriptorOffset = get64(p + 28);
  h.descriptorSize = get64(p + 36);
  h.gtesPerGt = get32(p + 44);
  h.rgdOffset = get64(p + 48);
  h.gdOffset = get64(p + 56);
  h.overhead = get64(p + 64);
  h.compressAlgorithm = get16(p + 77);
  if (h.version < 1 || h.version > 3) fail(file, "sparse extent version " + std::to_string(h.version) + " is not supported");
  if ((h.flags & 1) && !(p[73] == '\n' && p[74] == ' ' && p[75] == '\r' && p[76] == '\n'))
    fail(file, "the header's line-end check failed (the file was damaged by a text-mode copy)");
  if (h.compressed()) fail(file, "compressed grains are not supported");
  if (h.gdOffset == kGdAtEnd) fail(file, "stream-optimized images (grain directory at the end) are not supported");
  if (h.capacity == 0 || h.capacity > kMaxCapacity) fail(file, "bad capacity in the sparse extent header");
  if (h.grainSize < 1 || h.grainSize > 2048 || (h.grainSize & (h.grainSize - 1)))
    fail(file, "bad grain size " + std::to_string(h.grainSize) + " in the sparse extent header");
  if (h.gtesPerGt != 512) fail(file, "bad grain table size " + std::to_string(h.gtesPerGt) + " in the sparse extent header");
  if (h.gdOffset == 0) fail(file, "the sparse extent has no grain directory");
  return h;
}

bool looksLikeVmdk(const uint8_t* head, size_t n) {
  if (n >= 4 && Core::get32(head) == kSparseMagic) return true;
  static const char kText[] = "# Disk DescriptorFile";
  return n >= sizeof kText - 1 && std::memcmp(head, kText, sizeof kText - 1) == 0;
}

std::unique_ptr<DiskDriveAccess> open(const std::string& path) {
  FileIo probe;
  probe.openReadOnly(path, FileIo::Accept::RegularOrBlock);
  uint8_t head[4] = {};
  if (probe.readSome(0, head, 4) == 4 && Core::get32(head) == kSparseMagic)
    return std::make_unique<SparseVmdkAccess>(path);
  // Anything else must be a text descriptor.
  if (probe.size() > (uint64_t{1} << 20))
    fail(path, "bad magic number (neither a sparse extent nor a text descriptor)");
  std::string text(static_cast<size_t>(probe.size()), '\0');
  probe.readAt(0, text.data(), text.size());
  // Descriptors may be padded with zero bytes to a whole sector.
  text.resize(std::strlen(text.c_str()));
  if (text.find("createType") == std::string::npos)
    fail(path, "bad magic number (neither a sparse extent nor a text descriptor)");
  return std::make_unique<FlatVmdkAccess>(path, parseDescriptor(text, path));
}

}  // namespace Corvo::Disk::Vmdk
