#include <gtest/gtest.h>

#include <fstream>

#include "app/Batch.h"
#include "app/Selection.h"
#include "support/TestSupport.h"

using namespace Kdisk;

TEST(Batch, SplitsLinesIntoWords) {
  struct Case {
    const char* line;
    std::vector<std::string> words;
  } cases[] = {
      {"", {}},
      {"   \t \r", {}},
      {"1 /CRE  /PRI", {"1", "/CRE", "/PRI"}},
      {"\t/STATUS\r", {"/STATUS"}},
      {"/BATCH:\"my file.txt\" /Y", {"/BATCH:my file.txt", "/Y"}},
      {"\"\" x", {"", "x"}},
      {"/V:\"A B", {"/V:A B"}},  // an open quote runs to the end of the line
  };
  for (const auto& c : cases) EXPECT_EQ(splitBatchLine(c.line), c.words) << c.line;
}

namespace {
// Runs "kdisk <args>" through the batch entry with a capture sink; help lines keep the
// command bodies (and so the disks) out of the way.
int runLine(std::vector<std::string> args, KdiskTest::CaptureSink** sinkOut, KdiskTest::ScopedCapture& cap) {
  resetBatchState();
  args.insert(args.begin(), "kdisk");
  SwitchSet set(args);
  *sinkOut = &cap.sink();
  try {
    return runCommandLine(set);
  } catch (const ExitCode& raised) {
    return 1000 + raised.code;
  }
}
void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
}  // namespace

TEST(Batch, NestingStopsAtSixteenAndConflictsPassThrough) {
  KdiskTest::TempDir dir;
  std::string self = dir.file("self.txt");
  writeFile(self, "/BATCH:" + self + "\n");
  KdiskTest::ScopedCapture cap;
  KdiskTest::CaptureSink* sink;
  EXPECT_EQ(runLine({"/BATCH:" + self}, &sink, cap), 2);
  EXPECT_EQ(sink->errors, "Maximum depth reached for nested batch files -- Maximum depth is 16\n");
  EXPECT_EQ(sink->infos, "");
  EXPECT_EQ(batchState().depth, 0u);

  writeFile(dir.file("conflict.txt"), "/CRE /DEL\n/? /CRE\n");
  EXPECT_EQ(runLine({"/BATCH:" + dir.file("conflict.txt")}, &sink, cap), 1002);
  EXPECT_EQ(batchState().depth, 0u);
  EXPECT_EQ(batchState().echo, 2u);
}
