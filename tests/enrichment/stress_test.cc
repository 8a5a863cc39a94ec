// Several callers of the family at once, with the store's sync and pruning
// threads running at test speed, then Stop.
#include <random>
#include <thread>

#include "enrichment_test_env.h"

namespace enrichment_test {
namespace {

using namespace std::chrono_literals;

TEST_F(EnrichmentTest, CallersWithTheStoreThreadsRunningEndInBoundedTime) {
  // First use on this thread, so that the store exists before the others.
  ASSERT_EQ(persistence::EnrichmentStore_ClearEntries(), Ok());
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> operations{0};
  std::mutex mutex;
  std::vector<std::string> unexpected;
  auto check = [&](const char* what, const Status& status, bool absence_allowed) {
    ++operations;
    if (status.ok() || (absence_allowed && status.code == Status::kNotFound)) return;
    std::lock_guard<std::mutex> lock(mutex);
    unexpected.push_back(std::string(what) + ": " + std::to_string(status.code) + " " +
                         status.message);
  };

  // Runs the clocks ahead: a sync period every turn, a whole pruning
  // interval every 25th, and the wall clock so that entries get renewed.
  std::thread driver([&] {
    for (int turn = 0; !stop; ++turn) {
      clock_.Advance(turn % 25 == 0 ? std::chrono::nanoseconds(24h) + 1s : 11s);
      clock_.AdvanceWall(13);
      StoreAccess::Wake();
      std::this_thread::sleep_for(1ms);
    }
  });
  std::vector<std::thread> callers;
  for (unsigned c = 0; c < 4; ++c) {
    callers.emplace_back([&, c] {
      std::mt19937 random(77 + c);
      const auto end = std::chrono::steady_clock::now() + 20s;
      for (int i = 0; i < 3000 && std::chrono::steady_clock::now() < end; ++i) {
        const std::string key = HashKey(random() % 1500);
        Value value;
        switch (random() % 8) {
          case 0:
          case 1:
            check("Put", persistence::EnrichmentStore_Put(key, Record(random() % 1500)), false);
            break;
          case 2:
            check("PutEntry", persistence::EnrichmentStore_PutEntry(key, Record(i)), false);
            break;
          case 3:
          case 4:
            check("Get", persistence::EnrichmentStore_Get(key, &value), true);
            break;
          case 5:
            check("GetEntry", persistence::EnrichmentStore_GetEntry(key, &value), true);
            break;
          case 6:
            check("Delete", persistence::EnrichmentStore_Delete(key), true);
            break;
          default: {
            std::vector<Value> values;
            check("Get keys",
                  persistence::EnrichmentStore_Get({key, HashKey(random() % 1500)}, &values), true);
            break;
          }
        }
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  stop = true;
  driver.join();

  const auto start = std::chrono::steady_clock::now();
  EnrichmentStoreEx::Instance().Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);
  EXPECT_EQ(unexpected, std::vector<std::string>{});
  EXPECT_GT(operations, 1000u);
  EXPECT_FALSE(Rows().empty());
  // The only error lines are those of deletes of keys already gone.
  for (const Line& line : CallerLines(log_)) {
    if (line.first != kError) continue;
    EXPECT_EQ(line.second, "Failed to get entry, error=3, message=NotFound: ");
  }
  // Every index a value carries was handed out by the counter.
  const uint64_t current = StoreAccess::CurrentIndex();
  for (const auto& [key, value] : Entries()) {
    EXPECT_LE(value.lru_data().index(), current) << key;
  }
}

}  // namespace
}  // namespace enrichment_test
