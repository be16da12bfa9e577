// What the timed waits of this system are worth, for the code that must not
// pass a deadline. Windows ends every timed wait (Sleep, select, a kernel
// wait) on its timer tick, a millisecond at best with timeBeginPeriod(1).
// Wine sleeps to within about a tenth of a millisecond, but keeps select's
// timeouts in its server, which wakes them a millisecond late, and several
// when the machine is busy.
#pragma once

#include <cstdint>

namespace NORVA::Platform {

// True where a sleep shorter than a millisecond really sleeps (Wine); false
// where it can only yield (Windows).
bool shortSleeps();

// How long before a deadline a select must be told to end, so that its
// timeout, woken late, still ends before the deadline.
std::uint64_t selectMarginMicroseconds();

}  // namespace NORVA::Platform
