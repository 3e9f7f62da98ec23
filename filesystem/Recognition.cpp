#include "filesystem/Recognition.h"

namespace Corvo::Filesystem {

unsigned detectContent(const uint8_t*, size_t, unsigned mode) { return mode == 1002 ? ccNoTest : ccNothing; }

const char* filesystemTypeName(int id) {
  static const char* const names[] = {"fsfFat", "fsfFat12", "fsfFat16", "fsfFat32", "fsfNtfs",
                                      "fsfNtfsWindowsNt351", "fsfNtfsWindowsNt40", "fsfNtfsWindows2000",
                                      "fsfNtfsWindowsXP", "fsfNtfsWindowsVista", "fsfExt2", "fsfExt3",
                                      "fsfReiser", "fsfXfs", "fsfLinuxSwap"};
  return id >= 0 && id <= 14 ? names[id] : "fsfUnknown";
}

}  // namespace Corvo::Filesystem
