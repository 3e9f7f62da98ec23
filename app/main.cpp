#include <string>
#include <vector>

#include "app/Entry.h"

#if defined(__MINGW32__)
// Arguments reach the program as typed: "/?" must not be expanded as a file name pattern.
extern "C" {
int _dowildcard = 0;
}
#endif

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  return Kdisk::processEntry(args);
}
