#include <gtest/gtest.h>

#include "app/Switches.h"

using namespace Kdisk;

namespace {
SwitchSet line(std::initializer_list<const char*> words) {
  std::vector<std::string> args{"kdisk"};
  for (const char* w : words) args.emplace_back(w);
  return SwitchSet(args);
}
}  // namespace

TEST(Switches, IsPresentMatchesWholeNamesIgnoringCase) {
  struct Case {
    std::vector<std::string> args;
    const Switch* sw;
    bool present, hasValue;
    const char* value;
  } cases[] = {
      {{"/status"}, &swSTATUS, true, false, ""},
      {{"/Status"}, &swSTATUS, true, false, ""},
      {{"/STAT"}, &swSTATUS, false, false, ""},      // no abbreviations
      {{"/STATUSX"}, &swSTATUS, false, false, ""},
      {{"STATUS"}, &swSTATUS, false, false, ""},     // a parameter, not a switch
      {{"/INIFILE:C:\\boot.ini"}, &swINIFILE, true, true, "C:\\boot.ini"},
      {{"/VIEW>3"}, &swVIEW, true, false, ""},       // only a colon introduces a value
      {{"/ntfs:xp"}, &swNTFS, true, true, "xp"},
      {{"/NTFS"}, &swNTFS, true, false, ""},
      {{"/SZ:"}, &swSZ, true, true, ""},
      {{"/P:1", "/P:2"}, &swDelP, true, true, "1"},  // the first occurrence wins
      {{"/P"}, &swMbrP, true, false, ""},
      {{"/"}, &swHelpQ, false, false, ""},
      {{"/?"}, &swHelpQ, true, false, ""},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args{"kdisk"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    SwitchSet set(args);
    std::string value = "junk";
    bool hasValue = true;
    EXPECT_EQ(set.isPresent(*c.sw, &value, &hasValue), c.present) << c.args[0];
    EXPECT_EQ(hasValue, c.hasValue) << c.args[0];
    EXPECT_EQ(value, c.value) << c.args[0];
  }
  SwitchSet empty(std::vector<std::string>{});
  EXPECT_FALSE(empty.isPresent(swHelpQ));
}

TEST(Switches, ValidateReportsTheFirstFault) {
  struct Case {
    SwitchSet set;
    std::initializer_list<const Switch*> accepted;
    int minParams, maxParams;
    const char* error;  // empty: accepted
  } cases[] = {
      {line({"1", "/CRE", "/PRI", "/SZ:50P"}), {&swCRE, &swPRI, &swSZ}, 1, 1, ""},
      {line({"1", "/cre", "/pri", "/sz:50p"}), {&swCRE, &swPRI, &swSZ}, 1, 1, ""},
      {line({"1", "/CRE", "/SZ"}), {&swCRE, &swSZ}, 1, 1, "Switch requires a value -- /SZ"},
      {line({"1", "/CRE:5"}), {&swCRE}, 1, 1, "Switch does not require a value -- /CRE"},
      {line({"1", "/CRE", "/FOO:bar"}), {&swCRE}, 1, 1, "Unknown switch -- /FOO"},
      {line({"1", "/CR"}), {&swCRE}, 1, 1, "Unknown switch -- /CR"},
      {line({"/NTFS", "/NTFS"}), {&swNTFS}, 0, 1, ""},
      {line({"/NTFS:XP"}), {&swNTFS}, 0, 1, ""},
      {line({"/BATCH"}), {&swBATCH}, 0, 1, ""},
      {line({"/BATCH:f.txt"}), {&swBATCH}, 0, 1, ""},
      {line({"/VIEW>3"}), {&swVIEW}, 0, 1, "Switch requires a value -- /VIEW"},
      {line({"/SZ:10", "/SZ:20"}), {&swSZ}, 0, 1, "Conflicting values for switch -- /SZ:10 /SZ:20"},
      {line({"/SZ:10", "/sz:10"}), {&swSZ}, 0, 1, ""},
      {line({"/NTFS", "/NTFS:XP"}), {&swNTFS}, 0, 1, "Conflicting values for switch -- /NTFS: /NTFS:XP"},
      {line({"1", "/ACT"}), {&swACT, &swActP}, 1, 1, "Required switch missing -- /P"},
      {line({"1", "/ACT", "/P:2"}), {&swACT, &swActP}, 1, 1, ""},
      {line({"/ACT", "/P:2"}), {&swACT, &swActP}, 1, 1, "Required parameter missing"},
      {line({"1", "2", "3", "/ACT", "/P:2"}), {&swACT, &swActP}, 1, 1, "Too many parameters -- 2"},
      {line({"/INIFILE:C:\\x.ini"}), {&swINIFILE}, 0, 0, ""},
      {line({"/"}), {&swCRE}, 0, 0, "Unknown switch -- /"},
  };
  for (auto& c : cases) {
    bool ok = c.set.validate(c.accepted, c.minParams, c.maxParams);
    EXPECT_EQ(ok, c.error[0] == 0) << c.set.args()[1] << ": " << c.set.errorText();
    EXPECT_EQ(c.set.errorText(), c.error) << c.set.args()[1];
  }
}
