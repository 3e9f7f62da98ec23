#include "core/Trace.h"

#include <cstdio>
#include <ctime>

#include "core/Clock.h"

namespace Corvo::Core {
namespace {
FILE* gLog = nullptr;
bool gConsole = false;
int gDepth = 0;
}  // namespace

bool DiagnosticLog::open(const std::string& path, bool alsoConsole) {
  close();
  gLog = std::fopen(path.c_str(), "a");
  gConsole = alsoConsole;
  if (gLog) {
    std::fprintf(gLog, "--- diagnostic log opened %s\n", localTimeStamp().c_str());
  }
  return gLog != nullptr;
}

void DiagnosticLog::close() {
  if (gLog) std::fclose(gLog);
  gLog = nullptr;
}

bool DiagnosticLog::isOpen() { return gLog != nullptr; }

void DiagnosticLog::write(const std::string& line) {
  if (!gLog) return;
  std::fprintf(gLog, "%*s%s\n", gDepth * 2, "", line.c_str());
  std::fflush(gLog);
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
