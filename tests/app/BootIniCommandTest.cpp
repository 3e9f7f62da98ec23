#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/Commands.h"
#include "app/FakeDisks.h"
#include "disk/access/FileReplace.h"
#include "support/TestSupport.h"

using namespace Kdisk;
using namespace KdiskTest;

namespace {

const std::string kIni =
    "[boot loader]\r\ntimeout=30\r\ndefault=multi(0)disk(0)rdisk(0)partition(1)\\WINDOWS\r\n[operating systems]\r\n"
    "multi(0)disk(0)rdisk(0)partition(1)\\WINDOWS=\"XP\" /fastdetect\r\n";

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Disk 1, display numbers: 1 NTFS, 2 extended (LBA), 3 and 4 its logical drives, 5 hidden
// NTFS in slot 3, 6 a Linux extended partition. Disk 2 is an MBR disk with one partition,
// disk 3 a GPT disk.
void standardDisks(FakeDiskTable& t) {
  FakeLayout& d = t.add(20000);
  d.addPrimary(63, 100, 0x07);
  d.addExtended(400, 4000, 0x0F);
  d.addLogical(463, 100, 0x06);
  d.addLogical(663, 100, 0x0B);
  d.addPrimary(5000, 100, 0x17);
  d.addExtended(6000, 100, 0x85);
  std::memset(t.lastAccess->data.data() + 663 * 512, 0xA5, 512);  // boot sector of 4
  t.lastAccess->data[663 * 512 + 510] = 0x55;
  t.lastAccess->data[663 * 512 + 511] = 0xAA;
  t.add(1000).addPrimary(63, 100, 0x07);
  t.add(1000, Corvo::Disk::PartitionScheme::Gpt).addPrimary(2048, 100, 0);
}

}  // namespace

// The entry each /ADD makes, or its refusal with the file and its backup left as they were.
TEST(BootIniCommand, AddedEntries) {
  struct Case {
    std::vector<std::string> args;
    int rc;
    std::string line;   // the new last line of boot.ini, or the error
  } cases[] = {
      // Primaries in slot order, then logical drives in chain order; containers get no number.
      {{"/D:1", "/P:1", "/WINNT"}, 0, "multi(0)disk(0)rdisk(0)partition(1)\\WINNT=\"New\""},
      {{"/D:1", "/P:5", "/WINNT", "/SYSFOLDER:\\WINDOWS"}, 0, "multi(0)disk(0)rdisk(0)partition(2)\\WINDOWS=\"New\""},
      {{"/D:1", "/P:3", "/WINNT"}, 0, "multi(0)disk(0)rdisk(0)partition(3)\\WINNT=\"New\""},
      {{"/D:1", "/P:4", "/WINNT", "/SYSFOLDER:w/x"}, 0, "multi(0)disk(0)rdisk(0)partition(4)\\w\\x=\"New\""},
      {{"/D:2", "/P:1", "/WINNT"}, 0, "multi(0)disk(0)rdisk(1)partition(1)\\WINNT=\"New\""},
      {{"2", "/P:1", "/WINNT"}, 0, "multi(0)disk(0)rdisk(1)partition(1)\\WINNT=\"New\""},  // a batch's disk
      {{"/D:1", "/P:4", "/BSECTFILE:@/sub/four.dat"}, 0, "C:\\sub\\four.dat=\"New\""},
      {{"/D:1", "/P:2", "/WINNT"}, 1, "Partition 2 is an extended partition and cannot be started from the boot menu\n"},
      {{"/D:1", "/P:6"}, 1, "Partition 6 is an extended partition and cannot be started from the boot menu\n"},
      {{"/D:1", "/P:7", "/WINNT"}, 1, "Invalid partition number -- 7\n"},
      {{"/D:4", "/P:1", "/WINNT"}, 1, "No such fixed disk -- 4\n"},
      {{"/D:3", "/P:1", "/WINNT"}, 1, "Fixed disk 3 is a GPT disk -- the boot loader cannot start Windows from it\n"},
      {{"/DESC:New", "/D:1", "/P:1", "/WINNT", "/DESC:XP"}, 2, "Conflicting values for switch -- /DESC:New /DESC:XP\n"},
      {{"/D:1", "/P:1", "/WINNT", "/SYSFOLDER:WINDOWS", "/INIFILE:@/none.ini"}, 1, "~none.ini -- Cannot open"},
      {{"/D:1", "/P:1", "/WINNT", "/SYSFOLDER:WINDOWS", "/DESC:XP"}, 1, "~already starts multi(0)disk(0)rdisk(0)partition(1)\\WINDOWS"},
      {{"/D:1", "/P:1", "/SYSFOLDER:X"}, 2, "Conflicting switches. /SYSFOLDER may only be used in conjunction with /WINNT\n"},
      {{"/D:1", "/P:1", "/WINNT", "/BSECTFILE:x"}, 2, "Conflicting switches. /BSECTFILE may not be used in conjunction with /WINNT\n"},
      {{"/D:1", "/P:1", "/BSECTFILE:/elsewhere/x.dat"}, 2, "~must lie in the folder of"},
      {{"/D:1", "/WINNT"}, 2, "Required switch missing -- /P\n"},
      {{"/P:1", "/WINNT"}, 2, "Required switch missing -- /D\n"},
      {{"/D:0", "/P:1", "/WINNT"}, 2, "Invalid fixed disk number -- 0\n"},
      {{"/D:1", "/P:1x", "/WINNT"}, 2, "Invalid partition number -- 1x\n"},
      {{"1", "/D:2", "/P:1", "/WINNT"}, 2, "~Conflicting disk parameters"},
      {{"/D:1", "/P:1", "/WINNT", "/ENTRY:1"}, 2, "Unknown switch -- /ENTRY\n"},
      {{"/D:1", "/P:1", "/WINNT", "/REMOVE"}, 2, "Conflicting switches. Specify one of /ADD, /REMOVE or /DEFAULT\n"},
  };
  for (const Case& c : cases) {
    FakeDiskTable t;
    standardDisks(t);
    TempDir dir;
    const std::string ini = dir.file("boot.ini");
    std::ofstream(ini, std::ios::binary) << kIni;
    std::ofstream(ini + ".bak", std::ios::binary) << "previous backup";
    std::filesystem::create_directory(dir.file("sub"));
    std::vector<std::string> args{"kdisk", "/BOOTINI", "/ADD"};
    bool hasIni = false, hasDesc = false;
    for (std::string a : c.args) {
      if (size_t at = a.find('@'); at != std::string::npos) a.replace(at, 1, dir.path());
      hasIni |= a.rfind("/INIFILE:", 0) == 0;
      hasDesc |= a.rfind("/DESC:", 0) == 0;
      args.push_back(a);
    }
    if (!hasIni) args.push_back("/INIFILE:" + ini);
    if (!hasDesc) args.push_back("/DESC:New");
    std::string what;
    for (const auto& a : c.args) what += a + " ";
    ScopedCapture cap;
    SwitchSet set(args);
    EXPECT_EQ(commandBootIni(set), c.rc) << what << cap.sink().errors;
    if (c.rc == 0) {
      EXPECT_EQ(slurp(ini), kIni + c.line + "\r\n") << what;
      EXPECT_EQ(slurp(ini + ".bak"), kIni) << what;
    } else {
      if (c.line[0] == '~')
        EXPECT_NE(cap.sink().errors.find(c.line.substr(1)), std::string::npos) << what << cap.sink().errors;
      else
        EXPECT_EQ(cap.sink().errors, c.line) << what;
      EXPECT_EQ(slurp(ini), kIni) << what;
      EXPECT_EQ(slurp(ini + ".bak"), "previous backup") << what;
    }
  }
}

// The boot sector is saved before boot.ini names it; an existing different file is replaced
// only after a Yes.
TEST(BootIniCommand, BootSectorFile) {
  FakeDiskTable t;
  standardDisks(t);
  TempDir dir;
  const std::string ini = dir.file("boot.ini"), dat = dir.file("Lab DOS.dat");
  struct Step {
    std::string existing;  // contents of the .dat before, empty: none
    bool yes;
    int rc;
  } steps[] = {{"", false, 0}, {"other", false, 1}, {"other", true, 0}};
  for (const Step& s : steps) {
    std::ofstream(ini, std::ios::binary) << kIni;
    std::remove(dat.c_str());
    std::remove((ini + ".bak").c_str());
    if (!s.existing.empty()) std::ofstream(dat, std::ios::binary) << s.existing;
    Corvo::Core::setPromptMode(Corvo::Core::pmAsk);
    ScopedCapture cap;
    cap.sink().answers = {s.yes};
    SwitchSet set({"kdisk", "/BOOTINI", "/ADD", "/D:1", "/P:4", "/DESC:Lab: DOS?", "/INIFILE:" + ini});
    EXPECT_EQ(commandBootIni(set), s.rc) << s.existing << s.yes << cap.sink().errors;
    const std::string got = slurp(dat);
    if (s.rc == 0) {
      ASSERT_EQ(got.size(), 512u);
      EXPECT_EQ(got.substr(0, 510), std::string(510, '\xA5'));
      EXPECT_EQ(got.substr(510), "\x55\xAA");
      EXPECT_EQ(slurp(ini), kIni + "C:\\Lab DOS.dat=\"Lab: DOS?\"\r\n");
    } else {
      EXPECT_EQ(got, s.existing);
      EXPECT_EQ(slurp(ini), kIni);
      EXPECT_FALSE(Corvo::Disk::fileExists(ini + ".bak"));
    }
  }
}
