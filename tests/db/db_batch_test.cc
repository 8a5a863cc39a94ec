// persistence::DB: batched writes. Each operation is one engine write that
// lands whole or not at all; deletes go before puts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
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

class DBBatch : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(db_.Open(true, true, false, 0).ok()); }

  void PutAll(const Entries& entries) {
    for (const auto& entry : entries) ASSERT_TRUE(db_.Put(entry.first, entry.second, false).ok());
  }

  Entries Contents() {
    std::vector<std::string> keys;
    std::vector<std::string> values;
    EXPECT_TRUE(db_.Dump(&keys, &values, nullptr).ok());
    Entries entries;
    for (size_t i = 0; i < keys.size(); ++i) entries.emplace_back(keys[i], values[i]);
    return entries;
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  DBProbe db_{path_};
};

// --- Put and Delete of many keys --------------------------------------------

TEST_F(DBBatch, PutWritesAllPairs) {
  StderrCapture capture;
  ASSERT_TRUE(db_.Put(Strings{"b", "a", "c"}, Strings{"2", "1", "3"}, false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}, {"b", "2"}, {"c", "3"}}));
}

TEST_F(DBBatch, PutWithThreeKeysAndTwoValuesWritesTwoPairs) {
  StderrCapture capture;
  const leveldb::Status status = db_.Put(Strings{"a", "b", "c"}, Strings{"1", "2"}, false);
  EXPECT_TRUE(status.ok()) << status.ToString();
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}, {"b", "2"}}));
}

TEST_F(DBBatch, PutWithMoreValuesThanKeysDropsTheSurplus) {
  ASSERT_TRUE(db_.Put(Strings{"a"}, Strings{"1", "2", "3"}, true).ok());
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}}));
}

TEST_F(DBBatch, PutWithNoKeysWritesAnEmptyBatch) {
  PutAll({{"a", "1"}});
  StderrCapture capture;
  EXPECT_TRUE(db_.Put(Strings{}, Strings{}, false).ok());
  EXPECT_TRUE(db_.Put(Strings{}, Strings{"orphan"}, true).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}}));
}

TEST_F(DBBatch, PutOfTheSameKeyTwiceKeepsTheLastValue) {
  ASSERT_TRUE(db_.Put(Strings{"k", "k"}, Strings{"first", "second"}, false).ok());
  EXPECT_EQ(Contents(), (Entries{{"k", "second"}}));
}

TEST_F(DBBatch, PutWithAnEmptyKeyWritesNothingAndReportsTwice) {
  StderrCapture capture;
  const leveldb::Status status = db_.Put(Strings{"a", "", "c"}, Strings{"1", "2", "3"}, false);
  EXPECT_EQ(status.ToString(), "Invalid argument: put_key: empty");
  EXPECT_THAT(
      capture.Lines(),
      ElementsAre(EmptyKeyCheck(), ReportLine(path_, "Put", "Invalid argument: put_key: empty"),
                  StatusOkCheck()));
  EXPECT_THAT(Contents(), IsEmpty());
  EXPECT_FALSE(db_.corrupted());
}

TEST_F(DBBatch, DeleteRemovesTheKeysInOneWrite) {
  PutAll({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  StderrCapture capture;
  ASSERT_TRUE(db_.Delete(Strings{"c", "a", "absent"}, true).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"b", "2"}}));
}

TEST_F(DBBatch, DeleteWithNoKeysSucceeds) {
  PutAll({{"a", "1"}});
  StderrCapture capture;
  EXPECT_TRUE(db_.Delete(Strings{}, false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}}));
}

TEST_F(DBBatch, DeleteWithAnEmptyKeyDeletesNothing) {
  PutAll({{"a", "1"}, {"b", "2"}});
  StderrCapture capture;
  const leveldb::Status status = db_.Delete(Strings{"a", ""}, false);
  EXPECT_EQ(status.ToString(), "Invalid argument: del_key: empty");
  EXPECT_THAT(
      capture.Lines(),
      ElementsAre(EmptyKeyCheck(), ReportLine(path_, "Delete", "Invalid argument: del_key: empty"),
                  StatusOkCheck()));
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}, {"b", "2"}}));
}

// --- AtomicDeleteAndPut -----------------------------------------------------

TEST_F(DBBatch, AtomicDeleteAndPutDeletesThenPuts) {
  PutAll({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  StderrCapture capture;
  ASSERT_TRUE(db_.AtomicDeleteAndPut(Strings{"a", "c"}, Strings{"d"}, {"4"}, false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"b", "2"}, {"d", "4"}}));
}

TEST_F(DBBatch, AtomicDeleteAndPutOfTheSameKeyLeavesTheNewValue) {
  PutAll({{"k", "old"}});
  ASSERT_TRUE(db_.AtomicDeleteAndPut(Strings{"k"}, Strings{"k"}, {"new"}, true).ok());
  EXPECT_EQ(Contents(), (Entries{{"k", "new"}}));
  // Also for a key that was not there before.
  ASSERT_TRUE(db_.AtomicDeleteAndPut(Strings{"m"}, Strings{"m"}, {"fresh"}, false).ok());
  EXPECT_EQ(Contents(), (Entries{{"k", "new"}, {"m", "fresh"}}));
}

TEST_F(DBBatch, AtomicDeleteAndPutWithAnEmptySecondPutKeyWritesNothing) {
  PutAll({{"a", "1"}, {"b", "2"}});
  StderrCapture capture;
  const leveldb::Status status =
      db_.AtomicDeleteAndPut(Strings{"a", "b"}, Strings{"c", ""}, {"3", "4"}, false);
  EXPECT_EQ(status.ToString(), "Invalid argument: put_key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck(),
                                           ReportLine(path_, "AtomicDeleteAndPut",
                                                      "Invalid argument: put_key: empty"),
                                           StatusOkCheck()));
  // Neither the deletes nor the first put landed.
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}, {"b", "2"}}));
}

TEST_F(DBBatch, AtomicDeleteAndPutWithAnEmptyDeleteKeyWritesNothing) {
  PutAll({{"a", "1"}});
  StderrCapture capture;
  const leveldb::Status status =
      db_.AtomicDeleteAndPut(Strings{"a", ""}, Strings{"c"}, {"3"}, false);
  EXPECT_EQ(status.ToString(), "Invalid argument: del_key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck(),
                                           ReportLine(path_, "AtomicDeleteAndPut",
                                                      "Invalid argument: del_key: empty"),
                                           StatusOkCheck()));
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}}));
}

TEST_F(DBBatch, AtomicDeleteAndPutChecksDeleteKeysBeforePutKeys) {
  StderrCapture capture;
  const leveldb::Status status = db_.AtomicDeleteAndPut(Strings{""}, Strings{""}, {"1"}, false);
  EXPECT_EQ(status.ToString(), "Invalid argument: del_key: empty");
  EXPECT_EQ(capture.Lines().size(), 3u);
}

TEST_F(DBBatch, AtomicDeleteAndPutIgnoresValuesWithoutKeys) {
  ASSERT_TRUE(db_.AtomicDeleteAndPut(Strings{}, Strings{"a", "b"}, {"1"}, false).ok());
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}}));
}

// --- AtomicClearAndPut and Clear --------------------------------------------

TEST_F(DBBatch, AtomicClearAndPutOnAnEmptyDatabaseBehavesAsPut) {
  StderrCapture capture;
  ASSERT_TRUE(db_.AtomicClearAndPut(Strings{"b", "a", "c"}, Strings{"2", "1"}, false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}, {"b", "2"}}));
}

TEST_F(DBBatch, AtomicClearAndPutReplacesTheWholeContent) {
  PutAll({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  StderrCapture capture;
  ASSERT_TRUE(db_.AtomicClearAndPut(Strings{"b", "z"}, Strings{"new-b", "26"}, true).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(Contents(), (Entries{{"b", "new-b"}, {"z", "26"}}));
}

TEST_F(DBBatch, AtomicClearAndPutWithNothingToPutIsClear) {
  PutAll({{"a", "1"}, {"b", "2"}});
  StderrCapture capture;
  ASSERT_TRUE(db_.AtomicClearAndPut(Strings{}, Strings{}, false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_THAT(Contents(), IsEmpty());
}

TEST_F(DBBatch, ClearLeavesTheDatabaseEmpty) {
  PutAll(db_test::NumberedEntries("key", "value", 50));
  ASSERT_TRUE(db_.Compact().ok());
  PutAll({{"memtable", "too"}});
  StderrCapture capture;
  ASSERT_TRUE(db_.Clear(true).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_THAT(Contents(), IsEmpty());
  bool is_empty = false;
  ASSERT_TRUE(db_.Empty(&is_empty, nullptr).ok());
  EXPECT_TRUE(is_empty);
  // Also after the log has been replayed.
  ASSERT_TRUE(db_.Close().ok());
  ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  EXPECT_THAT(Contents(), IsEmpty());
}

TEST_F(DBBatch, ClearOfAnEmptyDatabaseSucceeds) {
  StderrCapture capture;
  EXPECT_TRUE(db_.Clear(false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBBatch, AtomicClearAndPutWithAnEmptyKeyKeepsTheOldContent) {
  PutAll({{"a", "1"}});
  StderrCapture capture;
  const leveldb::Status status = db_.AtomicClearAndPut(Strings{"b", ""}, Strings{"2", "3"}, false);
  EXPECT_EQ(status.ToString(), "Invalid argument: put_key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck(),
                                           ReportLine(path_, "AtomicClearAndPut",
                                                      "Invalid argument: put_key: empty"),
                                           StatusOkCheck()));
  EXPECT_EQ(Contents(), (Entries{{"a", "1"}}));
}

TEST_F(DBBatch, ClearSeesTheDatabaseAsItStoodWhenItBegan) {
  // A snapshot taken before the clear still sees the old content, and the
  // clear reaches keys that only a later view would miss.
  PutAll({{"a", "1"}, {"b", "2"}});
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  PutAll({{"c", "3"}});
  ASSERT_TRUE(db_.Clear(false).ok());
  EXPECT_THAT(Contents(), IsEmpty());
  std::vector<std::string> keys;
  ASSERT_TRUE(db_.Dump(&keys, nullptr, snapshot).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b"));
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- Preconditions ----------------------------------------------------------

TEST(DBBatchPreconditions, ClosedHandleIsReportedOnceByEveryOperation) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Put(Strings{"a"}, Strings{"1"}, false).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_EQ(db.Delete(Strings{"a"}, false).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_EQ(db.AtomicDeleteAndPut(Strings{"a"}, Strings{"b"}, {"2"}, false).ToString(),
            "Invalid argument: db_: nullptr");
  EXPECT_EQ(db.AtomicClearAndPut(Strings{"a"}, Strings{"1"}, false).ToString(),
            "Invalid argument: db_: nullptr");
  EXPECT_EQ(db.Clear(true).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck(), DbNullCheck(), DbNullCheck(),
                                           DbNullCheck(), DbNullCheck()));
  EXPECT_FALSE(db_test::Exists(dir.Sub("db")));
}

TEST(DBBatchPreconditions, HandleIsCheckedBeforeTheKeys) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Put(Strings{""}, Strings{"1"}, false).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_EQ(db.AtomicDeleteAndPut(Strings{""}, Strings{""}, {""}, false).ToString(),
            "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck(), DbNullCheck()));
}

// The flag is set by a Verify that meets damage on a handle opened with
// paranoid checks; the damage comes from the test environment and goes away
// when it is switched off, so what the batch operations left behind can be
// read afterwards.
class DBBatchCorrupted : public testing::Test {
 protected:
  void SetUp() override {
    db_test::WriteTable(path_, {{"a", "1"}, {"b", "2"}});
    ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
    env_.corrupt_table_reads = true;
    ASSERT_FALSE(db_.Verify().ok());
    env_.corrupt_table_reads = false;
    ASSERT_TRUE(db_.corrupted());
  }

  // Clears the flag on the now sound database and reads it.
  Entries ContentsAfterRecovery() {
    EXPECT_TRUE(db_.Verify().ok());
    EXPECT_FALSE(db_.corrupted());
    std::vector<std::string> keys;
    std::vector<std::string> values;
    EXPECT_TRUE(db_.Dump(&keys, &values, nullptr).ok());
    Entries entries;
    for (size_t i = 0; i < keys.size(); ++i) entries.emplace_back(keys[i], values[i]);
    return entries;
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  FaultEnv env_;
  ScopedTestEnv scoped_env_{&env_};
  DBProbe db_{path_};
};

TEST_F(DBBatchCorrupted, ClearReturnsCorruptionAndDeletesNothing) {
  StderrCapture capture;
  EXPECT_EQ(db_.Clear(true).ToString(), "Corruption: corrupted_: true");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(ContentsAfterRecovery(), (Entries{{"a", "1"}, {"b", "2"}}));
}

TEST_F(DBBatchCorrupted, EveryBatchOperationReturnsCorruptionSilently) {
  StderrCapture capture;
  EXPECT_EQ(db_.Put(Strings{"c"}, Strings{"3"}, false).ToString(), "Corruption: corrupted_: true");
  EXPECT_EQ(db_.Delete(Strings{"a"}, false).ToString(), "Corruption: corrupted_: true");
  EXPECT_EQ(db_.AtomicDeleteAndPut(Strings{"a"}, Strings{"d"}, {"4"}, false).ToString(),
            "Corruption: corrupted_: true");
  EXPECT_EQ(db_.AtomicClearAndPut(Strings{"e"}, Strings{"5"}, false).ToString(),
            "Corruption: corrupted_: true");
  // The flag is looked at before the keys.
  EXPECT_EQ(db_.Put(Strings{""}, Strings{"x"}, false).ToString(), "Corruption: corrupted_: true");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_TRUE(db_.corrupted());
  EXPECT_EQ(ContentsAfterRecovery(), (Entries{{"a", "1"}, {"b", "2"}}));
}

// --- Failed writes ------------------------------------------------------------

class DBBatchFaults : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db_.Open(true, true, false, 0).ok());
    ASSERT_TRUE(db_.Put(Strings{"a", "b"}, Strings{"1", "2"}, false).ok());
    const std::vector<std::string> logs = testing_support::FilesWithSuffix(path_, ".log");
    ASSERT_EQ(logs.size(), 1u);
    full_disk_ = "IO error: " + path_ + "/" + logs[0] + ": No space left on device";
  }

  std::vector<std::string> Keys() {
    std::vector<std::string> keys;
    EXPECT_TRUE(db_.Dump(&keys, nullptr, nullptr).ok());
    return keys;
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  FaultEnv env_;
  ScopedTestEnv scoped_env_{&env_};
  DBProbe db_{path_};
  std::string full_disk_;
};

TEST_F(DBBatchFaults, FailedPutIsReportedAsWriteBatchAndAsPut) {
  env_.disk_full = true;
  StderrCapture capture;
  const leveldb::Status status = db_.Put(Strings{"c", "d"}, Strings{"3", "4"}, false);
  EXPECT_TRUE(status.IsIOError());
  EXPECT_EQ(status.ToString(), full_disk_);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "WriteBatch", full_disk_), StatusOkCheck(),
                          ReportLine(path_, "Put", full_disk_), StatusOkCheck()));
  // An I/O error is no corruption: the next write reaches the engine.
  EXPECT_FALSE(db_.corrupted());
  env_.disk_full = false;
  ASSERT_TRUE(db_.Put(Strings{"e"}, Strings{"5"}, false).ok());
  EXPECT_THAT(Keys(), ElementsAre("a", "b", "e"));
}

TEST_F(DBBatchFaults, FailedDeleteIsReportedAsWriteBatchAndAsDelete) {
  env_.disk_full = true;
  StderrCapture capture;
  EXPECT_EQ(db_.Delete(Strings{"a"}, true).ToString(), full_disk_);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "WriteBatch", full_disk_), StatusOkCheck(),
                          ReportLine(path_, "Delete", full_disk_), StatusOkCheck()));
  EXPECT_THAT(Keys(), ElementsAre("a", "b"));
}

TEST_F(DBBatchFaults, FailedAtomicDeleteAndPutIsReportedTwice) {
  env_.disk_full = true;
  StderrCapture capture;
  EXPECT_EQ(db_.AtomicDeleteAndPut(Strings{"a"}, Strings{"c"}, {"3"}, false).ToString(),
            full_disk_);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "WriteBatch", full_disk_), StatusOkCheck(),
                          ReportLine(path_, "AtomicDeleteAndPut", full_disk_), StatusOkCheck()));
  EXPECT_THAT(Keys(), ElementsAre("a", "b"));
}

TEST_F(DBBatchFaults, FailedAtomicClearAndPutIsReportedTwice) {
  env_.disk_full = true;
  StderrCapture capture;
  EXPECT_EQ(db_.AtomicClearAndPut(Strings{"c"}, Strings{"3"}, false).ToString(), full_disk_);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "WriteBatch", full_disk_), StatusOkCheck(),
                          ReportLine(path_, "AtomicClearAndPut", full_disk_), StatusOkCheck()));
  EXPECT_THAT(Keys(), ElementsAre("a", "b"));
}

TEST_F(DBBatchFaults, FailedClearIsReportedUnderTheNameOfTheClear) {
  env_.disk_full = true;
  StderrCapture capture;
  EXPECT_EQ(db_.Clear(false).ToString(), full_disk_);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "WriteBatch", full_disk_), StatusOkCheck(),
                          ReportLine(path_, "AtomicClearAndPut", full_disk_), StatusOkCheck()));
  EXPECT_THAT(Keys(), ElementsAre("a", "b"));
}

TEST_F(DBBatchFaults, FailedLogWriteOfASyncedBatchIsReported) {
  env_.only_files = ".log";
  ASSERT_TRUE(db_.Close().ok());
  ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path_, ".log");
  ASSERT_EQ(logs.size(), 1u);
  const std::string log_path = path_ + "/" + logs[0];
  env_.fail_writes = true;
  StderrCapture capture;
  const std::string failure = "IO error: " + log_path + ": injected write failure";
  EXPECT_EQ(db_.Put(Strings{"c"}, Strings{"3"}, true).ToString(), failure);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "WriteBatch", failure), StatusOkCheck(),
                          ReportLine(path_, "Put", failure), StatusOkCheck()));
  EXPECT_FALSE(db_.corrupted());
}

// The scan of the clear meets a damaged table: nothing is written, and the
// failure is reported once, under the name of the clear.
TEST(DBBatchClearScan, FailedScanWritesNothingAndFlagsCorruption) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, {{"a", "1"}, {"b", "2"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Put("c", "3", false).ok());
  env.corrupt_table_reads = true;
  const std::string damage = "Corruption: " + path + "/" + table + ": injected damage";
  {
    StderrCapture capture;
    EXPECT_EQ(db.AtomicClearAndPut(Strings{"d"}, Strings{"4"}, false).ToString(), damage);
    EXPECT_THAT(capture.Lines(),
                ElementsAre(ReportLine(path, "AtomicClearAndPut", damage), StatusOkCheck()));
  }
  EXPECT_TRUE(db.corrupted());
  env.corrupt_table_reads = false;
  ASSERT_TRUE(db.Verify().ok());
  std::vector<std::string> keys;
  ASSERT_TRUE(db.Dump(&keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b", "c"));
}

TEST(DBBatchClearScan, FailedScanWithoutParanoidChecksLeavesTheFlag) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(false, false, false, 0).ok());
  env.corrupt_table_reads = true;
  const std::string damage = "Corruption: " + path + "/" + table + ": injected damage";
  {
    StderrCapture capture;
    EXPECT_EQ(db.Clear(false).ToString(), damage);
    EXPECT_THAT(capture.Lines(),
                ElementsAre(ReportLine(path, "AtomicClearAndPut", damage), StatusOkCheck()));
  }
  EXPECT_FALSE(db.corrupted());
  // The next call reaches the engine again.
  env.corrupt_table_reads = false;
  StderrCapture capture;
  ASSERT_TRUE(db.Clear(false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  uint64_t count = 1;
  ASSERT_TRUE(db.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 0u);
}

}  // namespace
