// Help texts: the general help and the help of each command.
#pragma once
#include <string>

#include "app/Commands.h"

namespace Kdisk {

// Prints the help for a command code; codes without their own help print the general help.
void printHelp(const std::string& program, CommandCode code);
void printGeneralHelp(const std::string& program);
// The banner and the notice (/VERSION).
void printBanner();

}  // namespace Kdisk
