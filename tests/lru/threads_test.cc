// Many callers with the sync and the pruning threads running at test speed:
// the test clock runs ahead by whole periods and the threads are woken often.
#include <random>
#include <set>
#include <thread>

#include "lru_test_util.h"

namespace lru_test {
namespace {

using namespace std::chrono_literals;

// What the callers may be answered: success, and absence for reads and
// deletes of keys that another caller, or pruning, has deleted.
struct Outcomes {
  std::mutex mutex;
  std::vector<std::string> unexpected;
  std::atomic<uint64_t> operations{0};

  void Check(const char* operation, const Status& status, bool absence_allowed) {
    ++operations;
    if (status.ok() || (absence_allowed && status.code == Status::kNotFound)) return;
    std::lock_guard<std::mutex> lock(mutex);
    unexpected.push_back(std::string(operation) + ": " + std::to_string(status.code) + " " +
                         status.message);
  }
};

void Caller(TestLruStore& store, Outcomes& outcomes, unsigned seed, const std::atomic<bool>& stop,
            uint64_t max_operations) {
  std::mt19937 random(seed);
  auto key = [&] { return HashKey(random() % 3000); };
  for (uint64_t i = 0; i < max_operations && !stop; ++i) {
    switch (random() % 10) {
      case 0:
      case 1:
      case 2:
      case 3: {
        Value value = Record(random() % 3000);
        outcomes.Check("Put", store.Put(key(), value), false);
        break;
      }
      case 4:
      case 5:
      case 6: {
        Value value;
        outcomes.Check("Get", store.Get(key(), &value), true);
        break;
      }
      case 7:
        outcomes.Check("Delete", store.Delete(key()), true);
        break;
      case 8: {
        std::vector<std::string> keys;
        std::vector<Value> values;
        for (int j = 0; j < 5; ++j) {
          keys.push_back(key());
          values.push_back(Record(random() % 3000));
        }
        outcomes.Check("bulk Put", store.Put(keys, values, false), false);
        break;
      }
      default: {
        std::vector<Value> values;
        outcomes.Check("bulk Get", store.Get({key(), key(), key()}, &values), true);
        break;
      }
    }
  }
}

// Runs the clocks ahead and wakes the threads: a sync period on every turn,
// a pruning interval on every 20th, and the wall clock by 7 seconds so that
// entries keep getting renewed.
void Driver(TestLruStore& store, testing_support::TestClock& clock, const std::atomic<bool>& stop) {
  for (int turn = 0; !stop; ++turn) {
    clock.Advance(turn % 20 == 0 ? 301s : 11s);
    clock.AdvanceWall(7);
    store.Wake();
    std::this_thread::sleep_for(1ms);
  }
}

TEST_F(LruTest, CallersWithBothThreadsRunningEndInBoundedTime) {
  TestLruStore store(1, 300s, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Outcomes outcomes;
  std::atomic<bool> stop_driver{false};
  std::atomic<bool> stop_callers{false};
  std::thread driver(Driver, std::ref(store), std::ref(clock_), std::cref(stop_driver));
  std::vector<std::thread> callers;
  for (unsigned i = 0; i < 4; ++i) {
    callers.emplace_back(Caller, std::ref(store), std::ref(outcomes), 1000 + i,
                         std::cref(stop_callers), 5000);
  }
  // A bound in real time, for slow builds.
  std::thread limit([&] {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!stop_callers && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(10ms);
    }
    stop_callers = true;
  });
  for (std::thread& caller : callers) caller.join();
  stop_callers = true;
  limit.join();
  // Let the threads catch up with the last notes, then stop everything.
  std::this_thread::sleep_for(50ms);
  stop_driver = true;
  driver.join();

  const auto start = std::chrono::steady_clock::now();
  store.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);

  EXPECT_EQ(outcomes.unexpected, std::vector<std::string>{});
  EXPECT_GT(outcomes.operations, 1000u);
  EXPECT_GT(store.compact_calls, 0);  // pruning passes ran
  EXPECT_FALSE(LinesWith(log_, "Finished deleting old entries.").empty());
  EXPECT_FALSE(Rows(store).empty());  // the sync thread wrote rows

  // Numbers are never handed out twice: every value's index is one the
  // counter has passed.
  const uint64_t current = store.current_index();
  for (const auto& [key, data] : LruData(store)) EXPECT_LE(data.second, current) << key;
  // Pruning held the store near its maximum.
  EXPECT_LT(Entries(store).size(), 3000u);
}

TEST_F(LruTest, StopWhileCallersRunReturnsInBoundedTimeAndTheCallersGoOn) {
  TestLruStore store(1, 300s, true);
  ASSERT_EQ(store.Open(path_, 0), Ok());
  Outcomes outcomes;
  std::atomic<bool> stop_driver{false};
  std::atomic<bool> stop_callers{false};
  std::thread driver(Driver, std::ref(store), std::ref(clock_), std::cref(stop_driver));
  std::vector<std::thread> callers;
  for (unsigned i = 0; i < 3; ++i) {
    callers.emplace_back(Caller, std::ref(store), std::ref(outcomes), 2000 + i,
                         std::cref(stop_callers), UINT64_MAX);
  }
  ASSERT_TRUE(WaitUntil([&] { return outcomes.operations > 300; }));
  const auto start = std::chrono::steady_clock::now();
  store.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(CountThreads("LruStoreSync"), 0);
  EXPECT_EQ(CountThreads("LruStorePrune"), 0);
  const uint64_t at_stop = outcomes.operations;
  ASSERT_TRUE(WaitUntil([&] { return outcomes.operations > at_stop + 300; }));
  stop_callers = true;
  for (std::thread& caller : callers) caller.join();
  stop_driver = true;
  driver.join();
  EXPECT_EQ(outcomes.unexpected, std::vector<std::string>{});
  // Nothing writes rows any more.
  const size_t rows = Rows(store).size();
  Value value = Record(1);
  ASSERT_EQ(store.Put("after stop", value), Ok());
  store.Wake();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(Rows(store).size(), rows);
}

}  // namespace
}  // namespace lru_test
