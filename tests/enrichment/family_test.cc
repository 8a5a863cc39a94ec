// The exported enrichment family over its singleton: the silent functions,
// the entry functions with their log lines and the sites those lines name,
// and the store under them.
#include <thread>

#include "enrichment_test_env.h"
#include "stores/family_log_sites.h"
#include "support/damage.h"

namespace enrichment_test {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;

const char kNotFound[] = "NotFound: ";
const std::string kKey = HashKey(1);
constexpr char kSource[] = "nix/dravinhold/enrichment_store/enrichment_store.cc";

// The lines logged on the test's thread, with all they carry.
std::vector<testing_support::LoggedLine> CallerLoggedLines(const testing_support::LogCapture& log) {
  std::vector<testing_support::LoggedLine> result;
  for (const testing_support::LoggedLine& line : log.lines()) {
    if (line.ndc.empty()) result.push_back(line);
  }
  return result;
}

// "line" is the one that the entry function "function" (its name and "(")
// writes with "format", and it names that function's site.
::testing::AssertionResult WrittenBy(const testing_support::LoggedLine& line,
                                     const std::string& function, const std::string& format) {
  return family_sites::WrittenAt(line, "Enrichment", "EnrichmentLogger", line.priority, line.text,
                                 {kSource, "persistence::Status persistence::" + function, format});
}

TEST_F(EnrichmentTest, FirstUseOpensBothDatabasesUnderTheDataRootAndStartsTheThreads) {
  Value value;
  EXPECT_EQ(persistence::EnrichmentStore_Get(kKey, &value).code, 3);
  EXPECT_TRUE(IsDirectory(StorePath()));
  EXPECT_TRUE(IsDirectory(StorePath() + ".lru"));
  EXPECT_EQ(EnrichmentStoreEx::Instance().path(), StorePath());
  EXPECT_EQ(StoreAccess::Lru().path(), StorePath() + ".lru");
  EXPECT_EQ(EnrichmentStoreEx::Instance().GetMaxSize(), 16u);
  EXPECT_EQ(StoreAccess::PruningInterval(), 24h);
  EXPECT_TRUE(WaitUntil(
      [] { return CountThreads("LruStoreSync") == 1 && CountThreads("LruStorePrune") == 1; }));
}

TEST_F(EnrichmentTest, GetEntryOfAnAbsentKeyIsCode3WithADebugLine) {
  Value value = Record(3);
  EXPECT_EQ(persistence::EnrichmentStore_GetEntry(kKey, &value), St(3, kNotFound));
  EXPECT_EQ(value.ByteSizeLong(), 0u);
  EXPECT_EQ(
      CallerLines(log_),
      (std::vector<Line>{{kTrace, "Failed to get entry, error=3, message=NotFound: "},
                         {kDebug, "enrichment entry for file hash '" + kKey + "' not found"}}));
  const std::vector<testing_support::LoggedLine> lines = CallerLoggedLines(log_);
  EXPECT_NE(lines[0].file, kSource);
  EXPECT_TRUE(WrittenBy(lines[1], "EnrichmentStore_GetEntry(",
                        "enrichment entry for file hash '%s' not found"));
}

TEST_F(EnrichmentTest, GetOfAnAbsentKeyIsCode3AndTheFamilyLogsNothing) {
  Value value;
  EXPECT_EQ(persistence::EnrichmentStore_Get(kKey, &value), St(3, kNotFound));
  // The one line is the store's own trace line.
  EXPECT_EQ(CallerLines(log_),
            (std::vector<Line>{{kTrace, "Failed to get entry, error=3, message=NotFound: "}}));
}

TEST_F(EnrichmentTest, DeleteEntryOfAnAbsentKeyIsCode3WithAnErrorLine) {
  EXPECT_EQ(persistence::EnrichmentStore_DeleteEntry(kKey), St(3, kNotFound));
  EXPECT_EQ(CallerLines(log_),
            (std::vector<Line>{{kError, "Failed to get entry, error=3, message=NotFound: "},
                               {kError, "Failed to delete enrichment entry for file hash '" + kKey +
                                            "', error=3, messsage=NotFound: "}}));
}

TEST_F(EnrichmentTest, DeleteOfAnAbsentKeyIsCode3WithTheStoresLineOnly) {
  EXPECT_EQ(persistence::EnrichmentStore_Delete(kKey), St(3, kNotFound));
  EXPECT_EQ(CallerLines(log_),
            (std::vector<Line>{{kError, "Failed to get entry, error=3, message=NotFound: "}}));
}

TEST_F(EnrichmentTest, PutEntryLeavesTheCallersValueUnchanged) {
  const Value value = Record(1);
  const std::string before = value.SerializeAsString();
  EXPECT_EQ(persistence::EnrichmentStore_PutEntry(kKey, value), Ok());
  EXPECT_EQ(value.SerializeAsString(), before);
  EXPECT_FALSE(value.has_lru_data());

  Value stored;
  ASSERT_EQ(persistence::EnrichmentStore_GetEntry(kKey, &stored), Ok());
  EXPECT_EQ(stored.lru_data().last_used(), kWallStart);
  EXPECT_EQ(stored.lru_data().index(), 2u);  // the seed holds 1
  stored.clear_lru_data();
  EXPECT_EQ(stored.SerializeAsString(), before);  // the caller's fields, as they were
  EXPECT_THAT(CallerLines(log_), IsEmpty());
}

TEST_F(EnrichmentTest, PutKeepsTheCallersCopyApartToo) {
  Value value = Record(1);
  EXPECT_EQ(persistence::EnrichmentStore_Put(kKey, value), Ok());
  EXPECT_FALSE(value.has_lru_data());
  EXPECT_EQ(Entries().at(kKey).lru_data().index(), 2u);
}

TEST_F(EnrichmentTest, AHashInUpperAndInLowerCaseAreTwoKeys) {
  std::string upper = kKey;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  ASSERT_NE(upper, kKey);
  ASSERT_EQ(persistence::EnrichmentStore_PutEntry(kKey, Record(1)), Ok());
  ASSERT_EQ(persistence::EnrichmentStore_PutEntry(upper, Record(2)), Ok());
  Value lower_value;
  Value upper_value;
  ASSERT_EQ(persistence::EnrichmentStore_GetEntry(kKey, &lower_value), Ok());
  ASSERT_EQ(persistence::EnrichmentStore_GetEntry(upper, &upper_value), Ok());
  EXPECT_EQ(lower_value.image_path(), Record(1).image_path());
  EXPECT_EQ(upper_value.image_path(), Record(2).image_path());
  EXPECT_EQ(lower_value.lru_data().index(), 2u);
  EXPECT_EQ(upper_value.lru_data().index(), 3u);
  std::vector<std::string> keys;
  std::vector<Value> values;
  ASSERT_EQ(persistence::EnrichmentStore_Dump(&keys, &values), Ok());
  EXPECT_EQ(keys, (std::vector<std::string>{kSeedKey, upper, kKey}));
  ASSERT_EQ(persistence::EnrichmentStore_DeleteEntry(upper), Ok());
  EXPECT_EQ(persistence::EnrichmentStore_Get(kKey, &lower_value), Ok());
  EXPECT_EQ(persistence::EnrichmentStore_Get(upper, &upper_value).code, 3);
}

TEST_F(EnrichmentTest, AfterClearEntriesEveryEarlierKeyIsAbsent) {
  for (uint64_t i = 0; i < 3; ++i) {
    ASSERT_EQ(persistence::EnrichmentStore_PutEntry(HashKey(i), Record(i)), Ok());
  }
  EXPECT_EQ(persistence::EnrichmentStore_ClearEntries(), Ok());
  log_.clear();
  for (uint64_t i = 0; i < 3; ++i) {
    Value value;
    EXPECT_EQ(persistence::EnrichmentStore_GetEntry(HashKey(i), &value), St(3, kNotFound));
  }
  EXPECT_EQ(CallerLines(log_).size(), 6u);
  EXPECT_EQ(CallerLines(log_)[5],
            Line(kDebug, "enrichment entry for file hash '" + HashKey(2) + "' not found"));
  std::vector<std::string> keys{"stale"};
  std::vector<Value> values{Record(9)};
  ASSERT_EQ(persistence::EnrichmentStore_Dump(&keys, &values), Ok());
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(Rows(), IsEmpty());
  // Numbering goes on after a clear.
  ASSERT_EQ(persistence::EnrichmentStore_PutEntry(kKey, Record(1)), Ok());
  EXPECT_EQ(Entries().at(kKey).lru_data().index(), 5u);
}

// The family reaches the operations of the order of use: a read renews, a
// delete takes the row along, and the dump renews nothing.
TEST_F(EnrichmentTest, TheFamilyKeepsTheOrderOfUse) {
  ASSERT_EQ(persistence::EnrichmentStore_Put(HashKey(1), Record(1)), Ok());
  ASSERT_EQ(persistence::EnrichmentStore_Put(HashKey(2), Record(2)), Ok());
  // The sync thread writes the rows once its period is over.
  ASSERT_TRUE(SyncUntil([] { return Rows().size() == 3; }));
  EXPECT_EQ(Rows(),
            (std::map<uint64_t, std::string>{{1, kSeedKey}, {2, HashKey(1)}, {3, HashKey(2)}}));

  clock_.AdvanceWall(61);
  std::vector<std::string> keys;
  std::vector<Value> values;
  ASSERT_EQ(persistence::EnrichmentStore_Dump(&keys, &values), Ok());
  EXPECT_EQ(Entries().at(HashKey(1)).lru_data().index(), 2u);  // not renewed
  Value value;
  ASSERT_EQ(persistence::EnrichmentStore_GetEntry(HashKey(1), &value), Ok());
  EXPECT_EQ(value.lru_data().index(), 4u);
  EXPECT_EQ(value.lru_data().last_used(), kWallStart + 61);
  EXPECT_EQ(StoreAccess::CurrentIndex(), 4u);

  ASSERT_EQ(persistence::EnrichmentStore_Delete(HashKey(2)), Ok());
  EXPECT_EQ(Rows(), (std::map<uint64_t, std::string>{{1, kSeedKey}, {2, HashKey(1)}}));
  ASSERT_TRUE(SyncUntil([] { return Rows().count(4) == 1; }));
  EXPECT_EQ(Rows(), (std::map<uint64_t, std::string>{{1, kSeedKey}, {4, HashKey(1)}}));

  std::vector<Value> both;
  EXPECT_EQ(persistence::EnrichmentStore_Get({HashKey(1), HashKey(2)}, &both), St(3, kNotFound));
  EXPECT_THAT(both, IsEmpty());
  ASSERT_EQ(persistence::EnrichmentStore_Get({HashKey(1)}, &both), Ok());
  ASSERT_EQ(both.size(), 1u);
  EXPECT_EQ(both[0].image_path(), Record(1).image_path());
}

TEST_F(EnrichmentTest, NullOutParametersAreCode2) {
  EXPECT_EQ(persistence::EnrichmentStore_Get(kKey, nullptr), St(2, ""));
  EXPECT_EQ(persistence::EnrichmentStore_GetEntry(kKey, nullptr), St(2, ""));
  EXPECT_EQ(persistence::EnrichmentStore_Get(std::vector<std::string>{kKey}, nullptr), St(2, ""));
  std::vector<Value> values;
  EXPECT_EQ(persistence::EnrichmentStore_Dump(nullptr, &values), St(2, ""));
  const std::vector<Line> lines = CallerLines(log_);
  // One check line per site, within the interval; the entry function adds
  // its own error line.
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[1], Line(kError, "Failed to get enrichment for file hash '" + kKey +
                                       "', error=2, messsage="));
}

// With the main directory blocked by a file, the store opens without it and
// every entry function logs the failure it returns.
TEST_F(EnrichmentTest, EntryFunctionsLogTheFailuresTheyReturn) {
  testing_support::RemoveTree(StorePath());
  testing_support::WriteFile(StorePath(), "not a directory");
  Value value = Record(1);
  EXPECT_EQ(persistence::EnrichmentStore_PutEntry(kKey, value), St(5, ""));
  EXPECT_EQ(persistence::EnrichmentStore_GetEntry(kKey, &value), St(5, ""));
  EXPECT_EQ(persistence::EnrichmentStore_DeleteEntry(kKey), St(5, ""));
  EXPECT_EQ(persistence::EnrichmentStore_ClearEntries(), St(5, ""));
  EXPECT_EQ(
      CallerLines(log_),
      (std::vector<Line>{
          {kError, "Failed to open database '" + StorePath() + "'."},
          {kError, "Failed to update entry, error=5, message="},
          {kError, "Failed to put enrichment for file hash '" + kKey + "', error=5, messsage="},
          {kTrace, "Failed to get entry, error=5, message="},
          {kError, "Failed to get enrichment for file hash '" + kKey + "', error=5, messsage="},
          {kError, "Failed to get entry, error=5, message="},
          {kError,
           "Failed to delete enrichment entry for file hash '" + kKey + "', error=5, messsage="},
          {kError, "Failed to clear store, error=5, message="},
          {kError, "Failed to clear enrichment store, error=5, messsage="}}));
  // Each line of the family names the entry function that wrote it; the
  // others are the store's own.
  const std::vector<testing_support::LoggedLine> lines = CallerLoggedLines(log_);
  EXPECT_TRUE(WrittenBy(lines[2], "EnrichmentStore_PutEntry(",
                        "Failed to put enrichment for file hash '%s', error=%d, messsage=%s"));
  EXPECT_TRUE(WrittenBy(lines[4], "EnrichmentStore_GetEntry(",
                        "Failed to get enrichment for file hash '%s', error=%d, messsage=%s"));
  EXPECT_TRUE(
      WrittenBy(lines[6], "EnrichmentStore_DeleteEntry(",
                "Failed to delete enrichment entry for file hash '%s', error=%d, messsage=%s"));
  EXPECT_TRUE(WrittenBy(lines[8], "EnrichmentStore_ClearEntries(",
                        "Failed to clear enrichment store, error=%d, messsage=%s"));
  for (const size_t i : {0u, 1u, 3u, 5u, 7u}) EXPECT_NE(lines[i].file, kSource) << lines[i].text;
  // The silent functions return the same and add nothing of their own.
  log_.clear();
  EXPECT_EQ(persistence::EnrichmentStore_Clear(), St(5, ""));
  EXPECT_EQ(CallerLines(log_),
            (std::vector<Line>{{kError, "Failed to clear store, error=5, message="}}));
}

TEST_F(EnrichmentTest, StopEndsTheThreadsAndTheFamilyStillAnswers) {
  ASSERT_EQ(persistence::EnrichmentStore_PutEntry(kKey, Record(1)), Ok());
  ASSERT_TRUE(WaitUntil([] { return CountThreads("LruStorePrune") == 1; }));
  EnrichmentStoreEx::Instance().Stop();
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);
  Value value;
  EXPECT_EQ(persistence::EnrichmentStore_GetEntry(kKey, &value), Ok());
  EXPECT_EQ(value.image_path(), Record(1).image_path());
}

}  // namespace
}  // namespace enrichment_test
