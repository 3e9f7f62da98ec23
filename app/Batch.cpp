#include "app/Batch.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app/Help.h"
#include "app/Selection.h"
#include "core/FileKind.h"
#include "core/Message.h"

namespace Kdisk {

using namespace Corvo::Core;

namespace {

// Index of the first argument that names /BATCH, or 0 when there is none.
size_t findBatchArgument(const SwitchSet& set) {
  const auto& args = set.args();
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i].empty() || args[i][0] != '/') continue;
    SwitchSet one({args[0], args[i]});
    if (one.isPresent(swBATCH)) return i;
  }
  return 0;
}

enum class LineStatus { Ok, TooLong, End };

// Reads one line of at most kMaxBatchLine characters; the newline (or CR LF) is not kept.
// A line reaching kMaxBatchLine + 1 characters without its newline is too long. A NUL byte
// ends the line's text as it ends a C string: the rest up to the newline is read and ignored.
LineStatus readBatchLine(FILE* f, std::string& line) {
  line.clear();
  int c;
  bool any = false, cut = false;
  while ((c = std::fgetc(f)) != EOF) {
    any = true;
    if (c == '\n') break;
    if (c == '\r') {
      int next = std::fgetc(f);
      if (next == '\n') break;
      if (next != EOF) std::ungetc(next, f);
    }
    if (c == '\0') cut = true;
    if (cut) continue;
    line += static_cast<char>(c);
    if (line.size() > kMaxBatchLine) return LineStatus::TooLong;
  }
  return any ? LineStatus::Ok : LineStatus::End;
}

void reportLineTooLong() {
  message(mkError, "Line too long -- Maximum line length is %ld  characters", static_cast<long>(kMaxBatchLine));
}

// Runs the command line proper, counting the successes of batch lines.
int runCounted(SwitchSet& set) {
  int result = runSingleCommand(set);
  if (result == 0) ++batchState().successCount;
  return result;
}

// One level of batch nesting for as long as it lives: the depth one deeper and the echo mode
// of the nested lines, both as they were again when it ends, by return or by exception.
class NestedBatch {
 public:
  NestedBatch(BatchState& state, uint32_t echo) : state_(state), savedEcho_(state.echo) {
    state_.echo = echo;
    ++state_.depth;
  }
  ~NestedBatch() {
    --state_.depth;
    state_.echo = savedEcho_;
  }
  NestedBatch(const NestedBatch&) = delete;
  NestedBatch& operator=(const NestedBatch&) = delete;

 private:
  BatchState& state_;
  uint32_t savedEcho_;
};

}  // namespace

BatchState& batchState() {
  static BatchState state;
  return state;
}

void resetBatchState() { batchState() = BatchState{}; }

std::vector<std::string> splitBatchLine(const std::string& line) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false, quoted = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
      inWord = true;
      continue;
    }
    bool blank = c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
    if (blank && !quoted) {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
      continue;
    }
    word += c;
    inWord = true;
  }
  if (inWord) words.push_back(word);
  return words;
}

int runCommandLine(SwitchSet& set) {
  BatchState& st = batchState();
  if (set.isPresent(swBATCH) && (set.isPresent(swH) || set.isPresent(swHELP))) {
    printHelp(set.programName(), ccBatch);
    return 0;
  }
  size_t batchIndex = findBatchArgument(set);
  if (batchIndex == 0) {
    if (st.echo == 0) {
      std::string echo = format("Command: %s ", set.programName().c_str());
      for (size_t i = 1; i < set.args().size(); ++i) echo += format("%s ", visibleText(set.args()[i]).c_str());
      print("%s\n\n", echo.c_str());
    }
    return runCounted(set);
  }
  if (st.depth >= kMaxBatchDepth) {
    message(mkError, "Maximum depth reached for nested batch files -- Maximum depth is %d",
            static_cast<int>(kMaxBatchDepth));
    return 2;
  }
  SwitchSet batchArg({set.programName(), set.args()[batchIndex]});
  std::string fileName;
  bool hasFile = false;
  batchArg.isPresent(swBATCH, &fileName, &hasFile);

  const uint32_t savedEcho = st.echo;
  if (hasFile) {
    const uint32_t savedCount = st.successCount;
    int result;
    {
      NestedBatch nested(st, 0);
      result = runBatchFile(fileName, set, batchIndex);
    }
    if (result == 0 && savedEcho != 0) {
      uint32_t done = st.successCount - savedCount;
      message(mkInformation, "%d batch command%s completed successfully", static_cast<int>(done),
              done == 1 ? "" : "s");
    }
    return result;
  }
  NestedBatch nested(st, 1);
  return runInteractiveBatch(set, batchIndex);
}

int runBatchFile(const std::string& fileName, const SwitchSet& outer, size_t batchIndex) {
  // A regular file or a terminal: a FIFO or another device would be waited on for ever.
  std::string why;
  FILE* f = openRegularOrTerminal(fileName, "rb", why);
  if (!f) {
    message(mkError, "Cannot open batch file %s -- %s", visibleText(fileName).c_str(), why.c_str());
    return 2;
  }
  struct Closer {
    FILE* f;
    ~Closer() { std::fclose(f); }
  } closer{f};
  int result = 0;
  bool ranOne = false;
  std::string line;
  while (true) {
    LineStatus status = readBatchLine(f, line);
    if (status == LineStatus::End) {
      if (std::ferror(f)) {  // a folder, or a read error part-way
        message(mkError, "Cannot read batch file %s -- %s", fileName.c_str(), std::strerror(errno));
        return 2;
      }
      break;
    }
    if (status == LineStatus::TooLong) {
      reportLineTooLong();
      return 2;
    }
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> words = splitBatchLine(line);
    if (words.empty()) continue;  // blanks only: nothing to run
    if (ranOne) print("\n");
    ranOne = true;
    result = runBatchLine(outer, batchIndex, words);
    if (result != 0) return result;
  }
  return result;
}

int runInteractiveBatch(const SwitchSet& outer, size_t batchIndex) {
  BatchState& st = batchState();
  print("Complete the following command (ENTER to quit):\n");
  st.prompt += '>';
  struct PromptRestore {
    std::string& prompt;
    ~PromptRestore() {
      if (!prompt.empty()) prompt.pop_back();
    }
  } restore{st.prompt};
  const auto& args = outer.args();
  while (true) {
    std::string shown = format("\n%s %s ", st.prompt.c_str(), outer.programName().c_str());
    for (size_t i = 1; i < args.size(); ++i)
      if (i != batchIndex) shown += format("%s ", args[i].c_str());
    print("%s", shown.c_str());
    std::string line;
    if (!messageSink().readLine(line)) break;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    line.resize(std::strlen(line.c_str()));  // a NUL byte ends the line, as in a batch file
    if (line.size() > kMaxBatchLine) {
      reportLineTooLong();
      continue;
    }
    if (line.empty()) break;
    std::vector<std::string> words = splitBatchLine(line);
    if (words.empty()) break;
    print("\n");
    runBatchLine(outer, batchIndex, words);
  }
  return 0;
}

int runBatchLine(const SwitchSet& outer, size_t batchIndex, const std::vector<std::string>& words) {
  const auto& args = outer.args();
  std::vector<std::string> line;
  line.reserve(args.size() + words.size());
  line.push_back(outer.programName());
  for (size_t i = 1; i < args.size(); ++i)
    if (i != batchIndex) line.push_back(args[i]);
  line.insert(line.end(), words.begin(), words.end());
  SwitchSet set(std::move(line));
  return runCommandLine(set);
}

}  // namespace Kdisk
