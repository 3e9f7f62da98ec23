// The message function's routing and prompt modes, the fixed test clock and random sequence,
// the system error text and the diagnostic log.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <string>

#include "core/Clock.h"
#include "core/Md5.h"
#include "core/Message.h"
#include "core/System.h"
#include "core/Trace.h"
#include "support/TestSupport.h"

using namespace Corvo::Core;

namespace {

TEST(MessageFunction, RoutesEachKindAndAnswersQuestionsByPromptMode) {
  struct Case {
    MessageKind kind;
    PromptMode mode;
    bool answer;        // what the console would answer if asked
    int result;         // 0 for statements, 1 yes, 2 no
    bool asked;         // the sink saw the question
  };
  const Case cases[] = {
      {mkError, pmAsk, false, 0, false},
      {mkWarning, pmAsk, false, 0, false},
      {mkInformation, pmAsk, false, 0, false},
      {mkQuestion, pmAnswerYes, false, 2, true},  // a plain question is always put to the user
      {mkQuestion, pmAnswerNo, true, 1, true},
      {mkQuestionPrompted, pmAnswerYes, false, 1, false},  // /Y: yes without asking
      {mkQuestionPrompted, pmAnswerNo, true, 2, false},   // answered no in advance
      {mkQuestionPrompted, pmAsk, true, 1, true},
      {mkQuestionPrompted, pmAsk, false, 2, true},
  };
  for (const Case& c : cases) {
    KdiskTest::ScopedCapture capture;
    capture.sink().answers = {c.answer};
    const PromptMode old = setPromptMode(c.mode);
    const int r = message(c.kind, "Fixed disk %d -- %s", 3, "text");
    setPromptMode(old);
    SCOPED_TRACE(testing::Message() << "kind " << c.kind << " mode " << c.mode);
    EXPECT_EQ(r, c.result);
    const std::string line = "Fixed disk 3 -- text\n";
    EXPECT_EQ(capture.sink().errors, c.kind == mkError ? line : "");
    EXPECT_EQ(capture.sink().warnings, c.kind == mkWarning ? line : "");
    EXPECT_EQ(capture.sink().infos, c.kind == mkInformation ? line : "");
    EXPECT_EQ(!capture.sink().questions.empty(), c.asked);
  }
}

TEST(MessageFunction, FormatsTextsOfAnyLength) {
  const std::string longText(5000, 'x');
  EXPECT_EQ(format("%s|%05.1f", longText.c_str(), 2.25), longText + "|002.2");
  KdiskTest::ScopedCapture capture;
  print("%s", longText.c_str());
  EXPECT_EQ(capture.sink().out, longText);
}

TEST(Clock, TestClockAndSeedMakeRunsRepeatable) {
  setenv("KDISK_TEST_CLOCK", "1262304000", 1);  // 01/01/2010 00:00:00 UTC
  EXPECT_EQ(currentTime(), 1262304000);
  EXPECT_EQ(localTimeStamp(), "01/01/2010 00:00:00");
  EXPECT_EQ(localNow().tm_year, 110);
  unsetenv("KDISK_TEST_CLOCK");
  EXPECT_GT(currentTime(), 1262304000);

  // Without a seed, two draws differ.
  EXPECT_NE(randomValue<uint64_t>(), randomValue<uint64_t>());
}

TEST(SystemErrorText, IsTrimmedAndNeverEmpty) {
  const std::string text = systemErrorText(ENOENT);
  ASSERT_FALSE(text.empty());
  EXPECT_NE(text.back(), '\n');
  EXPECT_NE(text.back(), '.');
  EXPECT_FALSE(systemErrorText(999999).empty());
}

}  // namespace

TEST(Md5Test, PublishedVectors) {
  struct {
    const char* text;
    const char* digest;
  } cases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& c : cases) EXPECT_EQ(Md5::hex(Md5::of(c.text, std::strlen(c.text))), c.digest) << c.text;
}

// Trace scopes nest in the log by indentation; without a log they write nothing, and a path
// that is neither a regular file nor a terminal is refused with its reason.
TEST(DiagnosticLog, ScopesNestAndUnusablePathsAreRefused) {
  const std::string path = ::testing::TempDir() + "kdisk-trace.log";
  std::remove(path.c_str());
  { TraceScope quiet("before"); }
  ASSERT_TRUE(DiagnosticLog::open(path));
  {
    TraceScope outer("outer");
    TraceScope inner("inner");
    DiagnosticLog::write("step");
  }
  DiagnosticLog::close();
  { TraceScope quiet("after"); }
  std::string text;
  if (FILE* f = std::fopen(path.c_str(), "r")) {
    char buf[512];
    while (std::fgets(buf, sizeof buf, f)) text += buf;
    std::fclose(f);
  }
  const size_t body = text.find('\n') + 1;
  EXPECT_EQ(text.rfind("--- diagnostic log opened ", 0), 0u) << text;
  EXPECT_EQ(text.substr(body), "> outer\n  > inner\n    step\n  < inner\n< outer\n");
  std::remove(path.c_str());
  for (const char* bad : {"/dev/full", "/"}) {
    std::string why;
    EXPECT_FALSE(DiagnosticLog::open(bad, false, &why)) << bad;
    EXPECT_FALSE(why.empty()) << bad;
    EXPECT_FALSE(DiagnosticLog::isOpen()) << bad;
  }
}
