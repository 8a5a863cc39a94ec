// What the tests of persistence::PersistentLruStore share: a store subclass
// that reaches the protected parts and can stand in for Compact and GetSize,
// realistic enrichment records, readers of both databases, log helpers and
// the threads of the process.
#pragma once

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "persistence/persistent_lru_store.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "persistence/db.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"
#include "support/test_records.h"

namespace persistence {

// Statuses compare and print in test expectations.
inline bool operator==(const Status& a, const Status& b) {
  return a.code == b.code && a.message == b.message;
}
inline bool operator!=(const Status& a, const Status& b) { return !(a == b); }
inline void PrintTo(const Status& status, std::ostream* out) {
  *out << "{" << status.code << ", \"" << status.message << "\"}";
}

}  // namespace persistence

namespace lru_test {

using persistence::Status;
using Value = proto::EnrichmentStore::Value;
using Row = proto::EnrichmentLruStore::Value;
using LruStoreBase =
    persistence::PersistentLruStore<std::string, Value, proto::EnrichmentStore::Data, Row,
                                    proto::EnrichmentLruStore::Data>;
using MainKVStore = persistence::KVStore<std::string, Value, proto::EnrichmentStore::Data>;
using RowKVStore = persistence::KVStore<std::string, Row, proto::EnrichmentLruStore::Data>;

constexpr int kCritical = Poco::Message::PRIO_CRITICAL;
constexpr int kError = Poco::Message::PRIO_ERROR;
constexpr int kWarning = Poco::Message::PRIO_WARNING;
constexpr int kNotice = Poco::Message::PRIO_NOTICE;
constexpr int kInfo = Poco::Message::PRIO_INFORMATION;
constexpr int kDebug = Poco::Message::PRIO_DEBUG;
constexpr int kTrace = Poco::Message::PRIO_TRACE;

constexpr char kLoggerName[] = "Enrichment";
constexpr char kLruSource[] = "persistence/persistent_lru_store.h";
constexpr std::time_t kWallStart = 1700000000;

inline Status Ok() { return Status(); }
inline Status St(int32_t code, const std::string& message) { return Status(code, message); }

// One deferred note as the tests compare it.
struct Note {
  std::string key;
  uint64_t old_index;
  uint64_t new_index;
  bool operator==(const Note& other) const {
    return key == other.key && old_index == other.old_index && new_index == other.new_index;
  }
};
void PrintTo(const Note& note, std::ostream* out);

// The store under test. Threads are off unless asked for, so that the tests
// drive the sync and the pruning passes themselves; Compact and GetSize can
// be observed or replaced for a test.
class TestLruStore : public LruStoreBase {
 public:
  explicit TestLruStore(size_t max_size_mb = 16,
                        std::chrono::nanoseconds interval = std::chrono::hours(24),
                        bool threads = false)
      : LruStoreBase(max_size_mb, interval, 108), threads_(threads) {}

  // Joins the threads while this part of the object still stands.
  ~TestLruStore() override { Stop(); }

  bool worker_threads_enabled() const override { return threads_; }

  // Counts the calls, runs "on_compact" first, and with "skip_compact"
  // leaves both databases as they are.
  Status Compact() override {
    ++compact_calls;
    if (on_compact) on_compact();
    if (skip_compact) return Status();
    return LruStoreBase::Compact();
  }

  // Counts the calls, runs "on_get_size" first, and answers "size_override"
  // when it is set.
  uint64_t GetSize() override {
    ++get_size_calls;
    if (on_get_size) on_get_size();
    if (size_override) return *size_override;
    return LruStoreBase::GetSize();
  }

  using LruStoreBase::AddToLru;
  using LruStoreBase::AddToLruList;
  using LruStoreBase::ApplyLruUpdates;
  using LruStoreBase::CheckValidity;
  using LruStoreBase::DeleteFromLru;
  using LruStoreBase::DeleteOldByAvgEntries;
  using LruStoreBase::DeleteOldEntriesBySize;
  using LruStoreBase::GetFromLru;
  using LruStoreBase::Prune;
  using LruStoreBase::RebuildLru;
  using LruStoreBase::UpdateLruOfValue;
  using LruStoreBase::UpdateLruOfValues;

  LruStore& lru() { return lru_store_; }
  MainKVStore& main() { return *this; }

  uint64_t current_index() {
    std::lock_guard<std::mutex> lock(lru_index_mutex_);
    return current_lru_index_;
  }
  void set_current_index(uint64_t index) {
    std::lock_guard<std::mutex> lock(lru_index_mutex_);
    current_lru_index_ = index;
  }
  std::vector<Note> notes() {
    std::lock_guard<std::mutex> lock(lru_updates_mutex_);
    std::vector<Note> result;
    for (const LruUpdateParams& update : lru_updates_) {
      result.push_back({update.key, update.old_index, update.new_index});
    }
    return result;
  }
  std::chrono::nanoseconds pruning_interval() const { return pruning_interval_; }
  uint64_t max_size_mb() const { return max_size_mb_; }
  bool running() const { return running_; }
  void set_running(bool running) { running_ = running; }

  // Wakes both threads; a thread whose steady deadline has passed then does
  // its work.
  void Wake() {
    { std::lock_guard<std::mutex> lock(stop_mutex_); }
    stop_cond_.notify_all();
  }

  std::atomic<int> compact_calls{0};
  std::atomic<int> get_size_calls{0};
  std::atomic<int> lru_reopens{0};
  bool skip_compact = false;
  std::function<void()> on_compact;
  std::function<void()> on_get_size;
  std::optional<uint64_t> size_override;

 protected:
  void OnLruReopen(Status& status, SharedLock& lock) override {
    ++lru_reopens;
    LruStoreBase::OnLruReopen(status, lock);
  }

 private:
  const bool threads_;
};

// The LRU key of "index".
inline std::string LruKey(uint64_t index) { return LruStoreBase::LruKey(index); }

using testing_support::CountThreads;
using testing_support::HashKey;
using testing_support::StartEngineThread;
using testing_support::ThreadNames;
using testing_support::WaitUntil;
// A realistic record: image path, signature details, hashes, score and three
// entitlements; lru_data unset.
inline Value Record(uint64_t seed) { return testing_support::EnrichmentRecord(seed); }
// A record with only lru_data set.
Value Stamped(int64_t last_used, uint64_t index);

// The rows of the LRU database, index to foreign key. Every key must be a
// 20-byte index key; a test fails otherwise.
std::map<uint64_t, std::string> Rows(TestLruStore& store);
// The entries of the main store.
std::map<std::string, Value> Entries(TestLruStore& store);
// The entries' lru_data, key to {last_used, index}.
std::map<std::string, std::pair<int64_t, uint64_t>> LruData(TestLruStore& store);

// Writes one entry, "0-seed" with index 1, and its row into the two
// directories at "path", so that a store opened there starts with databases
// that agree: the sync thread's check on start then has nothing to rebuild,
// whenever it runs.
void SeedAgreeingPair(const std::string& path);

// Raw records of a closed directory, and raw writes into one.
std::map<std::string, std::string> ReadRaw(const std::string& dir);
void WriteRaw(const std::string& dir,
              const std::vector<std::pair<std::string, std::string>>& records);
std::string Wire(const google::protobuf::MessageLite& message);
std::string RowWire(const std::string& foreign_key);

// Lines as {priority, text}, and the same reduced to texts.
using Line = std::pair<int, std::string>;
std::vector<Line> Lines(const testing_support::LogCapture& log);
std::vector<Line> Lines(const std::vector<testing_support::LoggedLine>& lines);
void PrintTo(const Line& line, std::ostream* out);
// The lines whose text contains "text".
std::vector<testing_support::LoggedLine> LinesWith(const testing_support::LogCapture& log,
                                                   const std::string& text);

// The source line of the header at "number", and the number of the first
// line that contains "text".
std::string SourceLine(const std::string& file, int number);
int SourceLineOf(const std::string& file, const std::string& text);
// The header of a failed check at the line that contains "site_text".
std::string CheckHeader(const std::string& site_text, const std::string& condition);

// A channel for the "Enrichment" logger that keeps the lines as LogCapture
// does and lets a test act at the moment a line is logged, in the thread that
// logs it. Install() puts it in place of the present channel; LogCapture
// restores the former one when it ends.
class HookChannel : public Poco::Channel {
 public:
  void log(const Poco::Message& message) override;
  std::vector<testing_support::LoggedLine> lines() const;
  void Install();

  std::function<void(const testing_support::LoggedLine&)> hook;

 private:
  mutable std::mutex mutex_;
  std::vector<testing_support::LoggedLine> lines_;
};

// The state every test starts from: a fresh directory for the two
// databases, the steady clock at one hour and the wall clock at 1700000000,
// and the "Enrichment" logger writing into log_ at every level.
class LruTest : public ::testing::Test {
 protected:
  LruTest() { StartEngineThread(); }

  testing_support::TempDir dir_;
  testing_support::TestClock clock_;
  testing_support::LogCapture log_{kLoggerName};
  const std::string path_ = dir_.Sub("enrichment");
  const std::string lru_path_ = path_ + ".lru";
};

}  // namespace lru_test
