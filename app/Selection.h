// Command selection and the routine that runs one command line.
#pragma once
#include "app/Commands.h"
#include "app/Switches.h"

namespace Kdisk {

// An exit code raised where no return can carry it (conflicting switches found while the
// command is picked): it ends the command line with that code, batch lines included.
struct ExitCode {
  int code;
};

// Picks the one command of the line. Prints the help and returns ccHelpShown for /? /H /HELP;
// sets the global access options and the prompt mode. Throws ExitCode{2} on conflicting
// switches.
CommandCode selectCommand(SwitchSet& set);

// Runs one command line (no /BATCH handling): selection, the fixed disk table around the
// command body, and the reboot after a successful command with /R. Returns the exit code.
int runSingleCommand(SwitchSet& set);

// Runs the command body for a selected code (the fixed disk table must already be built).
int runCommandBody(CommandCode code, SwitchSet& set);

// Restarts the machine after a successful command with /R. Returns false (after saying why)
// when the restart is not done or fails.
bool attemptReboot();

}  // namespace Kdisk
