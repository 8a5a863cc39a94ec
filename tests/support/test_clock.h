// Puts the library's steady clock and wall clock under the test's control.
#pragma once

#include <chrono>
#include <ctime>

namespace testing_support {

// While alive, the library reads these clocks instead of the real ones. The
// steady clock starts at "steady_start" (1 hour by default, past the 600 s
// in which a fresh machine's checks are silent) and the wall clock at
// "wall_start". Only one may be alive at a time.
class TestClock {
 public:
  explicit TestClock(std::chrono::nanoseconds steady_start = std::chrono::hours(1),
                     std::time_t wall_start = 1700000000);
  ~TestClock();
  TestClock(const TestClock&) = delete;
  TestClock& operator=(const TestClock&) = delete;

  void Advance(std::chrono::nanoseconds step);  // moves the steady clock
  void SetSteady(std::chrono::nanoseconds since_zero);
  std::chrono::nanoseconds steady() const;

  void AdvanceWall(std::time_t seconds);
  void SetWall(std::time_t now);
  std::time_t wall() const;
};

}  // namespace testing_support
