// The trusted signers cache: a certhash per key with the time and running
// number of its last renewal, the 59-second refresh age on the wall clock,
// the process-wide numbering, and what callers see of a store that fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "stores/family_log_sites.h"
#include "stores/store_test_env.h"
#include "support/stderr_capture.h"

namespace stores_testing {
namespace {

using persistence::Status;
using ::testing::IsEmpty;
using Value = proto::TrustedSignersCacheStore::Value;
using Data = proto::TrustedSignersCacheStore::Data;

constexpr std::time_t kStart = 1700000000;  // the test clock's wall time at start

class TrustedSignersCacheTest : public StoreTest {
 protected:
  std::string path() const { return StorePath("trusted_signers_cache"); }

  // The stored entry of "key"; fails the test when there is none.
  static Value Entry(const std::string& key) {
    Value value;
    const Status status = persistence::TrustedSignersCacheStore_Get(key, &value);
    EXPECT_EQ(status.code, 0) << key << ": " << status.message;
    return value;
  }

  static void ExpectEntry(const std::string& key, const std::string& certhash, int64_t last_used,
                          uint64_t index) {
    const Value value = Entry(key);
    EXPECT_EQ(value.certhash(), certhash) << key;
    EXPECT_EQ(value.last_used(), last_used) << key;
    EXPECT_EQ(value.index(), index) << key;
  }

  static unsigned long StoredCount() {
    unsigned long count = 0;
    const Status status = persistence::TrustedSignersCacheStore_Count(&count);
    EXPECT_EQ(status.code, 0) << status.message;
    return count;
  }

  // Stores entries as they are, with no renewal.
  static void Store(const std::vector<std::pair<std::string, Value>>& entries) {
    Data data;
    for (const auto& [key, value] : entries) {
      auto* entry = data.add_entries();
      entry->set_key(key);
      *entry->mutable_value() = value;
    }
    const Status status = persistence::TrustedSignersCacheStore_AtomicClearAndPut(data);
    ASSERT_EQ(status.code, 0) << status.message;
  }

  static Value MakeValue(const std::string& certhash, int64_t last_used, uint64_t index) {
    Value value;
    value.set_certhash(certhash);
    value.set_last_used(last_used);
    value.set_index(index);
    return value;
  }

  bool Get(const std::string& key, std::string* certhash) {
    return persistence::trusted_signers_cache_get_trusted_signer(key, certhash);
  }
};

// --- Functions that never touch the store -----------------------------------

TEST_F(TrustedSignersCacheTest, InitReturnsTrueAndCreatesNothing) {
  EXPECT_TRUE(persistence::trusted_signers_cache_init());
  EXPECT_FALSE(PathExists(path()));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheTest, InitReturnsTrueOnAnUnusableStore) {
  BlockStoreDirectory("trusted_signers_cache");
  EXPECT_TRUE(persistence::trusted_signers_cache_init());
  // The store was not even constructed: its Open() has not run.
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheTest, SetOfAnEmptyListReturnsTrueAndOpensNothing) {
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signers({}));
  EXPECT_FALSE(PathExists(path()));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheTest, SetOfAnEmptyListReturnsTrueOnAnUnusableStore) {
  BlockStoreDirectory("trusted_signers_cache");
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signers({}));
  EXPECT_THAT(LogLines(), IsEmpty());
}

// --- Setting ------------------------------------------------------------------

TEST_F(TrustedSignersCacheTest, FirstSetTakesTheNextIndexAndTheTimeOfTheCall) {
  clock_.AdvanceWall(5);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key1", "cert1"));
  ExpectEntry("key1", "cert1", kStart + 5, 1);
  clock_.AdvanceWall(1);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key2", "cert2"));
  ExpectEntry("key2", "cert2", kStart + 6, 2);
  ExpectEntry("key1", "cert1", kStart + 5, 1);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheTest, SetOfAListWritesEveryPairWithIndexesInOrder) {
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signers(
      {{"b", "cert b"}, {"a", "cert a"}, {"c", "cert c"}}));
  ExpectEntry("b", "cert b", kStart, 1);
  ExpectEntry("a", "cert a", kStart, 2);
  ExpectEntry("c", "cert c", kStart, 3);
  EXPECT_EQ(StoredCount(), 3u);
}

TEST_F(TrustedSignersCacheTest, KeysAreUsedAsGiven) {
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("MixedCase", "cert"));
  std::string certhash;
  EXPECT_FALSE(Get("mixedcase", &certhash));
  EXPECT_TRUE(Get("MixedCase", &certhash));
  EXPECT_EQ(certhash, "cert");
}

TEST_F(TrustedSignersCacheTest, SetAgainTenSecondsLaterChangesOnlyTheCerthash) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "old"));
  clock_.AdvanceWall(10);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "new"));
  ExpectEntry("key", "new", kStart, 1);
}

TEST_F(TrustedSignersCacheTest, SetAgainAtAnAgeOf59SecondsDoesNotRenew) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "old"));
  clock_.AdvanceWall(59);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "new"));
  ExpectEntry("key", "new", kStart, 1);
}

TEST_F(TrustedSignersCacheTest, SetAgainAtAnAgeOf60SecondsRenews) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "old"));
  clock_.AdvanceWall(60);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "new"));
  ExpectEntry("key", "new", kStart + 60, 2);
}

TEST_F(TrustedSignersCacheTest, LastUseAheadOfTheClockCountsAsFresh) {
  Store({{"future", MakeValue("cert", kStart + 1000, 77)}});
  std::string certhash;
  EXPECT_TRUE(Get("future", &certhash));
  EXPECT_EQ(certhash, "cert");
  ExpectEntry("future", "cert", kStart + 1000, 77);

  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("future", "other"));
  ExpectEntry("future", "other", kStart + 1000, 77);
  // No index was taken: the next one is still 1.
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("new", "cert"));
  ExpectEntry("new", "cert", kStart, 1);
}

TEST_F(TrustedSignersCacheTest, SameKeyTwiceInOneCallOfAnAbsentKey) {
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signers(
      {{"key", "first"}, {"key", "second"}}));
  // Both pairs found the key absent and took an index each; the later pair
  // stands.
  ExpectEntry("key", "second", kStart, 2);
  EXPECT_EQ(StoredCount(), 1u);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("other", "cert"));
  ExpectEntry("other", "cert", kStart, 3);
}

TEST_F(TrustedSignersCacheTest, SameKeyTwiceInOneCallOfAFreshKey) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "old"));
  clock_.AdvanceWall(10);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signers(
      {{"key", "first"}, {"key", "second"}}));
  ExpectEntry("key", "second", kStart, 1);
}

TEST_F(TrustedSignersCacheTest, SameKeyTwiceInOneCallOfAStaleKey) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "old"));
  clock_.AdvanceWall(60);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signers(
      {{"key", "first"}, {"key", "second"}}));
  // Both pairs read the stale entry, not the first pair's renewal.
  ExpectEntry("key", "second", kStart + 60, 3);
}

TEST_F(TrustedSignersCacheTest, RecordThatCannotBeReadCostsANewIndexAndIsNotLogged) {
  WriteRawRecords(path(), {{"broken", "\xff\xff\xff"}});
  Value value;
  ASSERT_EQ(persistence::TrustedSignersCacheStore_Get("broken", &value).code, 1);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("broken", "cert"));
  ExpectEntry("broken", "cert", kStart, 1);
  EXPECT_THAT(LogLines(), IsEmpty());
}

// --- Getting ------------------------------------------------------------------

TEST_F(TrustedSignersCacheTest, GetOfAnAbsentKeyIsFalseSilentlyAndLeavesTheCerthash) {
  std::string certhash = "untouched";
  EXPECT_FALSE(Get("absent", &certhash));
  EXPECT_EQ(certhash, "untouched");
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheTest, GetAtAnAgeOf59SecondsDoesNotWrite) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "cert"));
  clock_.AdvanceWall(59);
  std::string certhash;
  EXPECT_TRUE(Get("key", &certhash));
  EXPECT_EQ(certhash, "cert");
  ExpectEntry("key", "cert", kStart, 1);
}

TEST_F(TrustedSignersCacheTest, GetAtAnAgeOf60SecondsRenewsOnceWithTheSameCerthash) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "cert"));
  clock_.AdvanceWall(60);
  std::string certhash;
  EXPECT_TRUE(Get("key", &certhash));
  EXPECT_EQ(certhash, "cert");
  ExpectEntry("key", "cert", kStart + 60, 2);

  // At once again: the entry is fresh now, nothing is written.
  certhash.clear();
  EXPECT_TRUE(Get("key", &certhash));
  EXPECT_EQ(certhash, "cert");
  ExpectEntry("key", "cert", kStart + 60, 2);
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("other", "cert"));
  ExpectEntry("other", "cert", kStart + 60, 3);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheTest, NumberingStartsAtOneInANewProcessWhateverTheDatabaseHolds) {
  Value stale = MakeValue("cert", kStart - 1000, 500);
  WriteRawRecords(path(), {{"key", stale.SerializeAsString()}});
  std::string certhash;
  EXPECT_TRUE(Get("key", &certhash));
  EXPECT_EQ(certhash, "cert");
  ExpectEntry("key", "cert", kStart, 1);
}

// --- Compact and clear ----------------------------------------------------------

TEST_F(TrustedSignersCacheTest, CompactKeepsTheEntries) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signers({{"a", "1"}, {"b", "2"}}));
  EXPECT_TRUE(persistence::trusted_signers_cache_compact());
  ExpectEntry("a", "1", kStart, 1);
  ExpectEntry("b", "2", kStart, 2);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheTest, ClearEmptiesTheCacheButTheNumberingGoesOn) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signers({{"a", "1"}, {"b", "2"}}));
  EXPECT_TRUE(persistence::trusted_signers_cache_clear());
  EXPECT_EQ(StoredCount(), 0u);
  std::string certhash;
  EXPECT_FALSE(Get("a", &certhash));
  EXPECT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("a", "1"));
  ExpectEntry("a", "1", kStart, 3);
  EXPECT_THAT(LogLines(), IsEmpty());
}

// --- Failures -------------------------------------------------------------------

TEST_F(TrustedSignersCacheTest, UnusableStoreFailsEachFunctionWithOneLinePerCall) {
  BlockStoreDirectory("trusted_signers_cache");
  EXPECT_FALSE(persistence::trusted_signers_cache_set_trusted_signer("key", "cert"));
  ASSERT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to open database '" + path() + "'."},
                {kError, OpenCheckLine("trusted_signers_cache", 5, NotADirectoryText(path()))},
                {kError, "Failed to put trusted_signers_cache entry, err=5, msg="}}));
  log_.clear();

  std::string certhash = "untouched";
  EXPECT_FALSE(Get("key", &certhash));
  EXPECT_EQ(certhash, "untouched");
  EXPECT_FALSE(persistence::trusted_signers_cache_set_trusted_signers({{"a", "1"}, {"b", "2"}}));
  EXPECT_FALSE(persistence::trusted_signers_cache_compact());
  EXPECT_FALSE(persistence::trusted_signers_cache_clear());
  EXPECT_TRUE(persistence::trusted_signers_cache_init());
  EXPECT_EQ(LogLines(), (std::vector<Line>{
                            {kError, "Failed to get trusted_signers_cache entry, err=5, msg="},
                            {kError, "Failed to put trusted_signers_cache entry, err=5, msg="},
                            {kError, "Failed to compact trusted_signers_cache cache, err=5, msg="},
                            {kError, "Failed to clear trusted_signers_cache cache, err=5, msg="}}));
}

TEST_F(TrustedSignersCacheTest, FailedRenewalReturnsFalseButHandsTheCerthashOut) {
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "cert"));
  clock_.AdvanceWall(60);

  env.fail_writes = true;
  testing_support::StderrCapture quiet;  // the handle's own reports
  std::string certhash;
  EXPECT_FALSE(Get("key", &certhash));
  EXPECT_EQ(certhash, "cert");
  EXPECT_FALSE(persistence::trusted_signers_cache_set_trusted_signer("key", "other"));
  quiet.Text();
  env.fail_writes = false;

  const std::string engine_text = "IO error: " + path() + "/000003.log: injected write failure";
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to update trusted_signers_cache entry, err=5, msg=" + engine_text},
                {kError, "Failed to put trusted_signers_cache entry, err=5, msg=" + engine_text}}));
  // Each line names the function that wrote it.
  const std::string source = "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.cc";
  const std::vector<testing_support::LoggedLine> lines = log_.lines();
  EXPECT_TRUE(family_sites::WrittenAt(
      lines[0], "LibPersistence", "LibPersistenceLogger", kError,
      "Failed to update trusted_signers_cache entry, err=5, msg=" + engine_text,
      {source, "bool persistence::trusted_signers_cache_get_trusted_signer(",
       "Failed to update trusted_signers_cache entry, err=%d, msg=%s"}));
  EXPECT_TRUE(family_sites::WrittenAt(
      lines[1], "LibPersistence", "LibPersistenceLogger", kError,
      "Failed to put trusted_signers_cache entry, err=5, msg=" + engine_text,
      {source, "bool persistence::trusted_signers_cache_set_trusted_signers(",
       "Failed to put trusted_signers_cache entry, err=%d, msg=%s"}));
  ExpectEntry("key", "cert", kStart, 1);
}

}  // namespace
}  // namespace stores_testing
