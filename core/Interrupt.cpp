#include "core/Interrupt.h"

#include <atomic>
#include <csignal>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace Corvo::Core {
namespace {

// Read and written by the handler: lock-free atomics only.
std::atomic<int> gOperations{0}, gHolds{0};
std::atomic<bool> gRequested{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

// True when the event was taken as a request; false when it should end the process.
bool takeEvent() {
  if (gHolds.load() > 0) {
    gRequested.store(true);
    return true;
  }
  if (gOperations.load() > 0 && !gRequested.exchange(true)) return true;
  return false;
}

#if defined(_WIN32)
BOOL WINAPI consoleHandler(DWORD event) {
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
  return takeEvent() ? TRUE : FALSE;
}
#else
void signalHandler(int sig) {
  if (takeEvent()) return;
  // Not taken: end the process the way the signal ends it without a handler.
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}
#endif

}  // namespace

void installInterruptHandler() {
#if defined(_WIN32)
  SetConsoleCtrlHandler(consoleHandler, TRUE);
#else
  struct sigaction sa {};
  sa.sa_handler = signalHandler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;  // a console read in progress goes on
  for (int sig : {SIGINT, SIGTERM}) {
    struct sigaction old {};
    // A signal ignored by whoever started the process stays ignored.
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    sigaction(sig, &sa, nullptr);
  }
#endif
}

bool interruptRequested() { return gRequested.load(); }
void requestInterrupt() { gRequested.store(true); }
void clearInterrupt() { gRequested.store(false); }

InterruptibleOperation::InterruptibleOperation() { ++gOperations; }
InterruptibleOperation::~InterruptibleOperation() { --gOperations; }

InterruptHold::InterruptHold() { ++gHolds; }
InterruptHold::~InterruptHold() { --gHolds; }

}  // namespace Corvo::Core
