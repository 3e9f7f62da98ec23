#include "disk/TableBackup.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>

#include "core/Clock.h"
#include "core/Crc32.h"
#include "core/Endian.h"
#include "core/Error.h"
#include "core/FileKind.h"
#include "core/Interrupt.h"
#include "core/System.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/access/FileReplace.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/GptFormat.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

namespace {

constexpr const char* kMagic = "KDISK TABLE BACKUP 1";
// A backup holds table sectors, not volumes: more than this many is a damaged file.
constexpr size_t kMaxSectors = 1u << 16;

std::string utcStamp(int64_t t, const char* format) {
  std::time_t tt = static_cast<std::time_t>(t);
  std::tm tm{};
#if defined(_WIN32)
  gmtime_s(&tm, &tt);
#else
  gmtime_r(&tt, &tm);
#endif
  char buf[40];
  std::strftime(buf, sizeof buf, format, &tm);
  return buf;
}

std::string hexGuid(const GuidBytes& g) {
  std::string s;
  char b[4];
  for (uint8_t v : g) {
    std::snprintf(b, sizeof b, "%02X", v);
    s += b;
  }
  return s;
}

// The GPT header saved in a sector, when it is one.
bool gptHeaderIn(const uint8_t* sector, GptHeader& out) {
  GptHeader h(sector);
  if (!h.hasSignature()) return false;
  out = h;
  return true;
}

void addArray(std::set<uint64_t>& out, const GptHeader& h, uint64_t blocks, uint32_t sectorBytes) {
  const uint64_t bytes = uint64_t{h.entryCount()} * h.entrySize();
  const uint64_t count = std::min<uint64_t>((bytes + sectorBytes - 1) / sectorBytes, 1024);
  for (uint64_t b = h.entriesBlock(); b < h.entriesBlock() + count && b < blocks; ++b) out.insert(b);
}

// What a table identifier is made of: the disk signature of the master boot record, or the
// disk GUID of the primary (else backup) GPT header among the saved sectors.
std::string tableIdOf(const std::vector<SavedSector>& sectors, bool gpt) {
  for (const SavedSector& s : sectors) {
    GptHeader h;
    if (gpt && s.block != 0 && gptHeaderIn(s.bytes.data(), h)) return "GPT disk GUID " + hexGuid(h.diskGuid());
  }
  for (const SavedSector& s : sectors)
    if (s.block == 0) return Core::format("MBR disk signature %08X", static_cast<unsigned>(Core::get32(s.bytes.data() + 440)));
  return "none";
}

std::string inFolder(const std::string& folder, const std::string& name) {
#if defined(_WIN32)
  const char separator = '\\';
#else
  const char separator = '/';
#endif
  if (folder.empty() || folder.back() == '/' || folder.back() == separator) return folder + name;
  return folder + separator + name;
}

}  // namespace

std::set<uint64_t> tableSectors(const PartitionedDisk& layout) {
  std::set<uint64_t> out;
  const uint64_t blocks = layout.drive().blockCount();
  out.insert(0);
  if (layout.scheme() == PartitionScheme::Mbr) {
    for (const RawBootRecord& r : layout.rawTables())
      if (r.block < blocks) out.insert(r.block);
    return out;
  }
  // Both headers where they are expected, and where each says the other and its array lie.
  std::vector<uint8_t> buffer(layout.drive().bytesPerBlock());
  uint8_t* sector = buffer.data();
  for (uint64_t at : {uint64_t{1}, blocks - 1}) {
    if (at >= blocks) continue;
    out.insert(at);
    layout.drive().read(at, 1, sector);
    GptHeader h;
    if (!gptHeaderIn(sector, h)) continue;
    addArray(out, h, blocks, layout.drive().bytesPerBlock());
    if (h.alternateBlock() < blocks && out.insert(h.alternateBlock()).second) {
      layout.drive().read(h.alternateBlock(), 1, sector);
      GptHeader other;
      if (gptHeaderIn(sector, other)) addArray(out, other, blocks, layout.drive().bytesPerBlock());
    }
  }
  return out;
}

std::string tableBackupFileName(const std::string& diskPath, int64_t time) {
  std::string name = diskPath;
  size_t slash = name.find_last_of("/\\");
  if (slash != std::string::npos) name = name.substr(slash + 1);
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') c = '_';
  if (name.empty()) name = "disk";
  return name + "-" + utcStamp(time, "%Y%m%d-%H%M%S") + ".kdbak";
}

TableBackup::TableBackup(const PartitionedDisk& layout, const std::string& folder, const std::string& command)
    : drive_(layout.drive()) {
  Core::TraceScope scope("TableBackup");
  const int64_t now = static_cast<int64_t>(Core::currentTime());
  contents_.time = utcStamp(now, "%Y-%m-%d %H:%M:%S UTC");
  contents_.command = command;
  // The path as any folder sees it: a restore may be given from elsewhere.
  std::error_code ec;
  const std::filesystem::path absolute = std::filesystem::absolute(std::filesystem::path(drive_.path()), ec);
  contents_.path = ec ? drive_.path() : absolute.string();
  contents_.model = drive_.model();
  contents_.serial = drive_.serialNumber();
  contents_.blocks = drive_.blockCount();
  contents_.bytesPerSector = drive_.bytesPerBlock();
  for (uint64_t b : tableSectors(layout)) save(b);
  contents_.tableCount = contents_.sectors.size();
  contents_.tableId = tableIdOf(contents_.sectors, layout.scheme() == PartitionScheme::Gpt);

  std::filesystem::create_directories(std::filesystem::path(folder), ec);
  if (ec)
    throw Error(ErrorId::WriteFailed, "Cannot create the backup folder " + folder + " -- " + ec.message())
        .with("path", folder);
  // A name no other file has: the file is claimed exclusively before it is filled.
  const std::string base = tableBackupFileName(contents_.path, now);
  const std::string stem = base.substr(0, base.size() - 6);
  for (unsigned n = 0; file_.empty(); ++n) {
    const std::string name = n == 0 ? base : stem + "-" + std::to_string(n) + ".kdbak";
    const std::string candidate = inFolder(folder, name);
    if (createFileExclusively(candidate)) file_ = candidate;
    else if (!fileExists(candidate) || n > 1000)
      throw Error(ErrorId::WriteFailed, "Cannot create a backup file in " + folder + " -- " + Core::lastSystemErrorText())
          .with("path", folder);
  }
  try {
    store();
  } catch (...) {
    removeFile(file_);
    throw;
  }
}

TableBackup::~TableBackup() = default;

void TableBackup::save(uint64_t block) {
  contents_.sectors.push_back({block, drive_.readSector(block)});
  saved_.insert(block);
}

void TableBackup::store() { writeFileDurably(file_, serializeTableBackup(contents_)); }

void TableBackup::add(uint64_t first, uint64_t count) {
  bool added = false;
  for (uint64_t b = first; b < first + count; ++b) {
    if (saved_.count(b)) continue;
    if (saved_.size() >= kMaxSectors)
      throw Error(ErrorId::WriteFailed, "Cannot add sector " + std::to_string(b) + " to the backup " + file_ +
                                            " -- it holds " + std::to_string(kMaxSectors) + " sectors already");
    save(b);
    added = true;
  }
  if (added) store();
}

TableBackup::Watch::Watch(TableBackup& backup) : backup_(backup) {
  backup_.drive_.setWriteObserver([this](uint64_t first, uint64_t count) { backup_.add(first, count); });
}

TableBackup::Watch::~Watch() { backup_.drive_.setWriteObserver(nullptr); }

std::string serializeTableBackup(const TableBackupContents& c) {
  auto clean = [](std::string s) {
    for (char& ch : s)
      if (ch == '\n' || ch == '\r') ch = ' ';
    return s;
  };
  std::string out = std::string(kMagic) + "\n";
  out += "time: " + clean(c.time) + "\n";
  out += "command: " + clean(c.command) + "\n";
  out += "disk: " + clean(c.path) + "\n";
  out += "model: " + clean(c.model) + "\n";
  out += "serial: " + clean(c.serial) + "\n";
  out += "sectors: " + std::to_string(c.blocks) + "\n";
  out += "sector size: " + std::to_string(c.bytesPerSector) + "\n";
  out += "table: " + clean(c.tableId) + "\n";
  out += "table sectors: " + std::to_string(std::min(c.tableCount, c.sectors.size())) + "\n";
  out += "saved sectors: " + std::to_string(c.sectors.size()) + "\n\n";
  for (const SavedSector& s : c.sectors) {
    uint8_t n[8];
    Core::put64(n, s.block);
    out.append(reinterpret_cast<const char*>(n), 8);
    out.append(reinterpret_cast<const char*>(s.bytes.data()), s.bytes.size());
  }
  uint8_t crc[4];
  Core::put32(crc, Core::crc32(out.data(), out.size()));
  out.append(reinterpret_cast<const char*>(crc), 4);
  return out;
}

TableBackupContents parseTableBackup(const std::string& bytes) {
  auto bad = [](const std::string& why) { return Error(ErrorId::InvalidImage, "not a Kdisk table backup: " + why); };
  const size_t headEnd = bytes.find("\n\n");
  if (bytes.rfind(std::string(kMagic) + "\n", 0) != 0 || headEnd == std::string::npos) throw bad("no backup header");
  if (bytes.size() < headEnd + 2 + 4) throw bad("the file is cut short");
  const size_t body = bytes.size() - 4;
  if (Core::crc32(bytes.data(), body) != Core::get32(reinterpret_cast<const uint8_t*>(bytes.data()) + body))
    throw bad("its checksum does not match (the file is damaged)");
  TableBackupContents c;
  size_t declared = 0, tableCount = SIZE_MAX;
  bool haveCount = false;
  size_t pos = std::string(kMagic).size() + 1;
  while (pos < headEnd) {
    size_t end = bytes.find('\n', pos);
    std::string line = bytes.substr(pos, end - pos);
    pos = end + 1;
    size_t colon = line.find(": ");
    if (colon == std::string::npos) continue;
    std::string key = line.substr(0, colon), value = line.substr(colon + 2);
    auto number = [&]() -> uint64_t {
      if (value.empty() || value.size() > 19 || value.find_first_not_of("0123456789") != std::string::npos)
        throw bad("the value of '" + key + "' is not a number");
      return std::stoull(value);
    };
    if (key == "time") c.time = value;
    else if (key == "command") c.command = value;
    else if (key == "disk") c.path = value;
    else if (key == "model") c.model = value;
    else if (key == "serial") c.serial = value;
    else if (key == "sectors") c.blocks = number();
    else if (key == "sector size") c.bytesPerSector = static_cast<uint32_t>(number());
    else if (key == "table") c.tableId = value;
    else if (key == "table sectors") tableCount = static_cast<size_t>(number());
    else if (key == "saved sectors") declared = static_cast<size_t>(number()), haveCount = true;
  }
  const size_t first = headEnd + 2;
  if (c.bytesPerSector < 512 || c.bytesPerSector > 65536 || (c.bytesPerSector & (c.bytesPerSector - 1)) != 0)
    throw bad("its sector size is not one a disk has");
  const size_t kRecordSize = 8 + size_t{c.bytesPerSector};
  if (!haveCount || declared > kMaxSectors || (body - first) != declared * kRecordSize)
    throw bad("the count of saved sectors does not match the file's size");
  std::set<uint64_t> seen;
  for (size_t i = 0; i < declared; ++i) {
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data()) + first + i * kRecordSize;
    SavedSector s;
    s.block = Core::get64(p);
    if (s.block >= c.blocks || !seen.insert(s.block).second) throw bad("sector " + std::to_string(s.block) + " is out of place");
    s.bytes.assign(p + 8, p + kRecordSize);
    c.sectors.push_back(s);
  }
  c.tableCount = std::min(tableCount, declared);
  return c;
}

TableBackupContents readTableBackup(const std::string& path) {
  std::string bytes = readWholeFile(path, kMaxSectors * (8 + 65536) + 65536);
  try {
    return parseTableBackup(bytes);
  } catch (const Error& e) {
    throw Error(ErrorId::InvalidImage, path + " is " + e.text()).with("path", path);
  }
}

std::string tableBackupMismatch(const TableBackupContents& b, const DiskDrive& drive) {
  if (b.blocks != drive.blockCount())
    return Core::format("it was saved from a disk of %llu sectors, this one has %llu",
                        static_cast<unsigned long long>(b.blocks), static_cast<unsigned long long>(drive.blockCount()));
  if (b.bytesPerSector != drive.bytesPerBlock())
    return Core::format("it was saved from a disk of %u-byte sectors, this one has %u-byte sectors", b.bytesPerSector,
                        drive.bytesPerBlock());
  if (b.path == drive.path() || Core::sameFile(b.path, drive.path())) return {};
  // The same device under another name: its model and serial number tell.
  if (!b.serial.empty() && b.serial == drive.serialNumber() && b.model == drive.model()) return {};
  return "it was saved from " + b.path + (b.model.empty() ? std::string() : " (" + b.model + ")");
}

std::vector<uint64_t> restoreOrder(const TableBackupContents& backup) {
  // Where the primary GPT header said its array lies, and where its backup header is.
  std::set<uint64_t> primaryArray;
  uint64_t backupHeader = backup.blocks ? backup.blocks - 1 : 0;
  for (const SavedSector& s : backup.sectors) {
    GptHeader h;
    if (s.block != 1 || !gptHeaderIn(s.bytes.data(), h)) continue;
    addArray(primaryArray, h, backup.blocks, backup.bytesPerSector);
    backupHeader = h.alternateBlock();
  }
  auto rank = [&](uint64_t b) {
    if (b == 0) return 4;
    if (b == 1) return 3;
    if (primaryArray.count(b)) return 2;
    if (b == backupHeader) return 1;
    return 0;
  };
  const size_t own = std::min(backup.tableCount, backup.sectors.size());
  std::vector<uint64_t> order;
  for (size_t i = 0; i < own; ++i) order.push_back(backup.sectors[i].block);
  // Extended boot records link forward: the last of a chain is written first.
  std::sort(order.begin(), order.end(), [&](uint64_t a, uint64_t b) {
    int ra = rank(a), rb = rank(b);
    if (ra != rb) return ra < rb;
    return ra == 0 ? a > b : a < b;
  });
  for (size_t i = own; i < backup.sectors.size(); ++i) order.push_back(backup.sectors[i].block);
  return order;
}

std::string restoreTableBackup(DiskDrive& drive, const TableBackupContents& backup) {
  Core::TraceScope scope("restoreTableBackup");
  drive.requireWritable();
  std::map<uint64_t, const SavedSector*> byBlock;
  for (const SavedSector& s : backup.sectors) byBlock[s.block] = &s;
  {
    Core::InterruptHold hold;  // Ctrl-C waits until the sectors are back and flushed
    for (uint64_t b : restoreOrder(backup)) {
      drive.write(b, 1, byBlock[b]->bytes.data());
      drive.flush();
    }
  }
  return reportOsLayout(drive, PartitionedDisk::load(drive)->osLayout());
}

}  // namespace Corvo::Disk
