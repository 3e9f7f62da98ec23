// The boot menu file of the NT boot loader (boot.ini): a [boot loader] section with the
// timeout and the default entry's path, and an [operating systems] section with one entry a
// line, `path="description" /options`. The text is edited line by line: every byte that an
// edit does not touch (other sections, comments, spacing, line endings, a UTF-8 byte order
// mark, bytes of any code page) comes back exactly as it was read.
#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Corvo::Disk {

struct BootIniEntry {
  size_t line = 0;          // 0-based line of the file
  std::string path;         // text before the first '=', trimmed
  std::string description;  // between the quotes (or the unquoted text before the options)
  std::string options;      // what follows the description, trimmed
};

// A line the editor cannot give a meaning to; edits are refused while one is in the two
// sections, so that nothing of it is lost or misnumbered.
struct BootIniProblem {
  size_t line = 0;  // 1-based, as an editor shows it
  std::string text;
  std::string why;
};

class BootIni {
 public:
  // Throws Core::Error (NotSupported) for bytes that are not an editable text: UTF-16 or
  // NUL bytes.
  static BootIni parse(std::string_view bytes);
  // The whole file as it is now.
  std::string text() const;

  bool hasBootLoader() const { return bootLoader_.has_value(); }
  bool hasOperatingSystems() const { return operatingSystems_.has_value(); }
  const std::vector<BootIniEntry>& entries() const { return entries_; }
  const std::vector<BootIniProblem>& problems() const { return problems_; }
  // Values of [boot loader], trimmed; empty when the key is absent.
  std::string timeout() const { return value("timeout"); }
  std::string defaultPath() const { return value("default"); }
  // 1-based number of the entry the loader starts by default: the first whose path is the
  // default path (compared ignoring case); 0 when none is.
  unsigned defaultEntry() const;

  // Edits. Each throws Core::Error (InvalidArgument) and changes nothing when the request
  // cannot be met: a missing section, a line in the way (problems()), an entry number that
  // does not exist, a duplicate.
  // Adds `path="description"` after the last entry; returns its number.
  unsigned add(const std::string& path, const std::string& description);
  // Removes entry number (1-based). When it was the default, the first remaining entry
  // becomes the default; the only entry is never removed.
  void remove(unsigned number);
  void setDefault(unsigned number);
  void setTimeout(unsigned seconds);

 private:
  struct Line {
    std::string text;  // without its line ending
    std::string eol;   // "\r\n", "\n" or "" (last line without one)
  };
  struct Section {
    size_t header = 0;  // line of the [name]
    size_t end = 0;     // one past its last line
  };

  void scan();  // fills the sections, entries and problems from lines_
  std::optional<size_t> keyLine(const std::string& key) const;
  std::string value(const std::string& key) const;
  void setValue(const std::string& key, const std::string& value);
  void requireEditable() const;
  void insertLine(size_t at, const std::string& text);
  std::string lineEnding() const;

  std::string bom_;
  std::vector<Line> lines_;
  std::optional<Section> bootLoader_, operatingSystems_;
  std::vector<BootIniEntry> entries_;
  std::vector<BootIniProblem> problems_;
};

// A boot-sector file name made from a description: the characters a Windows file name
// cannot hold are left out, and so are trailing dots and blanks. Empty when nothing usable
// is left or the name is a reserved device name (CON, NUL, COM1...).
std::string bootSectorFileStem(const std::string& description);

}  // namespace Corvo::Disk
