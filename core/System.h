// Small services of the operating system that the front end needs and may not call itself:
// the text of a system error code, the folder of the running program, and the restart.
#pragma once
#include <string>
#include <vector>

namespace Corvo::Core {

// The system's text for an error code (errno values, or Windows error codes on Windows),
// trailing blanks and line ends trimmed; "error N" when the system has none.
std::string systemErrorText(unsigned long code);
// The text of the calling thread's last system error (GetLastError on Windows, errno elsewhere).
std::string lastSystemErrorText();

// The folder of the running executable; empty when it cannot be found.
std::string executableFolder();

// The path of the program's data file `name` (the boot code files), whatever the case of its
// letters, looked for beside the program, then in its library folder (lib/kdisk next to the
// program's folder, and /usr/lib/kdisk) on systems other than Windows, then, when
// currentFolder is set, in the current folder. Empty when no folder has it.
std::string findDataFile(const std::string& name, bool currentFolder);
// The folder for what the program keeps for the user between runs: $XDG_STATE_HOME/kdisk or
// ~/.local/state/kdisk (POSIX), %LOCALAPPDATA%\Kdisk (Windows). Empty when the environment
// names no such place.
std::string userStateFolder();

// Flushes file buffers and restarts the computer. Returns false with the reason in `why`
// when the restart could not be started.
bool restartComputer(std::string& why);

}  // namespace Corvo::Core
