#include "core/Config.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <mutex>

#include "core/Error.h"

namespace Corvo::Core::Config {
namespace {

std::mutex& lock() {
  static std::mutex m;
  return m;
}
std::map<std::string, std::vector<std::string>>& store() {
  static std::map<std::string, std::vector<std::string>> s;
  return s;
}

bool parseInt(const std::string& text, int64_t& out) {
  if (text.empty()) return false;
  size_t i = 0;
  bool neg = false;
  if (text[0] == '-' || text[0] == '+') {
    neg = text[0] == '-';
    i = 1;
  }
  if (i == text.size()) return false;
  int64_t v = 0;
  for (; i < text.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    if (v > (INT64_MAX - 9) / 10) return false;
    v = v * 10 + (text[i] - '0');
  }
  out = neg ? -v : v;
  return true;
}

enum class Kind { Flag, Number, Text, List, Choice };
struct StartupSwitch {
  const char* name;
  const char* key;
  Kind kind;
  const char* flagValue;  // value stored for a Flag; the values allowed for a Choice ("512|4096")
};

const StartupSwitch kSwitches[] = {
    {"NOSCSI", "AspiServer::disable", Kind::Flag, "1"},
    {"NO1394", "IEEE1394::Disable", Kind::Flag, "1"},
    {"NOUSB", "Usb::Disable", Kind::Flag, "1"},
    {"NOIDE", "IdeControllerManager::disable", Kind::Flag, "1"},
    {"FORCEUSB", "Usb::ForceControllerStart", Kind::Flag, "1"},
    {"FORCE1394", "IEEE1394::ForceControllerStart", Kind::Flag, "1"},
    {"USBTIMEOUT", "Usb::EnumerationTimeout", Kind::Number, nullptr},
    {"NOOSDISK", "OsDrive::Disable", Kind::Flag, "1"},
    {"NODISKLOCKING", "DestinationDiskLocker::Disable", Kind::Flag, "1"},
    {"FMOUNT", "Filesystem::forceMount", Kind::Flag, "1"},
    {"MCYL", "PartitionNodeBios::MaxoutCylinder", Kind::Number, nullptr},
    {"NOPASSTHROUGH", "DiskManager::scsiPassThrough", Kind::Flag, "0"},
    {"NOBOOTCODE", "BootCode.HarvestBootCode", Kind::Flag, "0"},
    {"NOOSLAYOUT", "Disk::noOsLayout", Kind::Flag, "1"},
    {"BOOTDISK", "DiskManager::bootDisk", Kind::Number, nullptr},
    {"SECTORSIZE", kImageSectorSizeKey, Kind::Choice, "512|4096"},
    {"PHYSICALSECTORSIZE", kImagePhysicalSectorSizeKey, Kind::Choice, "512|4096"},
    {"CACHEFLUSHSIZE", "StandardCache::CacheFlushSize", Kind::Number, nullptr},
    {"SPBLENGTH", "SequentialAccessDevice::preferredBlockLength", Kind::Number, nullptr},
    {"BUFFERSIZE", "LfoImageFileDeviceFactory::bufferSize", Kind::Number, nullptr},
    {"CLASSLOG", "LogManagerStartup::Log", Kind::Text, nullptr},
    {"CLASSLOGTERSE", "LogManagerStartup::LogTerse", Kind::Text, nullptr},
    {"CLASSLOGMEDIUM", "LogManagerStartup::LogMedium", Kind::Text, nullptr},
    {"CLASSLOGVERBOSE", "LogManagerStartup::LogVerbose", Kind::Text, nullptr},
    {"CLASSLOGFILE", "LogManagerStartup::LogFile", Kind::Text, nullptr},
    {"CLASSLOGFILECOMMIT", "LogManagerStartup::LogFileCommit", Kind::Flag, "1"},
    {"BACKUPDIR", kBackupFolderKey, Kind::Text, nullptr},
    {"ADDDISK", kAddDiskKey, Kind::List, nullptr},
    {"AD", kAddDiskKey, Kind::List, nullptr},
};

bool equalsIgnoreCase(const std::string& a, const char* b) {
  size_t n = std::char_traits<char>::length(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

}  // namespace

void set(const std::string& key, const std::string& value) {
  std::lock_guard g(lock());
  store()[key] = {value};
}
void setBool(const std::string& key, bool value) { set(key, value ? "1" : "0"); }
void setInt(const std::string& key, int64_t value) { set(key, std::to_string(value)); }
void append(const std::string& key, const std::string& value) {
  std::lock_guard g(lock());
  store()[key].push_back(value);
}
bool has(const std::string& key) {
  std::lock_guard g(lock());
  return store().count(key) != 0;
}
void unset(const std::string& key) {
  std::lock_guard g(lock());
  store().erase(key);
}
void clear() {
  std::lock_guard g(lock());
  store().clear();
}

std::string getString(const std::string& key, const std::string& def) {
  std::lock_guard g(lock());
  auto it = store().find(key);
  if (it == store().end() || it->second.empty()) return def;
  return it->second.back();
}

bool getBool(const std::string& key, bool def) {
  std::string v = getString(key, "");
  if (v.empty()) return def;
  std::string u;
  for (char c : v) u += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (u == "1" || u == "true" || u == "yes" || u == "on") return true;
  if (u == "0" || u == "false" || u == "no" || u == "off") return false;
  return def;
}

int64_t getInt(const std::string& key, int64_t def) {
  int64_t v = 0;
  return parseInt(getString(key, ""), v) ? v : def;
}

std::vector<std::string> getList(const std::string& key) {
  std::lock_guard g(lock());
  auto it = store().find(key);
  return it == store().end() ? std::vector<std::string>{} : it->second;
}

std::vector<std::string> takeStartupSwitches(const std::vector<std::string>& args) {
  std::vector<std::string> rest;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (i == 0 || a.size() < 2 || a[0] != '/') {
      rest.push_back(a);
      continue;
    }
    size_t eq = a.find('=');
    std::string name = a.substr(1, eq == std::string::npos ? std::string::npos : eq - 1);
    const StartupSwitch* sw = nullptr;
    for (const auto& s : kSwitches)
      if (equalsIgnoreCase(name, s.name)) sw = &s;
    if (!sw) {
      rest.push_back(a);
      continue;
    }
    bool hasValue = eq != std::string::npos;
    std::string value = hasValue ? a.substr(eq + 1) : std::string();
    std::string upper = sw->name;
    switch (sw->kind) {
      case Kind::Flag:
        if (hasValue)
          throw Error(ErrorId::BadStartupSwitch, "Start-up switch /" + upper + " does not take a value")
              .with("switch", upper);
        set(sw->key, sw->flagValue);
        break;
      case Kind::Number: {
        int64_t v = 0;
        if (!hasValue || !parseInt(value, v))
          throw Error(ErrorId::BadStartupSwitch,
                      "Start-up switch /" + upper + " requires a numeric value (/" + upper + "=n)")
              .with("switch", upper)
              .with("value", value);
        setInt(sw->key, v);
        break;
      }
      case Kind::Choice: {
        std::string choices = std::string("|") + sw->flagValue + "|";
        if (!hasValue || value.empty() || value.find('|') != std::string::npos ||
            choices.find("|" + value + "|") == std::string::npos) {
          std::string allowed = sw->flagValue;
          for (char& c : allowed)
            if (c == '|') c = ',';
          throw Error(ErrorId::BadStartupSwitch, "Start-up switch /" + upper + " takes one of " + allowed + " (/" +
                                                     upper + "=n), not \"" + value + "\"")
              .with("switch", upper)
              .with("value", value)
              .with("choices", sw->flagValue);
        }
        set(sw->key, value);
        break;
      }
      case Kind::Text:
      case Kind::List:
        if (!hasValue || value.empty())
          throw Error(ErrorId::BadStartupSwitch, "Start-up switch /" + upper + " requires a value (/" +
                                                     upper + "=" + (sw->kind == Kind::List ? "path" : "value") + ")")
              .with("switch", upper);
        if (sw->kind == Kind::List)
          append(sw->key, value);
        else
          set(sw->key, value);
        break;
    }
  }
  return rest;
}

}  // namespace Corvo::Core::Config
