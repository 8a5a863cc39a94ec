#include "support/test_clock.h"

#include <atomic>
#include <cstdint>

#include "persistence/testing/seams.h"

namespace testing_support {
namespace {

std::atomic<int64_t> steady_nanoseconds{0};
std::atomic<std::time_t> wall_seconds{0};

persistence::SteadyTimePoint SteadyNow() {
  return persistence::SteadyTimePoint(std::chrono::nanoseconds(steady_nanoseconds.load()));
}

std::time_t WallNow() { return wall_seconds.load(); }

}  // namespace

TestClock::TestClock(std::chrono::nanoseconds steady_start, std::time_t wall_start) {
  steady_nanoseconds.store(steady_start.count());
  wall_seconds.store(wall_start);
  persistence::testing::SetClocksForTesting(&SteadyNow, &WallNow);
}

TestClock::~TestClock() { persistence::testing::SetClocksForTesting(nullptr, nullptr); }

void TestClock::Advance(std::chrono::nanoseconds step) { steady_nanoseconds += step.count(); }

void TestClock::SetSteady(std::chrono::nanoseconds since_zero) {
  steady_nanoseconds.store(since_zero.count());
}

std::chrono::nanoseconds TestClock::steady() const {
  return std::chrono::nanoseconds(steady_nanoseconds.load());
}

void TestClock::AdvanceWall(std::time_t seconds) { wall_seconds += seconds; }

void TestClock::SetWall(std::time_t now) { wall_seconds.store(now); }

std::time_t TestClock::wall() const { return wall_seconds.load(); }

}  // namespace testing_support
