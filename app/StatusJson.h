// /STATUS /JSON: the status display as one JSON document on standard output. The document's
// layout (its "version" member counts incompatible changes) is described in the README.
#pragma once
#include <memory>
#include <vector>

#include "app/Commands.h"
#include "app/FixedDisks.h"
#include "core/Message.h"

namespace Kdisk {

inline constexpr unsigned kStatusJsonVersion = 1;

// Prints the document for the disks; raw adds every boot record's slot table. Returns the
// exit code.
int printStatusJson(const std::vector<FixedDisk*>& disks, bool raw);

// For a command line that asks for the JSON document, keeps standard output for the document
// while it lives: information messages (the table checks run when the disks are read) go to
// standard error instead. Does nothing for any other command line.
class JsonOutputScope {
 public:
  JsonOutputScope(CommandCode code, const SwitchSet& set);
  ~JsonOutputScope();
  JsonOutputScope(const JsonOutputScope&) = delete;
  JsonOutputScope& operator=(const JsonOutputScope&) = delete;

 private:
  class Sink;
  Sink* sink_ = nullptr;
};

}  // namespace Kdisk
