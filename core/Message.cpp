#include "core/Message.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <vector>

#include "core/ProgressLine.h"

#if defined(_WIN32)
#include <conio.h>
#include <io.h>
#include <windows.h>
#else
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#endif

namespace Corvo::Core {
namespace {

PromptMode gPromptMode = pmAsk;

bool isTerminal(FILE* f) {
#if defined(_WIN32)
  return _isatty(_fileno(f)) != 0;
#else
  return isatty(fileno(f)) != 0;
#endif
}

// Columns of the console standard output is drawn on; 80 when it does not say.
unsigned terminalWidth() {
#if defined(_WIN32)
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info))
    return static_cast<unsigned>(info.srWindow.Right - info.srWindow.Left + 1);
#else
  winsize ws{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
#endif
  return 80;
}

class ConsoleSink : public MessageSink {
 public:
  void error(const std::string& text) override { toErr(text); }
  void warning(const std::string& text) override { toErr(text); }
  void information(const std::string& text) override { toOut(text); }
  bool question(const std::string& text) override {
    endProgressLine();
    std::fputs(text.c_str(), stdout);
    std::fputs(" [Y/N] ", stdout);
    std::fflush(stdout);
    std::string line;
    while (readLine(line)) {
      size_t i = line.find_first_not_of(" \t\r");
      if (i != std::string::npos) {
        char c = line[i];
        if (c == 'y' || c == 'Y') return true;
        if (c == 'n' || c == 'N') return false;
      }
      std::fputs(text.c_str(), stdout);
      std::fputs(" [Y/N] ", stdout);
      std::fflush(stdout);
    }
    std::fputs("\n", stdout);
    return false;
  }
  void output(const std::string& text) override {
    endProgressLine();
    std::fputs(text.c_str(), stdout);
  }
  void progress(const std::string& title, uint64_t done, uint64_t total) override {
    ProgressState state;
    state.title = title;
    state.done = done;
    state.total = total;
    progressState(state);
  }
  // On a terminal one line redrawn in place; elsewhere no carriage returns and no bar: a plain
  // line at the start, at every tenth and at the end.
  void progressState(const ProgressState& s) override {
    const bool end = s.done >= s.total;
    if (terminal_) {
      std::string line = progressTerminalLine(s, terminalWidth());
      const size_t drawn = line.size();
      if (drawn < lineLength_) line.append(lineLength_ - drawn, ' ');  // clear what was longer
      std::fputs(("\r" + line).c_str(), stdout);
      lineLength_ = drawn;
      inProgressLine_ = true;
      if (end) endProgressLine();
      std::fflush(stdout);
      return;
    }
    const unsigned tenth = s.total == 0 || end ? 10 : static_cast<unsigned>(s.done * 10 / s.total);
    if (s.done == 0 && !end) {
      // A new display, or the same one naming its first pass: one start line.
      if (!plainAtStart_) std::printf("%s\n", progressPlainLine(s, false).c_str());
      plainAtStart_ = true;
      plainTenth_ = 0;
      std::fflush(stdout);
      return;
    }
    plainAtStart_ = false;
    if (end) {
      if (plainTenth_ != 10) std::printf("%s\n", progressPlainLine(s, false).c_str());
      plainTenth_ = 10;
    } else if (tenth > plainTenth_) {
      plainTenth_ = tenth;
      std::printf("%s\n", progressPlainLine(s, true).c_str());
    }
    std::fflush(stdout);
  }
  int readKey() override {
    std::fflush(stdout);
#if defined(_WIN32)
    if (_isatty(_fileno(stdin))) return _getch();
    return std::getchar();
#else
    if (!isatty(STDIN_FILENO)) return std::getchar();
    termios old{};
    tcgetattr(STDIN_FILENO, &old);
    termios raw = old;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    int c = std::getchar();
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    return c;
#endif
  }
  bool readLine(std::string& line) override {
    std::fflush(stdout);
    line.clear();
    int c;
    bool any = false;
    while ((c = std::getchar()) != EOF) {
      any = true;
      if (c == '\n') return true;
      line += static_cast<char>(c);
    }
    return any && !line.empty();
  }

 private:
  void endProgressLine() {
    if (inProgressLine_) {
      std::fputs("\n", stdout);
      inProgressLine_ = false;
      lineLength_ = 0;
    }
  }
  void toErr(const std::string& text) {
    endProgressLine();
    std::fflush(stdout);
    std::fputs(text.c_str(), stderr);
    if (text.empty() || text.back() != '\n') std::fputs("\n", stderr);
    std::fflush(stderr);
  }
  void toOut(const std::string& text) {
    endProgressLine();
    std::fputs(text.c_str(), stdout);
    if (text.empty() || text.back() != '\n') std::fputs("\n", stdout);
  }
  const bool terminal_ = isTerminal(stdout);  // decided once
  bool inProgressLine_ = false;
  size_t lineLength_ = 0;
  unsigned plainTenth_ = 10;
  bool plainAtStart_ = false;
};

std::unique_ptr<MessageSink>& sinkSlot() {
  static std::unique_ptr<MessageSink> s = makeConsoleSink();
  return s;
}

std::string vformat(const char* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n <= 0) return {};
  std::vector<char> buf(static_cast<size_t>(n) + 1);
  std::vsnprintf(buf.data(), buf.size(), fmt, ap);
  return std::string(buf.data(), static_cast<size_t>(n));
}

}  // namespace

PromptMode getPromptMode() { return gPromptMode; }
PromptMode setPromptMode(PromptMode mode) {
  PromptMode old = gPromptMode;
  gPromptMode = mode;
  return old;
}

std::unique_ptr<MessageSink> makeConsoleSink() { return std::make_unique<ConsoleSink>(); }

std::unique_ptr<MessageSink> setMessageSink(std::unique_ptr<MessageSink> sink) {
  auto old = std::move(sinkSlot());
  sinkSlot() = sink ? std::move(sink) : makeConsoleSink();
  return old;
}
MessageSink& messageSink() { return *sinkSlot(); }

int message(MessageKind kind, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  MessageSink& s = messageSink();
  switch (kind) {
    case mkError: s.error(text); return 0;
    case mkWarning: s.warning(text); return 0;
    case mkInformation: s.information(text); return 0;
    case mkQuestionPrompted:
      if (gPromptMode == pmAnswerYes) return 1;
      if (gPromptMode == pmAnswerNo) return 2;
      [[fallthrough]];
    case mkQuestion: return s.question(text) ? 1 : 2;
  }
  return 0;
}

void print(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  messageSink().output(text);
}

std::string format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  return text;
}

std::string visibleText(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7F) {
      out += '^';
      out += static_cast<char>(c ^ 0x40);
    } else {
      out += ch;
    }
  }
  return out;
}

Progress::Progress(std::string title, uint64_t total)
    : title_(std::move(title)), total_(total), start_(std::chrono::steady_clock::now()), lastReport_(start_) {
  report();
}
Progress::~Progress() { complete(); }

void Progress::setPass(unsigned pass, unsigned passes) {
  pass_ = pass;
  passes_ = passes;
  if (!completed_ && done_ < total_) report();
}

void Progress::advance(uint64_t amount) {
  done_ = std::min(total_, done_ + amount);
  if (completed_ || done_ >= total_) return;  // the end is reported by complete()
  // A few reports a second, and one at every tenth for the plain lines.
  const auto now = std::chrono::steady_clock::now();
  const unsigned tenth = static_cast<unsigned>(done_ * 10 / total_);
  if (tenth != lastTenth_ || now - lastReport_ >= std::chrono::milliseconds(200)) report();
}

void Progress::complete() {
  if (completed_) return;
  done_ = total_;
  report();
  completed_ = true;
}

void Progress::report() {
  lastReport_ = std::chrono::steady_clock::now();
  lastTenth_ = total_ ? static_cast<unsigned>(done_ * 10 / total_) : 10;
  ProgressState s;
  s.title = title_;
  s.done = done_;
  s.total = total_;
  s.pass = pass_;
  s.passes = passes_;
  s.elapsedSeconds = std::chrono::duration<double>(lastReport_ - start_).count();
  messageSink().progressState(s);
}

Error Progress::interruption(const char* what) {
  completed_ = true;
  uint64_t done = done_, total = total_;
  if (passes_ > 1 && pass_ >= 1) {
    total = total_ / passes_;
    done = std::min(total, done_ - std::min(done_, total * (pass_ - 1)));
  }
  std::string text = format("%s interrupted after %llu of %llu sectors", what, static_cast<unsigned long long>(done),
                            static_cast<unsigned long long>(total));
  if (passes_ > 1) text += format(" in pass %u of %u", pass_, passes_);
  return Error(ErrorId::Interrupted, text);
}

}  // namespace Corvo::Core
