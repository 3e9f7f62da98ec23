#include "core/Trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/Clock.h"
#include "core/FileKind.h"
#include "core/Message.h"

namespace Corvo::Core {
namespace {
FILE* gLog = nullptr;
std::string gPath;
bool gConsole = false;
int gDepth = 0;

// Ends the line, pushes it out and says whether it reached the file.
bool flushed(int printed) { return printed >= 0 && std::fflush(gLog) == 0 && !std::ferror(gLog); }
}  // namespace

bool DiagnosticLog::open(const std::string& path, bool alsoConsole, std::string* why) {
  close();
  std::string reason;
  gLog = openRegularOrTerminal(path, "a", reason);
  gConsole = alsoConsole;
  gPath = path;
  if (gLog) {
    errno = 0;
    if (!flushed(std::fprintf(gLog, "--- diagnostic log opened %s\n", localTimeStamp().c_str()))) {
      reason = std::string("it cannot be written (") + (errno ? std::strerror(errno) : "write error") + ")";
      close();
    }
  }
  if (!gLog && why) *why = reason;
  return gLog != nullptr;
}

void DiagnosticLog::close() {
  if (gLog) std::fclose(gLog);
  gLog = nullptr;
}

bool DiagnosticLog::isOpen() { return gLog != nullptr; }

void DiagnosticLog::write(const std::string& line) {
  if (!gLog) return;
  errno = 0;
  if (!flushed(std::fprintf(gLog, "%*s%s\n", gDepth * 2, "", line.c_str()))) {
    const std::string reason = errno ? std::strerror(errno) : "write error";
    close();
    message(mkWarning, "Cannot write diagnostic log %s -- %s", gPath.c_str(), reason.c_str());
    return;
  }
  if (gConsole) std::fprintf(stderr, "%s\n", line.c_str());
}

TraceScope::TraceScope(const char* name) : name_(name) {
  if (!gLog) return;
  DiagnosticLog::write(std::string("> ") + name_);
  ++gDepth;
}

TraceScope::~TraceScope() {
  if (!gLog) return;
  if (gDepth > 0) --gDepth;
  DiagnosticLog::write(std::string("< ") + name_);
}

}  // namespace Corvo::Core
