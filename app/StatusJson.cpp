// /STATUS /JSON: the same disks and partitions as the status table, with every number in full.
#include "app/StatusJson.h"

#include <string>

#include "app/Consistency.h"
#include "app/CmdStatus.h"
#include "core/Json.h"
#include "core/Utf.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/GptDisk.h"
#include "disk/layout/GptGuid.h"
#include "disk/layout/PartitionTypes.h"

namespace Kdisk {

using Corvo::Core::format;
using Corvo::Core::JsonWriter;
using Corvo::Core::MessageSink;
using Corvo::Disk::BiosBootRecord;
using Corvo::Disk::PartitionNode;
using Corvo::Disk::PartitionScheme;

// Forwards everything to the sink it replaced, except that information goes where warnings go.
class JsonOutputScope::Sink : public MessageSink {
 public:
  std::unique_ptr<MessageSink> inner;
  void error(const std::string& t) override { inner->error(t); }
  void warning(const std::string& t) override { inner->warning(t); }
  void information(const std::string& t) override { inner->warning(t); }
  bool question(const std::string& t) override { return inner->question(t); }
  void output(const std::string& t) override { inner->output(t); }
  void progress(const std::string& t, uint64_t d, uint64_t n) override { inner->progress(t, d, n); }
  void progressState(const Corvo::Core::ProgressState& s) override { inner->progressState(s); }
  int readKey() override { return inner->readKey(); }
  bool readLine(std::string& line) override { return inner->readLine(line); }
};

JsonOutputScope::JsonOutputScope(CommandCode code, const SwitchSet& set) {
  if ((code != ccStatus && code != ccDefault) || !set.isPresent(swJSON)) return;
  auto sink = std::make_unique<Sink>();
  sink_ = sink.get();
  sink_->inner = Corvo::Core::setMessageSink(std::move(sink));
}

JsonOutputScope::~JsonOutputScope() {
  if (sink_) Corvo::Core::setMessageSink(std::move(sink_->inner));
}

namespace {

// Collects the consistency checks' findings instead of printing them.
class FindingsSink : public MessageSink {
 public:
  std::vector<std::string> findings;
  void error(const std::string& t) override { findings.push_back(t); }
  void warning(const std::string& t) override { findings.push_back(t); }
  void information(const std::string& t) override { findings.push_back(t); }
  bool question(const std::string&) override { return false; }
  void output(const std::string&) override {}
  void progress(const std::string&, uint64_t, uint64_t) override {}
  int readKey() override { return -1; }
  bool readLine(std::string&) override { return false; }
};

std::vector<std::string> consistencyFindings(const FixedDisk& d) {
  auto previous = Corvo::Core::setMessageSink(std::make_unique<FindingsSink>());
  checkPartitionTables(*d.layout, d.index, d.drive->isBootDisk());
  auto mine = Corvo::Core::setMessageSink(std::move(previous));
  std::vector<std::string> out;
  for (std::string t : static_cast<FindingsSink&>(*mine).findings) {
    while (!t.empty() && t.back() == '\n') t.pop_back();
    out.push_back(t);
  }
  return out;
}

std::string hexByte(uint8_t b) { return format("%02X", b); }

void writeStrings(JsonWriter& w, const char* name, const std::vector<std::string>& list) {
  w.key(name);
  w.beginArray();
  for (const std::string& s : list) w.text(s);
  w.endArray();
}

void writePartition(JsonWriter& w, const FixedDisk& d, const PartitionNode& n, unsigned number, bool gpt) {
  const PartitionContent content = partitionContent(*d.drive, n);
  const Corvo::Disk::PartitionTypeInfo t = Corvo::Disk::lookupPartitionType(n.type);
  w.beginObject();
  w.key("number");
  w.number(number);
  w.key("slot");
  w.number(static_cast<uint64_t>(n.slot < 0 ? 0 : n.slot));
  w.key("role");
  w.text(Corvo::Disk::roleName(n.role));
  // Members of the other scheme are null.
  w.key("type");
  w.textOrNull(gpt ? "" : hexByte(n.type));
  w.key("typeGuid");
  w.textOrNull(gpt ? Corvo::Disk::guidToText(n.typeGuid) : "");
  w.key("typeName");
  w.text(gpt ? Corvo::Disk::gptTypeName(n.typeGuid) : std::string(t.name));
  w.key("start");
  w.number(n.firstBlock);
  w.key("size");
  w.number(n.blockCount);
  w.key("active");
  w.boolean(n.active);
  w.key("hidden");
  w.boolean(!gpt && t.hidden);
  w.key("filesystem");
  w.textOrNull(content.filesystem);
  w.key("label");
  w.textOrNull(content.label);
  w.key("name");
  if (gpt)
    w.text(Corvo::Core::utf8FromUtf16(n.name));
  else
    w.null();
  w.key("guid");
  w.textOrNull(gpt ? Corvo::Disk::guidToText(n.uniqueGuid) : "");
  w.endObject();
}

void writeBootRecords(JsonWriter& w, const FixedDisk& d) {
  w.key("bootRecords");
  w.beginArray();
  for (const auto& raw : d.layout->rawTables()) {
    const BiosBootRecord rec(true, 4, raw.bytes.data());
    w.beginObject();
    w.key("sector");
    w.number(raw.block);
    w.key("signature");
    w.boolean(rec.hasSignature());
    w.key("slots");
    w.beginArray();
    for (unsigned s = 0; s < 4; ++s) {
      w.beginObject();
      w.key("slot");
      w.number(s);
      w.key("status");
      w.text(hexByte(rec.getStatus(s)));
      w.key("type");
      w.text(hexByte(rec.getType(s)));
      for (bool end : {false, true}) {
        const auto chs = rec.getSlotChs(s, end);
        w.key(end ? "endChs" : "startChs");
        w.beginArray();
        w.number(chs.cylinder);
        w.number(chs.head);
        w.number(chs.sector);
        w.endArray();
      }
      w.key("start");
      w.number(rec.getStartBlock(s));
      w.key("count");
      w.number(rec.getBlockCount(s));
      w.endObject();
    }
    w.endArray();
    w.endObject();
  }
  w.endArray();
}

void writeDisk(JsonWriter& w, const FixedDisk& d, bool raw) {
  w.beginObject();
  w.key("number");
  w.number(d.index + 1);
  w.key("path");
  w.textOrNull(d.drive ? d.drive->path() : Corvo::Disk::DiskManager::instance().pathOf(d.index));
  w.key("model");
  w.textOrNull(d.drive ? d.drive->model() : "");
  w.key("serial");
  w.textOrNull(d.drive ? d.drive->serialNumber() : "");
  w.key("status");
  w.textOrNull(d.ok() ? "" : d.status ? d.status->text() : std::string("The disk could not be opened"));
  if (d.drive) {
    const auto& g = d.drive->geometry();
    w.key("geometry");
    w.beginObject();
    w.key("cylinders");
    w.number(g.cylinders);
    w.key("heads");
    w.number(g.heads);
    w.key("sectorsPerTrack");
    w.number(g.sectorsPerTrack);
    w.endObject();
    w.key("sectorSize");
    w.number(g.bytesPerSector);
    w.key("totalSectors");
    w.number(d.drive->blockCount());
  }
  if (!d.ok()) {
    w.endObject();
    return;
  }
  const auto& layout = *d.layout;
  const bool gpt = layout.scheme() == PartitionScheme::Gpt;
  const auto tables = layout.rawTables();
  const BiosBootRecord mbr(true, 4, tables.empty() ? nullptr : tables[0].bytes.data());
  w.key("scheme");
  w.text(gpt ? "GPT" : mbr.hasSignature() ? "MBR" : "none");
  w.key("signature");
  w.textOrNull(!gpt && mbr.hasSignature() ? format("%08X", mbr.getWindowsNtId()) : "");
  w.key("guid");
  const auto guid = layout.diskGuid();
  w.textOrNull(guid ? Corvo::Disk::guidToText(*guid) : "");
  w.key("partitions");
  w.beginArray();
  const auto list = layout.displayList();
  for (size_t i = 0; i < list.size(); ++i) writePartition(w, d, *list[i], static_cast<unsigned>(i + 1), gpt);
  w.endArray();
  writeStrings(w, "problems", layout.facts().problems);
  writeStrings(w, "findings", consistencyFindings(d));
  if (raw) writeBootRecords(w, d);
  w.endObject();
}

}  // namespace

int printStatusJson(const std::vector<FixedDisk*>& disks, bool raw) {
  JsonWriter w;
  w.beginObject();
  w.key("version");
  w.number(kStatusJsonVersion);
  w.key("disks");
  w.beginArray();
  for (const FixedDisk* d : disks) writeDisk(w, *d, raw);
  w.endArray();
  w.endObject();
  Corvo::Core::print("%s", w.document().c_str());
  return 0;
}

}  // namespace Kdisk
