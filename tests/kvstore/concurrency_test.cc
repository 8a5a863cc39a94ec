// The store under running callers: the reader-preferring lock, one reopen out
// of many failing callers, and damage done to the directory while threads
// read and write. Every scenario runs under a time limit, so that a deadlock
// fails the test instead of hanging it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kvstore/kvstore_test_util.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace kvstore_test {
namespace {

using namespace std::chrono_literals;
using testing_support::FaultEnv;
using testing_support::LogCapture;
using testing_support::ScopedTestEnv;
using testing_support::TempDir;
using testing_support::TestClock;

std::string ReopenContext(const std::string& path) { return "Reopen(" + path + ")"; }

// --- The lock ---------------------------------------------------------------------

TEST(KVStoreLocking, CallbackTakesTheSharedSideAgainWhileAWriterWaits) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  ASSERT_EQ(store.Put("a", MakeValue("A"), false), Ok());
  ASSERT_EQ(store.Put("b", MakeValue("B"), false), Ok());
  RunBounded(10s, "a walk whose callback reads while a writer waits", [&] {
    std::atomic<int> writer_thread{0};
    std::atomic<bool> writer_done{false};
    std::thread writer;
    std::vector<std::string> walked;
    Status inner_same_thread = St(-1, "not called");
    Status inner_other_thread = St(-1, "not called");
    Value same_value;
    Value other_value;
    const Status walk = store.Iterate(
        [&](std::string key, Value value) {
          walked.push_back(key + "=" + value.text());
          if (key != "a") return true;
          // A writer queues for the exclusive side behind this walk.
          writer = std::thread([&] {
            writer_thread = CurrentThreadId();
            store.set_min_reopen_delay(10s);
            writer_done = true;
          });
          EXPECT_TRUE(WaitUntil(
              [&] { return writer_thread != 0 && ThreadIsSleeping(writer_thread); }, 2000ms));
          std::this_thread::sleep_for(20ms);
          EXPECT_FALSE(writer_done.load());
          // The shared side is taken again by this thread and by another one.
          inner_same_thread = store.Get("b", &same_value, nullptr);
          std::thread reader([&] { inner_other_thread = store.Get("a", &other_value, nullptr); });
          reader.join();
          EXPECT_FALSE(writer_done.load()) << "the walk still holds the lock";
          return true;
        },
        nullptr);
    EXPECT_EQ(walk, Ok());
    EXPECT_EQ(walked, (std::vector<std::string>{"a=A", "b=B"}));
    EXPECT_EQ(inner_same_thread, Ok());
    EXPECT_EQ(same_value.text(), "B");
    EXPECT_EQ(inner_other_thread, Ok());
    EXPECT_EQ(other_value.text(), "A");
    ASSERT_TRUE(writer.joinable());
    writer.join();
    EXPECT_TRUE(writer_done.load());
  });
  EXPECT_EQ(store.min_reopen_delay(), 10s);
}

// --- One reopen out of many -------------------------------------------------------

TEST(KVStoreConcurrentReopen, TwoThreadsFailingTogetherCauseOneReopen) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FaultEnv env;
  env.only_files = ".log";
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  const auto logs = testing_support::FilesWithSuffix(path, ".log");
  ASSERT_EQ(logs.size(), 1u);
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  // Both failures meet before either reaches Reopen.
  Rendezvous meet(2);
  std::mutex results_mutex;
  std::vector<std::pair<Status, bool>> reopens;
  store.on_handle_errors = [&](const leveldb::Status& status) {
    if (!status.ok()) {
      EXPECT_TRUE(meet.ArriveAndWait(5000ms));
    }
  };
  store.on_reopen_result = [&](const Status& status, bool owns_lock) {
    std::lock_guard<std::mutex> lock(results_mutex);
    reopens.emplace_back(status, owns_lock);
  };
  env.disk_full = true;
  Status results[2];
  RunBounded(10s, "two failing writers", [&] {
    std::thread first([&] { results[0] = store.Put("one", MakeValue("1"), false); });
    std::thread second([&] { results[1] = store.Put("two", MakeValue("2"), false); });
    first.join();
    second.join();
  });
  env.disk_full = false;
  store.on_handle_errors = nullptr;
  // Each caller gets its own failure, not the outcome of the reopen.
  const Status failure = St(5, "IO error: " + path + "/" + logs[0] + ": No space left on device");
  EXPECT_EQ(results[0], failure);
  EXPECT_EQ(results[1], failure);
  ASSERT_EQ(reopens.size(), 2u);
  std::sort(reopens.begin(), reopens.end(),
            [](const auto& a, const auto& b) { return a.second > b.second; });
  // The one that reopened keeps its shared lock; the other was refused under
  // the exclusive lock and comes back without it.
  EXPECT_EQ(reopens[0].first, Ok());
  EXPECT_TRUE(reopens[0].second);
  EXPECT_EQ(reopens[1].first, Refused());
  EXPECT_FALSE(reopens[1].second);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[1], 5, "Database reopened successfully!", ReopenContext(path)));
  // Neither write was made again.
  Value value;
  EXPECT_EQ(store.Get("one", &value, nullptr), St(3, "NotFound: "));
  EXPECT_EQ(store.Get("two", &value, nullptr), St(3, "NotFound: "));
}

// Two callers of Reopen that have both passed the first test of the clock
// under their shared locks: the exclusive side is held off by a third shared
// holder until both have read the clock.
TEST(KVStoreConcurrentReopen, SecondTestUnderTheExclusiveLockRefusesTheLoser) {
  CountingClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  Status results[2];
  bool owns[2] = {false, false};
  RunBounded(10s, "two callers of Reopen", [&] {
    std::shared_lock<std::shared_mutex> holder(store.mutex());
    clock.ResetReads();
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i) {
      callers.emplace_back([&, i] {
        TestStringStore::SharedLock lock(store.mutex());
        results[i] = store.CallReopen(lock);
        owns[i] = lock.owns_lock();
      });
    }
    EXPECT_TRUE(WaitUntil([&] { return clock.reads() >= 2; }, 5000ms));
    holder.unlock();
    for (auto& caller : callers) caller.join();
  });
  const int winner = results[0].ok() ? 0 : 1;
  EXPECT_EQ(results[winner], Ok());
  EXPECT_TRUE(owns[winner]);
  EXPECT_EQ(results[1 - winner], Refused());
  EXPECT_FALSE(owns[1 - winner]);
  EXPECT_EQ(CountText(log, "Reopening the database..."), 1);
  EXPECT_EQ(CountText(log, "Database reopened successfully!"), 1);
  EXPECT_EQ(log.lines().size(), 2u);
}

// The same race through the open gate of a closed store: the loser takes its
// shared lock again, finds the store open and goes on.
TEST(KVStoreConcurrentReopen, OpenGateLoserGoesOnWithTheReopenedStore) {
  CountingClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), true), Ok());
  store.Close();
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  std::mutex results_mutex;
  std::vector<std::pair<Status, bool>> reopens;
  store.on_reopen_result = [&](const Status& status, bool owns_lock) {
    std::lock_guard<std::mutex> lock(results_mutex);
    reopens.emplace_back(status, owns_lock);
  };
  Status results[2];
  Value values[2];
  RunBounded(10s, "two readers of a closed store", [&] {
    std::shared_lock<std::shared_mutex> holder(store.mutex());
    clock.ResetReads();
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
      readers.emplace_back([&, i] { results[i] = store.Get("k", &values[i], nullptr); });
    }
    EXPECT_TRUE(WaitUntil([&] { return clock.reads() >= 2; }, 5000ms));
    holder.unlock();
    for (auto& reader : readers) reader.join();
  });
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(results[i], Ok());
    EXPECT_EQ(values[i].text(), "v");
  }
  ASSERT_EQ(reopens.size(), 2u);
  EXPECT_EQ(std::count(reopens.begin(), reopens.end(), std::make_pair(Ok(), true)), 1);
  EXPECT_EQ(std::count(reopens.begin(), reopens.end(), std::make_pair(Refused(), false)), 1);
  EXPECT_EQ(CountText(log, "Reopening the database..."), 1);
}

// --- Damage under running callers ---------------------------------------------------

// Threads that write fresh keys and read seeded ones until told to stop, and
// keep every result.
class Load {
 public:
  Load(TestStringStore& store, int writers, int readers, size_t blob_size)
      : store_(store), blob_size_(blob_size) {
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(store_.Put("seed" + std::to_string(i), MakeValue("seed"), false), Ok());
    }
    for (int w = 0; w < writers; ++w) threads_.emplace_back([this, w] { Write(w); });
    for (int r = 0; r < readers; ++r) threads_.emplace_back([this, r] { Read(r); });
  }
  ~Load() { Stop(); }

  void Stop() {
    stop_ = true;
    for (auto& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

  struct PutResult {
    std::string key;
    Status status;
  };
  std::vector<PutResult> puts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return puts_;
  }
  std::vector<Status> gets() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return gets_;
  }
  int ok_puts() const { return ok_puts_; }
  int failed_puts() const { return failed_puts_; }
  int not_found_puts() const { return not_found_puts_; }
  int refused() const { return refused_; }

 private:
  void Note(const Status& status) {
    if (status == Refused()) ++refused_;
  }

  void Write(int writer) {
    for (int n = 0; !stop_ && n < 100000; ++n) {
      const std::string key = "w" + std::to_string(writer) + "-" + std::to_string(n);
      const Status status = store_.Put(key, MakeValue(key, n, Blob(n, blob_size_)), false);
      Note(status);
      if (status.ok()) ++ok_puts_;
      if (status.code == 5 && !status.message.empty()) ++failed_puts_;
      if (status.code == 3) ++not_found_puts_;
      std::lock_guard<std::mutex> lock(mutex_);
      puts_.push_back({key, status});
    }
  }

  void Read(int reader) {
    for (int n = 0; !stop_ && n < 100000; ++n) {
      Value value;
      const Status status = store_.Get("seed" + std::to_string((reader + n) % 4), &value, nullptr);
      Note(status);
      std::lock_guard<std::mutex> lock(mutex_);
      gets_.push_back(status);
    }
  }

  TestStringStore& store_;
  const size_t blob_size_;
  std::atomic<bool> stop_{false};
  std::atomic<int> ok_puts_{0};
  std::atomic<int> failed_puts_{0};
  std::atomic<int> not_found_puts_{0};
  std::atomic<int> refused_{0};
  mutable std::mutex mutex_;
  std::vector<PutResult> puts_;
  std::vector<Status> gets_;
  std::vector<std::thread> threads_;
};

// The store holds the seeds and exactly the records whose Put succeeded: a
// failed write was not made again behind its caller's back, and no write that
// succeeded was lost.
void ExpectExactlyTheSucceededPuts(TestStringStore& store, const std::vector<Load::PutResult>& puts,
                                   uint64_t seeds) {
  uint64_t succeeded = 0;
  int checked = 0;
  for (const auto& put : puts) {
    Value value;
    const Status status = store.Get(put.key, &value, nullptr);
    if (put.status.ok()) {
      ++succeeded;
      EXPECT_EQ(status, Ok()) << put.key;
    } else {
      EXPECT_EQ(status, St(3, "NotFound: ")) << put.key;
    }
    if (++checked > 5000) break;
  }
  if (checked <= 5000) {
    uint64_t count = 0;
    EXPECT_EQ(store.Count(&count, nullptr), Ok());
    EXPECT_EQ(count, succeeded + seeds);
  }
}

TEST(KVStoreUnderLoad, FailingWritesCauseOneReopenPerDelayWindow) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FaultEnv env;
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  const auto logs = testing_support::FilesWithSuffix(path, ".log");
  ASSERT_EQ(logs.size(), 1u);
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  std::vector<Load::PutResult> puts;
  std::vector<Status> gets;
  RunBounded(30s, "callers under a full disk", [&] {
    Load load(store, 2, 2, 100);
    ASSERT_TRUE(WaitUntil([&] { return load.ok_puts() >= 50; }, 10000ms));
    env.disk_full = true;
    // The first failure reopens, the reopen fails too, and the closed store
    // refuses within the delay.
    ASSERT_TRUE(WaitUntil([&] { return load.refused() >= 200; }, 10000ms));
    EXPECT_FALSE(store.is_open());
    EXPECT_EQ(CountText(log, "Reopening the database..."), 1);
    // The next window, with space again, brings the store back.
    env.disk_full = false;
    clock.Advance(kReopenDelay);
    const int ok_before = load.ok_puts();
    ASSERT_TRUE(WaitUntil([&] { return load.ok_puts() >= ok_before + 50; }, 10000ms));
    load.Stop();
    puts = load.puts();
    gets = load.gets();
  });
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 5u) << ::testing::PrintToString(Summary(lines));
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(
      IsStoreLine(lines[1], 3, "Failed to open database '" + path + "'.", ReopenContext(path)));
  EXPECT_EQ(lines[2].priority, 2);
  // The reopen fails where the engine first writes: the table it makes of the
  // log it recovers.
  EXPECT_TRUE(FullMatch(
      lines[2].text, "Database failed to recover with error 5 \\(IO error: " + RegexEscape(path) +
                         "/[0-9]+\\.ldb: No space left on device\\)"))
      << lines[2].text;
  EXPECT_EQ(lines[2].ndc, ReopenContext(path));
  EXPECT_TRUE(IsStoreLine(lines[3], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[4], 5, "Database reopened successfully!", ReopenContext(path)));
  // A caller gets the failure its own write met, or the refusal of a closed
  // store; nothing else.
  const Status write_failure =
      St(5, "IO error: " + path + "/" + logs[0] + ": No space left on device");
  int failures = 0;
  for (const auto& put : puts) {
    if (put.status == write_failure) ++failures;
    EXPECT_TRUE(put.status.ok() || put.status == write_failure || put.status == Refused())
        << ::testing::PrintToString(put.status);
  }
  EXPECT_GE(failures, 1);
  for (const Status& get : gets) {
    EXPECT_TRUE(get.ok() || get == Refused()) << ::testing::PrintToString(get);
  }
  EXPECT_TRUE(store.is_open());
  ExpectExactlyTheSucceededPuts(store, puts, 4);
}

// The engine reports a file that can't be made in a removed directory as
// NotFound, which says nothing about the database's health: no reopen.
TEST(KVStoreUnderLoad, DirectoryRemovedUnderCallersIsNoReasonToReopen) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  std::vector<Load::PutResult> puts;
  std::vector<Status> gets;
  RunBounded(30s, "callers under a removed directory", [&] {
    // Values large enough to fill the write buffer soon: the engine then needs
    // a new file in the directory.
    Load load(store, 2, 2, 16 * 1024);
    ASSERT_TRUE(WaitUntil([&] { return load.ok_puts() >= 20; }, 10000ms));
    testing_support::RemoveTree(path);
    ASSERT_TRUE(WaitUntil([&] { return load.not_found_puts() >= 50; }, 20000ms));
    load.Stop();
    puts = load.puts();
    gets = load.gets();
  });
  EXPECT_TRUE(log.lines().empty()) << ::testing::PrintToString(Summary(log));
  EXPECT_EQ(store.reopen_calls.load(), 0);
  std::map<std::string, bool> failing;  // by writer
  for (const auto& put : puts) {
    const std::string writer = put.key.substr(0, put.key.find('-'));
    if (!put.status.ok()) failing[writer] = true;
    if (!failing[writer]) continue;
    // Once the engine has no room left, every later write fails the same way.
    EXPECT_EQ(put.status.code, 3) << put.key;
    EXPECT_TRUE(FullMatch(put.status.message, "NotFound: " + RegexEscape(path) +
                                                  "/[0-9]+\\.log: No such file or directory"))
        << ::testing::PrintToString(put.status);
  }
  // What the engine holds in memory is still read.
  for (const Status& get : gets) EXPECT_EQ(get, Ok());
  EXPECT_TRUE(store.is_open());
  EXPECT_FALSE(Exists(path));
  Value value;
  EXPECT_EQ(store.Get("seed0", &value, nullptr), Ok());
}

TEST(KVStoreUnderLoad, DirectoryReplacedByAFileIsRecreatedInTheNextWindow) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  std::vector<Load::PutResult> puts;
  std::vector<Status> gets;
  RunBounded(30s, "callers under a directory replaced by a file", [&] {
    Load load(store, 2, 2, 16 * 1024);
    ASSERT_TRUE(WaitUntil([&] { return load.ok_puts() >= 20; }, 10000ms));
    testing_support::RemoveTree(path);
    testing_support::WriteFile(path, "not a directory");
    // The write that finds no room fails with an I/O error, the reopen fails
    // on the file, and the closed store refuses within the delay.
    ASSERT_TRUE(WaitUntil([&] { return load.refused() >= 200; }, 20000ms));
    EXPECT_FALSE(store.is_open());
    EXPECT_EQ(CountText(log, "Reopening the database..."), 1);
    // The next window, with the way cleared, brings the store back empty.
    testing_support::RemoveTree(path);
    clock.Advance(kReopenDelay);
    ASSERT_TRUE(
        WaitUntil([&] { return CountText(log, "Database reopened successfully!") == 1; }, 10000ms));
    const int ok_before = load.ok_puts();
    ASSERT_TRUE(WaitUntil([&] { return load.ok_puts() >= ok_before + 20; }, 10000ms));
    load.Stop();
    puts = load.puts();
    gets = load.gets();
  });
  const std::string lock_failure = "IO error: " + path + "/LOCK: Not a directory";
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 5u) << ::testing::PrintToString(Summary(lines));
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(
      IsStoreLine(lines[1], 3, "Failed to open database '" + path + "'.", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[2], 2,
                          "Database failed to recover with error 5 (" + lock_failure + ")",
                          ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[3], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[4], 5, "Database reopened successfully!", ReopenContext(path)));
  int io_failures = 0;
  for (const auto& put : puts) {
    if (put.status.ok() || put.status == Refused()) continue;
    ++io_failures;
    EXPECT_EQ(put.status.code, 5);
    EXPECT_TRUE(FullMatch(put.status.message,
                          "IO error: " + RegexEscape(path) + "/[0-9]+\\.log: Not a directory"))
        << ::testing::PrintToString(put.status);
  }
  EXPECT_GE(io_failures, 1);
  for (const Status& get : gets) {
    EXPECT_TRUE(get.ok() || get == Refused() || get == St(3, "NotFound: "))
        << ::testing::PrintToString(get);
  }
  EXPECT_TRUE(store.is_open());
  EXPECT_TRUE(IsDirectory(path));
  // The records of the first directory went with it; the seeds are gone.
  Value value;
  EXPECT_EQ(store.Get("seed0", &value, nullptr), St(3, "NotFound: "));
}

}  // namespace
}  // namespace kvstore_test
