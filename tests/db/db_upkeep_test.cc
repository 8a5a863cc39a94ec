// persistence::DB: operations on the database as a whole. Destroy, Verify,
// Repair, Compact, Stats and GetSizeOfKey.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
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
using db_test::IsCheckLine;
using db_test::ReportLine;
using db_test::StatusOkCheck;
using persistence::DB;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing_support::FaultEnv;
using testing_support::ScopedTestEnv;
using testing_support::StderrCapture;
using testing_support::TempDir;
using Strings = std::vector<std::string>;

// Flags the handle: a Verify with paranoid checks that meets injected damage.
// The damage is switched off again afterwards.
void FlagThroughVerify(DBProbe& db, FaultEnv& env) {
  env.corrupt_table_reads = true;
  ASSERT_TRUE(db.Verify().IsCorruption());
  env.corrupt_table_reads = false;
  ASSERT_TRUE(db.corrupted());
}

// --- Destroy --------------------------------------------------------------------

TEST(DBDestroy, OpenHandleIsClosedAndTheDirectoryRemoved) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, true, true, 1).ok());
  ASSERT_TRUE(db.Put("a", "1", false).ok());
  ASSERT_TRUE(db.Compact().ok());
  ASSERT_TRUE(db.Put("b", "2", false).ok());
  ASSERT_FALSE(testing_support::FilesWithSuffix(path, ".ldb").empty());
  {
    StderrCapture capture;
    EXPECT_TRUE(db.Destroy().ok());
    EXPECT_THAT(capture.Lines(), IsEmpty());
  }
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db.corrupted());
  EXPECT_FALSE(db_test::Exists(path));
  // The filter goes with the engine; the cache stays until the next Open.
  EXPECT_EQ(db.filter_policy(), nullptr);
  EXPECT_NE(db.block_cache(), nullptr);
  StderrCapture capture;
  EXPECT_EQ(db.Put("c", "3", false).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
}

TEST(DBDestroy, ClosedHandleDestroysTheDirectory) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  db_test::WriteEntries(path, {{"b", "2"}});
  DB db(path);
  StderrCapture capture;
  EXPECT_TRUE(db.Destroy().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db_test::Exists(path));
}

TEST(DBDestroy, MissingDirectoryIsOk) {
  TempDir dir;
  const std::string path = dir.Sub("never");
  DB db(path);
  StderrCapture capture;
  EXPECT_TRUE(db.Destroy().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db_test::Exists(path));
}

TEST(DBDestroy, FilesOfOthersStayInTheDirectory) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  testing_support::WriteFile(path + "/notes.txt", "not the engine's");
  DB db(path);
  StderrCapture capture;
  EXPECT_TRUE(db.Destroy().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_THAT(db_test::DirectoryNames(path), ElementsAre("notes.txt"));
}

TEST(DBDestroy, AFileThatCannotBeRemovedIsReported) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  // A directory under the name of a table file: unlink refuses it.
  std::filesystem::create_directories(path + "/000099.ldb/inside");
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  const std::string failure = "IO error: " + path + "/000099.ldb: Is a directory";
  StderrCapture capture;
  EXPECT_EQ(db.Destroy().ToString(), failure);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Destroy", failure), StatusOkCheck()));
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db.corrupted());
  // Everything else of the engine is gone.
  EXPECT_THAT(db_test::DirectoryNames(path), ElementsAre("000099.ldb"));
}

TEST(DBDestroy, EmptyPathPrintsTheCheckLine) {
  DB db("");
  StderrCapture capture;
  EXPECT_EQ(db.Destroy().ToString(), "Invalid argument: path_: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(IsCheckLine("!path_.empty()", "!path_.empty()")));
}

TEST(DBDestroy, ClearsTheFlagAndAllowsAFreshOpen) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  FlagThroughVerify(db, env);
  StderrCapture capture;
  EXPECT_TRUE(db.Destroy().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.corrupted());
  EXPECT_FALSE(db.is_open());
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  uint64_t count = 9;
  ASSERT_TRUE(db.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 0u);
}

// --- Verify ---------------------------------------------------------------------

TEST(DBVerify, ClosedHandlePrintsTheCheckLine) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Verify().ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
}

TEST(DBVerify, SoundDatabaseIsOkSilently) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, db_test::NumberedEntries("key", "value", 100));
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Put("log", "entry", false).ok());
  StderrCapture capture;
  EXPECT_TRUE(db.Verify().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.corrupted());
}

TEST(DBVerify, SoundDatabaseClearsTheFlagAndTheNextPutReachesTheEngine) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  FlagThroughVerify(db, env);
  ASSERT_EQ(db.Put("b", "2", false).ToString(), "Corruption: corrupted_: true");
  StderrCapture capture;
  EXPECT_TRUE(db.Verify().ok());
  EXPECT_FALSE(db.corrupted());
  EXPECT_TRUE(db.Put("b", "2", false).ok());
  std::string value;
  EXPECT_TRUE(db.Get("b", &value, nullptr).ok());
  EXPECT_EQ(value, "2");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBVerify, RunsOnAFlaggedHandleAndKeepsTheFlagOnCorruption) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  FlagThroughVerify(db, env);
  env.corrupt_table_reads = true;
  const std::string damage = "Corruption: " + path + "/" + table + ": injected damage";
  StderrCapture capture;
  EXPECT_EQ(db.Verify().ToString(), damage);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Verify", damage), StatusOkCheck()));
  EXPECT_TRUE(db.corrupted());
}

TEST(DBVerify, CorruptionWithParanoidChecksSetsTheFlag) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  env.corrupt_table_reads = true;
  const std::string damage = "Corruption: " + path + "/" + table + ": injected damage";
  StderrCapture capture;
  EXPECT_EQ(db.Verify().ToString(), damage);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Verify", damage), StatusOkCheck()));
  EXPECT_TRUE(db.corrupted());
  EXPECT_TRUE(db.is_open());
}

TEST(DBVerify, CorruptionWithoutParanoidChecksLeavesTheFlag) {
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
    EXPECT_EQ(db.Verify().ToString(), damage);
    EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Verify", damage), StatusOkCheck()));
  }
  EXPECT_FALSE(db.corrupted());
  // The next operation reaches the engine.
  env.corrupt_table_reads = false;
  StderrCapture capture;
  EXPECT_TRUE(db.Put("b", "2", false).ok());
  std::string value;
  EXPECT_TRUE(db.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "1");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBVerify, AnIOErrorClearsTheFlag) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  FlagThroughVerify(db, env);
  env.fail_table_reads = true;
  const std::string failure = "IO error: " + path + "/" + table + ": injected read failure";
  StderrCapture capture;
  EXPECT_EQ(db.Verify().ToString(), failure);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Verify", failure), StatusOkCheck()));
  EXPECT_FALSE(db.corrupted());
}

TEST(DBVerify, AnIOErrorOnACleanHandleLeavesItClean) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  env.fail_table_reads = true;
  ASSERT_TRUE(db.Verify().IsIOError());
  EXPECT_FALSE(db.corrupted());
}

TEST(DBVerify, ChecksumsAreVerifiedWhereOrdinaryReadsDoNot) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  // One table of one block, stored uncompressed; a damaged byte in the value
  // fails only the checksum.
  std::mt19937 random(11);
  std::string stored(100, '\0');
  for (char& byte : stored) byte = static_cast<char>(random() & 0xff);
  const std::string table = db_test::WriteTable(path, {{"key", stored}});
  const std::string table_path = path + "/" + table;
  const std::string contents = testing_support::ReadFile(table_path);
  const size_t value_at = contents.find(stored);
  ASSERT_NE(value_at, std::string::npos);
  testing_support::FlipBytes(table_path, value_at + 50, 1);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  std::string value;
  ASSERT_TRUE(db.Get("key", &value, nullptr).ok());
  EXPECT_EQ(value.size(), 100u);
  EXPECT_NE(value, stored);
  StderrCapture capture;
  const std::string mismatch = "Corruption: block checksum mismatch";
  EXPECT_EQ(db.Verify().ToString(), mismatch);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Verify", mismatch), StatusOkCheck()));
  EXPECT_TRUE(db.corrupted());
}

// --- Repair ---------------------------------------------------------------------

TEST(DBRepair, OpenHandleIsRefusedAndStaysOpen) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  DB db(path);
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  ASSERT_TRUE(db.Put("a", "1", false).ok());
  {
    StderrCapture capture;
    EXPECT_EQ(db.Repair().ToString(), "Invalid argument: db_: !nullptr");
    EXPECT_THAT(capture.Lines(), ElementsAre(IsCheckLine("!db_", "!db_")));
  }
  EXPECT_TRUE(db.is_open());
  StderrCapture capture;
  ASSERT_TRUE(db.Put("b", "2", false).ok());
  std::string value;
  ASSERT_TRUE(db.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "1");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBRepair, SoundDatabaseKeepsEveryRecord) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Entries in_table = db_test::NumberedEntries("t", "table", 20);
  const Entries in_log = db_test::NumberedEntries("u", "log", 5);
  db_test::WriteTable(path, in_table);
  db_test::WriteEntries(path, in_log);
  DB db(path);
  StderrCapture capture;
  EXPECT_TRUE(db.Repair().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  Entries expected = in_table;
  expected.insert(expected.end(), in_log.begin(), in_log.end());
  leveldb::Status status;
  EXPECT_EQ(db_test::ReadAll(path, &status), expected);
  EXPECT_TRUE(status.ok());
}

TEST(DBRepair, MissingDirectoryBecomesAnEmptyDatabase) {
  TempDir dir;
  const std::string path = dir.Sub("never");
  DB db(path);
  StderrCapture capture;
  EXPECT_TRUE(db.Repair().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_TRUE(db_test::Exists(path + "/CURRENT"));
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  bool is_empty = false;
  ASSERT_TRUE(db.Empty(&is_empty, nullptr).ok());
  EXPECT_TRUE(is_empty);
}

TEST(DBRepair, FailedRepairIsReported) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  env.only_files = ".dbtmp";
  env.fail_writes = true;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  const std::string failure = "IO error: " + path + "/000001.dbtmp: injected write failure";
  StderrCapture capture;
  EXPECT_EQ(db.Repair().ToString(), failure);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path, "Repair", failure), StatusOkCheck()));
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db.corrupted());
}

// --- Compact --------------------------------------------------------------------

TEST(DBCompact, MovesTheLogIntoTables) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  DB db(path);
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  const Entries entries = db_test::NumberedEntries("key", "value", 100);
  for (const auto& entry : entries) ASSERT_TRUE(db.Put(entry.first, entry.second, false).ok());
  ASSERT_TRUE(testing_support::FilesWithSuffix(path, ".ldb").empty());
  StderrCapture capture;
  EXPECT_TRUE(db.Compact().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_EQ(testing_support::FilesWithSuffix(path, ".ldb").size(), 1u);
  std::vector<std::string> keys;
  std::vector<std::string> values;
  ASSERT_TRUE(db.Dump(&keys, &values, nullptr).ok());
  EXPECT_EQ(keys, db_test::KeysOf(entries));
  EXPECT_EQ(values, db_test::ValuesOf(entries));
}

TEST(DBCompact, MergesTables) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}, {"b", "2"}});
  db_test::WriteTable(path, {{"c", "3"}});
  DB db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_EQ(testing_support::FilesWithSuffix(path, ".ldb").size(), 2u);
  ASSERT_TRUE(db.Delete("b", false).ok());
  ASSERT_TRUE(db.Compact().ok());
  EXPECT_EQ(testing_support::FilesWithSuffix(path, ".ldb").size(), 1u);
  std::vector<std::string> keys;
  ASSERT_TRUE(db.Dump(&keys, nullptr, nullptr).ok());
  EXPECT_THAT(keys, ElementsAre("a", "c"));
}

TEST(DBCompact, ClosedHandlePrintsTheCheckLine) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Compact().ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
}

TEST(DBCompact, FlaggedHandleReturnsCorruptionAndDoesNoWork) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  const std::string table = db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Put("b", "2", false).ok());
  FlagThroughVerify(db, env);
  const Strings before = db_test::DirectoryNames(path);
  ASSERT_THAT(testing_support::FilesWithSuffix(path, ".ldb"), ElementsAre(table));
  {
    StderrCapture capture;
    EXPECT_EQ(db.Compact().ToString(), "Corruption: corrupted_: true");
    EXPECT_THAT(capture.Lines(), IsEmpty());
  }
  EXPECT_EQ(db_test::DirectoryNames(path), before);
  // Once the flag is cleared the same call compacts.
  ASSERT_TRUE(db.Verify().ok());
  ASSERT_TRUE(db.Compact().ok());
  EXPECT_THAT(testing_support::FilesWithSuffix(path, ".ldb"), testing::Not(ElementsAre(table)));
}

// --- Stats ------------------------------------------------------------------------

TEST(DBStats, ReturnsTheEngineTexts) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  DB db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Put("b", "2", false).ok());
  ASSERT_TRUE(db.Compact().ok());
  std::string stats = "stale";
  std::string sstables = "stale";
  StderrCapture capture;
  ASSERT_TRUE(db.Stats(&stats, &sstables).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_THAT(stats, HasSubstr("Compactions\n"));
  EXPECT_THAT(stats, HasSubstr("Level  Files Size(MB) Time(sec) Read(MB) Write(MB)\n"));
  EXPECT_THAT(sstables, StartsWith("--- level 0 ---\n"));
  // Every table file is listed by its number.
  const std::vector<std::string> tables = testing_support::FilesWithSuffix(path, ".ldb");
  ASSERT_FALSE(tables.empty());
  for (const std::string& table : tables) {
    const std::string number = std::to_string(std::stoul(table.substr(0, 6)));
    EXPECT_THAT(sstables, HasSubstr(" " + number + ":"));
  }
}

TEST(DBStats, EitherPointerMayBeNull) {
  TempDir dir;
  DB db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  std::string stats;
  std::string sstables;
  StderrCapture capture;
  EXPECT_TRUE(db.Stats(nullptr, nullptr).ok());
  ASSERT_TRUE(db.Stats(&stats, nullptr).ok());
  EXPECT_THAT(stats, HasSubstr("Compactions"));
  ASSERT_TRUE(db.Stats(nullptr, &sstables).ok());
  EXPECT_THAT(sstables, StartsWith("--- level 0 ---"));
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBStats, ClosedHandleLeavesBothStringsEmpty) {
  TempDir dir;
  DB db(dir.Sub("db"));
  std::string stats = "stale";
  std::string sstables = "stale";
  StderrCapture capture;
  EXPECT_EQ(db.Stats(&stats, &sstables).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_EQ(stats, "");
  EXPECT_EQ(sstables, "");
  EXPECT_EQ(db.Stats(nullptr, nullptr).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck(), DbNullCheck()));
}

TEST(DBStats, FlaggedHandleLeavesBothStringsEmpty) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  FlagThroughVerify(db, env);
  std::string stats = "stale";
  std::string sstables = "stale";
  StderrCapture capture;
  EXPECT_EQ(db.Stats(&stats, &sstables).ToString(), "Corruption: corrupted_: true");
  EXPECT_EQ(stats, "");
  EXPECT_EQ(sstables, "");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

// --- GetSizeOfKey -------------------------------------------------------------------

class DBSizeOfKey : public testing::Test {
 protected:
  // a, b, c with values of 10,000 bytes that do not compress, in one table.
  void SetUp() override {
    ASSERT_TRUE(db_.Open(true, true, false, 0).ok());
    std::mt19937 random(3);
    for (const char* key : {"a", "b", "c"}) {
      std::string value(10000, '\0');
      for (char& byte : value) byte = static_cast<char>(random() & 0xff);
      ASSERT_TRUE(db_.Put(key, value, false).ok());
    }
    ASSERT_TRUE(db_.Compact().ok());
  }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  DBProbe db_{path_};
};

TEST_F(DBSizeOfKey, MeasuresFromTheKeyToTheNextOne) {
  uint64_t size = 0;
  StderrCapture capture;
  ASSERT_TRUE(db_.GetSizeOfKey("a", size).ok());
  EXPECT_GE(size, 10000u);
  EXPECT_LT(size, 10100u);
  uint64_t size_b = 0;
  ASSERT_TRUE(db_.GetSizeOfKey("b", size_b).ok());
  EXPECT_GE(size_b, 10000u);
  EXPECT_LT(size_b, 10100u);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBSizeOfKey, AKeyThatIsNotStoredMeasuresFromItself) {
  uint64_t size = 0;
  // The empty key is below every key: the range runs from it to b.
  ASSERT_TRUE(db_.GetSizeOfKey("", size).ok());
  EXPECT_GE(size, 10000u);
  EXPECT_LT(size, 10100u);
}

TEST_F(DBSizeOfKey, TheLastKeyHasNoNextKey) {
  uint64_t size = 12345;
  StderrCapture capture;
  EXPECT_EQ(db_.GetSizeOfKey("c", size).ToString(), "NotFound: Next key not found: c");
  EXPECT_EQ(db_.GetSizeOfKey("bb", size).ToString(), "NotFound: Next key not found: bb");
  EXPECT_EQ(size, 12345u);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBSizeOfKey, AKeyAboveAllStoredKeysIsNotFound) {
  uint64_t size = 12345;
  StderrCapture capture;
  EXPECT_EQ(db_.GetSizeOfKey("zz", size).ToString(), "NotFound: Key not found: zz");
  EXPECT_EQ(size, 12345u);
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db_.corrupted());
}

TEST(DBSizeOfKeyAlone, TheOnlyKeyOfADatabaseGivesNextKeyNotFound) {
  TempDir dir;
  DB db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  ASSERT_TRUE(db.Put("only", "1", false).ok());
  uint64_t size = 7;
  StderrCapture capture;
  EXPECT_EQ(db.GetSizeOfKey("only", size).ToString(), "NotFound: Next key not found: only");
  EXPECT_EQ(size, 7u);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBSizeOfKeyAlone, WorksOnAFlaggedHandleAndLeavesTheFlag) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteTable(path, {{"a", "1"}});
  FaultEnv env;
  ScopedTestEnv scoped_env(&env);
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Put("b", "2", false).ok());
  FlagThroughVerify(db, env);
  uint64_t size = 7;
  StderrCapture capture;
  EXPECT_TRUE(db.GetSizeOfKey("a", size).ok());
  EXPECT_EQ(db.GetSizeOfKey("b", size).ToString(), "NotFound: Next key not found: b");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_TRUE(db.corrupted());
}

}  // namespace
