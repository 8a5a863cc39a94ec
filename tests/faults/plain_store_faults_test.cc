// Damage to the directories of the five plain stores, before their first use
// or under running callers. A database that fails verification comes back
// empty; damage that the engine takes for an interrupted write loses records
// without a word; every call answers with a status while the damage lasts;
// and the store serves again once the damage is gone and a reopen is allowed
// (the delay is set to 0 after first use). The exception is a directory
// removed under a running store: the engine then reports NotFound, which
// reopens nothing, and writes keep failing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "faults/callers.h"
#include "faults/plain_fault_env.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/temp_dir.h"

namespace faults_testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;

template <typename Family>
class PlainFaultTest : public StoreTest {
 protected:
  using Key = typename Family::Key;
  using Value = typename Family::Value;
  using Data = typename Family::Data;
  using Records = std::vector<std::pair<std::string, std::string>>;

  std::string path() const { return StorePath(Family::kStore); }

  static typename StoreOf<Family>::type& Store() { return StoreOf<Family>::type::Instance(); }

  // Every failing operation may reopen from now on.
  static void NoReopenDelay() { Store().set_min_reopen_delay(std::chrono::nanoseconds(0)); }

  static Data MakeData(int first, int end) {
    Data data;
    for (int i = first; i < end; ++i) {
      auto* entry = data.add_entries();
      *entry->mutable_key() = Family::MakeKey(i);
      *entry->mutable_value() = Family::MakeValue(i);
    }
    return data;
  }

  // The whole store as raw records, through the family.
  Records Contents() {
    std::vector<Key> keys;
    std::vector<Value> values;
    const Status status = Family::Dump(&keys, &values);
    EXPECT_EQ(status.code, 0) << status.message;
    Records records;
    for (size_t i = 0; i < keys.size(); ++i) {
      records.emplace_back(KeyBytes(keys[i]), values[i].SerializeAsString());
    }
    return records;
  }

  // The store takes a write and reads it back, and logs nothing doing so.
  void ExpectServes() {
    log_.clear();
    const Status status = Family::AtomicClearAndPut(MakeData(0, 3));
    ASSERT_EQ(status.code, 0) << status.message;
    EXPECT_EQ(Contents(), RawRecords<Family>(3));
    EXPECT_THAT(LogLines(), IsEmpty());
  }

  static std::string Regex(const std::string& text) {
    std::string quoted;
    for (const char c : text) {
      if (std::string("\\.^$|()[]{}*+?").find(c) != std::string::npos) quoted += '\\';
      quoted += c;
    }
    return quoted;
  }

  // "<path>/<digits>.<suffix>: <what>", as the engine names a file.
  std::string FileTextRegex(const std::string& prefix, const std::string& suffix,
                            const std::string& what) const {
    return Regex(prefix + path() + "/") + "[0-9]+" + Regex("." + suffix + ": " + what);
  }
};

TYPED_TEST_SUITE(PlainFaultTest, AllFamilies, FamilyName);

// --- Damage found at first use --------------------------------------------

TYPED_TEST(PlainFaultTest, FlippedBytesInTableFilesRecreateTheStoreEmpty) {
  WriteTables(this->path(), RawRecords<TypeParam>(5, 4000));
  ASSERT_EQ(testing_support::DamageTableFiles(this->path()), 1);

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{{kCritical, "Failed to open corrupted database '" + this->path() +
                                               "'. Recreating."}}));
  EXPECT_THAT(testing_support::FilesWithSuffix(this->path(), ".ldb"), IsEmpty());
  this->ExpectServes();
}

TYPED_TEST(PlainFaultTest, TruncatedLogLosesItsCutRecordAndKeepsTheOthersSilently) {
  const auto records = RawRecords<TypeParam>(5);
  const uint64_t before_last = WriteLoggedRecords(this->path(), records);
  const std::string log = OnlyFile(this->path(), ".log");
  const uint64_t size = testing_support::FileSize(log);
  ASSERT_GT(size, before_last + 4);
  testing_support::TruncateFile(log, before_last + (size - before_last) / 2);

  // A record cut short at the end of the log is taken for a write that a
  // crash interrupted: it is dropped, and no corruption is reported.
  EXPECT_EQ(this->Contents(), RawRecords<TypeParam>(4));
  EXPECT_THAT(this->LogLines(), IsEmpty());
  this->ExpectServes();
}

TYPED_TEST(PlainFaultTest, ManifestCutInsideItsFirstRecordRecreatesTheStoreEmpty) {
  WriteTables(this->path(), RawRecords<TypeParam>(5, 4000));
  testing_support::TruncateFile(CurrentManifest(this->path()), 10);

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{{kError, "Failed to open database '" + this->path() + "'."},
                               {kCritical, "Failed to open corrupted database '" + this->path() +
                                               "'. Recreating."}}));
  EXPECT_THAT(testing_support::FilesWithSuffix(this->path(), ".ldb"), IsEmpty());
  this->ExpectServes();
}

// A MANIFEST cut inside its last record reads as a write that a crash
// interrupted: the engine opens the version before it without a word. Here
// the lost edit is the one that added the table of all records, so the
// store opens empty and the engine deletes the table as obsolete. Nothing
// reports a corruption, and nothing is recreated.
TYPED_TEST(PlainFaultTest, ManifestCutInsideItsLastRecordLosesTheLastEditSilently) {
  WriteTables(this->path(), RawRecords<TypeParam>(5, 4000));
  const std::string manifest = CurrentManifest(this->path());
  const std::vector<uint64_t> starts = LogRecordStarts(manifest);
  ASSERT_EQ(starts.size(), 3u);
  const uint64_t last = starts.back();
  testing_support::TruncateFile(manifest, last + (testing_support::FileSize(manifest) - last) / 2);

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_THAT(this->LogLines(), IsEmpty());
  EXPECT_THAT(testing_support::FilesWithSuffix(this->path(), ".ldb"), IsEmpty());
  this->ExpectServes();
}

TYPED_TEST(PlainFaultTest, DeletedManifestRecreatesTheStoreEmpty) {
  WriteTables(this->path(), RawRecords<TypeParam>(5, 4000));
  ASSERT_EQ(unlink(CurrentManifest(this->path()).c_str()), 0);

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{{kError, "Failed to open database '" + this->path() + "'."},
                               {kCritical, "Failed to open corrupted database '" + this->path() +
                                               "'. Recreating."}}));
  EXPECT_THAT(testing_support::FilesWithSuffix(this->path(), ".ldb"), IsEmpty());
  this->ExpectServes();
}

// Without CURRENT the engine would take the directory for a new database and
// drop the old tables silently; the store sees the damage and recreates.
TYPED_TEST(PlainFaultTest, DeletedCurrentRecreatesTheStoreEmpty) {
  WriteTables(this->path(), RawRecords<TypeParam>(5, 4000));
  ASSERT_EQ(unlink((this->path() + "/CURRENT").c_str()), 0);

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{{kError, "Failed to open database '" + this->path() + "'."},
                               {kCritical, "Failed to open corrupted database '" + this->path() +
                                               "'. Recreating."}}));
  EXPECT_THAT(testing_support::FilesWithSuffix(this->path(), ".ldb"), IsEmpty());
  this->ExpectServes();
}

TYPED_TEST(PlainFaultTest, DirectoryThatIsAFileFailsUntilItIsGone) {
  this->BlockStoreDirectory(TypeParam::kStore);
  const std::string not_a_directory = NotADirectoryText(this->path());

  unsigned long count = 7;
  Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{{kError, "Failed to open database '" + this->path() + "'."},
                               {kError, OpenCheckLine(TypeParam::kStore, 5, not_a_directory)}}));

  this->NoReopenDelay();
  for (int attempt = 0; attempt < 3; ++attempt) {
    this->log_.clear();
    status = TypeParam::Count(&count);
    EXPECT_EQ(status.code, 5);
    EXPECT_EQ(status.message, not_a_directory);
    EXPECT_EQ(this->LogLines(),
              FailedReopenLines({{kError, "Failed to open database '" + this->path() + "'."}}, 5,
                                not_a_directory));
  }

  ASSERT_EQ(unlink(this->path().c_str()), 0);
  this->log_.clear();
  status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(this->LogLines(), ReopenedLines());
  this->ExpectServes();
}

// --- Damage under a running store -------------------------------------------

// The engine keeps its open files: a removed directory goes unnoticed until
// it must create a file, when the write buffer is full. It then reports
// NotFound, which is no reason to reopen: the store keeps failing writes.
TYPED_TEST(PlainFaultTest, DirectoryRemovedUnderRunningCallersLeavesWritesFailingWithNotFound) {
  const Status filled = TypeParam::AtomicClearAndPut(this->MakeData(0, 5));
  ASSERT_EQ(filled.code, 0) << filled.message;
  this->NoReopenDelay();
  {
    Callers callers({[] {
                       std::vector<typename TypeParam::Key> keys;
                       std::vector<typename TypeParam::Value> values;
                       const Status status = TypeParam::Dump(&keys, &values);
                       return status.ok() && keys.size() != 5 ? -100 : status.code;
                     },
                     [] {
                       typename TypeParam::Value value;
                       return TypeParam::Get(TypeParam::MakeKey(2), &value).code;
                     },
                     [this] { return TypeParam::AtomicClearAndPut(this->MakeData(0, 5)).code; }});
    ASSERT_TRUE(callers.RunFor(30));
    testing_support::RemoveTree(this->path());
    ASSERT_TRUE(callers.RunFor(300));
    callers.Stop();
    EXPECT_EQ(callers.Codes().size(), 1u);
    EXPECT_EQ(callers.Codes().count(0), 1u);
  }
  EXPECT_FALSE(PathExists(this->path()));
  EXPECT_THAT(this->LogLines(), IsEmpty());

  // Fills the write buffer; the write itself still finds room.
  Status status = TypeParam::AtomicClearAndPut(BigData<TypeParam>());
  ASSERT_EQ(status.code, 0) << status.message;
  for (int attempt = 0; attempt < 3; ++attempt) {
    status = TypeParam::AtomicClearAndPut(this->MakeData(0, 2));
    EXPECT_EQ(status.code, 3);
    EXPECT_THAT(status.message, MatchesRegex(this->FileTextRegex("NotFound: ", "log",
                                                                 "No such file or directory")));
  }
  unsigned long count = 0;
  status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 5u);
  EXPECT_THAT(this->LogLines(), IsEmpty());
  EXPECT_FALSE(PathExists(this->path()));
}

TYPED_TEST(PlainFaultTest, DirectoryReplacedByAFileUnderARunningStoreFailsUntilItIsGone) {
  const Status filled = TypeParam::AtomicClearAndPut(this->MakeData(0, 5));
  ASSERT_EQ(filled.code, 0) << filled.message;
  this->NoReopenDelay();
  testing_support::RemoveTree(this->path());
  this->BlockStoreDirectory(TypeParam::kStore);
  const std::string not_a_directory = NotADirectoryText(this->path());
  const std::vector<Line> failed_reopen = FailedReopenLines(
      {{kError, "Failed to open database '" + this->path() + "'."}}, 5, not_a_directory);

  Status status = TypeParam::AtomicClearAndPut(BigData<TypeParam>());
  ASSERT_EQ(status.code, 0) << status.message;
  EXPECT_THAT(this->LogLines(), IsEmpty());
  // The next write needs a new log file: an I/O error, and a reopen.
  status = TypeParam::AtomicClearAndPut(this->MakeData(0, 2));
  EXPECT_EQ(status.code, 5);
  EXPECT_THAT(status.message,
              MatchesRegex(this->FileTextRegex("IO error: ", "log", "Not a directory")));
  EXPECT_EQ(this->LogLines(), failed_reopen);

  for (int attempt = 0; attempt < 2; ++attempt) {
    this->log_.clear();
    unsigned long count = 7;
    status = TypeParam::Count(&count);
    EXPECT_EQ(status.code, 5);
    EXPECT_EQ(status.message, not_a_directory);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(this->LogLines(), failed_reopen);
  }

  ASSERT_EQ(unlink(this->path().c_str()), 0);
  this->log_.clear();
  unsigned long count = 7;
  status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(this->LogLines(), ReopenedLines());
  this->ExpectServes();
}

// --- Failures of the disk, injected into the engine's environment -----------

TYPED_TEST(PlainFaultTest, ReadErrorsFailEachCallWhichReopensAndTheRecordsSurvive) {
  const auto records = RawRecords<TypeParam>(5, 4000);
  WriteTables(this->path(), records);
  const std::string table = OnlyFile(this->path(), ".ldb");
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  EXPECT_EQ(this->Contents(), records);
  this->NoReopenDelay();

  env.fail_table_reads = true;
  const std::string read_failure = "IO error: " + table + ": injected read failure";
  for (int attempt = 0; attempt < 3; ++attempt) {
    this->log_.clear();
    std::vector<typename TypeParam::Key> keys{TypeParam::MakeKey(1)};
    std::vector<typename TypeParam::Value> values{TypeParam::MakeValue(1)};
    const Status status = TypeParam::Dump(&keys, &values);
    EXPECT_EQ(status.code, 5);
    EXPECT_EQ(status.message, read_failure);
    EXPECT_THAT(keys, IsEmpty());
    EXPECT_THAT(values, IsEmpty());
    // The reopen opens the database, but its verification meets the same
    // failure, which is no corruption: the store stays open as it is.
    EXPECT_EQ(this->LogLines(), FailedReopenLines({}, 5, read_failure));
    EXPECT_TRUE(this->Store().is_open());
  }

  env.fail_table_reads = false;
  this->log_.clear();
  EXPECT_EQ(this->Contents(), records);
  EXPECT_THAT(this->LogLines(), IsEmpty());
  this->ExpectServes();
}

TYPED_TEST(PlainFaultTest, WriteErrorsCloseTheStoreUntilTheyEndAndTheRecordsSurvive) {
  const auto records = RawRecords<TypeParam>(5, 4000);
  WriteTables(this->path(), records);
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  EXPECT_EQ(this->Contents(), records);
  const std::string log = OnlyFile(this->path(), ".log");
  this->NoReopenDelay();

  env.fail_writes = true;
  Status status = TypeParam::AtomicClearAndPut(this->MakeData(0, 2));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "IO error: " + log + ": injected write failure");
  const std::string reopen_failure =
      this->FileTextRegex("IO error: ", "log", "injected write failure");
  EXPECT_THAT(
      this->LogLines(),
      ElementsAre(Line{kNotice, "Reopening the database..."},
                  Line{kError, "Failed to open database '" + this->path() + "'."},
                  Pair(kCritical, MatchesRegex("Database failed to recover with error 5 \\(" +
                                               reopen_failure + "\\)"))));
  EXPECT_FALSE(this->Store().is_open());

  for (int attempt = 0; attempt < 2; ++attempt) {
    this->log_.clear();
    unsigned long count = 7;
    status = TypeParam::Count(&count);
    EXPECT_EQ(status.code, 5);
    EXPECT_THAT(status.message, MatchesRegex(reopen_failure));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(this->LogLines().size(), 3u);
  }

  env.fail_writes = false;
  this->log_.clear();
  EXPECT_EQ(this->Contents(), records);
  EXPECT_EQ(this->LogLines(), ReopenedLines());
  this->ExpectServes();
}

TYPED_TEST(PlainFaultTest, FullDiskClosesTheStoreUntilThereIsRoomAndTheRecordsSurvive) {
  const auto records = RawRecords<TypeParam>(5, 4000);
  WriteTables(this->path(), records);
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  EXPECT_EQ(this->Contents(), records);
  const std::string log = OnlyFile(this->path(), ".log");
  this->NoReopenDelay();

  env.disk_full = true;
  Status status = TypeParam::AtomicClearAndPut(this->MakeData(0, 2));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "IO error: " + log + ": No space left on device");
  const std::string reopen_failure = this->Regex("IO error: " + this->path() + "/MANIFEST-") +
                                     "[0-9]+" + this->Regex(": No space left on device");
  EXPECT_THAT(
      this->LogLines(),
      ElementsAre(Line{kNotice, "Reopening the database..."},
                  Line{kError, "Failed to open database '" + this->path() + "'."},
                  Pair(kCritical, MatchesRegex("Database failed to recover with error 5 \\(" +
                                               reopen_failure + "\\)"))));
  EXPECT_FALSE(this->Store().is_open());

  for (int attempt = 0; attempt < 2; ++attempt) {
    this->log_.clear();
    std::vector<typename TypeParam::Key> keys;
    std::vector<typename TypeParam::Value> values;
    status = TypeParam::Dump(&keys, &values);
    EXPECT_EQ(status.code, 5);
    EXPECT_THAT(status.message, MatchesRegex(reopen_failure));
    EXPECT_EQ(this->LogLines().size(), 3u);
  }

  env.disk_full = false;
  this->log_.clear();
  EXPECT_EQ(this->Contents(), records);
  EXPECT_EQ(this->LogLines(), ReopenedLines());
  this->ExpectServes();
}

}  // namespace
}  // namespace faults_testing
