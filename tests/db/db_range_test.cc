// persistence::DB: reads of more than one key. Lists of keys, key ranges,
// pages by position, walks with a callback, emptiness and snapshots.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "db/db_test_util.h"
#include "persistence/db.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"

namespace {

using db_test::DbNullCheck;
using db_test::DBProbe;
using db_test::EmptyKeyCheck;
using db_test::Entries;
using db_test::IsCheckLine;
using db_test::ReadStatusCheck;
using db_test::ReportLine;
using db_test::StatusOkCheck;
using persistence::DB;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::FaultEnv;
using testing_support::ScopedTestEnv;
using testing_support::StderrCapture;
using testing_support::TempDir;
using Strings = std::vector<std::string>;

auto StartCheck() { return IsCheckLine("!key_start.empty()", "!key_start.empty()"); }
auto LimitCheck() { return IsCheckLine("!key_limit.empty()", "!key_limit.empty()"); }

class DBRange : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(db_.Open(true, true, false, 0).ok()); }

  void PutAll(const Entries& entries) {
    for (const auto& entry : entries) ASSERT_TRUE(db_.Put(entry.first, entry.second, false).ok());
  }

  // a..f with values 1..6; c and d in a table, the rest in the log.
  void PutSix() {
    PutAll({{"c", "3"}, {"d", "4"}});
    ASSERT_TRUE(db_.Compact().ok());
    PutAll({{"a", "1"}, {"b", "2"}, {"e", "5"}, {"f", "6"}});
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  DBProbe db_{path_};
};

// --- Get of many keys -------------------------------------------------------

TEST_F(DBRange, GetOfManyKeysReturnsTheValuesInTheOrderAsked) {
  PutSix();
  Strings values{"stale"};
  StderrCapture capture;
  ASSERT_TRUE(db_.Get(Strings{"f", "a", "d", "a"}, &values, nullptr).ok());
  EXPECT_THAT(values, ElementsAre("6", "1", "4", "1"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, GetOfManyKeysStopsAtTheFirstAbsentKey) {
  PutAll({{"a", "1"}, {"b", "2"}});
  Strings values{"stale"};
  StderrCapture capture;
  const leveldb::Status status = db_.Get(Strings{"a", "x", "b"}, &values, nullptr);
  EXPECT_EQ(status.ToString(), "NotFound: ");
  EXPECT_THAT(values, ElementsAre("1"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db_.corrupted());
}

TEST_F(DBRange, GetOfNoKeysLeavesTheValuesEmpty) {
  PutAll({{"a", "1"}});
  Strings values{"stale", "too"};
  StderrCapture capture;
  EXPECT_TRUE(db_.Get(Strings{}, &values, nullptr).ok());
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, GetOfManyKeysWithNullValuesIsRefusedSilently) {
  StderrCapture capture;
  EXPECT_EQ(db_.Get(Strings{"a", ""}, nullptr, nullptr).ToString(),
            "Invalid argument: values: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, GetOfManyKeysWithAnEmptyKeyGoesThroughTheReadTail) {
  PutAll({{"a", "1"}, {"b", "2"}});
  Strings values;
  StderrCapture capture;
  const leveldb::Status status = db_.Get(Strings{"a", "", "b"}, &values, nullptr);
  EXPECT_EQ(status.ToString(), "Invalid argument: key: empty");
  EXPECT_THAT(capture.Lines(),
              ElementsAre(EmptyKeyCheck(), ReportLine(path_, "Get", "Invalid argument: key: empty"),
                          ReadStatusCheck()));
  EXPECT_THAT(values, ElementsAre("1"));
  EXPECT_FALSE(db_.corrupted());
}

TEST_F(DBRange, GetOfManyKeysReadsTheGivenSnapshot) {
  PutAll({{"a", "old"}});
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  PutAll({{"a", "new"}, {"b", "later"}});
  Strings values;
  ASSERT_TRUE(db_.Get(Strings{"a"}, &values, snapshot).ok());
  EXPECT_THAT(values, ElementsAre("old"));
  EXPECT_EQ(db_.Get(Strings{"a", "b"}, &values, snapshot).ToString(), "NotFound: ");
  EXPECT_THAT(values, ElementsAre("old"));
  ASSERT_TRUE(db_.Get(Strings{"a", "b"}, &values, nullptr).ok());
  EXPECT_THAT(values, ElementsAre("new", "later"));
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- Dump and DumpRange -----------------------------------------------------

TEST_F(DBRange, DumpOfAnEmptyDatabaseClearsTheOutputs) {
  Strings keys{"old-key"};
  Strings values{"old-value"};
  StderrCapture capture;
  ASSERT_TRUE(db_.Dump(&keys, &values, nullptr).ok());
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, DumpReturnsEverythingInKeyOrder) {
  PutSix();
  Strings keys;
  Strings values;
  StderrCapture capture;
  ASSERT_TRUE(db_.Dump(&keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b", "c", "d", "e", "f"));
  EXPECT_THAT(values, ElementsAre("1", "2", "3", "4", "5", "6"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, DumpOrdersKeysBytewise) {
  PutAll({{"b", "1"},
          {"B", "2"},
          {"ab", "3"},
          {"a", "4"},
          {"\xff", "5"},
          {std::string(1, '\x01'), "6"}});
  Strings keys;
  ASSERT_TRUE(db_.Dump(&keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre(std::string(1, '\x01'), "B", "a", "ab", "b", "\xff"));
}

TEST_F(DBRange, DumpWithoutValuesReadsOnlyKeys) {
  PutSix();
  Strings keys;
  ASSERT_TRUE(db_.Dump(&keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b", "c", "d", "e", "f"));
}

TEST_F(DBRange, DumpWithNullKeysIsRefusedAndLeavesTheValues) {
  PutSix();
  Strings values{"untouched"};
  StderrCapture capture;
  EXPECT_EQ(db_.Dump(nullptr, &values, nullptr).ToString(), "Invalid argument: keys: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_THAT(values, ElementsAre("untouched"));
}

TEST_F(DBRange, DumpRangeIncludesTheStartAndExcludesTheLimit) {
  PutSix();
  Strings keys;
  Strings values;
  StderrCapture capture;
  ASSERT_TRUE(db_.DumpRange("b", "e", &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("b", "c", "d"));
  EXPECT_THAT(values, ElementsAre("2", "3", "4"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, DumpRangeFromEqualBoundsIsEmpty) {
  PutSix();
  Strings keys{"stale"};
  ASSERT_TRUE(db_.DumpRange("c", "c", &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, IsEmpty());
}

TEST_F(DBRange, DumpRangeStartsAtTheNextKeyAboveAnAbsentStart) {
  PutSix();
  Strings keys;
  ASSERT_TRUE(db_.DumpRange("bb", "dd", &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("c", "d"));
}

TEST_F(DBRange, DumpRangeWithNullKeyBoundsIsOpenAtThatEnd) {
  PutSix();
  Strings keys;
  ASSERT_TRUE(db_.DumpRange(DB::NullKey(), "c", &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b"));
  ASSERT_TRUE(db_.DumpRange("e", DB::NullKey(), &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("e", "f"));
  ASSERT_TRUE(db_.DumpRange(DB::NullKey(), DB::NullKey(), &keys, nullptr, nullptr).ok());
  EXPECT_EQ(keys.size(), 6u);
}

TEST_F(DBRange, DumpRangeWithStartAboveLimitIsEmpty) {
  PutSix();
  Strings keys{"stale"};
  ASSERT_TRUE(db_.DumpRange("e", "b", &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, IsEmpty());
}

TEST_F(DBRange, DumpRangeWithAnEmptyLimitPrintsAndReturnsNothing) {
  PutSix();
  Strings keys{"stale"};
  Strings values{"stale"};
  StderrCapture capture;
  ASSERT_TRUE(db_.DumpRange("a", "", &keys, &values, nullptr).ok());
  EXPECT_THAT(capture.Lines(), ElementsAre(LimitCheck()));
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
}

TEST_F(DBRange, DumpRangeWithAnEmptyStartPrintsAndStartsAtTheFirstKey) {
  PutSix();
  Strings keys;
  StderrCapture capture;
  ASSERT_TRUE(db_.DumpRange("", "c", &keys, nullptr, nullptr).ok());
  EXPECT_THAT(capture.Lines(), ElementsAre(StartCheck()));
  EXPECT_THAT(keys, ElementsAre("a", "b"));
}

TEST_F(DBRange, EmptyBoundsAreReportedEvenWhenTheCallIsRefused) {
  StderrCapture capture;
  EXPECT_EQ(db_.DumpRange("", "", nullptr, nullptr, nullptr).ToString(),
            "Invalid argument: keys: nullptr");
  EXPECT_EQ(db_.CountRange("", "", nullptr, nullptr).ToString(),
            "Invalid argument: count: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(StartCheck(), LimitCheck(), StartCheck(), LimitCheck()));
}

TEST_F(DBRange, DumpReadsTheGivenSnapshot) {
  PutAll({{"a", "1"}, {"b", "2"}});
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  ASSERT_NE(snapshot, nullptr);
  PutAll({{"c", "3"}, {"a", "changed"}});
  ASSERT_TRUE(db_.Delete("b", false).ok());
  Strings keys;
  Strings values;
  ASSERT_TRUE(db_.Dump(&keys, &values, snapshot).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b"));
  EXPECT_THAT(values, ElementsAre("1", "2"));
  ASSERT_TRUE(db_.Dump(&keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "c"));
  EXPECT_THAT(values, ElementsAre("changed", "3"));
  StderrCapture capture;
  EXPECT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

// --- Count and CountRange ---------------------------------------------------

TEST_F(DBRange, CountWalksTheWholeDatabase) {
  PutSix();
  uint64_t count = 99;
  StderrCapture capture;
  ASSERT_TRUE(db_.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 6u);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, CountOfAnEmptyDatabaseIsZero) {
  uint64_t count = 99;
  ASSERT_TRUE(db_.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 0u);
}

TEST_F(DBRange, CountRangeFromAToCOverABCIsTwo) {
  PutAll({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  uint64_t count = 0;
  ASSERT_TRUE(db_.CountRange("a", "c", &count, nullptr).ok());
  EXPECT_EQ(count, 2u);
  ASSERT_TRUE(db_.CountRange("a", DB::NullKey(), &count, nullptr).ok());
  EXPECT_EQ(count, 3u);
  ASSERT_TRUE(db_.CountRange("b", "b", &count, nullptr).ok());
  EXPECT_EQ(count, 0u);
}

TEST_F(DBRange, CountRangeWithEmptyBoundsPrintsBothChecks) {
  PutAll({{"a", "1"}, {"b", "2"}});
  uint64_t count = 9;
  StderrCapture capture;
  ASSERT_TRUE(db_.CountRange("", "", &count, nullptr).ok());
  EXPECT_THAT(capture.Lines(), ElementsAre(StartCheck(), LimitCheck()));
  EXPECT_EQ(count, 0u);
}

TEST_F(DBRange, CountWithNullCountIsRefusedSilently) {
  StderrCapture capture;
  EXPECT_EQ(db_.Count(nullptr, nullptr).ToString(), "Invalid argument: count: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, CountReadsTheGivenSnapshot) {
  PutAll({{"a", "1"}});
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  PutAll({{"b", "2"}, {"c", "3"}});
  uint64_t count = 0;
  ASSERT_TRUE(db_.Count(&count, snapshot).ok());
  EXPECT_EQ(count, 1u);
  ASSERT_TRUE(db_.CountRange("a", "c", &count, snapshot).ok());
  EXPECT_EQ(count, 1u);
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- ReadInterval and ReadReverseInterval -----------------------------------

TEST_F(DBRange, ReadIntervalCountsPositionsFromOne) {
  PutSix();
  Strings keys;
  Strings values;
  StderrCapture capture;
  ASSERT_TRUE(db_.ReadInterval(1, 2, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b"));
  EXPECT_THAT(values, ElementsAre("1", "2"));
  ASSERT_TRUE(db_.ReadInterval(0, 2, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b"));
  EXPECT_THAT(values, ElementsAre("1", "2"));
  ASSERT_TRUE(db_.ReadInterval(3, 2, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("c", "d"));
  EXPECT_THAT(values, ElementsAre("3", "4"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, ReadIntervalStopsAtTheEnd) {
  PutSix();
  Strings keys;
  ASSERT_TRUE(db_.ReadInterval(5, 10, &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("e", "f"));
  ASSERT_TRUE(db_.ReadInterval(2, DB::MaxCount(), &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("b", "c", "d", "e", "f"));
}

TEST_F(DBRange, ReadIntervalPastTheEndOrOfNothingReturnsNothing) {
  PutSix();
  Strings keys{"stale"};
  Strings values{"stale"};
  StderrCapture capture;
  ASSERT_TRUE(db_.ReadInterval(7, 2, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  keys = {"stale"};
  ASSERT_TRUE(db_.ReadInterval(DB::MaxCount(), DB::MaxCount(), &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, IsEmpty());
  keys = {"stale"};
  ASSERT_TRUE(db_.ReadInterval(1, 0, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, ReadReverseIntervalCountsFromTheLastEntry) {
  PutSix();
  Strings keys;
  Strings values;
  ASSERT_TRUE(db_.ReadReverseInterval(1, 2, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("f", "e"));
  EXPECT_THAT(values, ElementsAre("6", "5"));
  ASSERT_TRUE(db_.ReadReverseInterval(0, 2, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("f", "e"));
  ASSERT_TRUE(db_.ReadReverseInterval(3, 2, &keys, &values, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("d", "c"));
  EXPECT_THAT(values, ElementsAre("4", "3"));
  ASSERT_TRUE(db_.ReadReverseInterval(5, DB::MaxCount(), &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("b", "a"));
  ASSERT_TRUE(db_.ReadReverseInterval(7, 1, &keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, IsEmpty());
}

TEST_F(DBRange, ReadIntervalWithNullKeysIsRefusedSilently) {
  Strings values{"untouched"};
  StderrCapture capture;
  EXPECT_EQ(db_.ReadInterval(1, 1, nullptr, &values, nullptr).ToString(),
            "Invalid argument: keys: nullptr");
  EXPECT_EQ(db_.ReadReverseInterval(1, 1, nullptr, &values, nullptr).ToString(),
            "Invalid argument: keys: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_THAT(values, ElementsAre("untouched"));
}

TEST_F(DBRange, ReadIntervalReadsTheGivenSnapshot) {
  PutAll({{"b", "2"}});
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  PutAll({{"a", "1"}, {"c", "3"}});
  Strings keys;
  ASSERT_TRUE(db_.ReadInterval(1, 10, &keys, nullptr, snapshot).ok());
  EXPECT_THAT(keys, ElementsAre("b"));
  ASSERT_TRUE(db_.ReadReverseInterval(1, 10, &keys, nullptr, snapshot).ok());
  EXPECT_THAT(keys, ElementsAre("b"));
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- Iterate and ReverseIterate ---------------------------------------------

TEST_F(DBRange, IterateVisitsEveryEntryInKeyOrder) {
  PutSix();
  Entries seen;
  StderrCapture capture;
  ASSERT_TRUE(db_.Iterate(
                     [&seen](std::string key, std::string value) {
                       seen.emplace_back(std::move(key), std::move(value));
                       return true;
                     },
                     nullptr)
                  .ok());
  EXPECT_EQ(seen,
            (Entries{{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}, {"e", "5"}, {"f", "6"}}));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, ReverseIterateVisitsFromTheLastKey) {
  PutSix();
  Strings seen;
  ASSERT_TRUE(db_.ReverseIterate(
                     [&seen](std::string key, std::string) {
                       seen.push_back(key);
                       return true;
                     },
                     nullptr)
                  .ok());
  EXPECT_THAT(seen, ElementsAre("f", "e", "d", "c", "b", "a"));
}

TEST_F(DBRange, IterateStopsWhenTheCallbackReturnsFalse) {
  PutSix();
  int calls = 0;
  StderrCapture capture;
  EXPECT_TRUE(db_.Iterate(
                     [&calls](std::string, std::string) {
                       ++calls;
                       return false;
                     },
                     nullptr)
                  .ok());
  EXPECT_EQ(calls, 1);
  Strings seen;
  EXPECT_TRUE(db_.ReverseIterate(
                     [&seen](std::string key, std::string) {
                       seen.push_back(key);
                       return seen.size() < 3;
                     },
                     nullptr)
                  .ok());
  EXPECT_THAT(seen, ElementsAre("f", "e", "d"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, IterateOfAnEmptyDatabaseNeverCallsBack) {
  int calls = 0;
  EXPECT_TRUE(db_.Iterate(
                     [&calls](std::string, std::string) {
                       ++calls;
                       return true;
                     },
                     nullptr)
                  .ok());
  EXPECT_EQ(calls, 0);
}

TEST_F(DBRange, IterateWithAnEmptyCallbackThrowsOnlyAtTheFirstEntry) {
  EXPECT_TRUE(db_.Iterate(DB::IterateCallback(), nullptr).ok());
  EXPECT_TRUE(db_.ReverseIterate(DB::IterateCallback(), nullptr).ok());
  PutAll({{"a", "1"}});
  EXPECT_THROW(db_.Iterate(DB::IterateCallback(), nullptr), std::bad_function_call);
  EXPECT_THROW(db_.ReverseIterate(DB::IterateCallback(), nullptr), std::bad_function_call);
}

TEST_F(DBRange, AnExceptionFromTheCallbackPassesThrough) {
  PutSix();
  int calls = 0;
  StderrCapture capture;
  EXPECT_THROW(db_.Iterate(
                   [&calls](std::string key, std::string) -> bool {
                     ++calls;
                     if (key == "c") throw std::runtime_error("stop at c");
                     return true;
                   },
                   nullptr),
               std::runtime_error);
  EXPECT_EQ(calls, 3);
  EXPECT_THAT(capture.Lines(), IsEmpty());
  // The walk's own snapshot and iterator are gone with it: the handle goes on
  // working and closes cleanly.
  ASSERT_TRUE(db_.Put("g", "7", false).ok());
  uint64_t count = 0;
  ASSERT_TRUE(db_.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 7u);
  EXPECT_TRUE(db_.Close().ok());
}

TEST_F(DBRange, IterateDoesNotSeeWritesMadeDuringTheWalk) {
  PutAll({{"a", "1"}, {"c", "3"}});
  Strings seen;
  ASSERT_TRUE(db_.Iterate(
                     [this, &seen](std::string key, std::string) {
                       seen.push_back(key);
                       if (key == "a") {
                         EXPECT_TRUE(db_.Put("b", "2", false).ok());
                       }
                       return true;
                     },
                     nullptr)
                  .ok());
  EXPECT_THAT(seen, ElementsAre("a", "c"));
}

TEST_F(DBRange, IterateReadsTheGivenSnapshot) {
  PutAll({{"a", "1"}});
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  PutAll({{"b", "2"}});
  Strings seen;
  ASSERT_TRUE(db_.ReverseIterate(
                     [&seen](std::string key, std::string) {
                       seen.push_back(key);
                       return true;
                     },
                     snapshot)
                  .ok());
  EXPECT_THAT(seen, ElementsAre("a"));
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- Empty --------------------------------------------------------------------

TEST_F(DBRange, EmptyTellsWhetherAnEntryIsThere) {
  bool is_empty = false;
  StderrCapture capture;
  ASSERT_TRUE(db_.Empty(&is_empty, nullptr).ok());
  EXPECT_TRUE(is_empty);
  ASSERT_TRUE(db_.Put("a", "1", false).ok());
  ASSERT_TRUE(db_.Empty(&is_empty, nullptr).ok());
  EXPECT_FALSE(is_empty);
  ASSERT_TRUE(db_.Delete("a", false).ok());
  ASSERT_TRUE(db_.Empty(&is_empty, nullptr).ok());
  EXPECT_TRUE(is_empty);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, EmptyWithANullResultIsRefused) {
  StderrCapture capture;
  EXPECT_EQ(db_.Empty(nullptr, nullptr).ToString(), "Invalid argument: is_empty: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, EmptyReadsTheGivenSnapshot) {
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  ASSERT_TRUE(db_.Put("a", "1", false).ok());
  bool is_empty = false;
  ASSERT_TRUE(db_.Empty(&is_empty, snapshot).ok());
  EXPECT_TRUE(is_empty);
  ASSERT_TRUE(db_.Empty(&is_empty, nullptr).ok());
  EXPECT_FALSE(is_empty);
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- Snapshots ----------------------------------------------------------------

TEST_F(DBRange, SnapshotHidesAPutMadeAfterIt) {
  PutAll({{"a", "1"}});
  const leveldb::Snapshot* snapshot = nullptr;
  StderrCapture capture;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  ASSERT_NE(snapshot, nullptr);
  ASSERT_TRUE(db_.Put("b", "2", false).ok());
  Strings keys;
  ASSERT_TRUE(db_.Dump(&keys, nullptr, snapshot).ok());
  EXPECT_THAT(keys, ElementsAre("a"));
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRange, CreateSnapshotWithNullOutputIsRefusedSilently) {
  StderrCapture capture;
  EXPECT_EQ(db_.CreateSnapshot(nullptr).ToString(), "Invalid argument: snapshot: nullptr");
  EXPECT_EQ(db_.ReleaseSnapshot(nullptr).ToString(), "Invalid argument: snapshot: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

// --- Closed handle --------------------------------------------------------------

TEST(DBRangeClosed, EveryReadReportsTheClosedHandleAndClearsItsOutputs) {
  TempDir dir;
  DB db(dir.Sub("db"));
  Strings keys{"stale"};
  Strings values{"stale"};
  uint64_t count = 5;
  bool is_empty = false;
  const leveldb::Snapshot* snapshot = reinterpret_cast<const leveldb::Snapshot*>(&count);
  int calls = 0;
  const auto callback = [&calls](std::string, std::string) {
    ++calls;
    return true;
  };
  const std::string closed = "Invalid argument: db_: nullptr";
  StderrCapture capture;
  EXPECT_EQ(db.Get(Strings{"a"}, &values, nullptr).ToString(), closed);
  EXPECT_THAT(values, IsEmpty());
  values = {"stale"};
  EXPECT_EQ(db.Dump(&keys, &values, nullptr).ToString(), closed);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  EXPECT_EQ(db.Count(&count, nullptr).ToString(), closed);
  EXPECT_EQ(count, 0u);
  keys = {"stale"};
  values = {"stale"};
  EXPECT_EQ(db.ReadInterval(1, 1, &keys, &values, nullptr).ToString(), closed);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  keys = {"stale"};
  EXPECT_EQ(db.ReadReverseInterval(1, 1, &keys, nullptr, nullptr).ToString(), closed);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_EQ(db.Iterate(callback, nullptr).ToString(), closed);
  EXPECT_EQ(db.ReverseIterate(callback, nullptr).ToString(), closed);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(db.Empty(&is_empty, nullptr).ToString(), closed);
  EXPECT_TRUE(is_empty);
  EXPECT_EQ(db.CreateSnapshot(&snapshot).ToString(), closed);
  EXPECT_EQ(snapshot, nullptr);
  EXPECT_EQ(db.ReleaseSnapshot(reinterpret_cast<const leveldb::Snapshot*>(&count)).ToString(),
            closed);
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 10u);
  for (const std::string& line : lines) EXPECT_THAT(line, DbNullCheck());
}

TEST(DBRangeClosed, MissingOutputsAreRefusedBeforeTheHandleIsChecked) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Get(Strings{"a"}, nullptr, nullptr).ToString(), "Invalid argument: values: nullptr");
  EXPECT_EQ(db.Dump(nullptr, nullptr, nullptr).ToString(), "Invalid argument: keys: nullptr");
  EXPECT_EQ(db.Count(nullptr, nullptr).ToString(), "Invalid argument: count: nullptr");
  EXPECT_EQ(db.ReadInterval(1, 1, nullptr, nullptr, nullptr).ToString(),
            "Invalid argument: keys: nullptr");
  EXPECT_EQ(db.Empty(nullptr, nullptr).ToString(), "Invalid argument: is_empty: nullptr");
  EXPECT_EQ(db.CreateSnapshot(nullptr).ToString(), "Invalid argument: snapshot: nullptr");
  EXPECT_EQ(db.ReleaseSnapshot(nullptr).ToString(), "Invalid argument: snapshot: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBRangeClosed, EmptyBoundsAreReportedBeforeTheHandleIsChecked) {
  TempDir dir;
  DB db(dir.Sub("db"));
  Strings keys;
  StderrCapture capture;
  EXPECT_EQ(db.DumpRange("", "z", &keys, nullptr, nullptr).ToString(),
            "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(StartCheck(), DbNullCheck()));
}

// --- Corrupted handle -------------------------------------------------------------

// A table of a..c. A Verify that meets injected damage flags the handle; the damage is then
// switched off again, so that whatever reaches the engine afterwards would succeed.
class DBRangeCorrupted : public testing::Test {
 protected:
  void SetUp() override {
    db_test::WriteTable(path_, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
    ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
    env_.corrupt_table_reads = true;
    ASSERT_FALSE(db_.Verify().ok());
    env_.corrupt_table_reads = false;
    ASSERT_TRUE(db_.corrupted());
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  FaultEnv env_;
  ScopedTestEnv scoped_env_{&env_};
  DBProbe db_{path_};
};

TEST_F(DBRangeCorrupted, EveryReadReturnsCorruptionSilentlyAndClearsItsOutputs) {
  Strings keys{"stale"};
  Strings values{"stale"};
  uint64_t count = 5;
  bool is_empty = false;
  const leveldb::Snapshot* snapshot = reinterpret_cast<const leveldb::Snapshot*>(&count);
  int calls = 0;
  const auto callback = [&calls](std::string, std::string) {
    ++calls;
    return true;
  };
  const std::string corrupted = "Corruption: corrupted_: true";
  StderrCapture capture;
  EXPECT_EQ(db_.Get(Strings{"a"}, &values, nullptr).ToString(), corrupted);
  EXPECT_THAT(values, IsEmpty());
  values = {"stale"};
  EXPECT_EQ(db_.Dump(&keys, &values, nullptr).ToString(), corrupted);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  keys = {"stale"};
  EXPECT_EQ(db_.DumpRange("a", "c", &keys, nullptr, nullptr).ToString(), corrupted);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_EQ(db_.Count(&count, nullptr).ToString(), corrupted);
  EXPECT_EQ(count, 0u);
  count = 5;
  EXPECT_EQ(db_.CountRange("a", "c", &count, nullptr).ToString(), corrupted);
  EXPECT_EQ(count, 0u);
  keys = {"stale"};
  EXPECT_EQ(db_.ReadInterval(1, 1, &keys, nullptr, nullptr).ToString(), corrupted);
  EXPECT_THAT(keys, IsEmpty());
  keys = {"stale"};
  EXPECT_EQ(db_.ReadReverseInterval(1, 1, &keys, nullptr, nullptr).ToString(), corrupted);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_EQ(db_.Iterate(callback, nullptr).ToString(), corrupted);
  EXPECT_EQ(db_.ReverseIterate(callback, nullptr).ToString(), corrupted);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(db_.Empty(&is_empty, nullptr).ToString(), corrupted);
  EXPECT_TRUE(is_empty);
  EXPECT_EQ(db_.CreateSnapshot(&snapshot).ToString(), corrupted);
  EXPECT_EQ(snapshot, nullptr);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBRangeCorrupted, ASnapshotReleasedAfterTheFlagIsKeptByTheEngine) {
  ASSERT_TRUE(db_.Verify().ok());
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  env_.corrupt_table_reads = true;
  ASSERT_FALSE(db_.Verify().ok());
  env_.corrupt_table_reads = false;
  StderrCapture capture;
  EXPECT_EQ(db_.ReleaseSnapshot(snapshot).ToString(), "Corruption: corrupted_: true");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  // Not given back: once the flag is cleared the snapshot still reads.
  ASSERT_TRUE(db_.Verify().ok());
  ASSERT_TRUE(db_.Put("d", "4", false).ok());
  Strings keys;
  ASSERT_TRUE(db_.Dump(&keys, nullptr, snapshot).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b", "c"));
  EXPECT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- Failed walks -------------------------------------------------------------------

// Two level-0 tables, a..c and x..z, of which only the second is read
// through the failing environment. A walk collects what the first holds and
// ends with the failure of the second.
class DBRangeFaults : public testing::Test {
 protected:
  void SetUp() override {
    db_test::WriteTable(path_, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
    damaged_ = db_test::WriteTable(path_, {{"x", "24"}, {"y", "25"}, {"z", "26"}});
    env_.only_files = damaged_;
    ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
    damage_ = "Corruption: " + path_ + "/" + damaged_ + ": injected damage";
    read_failure_ = "IO error: " + path_ + "/" + damaged_ + ": injected read failure";
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  FaultEnv env_;
  ScopedTestEnv scoped_env_{&env_};
  DBProbe db_{path_};
  std::string damaged_;
  std::string damage_;
  std::string read_failure_;
};

TEST_F(DBRangeFaults, FailedDumpKeepsWhatItCollected) {
  env_.corrupt_table_reads = true;
  Strings keys;
  Strings values;
  StderrCapture capture;
  EXPECT_EQ(db_.Dump(&keys, &values, nullptr).ToString(), damage_);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Dump", damage_), StatusOkCheck()));
  EXPECT_THAT(keys, ElementsAre("a", "b", "c"));
  EXPECT_THAT(values, ElementsAre("1", "2", "3"));
  EXPECT_TRUE(db_.corrupted());
}

TEST_F(DBRangeFaults, FailedCountKeepsWhatItCounted) {
  env_.corrupt_table_reads = true;
  uint64_t count = 0;
  StderrCapture capture;
  EXPECT_EQ(db_.CountRange("b", DB::NullKey(), &count, nullptr).ToString(), damage_);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Count", damage_), StatusOkCheck()));
  EXPECT_EQ(count, 2u);
  EXPECT_TRUE(db_.corrupted());
}

TEST_F(DBRangeFaults, FailedReadIsReportedAsRead) {
  env_.corrupt_table_reads = true;
  Strings keys;
  StderrCapture capture;
  EXPECT_EQ(db_.ReadInterval(2, DB::MaxCount(), &keys, nullptr, nullptr).ToString(), damage_);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Read", damage_), StatusOkCheck()));
  EXPECT_THAT(keys, ElementsAre("b", "c"));
}

TEST_F(DBRangeFaults, FailedReverseReadIsReportedAsRead) {
  env_.fail_table_reads = true;
  Strings keys;
  StderrCapture capture;
  EXPECT_EQ(db_.ReadReverseInterval(1, DB::MaxCount(), &keys, nullptr, nullptr).ToString(),
            read_failure_);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "Read", read_failure_), StatusOkCheck()));
  EXPECT_THAT(keys, ElementsAre("c", "b", "a"));
  // An I/O error does not flag the handle.
  EXPECT_FALSE(db_.corrupted());
}

TEST_F(DBRangeFaults, FailedIterateIsReportedAfterTheWalk) {
  env_.corrupt_table_reads = true;
  Strings seen;
  StderrCapture capture;
  EXPECT_EQ(db_.Iterate(
                   [&seen](std::string key, std::string) {
                     seen.push_back(key);
                     return true;
                   },
                   nullptr)
                .ToString(),
            damage_);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Iterate", damage_), StatusOkCheck()));
  EXPECT_THAT(seen, ElementsAre("a", "b", "c"));
  EXPECT_TRUE(db_.corrupted());
}

TEST_F(DBRangeFaults, IterateStoppedEarlyStillReturnsTheFailure) {
  env_.fail_table_reads = true;
  int calls = 0;
  StderrCapture capture;
  EXPECT_EQ(db_.ReverseIterate(
                   [&calls](std::string, std::string) {
                     ++calls;
                     return false;
                   },
                   nullptr)
                .ToString(),
            read_failure_);
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "Iterate", read_failure_), StatusOkCheck()));
}

TEST_F(DBRangeFaults, FailedEmptyLeavesTheResultTrue) {
  env_.corrupt_table_reads = true;
  bool is_empty = false;
  StderrCapture capture;
  EXPECT_EQ(db_.Empty(&is_empty, nullptr).ToString(), damage_);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Empty", damage_), StatusOkCheck()));
  EXPECT_TRUE(is_empty);
  EXPECT_TRUE(db_.corrupted());
}

TEST_F(DBRangeFaults, FailedGetOfManyKeysUsesTheReadCheck) {
  env_.corrupt_table_reads = true;
  Strings values;
  StderrCapture capture;
  EXPECT_EQ(db_.Get(Strings{"a", "y", "b"}, &values, nullptr).ToString(), damage_);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Get", damage_), ReadStatusCheck()));
  EXPECT_THAT(values, ElementsAre("1"));
  EXPECT_TRUE(db_.corrupted());
}

TEST_F(DBRangeFaults, WithoutParanoidChecksTheNextWalkReachesTheEngineAgain) {
  ASSERT_TRUE(db_.Close().ok());
  ASSERT_TRUE(db_.Open(false, false, false, 0).ok());
  env_.corrupt_table_reads = true;
  Strings keys;
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Dump(&keys, nullptr, nullptr).ToString(), damage_);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Dump", damage_), StatusOkCheck()));
  }
  EXPECT_FALSE(db_.corrupted());
  env_.corrupt_table_reads = false;
  StderrCapture capture;
  ASSERT_TRUE(db_.Dump(&keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b", "c", "x", "y", "z"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

}  // namespace
