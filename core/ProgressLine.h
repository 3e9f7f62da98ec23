// The texts of the console's progress display: one line redrawn in place on a terminal, plain
// lines for pipes and logs.
#pragma once
#include <string>

#include "core/Message.h"

namespace Corvo::Core {

// "h:mm:ss"; "--:--:--" for a time not known yet.
std::string durationText(double seconds);

// Pass, throughput and times: "pass 3 of 19  85.3 MB/s  elapsed 0:01:23  left 0:10:00", or
// compact "3/19 85.3MB/s 0:01:23 left 0:10:00". The pass is left out for a single pass; rate
// and time left are "--" until a second has passed and something was done.
std::string progressDetails(const ProgressState& state, bool compact = false);

// The terminal line: title, bar, percentage and details, no wider than width - 1 columns (the
// bar shrinks, then the details take their compact form, then the bar goes; what still does
// not fit is cut).
std::string progressTerminalLine(const ProgressState& state, unsigned width);

// A plain line: the title, a blank and the percentage ("Wiping  2.00M  40%"), with the details
// after it when asked for.
std::string progressPlainLine(const ProgressState& state, bool details);

}  // namespace Corvo::Core
