#include "persistence/clock.h"

#include <atomic>

#include "persistence/testing/seams.h"

namespace persistence {
namespace {

std::atomic<testing::SteadyClockFunction> steady_override{nullptr};
std::atomic<testing::WallClockFunction> wall_override{nullptr};

}  // namespace

SteadyTimePoint SteadyNow() {
  const testing::SteadyClockFunction override_now = steady_override.load(std::memory_order_relaxed);
  return override_now != nullptr ? override_now() : std::chrono::steady_clock::now();
}

std::time_t WallNow() {
  const testing::WallClockFunction override_now = wall_override.load(std::memory_order_relaxed);
  return override_now != nullptr ? override_now() : std::time(nullptr);
}

namespace testing {

void SetClocksForTesting(SteadyClockFunction steady, WallClockFunction wall) {
  steady_override.store(steady);
  wall_override.store(wall);
}

}  // namespace testing
}  // namespace persistence
