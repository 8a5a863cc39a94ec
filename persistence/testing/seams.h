// The library's test-only seams. Not installed: no caller of the library
// sees them, and they are exported only so that the test programs, which link
// the shared library as callers do, can reach them.
#pragma once

#include <ctime>

#include "persistence/clock.h"
#include "persistence/export.h"

namespace leveldb {
class Env;
}

namespace persistence {
namespace testing {

using SteadyClockFunction = SteadyTimePoint (*)();
using WallClockFunction = std::time_t (*)();

// Replaces the clocks that SteadyNow() and WallNow() read, for every read
// that starts after the call. Null restores the real clock.
DRAVINHOLD_EXPORT void SetClocksForTesting(SteadyClockFunction steady, WallClockFunction wall);

// Every persistence::DB opened, repaired or destroyed after this call uses
// "env" instead of the default environment. Null restores it.
DRAVINHOLD_EXPORT void SetEnvForTesting(leveldb::Env* env);

}  // namespace testing
}  // namespace persistence
