#include <string>
#include <vector>

#include "app/Entry.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  return Kdisk::processEntry(args);
}
