// persistence::PersistentLruStore: a typed store held below a size on disk by
// forgetting what was used longest ago.
//
// Beside the main store lies a second database, at the main path plus
// ".lru", that orders the keys by last use: one row per index, keyed by the
// index as "%20llu" (20 bytes, blank-padded, so that bytewise order is
// numeric order) and holding the entry's key. Each value carries its own
// lru_data (last_used, index). Reads and writes never touch the second
// database themselves: a renewal, at most once a minute per entry, stamps the
// value in the main store and leaves a note in a bounded list; the thread
// "LruStoreSync" turns the notes into rows every 10 seconds, and the thread
// "LruStorePrune" compacts and, over the maximum size, deletes from the old
// end once per pruning interval. A crash or a full list loses order, never a
// value; a lost side database is rebuilt from the values.
//
// Only the main store is authoritative. A row without an entry and an entry
// without a row are both tolerated: pruning removes the first, the next
// renewal gives the second a row.
//
// Locks: lru_index_mutex_, lru_updates_mutex_ and stop_mutex_ are each held
// for a few instructions, never together and never over a database call.
// Where both typed stores' mutexes are held, the LRU database's comes first.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "nix/dravinhold/logging.h"
#include "persistence/clock.h"
#include "persistence/export.h"
#include "persistence/kvstore.h"
#include "persistence/report.h"
#include "persistence/status.h"

namespace persistence {

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
class DRAVINHOLD_EXPORT PersistentLruStore : public KVStore<KeyT, ValueT, DataT> {
 protected:
  using Base = KVStore<KeyT, ValueT, DataT>;
  using SharedLock = std::shared_lock<std::shared_mutex>;

 public:
  using SnapshotHandle = typename Base::SnapshotHandle;

  static constexpr int64_t kLruRenewSeconds = 60;
  static constexpr size_t kMaxDeferredLruUpdates = 10000;
  static constexpr std::chrono::seconds kLruSyncPeriod{10};
  static constexpr std::chrono::seconds kMinPruningInterval{300};
  static constexpr double kPruneTargetRatio = 0.8;
  static constexpr uint64_t kPruneBatchSize = 1024;
  static constexpr uint64_t kRebuildBatchSize = 1024;
  static constexpr uint64_t kRebuildIndexShift = 1000;

  // One deferred update of the LRU database: add the row "new_index" for
  // "key" and retire the row "old_index" (0: none).
  struct LruUpdateParams {
    KeyT key;
    uint64_t old_index;
    uint64_t new_index;
  };

  // The LRU database: rows keyed by index, each naming an entry of the main
  // store. Tells its owner of every reopen through "on_reopen".
  class LruStore : public KVStore<std::string, LruValueT, LruDataT> {
   public:
    using OnReopen = std::function<void(Status&, std::shared_lock<std::shared_mutex>&)>;

    LruStore(HeapTag heap_tag, OnReopen on_reopen)
        : KVStore<std::string, LruValueT, LruDataT>(heap_tag), on_reopen_(std::move(on_reopen)) {}
    ~LruStore() override = default;

   protected:
    Status Reopen(std::shared_lock<std::shared_mutex>& lock) override {
      Status status = KVStore<std::string, LruValueT, LruDataT>::Reopen(lock);
      on_reopen_(status, lock);
      return status;
    }

   private:
    friend PersistentLruStore;
    OnReopen on_reopen_;
  };

  // A closed store. A pruning interval below kMinPruningInterval is raised to
  // it, with a line in the log.
  PersistentLruStore(size_t max_size_mb, std::chrono::steady_clock::duration pruning_interval,
                     HeapTag heap_tag);

  // Stops and joins the threads; notes still in the list are dropped.
  ~PersistentLruStore() override;

  // Compacts the LRU database, then, while the store runs, the main store.
  // Returns the main store's status (the LRU database's after Stop).
  Status Compact() override;

  // Bytes both directories take on disk; one that can't be measured counts 0.
  uint64_t GetSize() override;

  // The maximum of both databases together, in MiB (GetSize is in bytes).
  uint64_t GetMaxSize() override;

  // The typed store's operations of these names stay reachable and bypass
  // the order of use; the bulk Put is reached as Base::Put.
  using Base::Clear;
  using Base::Delete;
  using Base::Dump;
  using Base::Get;

  // Reads an entry and renews it when its last renewal is more than 60 s
  // old; a failed renewal is the caller's failure, with *value read all the
  // same. An absent key is code 3. A null "value" is code 2 with no message.
  virtual Status Get(const KeyT& key, ValueT* value);

  // Reads all entries or none; renews the batch when its first entry is
  // 61 s old or more, and then all of it.
  virtual Status Get(const std::vector<KeyT>& keys, std::vector<ValueT>* values);

  // The whole store, cleared first. With "update_lru" the dump counts as a
  // use of the entries, decided by the age of the first.
  virtual Status Dump(std::vector<KeyT>* keys, std::vector<ValueT>* values, bool update_lru);

  // The typed store's Put stays hidden on purpose: its bulk form would make
  // every bulk call here ambiguous. It is reached as Base::Put.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Woverloaded-virtual"
#endif
  // Writes an entry, keeping the stored lru_data of an existing one: renews
  // it when that is more than 60 s old, or the key is new. On return
  // "value" holds the lru_data written.
  virtual Status Put(const KeyT& key, ValueT& value);

  // Writes all pairs in one write; each absent or old entry is renewed. The
  // sizes must match (code 2 otherwise, nothing written).
  virtual Status Put(const std::vector<KeyT>& keys, std::vector<ValueT> values, bool sync);
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

  // Deletes an entry and its row at once. An absent key is code 3.
  virtual Status Delete(const KeyT& key);

  // Deletes all entries and their rows, or none if one is absent.
  virtual Status Delete(const std::vector<KeyT>& keys);

  // Empties the main store, then the LRU database. Numbering goes on.
  virtual Status Clear();

  // Stops both threads and joins them. Databases stay open; nothing writes
  // rows any more. Returns at once when not running.
  virtual void Stop();

  // Nanoseconds spent pruning since the last call.
  virtual uint64_t GetAndResetPruningDuration();

  // Whether Open starts the two threads.
  virtual bool worker_threads_enabled() const;

  // Opens the main store at "path" with a block cache of "cache_size_mb" MiB
  // and the LRU database at path + ".lru", both with repair; restores the
  // index counter; starts the threads even if an open failed. Returns the
  // main store's failure, else the LRU database's status.
  virtual Status Open(const std::string& path, unsigned long cache_size_mb);

 protected:
  // Runs after every reopen of the LRU database.
  virtual void OnLruReopen(Status& status, SharedLock& lock);

  // Called after every append to the list of notes, with its mutex held.
  virtual void OnDeferredLruUpdate();

 public:
  // Sets *index to the highest index of the LRU database, 0 when it is
  // empty or its last key is not a number. A null "index" is code 2.
  Status GetCurrentLruIndex(uint64_t* index);

  // The LRU database key of "index": exactly 20 bytes.
  static std::string LruKey(uint64_t index);

 protected:
  Status Reopen(SharedLock& lock) override;

  // The access path.
  Status UpdateLruOfValue(const KeyT& key, ValueT& value);
  Status UpdateLruOfValues(const std::vector<KeyT>& keys, std::vector<ValueT>& values);
  Status AddToLruList(const KeyT& key, uint64_t old_index, uint64_t new_index);
  Status AddToLruList(std::vector<LruUpdateParams> updates);
  Status AddToLru(uint64_t index, const KeyT& key);
  Status DeleteFromLru(uint64_t index);
  Status DeleteFromLru(std::vector<ValueT> values);
  Status GetFromLru(uint64_t index, KeyT* key);

  // Writes the notes into the LRU database, one row at a time.
  void ApplyLruUpdates();
  void LruSyncThreadFunction();

  // Pruning.
  void PruningThreadFunction();
  void Prune();
  Status DeleteOldEntriesBySize(uint64_t bytes, uint64_t& deleted);
  Status DeleteOldByAvgEntries(uint64_t count);

  // Validity: brings an emptied or partly lost side back in line with the
  // other. False when it could not.
  bool CheckValidity();
  // Counts the entries of the main store that no row names at their index,
  // leaving out those whose note is still pending.
  Status CountEntriesWithoutRow(uint64_t* without_row);
  // Writes a row for every entry of the main store from its stored index,
  // into an empty LRU database.
  Status RebuildLru();

  uint64_t max_size_mb_;
  std::chrono::nanoseconds pruning_interval_;
  LruStore lru_store_;
  uint64_t current_lru_index_ = 0;
  std::mutex lru_index_mutex_;
  std::mutex lru_updates_mutex_;
  std::list<LruUpdateParams> lru_updates_;
  std::thread lru_sync_thread_;
  std::thread pruning_thread_;
  std::atomic<bool> running_{false};
  std::mutex stop_mutex_;
  std::condition_variable stop_cond_;
  std::atomic<uint64_t> pruning_duration_{0};

 private:
  using LruBase = KVStore<std::string, LruValueT, LruDataT>;

  uint64_t NextLruIndex();
  void SetCurrentLruIndex(uint64_t index);
  static uint64_t ParseLruIndex(const std::string& key);
  // Sets the two fields of value's lru_data.
  static void SetLruData(ValueT& value, int64_t last_used, uint64_t index);
  static bool IsOlderThan(int64_t last_used, std::time_t now, int64_t seconds);
  // Sets the stored entry's index, if the entry is still there.
  void WriteBackIndex(const KeyT& key, uint64_t index, SnapshotHandle snapshot);
  // Waits on stop_cond_ until the store stops or the steady clock passes
  // "deadline"; wake-ups before it wait again.
  void WaitForStopOrDeadline(std::unique_lock<std::mutex>& lock, SteadyTimePoint deadline);
  // Names the calling thread and its log context.
  static void EnterThread(const char* name);
};

// --- Construction, open and stop ------------------------------------------

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::PersistentLruStore(
    size_t max_size_mb, std::chrono::steady_clock::duration pruning_interval, HeapTag heap_tag)
    : Base(heap_tag),
      max_size_mb_(max_size_mb),
      pruning_interval_(pruning_interval),
      lru_store_(heap_tag,
                 [this](Status& status, SharedLock& lock) { OnLruReopen(status, lock); }) {
  if (pruning_interval_ < kMinPruningInterval) {
    // The bound is five minutes; the words are the log's own.
    const int64_t seconds =
        std::chrono::duration_cast<std::chrono::seconds>(pruning_interval).count();
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
             "Pruning interval was set to %?d seconds, which is less than the minimum - one hour.",
             seconds);
    pruning_interval_ = kMinPruningInterval;
  }
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::~PersistentLruStore() {
  PersistentLruStore::Stop();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Open(
    const std::string& path, unsigned long cache_size_mb) {
  const Status status = this->OpenWithRecovery(path, false, cache_size_mb);
  const Status lru_status = lru_store_.OpenWithRecovery(path + ".lru", false, 0);
  if (lru_status.ok()) {
    uint64_t index = 0;
    GetCurrentLruIndex(&index);
    SetCurrentLruIndex(index);
  }
  running_.store(true);
  // The threads start also when an open failed: the next operation on a
  // closed store tries to reopen it, and the threads live with failing calls.
  if (worker_threads_enabled()) {
    lru_sync_thread_ = std::thread(&PersistentLruStore::LruSyncThreadFunction, this);
    pruning_thread_ = std::thread(&PersistentLruStore::PruningThreadFunction, this);
  }
  return status.ok() ? lru_status : status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Stop() {
  if (!running_) return;
  try {
    {
      std::lock_guard<std::mutex> lock(stop_mutex_);
      running_.store(false);
      stop_cond_.notify_all();
    }
    if (worker_threads_enabled()) {
      if (lru_sync_thread_.joinable()) lru_sync_thread_.join();
      if (pruning_thread_.joinable()) pruning_thread_.join();
    }
  } catch (const std::system_error&) {
  }
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
bool PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::worker_threads_enabled() const {
  return true;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
std::string PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::LruKey(uint64_t index) {
  char buffer[21] = {};
  std::snprintf(buffer, sizeof(buffer), "%20llu", static_cast<unsigned long long>(index));
  return std::string(buffer, 20);
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
uint64_t PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::ParseLruIndex(
    const std::string& key) {
  uint64_t index = 0;
  for (const char c : key) {
    if (c == ' ') continue;
    if (c < '0' || c > '9') return 0;  // a damaged key restarts the numbering
    index = index * 10 + static_cast<uint64_t>(c - '0');
  }
  return index;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::GetCurrentLruIndex(
    uint64_t* index) {
  if (!CHECK_LOGGED(EnrichmentLogger, index, "Invalid out parameter, index is NULL")) {
    return Status(leveldb::Status::InvalidArgument("index", "nullptr"));
  }
  *index = 0;
  // Without a snapshot the reads below see the live database, which will do.
  SnapshotHandle snapshot = nullptr;
  lru_store_.CreateSnapshot(&snapshot);
  struct Release {
    LruStore& store;
    SnapshotHandle snapshot;
    ~Release() {
      if (snapshot != nullptr) store.ReleaseSnapshot(snapshot);
    }
  } release{lru_store_, snapshot};

  bool is_empty = true;
  Status status = lru_store_.Empty(&is_empty, snapshot);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to check if LRU is empty, error=%d, message=%s", status.code, status.message);
    return status;
  }
  if (is_empty) return status;
  std::vector<std::string> keys;
  status = lru_store_.ReadImpl(LruBase::kReverse, 1, 1, &keys, nullptr, snapshot);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to read entry from lru, error=%d, message=%s", status.code, status.message);
    return status;
  }
  if (keys.size() == 1 && !keys[0].empty()) *index = ParseLruIndex(keys[0]);
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
uint64_t PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::NextLruIndex() {
  std::lock_guard<std::mutex> lock(lru_index_mutex_);
  return ++current_lru_index_;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::SetCurrentLruIndex(
    uint64_t index) {
  std::lock_guard<std::mutex> lock(lru_index_mutex_);
  current_lru_index_ = index;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::WaitForStopOrDeadline(
    std::unique_lock<std::mutex>& lock, SteadyTimePoint deadline) {
  // Each wait is absolute on the system clock, computed anew from the steady
  // deadline: a jump of the wall clock delays nothing for long.
  while (running_) {
    const SteadyTimePoint now = SteadyNow();
    if (now >= deadline) return;
    stop_cond_.wait_until(lock, std::chrono::system_clock::now() + (deadline - now));
  }
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::EnterThread(const char* name) {
  pthread_setname_np(pthread_self(), name);
  logger_ndc_push(name);
}

// --- The access path ------------------------------------------------------

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
bool PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::IsOlderThan(int64_t last_used,
                                                                               std::time_t now,
                                                                               int64_t seconds) {
  // Compared as "last_used < now - seconds": the age itself, now minus any
  // last_used a value may hold, can overflow; this difference can't.
  return last_used < static_cast<int64_t>(now) - seconds;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::SetLruData(ValueT& value,
                                                                              int64_t last_used,
                                                                              uint64_t index) {
  value.mutable_lru_data()->set_last_used(last_used);
  value.mutable_lru_data()->set_index(index);
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::UpdateLruOfValue(
    const KeyT& key, ValueT& value) {
  if (!IsOlderThan(value.lru_data().last_used(), WallNow(), kLruRenewSeconds)) return Status();
  const uint64_t old_index = value.lru_data().index();
  const uint64_t new_index = NextLruIndex();
  SetLruData(value, WallNow(), new_index);
  const Status status = Base::Put(key, value, false);
  if (!status.ok()) {
    // The index is used up and no note is left: numbers have gaps.
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to update entry, error=%d, message=%s", status.code, status.message);
    return status;
  }
  return AddToLruList(key, old_index, new_index);
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::UpdateLruOfValues(
    const std::vector<KeyT>& keys, std::vector<ValueT>& values) {
  if (keys.empty() || values.empty()) return Status();
  if (keys.size() != values.size()) return Status(Status::kInvalidArgument, "");
  // A batch is renewed whole or not at all, decided by its first entry.
  if (!IsOlderThan(values[0].lru_data().last_used(), WallNow(), kLruRenewSeconds)) {
    return Status();
  }
  const std::time_t now = WallNow();
  std::vector<LruUpdateParams> updates;
  updates.reserve(values.size());
  for (size_t i = 0; i < values.size(); ++i) {
    const uint64_t old_index = values[i].lru_data().index();
    const uint64_t new_index = NextLruIndex();
    SetLruData(values[i], now, new_index);
    updates.push_back({keys[i], old_index, new_index});
  }
  const Status status = Base::Put(keys, values, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to update entries, error=%d, message=%s", status.code, status.message);
    return status;
  }
  return AddToLruList(std::move(updates));
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Get(const KeyT& key,
                                                                         ValueT* value) {
  if (!CHECK_LOGGED(EnrichmentLogger, value, "Invalid out parameter, value is NULL")) {
    return Status(Status::kInvalidArgument, "");
  }
  value->Clear();
  const Status status = Base::Get(key, value, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_TRACE,
             "Failed to get entry, error=%d, message=%s", status.code, status.message);
    return status;
  }
  return UpdateLruOfValue(key, *value);
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Get(
    const std::vector<KeyT>& keys, std::vector<ValueT>* values) {
  if (!CHECK_LOGGED(EnrichmentLogger, values, "Invalid out parameter, values is NULL")) {
    return Status(Status::kInvalidArgument, "");
  }
  values->clear();
  const Status status = Base::Get(keys, values, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_DEBUG,
             "Failed to get the values list, error=%d, message=%s", status.code, status.message);
    return status;
  }
  return UpdateLruOfValues(keys, *values);
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Put(const KeyT& key,
                                                                         ValueT& value) {
  // The stored order wins over the caller's lru_data; a key that can't be
  // read keeps the caller's, normally zero and so far in the past.
  ValueT present;
  if (Base::Get(key, &present, nullptr).ok()) {
    SetLruData(value, present.lru_data().last_used(), present.lru_data().index());
  }
  if (IsOlderThan(value.lru_data().last_used(), WallNow(), kLruRenewSeconds)) {
    return UpdateLruOfValue(key, value);
  }
  const Status status = Base::Put(key, value, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to put entry, error=%d, message=%s", status.code, status.message);
  }
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Put(
    const std::vector<KeyT>& keys, std::vector<ValueT> values, bool sync) {
  if (!CHECK_LOGGED(EnrichmentLogger, keys.size() == values.size(),
                    "keys and values differ in size")) {
    return Status(Status::kInvalidArgument, "");
  }
  const std::time_t now = WallNow();
  std::vector<LruUpdateParams> updates;
  updates.reserve(values.size());
  // Not reset between positions: an absent key takes as its old index the
  // index of the last key found before it in the batch.
  uint64_t old_index = 0;
  for (size_t i = 0; i < keys.size(); ++i) {
    ValueT present;
    if (Base::Get(keys[i], &present, nullptr).ok()) {
      old_index = present.lru_data().index();
      if (!IsOlderThan(present.lru_data().last_used(), now, kLruRenewSeconds)) {
        SetLruData(values[i], present.lru_data().last_used(), present.lru_data().index());
        continue;
      }
    }
    const uint64_t new_index = NextLruIndex();
    SetLruData(values[i], now, new_index);
    updates.push_back({keys[i], old_index, new_index});
  }
  const Status status = Base::Put(keys, values, sync);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to put <keys, values>, error=%d, message=%s", status.code, status.message);
    return status;
  }
  return AddToLruList(std::move(updates));
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Delete(const KeyT& key) {
  ValueT present;
  Status status = Base::Get(key, &present, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to get entry, error=%d, message=%s", status.code, status.message);
    return status;
  }
  status = Base::Delete(key, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete entry, error=%d, message=%s", status.code, status.message);
    return status;
  }
  return DeleteFromLru(present.lru_data().index());
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Delete(
    const std::vector<KeyT>& keys) {
  std::vector<ValueT> present;
  Status status = Base::Get(keys, &present, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to get entries, error=%d, message=%s", status.code, status.message);
    return status;
  }
  status = Base::Delete(keys, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete entry, error=%d, message=%s", status.code, status.message);
    return status;
  }
  return DeleteFromLru(std::move(present));
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::AddToLruList(
    const KeyT& key, uint64_t old_index, uint64_t new_index) {
  std::lock_guard<std::mutex> lock(lru_updates_mutex_);
  lru_updates_.push_back({key, old_index, new_index});
  // Under overload the oldest note goes: its entry keeps its former row.
  if (lru_updates_.size() > kMaxDeferredLruUpdates) lru_updates_.pop_front();
  OnDeferredLruUpdate();
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::AddToLruList(
    std::vector<LruUpdateParams> updates) {
  std::lock_guard<std::mutex> lock(lru_updates_mutex_);
  for (LruUpdateParams& update : updates) {
    lru_updates_.push_back(std::move(update));
    if (lru_updates_.size() > kMaxDeferredLruUpdates) lru_updates_.pop_front();
  }
  OnDeferredLruUpdate();
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::OnDeferredLruUpdate() {}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::AddToLru(uint64_t index,
                                                                              const KeyT& key) {
  LruValueT row;
  row.set_foreign_key(key);
  const Status status = lru_store_.Put(LruKey(index), row, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to put entry into LRU cache, error=%d, message=%s", status.code,
             status.message);
  }
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::DeleteFromLru(uint64_t index) {
  const Status status = lru_store_.Delete(LruKey(index), false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete entry from LRU, error=%d, message=%s", status.code, status.message);
  }
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::DeleteFromLru(
    std::vector<ValueT> values) {
  std::vector<std::string> lru_keys;
  lru_keys.reserve(values.size());
  for (const ValueT& value : values) lru_keys.push_back(LruKey(value.lru_data().index()));
  const Status status = lru_store_.Delete(lru_keys, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete entries from LRU, error=%d, message=%s", status.code,
             status.message);
  }
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::GetFromLru(uint64_t index,
                                                                                KeyT* key) {
  LruValueT row;
  const Status status = lru_store_.Get(LruKey(index), &row, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_TRACE,
             "Failed to get entry from LRU, error=%d, message=%s", status.code, status.message);
    return status;
  }
  *key = row.foreign_key();
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::ApplyLruUpdates() {
  // Swapped out, so that writers never wait for the database.
  std::list<LruUpdateParams> updates;
  {
    std::lock_guard<std::mutex> lock(lru_updates_mutex_);
    if (lru_updates_.empty()) return;
    updates.swap(lru_updates_);
  }
  for (const LruUpdateParams& update : updates) {
    if (!running_) break;
    // The new row goes in before the old one goes, so that a crash between
    // the two leaves the entry with two rows and not with none.
    if (!AddToLru(update.new_index, update.key).ok()) {
      // An entry that never had a row would never be pruned: it goes.
      if (update.old_index == 0) Base::Delete(update.key, false);
      continue;
    }
    if (update.old_index != 0) DeleteFromLru(update.old_index);
  }
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::LruSyncThreadFunction() {
  EnterThread("LruStoreSync");
  CheckValidity();
  while (running_) {
    {
      std::unique_lock<std::mutex> lock(stop_mutex_);
      WaitForStopOrDeadline(lock, SteadyNow() + kLruSyncPeriod);
    }
    if (!running_) break;
    ApplyLruUpdates();
  }
  logger_ndc_pop();
}

// --- Pruning --------------------------------------------------------------

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::PruningThreadFunction() {
  EnterThread("LruStorePrune");
  while (running_) {
    {
      std::unique_lock<std::mutex> lock(stop_mutex_);
      WaitForStopOrDeadline(lock, SteadyNow() + pruning_interval_);
    }
    const SteadyTimePoint start = SteadyNow();
    Prune();
    pruning_duration_ += static_cast<uint64_t>((SteadyNow() - start).count());
  }
  logger_ndc_pop();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Prune() {
  if (!running_) return;
  Compact();
  if (!running_) return;
  uint64_t size = GetSize();
  const uint64_t max_bytes = max_size_mb_ << 20;
  if (size <= max_bytes) return;
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
           "Total size of store is %Lu bytes, exceeded maximum: %Lu bytes", size, max_bytes);
  uint64_t count = 0;
  Status status = Base::CountImpl(Base::NullKey(), Base::NullKey(), &count, nullptr);
  if (!status.ok() || count == 0) return;
  if (!running_) return;

  const uint64_t target = static_cast<uint64_t>(static_cast<double>(max_bytes) * kPruneTargetRatio);
  const uint64_t excess = size - target;
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_DEBUG,
           "Need to delete approximately %Lu bytes in order to reach %Lu.", excess, target);
  uint64_t deleted = 0;
  status = DeleteOldEntriesBySize(excess, deleted);
  if (!status.ok()) {
    if (!running_) return;
    // The fallback aims for the maximum, not for the target: it deletes less.
    const uint64_t average = size >= count ? size / count : 1;
    const uint64_t wanted = std::min((size - max_bytes) / average, count);
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
             "Failed to delete entries by size. Trying to delete %Lu entries.", wanted);
    // Unguarded: more deleted than wanted wraps, and the fallback then runs
    // until the LRU database has no rows left.
    status = DeleteOldByAvgEntries(wanted - deleted);
  }
  if (status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION, "Finished deleting old entries.");
  } else {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete old entries, error=%d, message=%s", status.code, status.message);
  }
  if (!running_) return;
  Compact();
  size = GetSize();
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
           "Total size of store after prunning is %Lu bytes.", size);
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::DeleteOldEntriesBySize(
    uint64_t bytes, uint64_t& deleted) {
  std::vector<std::string> lru_keys;
  std::vector<KeyT> main_keys;
  uint64_t sum = 0;
  // From the oldest row on. A row whose size can't be had (the newest row,
  // and the row of the main store's last key) is passed over and stays. A
  // row whose entry is gone is measured where its key would stand, and goes.
  Status status = lru_store_.Iterate(
      [&](std::string lru_key, LruValueT row) {
        if (sum >= bytes) return false;
        uint64_t row_size = 0;
        uint64_t entry_size = 0;
        if (lru_store_.GetSizeOfKey(lru_key, row_size).ok() &&
            Base::GetSizeOfKey(row.foreign_key(), entry_size).ok()) {
          sum += row_size + entry_size;
          lru_keys.push_back(std::move(lru_key));
          main_keys.push_back(row.foreign_key());
        }
        return true;
      },
      nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
             "Failed to compute approximate size to delete old entries.");
    return status;
  }
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
           "Number of entries to delete:  %Lu, approximate size: %Lu",
           static_cast<uint64_t>(main_keys.size()), sum);
  // The main store first: a crash between the two leaves rows that point to
  // nothing, not entries that can never be pruned.
  status = Base::Delete(main_keys, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete entries from store, error=%d, message=%s", status.code,
             status.message);
    return status;
  }
  deleted += main_keys.size();
  status = lru_store_.Delete(lru_keys, false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete entries from LRU store, error=%d, message=%s", status.code,
             status.message);
    return status;
  }
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::DeleteOldByAvgEntries(
    uint64_t count) {
  while (count != 0 && running_) {
    // Always from position 1: the rows of the previous batch are gone.
    std::vector<std::string> lru_keys;
    std::vector<LruValueT> rows;
    Status status = lru_store_.ReadImpl(LruBase::kForward, 1, std::min(count, kPruneBatchSize),
                                        &lru_keys, &rows, nullptr);
    if (!status.ok()) {
      LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
               "Failed to read entries from LRU store while trying to delete, error=%d, "
               "message=%s",
               status.code, status.message);
      return status;
    }
    if (lru_keys.empty()) {
      LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_WARNING,
               "Requested %?d more entries to delete, but none were found", count);
      return Status();
    }
    if (!running_) return Status();
    std::vector<KeyT> main_keys;
    main_keys.reserve(rows.size());
    for (const LruValueT& row : rows) main_keys.push_back(row.foreign_key());
    count -= lru_keys.size();
    status = Base::Delete(main_keys, false);
    if (!status.ok()) {
      LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
               "Failed to delete entries from store, error=%d, message=%s", status.code,
               status.message);
      return status;
    }
    status = lru_store_.Delete(lru_keys, false);
    if (!status.ok()) {
      LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
               "Failed to delete entries from LRU store, error=%d, message=%s", status.code,
               status.message);
      return status;
    }
  }
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Compact() {
  const Status lru_status = lru_store_.Compact();
  if (!lru_status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to compact lru, error=%d, message=%s", lru_status.code, lru_status.message);
  }
  if (!running_) return lru_status;
  const Status status = Base::Compact();
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to compact store, error=%d, message=%s", status.code, status.message);
  }
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
uint64_t PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::GetSize() {
  unsigned long main_size = 0;
  GetDirSizeOnDisk(Base::path(), &main_size);
  unsigned long lru_size = 0;
  GetDirSizeOnDisk(lru_store_.path(), &lru_size);
  return main_size + lru_size;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
uint64_t PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::GetMaxSize() {
  return max_size_mb_;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
uint64_t
PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::GetAndResetPruningDuration() {
  return pruning_duration_.exchange(0);
}

// --- Validity, rebuild and reopen ------------------------------------------

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
bool PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::CheckValidity() {
  bool lru_empty = true;
  Status status = lru_store_.Empty(&lru_empty, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to check if lru is empty, error=%d, message=%s", status.code, status.message);
    return false;
  }
  bool store_empty = true;
  status = Base::Empty(&store_empty, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to check if store is empty, error=%d, message=%s", status.code,
             status.message);
    return false;
  }
  if (store_empty && lru_empty) return true;
  if (!store_empty && !lru_empty) {
    // A side database that was repaired, or lost a table or its log's tail,
    // keeps only some rows; entries without one would never be pruned. It is
    // emptied and rebuilt whole.
    uint64_t without_row = 0;
    if (!CountEntriesWithoutRow(&without_row).ok() || without_row == 0) return true;
    // Information, as the rebuild's own lines: notes dropped at an exit or a
    // crash leave entries without rows as well, and that is no fault.
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
             "%?d entries have no row in '%s'. Rebuilding it.", without_row, lru_store_.path());
    const Status cleared = lru_store_.Clear(false);
    if (!cleared.ok()) {
      LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
               "Failed clearing LRU DB '%s', error=%d, message=%s", lru_store_.path(), cleared.code,
               cleared.message);
      return false;
    }
  }
  // The two failure lines show the emptiness check's status, which succeeded:
  // the cause is in the line the failed operation logged itself.
  if (store_empty) {
    if (lru_store_.Clear(false).ok()) return true;
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed clearing obsolete LRU entries, error=%d, message=%s", status.code,
             status.message);
    return false;
  }
  if (RebuildLru().ok()) return true;
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
           "Failed rebuilding LRU DB '%s', error=%d, message=%s", lru_store_.path(), status.code,
           status.message);
  return false;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::CountEntriesWithoutRow(
    uint64_t* without_row) {
  *without_row = 0;
  // Two walks, one lock at a time: the stores' locks are never nested here.
  std::vector<std::pair<KeyT, uint64_t>> entries;
  Status status = Base::Iterate(
      [&entries](const KeyT& key, const ValueT& value) {
        entries.emplace_back(key, value.lru_data().index());
        return true;
      },
      nullptr);
  if (!status.ok()) return status;
  std::unordered_map<std::string, KeyT> rows;
  status = lru_store_.Iterate(
      [&rows](const std::string& index, const LruValueT& row) {
        rows.emplace(index, row.foreign_key());
        return true;
      },
      nullptr);
  if (!status.ok()) return status;
  std::set<KeyT> pending;
  {
    std::lock_guard<std::mutex> lock(lru_updates_mutex_);
    for (const LruUpdateParams& note : lru_updates_) pending.insert(note.key);
  }
  for (const auto& [key, index] : entries) {
    if (pending.count(key) != 0) continue;
    const auto row = rows.find(LruKey(index));
    if (row == rows.end() || row->second != key) ++*without_row;
  }
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::WriteBackIndex(
    const KeyT& key, uint64_t index, SnapshotHandle snapshot) {
  ValueT stored;
  if (!Base::Get(key, &stored, snapshot).ok()) return;
  stored.mutable_lru_data()->set_index(index);
  Base::Put(key, stored, false);
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::RebuildLru() {
  const std::string& lru_path = lru_store_.path();
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION, "Rebuilding '%s'...", lru_path);

  // Phase 1: a row for every entry at its stored index plus the shift, so
  // that the relative order survives. Entries that share an index collide
  // and are placed at the young end in phase 2.
  SnapshotHandle snapshot = nullptr;
  Status status = Base::CreateSnapshot(&snapshot);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to create snapshot store, error=%d, message=%s", status.code, status.message);
    return status;
  }
  std::vector<KeyT> collisions;
  uint64_t count = 0;
  Base::CountImpl(Base::NullKey(), Base::NullKey(), &count, snapshot);
  for (uint64_t position = 1; position <= count;) {
    std::vector<KeyT> keys;
    std::vector<ValueT> values;
    // A failed read ends the phase, unreported.
    if (!Base::ReadImpl(Base::kForward, position, kRebuildBatchSize, &keys, &values, snapshot)
             .ok() ||
        keys.empty()) {
      break;
    }
    position += keys.size();
    for (size_t i = 0; i < keys.size(); ++i) {
      const uint64_t shifted = values[i].lru_data().index() + kRebuildIndexShift;
      KeyT taken_by;
      if (GetFromLru(shifted, &taken_by).ok()) {
        collisions.push_back(keys[i]);
        continue;
      }
      AddToLru(shifted, keys[i]);
      // The write-back uses the snapshot's record: a change made after it
      // was taken is overwritten with the older value.
      WriteBackIndex(keys[i], shifted, snapshot);
    }
  }
  status = Base::ReleaseSnapshot(snapshot);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to release snapshot store, error=%d, message=%s", status.code, status.message);
  }

  // Phase 2: the counter follows the rows, and what came in meanwhile is
  // renumbered above them.
  uint64_t index = 0;
  status = GetCurrentLruIndex(&index);
  if (!status.ok()) return status;
  SetCurrentLruIndex(index);
  std::list<LruUpdateParams> pending;
  {
    std::lock_guard<std::mutex> lock(lru_updates_mutex_);
    pending.swap(lru_updates_);
  }
  for (LruUpdateParams& note : pending) {
    note.new_index = NextLruIndex();
    WriteBackIndex(note.key, note.new_index, nullptr);
    AddToLruList(note.key, note.old_index, note.new_index);
  }
  for (const KeyT& key : collisions) {
    const uint64_t new_index = NextLruIndex();
    AddToLru(new_index, key);
    WriteBackIndex(key, new_index, nullptr);
  }
  LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_INFORMATION,
           "Successfully completed rebuilding '%s'.", lru_path);
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Reopen(SharedLock& lock) {
  const Status status = Base::Reopen(lock);
  if (!status.ok()) return status;
  lock.unlock();
  CheckValidity();
  lock.lock();
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
void PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::OnLruReopen(Status& status,
                                                                               SharedLock& lock) {
  if (!status.ok()) return;
  // A database that came back may hold fewer rows: the counter follows it,
  // downwards too.
  lock.unlock();
  CheckValidity();
  uint64_t index = 0;
  GetCurrentLruIndex(&index);
  SetCurrentLruIndex(index);
  lock.lock();
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Clear() {
  Status status = Base::Clear(false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to clear store, error=%d, message=%s", status.code, status.message);
    return status;
  }
  status = lru_store_.Clear(false);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to clear LRU, error=%d, message=%s", status.code, status.message);
  }
  return status;
}

template <typename KeyT, typename ValueT, typename DataT, typename LruValueT, typename LruDataT>
Status PersistentLruStore<KeyT, ValueT, DataT, LruValueT, LruDataT>::Dump(
    std::vector<KeyT>* keys, std::vector<ValueT>* values, bool update_lru) {
  if (!CHECK_LOGGED(EnrichmentLogger, keys, "Received nullptr keys parameter")) {
    return Status(Status::kInvalidArgument, "");
  }
  if (!CHECK_LOGGED(EnrichmentLogger, values, "Received nullptr values parameter")) {
    return Status(Status::kInvalidArgument, "");
  }
  keys->clear();
  values->clear();
  const Status status =
      this->template DumpImpl<ValueT>(Base::NullKey(), Base::NullKey(), keys, values, nullptr);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to dump the entire store, error=%d, message=%s", status.code, status.message);
    return status;
  }
  if (update_lru) return UpdateLruOfValues(*keys, *values);
  return Status();
}

}  // namespace persistence
