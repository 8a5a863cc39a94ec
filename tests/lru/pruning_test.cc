// Pruning: the pass over both databases, the walk by size estimates, the
// fallback by average size, compaction, and what Stop does to a pass.
#include <algorithm>
#include <regex>
#include <set>
#include <thread>

#include "lru_test_util.h"
#include "support/damage.h"
#include "support/fault_env.h"

namespace lru_test {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;

using RowMap = std::map<uint64_t, std::string>;

constexpr uint64_t kMiB = 1 << 20;

// What the walk by size selects from the present state of both databases: a
// second reading of the same estimates, for the numbers of the log line.
struct Selection {
  std::vector<std::string> main_keys;
  uint64_t sum = 0;
};

Selection SelectBySize(TestLruStore& store, uint64_t bytes) {
  Selection selection;
  EXPECT_EQ(store.lru().Iterate(
                [&](std::string lru_key, Row row) {
                  if (selection.sum >= bytes) return false;
                  uint64_t row_size = 0;
                  uint64_t entry_size = 0;
                  if (store.lru().GetSizeOfKey(lru_key, row_size).ok() &&
                      store.main().GetSizeOfKey(row.foreign_key(), entry_size).ok()) {
                    selection.sum += row_size + entry_size;
                    selection.main_keys.push_back(row.foreign_key());
                  }
                  return true;
                },
                nullptr),
            Ok());
  return selection;
}

std::string SelectionLine(const Selection& selection) {
  return "Number of entries to delete:  " + std::to_string(selection.main_keys.size()) +
         ", approximate size: " + std::to_string(selection.sum);
}

// Fills the store with "count" realistic records, keys HashKey(first) on,
// with their rows; the indexes follow the order of the keys.
void Fill(TestLruStore& store, uint64_t first, uint64_t count) {
  const uint64_t kBatch = 500;
  for (uint64_t start = first; start < first + count; start += kBatch) {
    std::vector<std::string> keys;
    std::vector<Value> values;
    for (uint64_t i = start; i < std::min(first + count, start + kBatch); ++i) {
      keys.push_back(HashKey(i));
      values.push_back(Record(i));
    }
    ASSERT_EQ(store.Put(keys, values, false), Ok());
    store.ApplyLruUpdates();
  }
}

// --- The size against the maximum -----------------------------------------------

// The directories are measured on disk in whole blocks: a file in the main
// directory brings the total to exactly 1 MiB, and one byte more in it to the
// next block.
TEST_F(LruTest, AStoreOfExactlyTheMaximumIsNotPrunedAndOneByteMoreIs) {
  TestLruStore store(1);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 20);
  ASSERT_EQ(store.Compact(), Ok());
  store.skip_compact = true;  // from here on the directories stand still
  const uint64_t before = store.GetSize();
  ASSERT_LT(before, kMiB);
  const std::string filler = path_ + "/filler";
  testing_support::WriteFile(filler, std::string(kMiB - before, 'f'));
  ASSERT_EQ(store.GetSize(), kMiB);
  log_.clear();

  store.Prune();
  EXPECT_THAT(Lines(log_), IsEmpty());
  EXPECT_EQ(Entries(store).size(), 20u);

  testing_support::WriteFile(filler, std::string(kMiB - before + 1, 'f'));
  const uint64_t over = store.GetSize();
  ASSERT_GT(over, kMiB);
  const uint64_t target = 838860;  // 0.8 MiB, truncated
  const Selection selection = SelectBySize(store, over - target);
  store.Prune();
  const std::vector<Line> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], Line(kInfo, "Total size of store is " + std::to_string(over) +
                                      " bytes, exceeded maximum: 1048576 bytes"));
  EXPECT_EQ(lines[1], Line(kDebug, "Need to delete approximately " + std::to_string(over - target) +
                                       " bytes in order to reach 838860."));
  EXPECT_EQ(lines[2], Line(kInfo, SelectionLine(selection)));
  EXPECT_EQ(lines[3], Line(kInfo, "Finished deleting old entries."));
  EXPECT_EQ(lines[4], Line(kInfo, "Total size of store after prunning is " +
                                      std::to_string(store.GetSize()) + " bytes."));
  EXPECT_EQ(Entries(store).size(), 20u - selection.main_keys.size());
  EXPECT_GT(selection.main_keys.size(), 0u);
}

TEST_F(LruTest, OverTheMaximumWithAnEmptyMainStoreLogsTheSizeAndDeletesNothing) {
  TestLruStore store(0);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.AddToLru(1, "ghost"), Ok());
  store.Prune();
  const uint64_t size = store.GetSize();
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kInfo, "Total size of store is " + std::to_string(size) +
                                           " bytes, exceeded maximum: 0 bytes"}}));
  EXPECT_EQ(Rows(store), (RowMap{{1, "ghost"}}));
  EXPECT_EQ(store.compact_calls, 1);
}

TEST_F(LruTest, TwentyMillionBytesAgainstSixteenMebibytesIsAnExcessOf6578228) {
  TestLruStore store(16);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 30);
  ASSERT_EQ(store.Compact(), Ok());
  store.skip_compact = true;
  store.size_override = 20000000;
  const Selection selection = SelectBySize(store, 6578228);
  log_.clear();
  store.Prune();
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{
                {kInfo, "Total size of store is 20000000 bytes, exceeded maximum: 16777216 bytes"},
                {kDebug, "Need to delete approximately 6578228 bytes in order to reach 13421772."},
                {kInfo, SelectionLine(selection)},
                {kInfo, "Finished deleting old entries."},
                {kInfo, "Total size of store after prunning is 20000000 bytes."}}));
  EXPECT_EQ(store.compact_calls, 3);  // the test's own, then before and after
  EXPECT_EQ(store.get_size_calls, 2);
}

// --- The walk by size -------------------------------------------------------------

// Rows are numbered in the order of the puts: "e" is the oldest and the last
// key of the main store, "d" the newest.
TEST_F(LruTest, TheNewestRowAndTheRowOfTheLastKeyAreNeverSelected) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  for (const char* key : {"e", "a", "b", "c", "d"}) {
    Value value = Record(key[0]);
    ASSERT_EQ(store.Put(key, value), Ok());
  }
  store.ApplyLruUpdates();
  ASSERT_EQ(store.Compact(), Ok());
  ASSERT_EQ(Rows(store), (RowMap{{1, "e"}, {2, "a"}, {3, "b"}, {4, "c"}, {5, "d"}}));
  const Selection selection = SelectBySize(store, UINT64_MAX);
  ASSERT_EQ(selection.main_keys, (std::vector<std::string>{"a", "b", "c"}));

  uint64_t deleted = 10;
  EXPECT_EQ(store.DeleteOldEntriesBySize(UINT64_MAX, deleted), Ok());
  EXPECT_EQ(deleted, 13u);  // added to what it held
  EXPECT_EQ(Rows(store), (RowMap{{1, "e"}, {5, "d"}}));
  std::set<std::string> left;
  for (const auto& [key, value] : Entries(store)) left.insert(key);
  EXPECT_EQ(left, (std::set<std::string>{"d", "e"}));
  EXPECT_EQ(Lines(log_), (std::vector<Line>{{kInfo, SelectionLine(selection)}}));
}

// When all estimates together stay below the excess, the walk selects every
// row it can measure and the pass leaves only the two entries it can't.
TEST_F(LruTest, EstimatesBelowTheExcessTakeEveryEntryTheWalkCanMeasure) {
  TestLruStore store(16);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 200);
  ASSERT_EQ(store.Compact(), Ok());
  const RowMap rows = Rows(store);
  const std::string newest = rows.rbegin()->second;
  const std::string last_key = Entries(store).rbegin()->first;
  ASSERT_NE(newest, last_key);
  store.skip_compact = true;
  store.size_override = 100u << 20;  // an excess of far more than the store holds
  const Selection selection = SelectBySize(store, (100u << 20) - 13421772);
  ASSERT_LT(selection.sum, (100u << 20) - 13421772);
  ASSERT_EQ(selection.main_keys.size(), 198u);
  store.Prune();
  std::set<std::string> left;
  for (const auto& [key, value] : Entries(store)) left.insert(key);
  EXPECT_EQ(left, (std::set<std::string>{newest, last_key}));
  EXPECT_EQ(LinesWith(log_, "Number of entries to delete:")[0].text, SelectionLine(selection));
}

TEST_F(LruTest, TheWalkStopsOnceTheEstimatesReachTheRequest) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 400);
  ASSERT_EQ(store.Compact(), Ok());
  const RowMap rows_before = Rows(store);
  const std::string last_key = Entries(store).rbegin()->first;
  const Selection all = SelectBySize(store, UINT64_MAX);
  ASSERT_GT(all.sum, 0u);
  const Selection half = SelectBySize(store, all.sum / 2);
  ASSERT_LT(half.main_keys.size(), all.main_keys.size());
  ASSERT_GE(half.sum, all.sum / 2);

  uint64_t deleted = 0;
  EXPECT_EQ(store.DeleteOldEntriesBySize(all.sum / 2, deleted), Ok());
  EXPECT_EQ(deleted, half.main_keys.size());
  EXPECT_EQ(Lines(log_), (std::vector<Line>{{kInfo, SelectionLine(half)}}));
  // The oldest rows went, in order, but for the one of the main store's last
  // key, which can't be measured.
  const std::set<std::string> selected(half.main_keys.begin(), half.main_keys.end());
  RowMap expected;
  for (const auto& [index, key] : rows_before) {
    if (selected.count(key) == 0) expected[index] = key;
  }
  EXPECT_EQ(Rows(store), expected);
  uint64_t first_kept = 0;
  for (const auto& [index, key] : expected) {
    if (key != last_key) {
      first_kept = index;
      break;
    }
  }
  for (const auto& [index, key] : rows_before) {
    if (selected.count(key) == 1) {
      EXPECT_LT(index, first_kept) << key;
    }
  }
  EXPECT_EQ(Entries(store).size(), 400u - half.main_keys.size());
}

TEST_F(LruTest, AWalkForZeroBytesSelectsNothing) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 10);
  uint64_t deleted = 0;
  EXPECT_EQ(store.DeleteOldEntriesBySize(0, deleted), Ok());
  EXPECT_EQ(deleted, 0u);
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kInfo, "Number of entries to delete:  0, approximate size: 0"}}));
  EXPECT_EQ(Rows(store).size(), 10u);
}

// Rows left behind by deletes are measured where their key would stand and
// go with their neighbours.
TEST_F(LruTest, RowsOfDeletedEntriesAreSelectedAndRemoved) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value ghost = Record(1);
  ASSERT_EQ(store.Put("b-ghost", ghost), Ok());
  ASSERT_EQ(store.Delete("b-ghost"), Ok());  // its note still writes row 1
  for (const char* key : {"a", "b", "c", "d"}) {
    Value value = Record(key[0]);
    ASSERT_EQ(store.Put(key, value), Ok());
  }
  store.ApplyLruUpdates();
  ASSERT_EQ(Rows(store), (RowMap{{1, "b-ghost"}, {2, "a"}, {3, "b"}, {4, "c"}, {5, "d"}}));
  uint64_t deleted = 0;
  EXPECT_EQ(store.DeleteOldEntriesBySize(UINT64_MAX, deleted), Ok());
  EXPECT_EQ(deleted, 4u);  // the absent key counts: the bulk delete names it
  EXPECT_EQ(Rows(store), (RowMap{{5, "d"}}));
  EXPECT_EQ(Entries(store).size(), 1u);
}

TEST_F(LruTest, AWalkOverAClosedLruFailsAndDeletesNothing) {
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  Value value = Record(1);
  ASSERT_EQ(store.Put("a", value), Ok());
  log_.clear();
  uint64_t deleted = 0;
  EXPECT_EQ(store.DeleteOldEntriesBySize(100, deleted), St(5, ""));
  EXPECT_EQ(
      Lines(log_),
      (std::vector<Line>{{kInfo, "Failed to compute approximate size to delete old entries."}}));
  EXPECT_EQ(Entries(store).size(), 1u);
}

// --- The fallback by average size ----------------------------------------------------

TEST_F(LruTest, DeletingZeroByAverageReadsNothing) {
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  log_.clear();
  EXPECT_EQ(store.DeleteOldByAvgEntries(0), Ok());
  EXPECT_THAT(Lines(log_), IsEmpty());
  // One row asked for is a read, which meets the closed database.
  EXPECT_EQ(store.DeleteOldByAvgEntries(1), St(5, ""));
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError,
                                "Failed to read entries from LRU store while trying to delete, "
                                "error=5, message="}}));
}

TEST_F(LruTest, Deleting3000ByAverageTakesTheOldest3000InBatches) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 3100);
  EXPECT_EQ(store.DeleteOldByAvgEntries(3000), Ok());
  EXPECT_THAT(Lines(log_), IsEmpty());
  const RowMap rows = Rows(store);
  ASSERT_EQ(rows.size(), 100u);
  EXPECT_EQ(rows.begin()->first, 3001u);
  EXPECT_EQ(rows.rbegin()->first, 3100u);
  const std::map<std::string, Value> entries = Entries(store);
  ASSERT_EQ(entries.size(), 100u);
  for (uint64_t i = 3000; i < 3100; ++i) EXPECT_EQ(entries.count(HashKey(i)), 1u) << i;
}

TEST_F(LruTest, DeletingMoreByAverageThanThereAreRowsWarnsWithTheRemainder) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 1100);
  EXPECT_EQ(store.DeleteOldByAvgEntries(3000), Ok());
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{
                {kWarning, "Requested 1900 more entries to delete, but none were found"}}));
  EXPECT_THAT(Rows(store), IsEmpty());
  EXPECT_THAT(Entries(store), IsEmpty());
}

// The walk by size fails at its delete from the main store; the fallback
// works out its count from the average size and fails there too.
TEST_F(LruTest, AFailedWalkFallsBackToTheAverageWithItsOwnCount) {
  testing_support::FaultEnv env;
  env.only_files = "enrichment/";  // the main store, not "enrichment.lru/"
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store(0);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 2000);
  ASSERT_EQ(store.Compact(), Ok());
  store.skip_compact = true;
  store.size_override = 1000;
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path_, ".log");
  ASSERT_EQ(logs.size(), 1u);
  const std::string failure = "IO error: " + path_ + "/" + logs[0] + ": injected write failure";
  const Selection selection = SelectBySize(store, 1000);
  log_.clear();

  env.fail_writes = true;
  store.Prune();
  // size 1000 over count 2000 is an average of 1: 1000 entries wanted.
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{
                {kInfo, "Total size of store is 1000 bytes, exceeded maximum: 0 bytes"},
                {kDebug, "Need to delete approximately 1000 bytes in order to reach 0."},
                {kInfo, SelectionLine(selection)},
                {kError, "Failed to delete entries from store, error=5, message=" + failure},
                {kInfo, "Failed to delete entries by size. Trying to delete 1000 entries."},
                {kError, "Failed to delete entries from store, error=5, message=" + failure},
                {kError, "Failed to delete old entries, error=5, message=" + failure},
                {kInfo, "Total size of store after prunning is 1000 bytes."}}));

  // 3000 bytes over 2000 entries is an average of 1 too, and the count caps
  // what is wanted.
  log_.clear();
  store.size_override = 3000;
  const Selection larger = SelectBySize(store, 3000);
  store.Prune();
  const std::vector<Line> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[2], Line(kInfo, SelectionLine(larger)));
  EXPECT_EQ(lines[4],
            Line(kInfo, "Failed to delete entries by size. Trying to delete 2000 entries."));
  env.fail_writes = false;
  EXPECT_EQ(Entries(store).size(), 2000u);
  EXPECT_EQ(Rows(store).size(), 2000u);
}

// --- Compaction ------------------------------------------------------------------------

TEST_F(LruTest, CompactAfterStopCompactsTheLruDatabaseOnly) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(1);
  ASSERT_EQ(store.Put("a", value), Ok());
  ASSERT_EQ(store.AddToLru(1, "a"), Ok());
  const size_t main_tables = testing_support::FilesWithSuffix(path_, ".ldb").size();
  const size_t lru_tables = testing_support::FilesWithSuffix(lru_path_, ".ldb").size();
  store.Stop();
  EXPECT_EQ(store.Compact(), Ok());
  EXPECT_EQ(testing_support::FilesWithSuffix(path_, ".ldb").size(), main_tables);
  EXPECT_EQ(testing_support::FilesWithSuffix(lru_path_, ".ldb").size(), lru_tables + 1);
}

TEST_F(LruTest, AFailedCompactionOfTheLruIsLoggedAndHiddenByTheMainStores) {
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  log_.clear();
  EXPECT_EQ(store.Compact(), Ok());
  EXPECT_EQ(Lines(log_), (std::vector<Line>{{kError, "Failed to compact lru, error=5, message="}}));
  store.Stop();
  log_.clear();
  EXPECT_EQ(store.Compact(), St(5, ""));
}

TEST_F(LruTest, SizeIsBothDirectoriesInBytesAndTheMaximumStaysInMebibytes) {
  TestLruStore store(16);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 50);
  ASSERT_EQ(store.Compact(), Ok());
  unsigned long main_size = 0;
  unsigned long lru_size = 0;
  ASSERT_EQ(GetDirSizeOnDisk(path_, &main_size), 0);
  ASSERT_EQ(GetDirSizeOnDisk(lru_path_, &lru_size), 0);
  EXPECT_EQ(store.GetSize(), main_size + lru_size);
  EXPECT_EQ(store.GetMaxSize(), 16u);
}

// --- Stop during a pass -------------------------------------------------------------------

TEST_F(LruTest, StopDuringTheFirstCompactionEndsThePassThere) {
  TestLruStore store(0);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 10);
  store.on_compact = [&] { store.Stop(); };
  store.Prune();
  EXPECT_EQ(store.compact_calls, 1);
  EXPECT_EQ(store.get_size_calls, 0);
  EXPECT_THAT(Lines(log_), IsEmpty());
  EXPECT_EQ(Entries(store).size(), 10u);
}

TEST_F(LruTest, StopWhileMeasuringEndsThePassBeforeAnyDelete) {
  TestLruStore store(0);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 10);
  store.size_override = 5000;
  store.on_get_size = [&] { store.Stop(); };
  store.Prune();
  EXPECT_EQ(Lines(log_), (std::vector<Line>{{kInfo,
                                             "Total size of store is 5000 bytes, "
                                             "exceeded maximum: 0 bytes"}}));
  EXPECT_EQ(store.compact_calls, 1);
  EXPECT_EQ(Entries(store).size(), 10u);
}

// Stop arrives while the walk's selection is deleted: the delete finishes,
// and no further compaction starts and no final size line appears.
TEST_F(LruTest, StopDuringTheDeleteSkipsTheSecondCompactionAndTheFinalSize) {
  TestLruStore store(0);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 10);
  Poco::AutoPtr<HookChannel> channel(new HookChannel);
  channel->hook = [&](const testing_support::LoggedLine& line) {
    if (line.text.rfind("Number of entries to delete:", 0) == 0) store.Stop();
  };
  channel->Install();
  store.Prune();
  const std::vector<Line> lines = Lines(channel->lines());
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[3], Line(kInfo, "Finished deleting old entries."));
  EXPECT_EQ(store.compact_calls, 1);
  EXPECT_EQ(store.get_size_calls, 1);
  EXPECT_LT(Entries(store).size(), 10u);
}

TEST_F(LruTest, APassOfAStoppedStoreDoesNothing) {
  TestLruStore store(0);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Fill(store, 0, 10);
  store.Stop();
  store.Prune();
  EXPECT_EQ(store.compact_calls, 0);
  EXPECT_EQ(store.DeleteOldByAvgEntries(5), Ok());
  EXPECT_EQ(Rows(store).size(), 10u);
}

// --- The time spent pruning ---------------------------------------------------------------

TEST_F(LruTest, PruningDurationIsReadOnceAndThenZero) {
  TestLruStore store(16, 300s, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_EQ(store.GetAndResetPruningDuration(), 0u);
  // The compaction of the pass takes seven seconds of the test's clock.
  store.on_compact = [&] { clock_.Advance(7s); };
  ASSERT_TRUE(WaitUntil([] { return CountThreads("LruStorePrune") == 1; }));
  std::this_thread::sleep_for(100ms);  // the thread takes its deadline
  clock_.Advance(301s);
  ASSERT_TRUE(WaitUntil([&] {
    store.Wake();
    return store.compact_calls == 1;
  }));
  store.Stop();  // the last pass returns at once
  EXPECT_EQ(store.compact_calls, 1);
  EXPECT_EQ(store.GetAndResetPruningDuration(), 7000000000u);
  EXPECT_EQ(store.GetAndResetPruningDuration(), 0u);
}

// --- Pruning a store of realistic records ----------------------------------------------------

// Fills a 1 MiB store to several MiB, renews some of the oldest entries and
// leaves rows of deleted entries at both ends, then runs one pass.
TEST_F(LruTest, APassOverRealDataKeepsTheMostRecentlyUsedBelowTheMaximum) {
  TestLruStore store(1);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  std::set<std::string> ghosts;
  auto leave_ghosts = [&](const std::string& prefix) {
    for (int i = 0; i < 5; ++i) {
      const std::string key = prefix + std::to_string(i);
      Value value = Record(900000 + i);
      ASSERT_EQ(store.Put(key, value), Ok());
      ASSERT_EQ(store.Delete(key), Ok());  // the note still writes its row
      ghosts.insert(key);
    }
    store.ApplyLruUpdates();
  };
  leave_ghosts("7-old-ghost-");  // inside the range of the hash keys
  const uint64_t kCount = 16000;
  Fill(store, 0, kCount);
  clock_.AdvanceWall(61);
  std::set<std::string> renewed;
  for (uint64_t i = 0; i < 2000; i += 10) {
    Value value;
    ASSERT_EQ(store.Get(HashKey(i), &value), Ok());
    renewed.insert(HashKey(i));
  }
  store.ApplyLruUpdates();
  leave_ghosts("8-young-ghost-");
  ASSERT_EQ(store.Compact(), Ok());
  const uint64_t before = store.GetSize();
  ASSERT_GT(before, 3 * kMiB) << "not enough data to prune";

  const std::map<std::string, std::pair<int64_t, uint64_t>> lru_before = LruData(store);
  const RowMap rows_before = Rows(store);
  ASSERT_EQ(lru_before.size(), kCount);
  ASSERT_EQ(rows_before.size(), kCount + 10);
  log_.clear();

  store.Prune();

  // The lines: the size, the amount, the selection, the end.
  const std::vector<Line> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 5u);
  std::smatch match;
  ASSERT_TRUE(std::regex_match(
      lines[0].second, match,
      std::regex("Total size of store is ([0-9]+) bytes, exceeded maximum: 1048576 bytes")));
  const uint64_t measured = std::stoull(match[1]);
  EXPECT_GT(measured, 3 * kMiB);
  EXPECT_EQ(lines[1],
            Line(kDebug, "Need to delete approximately " + std::to_string(measured - 838860) +
                             " bytes in order to reach 838860."));
  ASSERT_TRUE(std::regex_match(
      lines[2].second, match,
      std::regex("Number of entries to delete:  ([0-9]+), approximate size: ([0-9]+)")));
  const uint64_t selected = std::stoull(match[1]);
  EXPECT_GE(std::stoull(match[2]), measured - 838860);
  EXPECT_EQ(lines[3], Line(kInfo, "Finished deleting old entries."));
  const uint64_t after = store.GetSize();
  EXPECT_EQ(lines[4], Line(kInfo, "Total size of store after prunning is " + std::to_string(after) +
                                      " bytes."));

  // Below the maximum.
  EXPECT_LT(after, kMiB);

  // Every selected row went, with its entry.
  const RowMap rows_after = Rows(store);
  EXPECT_EQ(rows_before.size() - rows_after.size(), selected);

  // The entries left are the most recently used: every deleted entry was
  // used before every entry left, but for the main store's last key, whose
  // row the walk can't measure.
  const std::map<std::string, std::pair<int64_t, uint64_t>> lru_after = LruData(store);
  const std::string last_key = lru_before.rbegin()->first;
  uint64_t newest_deleted = 0;
  uint64_t oldest_kept = UINT64_MAX;
  for (const auto& [key, data] : lru_before) {
    if (lru_after.count(key) == 0) {
      newest_deleted = std::max(newest_deleted, data.second);
    } else if (key != last_key) {
      oldest_kept = std::min(oldest_kept, data.second);
    }
  }
  EXPECT_LT(newest_deleted, oldest_kept);
  EXPECT_GT(lru_after.size(), 0u);
  EXPECT_LT(lru_after.size(), kCount / 2);
  for (const std::string& key : renewed) EXPECT_EQ(lru_after.count(key), 1u) << key;
  std::map<std::string, std::pair<int64_t, uint64_t>> expected_kept;
  for (const auto& [key, data] : lru_before) {
    if (data.second >= oldest_kept || key == last_key) expected_kept[key] = data;
  }
  EXPECT_EQ(lru_after, expected_kept);

  // Every row left points to an entry, or is a row of a deleted entry; the
  // old ones of those went with their neighbours.
  for (const auto& [index, key] : rows_after) {
    if (lru_after.count(key) == 1) {
      EXPECT_EQ(lru_after.at(key).second, index) << key;
    } else {
      EXPECT_EQ(ghosts.count(key), 1u) << "row " << index << " -> " << key;
      EXPECT_EQ(key.rfind("8-young-ghost-", 0), 0u) << key;
    }
  }
  // Every entry left has its row.
  std::set<uint64_t> row_indexes;
  for (const auto& [index, key] : rows_after) row_indexes.insert(index);
  for (const auto& [key, data] : lru_after) EXPECT_EQ(row_indexes.count(data.second), 1u) << key;
}

}  // namespace
}  // namespace lru_test
