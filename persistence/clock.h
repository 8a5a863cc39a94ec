// The two clocks of the library. Periods, delays and rate limits run on the
// steady clock; stored times of last use are wall-clock seconds.
#pragma once

#include <atomic>
#include <chrono>
#include <ctime>

namespace persistence {

using SteadyTimePoint = std::chrono::steady_clock::time_point;
using SteadyClockFunction = SteadyTimePoint (*)();
using WallClockFunction = std::time_t (*)();

namespace clock_internal {
extern std::atomic<SteadyClockFunction> steady_override;
extern std::atomic<WallClockFunction> wall_override;
}  // namespace clock_internal

// The steady clock, in nanoseconds since boot.
inline SteadyTimePoint SteadyNow() {
  const SteadyClockFunction override_now =
      clock_internal::steady_override.load(std::memory_order_relaxed);
  return override_now != nullptr ? override_now() : std::chrono::steady_clock::now();
}

// Wall-clock seconds, as time(nullptr) gives them.
inline std::time_t WallNow() {
  const WallClockFunction override_now =
      clock_internal::wall_override.load(std::memory_order_relaxed);
  return override_now != nullptr ? override_now() : std::time(nullptr);
}

// For tests only: replaces the clocks the library reads, for every read that
// starts after the call. Null restores the real clock.
void SetClocksForTesting(SteadyClockFunction steady, WallClockFunction wall);

}  // namespace persistence
