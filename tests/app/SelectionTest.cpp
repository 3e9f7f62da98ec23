#include <gtest/gtest.h>

#include "app/Selection.h"
#include "core/Config.h"
#include "support/TestSupport.h"

using namespace Kdisk;
using namespace Corvo::Core;

namespace {
SwitchSet line(std::vector<std::string> words) {
  words.insert(words.begin(), "kdisk");
  return SwitchSet(words);
}
// -1: no exception; otherwise the raised exit code.
int selectRaised(SwitchSet& set, CommandCode& code) {
  try {
    code = selectCommand(set);
    return -1;
  } catch (const ExitCode& raised) {
    return raised.code;
  }
}
}  // namespace

TEST(Selection, PicksOneCommandOrRaisesTwo) {
  struct Case {
    std::vector<std::string> words;
    int code;           // expected code when nothing is raised
    int raised;         // -1 when selection succeeds
    const char* error;  // expected error text (substring), or ""
  } cases[] = {
      {{}, ccDefault, -1, ""},
      {{"1"}, ccDefault, -1, ""},
      {{"/MBR"}, ccMbr, -1, ""},
      {{"/GPT"}, ccGpt, -1, ""},
      {{"/REVERT"}, ccRevert, -1, ""},
      {{"/ATASECURITY"}, ccAtaSecurity, -1, ""},
      {{"/DISKWIPE"}, ccDiskWipe, -1, ""},
      {{"/BOOTINI"}, ccBootIni, -1, ""},
      {{"/VIEW"}, ccView, -1, ""},  // the body reports the missing value
      {{"/GPT", "/VIEW:1"}, 0, 2, "Specify one of /CRE"},
      {{"/?", "/CRE", "/DEL"}, 0, 2, "Specify one of"},  // the conflict comes before the help
      {{"/?"}, ccHelpShown, -1, ""},
      {{"/H", "/CRE"}, ccHelpShown, -1, ""},
      {{"/help", "/Y", "/SURE"}, ccHelpShown, -1, ""},  // help returns before the prompt switches
  };
  for (const auto& c : cases) {
    KdiskTest::ScopedCapture capture;
    SwitchSet set = line(c.words);
    CommandCode code = ccDefault;
    int raised = selectRaised(set, code);
    std::string what = c.words.empty() ? "(none)" : c.words[0];
    EXPECT_EQ(raised, c.raised) << what;
    if (c.raised < 0) {
      EXPECT_EQ(static_cast<int>(code), c.code) << what;
    }
    EXPECT_NE(capture.sink().errors.find(c.error), std::string::npos) << what << ": " << capture.sink().errors;
    if (!*c.error) {
      EXPECT_EQ(capture.sink().errors, "") << what;
    }
  }
}

TEST(Selection, GlobalOptionsSetKeysAndPromptMode) {
  KdiskTest::ScopedCapture capture;
  Config::clear();
  setPromptMode(Corvo::Core::pmAsk);
  SwitchSet set = line({"/STATUS", "/x", "/U", "/SURE"});
  EXPECT_EQ(selectCommand(set), ccStatus);
  EXPECT_TRUE(Config::getBool("DiskDriveAccessExInt13::disable", false));
  EXPECT_TRUE(Config::getBool("DiskDriveAccessIdeUdma::disable", false));
  EXPECT_FALSE(Config::getBool("IdeControllerManager::disable", false));
  EXPECT_FALSE(Config::getBool("DiskDriveAccessAspi::disable", false));
  EXPECT_EQ(getPromptMode(), Corvo::Core::pmAnswerYes);
  EXPECT_EQ(message(mkQuestionPrompted, "Really?"), 1);
  EXPECT_EQ(capture.sink().questions, "");
  setPromptMode(Corvo::Core::pmAsk);
  Config::clear();
}

TEST(Selection, RebootIsRefusedWhenTestsForbidIt) {
  KdiskTest::ScopedCapture capture;
  setenv("KDISK_NO_REBOOT", "1", 1);
  EXPECT_FALSE(attemptReboot());
  EXPECT_NE(capture.sink().infos.find("Reboot requested -- not done"), std::string::npos);
}
