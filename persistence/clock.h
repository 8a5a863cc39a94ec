// The two clocks of the library. Periods, delays and rate limits run on the
// steady clock; stored times of last use are wall-clock seconds.
#pragma once

#include <chrono>
#include <ctime>

#include "persistence/export.h"

namespace persistence {

using SteadyTimePoint = std::chrono::steady_clock::time_point;

// The steady clock, in nanoseconds since boot. Out of line, so that the
// library's own code and the inline code of its headers in a caller's
// program read one clock, which the tests can replace.
DRAVINHOLD_EXPORT SteadyTimePoint SteadyNow();

// Wall-clock seconds, as time(nullptr) gives them.
DRAVINHOLD_EXPORT std::time_t WallNow();

}  // namespace persistence
