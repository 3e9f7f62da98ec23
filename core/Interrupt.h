// Ctrl-C and its relatives (SIGINT and SIGTERM on Linux, console control events on Windows).
// While a long operation runs, Ctrl-C becomes a request that the operation answers at its next
// chunk boundary; while a partition table is written and flushed it is held until the flush is
// done. At any other time Ctrl-C ends the process as it always does, and so does a second
// Ctrl-C during a long operation that has not stopped yet.
#pragma once

namespace Corvo::Core {

// Installs the handler; process entry calls it once.
void installInterruptHandler();

// True once Ctrl-C was pressed during a long operation or a table write. Stays set for the rest
// of the process, so that an operation that follows a held table write stops at once.
bool interruptRequested();
// What the handler does; tests call it directly.
void requestInterrupt();
void clearInterrupt();

// Marks a long operation for its lifetime (every progress display holds one): Ctrl-C sets the
// request instead of ending the process.
class InterruptibleOperation {
 public:
  InterruptibleOperation();
  ~InterruptibleOperation();
  InterruptibleOperation(const InterruptibleOperation&) = delete;
  InterruptibleOperation& operator=(const InterruptibleOperation&) = delete;
};

// Holds Ctrl-C for its lifetime: open it before the first sector of a table is written and keep
// it until the device's flush has returned. Even a repeated Ctrl-C only sets the request.
class InterruptHold {
 public:
  InterruptHold();
  ~InterruptHold();
  InterruptHold(const InterruptHold&) = delete;
  InterruptHold& operator=(const InterruptHold&) = delete;
};

}  // namespace Corvo::Core
