// /BOOTINI: lists, adds, removes and chooses the entries of the boot menu file. Every rule is
// checked, and the new text made in memory, before anything is written; the boot-sector file
// of a new entry is on the medium before boot.ini names it, and the previous boot.ini is
// kept as boot.ini.bak.
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/access/FileReplace.h"
#include "disk/boot/ArcPath.h"
#include "disk/boot/BootIni.h"
#include "disk/layout/BiosBootRecord.h"

namespace Kdisk {

using Corvo::Core::Error;
using Corvo::Core::message;
using Corvo::Core::mkError;
using Corvo::Core::mkInformation;
using Corvo::Core::mkQuestionPrompted;
using Corvo::Core::mkWarning;
using Corvo::Core::print;
using Corvo::Disk::BootIni;

namespace {

#if defined(_WIN32)
constexpr const char* kDefaultIniFile = "C:\\boot.ini";
#else
constexpr const char* kDefaultIniFile = nullptr;  // no system drive C: to default to
#endif
constexpr size_t kIniLimit = 1u << 20;
constexpr long kMaxTimeout = 999;

// A whole decimal number from 0 to max ("%d%c" reads exactly one item).
std::optional<long> wholeNumber(const std::string& text, long max) {
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text.back()))) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || errno == ERANGE || v < 0 || v > max) return std::nullopt;
  return v;
}

enum class Mode { List, Add, Remove, Default };

bool validLine(Mode mode, SwitchSet& set) {
  switch (mode) {
    case Mode::Add:
      return set.validate({&swBOOTINI, &swADD, &swD, &swBootiniP, &swDESC, &swWINNT, &swSYSFOLDER, &swBSECTFILE,
                           &swINIFILE, &swR, &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG},
                          0, 1);
    case Mode::Remove:
      return set.validate(
          {&swBOOTINI, &swREMOVE, &swENTRY, &swINIFILE, &swR, &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG}, 0, 1);
    case Mode::Default:
      return set.validate({&swBOOTINI, &swDEFAULT, &swENTRY, &swTIMEOUT, &swINIFILE, &swR, &swX, &swI, &swU, &swS,
                           &swY, &swSURE, &swDIAG},
                          0, 1);
    case Mode::List: break;
  }
  return set.validate({&swBOOTINI, &swINIFILE, &swR, &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG}, 0, 1);
}

struct IniFile {
  std::string path, bytes;
  std::optional<BootIni> ini;
};

// Reads and parses the file; prints why and returns false when it cannot be edited.
bool loadIni(const std::string& path, IniFile& file) {
  file.path = path;
  try {
    file.bytes = Corvo::Disk::readWholeFile(path, kIniLimit);
    file.ini = BootIni::parse(file.bytes);
  } catch (const Error& e) {
    message(mkError, "Cannot read boot.ini file %s -- %s", path.c_str(), e.text().c_str());
    return false;
  }
  for (const auto& p : file.ini->problems())
    message(mkWarning, "Line %zu of %s cannot be read (%s): %s", p.line, path.c_str(), p.why.c_str(), p.text.c_str());
  return true;
}

void printMenu(const IniFile& file) {
  const BootIni& ini = *file.ini;
  const std::string timeout = ini.timeout();
  print("Boot menu in %s (%s)\n\n", file.path.c_str(),
        timeout.empty() ? "no timeout set" : ("timeout " + timeout + " seconds").c_str());
  const unsigned def = ini.defaultEntry();
  unsigned n = 0;
  for (const auto& e : ini.entries()) {
    ++n;
    print("%4u %c \"%s\"\n", n, n == def ? '*' : ' ', e.description.c_str());
    print("       %s%s%s\n", e.path.c_str(), e.options.empty() ? "" : " ", e.options.c_str());
  }
  if (n == 0) print("  (no entries)\n");
  print("\n");
  if (def) print("* default entry\n");
  if (!ini.defaultPath().empty() && !def)
    message(mkWarning, "The default %s is none of the entries", ini.defaultPath().c_str());
}

// Writes the new text with the old one kept as .bak; prints the menu after a change.
int save(IniFile& file, const char* step) {
  const std::string text = file.ini->text();
  if (text == file.bytes) {
    message(mkInformation, "%s is unchanged", file.path.c_str());
    printMenu(file);
    return 0;
  }
  try {
    Corvo::Disk::replaceFileKeepingBackup(file.path, text, file.bytes, file.path + ".bak");
  } catch (const Error& e) {
    message(mkError, "%s -- %s", step, e.text().c_str());
    return 1;
  }
  printMenu(file);
  return 0;
}

// The name the boot loader reaches the boot-sector file by: C:\ is the folder that holds
// boot.ini (the root of the system partition).
std::optional<std::string> loaderName(const std::string& sectorFile, const std::string& iniFile) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path file = fs::absolute(sectorFile, ec).lexically_normal();
  fs::path folder = fs::absolute(iniFile, ec).parent_path().lexically_normal();
  if (ec) return std::nullopt;
  fs::path rel = file.lexically_relative(folder);
  std::string name;
  if (!rel.empty() && *rel.begin() != "..") {
    name = "C:\\" + rel.generic_string();
  } else if (file.has_root_name() && file.root_name().string().size() == 2 && file.root_name().string()[1] == ':') {
    name = file.generic_string();  // another folder of a lettered drive
  } else {
    return std::nullopt;
  }
  std::replace(name.begin(), name.end(), '/', '\\');
  return name;
}

// What /BOOTINI /ADD asks for, read from the switches before anything is looked at.
struct AddOrder {
  std::string desc, folder = "WINNT", sectorFile, entryPath;
  uint32_t diskIndex = 0;
  long partNumber = 0;
  bool winnt = false;
};

// Reads and checks the switches of /ADD; 0, or 2 after saying what is wrong.
int readAddOrder(SwitchSet& set, const std::string& iniPath, AddOrder& order) {
  std::string& desc = order.desc;
  std::string dText, pText;
  if (!set.isPresent(swDESC, &desc)) {
    message(mkError, "Required switch missing -- /DESC");
    return 2;
  }
  if (desc.empty() || std::any_of(desc.begin(), desc.end(), [](char c) {
        return c == '"' || static_cast<unsigned char>(c) < 0x20;
      })) {
    message(mkError, "Invalid description -- %s", desc.c_str());
    return 2;
  }
  // The disk is /D:; the command line's disk parameter (which a batch adds to every line)
  // may stand in for it.
  const std::string* parameter = set.firstParameter();
  const bool hasD = set.isPresent(swD, &dText);
  if (!hasD && !parameter) {
    message(mkError, "Required switch missing -- /D");
    return 2;
  }
  if (!hasD) dText = *parameter;
  auto diskNumber = wholeNumber(dText, kMaxFixedDisks);
  if (!diskNumber || *diskNumber < 1) {
    message(mkError, "Invalid fixed disk number -- %s", dText.c_str());
    return 2;
  }
  if (hasD && parameter && wholeNumber(*parameter, LONG_MAX) != diskNumber) {
    message(mkError, "Conflicting disk parameters. Specify either disk number or /D:disk-no.");
    return 2;
  }
  order.diskIndex = static_cast<uint32_t>(*diskNumber - 1);
  if (!set.isPresent(swBootiniP, &pText)) {
    message(mkError, "Required switch missing -- /P");
    return 2;
  }
  auto partNumber = wholeNumber(pText, INT_MAX);
  if (!partNumber || *partNumber < 1) {
    message(mkError, "Invalid partition number -- %s", pText.c_str());
    return 2;
  }
  order.partNumber = *partNumber;
  const bool winnt = order.winnt = set.isPresent(swWINNT);
  if (!winnt && set.isPresent(swSYSFOLDER)) {
    message(mkError, "Conflicting switches. /SYSFOLDER may only be used in conjunction with /WINNT");
    return 2;
  }
  if (winnt && set.isPresent(swBSECTFILE)) {
    message(mkError, "Conflicting switches. /BSECTFILE may not be used in conjunction with /WINNT");
    return 2;
  }
  if (std::string given; set.isPresent(swSYSFOLDER, &given)) {
    std::string& folder = order.folder;
    folder = given;
    std::replace(folder.begin(), folder.end(), '/', '\\');
    folder.erase(0, folder.find_first_not_of('\\'));
    if (folder.empty() || std::any_of(folder.begin(), folder.end(), [](char c) {
          return c == '"' || c == '=' || c == ' ' || static_cast<unsigned char>(c) < 0x20;
        })) {
      message(mkError, "Invalid system folder -- %s", given.c_str());
      return 2;
    }
  }
  if (winnt) return 0;
  std::string& sectorFile = order.sectorFile;
  if (!set.isPresent(swBSECTFILE, &sectorFile)) {
    const std::string stem = Corvo::Disk::bootSectorFileStem(desc);
    if (stem.empty()) {
      message(mkError, "The description leaves no name for the boot sector file -- use /BSECTFILE:file");
      return 2;
    }
#if defined(_WIN32)
    sectorFile = "C:\\" + stem + ".dat";
#else
    sectorFile = (std::filesystem::path(iniPath).parent_path() / (stem + ".dat")).string();
#endif
  }
  auto name = loaderName(sectorFile, iniPath);
  if (!name) {
    message(mkError, "The boot sector file must lie in the folder of %s or below it -- %s", iniPath.c_str(),
            sectorFile.c_str());
    return 2;
  }
  order.entryPath = *name;
  return 0;
}

// Saves the partition's boot sector to the order's file (asking before it replaces another).
int saveBootSector(const AddOrder& order, const std::vector<uint8_t>& sector) {
  const std::string bytes(reinterpret_cast<const char*>(sector.data()), Corvo::Disk::BiosBootRecord::kSize);
  const std::string& sectorFile = order.sectorFile;
  bool same = false;
  if (Corvo::Disk::fileExists(sectorFile)) {
    try {
      same = Corvo::Disk::readWholeFile(sectorFile, kIniLimit) == bytes;
    } catch (const Error&) {
    }
    if (!same && message(mkQuestionPrompted, "Boot sector file %s already exists. Overwrite it?",
                         sectorFile.c_str()) != 1)
      return 1;
  }
  try {
    if (!same) Corvo::Disk::writeFileDurably(sectorFile, bytes);
  } catch (const Error& e) {
    message(mkError, "Cannot write boot sector file -- %s", e.text().c_str());
    return 1;
  }
  message(mkInformation, "Boot sector of partition %ld saved to %s", order.partNumber, sectorFile.c_str());
  return 0;
}

// Checks the order against the disk and the file, then adds the entry.
int runAdd(AddOrder& order, const std::string& iniPath) {
  IniFile file;
  if (!loadIni(iniPath, file)) return 1;

  const uint32_t index = order.diskIndex;
  const long partNumber = order.partNumber;
  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;
  Corvo::Disk::PartitionNode* node = disk->layout->byDisplayNumber(static_cast<unsigned>(partNumber));
  if (!node) {
    message(mkError, "Invalid partition number -- %ld", partNumber);
    return 1;
  }
  if (node->role != Corvo::Disk::PartitionRole::Primary && node->role != Corvo::Disk::PartitionRole::Logical) {
    message(mkError, "Partition %ld is an extended partition and cannot be started from the boot menu", partNumber);
    return 1;
  }
  std::vector<uint8_t> sector;
  if (order.winnt) {
    if (disk->layout->scheme() != Corvo::Disk::PartitionScheme::Mbr) {
      message(mkError, "Fixed disk %u is a GPT disk -- the boot loader cannot start Windows from it", index + 1);
      return 1;
    }
    order.entryPath = Corvo::Disk::arcPath(index, Corvo::Disk::arcPartitionOrdinal(*disk->layout, *node), order.folder);
  } else {
    try {
      sector = disk->drive->readSector(node->firstBlock);
    } catch (const Error& e) {
      message(mkError, "Cannot read the boot sector of partition %ld -- %s", partNumber, e.text().c_str());
      return 1;
    }
    if (!Corvo::Disk::BiosBootRecord(false, 0, sector.data()).hasSignature())
      message(mkWarning, "The boot sector of partition %ld has no boot signature; the entry may not start",
              partNumber);
  }

  unsigned number = 0;
  try {
    number = file.ini->add(order.entryPath, order.desc);
  } catch (const Error& e) {
    message(mkError, "Cannot add boot entry -- %s", e.text().c_str());
    return 1;
  }
  if (!order.winnt && saveBootSector(order, sector) != 0) return 1;
  int rc = save(file, "Cannot add boot entry");
  if (rc == 0)
    message(mkInformation, "Boot entry %u added -- %s=\"%s\"", number, order.entryPath.c_str(), order.desc.c_str());
  return rc;
}

int addEntry(SwitchSet& set, const std::string& iniPath) {
  AddOrder order;
  const int rc = readAddOrder(set, iniPath, order);
  return rc != 0 ? rc : runAdd(order, iniPath);
}

// /ENTRY: as a number from 1; 0 after printing why.
unsigned entryNumber(SwitchSet& set) {
  std::string text;
  set.isPresent(swENTRY, &text);
  auto n = wholeNumber(text, INT_MAX);
  if (!n || *n < 1) {
    message(mkError, "Invalid entry number -- %s", text.c_str());
    return 0;
  }
  return static_cast<unsigned>(*n);
}

int removeEntry(SwitchSet& set, const std::string& iniPath) {
  if (!set.isPresent(swENTRY)) {
    message(mkError, "Required switch missing -- /ENTRY");
    return 2;
  }
  unsigned number = entryNumber(set);
  if (!number) return 2;
  IniFile file;
  if (!loadIni(iniPath, file)) return 1;
  const unsigned oldDefault = file.ini->defaultEntry();
  try {
    file.ini->remove(number);
  } catch (const Error& e) {
    message(mkError, "Cannot remove boot entry -- %s", e.text().c_str());
    return 1;
  }
  int rc = save(file, "Cannot remove boot entry");
  if (rc == 0) {
    message(mkInformation, "Boot entry %u removed", number);
    if (oldDefault == number)
      message(mkInformation, "Entry 1 \"%s\" is now the default", file.ini->entries().front().description.c_str());
  }
  return rc;
}

int setDefaults(SwitchSet& set, const std::string& iniPath) {
  unsigned number = 0;
  if (set.isPresent(swENTRY) && !(number = entryNumber(set))) return 2;
  std::optional<long> timeout;
  std::string tText;
  if (set.isPresent(swTIMEOUT, &tText) && !(timeout = wholeNumber(tText, kMaxTimeout))) {
    message(mkError, "Invalid timeout -- %s (0 to %ld seconds)", tText.c_str(), kMaxTimeout);
    return 2;
  }
  IniFile file;
  if (!loadIni(iniPath, file)) return 1;
  if (!number && !timeout) {
    printMenu(file);
    return 0;
  }
  try {
    if (number) file.ini->setDefault(number);
    if (timeout) file.ini->setTimeout(static_cast<unsigned>(*timeout));
  } catch (const Error& e) {
    message(mkError, "Cannot change the boot menu -- %s", e.text().c_str());
    return 1;
  }
  return save(file, "Cannot change the boot menu");
}

}  // namespace

int commandBootIni(SwitchSet& set) {
  Corvo::Core::TraceScope scope("commandBootIni");
  const bool add = set.isPresent(swADD), remove = set.isPresent(swREMOVE), def = set.isPresent(swDEFAULT);
  if (add + remove + def > 1) {
    message(mkError, "Conflicting switches. Specify one of /ADD, /REMOVE or /DEFAULT");
    return 2;
  }
  const Mode mode = add ? Mode::Add : remove ? Mode::Remove : def ? Mode::Default : Mode::List;
  if (!validLine(mode, set)) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  std::string iniPath;
  if (!set.isPresent(swINIFILE, &iniPath)) {
    if (!kDefaultIniFile) {
      message(mkError, "Required switch missing -- /INIFILE (this system has no C:\\boot.ini)");
      return 2;
    }
    iniPath = kDefaultIniFile;
  }
  if (iniPath.empty()) {
    message(mkError, "Switch requires a value -- /INIFILE");
    return 2;
  }
  switch (mode) {
    case Mode::Add: return addEntry(set, iniPath);
    case Mode::Remove: return removeEntry(set, iniPath);
    case Mode::Default: return setDefaults(set, iniPath);
    case Mode::List: break;
  }
  IniFile file;
  if (!loadIni(iniPath, file)) return 1;
  printMenu(file);
  return 0;
}

}  // namespace Kdisk
