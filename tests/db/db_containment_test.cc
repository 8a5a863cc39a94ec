// persistence::DB where the engine would end the process or serve what
// nobody wrote: snapshots that outlive their engine, a repair that dies, logs
// with damaged records, compactions over damaged blocks, and files of the
// database that are malformed or of the wrong kind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "db/db_test_util.h"
#include "persistence/db.h"
#include "persistence/log_salvage.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"

namespace {

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

const char kStale[] = "Invalid argument: snapshot: stale";

Entries Numbered(int count, size_t value_size) {
  Entries entries;
  for (int i = 0; i < count; ++i) {
    char key[16];
    std::snprintf(key, sizeof(key), "k%04d", i);
    entries.emplace_back(key, std::string(value_size, static_cast<char>('a' + i % 26)));
  }
  return entries;
}

Entries DumpAll(DB& db) {
  std::vector<std::string> keys, values;
  EXPECT_TRUE(db.Dump(&keys, &values, nullptr).ok());
  Entries entries;
  for (size_t i = 0; i < keys.size(); ++i) entries.emplace_back(keys[i], values[i]);
  return entries;
}

std::string OnlyLog(const std::string& path) {
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path, ".log");
  EXPECT_EQ(logs.size(), 1u);
  return logs.empty() ? "" : path + "/" + logs[0];
}

// --- Snapshots that outlive their engine ----------------------------------

class DBStaleSnapshot : public testing::Test {
 protected:
  // A snapshot of a = 1, then a close and an open of the same handle.
  const leveldb::Snapshot* SnapshotOfTheLastEngine() {
    EXPECT_TRUE(db_.Open(true, true, false, 0).ok());
    EXPECT_TRUE(db_.Put("a", "1", false).ok());
    const leveldb::Snapshot* snapshot = nullptr;
    EXPECT_TRUE(db_.CreateSnapshot(&snapshot).ok());
    EXPECT_TRUE(db_.Close().ok());
    EXPECT_TRUE(db_.Open(true, true, false, 0).ok());
    return snapshot;
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  DB db_{path_};
};

TEST_F(DBStaleSnapshot, ReleaseAfterCloseAndOpenIsRefusedAndTouchesNothing) {
  const leveldb::Snapshot* snapshot = SnapshotOfTheLastEngine();
  ASSERT_TRUE(db_.Put("a", "2", false).ok());
  const leveldb::Snapshot* current = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&current).ok());

  StderrCapture capture;
  EXPECT_EQ(db_.ReleaseSnapshot(snapshot).ToString(), kStale);
  EXPECT_THAT(capture.Lines(), IsEmpty());
  // The live snapshot is untouched by the stale release.
  std::string value;
  ASSERT_TRUE(db_.Get("a", &value, current).ok());
  EXPECT_EQ(value, "2");
  EXPECT_TRUE(db_.ReleaseSnapshot(current).ok());
}

TEST_F(DBStaleSnapshot, EveryReadGivenAStaleSnapshotFailsTheSameWay) {
  const leveldb::Snapshot* snapshot = SnapshotOfTheLastEngine();

  StderrCapture capture;
  std::string value = "x";
  EXPECT_EQ(db_.Get("a", &value, snapshot).ToString(), kStale);
  EXPECT_EQ(value, "");
  std::vector<std::string> keys, values;
  EXPECT_EQ(db_.Get({"a"}, &values, snapshot).ToString(), kStale);
  EXPECT_EQ(db_.Dump(&keys, &values, snapshot).ToString(), kStale);
  uint64_t count = 7;
  EXPECT_EQ(db_.Count(&count, snapshot).ToString(), kStale);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(db_.ReadInterval(1, 10, &keys, &values, snapshot).ToString(), kStale);
  EXPECT_EQ(db_.Iterate([](std::string, std::string) { return true; }, snapshot).ToString(),
            kStale);
  bool is_empty = false;
  EXPECT_EQ(db_.Empty(&is_empty, snapshot).ToString(), kStale);
  EXPECT_TRUE(is_empty);
  EXPECT_THAT(capture.Lines(), IsEmpty());
  ASSERT_TRUE(db_.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "1");
}

TEST_F(DBStaleSnapshot, ASnapshotGivenBackTwiceIsStaleTheSecondTime) {
  ASSERT_TRUE(db_.Open(true, true, false, 0).ok());
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  EXPECT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
  EXPECT_EQ(db_.ReleaseSnapshot(snapshot).ToString(), kStale);
}

TEST_F(DBStaleSnapshot, ASnapshotOfAnotherHandleIsStale) {
  DB other(dir_.Sub("other"));
  ASSERT_TRUE(other.Open(true, true, false, 0).ok());
  ASSERT_TRUE(db_.Open(true, true, false, 0).ok());
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(other.CreateSnapshot(&snapshot).ok());
  EXPECT_EQ(db_.ReleaseSnapshot(snapshot).ToString(), kStale);
  EXPECT_TRUE(other.ReleaseSnapshot(snapshot).ok());
}

// --- A repair that dies ---------------------------------------------------

TEST(DBContainedRepair, ARepairThatDiesIsAFailedRepairAndTheCallerGoesOn) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries entries = Numbered(20, 10);
  db_test::WriteEntries(path, entries);
  FaultEnv env;
  ScopedTestEnv scoped(&env);
  env.kill_on_new_table = true;
  DB db(path);
  StderrCapture capture;
  const leveldb::Status status = db.Repair();
  const std::string expected = "Corruption: " + path + ": repair ended by signal 9";
  EXPECT_EQ(status.ToString(), expected);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Repair", expected), StatusOkCheck()));
  env.kill_on_new_table = false;
  // The repair died before it changed anything: the log still holds it all.
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  EXPECT_EQ(DumpAll(db), entries);
}

TEST(DBContainedRepair, ARepairThatLivesReturnsTheEnginesStatus) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries entries = Numbered(20, 10);
  db_test::WriteEntries(path, entries);
  DB db(path);
  StderrCapture capture;
  EXPECT_TRUE(db.Repair().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  EXPECT_EQ(DumpAll(db), entries);
}

// --- Logs with damaged records --------------------------------------------

// The records of a log stand one after another; one flipped byte in record
// "k" fails its checksum, and the rest of its 32 KiB block goes with it, as
// the engine's own recovery reads it.
TEST(DBLogSalvage, RepairDropsDamagedLogRecordsInsteadOfReplayingThem) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries entries = Numbered(50, 100);
  db_test::WriteEntries(path, entries);
  const std::string log = OnlyLog(path);
  // Inside the payload of a record near the middle of the only block.
  testing_support::FlipBytes(log, testing_support::FileSize(log) / 2, 1);

  DB db(path);
  EXPECT_TRUE(db.Repair().ok());
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  const Entries kept = DumpAll(db);
  ASSERT_GE(kept.size(), 20u);
  ASSERT_LT(kept.size(), 30u);
  EXPECT_EQ(kept, Entries(entries.begin(), entries.begin() + kept.size()));
}

TEST(DBLogSalvage, AFlippedBitInASequenceNumberDropsTheRecordAndNothingEnds) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries entries = Numbered(10, 10);
  db_test::WriteEntries(path, entries);
  const std::string log = OnlyLog(path);
  // The first record's write batch starts after the 7-byte header with its
  // sequence number: flipping its lowest bit repeats the next one's.
  std::string bytes = testing_support::ReadFile(log);
  bytes[7] ^= 1;
  testing_support::WriteFile(log, bytes);

  DB db(path);
  EXPECT_TRUE(db.Repair().ok());
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  // The whole first block goes with the damaged record: here, every record.
  EXPECT_EQ(DumpAll(db), Entries());
}

TEST(DBLogSalvage, ALogWithoutDamageIsLeftByteForByte) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, Numbered(300, 500));
  const std::string log = OnlyLog(path);
  const std::string before = testing_support::ReadFile(log);
  EXPECT_TRUE(persistence::SalvageLogs(leveldb::Env::Default(), path).ok());
  EXPECT_EQ(testing_support::ReadFile(log), before);
}

// Records of 100 KiB span four blocks; damage in one record keeps the whole
// records before it, fragments and all, and the reading picks up again at the
// next record that starts in a later block.
TEST(DBLogSalvage, RecordsThatSpanBlocksBeforeTheDamageAreKeptWhole) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries entries = Numbered(6, 100 * 1024);
  db_test::WriteEntries(path, entries);
  const std::string log = OnlyLog(path);
  // Inside the fifth record's value.
  testing_support::FlipBytes(log, 4 * (100 * 1024 + 40) + 50 * 1024, 1);

  EXPECT_TRUE(persistence::SalvageLogs(leveldb::Env::Default(), path).ok());
  DB db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  const Entries kept = DumpAll(db);
  std::vector<std::string> kept_keys;
  for (const auto& [key, value] : kept) {
    kept_keys.push_back(key);
    EXPECT_EQ(value, entries[std::stoi(key.substr(1))].second) << key;
  }
  EXPECT_EQ(kept_keys, (std::vector<std::string>{"k0000", "k0001", "k0002", "k0003", "k0005"}));
}

// --- Compactions over damaged blocks --------------------------------------

TEST(DBDamagedCompaction, ACompactionOverADamagedBlockFailsTheNextWriteOnEveryHandle) {
  for (const bool paranoid_checks : {false, true}) {
    TempDir dir;
    const std::string path = dir.Sub("db");
    const std::string table = db_test::WriteTable(path, Numbered(2000, 100));
    db_test::WriteTable(path, Numbered(2000, 90));
    // Bytes of a data block near the start, where no index or footer lies.
    testing_support::FlipBytes(path + "/" + table, 100, 4);
    DB db(path);
    ASSERT_TRUE(db.Open(paranoid_checks, false, false, 0).ok());
    EXPECT_TRUE(db.Compact().ok());
    StderrCapture capture;
    const leveldb::Status status = db.Put("z", "1", false);
    EXPECT_EQ(status.ToString(), "Corruption: block checksum mismatch") << paranoid_checks;
  }
}

// --- Files of the database that are malformed or of the wrong kind --------

class DBDamagedFiles : public testing::Test {
 protected:
  void SetUp() override {
    table_ = db_test::WriteTable(path_, Numbered(3000, 100));
    db_test::WriteTable(path_, Numbered(10, 5));
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  std::string table_;
};

TEST_F(DBDamagedFiles, AReadPastTheEndOfACutTableIsCorruption) {
  const std::string table = path_ + "/" + table_;
  testing_support::TruncateFile(table, testing_support::FileSize(table) / 2);
  DB db(path_);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  StderrCapture capture;
  const std::string expected = "Corruption: " + table + ": Invalid argument";
  EXPECT_EQ(db.Verify().ToString(), expected);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Verify", expected), StatusOkCheck()));
}

TEST_F(DBDamagedFiles, ADirectoryWhereATableShouldBeIsCorruption) {
  const std::string table = path_ + "/" + table_;
  std::filesystem::remove(table);
  std::filesystem::create_directory(table);
  DB db(path_);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  StderrCapture capture;
  EXPECT_EQ(db.Verify().ToString(), "Corruption: " + table + ": No such device");
}

// The engine calls a table the MANIFEST names and that is gone NotFound, as
// it calls an absent key; a Get that meets it is told apart by the file.
TEST_F(DBDamagedFiles, ATableGoneUnderAnOpenHandleIsCorruptionAndAnAbsentKeyIsNot) {
  const std::string table = path_ + "/" + table_;
  DB db(path_);
  ASSERT_TRUE(db.Open(false, false, false, 0).ok());
  std::filesystem::remove(table);
  StderrCapture capture;
  std::string value;
  const std::string gone = "Corruption: " + table + ": No such file or directory";
  EXPECT_EQ(db.Get("k1500", &value, nullptr).ToString(), gone);
  EXPECT_EQ(db.Get("absent", &value, nullptr).ToString(), "NotFound: ");
  EXPECT_THAT(capture.Lines(),
              ElementsAre(ReportLine(path_, "Get", gone), db_test::ReadStatusCheck()));
}

TEST_F(DBDamagedFiles, ATableThatCannotBeMadeInARemovedDirectoryIsNoDamage) {
  DB db(path_);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Put("new", "value", false).ok());
  std::filesystem::remove_all(path_);
  // The flush of the new record cannot make its table, and the next write
  // says so: the directory is gone, not damaged.
  db.Compact();
  StderrCapture capture;
  const leveldb::Status status = db.Put("later", "value", false);
  EXPECT_TRUE(status.IsNotFound()) << status.ToString();
}

TEST_F(DBDamagedFiles, AMissingCurrentBesideTheDatabasesFilesIsCorruption) {
  const std::vector<std::string> before = db_test::DirectoryNames(path_);
  std::filesystem::remove(path_ + "/CURRENT");
  DB db(path_);
  StderrCapture capture;
  EXPECT_EQ(db.Open(true, true, false, 0).ToString(),
            "Corruption: " + path_ + "/CURRENT: missing from a database that has files");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  // Nothing was created or deleted: the tables are there for a repair.
  std::vector<std::string> expected = before;
  expected.erase(std::find(expected.begin(), expected.end(), "CURRENT"));
  EXPECT_EQ(db_test::DirectoryNames(path_), expected);
  EXPECT_TRUE(db.Repair().ok());
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  EXPECT_EQ(DumpAll(db).size(), 3000u);
}

TEST_F(DBDamagedFiles, AnEmptyDirectoryWithoutCurrentIsANewDatabase) {
  const std::string path = dir_.Sub("new");
  std::filesystem::create_directory(path);
  DB db(path);
  EXPECT_TRUE(db.Open(true, true, false, 0).ok());
}

TEST_F(DBDamagedFiles, ErrorsOfTheEnvironmentStayIOErrors) {
  FaultEnv env;
  ScopedTestEnv scoped(&env);
  DB db(path_);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  env.fail_table_reads = true;
  StderrCapture capture;
  const leveldb::Status status = db.Verify();
  EXPECT_TRUE(status.IsIOError()) << status.ToString();
}

}  // namespace
