// Validity of the pair of databases, the rebuild of a lost LRU database, the
// reopen hooks, and the whole-store Clear and Dump.
#include <set>
#include <thread>

#include "lru_test_util.h"
#include "support/damage.h"
#include "support/fault_env.h"

namespace lru_test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using RowMap = std::map<uint64_t, std::string>;
using LruMap = std::map<std::string, std::pair<int64_t, uint64_t>>;

// --- CheckValidity --------------------------------------------------------------

TEST_F(LruTest, BothEmptyIsValidAndWritesNothing) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_TRUE(store.CheckValidity());
  EXPECT_THAT(Lines(log_), IsEmpty());
  EXPECT_THAT(Rows(store), IsEmpty());
  EXPECT_THAT(Entries(store), IsEmpty());
  EXPECT_EQ(store.current_index(), 0u);
}

TEST_F(LruTest, BothWithEveryEntryRowedIsValidAsItStands) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart, 3))}, {"b", Wire(Stamped(kWallStart, 4))}});
  // A row whose entry is gone is left for pruning.
  WriteRaw(lru_path_,
           {{LruKey(3), RowWire("a")}, {LruKey(4), RowWire("b")}, {LruKey(9), RowWire("gone")}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_TRUE(store.CheckValidity());
  EXPECT_EQ(Rows(store), (RowMap{{3, "a"}, {4, "b"}, {9, "gone"}}));
  EXPECT_THAT(Lines(log_), IsEmpty());
}

// A side database that lost part of its rows (a repaired table, a cut log)
// is emptied and rebuilt whole: an entry without a row is never pruned.
TEST_F(LruTest, EntriesWithoutTheirRowBesideOthersAreRebuiltWhole) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 100, 3))},
                   {"b", Wire(Stamped(kWallStart - 50, 4))},
                   {"c", Wire(Stamped(kWallStart - 10, 5))}});
  WriteRaw(lru_path_, {{LruKey(3), RowWire("a")}, {LruKey(5), RowWire("elsewhere")}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  log_.clear();
  EXPECT_TRUE(store.CheckValidity());
  EXPECT_EQ(Rows(store), (RowMap{{1003, "a"}, {1004, "b"}, {1005, "c"}}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart - 100, 1003}},
                                    {"b", {kWallStart - 50, 1004}},
                                    {"c", {kWallStart - 10, 1005}}}));
  EXPECT_EQ(store.current_index(), 1005u);
  const std::string miss = "Failed to get entry from LRU, error=3, message=NotFound: ";
  EXPECT_EQ(
      Lines(log_),
      (std::vector<Line>{{kInfo, "2 entries have no row in '" + lru_path_ + "'. Rebuilding it."},
                         {kInfo, "Rebuilding '" + lru_path_ + "'..."},
                         {kTrace, miss},
                         {kTrace, miss},
                         {kTrace, miss},
                         {kInfo, "Successfully completed rebuilding '" + lru_path_ + "'."}}));
}

TEST_F(LruTest, AFailedClearOfPartlyLostRowsIsFalseWithItsLine) {
  WriteRaw(path_,
           {{"a", Wire(Stamped(kWallStart - 100, 3))}, {"b", Wire(Stamped(kWallStart - 50, 4))}});
  WriteRaw(lru_path_, {{LruKey(3), RowWire("a")}});
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  log_.clear();
  env.fail_writes = true;
  EXPECT_FALSE(store.CheckValidity());
  env.fail_writes = false;
  const std::vector<Line> lines = Lines(log_);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            (Line{kInfo, "1 entries have no row in '" + lru_path_ + "'. Rebuilding it."}));
  EXPECT_EQ(lines[1].first, kError);
  EXPECT_EQ(lines[1].second.rfind(
                "Failed clearing LRU DB '" + lru_path_ + "', error=5, message=IO error: ", 0),
            0u)
      << lines[1].second;
  EXPECT_EQ(Rows(store), (RowMap{{3, "a"}}));
}

TEST_F(LruTest, AnEntryWhoseNoteIsPendingIsNotMissingItsRow) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 100, 3))}});
  WriteRaw(lru_path_, {{LruKey(3), RowWire("a")}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(1);
  ASSERT_EQ(store.Put("new", value), Ok());
  ASSERT_THAT(store.notes(), ElementsAre(Note{"new", 0, 4}));
  log_.clear();
  EXPECT_TRUE(store.CheckValidity());
  EXPECT_EQ(Rows(store), (RowMap{{3, "a"}}));
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, RowsWithoutAnyEntryAreClearedAndTheCounterStays) {
  WriteRaw(lru_path_, {{LruKey(4), RowWire("x")}, {LruKey(9), RowWire("y")}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.current_index(), 9u);
  EXPECT_TRUE(store.CheckValidity());
  EXPECT_THAT(Rows(store), IsEmpty());
  EXPECT_EQ(store.current_index(), 9u);
  EXPECT_THAT(Lines(log_), IsEmpty());
  Value value = Record(1);
  ASSERT_EQ(store.Put("k", value), Ok());
  EXPECT_EQ(value.lru_data().index(), 10u);
}

TEST_F(LruTest, AFailedClearOfObsoleteRowsShowsCode0InItsLine) {
  WriteRaw(lru_path_, {{LruKey(4), RowWire("x")}});
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  env.fail_writes = true;
  EXPECT_FALSE(store.CheckValidity());
  env.fail_writes = false;
  EXPECT_EQ(
      Lines(log_),
      (std::vector<Line>{{kError, "Failed clearing obsolete LRU entries, error=0, message="}}));
  EXPECT_EQ(Rows(store), (RowMap{{4, "x"}}));
}

TEST_F(LruTest, AFailedEmptinessCheckIsFalseWithItsLine) {
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  log_.clear();
  EXPECT_FALSE(store.CheckValidity());
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError, "Failed to check if lru is empty, error=5, message="}}));
}

TEST_F(LruTest, AFailedEmptinessCheckOfTheMainStoreIsFalseWithItsLine) {
  testing_support::WriteFile(path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  log_.clear();
  EXPECT_FALSE(store.CheckValidity());
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError, "Failed to check if store is empty, error=5, message="}}));
}

// --- RebuildLru ----------------------------------------------------------------

TEST_F(LruTest, EntriesWithoutRowsAreRebuiltThousandAboveTheirIndexes) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 100, 5))},
                   {"b", Wire(Stamped(kWallStart - 50, 7))},
                   {"c", Wire(Stamped(kWallStart - 10, 9))}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_TRUE(store.CheckValidity());
  EXPECT_EQ(Rows(store), (RowMap{{1005, "a"}, {1007, "b"}, {1009, "c"}}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart - 100, 1005}},
                                    {"b", {kWallStart - 50, 1007}},
                                    {"c", {kWallStart - 10, 1009}}}));
  EXPECT_EQ(store.current_index(), 1009u);
  const std::string miss = "Failed to get entry from LRU, error=3, message=NotFound: ";
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kInfo, "Rebuilding '" + lru_path_ + "'..."},
                               {kTrace, miss},
                               {kTrace, miss},
                               {kTrace, miss},
                               {kInfo, "Successfully completed rebuilding '" + lru_path_ + "'."}}));
}

TEST_F(LruTest, EntriesSharingAnIndexGoToTheYoungEndInTheOrderMet) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart, 5))},
                   {"b", Wire(Stamped(kWallStart, 5))},
                   {"c", Wire(Stamped(kWallStart, 7))},
                   {"d", Wire(Stamped(kWallStart, 0))},
                   {"e", Wire(Record(4))}});  // never had an index either
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_EQ(store.RebuildLru(), Ok());
  EXPECT_EQ(Rows(store), (RowMap{{1000, "d"}, {1005, "a"}, {1007, "c"}, {1008, "b"}, {1009, "e"}}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart, 1005}},
                                    {"b", {kWallStart, 1008}},
                                    {"c", {kWallStart, 1007}},
                                    {"d", {kWallStart, 1000}},
                                    {"e", {0, 1009}}}));
  EXPECT_EQ(store.current_index(), 1009u);
  EXPECT_EQ(Entries(store).at("e").image_path(), Record(4).image_path());
}

// Notes in the list were numbered from the counter that the rebuild
// replaces: they get fresh numbers above every rebuilt row and keep their
// old index.
TEST_F(LruTest, NotesQueuedBeforeTheRebuildAreRenumberedAboveIt) {
  WriteRaw(path_,
           {{"a", Wire(Stamped(kWallStart - 100, 5))}, {"b", Wire(Stamped(kWallStart - 100, 7))}});
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value n = Record(1);
  ASSERT_EQ(store.Put("n", n), Ok());  // {n, 0, 1}
  Value a;
  ASSERT_EQ(store.Get("a", &a), Ok());  // {a, 5, 2}
  ASSERT_THAT(store.notes(), ElementsAre(Note{"n", 0, 1}, Note{"a", 5, 2}));

  EXPECT_EQ(store.RebuildLru(), Ok());
  EXPECT_EQ(Rows(store), (RowMap{{1001, "n"}, {1002, "a"}, {1007, "b"}}));
  EXPECT_THAT(store.notes(), ElementsAre(Note{"n", 0, 1008}, Note{"a", 5, 1009}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart, 1009}},
                                    {"b", {kWallStart - 100, 1007}},
                                    {"n", {kWallStart, 1008}}}));
  EXPECT_EQ(store.current_index(), 1009u);

  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (RowMap{{1001, "n"}, {1002, "a"}, {1007, "b"}, {1008, "n"}, {1009, "a"}}));
}

// A note that arrives while the rebuild walks the main store is renumbered
// with the others.
TEST_F(LruTest, ANoteQueuedDuringTheRebuildEndsAboveTheRebuiltRows) {
  std::vector<std::pair<std::string, std::string>> records;
  for (uint64_t i = 0; i < 3000; ++i) {
    Value value = Record(i);
    value.mutable_lru_data()->set_last_used(kWallStart - 1000);
    value.mutable_lru_data()->set_index(i + 1);
    records.emplace_back(HashKey(i), Wire(value));
  }
  WriteRaw(path_, records);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  std::thread rebuild([&] { EXPECT_EQ(store.RebuildLru(), Ok()); });
  // A new entry, put while the rows are being written.
  // Phase 1 has its snapshot once the first row is looked up.
  ASSERT_TRUE(WaitUntil([&] { return !LinesWith(log_, "Failed to get entry from LRU").empty(); }));
  Value late = Record(77777);
  ASSERT_EQ(store.Put("late", late), Ok());
  rebuild.join();

  const std::vector<Note> notes = store.notes();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].key, "late");
  EXPECT_EQ(notes[0].old_index, 0u);
  const RowMap rows = Rows(store);
  const uint64_t highest_rebuilt = rows.rbegin()->first;
  EXPECT_GT(notes[0].new_index, highest_rebuilt);
  EXPECT_EQ(store.current_index(), notes[0].new_index);
  EXPECT_EQ(LruData(store).at("late").second, notes[0].new_index);
  for (uint64_t i = 0; i < 3000; ++i) {
    EXPECT_EQ(rows.at(i + 1001), HashKey(i));
  }
}

// The rebuild's own failure is told in its own line; the line of the check
// shows the status of the emptiness test, which succeeded.
TEST_F(LruTest, AFailedRebuildShowsCode0AndAnEmptyMessageInTheCheckLine) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 100, 5))}});
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  // Every reopen is allowed, and every one fails: the database ends closed.
  store.lru().set_min_reopen_delay(0ns);
  env.fail_writes = true;
  EXPECT_FALSE(store.CheckValidity());
  env.fail_writes = false;
  const std::vector<Line> lines = Lines(log_);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines.front(), Line(kInfo, "Rebuilding '" + lru_path_ + "'..."));
  EXPECT_EQ(lines.back(),
            Line(kError, "Failed rebuilding LRU DB '" + lru_path_ + "', error=0, message="));
  const Line cause = lines[lines.size() - 2];
  EXPECT_EQ(cause.first, kError);
  EXPECT_EQ(
      cause.second.rfind(
          "Failed to check if LRU is empty, error=5, message=IO error: " + lru_path_ + "/", 0),
      0u)
      << cause.second;
  EXPECT_THAT(LinesWith(log_, "Successfully completed"), IsEmpty());
  EXPECT_FALSE(store.lru().is_open());
  // The value was written back all the same.
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart - 100, 1005}}}));
}

TEST_F(LruTest, ARebuildOfAnEmptyMainStoreWritesNothing) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  store.set_current_index(33);
  EXPECT_EQ(store.RebuildLru(), Ok());
  EXPECT_THAT(Rows(store), IsEmpty());
  EXPECT_EQ(store.current_index(), 0u);  // it follows the database
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kInfo, "Rebuilding '" + lru_path_ + "'..."},
                               {kInfo, "Successfully completed rebuilding '" + lru_path_ + "'."}}));
}

// --- The reopen of either database ------------------------------------------------

// Puts a hook on the logger that ends the injected faults as soon as a reopen
// begins, so that the reopen itself meets a sound disk.
Poco::AutoPtr<HookChannel> HealOnReopen(testing_support::FaultEnv& env) {
  Poco::AutoPtr<HookChannel> channel(new HookChannel);
  channel->hook = [&env](const testing_support::LoggedLine& line) {
    if (line.text == "Reopening the database...") {
      env.fail_writes = false;
      env.fail_table_reads = false;
      env.corrupt_table_reads = false;
    }
  };
  channel->Install();
  return channel;
}

// The LRU directory is deleted under the running store. Its open files still
// take writes; the next write that meets a failure gets the database
// reopened, and it comes back empty and is rebuilt from the values.
TEST_F(LruTest, ALruDirectoryDeletedUnderTheRunningStoreIsRebuiltOnReopen) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 100, 5))},
                   {"b", Wire(Stamped(kWallStart - 50, 7))},
                   {"c", Wire(Stamped(kWallStart - 10, 9))}});
  WriteRaw(lru_path_,
           {{LruKey(5), RowWire("a")}, {LruKey(7), RowWire("b")}, {LruKey(9), RowWire("c")}});
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.current_index(), 9u);
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(lru_path_, ".log");
  ASSERT_EQ(logs.size(), 1u);
  store.lru().set_min_reopen_delay(0ns);
  Poco::AutoPtr<HookChannel> channel = HealOnReopen(env);

  testing_support::RemoveTree(lru_path_);
  env.fail_writes = true;
  const std::string failure = "IO error: " + lru_path_ + "/" + logs[0] + ": injected write failure";
  EXPECT_EQ(store.AddToLru(12, "stray"), St(5, failure));

  EXPECT_EQ(store.lru_reopens, 1);
  EXPECT_EQ(Rows(store), (RowMap{{1005, "a"}, {1007, "b"}, {1009, "c"}}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart - 100, 1005}},
                                    {"b", {kWallStart - 50, 1007}},
                                    {"c", {kWallStart - 10, 1009}}}));
  EXPECT_EQ(store.current_index(), 1009u);
  const std::string miss = "Failed to get entry from LRU, error=3, message=NotFound: ";
  const std::vector<testing_support::LoggedLine> lines = channel->lines();
  EXPECT_EQ(Lines(lines),
            (std::vector<Line>{
                {kNotice, "Reopening the database..."},
                {kNotice, "Database reopened successfully!"},
                {kInfo, "Rebuilding '" + lru_path_ + "'..."},
                {kTrace, miss},
                {kTrace, miss},
                {kTrace, miss},
                {kInfo, "Successfully completed rebuilding '" + lru_path_ + "'."},
                {kError, "Failed to put entry into LRU cache, error=5, message=" + failure}}));
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[0].ndc, "Reopen(" + lru_path_ + ")");
  EXPECT_EQ(lines[1].ndc, "Reopen(" + lru_path_ + ")");
  EXPECT_EQ(lines[2].ndc, "");
  // The new numbering goes on above the rebuilt rows.
  Value value = Record(1);
  ASSERT_EQ(store.Put("d", value), Ok());
  EXPECT_EQ(value.lru_data().index(), 1010u);
}

// A reopened LRU database may hold fewer rows than before: the counter
// follows it down.
TEST_F(LruTest, TheCounterFollowsAReopenedLruDatabaseDownwards) {
  WriteRaw(lru_path_, {{LruKey(3), RowWire("x")}, {LruKey(40), RowWire("y")}});
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.current_index(), 40u);
  store.lru().set_min_reopen_delay(0ns);
  Poco::AutoPtr<HookChannel> channel = HealOnReopen(env);

  testing_support::RemoveTree(lru_path_);
  env.fail_writes = true;
  EXPECT_EQ(store.DeleteFromLru(3).code, 5);
  EXPECT_EQ(store.lru_reopens, 1);
  EXPECT_EQ(store.current_index(), 0u);
  EXPECT_THAT(Rows(store), IsEmpty());
  Value value = Record(1);
  ASSERT_EQ(store.Put("k", value), Ok());
  EXPECT_EQ(value.lru_data().index(), 1u);
}

// A reopen that fails leaves the hook with nothing to do.
TEST_F(LruTest, AFailedReopenOfTheLruLeavesTheCounter) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 100, 5))}});
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  store.set_current_index(17);
  store.lru().set_min_reopen_delay(0ns);
  env.fail_writes = true;
  EXPECT_EQ(store.AddToLru(18, "a").code, 5);
  env.fail_writes = false;
  EXPECT_EQ(store.lru_reopens, 1);
  EXPECT_FALSE(store.lru().is_open());
  EXPECT_EQ(store.current_index(), 17u);
  EXPECT_THAT(LinesWith(log_, "Rebuilding"), IsEmpty());
  EXPECT_EQ(LinesWith(log_, "Database failed to recover with error 5 (IO error: ").size(), 1u);
}

// The main store meets a failing read and is reopened: its reopen checks the
// LRU database against it, and the empty one is rebuilt.
TEST_F(LruTest, AReopenOfTheMainStoreChecksTheLruAgainstIt) {
  WriteRaw(path_, {{"a", Wire(Stamped(kWallStart - 100, 5))}});
  testing_support::FaultEnv env;
  env.only_files = "enrichment/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_THAT(Rows(store), IsEmpty());  // no check yet: the threads are off
  store.set_min_reopen_delay(0ns);
  Poco::AutoPtr<HookChannel> channel = HealOnReopen(env);
  env.fail_table_reads = true;
  Value value;
  const Status status = store.main().Get("a", &value, nullptr);
  EXPECT_EQ(status.code, 5) << status.message;
  EXPECT_EQ(Rows(store), (RowMap{{1005, "a"}}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart - 100, 1005}}}));
  EXPECT_EQ(store.lru_reopens, 0);
  const std::vector<testing_support::LoggedLine> lines = channel->lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, "Reopening the database...");
  EXPECT_EQ(lines[0].ndc, "Reopen(" + path_ + ")");
  EXPECT_EQ(lines[1].text, "Database reopened successfully!");
  EXPECT_EQ(lines[2].text, "Rebuilding '" + lru_path_ + "'...");
}

// --- Clear -------------------------------------------------------------------------

TEST_F(LruTest, ClearEmptiesBothAndLeavesTheCounterAndTheNotes) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.Put({"a", "b"}, {Record(1), Record(2)}, false), Ok());
  store.ApplyLruUpdates();
  Value c = Record(3);
  ASSERT_EQ(store.Put("c", c), Ok());
  EXPECT_EQ(store.Clear(), Ok());
  EXPECT_THAT(Entries(store), IsEmpty());
  EXPECT_THAT(Rows(store), IsEmpty());
  EXPECT_THAT(store.notes(), ElementsAre(Note{"c", 0, 3}));
  EXPECT_EQ(store.current_index(), 3u);
  Value d = Record(4);
  ASSERT_EQ(store.Put("d", d), Ok());
  EXPECT_EQ(d.lru_data().index(), 4u);
  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (RowMap{{3, "c"}, {4, "d"}}));  // the old note still writes
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, AFailedClearOfTheMainStoreLeavesTheLruUntouched) {
  testing_support::FaultEnv env;
  env.only_files = "enrichment/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.Put({"a", "b"}, {Record(1), Record(2)}, false), Ok());
  store.ApplyLruUpdates();
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path_, ".log");
  ASSERT_EQ(logs.size(), 1u);
  const std::string failure = "IO error: " + path_ + "/" + logs[0] + ": injected write failure";
  env.fail_writes = true;
  EXPECT_EQ(store.Clear(), St(5, failure));
  env.fail_writes = false;
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError, "Failed to clear store, error=5, message=" + failure}}));
  EXPECT_EQ(Rows(store), (RowMap{{1, "a"}, {2, "b"}}));
  EXPECT_EQ(Entries(store).size(), 2u);
}

TEST_F(LruTest, AFailedClearOfTheLruIsLoggedAndReturned) {
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  Value value = Record(1);
  ASSERT_EQ(store.main().Put("a", value, false), Ok());
  log_.clear();
  EXPECT_EQ(store.Clear(), St(5, ""));
  EXPECT_EQ(Lines(log_), (std::vector<Line>{{kError, "Failed to clear LRU, error=5, message="}}));
  EXPECT_THAT(Entries(store), IsEmpty());
}

// --- Dump --------------------------------------------------------------------------

TEST_F(LruTest, DumpWithoutUpdateChangesNothingInEitherDatabase) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.Put({"a", "b"}, {Record(1), Record(2)}, false), Ok());
  store.ApplyLruUpdates();
  clock_.AdvanceWall(1000);
  std::vector<std::string> keys{"stale"};
  std::vector<Value> values{Record(9)};
  EXPECT_EQ(store.Dump(&keys, &values, false), Ok());
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "b"}));
  ASSERT_EQ(values.size(), 2u);
  EXPECT_EQ(values[1].image_path(), Record(2).image_path());
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart, 1}}, {"b", {kWallStart, 2}}}));
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(Rows(store), (RowMap{{1, "a"}, {2, "b"}}));
}

TEST_F(LruTest, DumpWithUpdateIsDecidedByTheFirstEntry) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value b = Record(2);
  ASSERT_EQ(store.Put("b", b), Ok());  // old by the time of the dumps
  clock_.AdvanceWall(100);
  Value a = Record(1);
  ASSERT_EQ(store.Put("a", a), Ok());  // the first key
  store.ApplyLruUpdates();

  clock_.AdvanceWall(60);  // "a" is 60 seconds old
  std::vector<std::string> keys;
  std::vector<Value> values;
  EXPECT_EQ(store.Dump(&keys, &values, true), Ok());
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart + 100, 2}}, {"b", {kWallStart, 1}}}));

  clock_.AdvanceWall(1);  // 61 seconds: the whole dump is renewed
  EXPECT_EQ(store.Dump(&keys, &values, true), Ok());
  EXPECT_THAT(store.notes(), ElementsAre(Note{"a", 2, 3}, Note{"b", 1, 4}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart + 161, 3}}, {"b", {kWallStart + 161, 4}}}));
  ASSERT_EQ(values.size(), 2u);
  EXPECT_EQ(values[0].lru_data().index(), 3u);
}

TEST_F(LruTest, DumpWithANullVectorIsCode2WithItsCheck) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  std::vector<std::string> keys;
  std::vector<Value> values;
  EXPECT_EQ(store.Dump(nullptr, &values, false), St(2, ""));
  EXPECT_EQ(store.Dump(&keys, nullptr, true), St(2, ""));
  EXPECT_EQ(
      Lines(log_),
      (std::vector<Line>{{kError, CheckHeader("\"Received nullptr keys parameter\"", "keys") +
                                      "Received nullptr keys parameter"},
                         {kError, CheckHeader("\"Received nullptr values parameter\"", "values") +
                                      "Received nullptr values parameter"}}));
}

TEST_F(LruTest, AFailedDumpIsLoggedAndReturned) {
  testing_support::WriteFile(path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  log_.clear();
  std::vector<std::string> keys;
  std::vector<Value> values;
  EXPECT_EQ(store.Dump(&keys, &values, true), St(5, ""));
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError, "Failed to dump the entire store, error=5, message="}}));
}

// --- Rebuild on realistic data ---------------------------------------------------------

// 5000 entries with known indexes, 500 of them renewed, three notes still in
// the list; the LRU directory is deleted under the running store and the
// next read of a row meets the failure.
TEST_F(LruTest, ARebuildOfRealDataShiftsEveryIndexAndRenumbersThePendingNotes) {
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  const uint64_t kCount = 5000;
  for (uint64_t start = 0; start < kCount; start += 500) {
    std::vector<std::string> keys;
    std::vector<Value> values;
    for (uint64_t i = start; i < start + 500; ++i) {
      keys.push_back(HashKey(i));
      values.push_back(Record(i));
    }
    ASSERT_EQ(store.Put(keys, values, false), Ok());
    store.ApplyLruUpdates();
  }
  clock_.AdvanceWall(61);
  for (uint64_t i = 0; i < kCount; i += 10) {
    Value value;
    ASSERT_EQ(store.Get(HashKey(i), &value), Ok());
  }
  store.ApplyLruUpdates();
  ASSERT_EQ(store.Compact(), Ok());  // the rows are in tables now
  ASSERT_EQ(store.current_index(), 5500u);
  // Pending: a new entry, a renewal, another new entry.
  clock_.AdvanceWall(61);
  Value x = Record(100001);
  ASSERT_EQ(store.Put("x-new", x), Ok());
  Value renewed;
  ASSERT_EQ(store.Get(HashKey(1), &renewed), Ok());
  Value y = Record(100002);
  ASSERT_EQ(store.Put("y-new", y), Ok());
  ASSERT_THAT(store.notes(), ElementsAre(Note{"x-new", 0, 5501}, Note{HashKey(1), 2, 5502},
                                         Note{"y-new", 0, 5503}));
  const LruMap before = LruData(store);
  ASSERT_EQ(before.size(), kCount + 2);
  store.lru().set_min_reopen_delay(0ns);
  Poco::AutoPtr<HookChannel> channel = HealOnReopen(env);

  // The row of 2500 lies in a block of a table that nothing has read yet.
  testing_support::RemoveTree(lru_path_);
  env.fail_table_reads = true;
  std::string key;
  EXPECT_EQ(store.GetFromLru(2500, &key).code, 5);
  EXPECT_FALSE(env.fail_table_reads);  // the reopen came
  EXPECT_EQ(store.lru_reopens, 1);
  int completed = 0;
  for (const testing_support::LoggedLine& line : channel->lines()) {
    completed += line.text == "Successfully completed rebuilding '" + lru_path_ + "'." ? 1 : 0;
  }
  EXPECT_EQ(completed, 1);

  // Every entry got its row 1000 above the index it had; the counter stands
  // on the highest; the notes were numbered above it, in their order.
  const RowMap rows = Rows(store);
  RowMap expected_rows;
  for (const auto& [k, data] : before) expected_rows[data.second + 1000] = k;
  EXPECT_EQ(rows, expected_rows);
  EXPECT_THAT(store.notes(), ElementsAre(Note{"x-new", 0, 6504}, Note{HashKey(1), 2, 6505},
                                         Note{"y-new", 0, 6506}));
  // After the check, the reopen sets the counter to the highest row of the
  // database that came back: the notes' numbers are not rows yet, and the
  // next renewal takes the first of them again.
  EXPECT_EQ(store.current_index(), 6503u);
  LruMap expected = before;
  for (auto& [k, data] : expected) data.second += 1000;
  expected["x-new"].second = 6504;
  expected[HashKey(1)].second = 6505;
  expected["y-new"].second = 6506;
  EXPECT_EQ(LruData(store), expected);

  Value z = Record(100003);
  ASSERT_EQ(store.Put("z-new", z), Ok());
  EXPECT_EQ(z.lru_data().index(), 6504u);  // the number "x-new" carries

  // The notes then write their rows; the renewal's old index, of the former
  // numbering, retires whatever row now stands there, and the row of the
  // shared number ends with the later note.
  store.ApplyLruUpdates();
  RowMap after_sync = expected_rows;
  after_sync[6504] = "z-new";
  after_sync[6505] = HashKey(1);
  after_sync[6506] = "y-new";
  after_sync.erase(2);
  EXPECT_EQ(Rows(store), after_sync);
}

// The LRU directory is lost while the store is down: the sync thread's check
// on start rebuilds it.
TEST_F(LruTest, ALruDirectoryLostBetweenRunsIsRebuiltByTheSyncThread) {
  {
    TestLruStore store;
    ASSERT_EQ(store.Open(path_, 0), Ok());
    ASSERT_EQ(store.Put({"a", "b", "c"}, {Record(1), Record(2), Record(3)}, false), Ok());
    store.ApplyLruUpdates();
  }
  testing_support::RemoveTree(lru_path_);
  TestLruStore store(16, 24h, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  const std::string done = "Successfully completed rebuilding '" + lru_path_ + "'.";
  ASSERT_TRUE(WaitUntil([&] { return !LinesWith(log_, done).empty(); }));
  store.Stop();
  EXPECT_EQ(Rows(store), (RowMap{{1001, "a"}, {1002, "b"}, {1003, "c"}}));
  EXPECT_EQ(store.current_index(), 1003u);
}

}  // namespace
}  // namespace lru_test
