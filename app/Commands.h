// Command bodies: each takes the switch set and returns the exit code.
#pragma once
#include "app/Switches.h"

namespace Kdisk {

enum CommandCode : unsigned {
  ccCreate = 0,
  ccDelete = 1,
  ccStatus = 2,
  ccActivate = 3,
  ccDeactivate = 4,
  ccHide = 5,
  ccUnhide = 6,
  ccMbr = 7,
  ccDiskWipe = 8,
  ccBootIni = 9,
  ccBatch = 10,
  ccHelpShown = 11,
  ccView = 12,
  ccGpt = 13,
  ccRevert = 14,
  ccDefault = 15,
  ccAtaSecurity = 16,
  ccRestore = 17,  // this build's own: /RESTORE: writes back a table backup
};

int commandStatus(SwitchSet& set);                     // codes 2 and 15
int commandCreate(SwitchSet& set);                     // 0
int commandDelete(SwitchSet& set);                     // 1
int commandActivate(CommandCode code, SwitchSet& set); // 3 and 4
int commandHide(CommandCode code, SwitchSet& set);     // 5 and 6
int commandView(SwitchSet& set);                       // 12
int commandMbr(SwitchSet& set);                        // 7
int commandDiskWipe(SwitchSet& set);                   // 8
int commandBootIni(SwitchSet& set);                    // 9
int commandGpt(SwitchSet& set);                        // 13
int commandRevert(SwitchSet& set);                     // 14
int commandRestore(SwitchSet& set);                    // 17

// Prints the plain error for a command whose body this build does not have; returns 1.
int commandNotAvailable(const char* switchName);

}  // namespace Kdisk
