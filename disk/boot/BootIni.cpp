#include "disk/boot/BootIni.h"

#include <algorithm>
#include <cctype>

#include "core/Error.h"

namespace Corvo::Disk {

using Core::Error;
using Core::ErrorId;

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string trim(std::string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && isBlank(s[b])) ++b;
  while (e > b && isBlank(s[e - 1])) --e;
  return std::string(s.substr(b, e - b));
}

bool equalNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

// "[ name ]" gives "name"; nullopt when the line is not a section header. A '[' without its
// ']' is a header that cannot be read (malformed set).
std::optional<std::string> sectionName(const std::string& text, bool& malformed) {
  malformed = false;
  std::string t = trim(text);
  if (t.empty() || t[0] != '[') return std::nullopt;
  size_t close = t.find(']');
  if (close == std::string::npos) {
    malformed = true;
    return std::nullopt;
  }
  return trim(std::string_view(t).substr(1, close - 1));
}

bool isCommentOrBlank(const std::string& text) {
  std::string t = trim(text);
  return t.empty() || t[0] == ';';
}

// Splits `path="description" options`. False when the line is no entry.
bool parseEntry(const std::string& text, BootIniEntry& entry, std::string& why) {
  size_t eq = text.find('=');
  if (eq == std::string::npos) {
    why = "no '=' between path and description";
    return false;
  }
  entry.path = trim(std::string_view(text).substr(0, eq));
  if (entry.path.empty()) {
    why = "no path before '='";
    return false;
  }
  std::string rest = trim(std::string_view(text).substr(eq + 1));
  if (!rest.empty() && rest[0] == '"') {
    size_t close = rest.find('"', 1);
    if (close == std::string::npos) {
      why = "the description has no closing quote";
      return false;
    }
    entry.description = rest.substr(1, close - 1);
    entry.options = trim(std::string_view(rest).substr(close + 1));
  } else {
    // Unquoted: the description runs up to the first option (a blank followed by '/').
    size_t opt = std::string::npos;
    for (size_t i = 1; i < rest.size(); ++i)
      if (rest[i] == '/' && isBlank(rest[i - 1])) {
        opt = i;
        break;
      }
    entry.description = trim(std::string_view(rest).substr(0, opt));
    entry.options = opt == std::string::npos ? std::string() : trim(std::string_view(rest).substr(opt));
  }
  return true;
}

}  // namespace

BootIni BootIni::parse(std::string_view bytes) {
  if (bytes.size() >= 2 && ((bytes[0] == '\xFF' && bytes[1] == '\xFE') || (bytes[0] == '\xFE' && bytes[1] == '\xFF')))
    throw Error(ErrorId::NotSupported, "the file is UTF-16 text, which the boot loader cannot read");
  if (bytes.find('\0') != std::string_view::npos)
    throw Error(ErrorId::NotSupported, "the file holds NUL bytes and is not a boot.ini text");
  BootIni ini;
  if (bytes.substr(0, 3) == "\xEF\xBB\xBF") {
    ini.bom_ = bytes.substr(0, 3);
    bytes.remove_prefix(3);
  }
  size_t start = 0;
  while (start < bytes.size()) {
    size_t nl = bytes.find('\n', start);
    Line line;
    if (nl == std::string_view::npos) {
      line.text = bytes.substr(start);
      start = bytes.size();
    } else {
      size_t end = nl;
      if (end > start && bytes[end - 1] == '\r') --end;
      line.text = bytes.substr(start, end - start);
      line.eol = bytes.substr(end, nl + 1 - end);
      start = nl + 1;
    }
    ini.lines_.push_back(std::move(line));
  }
  ini.scan();
  return ini;
}

std::string BootIni::text() const {
  std::string out = bom_;
  for (const Line& l : lines_) out += l.text + l.eol;
  return out;
}

void BootIni::scan() {
  bootLoader_.reset();
  operatingSystems_.reset();
  entries_.clear();
  problems_.clear();
  enum { kOther, kLoader, kSystems } current = kOther;
  std::optional<Section>* open = nullptr;
  std::vector<size_t> keysSeen[2];  // lines of timeout= and default=
  for (size_t i = 0; i < lines_.size(); ++i) {
    const std::string& text = lines_[i].text;
    bool malformed = false;
    if (auto name = sectionName(text, malformed)) {
      if (open) (*open)->end = i;
      open = nullptr;
      current = kOther;
      std::optional<Section>* which = equalNoCase(*name, "boot loader")         ? &bootLoader_
                                      : equalNoCase(*name, "operating systems") ? &operatingSystems_
                                                                                : nullptr;
      if (which && which->has_value()) {
        problems_.push_back({i + 1, text, "a second [" + *name + "] section"});
      } else if (which) {
        *which = Section{i, lines_.size()};
        open = which;
        current = which == &bootLoader_ ? kLoader : kSystems;
      }
      continue;
    }
    if (current == kOther) continue;
    if (malformed) {
      problems_.push_back({i + 1, text, "a section header without its ']'"});
      continue;
    }
    if (isCommentOrBlank(text)) continue;
    if (current == kSystems) {
      BootIniEntry e;
      std::string why;
      if (parseEntry(text, e, why)) {
        e.line = i;
        entries_.push_back(std::move(e));
      } else {
        problems_.push_back({i + 1, text, why});
      }
      continue;
    }
    size_t eq = text.find('=');
    if (eq == std::string::npos) {
      problems_.push_back({i + 1, text, "no '=' between key and value"});
      continue;
    }
    std::string key = trim(std::string_view(text).substr(0, eq));
    for (int k = 0; k < 2; ++k)
      if (equalNoCase(key, k == 0 ? "timeout" : "default")) {
        if (!keysSeen[k].empty()) problems_.push_back({i + 1, text, "a second " + key + "= line"});
        keysSeen[k].push_back(i);
      }
  }
  if (open) (*open)->end = lines_.size();
}

std::optional<size_t> BootIni::keyLine(const std::string& key) const {
  if (!bootLoader_) return std::nullopt;
  for (size_t i = bootLoader_->header + 1; i < bootLoader_->end; ++i) {
    const std::string& text = lines_[i].text;
    size_t eq = text.find('=');
    if (eq != std::string::npos && !isCommentOrBlank(text) && equalNoCase(trim(std::string_view(text).substr(0, eq)), key))
      return i;
  }
  return std::nullopt;
}

std::string BootIni::value(const std::string& key) const {
  auto at = keyLine(key);
  if (!at) return {};
  const std::string& text = lines_[*at].text;
  return trim(std::string_view(text).substr(text.find('=') + 1));
}

unsigned BootIni::defaultEntry() const {
  std::string path = defaultPath();
  if (path.empty()) return 0;
  for (size_t i = 0; i < entries_.size(); ++i)
    if (equalNoCase(entries_[i].path, path)) return static_cast<unsigned>(i + 1);
  return 0;
}

std::string BootIni::lineEnding() const {
  for (const Line& l : lines_)
    if (!l.eol.empty()) return l.eol;
  return "\r\n";  // as the boot loader's own tools write it
}

void BootIni::insertLine(size_t at, const std::string& text) {
  std::string eol = lineEnding();
  if (at > 0 && lines_[at - 1].eol.empty()) lines_[at - 1].eol = eol;
  lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(at), Line{text, eol});
}

// The value is replaced between the blanks that surround it, so "timeout = 30  " keeps its
// spacing; a missing key is added after the section's last key line.
void BootIni::setValue(const std::string& key, const std::string& newValue) {
  if (auto at = keyLine(key)) {
    std::string& text = lines_[*at].text;
    size_t b = text.find('=') + 1, e = text.size();
    while (b < e && isBlank(text[b])) ++b;
    while (e > b && isBlank(text[e - 1])) --e;
    text.replace(b, e - b, newValue);
  } else {
    size_t after = bootLoader_->header;
    for (size_t i = bootLoader_->header + 1; i < bootLoader_->end; ++i)
      if (!isCommentOrBlank(lines_[i].text)) after = i;
    insertLine(after + 1, key + "=" + newValue);
  }
  scan();
}

void BootIni::requireEditable() const {
  if (!bootLoader_) throw Error(ErrorId::InvalidArgument, "the file has no [boot loader] section");
  if (!operatingSystems_) throw Error(ErrorId::InvalidArgument, "the file has no [operating systems] section");
  if (!problems_.empty()) {
    const BootIniProblem& p = problems_.front();
    throw Error(ErrorId::InvalidArgument, "line " + std::to_string(p.line) + " cannot be read (" + p.why + "): " + p.text)
        .with("line", std::to_string(p.line));
  }
}

unsigned BootIni::add(const std::string& path, const std::string& description) {
  requireEditable();
  for (size_t i = 0; i < entries_.size(); ++i)
    if (equalNoCase(entries_[i].path, path) && entries_[i].description == description)
      throw Error(ErrorId::InvalidArgument, "entry " + std::to_string(i + 1) + " already starts " + path + " as \"" +
                                                description + "\"");
  size_t at = entries_.empty() ? operatingSystems_->header + 1 : entries_.back().line + 1;
  insertLine(at, path + "=\"" + description + "\"");
  scan();
  return static_cast<unsigned>(entries_.size());
}

void BootIni::remove(unsigned number) {
  requireEditable();
  if (number < 1 || number > entries_.size())
    throw Error(ErrorId::InvalidArgument, "there is no boot entry " + std::to_string(number) + " (the file has " +
                                              std::to_string(entries_.size()) + ")");
  if (entries_.size() == 1) throw Error(ErrorId::InvalidArgument, "entry 1 is the only boot entry");
  const bool wasDefault = defaultEntry() == number;
  const size_t at = entries_[number - 1].line;
  const bool lastWithoutEnding = at + 1 == lines_.size() && lines_[at].eol.empty();
  lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(at));
  // A file that ended without a line ending still does.
  if (lastWithoutEnding && !lines_.empty()) lines_.back().eol.clear();
  scan();
  if (wasDefault) setValue("default", entries_.front().path);
}

void BootIni::setDefault(unsigned number) {
  requireEditable();
  if (number < 1 || number > entries_.size())
    throw Error(ErrorId::InvalidArgument, "there is no boot entry " + std::to_string(number) + " (the file has " +
                                              std::to_string(entries_.size()) + ")");
  // The loader picks the first entry with the default path: an entry that repeats an earlier
  // entry's path cannot be chosen this way.
  for (unsigned i = 1; i < number; ++i)
    if (equalNoCase(entries_[i - 1].path, entries_[number - 1].path))
      throw Error(ErrorId::InvalidArgument, "entry " + std::to_string(i) + " has the same path and comes first");
  setValue("default", entries_[number - 1].path);
}

void BootIni::setTimeout(unsigned seconds) {
  requireEditable();
  setValue("timeout", std::to_string(seconds));
}

std::string bootSectorFileStem(const std::string& description) {
  std::string stem;
  for (char c : description) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F || std::string_view("\\/:*?\"<>|").find(c) != std::string_view::npos) continue;
    stem += c;
  }
  while (!stem.empty() && (stem.back() == '.' || stem.back() == ' ')) stem.pop_back();
  size_t lead = stem.find_first_not_of(' ');
  stem = lead == std::string::npos ? std::string() : stem.substr(lead);
  std::string upper;
  for (char c : stem) upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  static const char* const reserved[] = {"CON",  "PRN",  "AUX",  "NUL",  "COM1", "COM2", "COM3", "COM4",
                                         "COM5", "COM6", "COM7", "COM8", "COM9", "LPT1", "LPT2", "LPT3",
                                         "LPT4", "LPT5", "LPT6", "LPT7", "LPT8", "LPT9"};
  for (const char* r : reserved)
    if (upper == r) return {};
  return stem;
}

}  // namespace Corvo::Disk
