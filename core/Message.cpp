#include "core/Message.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <vector>

#if defined(_WIN32)
#include <conio.h>
#include <io.h>
#else
#include <termios.h>
#include <unistd.h>
#endif

namespace Corvo::Core {
namespace {

PromptMode gPromptMode = 2;

bool isTerminal(FILE* f) {
#if defined(_WIN32)
  return _isatty(_fileno(f)) != 0;
#else
  return isatty(fileno(f)) != 0;
#endif
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
    unsigned pct = total ? static_cast<unsigned>(done * 100 / total) : 100;
    if (isTerminal(stdout)) {
      std::printf("\r%s%3u%%", title.c_str(), pct);
      inProgressLine_ = true;
      if (done >= total) endProgressLine();
      std::fflush(stdout);
      return;
    }
    // Not a terminal: a start line and an end line only.
    if (done == 0 || (done >= total && lastPct_ != 100)) {
      std::printf("%s%3u%%\n", title.c_str(), pct);
      lastPct_ = pct;
    }
    if (done == 0) lastPct_ = 0;
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
  bool inProgressLine_ = false;
  unsigned lastPct_ = 0;
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
      if (gPromptMode == 0) return 1;
      if (gPromptMode == 1) return 2;
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

Progress::Progress(std::string title, uint64_t total) : title_(std::move(title)), total_(total) {
  messageSink().progress(title_, 0, total_);
}
Progress::~Progress() { complete(); }
void Progress::advance(uint64_t amount) {
  done_ += amount;
  if (done_ > total_) done_ = total_;
  // Report about every half per cent, so the sink is not flooded.
  if (total_ == 0 || (done_ - lastReported_) * 200 >= total_ || done_ == total_) {
    lastReported_ = done_;
    if (done_ < total_) messageSink().progress(title_, done_, total_);
  }
}
void Progress::complete() {
  if (completed_) return;
  completed_ = true;
  messageSink().progress(title_, total_, total_);
}

}  // namespace Corvo::Core
