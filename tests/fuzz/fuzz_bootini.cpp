// Feeds arbitrary bytes to the boot.ini editor: what it reads must come back byte for byte,
// and every edit it accepts must leave a file it reads again with the entry count the edit
// promised and nothing it could not read before.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Error.h"
#include "disk/boot/BootIni.h"

using Corvo::Disk::BootIni;

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  BootIni ini;
  try {
    ini = BootIni::parse(bytes);
  } catch (const Corvo::Core::Error&) {
    return 0;
  }
  check(ini.text() == bytes);
  const size_t count = ini.entries().size();
  const unsigned pick = size ? data[0] % 4 + 1 : 1;
  for (int op = 0; op < 4; ++op) {
    BootIni copy = ini;
    size_t expected = count;
    try {
      switch (op) {
        case 0: copy.add("multi(0)disk(0)rdisk(0)partition(1)\\NEW", "New"), ++expected; break;
        case 1: copy.remove(pick), --expected; break;
        case 2: copy.setDefault(pick); break;
        case 3: copy.setTimeout(pick); break;
      }
    } catch (const Corvo::Core::Error&) {
      check(copy.text() == bytes);  // a refused edit changes nothing
      continue;
    }
    BootIni again = BootIni::parse(copy.text());
    check(again.text() == copy.text());
    check(again.entries().size() == expected);
    check(again.problems().empty());
    if (op == 2) check(again.defaultEntry() == pick);
  }
  return 0;
}
