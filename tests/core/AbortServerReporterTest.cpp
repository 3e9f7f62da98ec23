#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "core/AbortServerReporter.h"
#include "support/TestSupport.h"

using namespace Corvo::Core;

namespace {
class TestReporter : public AbortServerReporter {
 public:
  std::vector<std::string> folders;
  std::string title() const override { return "Tool32 1.2.3.4"; }
  std::string notice() const override { return "Notice one.\nNotice two."; }
  std::string errorFileName() const override { return "toolerr.txt"; }
  std::vector<std::string> errorFileFolders() const override { return folders; }
};
}  // namespace

TEST(AbortServerReporter, WritesHeaderAndReportToTheFirstUsableFolder) {
  KdiskTest::TempDir dir;
  KdiskTest::ScopedCapture capture;
  TestReporter r;
  r.folders = {dir.file("missing/folder"), dir.path()};
  Error e(ErrorId::ReadFailed, "Cannot read sector 7");
  e.with("sector", "7");
  EXPECT_EQ(r.handle(e), 1);
  std::string path = dir.file("toolerr.txt");
  EXPECT_EQ(capture.sink().errors, "\nUnable to complete command! See error file " + path + "\n\n");  // the sink adds one

  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(lines[0], "Tool32 1.2.3.4");
  EXPECT_EQ(lines[1], "Notice one.");
  EXPECT_EQ(lines[2], "Notice two.");
  EXPECT_TRUE(std::regex_match(lines[3], std::regex(R"(Error generated at \d\d/\d\d/\d{4} \d\d:\d\d:\d\d)")))
      << lines[3];
  EXPECT_EQ(lines[4], "");
  EXPECT_NE(lines[5].find("Cannot read sector 7"), std::string::npos);
}

TEST(AbortServerReporter, NoWritableFolderStillReportsTheError) {
  KdiskTest::TempDir dir;
  KdiskTest::ScopedCapture capture;
  TestReporter r;
  r.folders = {dir.file("missing")};
  EXPECT_EQ(r.handle(Error(ErrorId::Internal, "Broken")), 1);
  EXPECT_NE(capture.sink().errors.find("Unable to complete command! -- Broken"), std::string::npos);
}
