// persistence::DB on damaged databases: bytes flipped in table and log
// files, files cut short or removed, and failures of the engine's reads and
// writes. What the handle reports, how its corruption flag moves, and what
// Repair and Destroy leave on disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
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
using db_test::Entries;
using db_test::ReadStatusCheck;
using db_test::ReportLine;
using db_test::StatusOkCheck;
using persistence::DB;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::FaultEnv;
using testing_support::FlipBytes;
using testing_support::ScopedTestEnv;
using testing_support::StderrCapture;
using testing_support::TempDir;

const char kCorrupted[] = "Corruption: corrupted_: true";

// --- A failed Put with Corruption -------------------------------------------

// A compaction that meets a damaged table leaves the engine with a background
// error, and from then on every write returns that Corruption.
class DBFailedPut : public testing::Test {
 protected:
  void SetUp() override {
    table_ = db_test::WriteTable(path_, {{"a", "1"}, {"b", "2"}});
    damage_ = "Corruption: " + path_ + "/" + table_ + ": injected damage";
  }

  // Opens the handle and breaks the engine's writes.
  void OpenAndBreakWrites(bool paranoid_checks) {
    ASSERT_TRUE(db_.Open(paranoid_checks, false, false, 0).ok());
    env_.corrupt_table_reads = true;
    StderrCapture capture;
    ASSERT_TRUE(db_.Compact().ok());
    EXPECT_THAT(capture.Lines(), IsEmpty());
    env_.corrupt_table_reads = false;
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  FaultEnv env_;
  ScopedTestEnv scoped_env_{&env_};
  DBProbe db_{path_};
  std::string table_;
  std::string damage_;
};

TEST_F(DBFailedPut, WithParanoidChecksTheFlagStopsAllFurtherAccess) {
  OpenAndBreakWrites(true);
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Put("c", "3", false).ToString(), damage_);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Put", damage_), StatusOkCheck()));
  }
  EXPECT_TRUE(db_.corrupted());
  // The engine would answer this read now; the handle no longer asks it.
  std::string value = "stale";
  StderrCapture capture;
  EXPECT_EQ(db_.Put("d", "4", false).ToString(), kCorrupted);
  EXPECT_EQ(db_.Get("a", &value, nullptr).ToString(), kCorrupted);
  EXPECT_EQ(value, "");
  EXPECT_EQ(db_.Delete("a", false).ToString(), kCorrupted);
  // The key is still checked before the flag.
  EXPECT_EQ(db_.Get("", &value, nullptr).ToString(), "Invalid argument: key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(db_test::EmptyKeyCheck()));
  EXPECT_TRUE(db_.corrupted());
}

TEST_F(DBFailedPut, WithoutParanoidChecksTheNextCallsReachTheEngine) {
  OpenAndBreakWrites(false);
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Put("c", "3", false).ToString(), damage_);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Put", damage_), StatusOkCheck()));
  }
  EXPECT_FALSE(db_.corrupted());
  StderrCapture capture;
  // The engine answers again, with its own sticky error for writes...
  EXPECT_EQ(db_.Put("d", "4", false).ToString(), damage_);
  EXPECT_EQ(db_.Delete("a", true).ToString(), damage_);
  // ...and with the stored value for reads.
  std::string value;
  EXPECT_TRUE(db_.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "1");
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Put", damage_), StatusOkCheck(),
                                           ReportLine(path_, "Delete", damage_), StatusOkCheck()));
  EXPECT_FALSE(db_.corrupted());
}

TEST_F(DBFailedPut, CloseClearsTheFlagAndAReopenStartsClean) {
  OpenAndBreakWrites(true);
  ASSERT_FALSE(db_.Put("c", "3", false).ok());
  ASSERT_TRUE(db_.corrupted());
  ASSERT_TRUE(db_.Close().ok());
  EXPECT_FALSE(db_.corrupted());
  ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  EXPECT_FALSE(db_.corrupted());
  StderrCapture capture;
  ASSERT_TRUE(db_.Put("c", "3", false).ok());
  std::vector<std::string> keys;
  ASSERT_TRUE(db_.Dump(&keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "b", "c"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBFailedPut, ABatchedWriteMeetsTheSameErrorAndFlags) {
  OpenAndBreakWrites(true);
  StderrCapture capture;
  EXPECT_EQ(db_.AtomicDeleteAndPut({"a"}, {"c"}, {"3"}, false).ToString(), damage_);
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "WriteBatch", damage_), StatusOkCheck(),
                          ReportLine(path_, "AtomicDeleteAndPut", damage_), StatusOkCheck()));
  EXPECT_TRUE(db_.corrupted());
}

// --- Failed reads and writes of single keys ---------------------------------

class DBSingleKeyFaults : public testing::Test {
 protected:
  void SetUp() override {
    table_ = db_test::WriteTable(path_, {{"a", "1"}, {"b", "2"}});
    damage_ = "Corruption: " + path_ + "/" + table_ + ": injected damage";
    read_failure_ = "IO error: " + path_ + "/" + table_ + ": injected read failure";
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  FaultEnv env_;
  ScopedTestEnv scoped_env_{&env_};
  DBProbe db_{path_};
  std::string table_;
  std::string damage_;
  std::string read_failure_;
};

TEST_F(DBSingleKeyFaults, GetThatMeetsCorruptionUsesTheReadCheckAndFlags) {
  ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  env_.corrupt_table_reads = true;
  std::string value = "stale";
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Get("a", &value, nullptr).ToString(), damage_);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Get", damage_), ReadStatusCheck()));
  }
  EXPECT_EQ(value, "");
  EXPECT_TRUE(db_.corrupted());
  env_.corrupt_table_reads = false;
  StderrCapture capture;
  EXPECT_EQ(db_.Get("a", &value, nullptr).ToString(), kCorrupted);
  EXPECT_EQ(db_.Put("c", "3", false).ToString(), kCorrupted);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBSingleKeyFaults, GetThatMeetsCorruptionWithoutParanoidChecksDoesNotFlag) {
  ASSERT_TRUE(db_.Open(false, false, false, 0).ok());
  env_.corrupt_table_reads = true;
  std::string value;
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Get("b", &value, nullptr).ToString(), damage_);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Get", damage_), ReadStatusCheck()));
  }
  EXPECT_FALSE(db_.corrupted());
  env_.corrupt_table_reads = false;
  StderrCapture capture;
  EXPECT_TRUE(db_.Get("b", &value, nullptr).ok());
  EXPECT_EQ(value, "2");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBSingleKeyFaults, GetThatMeetsAnIOErrorDoesNotFlag) {
  ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  env_.fail_table_reads = true;
  std::string value = "stale";
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Get("a", &value, nullptr).ToString(), read_failure_);
    EXPECT_THAT(capture.Lines(),
                ElementsAre(ReportLine(path_, "Get", read_failure_), ReadStatusCheck()));
  }
  EXPECT_EQ(value, "");
  EXPECT_FALSE(db_.corrupted());
  env_.fail_table_reads = false;
  EXPECT_TRUE(db_.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "1");
}

TEST_F(DBSingleKeyFaults, PutOnAFullDiskIsReportedAndDoesNotFlag) {
  ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path_, ".log");
  ASSERT_EQ(logs.size(), 1u);
  const std::string full = "IO error: " + path_ + "/" + logs[0] + ": No space left on device";
  env_.disk_full = true;
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Put("c", "3", false).ToString(), full);
    EXPECT_EQ(db_.Delete("a", false).ToString(), full);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Put", full), StatusOkCheck(),
                                             ReportLine(path_, "Delete", full), StatusOkCheck()));
  }
  EXPECT_FALSE(db_.corrupted());
  env_.disk_full = false;
  StderrCapture capture;
  EXPECT_TRUE(db_.Put("c", "3", false).ok());
  std::string value;
  EXPECT_TRUE(db_.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "1");
  EXPECT_EQ(db_.Get("c", &value, nullptr).ToString(), "OK");
  EXPECT_EQ(value, "3");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

// --- Damaged table files ------------------------------------------------------

// 200 entries with values of 100 bytes that do not compress: a table of
// several blocks.
Entries ManyEntries(const std::string& prefix) {
  Entries entries;
  for (int i = 0; i < 200; ++i) {
    std::string number = std::to_string(1000 + i);
    std::string value;
    for (int j = 0; j < 100; ++j) value += static_cast<char>((i * 131 + j * 71 + j * j) & 0xff);
    entries.emplace_back(prefix + number, value);
  }
  return entries;
}

TEST(DBDamagedTable, FlippedBytesFailVerifyAndFlagWithParanoidChecks) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, ManyEntries("k"));
  ASSERT_EQ(testing_support::DamageTableFiles(path), 1);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  {
    StderrCapture capture;
    EXPECT_EQ(db.Verify().ToString(), "Corruption: block checksum mismatch");
    EXPECT_THAT(capture.Lines(),
                ElementsAre(ReportLine(path, "Verify", "Corruption: block checksum mismatch"),
                            StatusOkCheck()));
  }
  EXPECT_TRUE(db.corrupted());
  StderrCapture capture;
  EXPECT_EQ(db.Put("new", "1", false).ToString(), kCorrupted);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBDamagedTable, FlippedBytesFailVerifyWithoutFlagWithoutParanoidChecks) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, ManyEntries("k"));
  ASSERT_EQ(testing_support::DamageTableFiles(path), 1);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(false, false, false, 0).ok());
  {
    StderrCapture capture;
    EXPECT_EQ(db.Verify().ToString(), "Corruption: block checksum mismatch");
    EXPECT_THAT(capture.Lines(),
                ElementsAre(ReportLine(path, "Verify", "Corruption: block checksum mismatch"),
                            StatusOkCheck()));
  }
  EXPECT_FALSE(db.corrupted());
  StderrCapture capture;
  EXPECT_TRUE(db.Put("new", "1", false).ok());
  std::string value;
  EXPECT_TRUE(db.Get("new", &value, nullptr).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

// The engine calls a read past the end of a cut table an I/O error
// ("Invalid argument" from the mapping); it says the table is damaged, and
// the handle reports it as Corruption, which flags a paranoid handle.
TEST(DBDamagedTable, TruncatedTableFailsVerifyWithCorruptionThatFlags) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, ManyEntries("k"));
  const std::string table_path = path + "/" + table;
  testing_support::TruncateFile(table_path, 20);
  DBProbe db(path);
  // The tables are not read when the database opens.
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  // The engine reads the footer where the table's recorded size puts it,
  // past the end of what is left.
  const std::string cut = "Corruption: " + table_path + ": Invalid argument";
  {
    StderrCapture capture;
    EXPECT_EQ(db.Verify().ToString(), cut);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Verify", cut), StatusOkCheck()));
  }
  EXPECT_TRUE(db.corrupted());
  std::string value = "stale";
  StderrCapture capture;
  EXPECT_EQ(db.Get("k1000", &value, nullptr).ToString(), kCorrupted);
  EXPECT_EQ(value, "");
}

TEST(DBDamagedTable, TruncatedTableMeetsAGetOfAHandleWithoutParanoidChecksAsCorruption) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, ManyEntries("k"));
  const std::string table_path = path + "/" + table;
  testing_support::TruncateFile(table_path, 20);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(false, false, false, 0).ok());
  const std::string cut = "Corruption: " + table_path + ": Invalid argument";
  std::string value = "stale";
  StderrCapture capture;
  EXPECT_EQ(db.Get("k1000", &value, nullptr).ToString(), cut);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Get", cut), ReadStatusCheck()));
  EXPECT_EQ(value, "");
  EXPECT_FALSE(db.corrupted());
}

TEST(DBDamagedTable, RepairSetsADamagedTableAsideAndKeepsTheRest) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries kept = db_test::NumberedEntries("a", "first", 30);
  const Entries lost = db_test::NumberedEntries("b", "second", 30);
  const Entries in_log = db_test::NumberedEntries("c", "log", 3);
  db_test::WriteTable(path, kept);
  const std::string damaged = db_test::WriteTable(path, lost);
  db_test::WriteEntries(path, in_log);
  // The last bytes of a table file are its magic number.
  const std::string damaged_path = path + "/" + damaged;
  FlipBytes(damaged_path, testing_support::FileSize(damaged_path) - 8, 8);

  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  const std::string bad_magic = "Corruption: not an sstable (bad magic number)";
  {
    StderrCapture capture;
    EXPECT_EQ(db.Verify().ToString(), bad_magic);
    EXPECT_THAT(capture.Lines(),
                ElementsAre(ReportLine(path, "Verify", bad_magic), StatusOkCheck()));
  }
  ASSERT_TRUE(db.corrupted());
  ASSERT_TRUE(db.Close().ok());

  StderrCapture capture;
  EXPECT_TRUE(db.Repair().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db_test::Exists(damaged_path));
  EXPECT_TRUE(db_test::Exists(path + "/lost/" + damaged));

  Entries expected = kept;
  expected.insert(expected.end(), in_log.begin(), in_log.end());
  leveldb::Status status;
  EXPECT_EQ(db_test::ReadAll(path, &status), expected);
  EXPECT_TRUE(status.ok());
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  EXPECT_TRUE(db.Verify().ok());
  EXPECT_FALSE(db.corrupted());
}

// The repair reads tables with block checksums verified: the damaged block
// is left out of the repaired table, and every record it keeps is whole.
TEST(DBDamagedTable, RepairChecksBlocksAndLeavesOutOnlyTheDamagedBlock) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries entries = ManyEntries("k");
  db_test::WriteTable(path, entries);
  ASSERT_EQ(testing_support::DamageTableFiles(path), 1);
  DB db(path);
  StderrCapture capture;
  EXPECT_TRUE(db.Repair().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  leveldb::Status status;
  const Entries after = db_test::ReadAll(path, &status);
  ASSERT_TRUE(status.ok()) << status.ToString();
  // The flipped bytes lie in the value of k1050: its block goes, one run of
  // neighbouring keys, about forty records of 110 bytes in 4 KiB.
  std::vector<std::string> lost;
  size_t next = 0;
  for (const auto& entry : entries) {
    if (next < after.size() && after[next].first == entry.first) {
      EXPECT_EQ(after[next].second, entry.second) << entry.first;
      ++next;
    } else {
      lost.push_back(entry.first);
    }
  }
  EXPECT_EQ(next, after.size());
  ASSERT_FALSE(lost.empty());
  EXPECT_LE(lost.size(), 45u);
  EXPECT_NE(std::find(lost.begin(), lost.end(), "k1050"), lost.end());
  EXPECT_EQ(std::stoi(lost.back().substr(1)) - std::stoi(lost.front().substr(1)) + 1,
            static_cast<int>(lost.size()));
  // What is left verifies.
  DBProbe reopened(path);
  ASSERT_TRUE(reopened.Open(true, false, false, 0).ok());
  EXPECT_TRUE(reopened.Verify().ok());
}

// --- Damaged log files ----------------------------------------------------------

// Ten writes of the same size, one log record each.
const Entries kTenEntries = db_test::NumberedEntries("key", "value", 10, 1);

std::string OnlyLog(const std::string& path) {
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path, ".log");
  EXPECT_EQ(logs.size(), 1u);
  return logs.empty() ? "" : path + "/" + logs[0];
}

// Flips the third byte of "value4", the value of the fifth record.
void DamageFifthLogRecord(const std::string& log) {
  const size_t at = testing_support::ReadFile(log).find("value4");
  ASSERT_NE(at, std::string::npos);
  FlipBytes(log, at + 2, 1);
}

TEST(DBDamagedLog, ParanoidOpenFailsSilentlyWithCorruption) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, kTenEntries);
  DamageFifthLogRecord(OnlyLog(path));
  DBProbe db(path);
  StderrCapture capture;
  EXPECT_EQ(db.Open(true, false, false, 0).ToString(), "Corruption: checksum mismatch");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db.corrupted());
}

// The engine always runs with paranoid checks, so that its compactions
// verify what they rewrite: a damaged log record fails the open whatever the
// handle's own policy.
TEST(DBDamagedLog, OpenWithoutParanoidChecksFailsOnADamagedRecordToo) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, kTenEntries);
  DamageFifthLogRecord(OnlyLog(path));
  DBProbe db(path);
  StderrCapture capture;
  EXPECT_EQ(db.Open(false, false, false, 0).ToString(), "Corruption: checksum mismatch");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
}

// The repair is given a log with only the records that verify: the damaged
// record and the rest of its block are dropped, as the engine's own recovery
// drops them, instead of being replayed as written.
TEST(DBDamagedLog, RepairDropsTheDamagedRecordAndTheRestOfItsBlock) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, kTenEntries);
  const std::string log = OnlyLog(path);
  DamageFifthLogRecord(log);

  DBProbe db(path);
  ASSERT_EQ(db.Open(true, false, false, 0).ToString(), "Corruption: checksum mismatch");
  StderrCapture capture;
  EXPECT_TRUE(db.Repair().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  // The salvaged log is turned into a table and set aside.
  EXPECT_THAT(testing_support::FilesWithSuffix(path, ".log"), IsEmpty());
  EXPECT_EQ(testing_support::FilesWithSuffix(path, ".ldb").size(), 1u);
  EXPECT_TRUE(db_test::Exists(path + "/lost/" + log.substr(path.size() + 1)));

  const Entries expected(kTenEntries.begin(), kTenEntries.begin() + 4);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  std::vector<std::string> keys;
  std::vector<std::string> values;
  ASSERT_TRUE(db.Dump(&keys, &values, nullptr).ok());
  EXPECT_EQ(keys, db_test::KeysOf(expected));
  EXPECT_EQ(values, db_test::ValuesOf(expected));
  EXPECT_TRUE(db.Verify().ok());
}

TEST(DBDamagedLog, ALogCutInItsLastRecordLosesOnlyThatRecord) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, kTenEntries);
  const std::string log = OnlyLog(path);
  testing_support::TruncateFile(log, testing_support::FileSize(log) - 3);
  DBProbe db(path);
  StderrCapture capture;
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  std::vector<std::string> keys;
  ASSERT_TRUE(db.Dump(&keys, nullptr, nullptr).ok());
  EXPECT_EQ(keys, db_test::KeysOf(Entries(kTenEntries.begin(), kTenEntries.end() - 1)));
  EXPECT_TRUE(db.Verify().ok());
  EXPECT_FALSE(db.corrupted());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

// --- Missing CURRENT ------------------------------------------------------------

TEST(DBMissingCurrent, OpenFailsAndRepairBringsEveryRecordBack) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries in_table = db_test::NumberedEntries("t", "table", 50);
  const Entries in_log = db_test::NumberedEntries("u", "log", 5);
  db_test::WriteTable(path, in_table);
  db_test::WriteEntries(path, in_log);
  ASSERT_EQ(std::remove((path + "/CURRENT").c_str()), 0);

  DBProbe db(path);
  {
    StderrCapture capture;
    EXPECT_EQ(db.Open(true, false, false, 0).ToString(),
              "Corruption: " + path + "/CURRENT: missing from a database that has files");
    EXPECT_THAT(capture.Lines(), IsEmpty());
  }
  EXPECT_FALSE(db.is_open());
  StderrCapture capture;
  EXPECT_TRUE(db.Repair().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_TRUE(db_test::Exists(path + "/CURRENT"));
  Entries expected = in_table;
  expected.insert(expected.end(), in_log.begin(), in_log.end());
  leveldb::Status status;
  EXPECT_EQ(db_test::ReadAll(path, &status), expected);
  EXPECT_TRUE(status.ok());
}

// --- Destroy of a damaged database ------------------------------------------------

TEST(DBDestroyDamaged, RemovesEverythingOfAFlaggedDatabase) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, ManyEntries("k"));
  db_test::WriteEntries(path, {{"z", "26"}});
  ASSERT_EQ(testing_support::DamageTableFiles(path), 1);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Verify().IsCorruption());
  ASSERT_TRUE(db.corrupted());
  StderrCapture capture;
  EXPECT_TRUE(db.Destroy().ok());
  EXPECT_FALSE(db.corrupted());
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db_test::Exists(path));
  EXPECT_EQ(db.Put("z", "26", false).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
  // A fresh database takes its place.
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  bool is_empty = false;
  ASSERT_TRUE(db.Empty(&is_empty, nullptr).ok());
  EXPECT_TRUE(is_empty);
}

}  // namespace
