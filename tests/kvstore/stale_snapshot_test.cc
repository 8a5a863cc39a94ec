// Snapshots that a caller holds across a reopen made behind its back: the
// reopened database never saw them, and the store must not hand them to it.
#include <gtest/gtest.h>

#include <string>

#include "kvstore/kvstore_test_util.h"
#include "support/log_capture.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace kvstore_test {
namespace {

using testing_support::LogCapture;
using testing_support::StderrCapture;
using testing_support::TempDir;
using testing_support::TestClock;

const char kStale[] = "Invalid argument: snapshot: stale";

TEST(KVStoreStaleSnapshot, ASnapshotFromBeforeAReopenIsStaleAfterIt) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  ASSERT_EQ(store.Put("a", MakeValue("old"), false), Ok());
  const void* snapshot = nullptr;
  ASSERT_EQ(store.CreateSnapshot(&snapshot), Ok());

  clock.Advance(kReopenDelay);
  {
    TestStringStore::SharedLock lock(store.mutex());
    ASSERT_EQ(store.CallReopen(lock), Ok());
  }
  ASSERT_EQ(store.Put("a", MakeValue("new"), false), Ok());

  LogCapture log(kLoggerName);
  StderrCapture err;
  Value value = MakeValue("left");
  EXPECT_EQ(store.Get("a", &value, snapshot), St(2, kStale));
  uint64_t count = 5;
  EXPECT_EQ(store.Count(&count, snapshot), St(2, kStale));
  EXPECT_EQ(store.ReleaseSnapshot(snapshot), St(2, kStale));
  // Not a reason to reopen, and nothing to report: the caller's handle is
  // merely out of date.
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(err.Text(), "");
  ASSERT_EQ(store.Get("a", &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "new");
}

TEST(KVStoreStaleSnapshot, ASnapshotReleasedTwiceIsStaleTheSecondTime) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), false), Ok());
  const void* snapshot = nullptr;
  ASSERT_EQ(store.CreateSnapshot(&snapshot), Ok());
  EXPECT_EQ(store.ReleaseSnapshot(snapshot), Ok());
  EXPECT_EQ(store.ReleaseSnapshot(snapshot), St(2, kStale));
}

}  // namespace
}  // namespace kvstore_test
