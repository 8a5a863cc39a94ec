#include "persistence/clock.h"

namespace persistence {
namespace clock_internal {
std::atomic<SteadyClockFunction> steady_override{nullptr};
std::atomic<WallClockFunction> wall_override{nullptr};
}  // namespace clock_internal

void SetClocksForTesting(SteadyClockFunction steady, WallClockFunction wall) {
  clock_internal::steady_override.store(steady);
  clock_internal::wall_override.store(wall);
}

}  // namespace persistence
