#include "disk/boot/BootIni.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "core/Error.h"
#include "disk/access/FileReplace.h"
#include "support/TestSupport.h"

using Corvo::Core::Error;
using Corvo::Core::ErrorId;
using Corvo::Disk::BootIni;

namespace {

const std::string kHead = "[boot loader]\r\ntimeout=30\r\ndefault=multi(0)disk(0)rdisk(0)partition(1)\\WINDOWS\r\n"
                          "[operating systems]\r\n";
const std::string kXp = "multi(0)disk(0)rdisk(0)partition(1)\\WINDOWS=\"XP\" /fastdetect\r\n";
const std::string kRc = "C:\\CMDCONS\\BOOTSECT.DAT=\"Recovery Console\" /cmdcons\r\n";

}  // namespace

// Whatever an edit does not touch comes back byte for byte, including what the editor cannot
// read; the problems name the lines a change would have to trust.
TEST(BootIni, ReadsAndKeepsEveryByte) {
  struct Case {
    std::string text;
    size_t entries;
    std::vector<size_t> problemLines;
    unsigned defaultEntry;
  } cases[] = {
      {kHead + kXp + kRc, 2, {}, 1},
      {"\xEF\xBB\xBF" + kHead + kXp, 1, {}, 1},                    // UTF-8 byte order mark
      {kHead + kXp + "C:\\=\"Previous \xC9" "dition\"", 2, {}, 1},   // no final line ending, Latin-1
      {kHead + "x\r\n", 0, {5}, 0},                                // entry without '='
      {kHead + "a=\"open quote\r\n", 0, {5}, 0},
      {kHead + kXp + "[boot loader]\r\ntimeout=3\r\n", 1, {6}, 1},  // a second section
      {"[boot loader]\ntimeout=1\ntimeout=2\n[operating systems]\n", 0, {3}, 0},
      {"[boot loader]\n[oper\n", 0, {2}, 0},                        // header without ']'
      {"[other]\nanything goes\n" + kHead + kXp, 1, {}, 1},         // other sections are not read
      {"[boot loader]\ndefault=C:\\\n[operating systems]\nC:\\ = \"A\"\nc:\\=\"B\"\n", 2, {}, 1},
      {"", 0, {}, 0},
  };
  for (const Case& c : cases) {
    BootIni ini = BootIni::parse(c.text);
    EXPECT_EQ(ini.text(), c.text);
    EXPECT_EQ(ini.entries().size(), c.entries) << c.text;
    std::vector<size_t> lines;
    for (const auto& p : ini.problems()) lines.push_back(p.line);
    EXPECT_EQ(lines, c.problemLines) << c.text;
    EXPECT_EQ(ini.defaultEntry(), c.defaultEntry) << c.text;
  }
}

TEST(BootIni, SplitsEntries) {
  BootIni ini = BootIni::parse(kHead + " a\\b = \"Two words\"  /x /y=1 \r\nC:\\=Plain text /opt\r\nd=\"\"\r\n");
  ASSERT_EQ(ini.entries().size(), 3u);
  EXPECT_EQ(ini.entries()[0].path, "a\\b");
  EXPECT_EQ(ini.entries()[0].description, "Two words");
  EXPECT_EQ(ini.entries()[0].options, "/x /y=1");
  EXPECT_EQ(ini.entries()[1].description, "Plain text");
  EXPECT_EQ(ini.entries()[1].options, "/opt");
  EXPECT_EQ(ini.entries()[2].description, "");
}

TEST(BootIni, RefusesWhatItCannotEdit) {
  for (std::string bytes : {std::string("\xFF\xFE[\0b\0", 6), std::string("\xFE\xFF\0[", 4), std::string("[a]\0", 4)}) {
    try {
      BootIni::parse(bytes);
      ADD_FAILURE() << "parsed " << bytes.size() << " bytes";
    } catch (const Error& e) {
      EXPECT_EQ(e.id(), ErrorId::NotSupported);
    }
  }
}

// Each edit on a small file: the exact text afterwards, or the refusal (and the text as it was).
// The common edits and refusals are compared with whole files in bootini.sh; here the corners.
TEST(BootIni, Edits) {
  enum Op { Add, Remove, Default, Timeout };
  struct Case {
    std::string before;
    Op op;
    unsigned number;  // entry or seconds
    std::string after;  // empty: refused
    std::string error;  // part of the refusal's text
  } cases[] = {
      // Inserted after the last entry, not after trailing comments; LF files stay LF.
      {"[boot loader]\n[operating systems]\na=\"A\"\n; end\n", Add, 0,
       "[boot loader]\n[operating systems]\na=\"A\"\np\\X=\"New\"\n; end\n", ""},
      {"[boot loader]\r\n[operating systems]", Add, 0, "[boot loader]\r\n[operating systems]\r\np\\X=\"New\"\r\n", ""},
      {kHead, Add, 0, kHead + "p\\X=\"New\"\r\n", ""},
      {kHead + "P\\x=\"New\"\r\n", Add, 0, "", "already starts"},     // same path (any case), same text
      {kHead + kXp + "C:\\=\"Last\"", Remove, 2, kHead + kXp.substr(0, kXp.size() - 2), ""},
      {"[boot loader]\ntimeout=1\n[operating systems]\na=\"A\"\n", Default, 1,
       "[boot loader]\ntimeout=1\ndefault=a\n[operating systems]\na=\"A\"\n", ""},
      {"[boot loader]\n  TimeOut =  30  \n[operating systems]\na=\"A\"\n", Timeout, 5,
       "[boot loader]\n  TimeOut =  5  \n[operating systems]\na=\"A\"\n", ""},
      {"[boot loader]\n; none\n\n[operating systems]\n", Timeout, 0,
       "[boot loader]\ntimeout=0\n; none\n\n[operating systems]\n", ""},
  };
  for (const Case& c : cases) {
    BootIni ini = BootIni::parse(c.before);
    try {
      switch (c.op) {
        case Add: {
          const unsigned n = ini.add("p\\X", "New");
          EXPECT_EQ(n, ini.entries().size());
          break;
        }
        case Remove: ini.remove(c.number); break;
        case Default: ini.setDefault(c.number); break;
        case Timeout: ini.setTimeout(c.number); break;
      }
      EXPECT_EQ(ini.text(), c.after) << c.before;
      EXPECT_TRUE(c.error.empty()) << c.before;
    } catch (const Error& e) {
      EXPECT_NE(e.text().find(c.error), std::string::npos) << e.text();
      EXPECT_FALSE(c.error.empty()) << c.before << " refused: " << e.text();
      EXPECT_EQ(ini.text(), c.before);
    }
  }
}

TEST(BootIni, BootSectorFileStem) {
  const std::pair<std::string, std::string> cases[] = {
      {"Lab: DOS 6.22?", "Lab DOS 6.22"}, {"a\\b/c*d\"e<f>g|h", "abcdefgh"}, {"  dots... ", "dots"},
      {"tab\there", "tabhere"},            {"???", ""},                       {"con", ""},
      {"COM1", ""},                        {"Console", "Console"},
  };
  for (const auto& [desc, stem] : cases) EXPECT_EQ(Corvo::Disk::bootSectorFileStem(desc), stem) << desc;
}

// The replacement keeps the old bytes in the backup and the file's permissions; a replacement
// that cannot happen leaves the old file and no temporary file behind.
TEST(FileReplace, KeepsBackupAndPermissions) {
  KdiskTest::TempDir dir;
  const std::string path = dir.file("boot.ini"), bak = path + ".bak";
  std::ofstream(path, std::ios::binary) << "old";
  ::chmod(path.c_str(), 0640);
  Corvo::Disk::replaceFileKeepingBackup(path, "new", "old", bak);
  EXPECT_EQ(Corvo::Disk::readWholeFile(path, 100), "new");
  EXPECT_EQ(Corvo::Disk::readWholeFile(bak, 100), "old");
  struct stat st {};
  ::stat(path.c_str(), &st);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_THROW(Corvo::Disk::readWholeFile(path, 2), Error);

  const std::string folder = dir.file("folder");
  ::mkdir(folder.c_str(), 0755);  // a folder cannot be replaced by a file
  EXPECT_THROW(Corvo::Disk::writeFileDurably(folder, "x"), Error);
  EXPECT_THROW(Corvo::Disk::writeFileDurably(dir.file("no/such/file"), "x"), Error);
  // No temporary file is left: the folder holds the file, its backup and the folder.
  size_t entries = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.file(""))) ++entries;
  EXPECT_EQ(entries, 3u);
}
