// Trace scopes named after library operations, feeding the diagnostic log (/DIAG: and the
// CLASSLOG start-up switches). When no log is open a scope costs one branch.
#pragma once
#include <string>

namespace Corvo::Core {

class DiagnosticLog {
 public:
  // Opens (appends to) the log file, a regular file or a terminal; false, with the reason in
  // `why`, when it cannot be opened or its first line cannot be written. alsoConsole copies each
  // line to standard error. A later write that fails is reported once as a warning through the
  // message function, and the log is closed.
  static bool open(const std::string& path, bool alsoConsole = false, std::string* why = nullptr);
  static void close();
  static bool isOpen();
  static void write(const std::string& line);
};

class TraceScope {
 public:
  explicit TraceScope(const char* name);
  ~TraceScope();
  TraceScope(const TraceScope&) = delete;
  TraceScope& operator=(const TraceScope&) = delete;

 private:
  const char* name_;
};

}  // namespace Corvo::Core
