// The crash checker judged on states laid out by hand: it must accept the
// states a killed writer may leave and reject every other one, saying why.
// Each test writes real database directories with persistence::DB, closes
// them, and runs crash_checker as a process of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "crash_records.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "persistence/db.h"
#include "support/damage.h"
#include "support/temp_dir.h"

namespace {

using ::testing::HasSubstr;
using testing_support::TempDir;

struct CheckerRun {
  int exit_code = -1;
  std::string out;
  std::string err;
};

CheckerRun RunChecker(const std::string& scenario, const std::string& root) {
  const std::string out = root + "/checker.out";
  const std::string err = root + "/checker.err";
  const std::string command =
      std::string(CRASH_CHECKER) + " " + scenario + " " + root + " >" + out + " 2>" + err;
  const int status = std::system(command.c_str());
  CheckerRun run;
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = testing_support::ReadFile(out);
  run.err = testing_support::ReadFile(err);
  return run;
}

// Writes "entries" (encoded key -> encoded value) into the database at
// "path", creating it.
void WriteDatabase(const std::string& path, const std::map<std::string, std::string>& entries) {
  persistence::DB db(path);
  ASSERT_TRUE(db.Open(false, true, false, 0).ok());
  std::vector<std::string> keys, values;
  for (const auto& [key, value] : entries) {
    keys.push_back(key);
    values.push_back(value);
  }
  ASSERT_TRUE(db.Put(keys, values, true).ok());
  ASSERT_TRUE(db.Close().ok());
}

// The fvhash store's records of "list", as the family writes them.
std::map<std::string, std::string> FvhashRecords(int list) {
  std::map<std::string, std::string> records;
  for (const auto& [hash, verdict] : crash::ExpectedContents(crash::Scenario::kFvhash, list)) {
    proto::FVhashStore::Value value;
    value.set_verdict(verdict == "true");
    records[hash] = value.SerializeAsString();
  }
  return records;
}

void WriteProgress(const std::string& root, const std::string& marks) {
  testing_support::WriteFile(crash::ProgressPath(root), marks);
}

TEST(CrashCheckerTest, AcceptsTheAcknowledgedListAndTheOneInFlight) {
  TempDir root;
  WriteDatabase(root.Sub("fvhash_store"), FvhashRecords(crash::kListA));
  WriteProgress(root.path(), "A");
  CheckerRun run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("RESULT found=A writes=1 acknowledged=1"));

  WriteProgress(root.path(), "");
  run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("RESULT found=A writes=1 acknowledged=0"));
}

TEST(CrashCheckerTest, AcceptsAnEmptyStoreBeforeTheFirstWrite) {
  TempDir root;
  const CheckerRun run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("RESULT found=EMPTY writes=0 acknowledged=0"));
}

TEST(CrashCheckerTest, RejectsAMixOfBothLists) {
  TempDir root;
  std::map<std::string, std::string> records = FvhashRecords(crash::kListA);
  // One entry of list B's own half stands beside the whole list A.
  const std::string b_only = crash::HashOf(crash::kListBegin[crash::kListB] + crash::kListSize - 1);
  records[b_only] = FvhashRecords(crash::kListB).at(b_only);
  WriteDatabase(root.Sub("fvhash_store"), records);
  WriteProgress(root.path(), "A");
  const CheckerRun run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.out, HasSubstr("RESULT found=MIXED"));
  EXPECT_THAT(run.err, HasSubstr("50001 entries: 50000 as in A only, 1 as in B only, 0 as in "
                                 "both, 0 with a value of neither, 0 with a key of neither; 0 "
                                 "keys of A and 24999 keys of B missing"));
}

TEST(CrashCheckerTest, RejectsPartOfAList) {
  TempDir root;
  std::map<std::string, std::string> records = FvhashRecords(crash::kListB);
  records.erase(records.begin());
  WriteDatabase(root.Sub("fvhash_store"), records);
  WriteProgress(root.path(), "AB");
  const CheckerRun run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.out, HasSubstr("RESULT found=MIXED"));
  EXPECT_THAT(run.err, HasSubstr(" and 1 keys of B missing"));
}

TEST(CrashCheckerTest, RejectsTheSecondListBeforeAnyWriteWasAcknowledged) {
  TempDir root;
  WriteDatabase(root.Sub("fvhash_store"), FvhashRecords(crash::kListB));
  // One write acknowledged: write 1 (A) or write 2 (B) may stand...
  WriteProgress(root.path(), "A");
  EXPECT_EQ(RunChecker("fvhash", root.path()).exit_code, 0);
  // ...and with none, only the empty store or write 1 (A).
  WriteProgress(root.path(), "");
  const CheckerRun run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err,
              HasSubstr("the store holds B after 0 acknowledged writes: expected EMPTY or A"));
}

TEST(CrashCheckerTest, RejectsAnEmptyStoreAfterAnAcknowledgedWrite) {
  TempDir root;
  WriteDatabase(root.Sub("fvhash_store"), {});
  WriteProgress(root.path(), "AB");
  const CheckerRun run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err,
              HasSubstr("the store holds EMPTY after 2 acknowledged writes: expected B or A"));
}

TEST(CrashCheckerTest, RejectsADatabaseThatRecoveryRecreated) {
  TempDir root;
  WriteDatabase(root.Sub("fvhash_store"), FvhashRecords(crash::kListA));
  {
    // Moves the records into table files, which the damage then reaches.
    persistence::DB db(root.Sub("fvhash_store"));
    ASSERT_TRUE(db.Open(false, false, false, 0).ok());
    ASSERT_TRUE(db.Compact().ok());
    ASSERT_TRUE(db.Close().ok());
  }
  ASSERT_GT(testing_support::DamageTableFiles(root.Sub("fvhash_store")), 0);
  WriteProgress(root.path(), "");
  const CheckerRun run = RunChecker("fvhash", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err, HasSubstr("logged at priority 2: Failed to open corrupted database"));
}

// --- Enrichment ------------------------------------------------------------

struct EnrichmentLayout {
  std::map<std::string, std::string> entries;
  std::map<std::string, std::string> rows;

  void AddEntry(int item, uint64_t generation, uint64_t index) {
    const std::string key = crash::EnrichmentKeyOf(item);
    crash::EnrichmentValue value = crash::EnrichmentValueOf(key, generation);
    value.mutable_lru_data()->set_index(index);
    value.mutable_lru_data()->set_last_used(1700000000);
    entries[key] = value.SerializeAsString();
  }
  void AddRow(uint64_t index, const std::string& key) {
    proto::EnrichmentLruStore::Value row;
    row.set_foreign_key(key);
    rows[crash::EnrichmentLruStore::LruKey(index)] = row.SerializeAsString();
  }
  void Write(const std::string& root) {
    WriteDatabase(root + "/enrichment_store", entries);
    WriteDatabase(root + "/enrichment_store.lru", rows);
  }
};

TEST(CrashCheckerTest, AcceptsAnEnrichmentPairWithRowsForItsEntries) {
  TempDir root;
  EnrichmentLayout layout;
  layout.AddEntry(1, 10, 1);
  layout.AddEntry(2, 11, 2);
  layout.AddRow(1, crash::EnrichmentKeyOf(1));
  layout.AddRow(2, crash::EnrichmentKeyOf(2));
  layout.Write(root.path());
  const CheckerRun run = RunChecker("enrichment", root.path());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("RESULT found=both entries=2 rows=2"));
}

TEST(CrashCheckerTest, AcceptsEntriesWithoutRowsAndChecksTheRebuild) {
  TempDir root;
  EnrichmentLayout layout;
  layout.AddEntry(1, 10, 5);
  layout.AddEntry(2, 11, 5);  // the same index: the rebuild moves one of them
  layout.AddEntry(3, 12, 0);
  layout.Write(root.path());
  const CheckerRun run = RunChecker("enrichment", root.path());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("RESULT found=entries-only entries=3 rows=0"));
}

TEST(CrashCheckerTest, AcceptsRowsWithoutEntries) {
  TempDir root;
  EnrichmentLayout layout;
  layout.AddRow(4, crash::EnrichmentKeyOf(4));
  layout.Write(root.path());
  const CheckerRun run = RunChecker("enrichment", root.path());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("RESULT found=rows-only entries=0 rows=1"));
}

TEST(CrashCheckerTest, RejectsAnEnrichmentValueThatIsNotWhole) {
  TempDir root;
  EnrichmentLayout layout;
  layout.AddEntry(1, 10, 1);
  layout.AddRow(1, crash::EnrichmentKeyOf(1));
  crash::EnrichmentValue torn;
  ASSERT_TRUE(torn.ParseFromString(layout.entries.begin()->second));
  torn.set_image_path(crash::EnrichmentValueOf(crash::EnrichmentKeyOf(1), 11).image_path());
  layout.entries.begin()->second = torn.SerializeAsString();
  layout.Write(root.path());
  const CheckerRun run = RunChecker("enrichment", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err, HasSubstr("value differs from generation 10"));
}

TEST(CrashCheckerTest, RejectsAValueThatDoesNotDecode) {
  TempDir root;
  EnrichmentLayout layout;
  layout.AddEntry(1, 10, 1);
  layout.AddRow(1, crash::EnrichmentKeyOf(1));
  layout.entries.begin()->second = "\xff\xff\xff";
  layout.Write(root.path());
  const CheckerRun run = RunChecker("enrichment", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err, HasSubstr("dump of the store failed"));
}

TEST(CrashCheckerTest, RejectsARowOfAnUnknownKey) {
  TempDir root;
  EnrichmentLayout layout;
  layout.AddEntry(1, 10, 1);
  layout.AddRow(1, "not-a-key-of-the-writer");
  layout.Write(root.path());
  const CheckerRun run = RunChecker("enrichment", root.path());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err, HasSubstr("names unknown key 'not-a-key-of-the-writer'"));
}

}  // namespace
