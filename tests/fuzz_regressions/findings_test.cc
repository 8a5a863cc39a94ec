// What the fuzz targets found, one test each: the input as the target met it,
// replayed through the target's checks, and the exact behaviour that the
// finding pinned down.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The enrichment records log through their own logger: this header comes
// before any instantiation over them.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "fuzz/families_check.h"
#include "fuzz/fuzz_input.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "persistence/persistent_lru_store.h"
#include "support/temp_dir.h"

namespace {

using ::testing::IsEmpty;

constexpr int64_t kFarPast = std::numeric_limits<int64_t>::min();

std::vector<std::string> ReplayFamilies(const std::string& name) {
  const std::vector<uint8_t> input =
      fuzzing::ReadFileBytes(std::string(DRAVINHOLD_FUZZ_CORPUS) + "/fuzz_families/" + name);
  if (input.empty()) return {"no input " + name};
  return fuzzing::CheckFamilies(input.data(), input.size());
}

class FamiliesFindingTest : public ::testing::Test {
 protected:
  FamiliesFindingTest() { setenv("ZERLA_DATA_ROOT", root_.path().c_str(), 1); }
  testing_support::TempDir root_;
};

// A new enrichment entry whose caller gave lru_data.last_used the least
// int64: its age, now minus that, does not fit in 64 bits. The entry is as old
// as an entry can be, so the put renews it: the store's own time and the
// first index replace the caller's.
TEST_F(FamiliesFindingTest, EnrichmentPutWithTheFarthestPastLastUseRenewsTheEntry) {
  proto::EnrichmentStore::Value value;
  value.set_image_path("/usr/bin/far");
  value.mutable_lru_data()->set_last_used(kFarPast);
  value.mutable_lru_data()->set_index(77);
  const std::time_t before = std::time(nullptr);
  ASSERT_EQ(persistence::EnrichmentStore_Put("far-past", value).code, 0);
  const std::time_t after = std::time(nullptr);

  proto::EnrichmentStore::Value stored;
  ASSERT_EQ(persistence::EnrichmentStore_Get("far-past", &stored).code, 0);
  EXPECT_EQ(stored.image_path(), "/usr/bin/far");
  EXPECT_GE(stored.lru_data().last_used(), before);
  EXPECT_LE(stored.lru_data().last_used(), after);
  EXPECT_EQ(stored.lru_data().index(), 1u);

  EXPECT_THAT(ReplayFamilies("regression-lru-age-overflow.bin"), IsEmpty());
}

// A cached signer whose stored last_used is the least int64, as a bulk write
// may store it. It is not fresh: the get renews it, with this process's first
// index.
TEST_F(FamiliesFindingTest, CacheGetOfTheFarthestPastLastUseRenewsTheEntry) {
  proto::TrustedSignersCacheStore::Data data;
  auto* entry = data.add_entries();
  entry->set_key("signer");
  entry->mutable_value()->set_certhash("c0ffee");
  entry->mutable_value()->set_last_used(kFarPast);
  entry->mutable_value()->set_index(5);
  ASSERT_EQ(persistence::TrustedSignersCacheStore_AtomicClearAndPut(data).code, 0);

  const std::time_t before = std::time(nullptr);
  std::string certhash;
  ASSERT_TRUE(persistence::trusted_signers_cache_get_trusted_signer("signer", &certhash));
  const std::time_t after = std::time(nullptr);
  EXPECT_EQ(certhash, "c0ffee");

  proto::TrustedSignersCacheStore::Value stored;
  ASSERT_EQ(persistence::TrustedSignersCacheStore_Get("signer", &stored).code, 0);
  EXPECT_EQ(stored.certhash(), "c0ffee");
  EXPECT_GE(stored.last_used(), before);
  EXPECT_LE(stored.last_used(), after);
  EXPECT_EQ(stored.index(), 1u);

  EXPECT_THAT(ReplayFamilies("regression-cache-age-overflow.bin"), IsEmpty());
}

// The input with which the families target first met an enrichment key that
// is not UTF-8; the entry's disappearance depends on when the sync thread
// runs, and the check allows for it.
TEST_F(FamiliesFindingTest, EnrichmentKeyThatIsNotUtf8Replays) {
  EXPECT_THAT(ReplayFamilies("regression-enrichment-key-not-utf8.bin"), IsEmpty());
}

// The LRU store over the enrichment records without its threads, so that the
// test applies the deferred updates itself.
class ManualLruStore : public persistence::PersistentLruStore<
                           std::string, proto::EnrichmentStore::Value, proto::EnrichmentStore::Data,
                           proto::EnrichmentLruStore::Value, proto::EnrichmentLruStore::Data> {
 public:
  ManualLruStore() : PersistentLruStore(16, std::chrono::hours(24), 108) {}
  bool worker_threads_enabled() const override { return false; }
  void ApplyUpdates() { ApplyLruUpdates(); }
  LruStore& rows() { return lru_store_; }
};

// The row of an entry holds its key in a string field, which takes UTF-8
// only. A new entry whose key is not UTF-8 gets no row, and applying its
// update removes it from the store; an entry with a UTF-8 key keeps its row.
TEST(LruFindingTest, NewEntryWhoseKeyIsNotUtf8IsRemovedWhenItsRowCannotBeWritten) {
  testing_support::TempDir root;
  ManualLruStore store;
  ASSERT_EQ(store.Open(root.Sub("enrichment"), 0).code, 0);

  const std::string not_utf8("\xc3\x28", 2);
  proto::EnrichmentStore::Value value;
  value.set_sha256("ab");
  proto::EnrichmentStore::Value written = value;
  ASSERT_EQ(store.Put(not_utf8, written).code, 0);
  EXPECT_EQ(written.lru_data().index(), 1u);
  written = value;
  ASSERT_EQ(store.Put("ok", written).code, 0);
  EXPECT_EQ(written.lru_data().index(), 2u);

  proto::EnrichmentStore::Value read;
  ASSERT_EQ(store.Get(not_utf8, &read, nullptr).code, 0);
  EXPECT_EQ(read.sha256(), "ab");

  store.ApplyUpdates();

  const persistence::Status gone = store.Get(not_utf8, &read, nullptr);
  EXPECT_EQ(gone.code, 3);
  ASSERT_EQ(store.Get("ok", &read, nullptr).code, 0);
  std::vector<std::string> keys;
  std::vector<proto::EnrichmentLruStore::Value> rows;
  ASSERT_EQ(store.rows().Dump(&keys, &rows, nullptr).code, 0);
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(keys[0], ManualLruStore::LruKey(2));
  EXPECT_EQ(rows[0].foreign_key(), "ok");
  store.Stop();
}

}  // namespace
