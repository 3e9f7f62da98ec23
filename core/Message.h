// The one message function and its replaceable sink. Every console message of the front end
// and every report of the library goes through here; nothing else prints.
#pragma once
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "core/Error.h"
#include "core/Interrupt.h"

#if defined(_WIN32)
#define KDISK_PRINTF_FORMAT gnu_printf
#else
#define KDISK_PRINTF_FORMAT printf
#endif

namespace Corvo::Core {

enum MessageKind : unsigned { mkError = 0, mkWarning = 1, mkInformation = 2, mkQuestion = 3, mkQuestionPrompted = 4 };

// How yes/no questions are answered.
enum PromptMode : unsigned { pmAnswerYes = 0, pmAnswerNo = 1, pmAsk = 2 };
PromptMode getPromptMode();
PromptMode setPromptMode(PromptMode mode);  // returns the previous mode

// What a progress display shows at one moment. Amounts are in 512-byte sectors.
struct ProgressState {
  std::string title;
  uint64_t done = 0, total = 0;   // over all passes
  unsigned pass = 0, passes = 0;  // the pass being run (1-based); passes 0 or 1: no pass shown
  double elapsedSeconds = 0;
};

class MessageSink {
 public:
  virtual ~MessageSink() = default;
  // Slot order: error, warning, information, question.
  virtual void error(const std::string& text) = 0;
  virtual void warning(const std::string& text) = 0;
  virtual void information(const std::string& text) = 0;
  // Returns true for yes. End of input answers no.
  virtual bool question(const std::string& text) = 0;
  // Plain output that is not a message (tables, dumps, help texts): standard output as is.
  virtual void output(const std::string& text) = 0;
  // Progress of a long operation. done == total marks the end.
  virtual void progress(const std::string& title, uint64_t done, uint64_t total) = 0;
  // The same with passes and time; sinks that draw no more than a percentage keep the default.
  virtual void progressState(const ProgressState& state) { progress(state.title, state.done, state.total); }
  // Reads one key without echo (for paging); returns -1 at end of input.
  virtual int readKey() = 0;
  // Reads one line from the console; false at end of input.
  virtual bool readLine(std::string& line) = 0;
};

// Console sink: errors and warnings to standard error, information and output to standard
// output; questions print "text [Y/N]" and read a line.
std::unique_ptr<MessageSink> makeConsoleSink();

// Replaces the sink; returns the previous one. A null sink restores the console sink.
std::unique_ptr<MessageSink> setMessageSink(std::unique_ptr<MessageSink> sink);
MessageSink& messageSink();

// printf-style message. Questions return 1 (yes) or 2 (no); other kinds return 0.
int message(MessageKind kind, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(KDISK_PRINTF_FORMAT, 2, 3)))
#endif
    ;
// printf-style plain output to the sink's output channel.
void print(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(KDISK_PRINTF_FORMAT, 1, 2)))
#endif
    ;
std::string format(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(KDISK_PRINTF_FORMAT, 1, 2)))
#endif
    ;

// The text with control characters shown in caret notation (ESC as ^[, DEL as ^?), for
// echoing what a user typed without handing raw control sequences to the terminal.
std::string visibleText(const std::string& text);

// A progress display over a long operation, in sectors. It reports to the sink a few times a
// second and at every tenth of the total; while it exists, Ctrl-C is a request that the
// operation checks at its chunk boundaries (interruptRequested()).
class Progress {
 public:
  Progress(std::string title, uint64_t total);
  ~Progress();
  // Pass numbers are shown when there is more than one pass; total covers all passes alike.
  void setPass(unsigned pass, unsigned passes);
  void advance(uint64_t amount);
  void complete();
  // Ends the display without reporting completion (the operation failed).
  void abandon() { completed_ = true; }
  // Ends the display and returns the error that reports where the operation stopped:
  // "<what> interrupted after N of M sectors", counting the pass being run, followed by
  // " in pass P of Q" when there are passes. The caller flushes its device, then throws it.
  Error interruption(const char* what);

 private:
  void report();
  InterruptibleOperation interruptible_;
  std::string title_;
  uint64_t total_, done_ = 0;
  unsigned pass_ = 0, passes_ = 0, lastTenth_ = 0;
  std::chrono::steady_clock::time_point start_, lastReport_;
  bool completed_ = false;
};

}  // namespace Corvo::Core
