// What the tests of the plain stores share: a data root of their own for the
// stores' directories, the clocks under the test's control, a capture of the
// stores' logger, and ways to prepare or spoil a store's directory before its
// first use.
//
// The stores are process-wide singletons opened on first use; every test runs
// in a process of its own (see CMakeLists.txt), so each test sees that first
// use for real.
#pragma once

#include <Poco/Message.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "persistence/db.h"
#include "persistence/testing/seams.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace stores_testing {

constexpr int kCritical = Poco::Message::PRIO_CRITICAL;
constexpr int kError = Poco::Message::PRIO_ERROR;
constexpr int kWarning = Poco::Message::PRIO_WARNING;
constexpr int kNotice = Poco::Message::PRIO_NOTICE;
constexpr int kDebug = Poco::Message::PRIO_DEBUG;
constexpr int kTrace = Poco::Message::PRIO_TRACE;

// A logged line reduced to what the tests compare: priority and text.
using Line = std::pair<int, std::string>;

inline std::vector<Line> Lines(const testing_support::LogCapture& log) {
  std::vector<Line> lines;
  for (const testing_support::LoggedLine& line : log.lines()) {
    lines.emplace_back(line.priority, line.text);
  }
  return lines;
}

inline bool PathExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

inline bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The line the check in a store's Open() writes when its database does not
// open: "store" is the directory name of the store's sources.
inline std::string OpenCheckLine(const std::string& store, int code, const std::string& message) {
  return "Line 9 @ nix/dravinhold/" + store + "/" + store +
         "_def.h *** Assertion '((status.ok()))' failed *** status code=" + std::to_string(code) +
         " message=" + message;
}

// The engine's text for a database directory that is a regular file.
inline std::string NotADirectoryText(const std::string& path) {
  return "IO error: " + path + "/LOCK: Not a directory";
}

// Writes raw records into the database at "path" with a handle of its own,
// and closes it again, so that a store can open it afterwards.
inline void WriteRawRecords(const std::string& path,
                            const std::vector<std::pair<std::string, std::string>>& records) {
  persistence::DB db(path);
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  for (const auto& [key, value] : records) ASSERT_TRUE(db.Put(key, value, true).ok());
  ASSERT_TRUE(db.Compact().ok());
  ASSERT_TRUE(db.Close().ok());
}

// A failing environment that outlives the test: a store's database keeps the
// environment it was opened with until the store's destructor closes it at
// process exit, after every local of the test has gone.
inline testing_support::FaultEnv& LastingFaultEnv() {
  static testing_support::FaultEnv* const env = new testing_support::FaultEnv;
  return *env;
}

// A steady clock that moves one nanosecond at every read, so that a test can
// tell which read a stored time came from: Last() is the latest value handed
// out. Replaces the test clock's steady clock while alive; the wall clock
// becomes the real one.
class CountingSteadyClock {
 public:
  CountingSteadyClock() {
    Counter() = std::chrono::nanoseconds(std::chrono::hours(2)).count();
    persistence::testing::SetClocksForTesting(&Read, nullptr);
  }
  ~CountingSteadyClock() { persistence::testing::SetClocksForTesting(nullptr, nullptr); }
  CountingSteadyClock(const CountingSteadyClock&) = delete;
  CountingSteadyClock& operator=(const CountingSteadyClock&) = delete;

  static persistence::SteadyTimePoint Last() {
    return persistence::SteadyTimePoint(std::chrono::nanoseconds(Counter().load()));
  }

 private:
  static std::atomic<int64_t>& Counter() {
    static std::atomic<int64_t> counter{0};
    return counter;
  }
  static persistence::SteadyTimePoint Read() {
    return persistence::SteadyTimePoint(std::chrono::nanoseconds(++Counter()));
  }
};

// "size" bytes of every value, with a zero byte at every seventh place.
inline std::string BinaryBlob(size_t size) {
  std::string blob(size, '\0');
  uint32_t state = 12345;
  for (size_t i = 0; i < size; ++i) {
    state = state * 1103515245u + 12345u;
    blob[i] = static_cast<char>(i % 7 == 0 ? 0 : state >> 16);
  }
  return blob;
}

// The state every test of a store starts from: $ZERLA_DATA_ROOT names a fresh
// directory, the steady clock stands at one hour and the wall clock at
// 1700000000, and the "LibPersistence" logger writes into log_ at every
// level.
class StoreTest : public ::testing::Test {
 protected:
  StoreTest() { setenv("ZERLA_DATA_ROOT", root_.path().c_str(), 1); }

  // The directory of the store named "store", e.g. "fvhash_store".
  std::string StorePath(const std::string& store) const { return root_.Sub(store); }

  // Puts a regular file where the store's directory belongs: the database
  // can then neither be opened nor created.
  void BlockStoreDirectory(const std::string& store) const {
    testing_support::WriteFile(StorePath(store), "not a directory");
  }

  std::vector<Line> LogLines() const { return Lines(log_); }

  testing_support::TempDir root_;
  testing_support::TestClock clock_;
  testing_support::LogCapture log_{"LibPersistence"};
};

}  // namespace stores_testing
