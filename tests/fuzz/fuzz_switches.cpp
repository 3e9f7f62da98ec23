// Fuzzes the switch parser, command selection and batch line splitting. Command bodies never
// run: selection is called on its own, with every message captured.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/Batch.h"
#include "app/Selection.h"
#include "app/Switches.h"
#include "core/Config.h"
#include "core/Message.h"
#include "tests/support/InMemory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool installed = [] {
    Corvo::Core::setMessageSink(std::make_unique<KdiskTest::SilentSink>());
    return true;
  }();
  (void)installed;
  if (size < 1) return 0;
  // First byte picks the accepted switch list; the rest is one command line.
  uint8_t pick = data[0];
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

  std::vector<std::string> words = Kdisk::splitBatchLine(text);
  std::vector<std::string> args{"kdisk"};
  args.insert(args.end(), words.begin(), words.end());
  Kdisk::SwitchSet set(args);

  const auto& all = Kdisk::allSwitches();
  for (const Kdisk::Switch* sw : all) {
    std::string value;
    bool hasValue = false;
    if (set.isPresent(*sw, &value, &hasValue) && !hasValue && !value.empty()) __builtin_trap();
  }
  // A few accepted lists of different shapes, including required markers.
  const Kdisk::Switch* a = all[pick % all.size()];
  const Kdisk::Switch* b = all[(pick / 3) % all.size()];
  bool ok = set.validate({a, b, &Kdisk::swActP, &Kdisk::swSZ, &Kdisk::swNTFS}, pick & 1, (pick >> 1) & 3);
  if (!ok && set.errorText().empty()) __builtin_trap();
  set.countParameters();

  Corvo::Core::Config::clear();
  try {
    Kdisk::CommandCode code = Kdisk::selectCommand(set);
    if (code > Kdisk::ccAtaSecurity) __builtin_trap();
  } catch (const Kdisk::ExitCode& raised) {
    if (raised.code != 2) __builtin_trap();
  }
  Corvo::Core::setPromptMode(Corvo::Core::pmAsk);
  return 0;
}
