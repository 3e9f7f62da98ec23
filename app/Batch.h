// Batch mode: command lines read from a file (/BATCH:file) or typed at the console (/BATCH).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "app/Switches.h"

namespace Kdisk {

inline constexpr uint32_t kMaxBatchDepth = 16;
inline constexpr size_t kMaxBatchLine = 255;  // characters of text in one batch line

// Runs a command line: handles /BATCH, otherwise runs the single command. Returns the exit
// code; a raised ExitCode passes through.
int runCommandLine(SwitchSet& set);

int runBatchFile(const std::string& fileName, const SwitchSet& outer, size_t batchIndex);
int runInteractiveBatch(const SwitchSet& outer, size_t batchIndex);
int runBatchLine(const SwitchSet& outer, size_t batchIndex, const std::vector<std::string>& words);

// Splits a batch line into words: blanks separate words, double quotes group blanks into a
// word and are removed.
std::vector<std::string> splitBatchLine(const std::string& line);

// Process-wide batch state.
struct BatchState {
  uint32_t depth = 0;
  uint32_t successCount = 0;
  uint32_t echo = 2;  // 2 top level, 0 batch file line, 1 interactive
  std::string prompt;
};
BatchState& batchState();
void resetBatchState();

}  // namespace Kdisk
