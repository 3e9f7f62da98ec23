// Process entry: starts the library, parses the command line, runs it, returns the exit code.
#pragma once
#include <string>
#include <vector>

namespace Kdisk {
int processEntry(const std::vector<std::string>& args);
// The command line as the process received it (kept for the whole run).
const std::vector<std::string>& processArguments();
}  // namespace Kdisk
