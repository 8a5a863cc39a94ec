// The LRU store's model: construction, the key form of the side database,
// Open, the index counter, Stop and the two threads.
#include <chrono>
#include <thread>

#include "lru_test_util.h"
#include "support/damage.h"

namespace lru_test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char kIntervalLine[] =
    "Pruning interval was set to 299 seconds, which is less than the minimum - one hour.";

TEST_F(LruTest, IntervalBelowFiveMinutesIsRaisedWithALine) {
  TestLruStore store(16, 299s);
  EXPECT_EQ(store.pruning_interval(), 300s);
  ASSERT_EQ(Lines(log_), (std::vector<Line>{{kInfo, kIntervalLine}}));
  const testing_support::LoggedLine line = log_.lines()[0];
  EXPECT_EQ(line.source, "Enrichment");
  EXPECT_EQ(line.file, kLruSource);
  EXPECT_EQ(line.ndc, "");
}

TEST_F(LruTest, IntervalOfExactlyFiveMinutesIsKeptSilently) {
  TestLruStore store(16, 300s);
  EXPECT_EQ(store.pruning_interval(), 300s);
  TestLruStore daily(16, 24h);
  EXPECT_EQ(daily.pruning_interval(), 24h);
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, IntervalBelowOneSecondCountsWholeSeconds) {
  TestLruStore store(16, 1500ms);
  EXPECT_EQ(store.pruning_interval(), 300s);
  EXPECT_EQ(Lines(log_), (std::vector<Line>{{kInfo,
                                             "Pruning interval was set to 1 seconds, which is less "
                                             "than the minimum - one hour."}}));
}

// With a maximum of 0 MiB every pass over a non-empty store logs the size
// line, which shows when the pruning thread has run.
TEST_F(LruTest, RaisedIntervalSpacesThePrunePassesFiveMinutesApart) {
  TestLruStore store(0, 1s, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(1);
  ASSERT_EQ(store.Put(HashKey(1), value), Ok());
  ASSERT_TRUE(WaitUntil([] { return CountThreads("LruStorePrune") == 1; }));
  std::this_thread::sleep_for(100ms);  // the thread takes its deadline
  log_.clear();

  clock_.Advance(299s);
  store.Wake();
  std::this_thread::sleep_for(200ms);
  EXPECT_THAT(LinesWith(log_, "Total size of store is"), IsEmpty());

  clock_.Advance(1s);
  ASSERT_TRUE(WaitUntil([&] {
    store.Wake();
    return !LinesWith(log_, "Total size of store is").empty();
  }));
  // Before measuring and after deleting; the size line comes between them.
  EXPECT_TRUE(WaitUntil([&] { return store.compact_calls == 2; }));
  EXPECT_EQ(store.compact_calls, 2);
}

// --- The key form ----------------------------------------------------------

TEST(LruKeyForm, IndexesAreTwentyBlankPaddedDigits) {
  EXPECT_EQ(LruKey(7), std::string(19, ' ') + "7");
  EXPECT_EQ(LruKey(1000), std::string(16, ' ') + "1000");
  EXPECT_EQ(LruKey(7).size(), 20u);
  EXPECT_EQ(LruKey(1000).size(), 20u);
  EXPECT_LT(LruKey(7), LruKey(1000));
  EXPECT_EQ(LruKey(0), std::string(19, ' ') + "0");
  EXPECT_EQ(LruKey(UINT64_MAX), "18446744073709551615");
  EXPECT_LT(LruKey(99999999999ULL), LruKey(100000000000ULL));
}

TEST_F(LruTest, RowsLieInNumericOrderOnDisk) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.AddToLru(1000, "later"), Ok());
  ASSERT_EQ(store.AddToLru(7, "earlier"), Ok());
  ASSERT_EQ(store.AddToLru(20, "middle"), Ok());
  std::vector<std::string> keys;
  std::vector<Row> rows;
  ASSERT_EQ(store.lru().ReadInterval(1, 10, &keys, &rows, nullptr), Ok());
  EXPECT_THAT(keys, ElementsAre(LruKey(7), LruKey(20), LruKey(1000)));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].foreign_key(), "earlier");
  EXPECT_EQ(rows[2].foreign_key(), "later");
  uint64_t index = 0;
  EXPECT_EQ(store.GetCurrentLruIndex(&index), Ok());
  EXPECT_EQ(index, 1000u);
}

TEST_F(LruTest, RowBytesAreTheForeignKeyMessageAlone) {
  {
    TestLruStore store;
    ASSERT_EQ(store.Open(path_, 0), Ok());
    ASSERT_EQ(store.AddToLru(7, "abc"), Ok());
  }
  const std::map<std::string, std::string> raw = ReadRaw(lru_path_);
  // Field 1, length 3, "abc".
  EXPECT_EQ(raw, (std::map<std::string, std::string>{{LruKey(7), std::string("\x0a\x03"
                                                                             "abc")}}));
}

// --- Open and the index counter ---------------------------------------------

TEST_F(LruTest, OpenOnFreshDirectoriesNumbersTheFirstRenewalOne) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_TRUE(store.is_open());
  EXPECT_TRUE(store.lru().is_open());
  EXPECT_EQ(store.path(), path_);
  EXPECT_EQ(store.lru().path(), lru_path_);
  EXPECT_EQ(store.current_index(), 0u);
  EXPECT_TRUE(store.running());

  Value value = Record(1);
  ASSERT_EQ(store.Put(HashKey(1), value), Ok());
  EXPECT_EQ(value.lru_data().index(), 1u);
  EXPECT_EQ(value.lru_data().last_used(), kWallStart);
  EXPECT_THAT(store.notes(), ElementsAre(Note{HashKey(1), 0, 1}));
  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (std::map<uint64_t, std::string>{{1, HashKey(1)}}));
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, OpenContinuesAboveTheHighestRowWhateverTheValuesSay) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 1000, 50))},
                   {"b", Wire(Stamped(kWallStart - 1000, 3))}});
  WriteRaw(lru_path_, {{LruKey(3), RowWire("b")}, {LruKey(12), RowWire("a")}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_EQ(store.current_index(), 12u);

  Value fresh = Record(9);
  ASSERT_EQ(store.Put("c", fresh), Ok());
  EXPECT_EQ(fresh.lru_data().index(), 13u);
  Value read;
  ASSERT_EQ(store.Get("a", &read), Ok());
  EXPECT_EQ(read.lru_data().index(), 14u);
  EXPECT_THAT(store.notes(), ElementsAre(Note{"c", 0, 13}, Note{"a", 50, 14}));
}

TEST_F(LruTest, CurrentIndexIntoNullIsCode2WithTheCheckLine) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  log_.clear();
  EXPECT_EQ(store.GetCurrentLruIndex(nullptr), St(2, "Invalid argument: index: nullptr"));
  EXPECT_EQ(
      Lines(log_),
      (std::vector<Line>{{kError, CheckHeader("CHECK_LOGGED(EnrichmentLogger, index,", "index") +
                                      "Invalid out parameter, index is NULL"}}));
}

TEST_F(LruTest, LastKeyWithANonDigitRestartsTheNumberingAtZero) {
  const std::string damaged = std::string(17, ' ') + "1x2";
  ASSERT_GT(damaged, LruKey(12));  // it is the last key
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 1000, 12))}});
  WriteRaw(lru_path_, {{LruKey(12), RowWire("a")}, {damaged, RowWire("a")}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_EQ(store.current_index(), 0u);
  uint64_t index = 99;
  EXPECT_EQ(store.GetCurrentLruIndex(&index), Ok());
  EXPECT_EQ(index, 0u);
  Value value = Record(2);
  ASSERT_EQ(store.Put("b", value), Ok());
  EXPECT_EQ(value.lru_data().index(), 1u);
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, CurrentIndexOfAnEmptyLruIsZero) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  uint64_t index = 99;
  EXPECT_EQ(store.GetCurrentLruIndex(&index), Ok());
  EXPECT_EQ(index, 0u);
  ASSERT_EQ(store.AddToLru(1000, "x"), Ok());
  ASSERT_EQ(store.AddToLru(7, "y"), Ok());
  EXPECT_EQ(store.GetCurrentLruIndex(&index), Ok());
  EXPECT_EQ(index, 1000u);
}

TEST_F(LruTest, CurrentIndexOfAClosedLruIsTheFailureWithItsLine) {
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  log_.clear();
  uint64_t index = 99;
  EXPECT_EQ(store.GetCurrentLruIndex(&index), St(5, ""));
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError, "Failed to check if LRU is empty, error=5, message="}}));
}

TEST_F(LruTest, OpenWhereTheLruCannotOpenReturnsThatFailureAndStillStartsTheThreads) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 1000, 30))}});
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store(16, 24h, true);
  const std::string engine_text = "IO error: " + lru_path_ + "/LOCK: Not a directory";
  EXPECT_EQ(store.Open(path_, 0), St(5, engine_text));
  EXPECT_TRUE(store.is_open());
  EXPECT_FALSE(store.lru().is_open());
  EXPECT_EQ(store.current_index(), 0u);
  EXPECT_TRUE(WaitUntil(
      [] { return CountThreads("LruStoreSync") == 1 && CountThreads("LruStorePrune") == 1; }));
  // The sync thread's first check meets the closed database, whose reopen is
  // not yet allowed.
  ASSERT_TRUE(WaitUntil([&] { return LinesWith(log_, "Failed to check if lru").size() == 1; }));
  const std::vector<testing_support::LoggedLine> check = LinesWith(log_, "Failed to check if lru");
  EXPECT_EQ(check[0].text, "Failed to check if lru is empty, error=5, message=");
  EXPECT_EQ(check[0].priority, kError);
  EXPECT_EQ(check[0].ndc, "LruStoreSync");
  EXPECT_EQ(LinesWith(log_, "Failed to open database")[0].text,
            "Failed to open database '" + lru_path_ + "'.");
  // The access path lives with it: the value is written, the row can't be.
  Value value;
  ASSERT_EQ(store.Get("a", &value), Ok());
  EXPECT_EQ(value.lru_data().index(), 1u);
  store.Stop();
  EXPECT_EQ(CountThreads("LruStoreSync") + CountThreads("LruStorePrune"), 0);
}

TEST_F(LruTest, OpenWhereTheMainStoreCannotOpenReturnsItsFailureFirst) {
  testing_support::WriteFile(path_, "not a directory");
  TestLruStore store;
  EXPECT_EQ(store.Open(path_, 0), St(5, "IO error: " + path_ + "/LOCK: Not a directory"));
  EXPECT_FALSE(store.is_open());
  EXPECT_TRUE(store.lru().is_open());  // opened all the same
  EXPECT_TRUE(store.running());
}

// --- Stop ------------------------------------------------------------------

TEST_F(LruTest, StopJoinsBothThreadsAndASecondStopReturnsAtOnce) {
  TestLruStore store(16, 24h, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_TRUE(WaitUntil(
      [] { return CountThreads("LruStoreSync") == 1 && CountThreads("LruStorePrune") == 1; }));
  const auto start = std::chrono::steady_clock::now();
  store.Stop();  // wakes them at once: no 10 s or 24 h wait
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_FALSE(store.running());
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);
  const auto again = std::chrono::steady_clock::now();
  store.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - again, 100ms);
  // The databases stay open and usable.
  Value value = Record(3);
  EXPECT_EQ(store.Put("k", value), Ok());
  EXPECT_EQ(store.Get("k", &value), Ok());
}

TEST_F(LruTest, StopBeforeOpenReturnsAtOnceAndOpenStillStartsTheThreads) {
  TestLruStore store(16, 24h, true);
  store.Stop();
  EXPECT_FALSE(store.running());
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_TRUE(store.running());
  EXPECT_TRUE(WaitUntil(
      [] { return CountThreads("LruStoreSync") == 1 && CountThreads("LruStorePrune") == 1; }));
}

TEST_F(LruTest, DestructionStopsAndJoinsTheThreads) {
  {
    TestLruStore store(16, 24h, true);
    ASSERT_EQ(store.Open(path_, 0), Ok());
    ASSERT_TRUE(WaitUntil([] { return CountThreads("LruStorePrune") == 1; }));
  }
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);
}

TEST_F(LruTest, WithThreadsDisabledOpenStartsNone) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);
  store.Stop();
  EXPECT_FALSE(store.running());
}

// --- The threads ------------------------------------------------------------

// The sync thread checks the two databases on start: a main store with
// entries and an empty LRU database get rebuilt, with the thread's context
// on the lines. The pruning thread's lines carry its own.
TEST_F(LruTest, ThreadsAreNamedAndTheirLinesCarryTheirNames) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 1000, 4))}});
  TestLruStore store(0, 300s, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_TRUE(WaitUntil(
      [] { return CountThreads("LruStoreSync") == 1 && CountThreads("LruStorePrune") == 1; }));
  const std::string done = "Successfully completed rebuilding '" + lru_path_ + "'.";
  ASSERT_TRUE(WaitUntil([&] { return !LinesWith(log_, done).empty(); }));
  for (const testing_support::LoggedLine& line : LinesWith(log_, "ebuilding")) {
    EXPECT_EQ(line.ndc, "LruStoreSync") << line.text;
    EXPECT_EQ(line.priority, kInfo) << line.text;
    EXPECT_EQ(line.file, kLruSource);
    EXPECT_NE(line.function.find("RebuildLru()"), std::string::npos) << line.function;
  }
  EXPECT_EQ(LinesWith(log_, "ebuilding").size(), 2u);
  EXPECT_EQ(Rows(store), (std::map<uint64_t, std::string>{{1004, "a"}}));

  std::this_thread::sleep_for(100ms);  // the pruning thread takes its deadline
  clock_.Advance(301s);
  ASSERT_TRUE(WaitUntil([&] {
    store.Wake();
    return !LinesWith(log_, "Total size of store after prunning is").empty();
  }));
  const std::vector<testing_support::LoggedLine> size = LinesWith(log_, "Total size of store is");
  ASSERT_EQ(size.size(), 1u);
  EXPECT_EQ(size[0].ndc, "LruStorePrune");
  EXPECT_NE(size[0].function.find("Prune()"), std::string::npos) << size[0].function;
  EXPECT_EQ(LinesWith(log_, "Total size of store after prunning is")[0].ndc, "LruStorePrune");

  store.Stop();
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);
}

TEST_F(LruTest, SyncThreadWritesTheRowsOncePerTenSeconds) {
  SeedAgreeingPair(path_);
  TestLruStore store(16, 24h, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_TRUE(WaitUntil([] { return CountThreads("LruStoreSync") == 1; }));
  std::this_thread::sleep_for(100ms);  // past the start check, at the wait
  Value value = Record(1);
  ASSERT_EQ(store.Put(HashKey(1), value), Ok());

  clock_.Advance(9s);
  store.Wake();
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(Rows(store), (std::map<uint64_t, std::string>{{1, "0-seed"}}));
  EXPECT_EQ(store.notes().size(), 1u);

  clock_.Advance(1s);
  ASSERT_TRUE(WaitUntil([&] {
    store.Wake();
    return Rows(store).size() == 2;
  }));
  EXPECT_EQ(Rows(store), (std::map<uint64_t, std::string>{{1, "0-seed"}, {2, HashKey(1)}}));
  EXPECT_THAT(store.notes(), IsEmpty());
}

}  // namespace
}  // namespace lru_test
