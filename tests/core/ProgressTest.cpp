#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "core/Interrupt.h"
#include "core/Message.h"
#include "core/ProgressLine.h"
#include "support/TestSupport.h"

using namespace Corvo::Core;

namespace {

ProgressState state(uint64_t done, uint64_t total, double elapsed, unsigned pass = 0, unsigned passes = 0) {
  ProgressState s;
  s.title = "DoD 5220.22-M STD Wiping  20.00M";
  s.done = done;
  s.total = total;
  s.elapsedSeconds = elapsed;
  s.pass = pass;
  s.passes = passes;
  return s;
}

// Records every progress report.
class RecordingSink : public KdiskTest::CaptureSink {
 public:
  std::vector<ProgressState> states;
  void progressState(const ProgressState& s) override { states.push_back(s); }
};

}  // namespace

TEST(ProgressLine, DetailsTellRateAndTimeLeft) {
  // 2048 sectors a second is 1 MB/s.
  const struct {
    ProgressState s;
    const char* details;
  } cases[] = {
      {state(0, 40960, 0), "--.- MB/s  elapsed 0:00:00  left --:--:--"},
      {state(1000, 40960, 0.5), "--.- MB/s  elapsed 0:00:01  left --:--:--"},  // under a second: no estimate
      {state(20480, 40960, 10), "1.0 MB/s  elapsed 0:00:10  left 0:00:10"},
      {state(2048 * 3600, 2048 * 3600 * 3, 3600, 1, 3), "pass 1 of 3  1.0 MB/s  elapsed 1:00:00  left 2:00:00"},
      {state(100, 100, 4, 19, 19), "pass 19 of 19  0.0 MB/s  elapsed 0:00:04  left 0:00:00"},
      {state(5, 10, 2, 1, 1), "0.0 MB/s  elapsed 0:00:02  left 0:00:02"},  // one pass: none shown
  };
  for (const auto& c : cases) EXPECT_EQ(progressDetails(c.s), c.details);
}

TEST(ProgressLine, PlainLinesHaveTheBlankBeforeThePercentage) {
  EXPECT_EQ(progressPlainLine(state(0, 10, 0), false), "DoD 5220.22-M STD Wiping  20.00M   0%");
  EXPECT_EQ(progressPlainLine(state(10, 10, 0), false), "DoD 5220.22-M STD Wiping  20.00M 100%");
  EXPECT_EQ(progressPlainLine(state(4, 10, 2), true),
            "DoD 5220.22-M STD Wiping  20.00M  40%  0.0 MB/s  elapsed 0:00:02  left 0:00:03");
}

TEST(ProgressLine, TerminalLineFitsTheWidth) {
  const ProgressState half = state(20480, 40960, 10, 3, 19);
  for (unsigned width : {200u, 120u, 80u, 40u, 10u, 1u}) {
    const std::string line = progressTerminalLine(half, width);
    EXPECT_LE(line.size(), width > 0 ? width - 1 : 0) << width;
    EXPECT_EQ(line.find('\r'), std::string::npos);
  }
  // Wide enough: the full bar, half filled, and every detail.
  const std::string wide = progressTerminalLine(half, 200);
  EXPECT_NE(wide.find("[" + std::string(15, '#') + std::string(15, '.') + "]"), std::string::npos) << wide;
  EXPECT_NE(wide.find(" 50%  pass 3 of 19  1.0 MB/s  elapsed 0:00:10  left 0:00:10"), std::string::npos) << wide;
  // Narrower: the short details with a bar, then without; the estimate stays on 80 columns.
  const std::string medium = progressTerminalLine(half, 100);
  EXPECT_NE(medium.find("]  50%  3/19 1.0MB/s 0:00:10 left 0:00:10"), std::string::npos) << medium;
  EXPECT_EQ(progressTerminalLine(half, 80), "DoD 5220.22-M STD Wiping  20.00M  50% 3/19 1.0MB/s 0:00:10 left 0:00:10");
}

TEST(Progress, ReportsStartEveryTenthPassesAndEnd) {
  auto previous = setMessageSink(std::make_unique<RecordingSink>());
  auto& sink = static_cast<RecordingSink&>(messageSink());
  {
    Progress p("Wiping  1.00M", 1000);
    p.setPass(1, 2);
    for (int i = 0; i < 100; ++i) p.advance(10);
    p.complete();
  }
  auto states = sink.states;
  setMessageSink(std::move(previous));
  ASSERT_GE(states.size(), 12u);
  EXPECT_EQ(states.front().done, 0u);
  EXPECT_EQ(states.back().done, 1000u);
  std::vector<bool> tenths(11, false);
  for (const auto& s : states) tenths[s.done * 10 / 1000] = true;
  for (int t = 0; t <= 10; ++t) EXPECT_TRUE(tenths[t]) << "no report in tenth " << t;
  EXPECT_EQ(states[1].pass, 1u);
  EXPECT_EQ(states[1].passes, 2u);
}

TEST(Progress, InterruptionCountsThePassBeingRun) {
  auto previous = setMessageSink(std::make_unique<RecordingSink>());
  const struct {
    unsigned pass, passes;
    uint64_t done, total;
    const char* text;
  } cases[] = {
      {0, 0, 300, 1000, "Wipe interrupted after 300 of 1000 sectors"},
      {1, 1, 300, 1000, "Wipe interrupted after 300 of 1000 sectors"},
      {3, 19, 2 * 100 + 42, 19 * 100, "Wipe interrupted after 42 of 100 sectors in pass 3 of 19"},
      {2, 4, 100, 400, "Wipe interrupted after 0 of 100 sectors in pass 2 of 4"},
  };
  for (const auto& c : cases) {
    Progress p("Wiping ", c.total);
    if (c.passes) p.setPass(c.pass, c.passes);
    p.advance(c.done);
    Error e = p.interruption("Wipe");
    EXPECT_EQ(e.id(), ErrorId::Interrupted);
    EXPECT_EQ(e.text(), c.text);
  }
  setMessageSink(std::move(previous));
}

#if !defined(_WIN32)
// Real signals: during a table write even repeated ones only set the request, and during a long
// operation the first one does. (Without either, SIGINT would end the test program.)
TEST(Interrupt, SignalsBecomeRequestsWhileHeldOrInterruptible) {
  installInterruptHandler();
  for (int sig : {SIGINT, SIGTERM}) {
    clearInterrupt();
    {
      InterruptHold hold;
      std::raise(sig);
      std::raise(sig);
    }
    EXPECT_TRUE(interruptRequested()) << sig;
    clearInterrupt();
    {
      InterruptibleOperation operation;
      std::raise(sig);
    }
    EXPECT_TRUE(interruptRequested()) << sig;
  }
  clearInterrupt();
}
#endif
