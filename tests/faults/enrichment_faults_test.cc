// Damage to the enrichment store's two directories, the main store and its
// LRU database, before first use or under running callers. Both open with
// repair: a database that fails verification is repaired, and recreated only
// if that does not help. Whenever one of them comes back, the validity check
// brings the other in line: rows are cleared when the main store came back
// empty, and rebuilt from the values when the LRU database did.
//
// The store's two threads are stopped right after first use (Stop() joins
// the sync thread after its first validity check), so that every later call
// runs on the test's thread alone. The reopen delay of both databases is one
// second and the test clock stands still: a test allows exactly one reopen
// attempt by moving the clock a second ahead.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "faults/callers.h"
#include "faults/plain_fault_env.h"
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace faults_testing {
namespace {

using persistence::EnrichmentStoreEx;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using Value = proto::EnrichmentStore::Value;
using Row = proto::EnrichmentLruStore::Value;
using LruStoreBase =
    persistence::PersistentLruStore<std::string, Value, proto::EnrichmentStore::Data, Row,
                                    proto::EnrichmentLruStore::Data>;

constexpr int kInformation = Poco::Message::PRIO_INFORMATION;
constexpr std::time_t kWallStart = 1700000000;
constexpr int kEntries = 200;

// The singleton's LRU database, reached through a class of its family.
struct StoreAccess : LruStoreBase {
  static LruStore& Lru() { return EnrichmentStoreEx::Instance().*(&StoreAccess::lru_store_); }
  static uint64_t CurrentIndex() {
    LruStoreBase& store = EnrichmentStoreEx::Instance();
    std::lock_guard<std::mutex> lock(store.*(&StoreAccess::lru_index_mutex_));
    return store.*(&StoreAccess::current_lru_index_);
  }
};

std::string HashKey(int i) {
  char text[65];
  std::snprintf(text, sizeof(text), "%064x", 0x5eed0000 + i);
  return text;
}

// A record as the store keeps it: used ten seconds before the test clock's
// start (young, so reading it writes nothing), at index i + 1.
Value Record(int i) {
  Value value;
  value.mutable_lru_data()->set_last_used(kWallStart - 10);
  value.mutable_lru_data()->set_index(static_cast<uint64_t>(i) + 1);
  value.set_image_path("/opt/vendor/bin/tool-" + std::to_string(i) + "/" + std::string(300, 'p'));
  value.mutable_signature_details()->set_vendor("Example Vendor");
  value.mutable_signature_details()->set_signature_state(static_cast<uint32_t>(i % 4));
  value.set_sha256(HashKey(i));
  value.set_sa_score(i / 10.0);
  value.add_entitlements("com.example.network.client");
  return value;
}

Row RowOf(int i) {
  Row row;
  row.set_foreign_key(HashKey(i));
  return row;
}

// The records of entries 0 to "end" - 1, at their index plus "shift": a
// rebuild of the order database moves every index up by 1000.
std::vector<std::pair<std::string, std::string>> MainRecords(int end, uint64_t shift = 0) {
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < end; ++i) {
    Value value = Record(i);
    value.mutable_lru_data()->set_index(value.lru_data().index() + shift);
    records.emplace_back(HashKey(i), value.SerializeAsString());
  }
  return records;
}

std::vector<std::pair<std::string, std::string>> LruRecords(int end) {
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < end; ++i) {
    records.emplace_back(LruStoreBase::LruKey(static_cast<uint64_t>(i) + 1),
                         RowOf(i).SerializeAsString());
  }
  return records;
}

// The entries of the main store, read past the order of use.
std::map<std::string, std::string> Entries() {
  std::vector<std::string> keys;
  std::vector<Value> values;
  const persistence::Status status =
      EnrichmentStoreEx::Instance().Dump(&keys, &values, static_cast<const void*>(nullptr));
  EXPECT_EQ(status.code, 0) << status.message;
  std::map<std::string, std::string> entries;
  for (size_t i = 0; i < keys.size(); ++i) entries[keys[i]] = values[i].SerializeAsString();
  return entries;
}

std::map<std::string, std::string> EntriesOf(
    const std::vector<std::pair<std::string, std::string>>& records) {
  return std::map<std::string, std::string>(records.begin(), records.end());
}

// The rows of the LRU database, index to foreign key.
std::map<uint64_t, std::string> Rows() {
  std::vector<std::string> keys;
  std::vector<Row> rows;
  const persistence::Status status = StoreAccess::Lru().Dump(&keys, &rows, nullptr);
  EXPECT_EQ(status.code, 0) << status.message;
  std::map<uint64_t, std::string> result;
  for (size_t i = 0; i < keys.size(); ++i) result[std::stoull(keys[i])] = rows[i].foreign_key();
  return result;
}

// Rows for entries 0 to "end" - 1 at their index plus "shift".
std::map<uint64_t, std::string> RowsOf(int end, uint64_t shift = 0) {
  std::map<uint64_t, std::string> rows;
  for (int i = 0; i < end; ++i) rows[static_cast<uint64_t>(i) + 1 + shift] = HashKey(i);
  return rows;
}

std::string Regex(const std::string& text) {
  std::string quoted;
  for (const char c : text) {
    if (std::string("\\.^$|()[]{}*+?").find(c) != std::string::npos) quoted += '\\';
    quoted += c;
  }
  return quoted;
}

class EnrichmentFaultTest : public ::testing::Test {
 protected:
  EnrichmentFaultTest() { setenv("ZERLA_DATA_ROOT", root_.path().c_str(), 1); }

  std::string MainPath() const { return root_.Sub("enrichment_store"); }
  std::string LruPath() const { return MainPath() + ".lru"; }

  // Both directories with kEntries entries, each with its row, in tables.
  void PrepareTables() {
    WriteTables(MainPath(), MainRecords(kEntries));
    WriteTables(LruPath(), LruRecords(kEntries));
  }

  // First use: opens both databases, lets the sync thread make its first
  // validity check and stops both threads. Sets the reopen delays.
  void StartAndStop() {
    EnrichmentStoreEx& store = EnrichmentStoreEx::Instance();
    store.Stop();
    store.set_min_reopen_delay(std::chrono::seconds(1));
    StoreAccess::Lru().set_min_reopen_delay(std::chrono::seconds(1));
  }

  // Allows one more reopen attempt of each database.
  void AllowReopen() { clock_.Advance(std::chrono::seconds(1)); }

  std::vector<Line> LogLines() const { return Lines(log_); }

  // The store takes new entries, reads them back and deletes one, with its
  // row, logging nothing.
  void ExpectServes() {
    log_.clear();
    Value value = Record(1000);
    ASSERT_EQ(persistence::EnrichmentStore_Put(HashKey(1000), value).code, 0);
    Value read;
    ASSERT_EQ(persistence::EnrichmentStore_Get(HashKey(1000), &read).code, 0);
    EXPECT_EQ(read.image_path(), value.image_path());
    ASSERT_EQ(persistence::EnrichmentStore_Put(HashKey(1001), Record(1001)).code, 0);
    EXPECT_EQ(persistence::EnrichmentStore_Delete(HashKey(1001)).code, 0);
    EXPECT_EQ(persistence::EnrichmentStore_Get(HashKey(1001), &read).code, 3);
    EXPECT_THAT(LogLines(),
                ElementsAre(Pair(kTrace, "Failed to get entry, error=3, message=NotFound: ")));
  }

  std::string RepairLine(const std::string& path) const {
    return "Failed to open corrupted database '" + path + "'. Attempting repair.";
  }
  // A rebuild of the rows of "entries" entries: each looks for its row first
  // and misses it.
  std::vector<Line> RebuildLines(int entries) const {
    std::vector<Line> lines{{kInformation, "Rebuilding '" + LruPath() + "'..."}};
    for (int i = 0; i < entries; ++i) {
      lines.push_back({kTrace, "Failed to get entry from LRU, error=3, message=NotFound: "});
    }
    lines.push_back({kInformation, "Successfully completed rebuilding '" + LruPath() + "'."});
    return lines;
  }

  testing_support::TempDir root_;
  testing_support::TestClock clock_{std::chrono::hours(1), kWallStart};
  testing_support::LogCapture log_{"Enrichment"};
};

// --- Damage found at first use --------------------------------------------

// The repair keeps what it can read past the damaged block: the entries of
// that block are gone, and their rows stay as orphans.
TEST_F(EnrichmentFaultTest, FlippedBytesInMainTablesAreRepairedLosingTheDamagedBlock) {
  PrepareTables();
  ASSERT_EQ(testing_support::DamageTableFiles(MainPath()), 1);
  StartAndStop();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kCritical, RepairLine(MainPath())}}));
  const std::map<std::string, std::string> all = EntriesOf(MainRecords(kEntries));
  const std::map<std::string, std::string> entries = Entries();
  EXPECT_EQ(entries.size(), 191u);
  for (const auto& [key, value] : entries) EXPECT_EQ(all.at(key), value) << key;
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  ExpectServes();
}

// The repair keeps the rows it can read past the damaged block; the entries
// whose rows are gone make the sync thread rebuild the order database whole.
TEST_F(EnrichmentFaultTest, FlippedBytesInLruTablesAreRepairedAndTheRowsRebuilt) {
  PrepareTables();
  ASSERT_EQ(testing_support::DamageTableFiles(LruPath()), 1);
  StartAndStop();
  std::vector<Line> expected{
      {kCritical, RepairLine(LruPath())},
      {kInformation, "52 entries have no row in '" + LruPath() + "'. Rebuilding it."}};
  for (const Line& line : RebuildLines(kEntries)) expected.push_back(line);
  EXPECT_EQ(LogLines(), expected);
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries, 1000)));
  EXPECT_EQ(Rows(), RowsOf(kEntries, 1000));
  EXPECT_EQ(StoreAccess::CurrentIndex(), 1000u + kEntries);
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, TruncatedMainLogLosesItsCutEntrySilently) {
  const uint64_t before_last = WriteLoggedRecords(MainPath(), MainRecords(20));
  WriteTables(LruPath(), LruRecords(20));
  const std::string log = OnlyFile(MainPath(), ".log");
  const uint64_t size = testing_support::FileSize(log);
  testing_support::TruncateFile(log, before_last + (size - before_last) / 2);
  StartAndStop();
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(19)));
  // The row of the lost entry stays, an orphan that pruning copes with.
  EXPECT_EQ(Rows(), RowsOf(20));
  EXPECT_THAT(LogLines(), IsEmpty());
  ExpectServes();
}

// The cut row is lost as a crash loses it, and the entry without it makes the
// sync thread rebuild the order database whole.
TEST_F(EnrichmentFaultTest, TruncatedLruLogLosesItsCutRowAndTheRowsAreRebuilt) {
  WriteTables(MainPath(), MainRecords(20));
  const uint64_t before_last = WriteLoggedRecords(LruPath(), LruRecords(20));
  const std::string log = OnlyFile(LruPath(), ".log");
  const uint64_t size = testing_support::FileSize(log);
  testing_support::TruncateFile(log, before_last + (size - before_last) / 2);
  StartAndStop();
  std::vector<Line> expected{
      {kInformation, "1 entries have no row in '" + LruPath() + "'. Rebuilding it."}};
  for (const Line& line : RebuildLines(20)) expected.push_back(line);
  EXPECT_EQ(LogLines(), expected);
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(20, 1000)));
  EXPECT_EQ(Rows(), RowsOf(20, 1000));
  EXPECT_EQ(StoreAccess::CurrentIndex(), 1020u);
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, MainManifestCutInsideItsFirstRecordIsRepairedWithAllEntries) {
  PrepareTables();
  testing_support::TruncateFile(CurrentManifest(MainPath()), 10);
  StartAndStop();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kCritical, RepairLine(MainPath())}}));
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, LruManifestCutInsideItsFirstRecordIsRepairedWithAllRows) {
  PrepareTables();
  testing_support::TruncateFile(CurrentManifest(LruPath()), 10);
  StartAndStop();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kCritical, RepairLine(LruPath())}}));
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  EXPECT_EQ(StoreAccess::CurrentIndex(), static_cast<uint64_t>(kEntries));
  ExpectServes();
}

// The cut last edit is the one that added the table of all entries: the main
// store opens empty without a word, and the validity check clears the rows.
TEST_F(EnrichmentFaultTest, MainManifestCutInsideItsLastRecordEmptiesBothSilently) {
  PrepareTables();
  const std::string manifest = CurrentManifest(MainPath());
  const std::vector<uint64_t> starts = LogRecordStarts(manifest);
  ASSERT_EQ(starts.size(), 3u);
  testing_support::TruncateFile(
      manifest, starts.back() + (testing_support::FileSize(manifest) - starts.back()) / 2);
  StartAndStop();
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_THAT(Rows(), IsEmpty());
  EXPECT_THAT(LogLines(), IsEmpty());
  ExpectServes();
}

// The LRU database opens empty without a word, and the validity check
// rebuilds its rows from the entries, each at its index plus 1000.
TEST_F(EnrichmentFaultTest, LruManifestCutInsideItsLastRecordIsRebuiltFromTheEntries) {
  PrepareTables();
  const std::string manifest = CurrentManifest(LruPath());
  const std::vector<uint64_t> starts = LogRecordStarts(manifest);
  ASSERT_EQ(starts.size(), 3u);
  testing_support::TruncateFile(
      manifest, starts.back() + (testing_support::FileSize(manifest) - starts.back()) / 2);
  StartAndStop();
  EXPECT_EQ(LogLines(), RebuildLines(kEntries));
  EXPECT_EQ(Rows(), RowsOf(kEntries, 1000));
  EXPECT_EQ(StoreAccess::CurrentIndex(), 1000u + kEntries);
  const std::map<std::string, std::string> entries = Entries();
  ASSERT_EQ(entries.size(), static_cast<size_t>(kEntries));
  Value value;
  ASSERT_TRUE(value.ParseFromString(entries.at(HashKey(7))));
  EXPECT_EQ(value.lru_data().index(), 1008u);
  EXPECT_EQ(value.lru_data().last_used(), kWallStart - 10);
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, DeletedMainManifestIsRepairedWithAllEntries) {
  PrepareTables();
  ASSERT_EQ(unlink(CurrentManifest(MainPath()).c_str()), 0);
  StartAndStop();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kCritical, RepairLine(MainPath())}}));
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, DeletedLruManifestIsRepairedWithAllRows) {
  PrepareTables();
  ASSERT_EQ(unlink(CurrentManifest(LruPath()).c_str()), 0);
  StartAndStop();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kCritical, RepairLine(LruPath())}}));
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  EXPECT_EQ(StoreAccess::CurrentIndex(), static_cast<uint64_t>(kEntries));
  ExpectServes();
}

// Without CURRENT the probe finds no database (no corruption), and the real
// open makes a new one: the old tables go as obsolete.
// Without CURRENT the engine would take the directory for a new database and
// drop its tables; the store sees the damage, and the repair brings it all
// back.
TEST_F(EnrichmentFaultTest, DeletedMainCurrentIsRepairedWithAllEntries) {
  PrepareTables();
  ASSERT_EQ(unlink((MainPath() + "/CURRENT").c_str()), 0);
  StartAndStop();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kCritical, RepairLine(MainPath())}}));
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, DeletedLruCurrentIsRepairedWithAllRows) {
  PrepareTables();
  ASSERT_EQ(unlink((LruPath() + "/CURRENT").c_str()), 0);
  StartAndStop();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kCritical, RepairLine(LruPath())}}));
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  EXPECT_EQ(StoreAccess::CurrentIndex(), static_cast<uint64_t>(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, MainDirectoryThatIsAFileFailsUntilItIsGone) {
  testing_support::WriteFile(MainPath(), "not a directory");
  const std::string not_a_directory = NotADirectoryText(MainPath());
  StartAndStop();
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError, "Failed to open database '" + MainPath() + "'."},
                               {kError, "Failed to check if store is empty, error=5, message="}}));

  log_.clear();
  Value value = Record(1);
  persistence::Status status = persistence::EnrichmentStore_Get(HashKey(0), &value);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(value.ByteSizeLong(), 0u);
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kTrace, "Failed to get entry, error=5, message="}}));

  for (int attempt = 0; attempt < 2; ++attempt) {
    log_.clear();
    AllowReopen();
    status = persistence::EnrichmentStore_Get(HashKey(0), &value);
    EXPECT_EQ(status.code, 5);
    EXPECT_EQ(status.message, not_a_directory);
    std::vector<Line> expected = FailedReopenLines(
        {{kError, "Failed to open database '" + MainPath() + "'."}}, 5, not_a_directory);
    expected.push_back({kTrace, "Failed to get entry, error=5, message=" + not_a_directory});
    EXPECT_EQ(LogLines(), expected);
  }

  ASSERT_EQ(unlink(MainPath().c_str()), 0);
  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Get(HashKey(0), &value);
  EXPECT_EQ(status.code, 3);
  std::vector<Line> expected = ReopenedLines();
  expected.push_back({kTrace, "Failed to get entry, error=3, message=NotFound: "});
  EXPECT_EQ(LogLines(), expected);
  ExpectServes();
}

TEST_F(EnrichmentFaultTest, LruDirectoryThatIsAFileFailsRowWritesUntilItIsGoneThenIsRebuilt) {
  WriteTables(MainPath(), MainRecords(kEntries));
  testing_support::WriteFile(LruPath(), "not a directory");
  const std::string not_a_directory = NotADirectoryText(LruPath());
  StartAndStop();
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError, "Failed to open database '" + LruPath() + "'."},
                               {kError, "Failed to check if lru is empty, error=5, message="}}));
  EXPECT_EQ(StoreAccess::CurrentIndex(), 0u);

  // Reads of young entries never touch the LRU database.
  log_.clear();
  Value value;
  EXPECT_EQ(persistence::EnrichmentStore_Get(HashKey(0), &value).code, 0);
  EXPECT_THAT(LogLines(), IsEmpty());

  // A delete removes the entry, then fails on its row.
  persistence::Status status = persistence::EnrichmentStore_Delete(HashKey(1));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError, "Failed to delete entry from LRU, error=5, message="}}));

  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Delete(HashKey(2));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, not_a_directory);
  std::vector<Line> expected = FailedReopenLines(
      {{kError, "Failed to open database '" + LruPath() + "'."}}, 5, not_a_directory);
  expected.push_back(
      {kError, "Failed to delete entry from LRU, error=5, message=" + not_a_directory});
  EXPECT_EQ(LogLines(), expected);

  ASSERT_EQ(unlink(LruPath().c_str()), 0);
  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Delete(HashKey(3));
  EXPECT_EQ(status.code, 0) << status.message;
  expected = {{kNotice, "Reopening the database..."}, {kNotice, "Database reopened successfully!"}};
  const std::vector<Line> rebuild = RebuildLines(kEntries - 3);
  expected.insert(expected.end(), rebuild.begin(), rebuild.end());
  EXPECT_EQ(LogLines(), expected);
  std::map<uint64_t, std::string> rows = RowsOf(kEntries, 1000);
  rows.erase(1002);
  rows.erase(1003);
  rows.erase(1004);
  EXPECT_EQ(Rows(), rows);
  EXPECT_EQ(Entries().size(), static_cast<size_t>(kEntries - 3));
  EXPECT_EQ(StoreAccess::CurrentIndex(), 1000u + kEntries);
  ExpectServes();
}

// --- Damage under a running store -------------------------------------------

// The engine notices a removed directory only when it must create a file:
// then it reports NotFound, which is no reason to reopen, and the main store
// keeps failing writes.
TEST_F(EnrichmentFaultTest,
       MainDirectoryRemovedUnderRunningCallersLeavesWritesFailingWithNotFound) {
  PrepareTables();
  StartAndStop();
  {
    Callers callers({[] {
                       Value value;
                       return persistence::EnrichmentStore_Get(HashKey(5), &value).code;
                     },
                     // At most 2,000 puts of half a kilobyte: well inside the
                     // write buffer, so that no put needs a new log file while
                     // the directory is gone, however fast a loaded machine
                     // lets the callers run; then reads of the same entry.
                     [puts = 0]() mutable {
                       if (++puts > 2000) {
                         Value value;
                         return persistence::EnrichmentStore_Get(HashKey(6), &value).code;
                       }
                       return persistence::EnrichmentStore_Put(HashKey(6), Record(6)).code;
                     },
                     [] {
                       std::vector<std::string> keys;
                       std::vector<Value> values;
                       const persistence::Status status =
                           persistence::EnrichmentStore_Dump(&keys, &values);
                       return status.ok() && keys.size() != kEntries ? -100 : status.code;
                     }});
    ASSERT_TRUE(callers.RunFor(30));
    testing_support::RemoveTree(MainPath());
    ASSERT_TRUE(callers.RunFor(300));
    callers.Stop();
    EXPECT_EQ(callers.Codes(), (std::map<int, int>{{0, callers.Returned()}}));
  }
  EXPECT_THAT(LogLines(), IsEmpty());

  // Entries of a mebibyte fill the write buffer: one of them, at the latest
  // the fifth, meets the missing directory.
  const std::string not_found =
      Regex("NotFound: " + MainPath() + "/") + "[0-9]+" + Regex(".log: No such file or directory");
  persistence::Status status;
  for (int i = 0; i < 6 && status.ok(); ++i) {
    AllowReopen();
    Value big = Record(500 + i);
    big.set_image_path(Mebibyte(i, 'i'));
    status = persistence::EnrichmentStore_Put(HashKey(500 + i), big);
  }
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_EQ(status.code, 3);
    EXPECT_THAT(status.message, MatchesRegex(not_found));
    EXPECT_THAT(LogLines(),
                ElementsAre(Pair(
                    kError, MatchesRegex("Failed to put entry, error=3, message=" + not_found))));
    log_.clear();
    AllowReopen();
    status = persistence::EnrichmentStore_Put(HashKey(600), Record(600));
  }
  Value value;
  EXPECT_EQ(persistence::EnrichmentStore_Get(HashKey(5), &value).code, 0);
  EXPECT_FALSE(PathExists(MainPath()));
}

// Writes of rows are small and go on into the open log of the removed
// directory: every call succeeds.
TEST_F(EnrichmentFaultTest, LruDirectoryReplacedByAFileUnderRunningCallersGoesUnnoticed) {
  PrepareTables();
  StartAndStop();
  {
    Callers callers({[] {
                       Value value;
                       return persistence::EnrichmentStore_Get(HashKey(5), &value).code;
                     },
                     [] {
                       const int put = persistence::EnrichmentStore_Put(HashKey(6), Record(6)).code;
                       const int deleted = persistence::EnrichmentStore_Delete(HashKey(6)).code;
                       return put != 0 ? put : deleted;
                     }});
    ASSERT_TRUE(callers.RunFor(30));
    testing_support::RemoveTree(LruPath());
    testing_support::WriteFile(LruPath(), "not a directory");
    ASSERT_TRUE(callers.RunFor(300));
    callers.Stop();
    EXPECT_EQ(callers.Codes(), (std::map<int, int>{{0, callers.Returned()}}));
  }
  EXPECT_THAT(LogLines(), IsEmpty());
  std::map<uint64_t, std::string> rows = RowsOf(kEntries);
  EXPECT_EQ(Rows().size(), rows.size() - 1);
  EXPECT_FALSE(IsDirectory(LruPath()));
}

TEST_F(EnrichmentFaultTest, MainDirectoryReplacedByAFileUnderARunningStoreFailsUntilItIsGone) {
  PrepareTables();
  StartAndStop();
  testing_support::RemoveTree(MainPath());
  testing_support::WriteFile(MainPath(), "not a directory");
  const std::string not_a_directory = NotADirectoryText(MainPath());
  // Entries of a mebibyte fill the write buffer: one of them, at the latest
  // the fifth, needs a new log file in the directory that is now a file.
  persistence::Status status;
  for (int i = 0; i < 6 && status.ok(); ++i) {
    AllowReopen();
    Value big = Record(500 + i);
    big.set_image_path(Mebibyte(i, 'i'));
    status = persistence::EnrichmentStore_Put(HashKey(500 + i), big);
  }
  EXPECT_EQ(status.code, 5);
  const std::string log_failure =
      Regex("IO error: " + MainPath() + "/") + "[0-9]+" + Regex(".log: Not a directory");
  EXPECT_THAT(status.message, MatchesRegex(log_failure));
  EXPECT_THAT(
      LogLines(),
      ElementsAre(
          Line{kNotice, "Reopening the database..."},
          Line{kError, "Failed to open database '" + MainPath() + "'."},
          Line{kCritical, "Database failed to recover with error 5 (" + not_a_directory + ")"},
          Pair(kError, MatchesRegex("Failed to put entry, error=5, message=" + log_failure))));

  log_.clear();
  AllowReopen();
  Value value;
  status = persistence::EnrichmentStore_Get(HashKey(0), &value);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, not_a_directory);
  std::vector<Line> expected = FailedReopenLines(
      {{kError, "Failed to open database '" + MainPath() + "'."}}, 5, not_a_directory);
  expected.push_back({kTrace, "Failed to get entry, error=5, message=" + not_a_directory});
  EXPECT_EQ(LogLines(), expected);

  ASSERT_EQ(unlink(MainPath().c_str()), 0);
  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Get(HashKey(0), &value);
  EXPECT_EQ(status.code, 3);
  expected = ReopenedLines();
  expected.push_back({kTrace, "Failed to get entry, error=3, message=NotFound: "});
  EXPECT_EQ(LogLines(), expected);
  // The main store came back empty: the validity check cleared the rows.
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_THAT(Rows(), IsEmpty());
  ExpectServes();
}

// --- Failures of the disk, injected into the engine's environment -----------

class EnrichmentDiskFaultTest : public EnrichmentFaultTest {
 protected:
  // Damages only the files of the directory "dir".
  testing_support::FaultEnv& Env(const std::string& dir) {
    testing_support::FaultEnv& env = LastingFaultEnv();
    env.only_files = dir + "/";
    return env;
  }
  testing_support::ScopedTestEnv scoped_env_{&LastingFaultEnv()};
};

TEST_F(EnrichmentDiskFaultTest, MainReadErrorsFailTheReadsUntilTheyEndAndTheEntriesSurvive) {
  testing_support::FaultEnv& env = Env(MainPath());
  PrepareTables();
  StartAndStop();
  const std::string read_failure =
      "IO error: " + OnlyFile(MainPath(), ".ldb") + ": injected read failure";

  env.fail_table_reads = true;
  Value value;
  persistence::Status status = persistence::EnrichmentStore_Get(HashKey(100), &value);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, read_failure);
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kTrace, "Failed to get entry, error=5, message=" + read_failure}}));

  // The reopen's probe meets the failure, which is no corruption: the store
  // opens again without verification, and its validity check fails.
  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Get(HashKey(100), &value);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, read_failure);
  std::vector<Line> expected = ReopenedLines();
  expected.push_back(
      {kError, "Failed to check if store is empty, error=5, message=" + read_failure});
  expected.push_back({kTrace, "Failed to get entry, error=5, message=" + read_failure});
  EXPECT_EQ(LogLines(), expected);

  env.fail_table_reads = false;
  log_.clear();
  status = persistence::EnrichmentStore_Get(HashKey(100), &value);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(value.SerializeAsString(), Record(100).SerializeAsString());
  EXPECT_THAT(LogLines(), IsEmpty());
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentDiskFaultTest, LruReadErrorsFailTheClearOfTheRowsUntilTheyEnd) {
  testing_support::FaultEnv& env = Env(LruPath());
  PrepareTables();
  StartAndStop();
  const std::string read_failure =
      "IO error: " + OnlyFile(LruPath(), ".ldb") + ": injected read failure";

  env.fail_table_reads = true;
  persistence::Status status = persistence::EnrichmentStore_Clear();
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, read_failure);
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError, "Failed to clear LRU, error=5, message=" + read_failure}}));
  EXPECT_THAT(Entries(), IsEmpty());

  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Clear();
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, read_failure);
  std::vector<Line> expected = ReopenedLines();
  expected.push_back({kError, "Failed to check if lru is empty, error=5, message=" + read_failure});
  expected.push_back({kError, "Failed to check if LRU is empty, error=5, message=" + read_failure});
  expected.push_back({kError, "Failed to clear LRU, error=5, message=" + read_failure});
  EXPECT_EQ(LogLines(), expected);
  EXPECT_EQ(StoreAccess::CurrentIndex(), 0u);

  env.fail_table_reads = false;
  log_.clear();
  EXPECT_EQ(persistence::EnrichmentStore_Clear().code, 0);
  EXPECT_THAT(Rows(), IsEmpty());
  EXPECT_THAT(LogLines(), IsEmpty());
  ExpectServes();
}

TEST_F(EnrichmentDiskFaultTest, MainWriteErrorsCloseItUntilTheyEndAndTheEntriesSurvive) {
  testing_support::FaultEnv& env = Env(MainPath());
  PrepareTables();
  StartAndStop();
  const std::string log = OnlyFile(MainPath(), ".log");

  env.fail_writes = true;
  AllowReopen();
  persistence::Status status = persistence::EnrichmentStore_Put(HashKey(600), Record(600));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "IO error: " + log + ": injected write failure");
  const std::string reopen_failure =
      Regex("IO error: " + MainPath() + "/") + "[0-9]+" + Regex(".log: injected write failure");
  EXPECT_THAT(
      LogLines(),
      ElementsAre(Line{kNotice, "Reopening the database..."},
                  Line{kError, "Failed to open database '" + MainPath() + "'."},
                  Pair(kCritical, MatchesRegex("Database failed to recover with error 5 \\(" +
                                               reopen_failure + "\\)")),
                  Line{kError, "Failed to put entry, error=5, message=" + status.message}));

  log_.clear();
  Value value;
  status = persistence::EnrichmentStore_Get(HashKey(0), &value);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kTrace, "Failed to get entry, error=5, message="}}));

  env.fail_writes = false;
  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Get(HashKey(0), &value);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(LogLines(), ReopenedLines());
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentDiskFaultTest, LruWriteErrorsCloseItUntilTheyEndAndTheRowsSurvive) {
  testing_support::FaultEnv& env = Env(LruPath());
  PrepareTables();
  StartAndStop();
  const std::string log = OnlyFile(LruPath(), ".log");

  env.fail_writes = true;
  AllowReopen();
  persistence::Status status = persistence::EnrichmentStore_Delete(HashKey(0));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "IO error: " + log + ": injected write failure");
  const std::string reopen_failure =
      Regex("IO error: " + LruPath() + "/") + "[0-9]+" + Regex(".log: injected write failure");
  EXPECT_THAT(
      LogLines(),
      ElementsAre(
          Line{kNotice, "Reopening the database..."},
          Line{kError, "Failed to open database '" + LruPath() + "'."},
          Pair(kCritical, MatchesRegex("Database failed to recover with error 5 \\(" +
                                       reopen_failure + "\\)")),
          Line{kError, "Failed to delete entry from LRU, error=5, message=" + status.message}));

  env.fail_writes = false;
  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Delete(HashKey(1));
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(LogLines(), ReopenedLines());
  // The entry of the failed delete is gone; its row stays, an orphan.
  std::map<uint64_t, std::string> rows = RowsOf(kEntries);
  rows.erase(2);
  EXPECT_EQ(Rows(), rows);
  EXPECT_EQ(Entries().size(), static_cast<size_t>(kEntries - 2));
  EXPECT_EQ(StoreAccess::CurrentIndex(), static_cast<uint64_t>(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentDiskFaultTest, FullDiskUnderTheMainStoreClosesItUntilThereIsRoom) {
  testing_support::FaultEnv& env = Env(MainPath());
  PrepareTables();
  StartAndStop();
  const std::string log = OnlyFile(MainPath(), ".log");

  env.disk_full = true;
  AllowReopen();
  persistence::Status status = persistence::EnrichmentStore_Put(HashKey(600), Record(600));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "IO error: " + log + ": No space left on device");
  const std::string reopen_failure = Regex("IO error: " + MainPath() + "/MANIFEST-") + "[0-9]+" +
                                     Regex(": No space left on device");
  EXPECT_THAT(
      LogLines(),
      ElementsAre(Line{kNotice, "Reopening the database..."},
                  Line{kError, "Failed to open database '" + MainPath() + "'."},
                  Pair(kCritical, MatchesRegex("Database failed to recover with error 5 \\(" +
                                               reopen_failure + "\\)")),
                  Line{kError, "Failed to put entry, error=5, message=" + status.message}));

  env.disk_full = false;
  log_.clear();
  AllowReopen();
  Value value;
  status = persistence::EnrichmentStore_Get(HashKey(0), &value);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(LogLines(), ReopenedLines());
  EXPECT_EQ(Entries(), EntriesOf(MainRecords(kEntries)));
  EXPECT_EQ(Rows(), RowsOf(kEntries));
  ExpectServes();
}

TEST_F(EnrichmentDiskFaultTest, FullDiskUnderTheLruDatabaseClosesItUntilThereIsRoom) {
  testing_support::FaultEnv& env = Env(LruPath());
  PrepareTables();
  StartAndStop();
  const std::string log = OnlyFile(LruPath(), ".log");

  env.disk_full = true;
  AllowReopen();
  persistence::Status status = persistence::EnrichmentStore_Delete(HashKey(0));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "IO error: " + log + ": No space left on device");
  const std::string reopen_failure = Regex("IO error: " + LruPath() + "/MANIFEST-") + "[0-9]+" +
                                     Regex(": No space left on device");
  EXPECT_THAT(
      LogLines(),
      ElementsAre(
          Line{kNotice, "Reopening the database..."},
          Line{kError, "Failed to open database '" + LruPath() + "'."},
          Pair(kCritical, MatchesRegex("Database failed to recover with error 5 \\(" +
                                       reopen_failure + "\\)")),
          Line{kError, "Failed to delete entry from LRU, error=5, message=" + status.message}));

  env.disk_full = false;
  log_.clear();
  AllowReopen();
  status = persistence::EnrichmentStore_Delete(HashKey(1));
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(LogLines(), ReopenedLines());
  std::map<uint64_t, std::string> rows = RowsOf(kEntries);
  rows.erase(2);
  EXPECT_EQ(Rows(), rows);
  ExpectServes();
}

}  // namespace
}  // namespace faults_testing
