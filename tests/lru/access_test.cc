// The access path of the LRU store: renewal at most once a minute, the
// deferred notes, their bound, and how the sync pass turns them into rows.
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

const char kNotFound[] = "NotFound: ";

// --- Get ---------------------------------------------------------------------

TEST_F(LruTest, GetWithANullValueIsCode2AndItsCheckLogsOncePerTenMinutes) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  const std::string header = CheckHeader("\"Invalid out parameter, value is NULL\"", "value");
  const Line check{kError, header + "Invalid out parameter, value is NULL"};

  EXPECT_EQ(store.Get("k", nullptr), St(2, ""));
  EXPECT_EQ(Lines(log_), std::vector<Line>{check});
  EXPECT_EQ(store.Get("k", nullptr), St(2, ""));
  clock_.Advance(600s);  // exactly ten minutes is still inside the interval
  EXPECT_EQ(store.Get("k", nullptr), St(2, ""));
  EXPECT_EQ(Lines(log_), std::vector<Line>{check});
  clock_.Advance(1ns);
  EXPECT_EQ(store.Get("k", nullptr), St(2, ""));
  EXPECT_EQ(Lines(log_), (std::vector<Line>{check, check}));
  EXPECT_THAT(Entries(store), IsEmpty());
}

TEST_F(LruTest, MultiKeyGetWithANullValuesIsCode2WithItsOwnCheck) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_EQ(store.Get(std::vector<std::string>{"a"}, nullptr), St(2, ""));
  EXPECT_EQ(store.Get("a", nullptr), St(2, ""));
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{
                {kError, CheckHeader("\"Invalid out parameter, values is NULL\"", "values") +
                             "Invalid out parameter, values is NULL"},
                {kError, CheckHeader("\"Invalid out parameter, value is NULL\"", "value") +
                             "Invalid out parameter, value is NULL"}}));
}

TEST_F(LruTest, GetOfAnAbsentKeyIsCode3AndWritesNothing) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(5);
  EXPECT_EQ(store.Get("absent", &value), St(3, kNotFound));
  EXPECT_EQ(value.ByteSizeLong(), 0u);  // cleared
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kTrace, "Failed to get entry, error=3, message=NotFound: "}}));
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(store.current_index(), 0u);
  store.ApplyLruUpdates();
  EXPECT_THAT(Entries(store), IsEmpty());
  EXPECT_THAT(Rows(store), IsEmpty());
}

TEST_F(LruTest, GetWithinAMinuteOfThePutRenewsNothing) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(1);
  ASSERT_EQ(store.Put("k", value), Ok());
  const std::vector<Note> after_put = store.notes();
  ASSERT_THAT(after_put, ElementsAre(Note{"k", 0, 1}));

  clock_.AdvanceWall(30);
  Value read;
  ASSERT_EQ(store.Get("k", &read), Ok());
  EXPECT_EQ(read.lru_data().last_used(), kWallStart);
  EXPECT_EQ(read.lru_data().index(), 1u);
  clock_.AdvanceWall(30);  // exactly 60 seconds: still not renewed
  ASSERT_EQ(store.Get("k", &read), Ok());
  EXPECT_EQ(read.lru_data().last_used(), kWallStart);
  EXPECT_EQ(read.lru_data().index(), 1u);
  EXPECT_EQ(store.notes(), after_put);
  EXPECT_EQ(LruData(store), (LruMap{{"k", {kWallStart, 1}}}));
  EXPECT_EQ(store.current_index(), 1u);
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, Get61SecondsAfterTheRenewalTakesTheNextIndexAndQueuesANote) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(1);
  ASSERT_EQ(store.Put("k", value), Ok());
  store.ApplyLruUpdates();
  ASSERT_EQ(Rows(store), (RowMap{{1, "k"}}));
  store.set_current_index(41);

  clock_.AdvanceWall(61);
  Value read;
  ASSERT_EQ(store.Get("k", &read), Ok());
  EXPECT_EQ(read.lru_data().last_used(), kWallStart + 61);
  EXPECT_EQ(read.lru_data().index(), 42u);
  EXPECT_EQ(read.image_path(), Record(1).image_path());
  EXPECT_EQ(store.current_index(), 42u);
  EXPECT_THAT(store.notes(), ElementsAre(Note{"k", 1, 42}));
  EXPECT_EQ(LruData(store), (LruMap{{"k", {kWallStart + 61, 42}}}));
  EXPECT_EQ(Rows(store), (RowMap{{1, "k"}}));  // the row follows with the sync pass

  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (RowMap{{42, "k"}}));
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_THAT(Lines(log_), IsEmpty());
}

// --- Put ---------------------------------------------------------------------

TEST_F(LruTest, PutOfAnExistingKeyKeepsTheStoredLruData) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value first = Record(1);
  ASSERT_EQ(store.Put("k", first), Ok());

  clock_.AdvanceWall(10);
  Value second = Record(2);
  second.mutable_lru_data()->set_last_used(5);
  second.mutable_lru_data()->set_index(999);
  ASSERT_EQ(store.Put("k", second), Ok());
  EXPECT_EQ(second.lru_data().last_used(), kWallStart);
  EXPECT_EQ(second.lru_data().index(), 1u);
  const std::map<std::string, Value> entries = Entries(store);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries.at("k").SerializeAsString(), second.SerializeAsString());
  EXPECT_THAT(store.notes(), ElementsAre(Note{"k", 0, 1}));

  // Older than a minute: the stored lru_data is renewed, the caller's ignored.
  clock_.AdvanceWall(51);
  Value third = Record(3);
  third.mutable_lru_data()->set_last_used(kWallStart + 1000);
  third.mutable_lru_data()->set_index(7);
  ASSERT_EQ(store.Put("k", third), Ok());
  EXPECT_EQ(third.lru_data().last_used(), kWallStart + 61);
  EXPECT_EQ(third.lru_data().index(), 2u);
  EXPECT_THAT(store.notes(), ElementsAre(Note{"k", 0, 1}, Note{"k", 1, 2}));
  EXPECT_EQ(Entries(store).at("k").SerializeAsString(), third.SerializeAsString());
}

TEST_F(LruTest, PutOfANewKeyWithAYoungLruDataOfItsOwnWritesItAsItIs) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(1);
  value.mutable_lru_data()->set_last_used(kWallStart - 10);
  value.mutable_lru_data()->set_index(77);
  ASSERT_EQ(store.Put("k", value), Ok());
  EXPECT_EQ(LruData(store), (LruMap{{"k", {kWallStart - 10, 77}}}));
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(store.current_index(), 0u);
}

TEST_F(LruTest, BatchPutOfAYoungFoundKeyThenAnAbsentOneRetiresTheFoundKeysRow) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value a = Record(1);
  ASSERT_EQ(store.Put("a", a), Ok());
  store.ApplyLruUpdates();
  ASSERT_EQ(Rows(store), (RowMap{{1, "a"}}));

  clock_.AdvanceWall(10);
  ASSERT_EQ(store.Put({"a", "b"}, {Record(10), Record(11)}, false), Ok());
  // "a" keeps its place; the note of "b" carries a's index as its old one.
  EXPECT_THAT(store.notes(), ElementsAre(Note{"b", 1, 2}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart, 1}}, {"b", {kWallStart + 10, 2}}}));
  EXPECT_EQ(Entries(store).at("a").image_path(), Record(10).image_path());

  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (RowMap{{2, "b"}}));  // "a" has no row until it is renewed
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, BatchPutRenewsAbsentAndOldEntriesWithOneTime) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value a = Record(1);
  ASSERT_EQ(store.Put("a", a), Ok());
  clock_.AdvanceWall(61);
  Value c = Record(3);
  ASSERT_EQ(store.Put("c", c), Ok());  // index 2, young
  store.ApplyLruUpdates();

  clock_.AdvanceWall(5);
  ASSERT_EQ(store.Put({"a", "b", "c"}, {Record(11), Record(12), Record(13)}, true), Ok());
  EXPECT_THAT(store.notes(), ElementsAre(Note{"a", 1, 3}, Note{"b", 1, 4}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart + 66, 3}},
                                    {"b", {kWallStart + 66, 4}},
                                    {"c", {kWallStart + 61, 2}}}));
}

TEST_F(LruTest, BatchPutOfTwoKeysWithOneValueIsCode2AndWritesNothing) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_EQ(store.Put({"a", "b"}, {Record(1)}, false), St(2, ""));
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{
                {kError, CheckHeader("CHECK_LOGGED(EnrichmentLogger, keys.size() == values.size()",
                                     "keys.size() == values.size()") +
                             "keys and values differ in size"}}));
  EXPECT_THAT(Entries(store), IsEmpty());
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(store.current_index(), 0u);
}

// --- Multi-key Get -------------------------------------------------------------

TEST_F(LruTest, BatchGetIsRenewedWholeOrNotAtAllByItsFirstEntry) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value old_value = Record(1);
  ASSERT_EQ(store.Put("old", old_value), Ok());  // index 1 at W
  clock_.AdvanceWall(61);
  Value young_value = Record(2);
  ASSERT_EQ(store.Put("young", young_value), Ok());  // index 2 at W+61
  store.ApplyLruUpdates();

  std::vector<Value> values;
  ASSERT_EQ(store.Get({"young", "old"}, &values), Ok());
  ASSERT_EQ(values.size(), 2u);
  EXPECT_EQ(values[0].lru_data().index(), 2u);
  EXPECT_EQ(values[1].lru_data().index(), 1u);
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(LruData(store), (LruMap{{"old", {kWallStart, 1}}, {"young", {kWallStart + 61, 2}}}));

  ASSERT_EQ(store.Get({"old", "young"}, &values), Ok());
  ASSERT_EQ(values.size(), 2u);
  EXPECT_EQ(values[0].lru_data().index(), 3u);
  EXPECT_EQ(values[1].lru_data().index(), 4u);
  EXPECT_EQ(values[1].lru_data().last_used(), kWallStart + 61);
  EXPECT_THAT(store.notes(), ElementsAre(Note{"old", 1, 3}, Note{"young", 2, 4}));
  EXPECT_EQ(LruData(store),
            (LruMap{{"old", {kWallStart + 61, 3}}, {"young", {kWallStart + 61, 4}}}));
  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (RowMap{{3, "old"}, {4, "young"}}));
}

TEST_F(LruTest, BatchGetWithAnAbsentKeyFailsWholeAtDebugLevel) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value value = Record(1);
  ASSERT_EQ(store.Put("a", value), Ok());
  std::vector<Value> values{Record(3)};
  EXPECT_EQ(store.Get({"a", "b"}, &values), St(3, kNotFound));
  EXPECT_THAT(values, IsEmpty());
  EXPECT_EQ(
      Lines(log_),
      (std::vector<Line>{{kDebug, "Failed to get the values list, error=3, message=NotFound: "}}));
}

// --- The list of notes ----------------------------------------------------------

TEST_F(LruTest, The10001stNotePushesOutTheFirst) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  std::vector<std::string> keys;
  std::vector<Value> values;
  for (uint64_t i = 0; i < 10001; ++i) {
    keys.push_back(HashKey(i));
    values.push_back(Stamped(0, 0));
  }
  ASSERT_EQ(store.Put(keys, values, false), Ok());
  std::vector<Note> notes = store.notes();
  ASSERT_EQ(notes.size(), 10000u);
  EXPECT_EQ(notes.front(), (Note{HashKey(1), 0, 2}));
  EXPECT_EQ(notes.back(), (Note{HashKey(10000), 0, 10001}));

  Value one_more = Record(1);
  ASSERT_EQ(store.Put("one more", one_more), Ok());
  notes = store.notes();
  ASSERT_EQ(notes.size(), 10000u);
  EXPECT_EQ(notes.front(), (Note{HashKey(2), 0, 3}));
  EXPECT_EQ(notes.back(), (Note{"one more", 0, 10002}));

  store.ApplyLruUpdates();
  const RowMap rows = Rows(store);
  EXPECT_EQ(rows.size(), 10000u);
  EXPECT_EQ(rows.begin()->first, 3u);
  EXPECT_EQ(rows.rbegin()->first, 10002u);
  // The entries whose notes were dropped are still there, without a row.
  EXPECT_EQ(Entries(store).size(), 10002u);
  EXPECT_EQ(LruData(store).at(HashKey(0)).second, 1u);
  EXPECT_EQ(rows.count(1), 0u);
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, NotesAreAppliedOldestFirstAndRetireTheRowsTheyReplace) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.AddToLruList("x", 0, 5), Ok());
  ASSERT_EQ(store.AddToLruList("x", 5, 6), Ok());
  ASSERT_EQ(store.AddToLruList({{"y", 0, 7}, {"x", 6, 8}}), Ok());
  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (RowMap{{7, "y"}, {8, "x"}}));
  EXPECT_THAT(store.notes(), IsEmpty());
  store.ApplyLruUpdates();  // nothing to do
  EXPECT_EQ(Rows(store), (RowMap{{7, "y"}, {8, "x"}}));
}

// --- Delete --------------------------------------------------------------------

TEST_F(LruTest, DeleteRemovesTheRowAtOnceAndALateNoteStillWritesItsRow) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value a = Record(1);
  ASSERT_EQ(store.Put("a", a), Ok());
  store.ApplyLruUpdates();
  ASSERT_EQ(Rows(store), (RowMap{{1, "a"}}));
  EXPECT_EQ(store.Delete("a"), Ok());
  EXPECT_THAT(Rows(store), IsEmpty());
  EXPECT_THAT(Entries(store), IsEmpty());

  // "b" is deleted while its first note is still in the list.
  Value b = Record(2);
  ASSERT_EQ(store.Put("b", b), Ok());
  EXPECT_EQ(store.Delete("b"), Ok());
  EXPECT_THAT(Rows(store), IsEmpty());
  EXPECT_THAT(store.notes(), ElementsAre(Note{"b", 0, 2}));
  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), (RowMap{{2, "b"}}));  // a row for an entry that is gone
  EXPECT_THAT(Entries(store), IsEmpty());
  EXPECT_THAT(Lines(log_), IsEmpty());
}

TEST_F(LruTest, DeleteOfAnAbsentKeyIsCode3WithAnErrorLine) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  EXPECT_EQ(store.Delete("absent"), St(3, kNotFound));
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError, "Failed to get entry, error=3, message=NotFound: "}}));
}

TEST_F(LruTest, BatchDeleteRemovesAllEntriesAndRowsOrNothing) {
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  ASSERT_EQ(store.Put({"a", "b", "c"}, {Record(1), Record(2), Record(3)}, false), Ok());
  store.ApplyLruUpdates();
  EXPECT_EQ(store.Delete(std::vector<std::string>{"a", "x"}), St(3, kNotFound));
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kError, "Failed to get entries, error=3, message=NotFound: "}}));
  EXPECT_EQ(Entries(store).size(), 3u);
  EXPECT_EQ(Rows(store), (RowMap{{1, "a"}, {2, "b"}, {3, "c"}}));

  EXPECT_EQ(store.Delete(std::vector<std::string>{"a", "c"}), Ok());
  EXPECT_EQ(Rows(store), (RowMap{{2, "b"}}));
  EXPECT_EQ(Entries(store).size(), 1u);
}

// --- Failed row writes ------------------------------------------------------------

// Writes to the LRU database fail while the main store goes on: a new entry
// whose row can't be written goes, a renewed one keeps its old row.
TEST_F(LruTest, AFailedRowWriteRemovesANewEntryAndKeepsARenewedOnesOldRow) {
  testing_support::FaultEnv env;
  env.only_files = ".lru/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Value a = Record(1);
  ASSERT_EQ(store.Put("a", a), Ok());
  store.ApplyLruUpdates();
  clock_.AdvanceWall(61);
  Value read;
  ASSERT_EQ(store.Get("a", &read), Ok());  // note {a, 1, 2}
  Value b = Record(2);
  ASSERT_EQ(store.Put("b", b), Ok());  // note {b, 0, 3}
  ASSERT_THAT(store.notes(), ElementsAre(Note{"a", 1, 2}, Note{"b", 0, 3}));

  const std::vector<std::string> logs = testing_support::FilesWithSuffix(lru_path_, ".log");
  ASSERT_EQ(logs.size(), 1u);
  const std::string failure = "IO error: " + lru_path_ + "/" + logs[0] + ": injected write failure";
  env.fail_writes = true;
  store.ApplyLruUpdates();
  env.fail_writes = false;

  const std::string line = "Failed to put entry into LRU cache, error=5, message=" + failure;
  EXPECT_EQ(Lines(log_), (std::vector<Line>{{kError, line}, {kError, line}}));
  EXPECT_EQ(LruData(store), (LruMap{{"a", {kWallStart + 61, 2}}}));
  EXPECT_EQ(Rows(store), (RowMap{{1, "a"}}));
  EXPECT_THAT(store.notes(), IsEmpty());
}

// --- Stop ----------------------------------------------------------------------

TEST_F(LruTest, StopWithNotesInTheListWritesNoRow) {
  SeedAgreeingPair(path_);
  TestLruStore store(16, 24h, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  const RowMap seed{{1, "0-seed"}};
  Value a = Record(1);
  Value b = Record(2);
  ASSERT_EQ(store.Put("a", a), Ok());
  ASSERT_EQ(store.Put("b", b), Ok());
  clock_.Advance(11s);  // the sync period is over: only Stop comes first
  store.Stop();
  EXPECT_EQ(Rows(store), seed);
  EXPECT_THAT(store.notes(), ElementsAre(Note{"a", 0, 2}, Note{"b", 0, 3}));
  // A pass after Stop writes nothing and drops the notes.
  store.ApplyLruUpdates();
  EXPECT_EQ(Rows(store), seed);
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(Entries(store).size(), 3u);
}

// --- The internal operations ----------------------------------------------------

TEST_F(LruTest, RowOperationsLogTheirFailures) {
  testing_support::WriteFile(lru_path_, "not a directory");
  TestLruStore store;
  store.Open(path_, 0);
  log_.clear();
  std::string key = "kept";
  EXPECT_EQ(store.GetFromLru(3, &key), St(5, ""));
  EXPECT_EQ(key, "kept");
  EXPECT_EQ(store.AddToLru(3, "k"), St(5, ""));
  EXPECT_EQ(store.DeleteFromLru(3), St(5, ""));
  EXPECT_EQ(store.DeleteFromLru(std::vector<Value>{Stamped(1, 3)}), St(5, ""));
  EXPECT_EQ(Lines(log_),
            (std::vector<Line>{{kTrace, "Failed to get entry from LRU, error=5, message="},
                               {kError, "Failed to put entry into LRU cache, error=5, message="},
                               {kError, "Failed to delete entry from LRU, error=5, message="},
                               {kError, "Failed to delete entries from LRU, error=5, message="}}));
}

TEST_F(LruTest, AFailedMainStoreWriteLeavesNoNoteAndUsesTheIndexUp) {
  testing_support::FaultEnv env;
  env.only_files = "enrichment/";
  testing_support::ScopedTestEnv scoped_env(&env);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 0), Ok());
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path_, ".log");
  ASSERT_EQ(logs.size(), 1u);
  const std::string failure = "IO error: " + path_ + "/" + logs[0] + ": injected write failure";
  env.fail_writes = true;
  Value value = Record(1);
  EXPECT_EQ(store.Put("k", value), St(5, failure));
  EXPECT_EQ(store.Put({"x", "y"}, {Record(2), Record(3)}, false), St(5, failure));
  env.fail_writes = false;
  EXPECT_EQ(
      Lines(log_),
      (std::vector<Line>{{kError, "Failed to update entry, error=5, message=" + failure},
                         {kError, "Failed to put <keys, values>, error=5, message=" + failure}}));
  EXPECT_THAT(store.notes(), IsEmpty());
  EXPECT_EQ(store.current_index(), 3u);
  Value next = Record(4);
  ASSERT_EQ(store.Put("k", next), Ok());
  EXPECT_EQ(next.lru_data().index(), 4u);
}

}  // namespace
}  // namespace lru_test
