// Upkeep and introspection: compaction, statistics, sizes and the state of
// the store.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvstore/kvstore_test_util.h"
#include "support/damage.h"
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

TEST(KVStoreUpkeep, StoreThatFailedToOpen) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 1000);
  // Another handle holds the directory's lock.
  persistence::DB holder(path);
  ASSERT_TRUE(holder.Open(true, false, false, 0).ok());
  TestStringStore store;
  EXPECT_EQ(store.Open(path, true),
            St(5, "IO error: lock " + path + "/LOCK: already held by process"));
  EXPECT_FALSE(store.is_open());
  EXPECT_EQ(store.path(), path);
  // The size is read from the directory, open or not.
  const uint64_t on_disk = DiskUsage(path);
  EXPECT_GT(on_disk, 3000u);
  EXPECT_EQ(store.GetSize(), on_disk);
  EXPECT_EQ(store.Compact(), Refused());
  std::string stats = "stale";
  std::string sstables = "stale";
  EXPECT_EQ(store.Stats(&stats, &sstables), Refused());
  EXPECT_EQ(stats, "");
  EXPECT_EQ(sstables, "");
  uint64_t size = 77;
  EXPECT_EQ(store.GetSizeOfKey("k0", size), Refused());
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(store.GetMaxSize(), 0u);
}

TEST(KVStoreUpkeep, IsOpenNeverReopens) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  EXPECT_TRUE(store.is_open());
  store.Close();
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  EXPECT_FALSE(store.is_open());
  EXPECT_EQ(store.reopen_calls.load(), 0);
  EXPECT_TRUE(log.lines().empty());
  // Compact passes the open gate like any record operation.
  EXPECT_EQ(store.Compact(), Ok());
  EXPECT_TRUE(store.is_open());
  EXPECT_EQ(store.reopen_calls.load(), 1);
  EXPECT_EQ(CountText(log, "Database reopened successfully!"), 1);
}

TEST(KVStoreUpkeep, CompactMovesRecordsIntoTablesAndKeepsThem) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(store.Put("k" + std::to_string(i), MakeValue("v"), false), Ok());
  }
  EXPECT_TRUE(testing_support::FilesWithSuffix(path, ".ldb").empty());
  EXPECT_EQ(store.Compact(), Ok());
  EXPECT_EQ(testing_support::FilesWithSuffix(path, ".ldb").size(), 1u);
  uint64_t count = 0;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 5u);
}

TEST(KVStoreUpkeep, StatsFillsAndClearsItsStrings) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 10);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  EXPECT_EQ(store.Stats(nullptr, nullptr), Ok());
  std::string stats = "stale";
  std::string sstables = "stale";
  EXPECT_EQ(store.Stats(&stats, &sstables), Ok());
  EXPECT_NE(stats.find("Compactions"), std::string::npos) << stats;
  EXPECT_EQ(stats.find("stale"), std::string::npos);
  EXPECT_NE(sstables.find("--- level 0 ---"), std::string::npos) << sstables;
  EXPECT_NE(sstables.find("'k0' @ "), std::string::npos) << sstables;
  std::string only_stats = "stale";
  EXPECT_EQ(store.Stats(&only_stats, nullptr), Ok());
  EXPECT_EQ(only_stats, stats);
}

TEST(KVStoreUpkeep, GetSizeOfKeyGivesTheHandlesAnswers) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 20000);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  uint64_t size = 77;
  EXPECT_EQ(store.GetSizeOfKey("zz", size), St(3, "NotFound: Key not found: zz"));
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(store.GetSizeOfKey("k2", size), St(3, "NotFound: Next key not found: k2"));
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(store.GetSizeOfKey("k0", size), Ok());
  // About one record of 20000 bytes that do not compress.
  EXPECT_GT(size, 15000u);
  EXPECT_LT(size, 25000u);
  // An absent key measures the range up to the entry after the one found.
  EXPECT_EQ(store.GetSizeOfKey("k", size), Ok());
  EXPECT_EQ(store.reopen_calls.load(), 0);
}

TEST(KVStoreUpkeep, GetSizeOfKeyTakesStoredBytesForMessageKeys) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  ASSERT_EQ(store.Put(MakeKey("", 1), MakeValue("one"), false), Ok());
  ASSERT_EQ(store.Put(MakeKey("", 2), MakeValue("two"), false), Ok());
  uint64_t size = 77;
  EXPECT_EQ(store.GetSizeOfKey(Wire(MakeKey("", 1)), size), Ok());
  EXPECT_EQ(store.GetSizeOfKey(Wire(MakeKey("", 2)), size),
            St(3, "NotFound: Next key not found: " + Wire(MakeKey("", 2))));
}

TEST(KVStoreUpkeep, GetSizeFollowsTheDirectory) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(store.Put("k" + std::to_string(i), MakeValue("v", i, Blob(i, 10000)), true), Ok());
  }
  const uint64_t size = store.GetSize();
  EXPECT_EQ(size, DiskUsage(path));
  EXPECT_GT(size, 100000u);
  // A directory that can't be measured counts as 0.
  testing_support::RemoveTree(path);
  EXPECT_EQ(store.GetSize(), 0u);
  EXPECT_EQ(store.GetMaxSize(), 0u);
}

}  // namespace
}  // namespace kvstore_test
