// Timings of the two long operations of the LRU store on realistic records:
// one pruning pass over a store filled past its 16 MiB, and a rebuild of the
// LRU database for 100,000 entries. A program to run by hand, not a test:
//   build-lru/tests/lru/lru_timing
#include <chrono>
#include <cstdio>

#include "lru_test_util.h"

namespace lru_test {
namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

void PutRecords(TestLruStore& store, uint64_t first, uint64_t count, bool with_rows) {
  const uint64_t kBatch = 1000;
  for (uint64_t start = first; start < first + count; start += kBatch) {
    std::vector<std::string> keys;
    std::vector<Value> values;
    for (uint64_t i = start; i < first + count && i < start + kBatch; ++i) {
      keys.push_back(HashKey(i));
      values.push_back(Record(i));
      if (!with_rows) {
        values.back().mutable_lru_data()->set_last_used(kWallStart);
        values.back().mutable_lru_data()->set_index(i + 1);
      }
    }
    if (with_rows) {
      ASSERT_EQ(store.Put(keys, values, false), Ok());
      store.ApplyLruUpdates();
    } else {
      ASSERT_EQ(store.main().Put(keys, values, false), Ok());
    }
  }
}

// The library's default level: the per-row trace lines are not formatted.
TEST_F(LruTest, OnePrunePassOverA16MiBStore) {
  log_.set_level(Poco::Message::PRIO_INFORMATION);
  TestLruStore store(16);
  ASSERT_EQ(store.Open(path_, 10), Ok());
  uint64_t count = 0;
  while (true) {
    PutRecords(store, count, 20000, true);
    count += 20000;
    ASSERT_EQ(store.Compact(), Ok());
    if (store.GetSize() > 20 * (1 << 20)) break;
  }
  const uint64_t size_before = store.GetSize();
  const size_t entries_before = Entries(store).size();
  const auto start = Clock::now();
  store.Prune();
  const auto elapsed = Clock::now() - start;
  const uint64_t size_after = store.GetSize();
  const size_t entries_after = Entries(store).size();
  std::printf("prune: %zu entries, %llu bytes -> %zu entries, %llu bytes in %.3f s\n",
              entries_before, static_cast<unsigned long long>(size_before), entries_after,
              static_cast<unsigned long long>(size_after), Seconds(elapsed));
  EXPECT_LT(size_after, 16u << 20);
}

TEST_F(LruTest, RebuildOf100000Entries) {
  log_.set_level(Poco::Message::PRIO_INFORMATION);
  TestLruStore store;
  ASSERT_EQ(store.Open(path_, 10), Ok());
  PutRecords(store, 0, 100000, false);
  ASSERT_EQ(store.Compact(), Ok());
  const auto start = Clock::now();
  ASSERT_EQ(store.RebuildLru(), Ok());
  const auto elapsed = Clock::now() - start;
  const auto rows = Rows(store);
  std::printf("rebuild: 100000 entries, %zu rows, highest %llu, in %.3f s\n", rows.size(),
              static_cast<unsigned long long>(rows.rbegin()->first), Seconds(elapsed));
  EXPECT_EQ(rows.size(), 100000u);
  EXPECT_EQ(store.current_index(), 101000u);
}

}  // namespace
}  // namespace lru_test
