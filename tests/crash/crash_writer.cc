// crash_writer SCENARIO ROOT: writes into the stores under ROOT until it is
// killed. It never ends by itself; an exit means a write failed, with the
// reason on standard error and exit code 3.
//
// List scenarios replace their store with list A and list B in turn, and
// record each acknowledged write in ROOT/writer_progress (crash_records.h).
//
// "enrichment" runs a mixed load on an LRU store opened as the enrichment
// singleton opens its own, with the library's clocks running 500 times fast
// so that the sync thread (10 s), renewals (60 s) and the pruning thread
// (300 s here) all happen within a fraction of a second; one byte is appended
// to the progress file every 500 operations.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "crash_records.h"
#include "persistence/testing/seams.h"

namespace {

int g_progress_fd = -1;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "crash_writer: %s\n", what.c_str());
  std::fflush(stderr);
  _exit(3);
}

void OpenProgress(const std::string& root) {
  g_progress_fd =
      open(crash::ProgressPath(root).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (g_progress_fd < 0) Fail("cannot open " + crash::ProgressPath(root));
}

// One byte, one write call: after a kill the file holds it or not.
void AppendProgress(char mark) {
  if (write(g_progress_fd, &mark, 1) != 1) Fail("cannot append to the progress file");
}

[[noreturn]] void RunListScenario(crash::Scenario scenario, const std::string& root) {
  for (uint64_t n = crash::ReadProgress(root) + 1;; ++n) {
    const int list = crash::ListOfWrite(n);
    const int result = crash::WriteList(scenario, list);
    if (result != 0) {
      Fail("write " + std::to_string(n) + " of list " + crash::ListName(list) + " returned " +
           std::to_string(result));
    }
    AppendProgress(crash::ListName(list));
  }
}

// --- Enrichment ------------------------------------------------------------

constexpr int64_t kClockSpeedup = 500;
// Small enough that the load goes over it within a few seconds, so that the
// pruning thread deletes entries while the writer may be killed.
constexpr size_t kMaxSizeMb = 4;
constexpr std::chrono::seconds kPruningInterval{300};
constexpr persistence::HeapTag kHeapTag = 108;

std::chrono::steady_clock::time_point g_steady_origin;

persistence::SteadyTimePoint FastSteady() {
  return g_steady_origin + (std::chrono::steady_clock::now() - g_steady_origin) * kClockSpeedup;
}

// Fast and still increasing from one writer to the next on the same root,
// so that no stored last_used lies in the next writer's future.
std::time_t FastWall() {
  constexpr int64_t kBase = 1700000000;
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const int64_t real_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count() - kBase * 1000;
  return static_cast<std::time_t>(kBase + real_ms * kClockSpeedup / 1000);
}

// The enrichment singleton's store, with its threads woken from outside
// often enough to follow the fast clock.
class FastEnrichmentStore : public crash::EnrichmentLruStore {
 public:
  FastEnrichmentStore() : crash::EnrichmentLruStore(kMaxSizeMb, kPruningInterval, kHeapTag) {}
  ~FastEnrichmentStore() override { Stop(); }

  // A wake-up after a thread's steady deadline runs its pass.
  void WakeThreads() {
    { std::lock_guard<std::mutex> lock(stop_mutex_); }
    stop_cond_.notify_all();
  }
};

void Expect(const persistence::Status& status, bool absent_allowed, const char* what) {
  if (status.ok() || (absent_allowed && status.code == persistence::Status::kNotFound)) return;
  Fail(std::string(what) + " failed: " + std::to_string(status.code) + " " + status.message);
}

void EnrichmentLoad(FastEnrichmentStore& store, unsigned seed, std::atomic<uint64_t>& operations) {
  std::mt19937_64 random(seed);
  auto key_of = [&random] {
    return crash::EnrichmentKeyOf(static_cast<int>(random() % crash::kEnrichmentKeys));
  };
  for (;;) {
    const unsigned roll = static_cast<unsigned>(random() % 10000);
    if (roll < 5200) {
      const std::string key = key_of();
      crash::EnrichmentValue value = crash::EnrichmentValueOf(key, random());
      Expect(store.Put(key, value), false, "Put");
    } else if (roll < 7700) {
      crash::EnrichmentValue value;
      Expect(store.Get(key_of(), &value), true, "Get");
    } else if (roll < 8900) {
      Expect(store.Delete(key_of()), true, "Delete");
    } else if (roll < 9400) {
      std::vector<std::string> keys;
      std::vector<crash::EnrichmentValue> values;
      for (int i = 0; i < 50; ++i) {
        keys.push_back(key_of());
        values.push_back(crash::EnrichmentValueOf(keys.back(), random()));
      }
      Expect(store.Put(keys, values, false), false, "bulk Put");
    } else if (roll < 9800) {
      std::vector<std::string> keys;
      for (int i = 0; i < 20; ++i) keys.push_back(key_of());
      std::vector<crash::EnrichmentValue> values;
      Expect(store.Get(keys, &values), true, "bulk Get");
    } else if (roll < 9990) {
      std::vector<std::string> keys;
      for (int i = 0; i < 5; ++i) keys.push_back(key_of());
      Expect(store.Delete(keys), true, "bulk Delete");
    } else if (roll < 9998) {
      std::vector<std::string> keys;
      std::vector<crash::EnrichmentValue> values;
      Expect(store.Dump(&keys, &values, true), false, "Dump");
    } else if (random() % 20 == 0) {
      Expect(store.Clear(), false, "Clear");
    }
    if (operations.fetch_add(1) % 500 == 499) AppendProgress('E');
  }
}

[[noreturn]] void RunEnrichment(const std::string& root) {
  g_steady_origin = std::chrono::steady_clock::now();
  persistence::testing::SetClocksForTesting(&FastSteady, &FastWall);
  FastEnrichmentStore store;
  const persistence::Status status = store.Open(root + "/enrichment_store", 10);
  if (!status.ok()) Fail("Open failed: " + std::to_string(status.code) + " " + status.message);

  std::atomic<uint64_t> operations{0};
  std::random_device device;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    const unsigned seed = device();
    threads.emplace_back([&store, seed, &operations] { EnrichmentLoad(store, seed, operations); });
  }
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    store.WakeThreads();
  }
}

}  // namespace

int main(int argc, char** argv) {
  crash::Scenario scenario;
  if (argc != 3 || !crash::ParseScenario(argv[1], &scenario)) {
    std::fprintf(stderr,
                 "usage: crash_writer fvhash|signers|process_bulk|general_bulk|enrichment ROOT\n");
    return 2;
  }
  const std::string root = argv[2];
  if (mkdir(root.c_str(), 0755) != 0 && errno != EEXIST) Fail("cannot create " + root);
  if (chdir(root.c_str()) != 0) Fail("cannot enter " + root);
  setenv("ZERLA_DATA_ROOT", root.c_str(), 1);
  OpenProgress(root);
  if (crash::IsListScenario(scenario)) RunListScenario(scenario, root);
  RunEnrichment(root);
}
