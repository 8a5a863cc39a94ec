// persistence::KVStore<KeyT, ValueT, DataT>: a store of typed records over
// one persistence::DB.
//
// KeyT is std::string or a protocol-buffer message, ValueT a message, DataT
// the store's bulk message (repeated "entries", each with "key" and "value").
// A record on disk is the value's wire form under the key: a string key as it
// stands, a message key in its wire form. Nothing else is added. Every
// encoding is proved by parsing it back before it is written, so a record the
// store could not read back never reaches the disk.
//
// The store never gives up its database. An operation that finds it closed
// tries to reopen it; an operation that meets Corruption or an I/O error
// reopens it behind the caller's back, with recovery (repair or recreation),
// at most once per min_reopen_delay_. The operation that met the failure is
// not repeated: its caller gets that failure.
//
// Locking: one std::shared_mutex. Every record operation, writes included,
// holds it shared from the open gate to its end; opening, reopening, setting
// the delay and destruction take it exclusively. Iterate holds it shared
// across its callback, which may therefore call shared operations of the same
// store again (the mutex prefers readers), but nothing that takes it
// exclusively.
#pragma once

#include <Poco/Message.h>
#include <google/protobuf/util/message_differencer.h>
#include <leveldb/status.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "nix/dravinhold/logging.h"
#include "persistence/clock.h"
#include "persistence/db.h"
#include "persistence/export.h"
#include "persistence/report.h"
#include "persistence/status.h"
#include "persistence/status_conversion.h"
#include "zerla_common/dir_size.h"

namespace persistence {

// Kept by every store for the common library's heap accounting; never read
// here.
using HeapTag = uint32_t;

// The logger of the store whose values are ValueT. Stores whose records
// belong to another component specialise it.
template <typename ValueT>
struct KVStoreLogger {
  using type = LibPersistenceLogger;
};

// Appends an entry to a bulk message, moving key and value into it.
template <typename DataT, typename KeyT, typename ValueT>
void MoveIntoNewEntry(DataT* data, KeyT& key, ValueT& value) {
  auto* entry = data->add_entries();
  if constexpr (std::is_same_v<KeyT, std::string>) {
    entry->mutable_key()->swap(key);
  } else {
    entry->mutable_key()->Swap(&key);
  }
  entry->mutable_value()->Swap(&value);
}

// Copies data's entries into a vector of keys and one of values. An entry
// without a value gives the default value; one without a key message, the
// default key.
template <typename DataT, typename KeyT, typename ValueT>
void GatherEntries(const DataT& data, std::vector<KeyT>* keys, std::vector<ValueT>* values) {
  keys->reserve(data.entries_size());
  values->reserve(data.entries_size());
  for (const auto& entry : data.entries()) {
    keys->push_back(entry.key());
    values->push_back(entry.value());
  }
}

template <typename KeyT, typename ValueT, typename DataT>
class DRAVINHOLD_EXPORT KVStore {
 public:
  // An opaque snapshot of the store; null means its current state. A handle
  // belongs to its caller from CreateSnapshot to ReleaseSnapshot, and dies
  // with the database it was taken on: it must not be used after a reopen.
  using SnapshotHandle = const void*;
  enum ReadDirection { kForward = 1, kReverse = 2 };
  using Callback = std::function<bool(KeyT, ValueT)>;

  // A closed store. Opens nothing and starts nothing.
  explicit KVStore(HeapTag heap_tag);

  KVStore(const KVStore&) = delete;
  KVStore& operator=(const KVStore&) = delete;

  // The directory of the database, as set by the first open.
  virtual const std::string& path() const;

  // True when the database is open. Does not try to reopen.
  virtual bool is_open() const;

  // The least time between two reopen attempts; 0 or less switches it off.
  virtual void set_min_reopen_delay(std::chrono::nanoseconds delay);

  // Single-key writes. A Delete of an absent key succeeds. "sync" makes the
  // engine sync its log before returning. A value or message key that does
  // not encode is refused with code 1 and nothing is written.
  virtual Status Put(const KeyT& key, const ValueT& value, bool sync);

  // Writes all pairs in one engine write, or nothing. The lengths are not
  // compared: the surplus of the longer vector is dropped.
  virtual Status Put(const std::vector<KeyT>& keys, const std::vector<ValueT>& values, bool sync);
  virtual Status Delete(const KeyT& key, bool sync);
  virtual Status Delete(const std::vector<KeyT>& keys, bool sync);

  // Reads one record into *value, which is cleared first and stays empty on
  // any failure but a record that does not parse. An absent key is code 3.
  virtual Status Get(const KeyT& key, ValueT* value, SnapshotHandle snapshot);

  // Reads the records of "keys" into *values, one to one, or fails whole:
  // code 3 at the first absent key, with *values empty.
  virtual Status Get(const std::vector<KeyT>& keys, std::vector<ValueT>* values,
                     SnapshotHandle snapshot);

  // Calls "callback" for each record in key order (or its reverse) until it
  // returns false. A record that does not decode ends the walk in paranoid
  // mode and is skipped otherwise; neither case is reported.
  virtual Status Iterate(const Callback& callback, SnapshotHandle snapshot);
  virtual Status ReverseIterate(const Callback& callback, SnapshotHandle snapshot);

  // Records from "key_start" (inclusive) to "key_limit" (exclusive); NullKey()
  // as a bound is an open end. "values" may be null. Fails whole on a record
  // that does not decode.
  virtual Status DumpRange(const KeyT& key_start, const KeyT& key_limit, std::vector<KeyT>* keys,
                           std::vector<ValueT>* values, SnapshotHandle snapshot);

  // Counts records without decoding them.
  virtual Status Count(uint64_t* count, SnapshotHandle snapshot);
  virtual Status CountRange(const KeyT& key_start, const KeyT& key_limit, uint64_t* count,
                            SnapshotHandle snapshot);

  // A page of up to "count" records from position "start", counted from 1 in
  // the direction of the walk (0 and 1 both begin at the first record).
  virtual Status ReadInterval(uint64_t start, uint64_t count, std::vector<KeyT>* keys,
                              std::vector<ValueT>* values, SnapshotHandle snapshot);
  virtual Status ReadReverseInterval(uint64_t start, uint64_t count, std::vector<KeyT>* keys,
                                     std::vector<ValueT>* values, SnapshotHandle snapshot);

  // A forward page appended to data's entries. Requires a non-null "data".
  virtual Status ReadDataInterval(uint64_t start, uint64_t count, DataT* data);

  // Replaces the whole store with data's entries in one synchronous write.
  // Refuses a message without entries (code 2) and leaves the store as it
  // was. Requires a non-null "data".
  virtual Status Import(const DataT* data);

  // One engine write: deletes "del_keys", then puts the pairs.
  virtual Status AtomicDeleteAndPut(const std::vector<KeyT>& del_keys,
                                    const std::vector<KeyT>& put_keys,
                                    const std::vector<ValueT>& put_values, bool sync);

  // One engine write that replaces everything in the store with the pairs;
  // readers see the old contents or the new, never a mix.
  virtual Status AtomicClearAndPut(const std::vector<KeyT>& put_keys,
                                   const std::vector<ValueT>& put_values, bool sync);
  virtual Status Clear(bool sync);

  // Sets *is_empty; the handle refuses a null pointer.
  virtual Status Empty(bool* is_empty, SnapshotHandle snapshot);

  virtual Status CreateSnapshot(const void** snapshot);
  virtual Status ReleaseSnapshot(SnapshotHandle snapshot);

  // Compacts the database, in the caller's thread.
  virtual Status Compact();

  // The engine's statistics texts; either pointer may be null.
  virtual Status Stats(std::string* stats, std::string* sstables);

  // Bytes the directory takes on disk; works on a closed store too, and
  // counts a directory that can't be measured as 0.
  virtual uint64_t GetSize();

  // The engine's estimate of the space of the record stored under the bytes
  // "key" (no encoding takes place). "size" is set only on success.
  virtual Status GetSizeOfKey(const std::string& key, uint64_t& size);

  // The maximum size in MiB; 0, no maximum, for a plain store.
  virtual uint64_t GetMaxSize();

  // Closes the database.
  virtual ~KVStore();

  // The open end of a key range. Any other operation treats it as an
  // ordinary key.
  static const KeyT& NullKey();

  // Encodes "message" into "out" and proves the encoding by parsing it back.
  // On false "out" is untouched.
  template <typename T>
  static bool SerializeToString(const T& message, std::string& out);

  // Encodes the messages in order, appending to "out"; stops at the first
  // failure, leaving what was made so far.
  template <typename T>
  static bool SerializeToString(const std::vector<T>& messages, std::vector<std::string>& out);

  // Decodes each string into a message appended to *out_values; stops at the
  // first failure, leaving what was decoded so far.
  template <typename CustomValueT>
  static bool DeserializeFromString(const std::vector<std::string>& in,
                                    std::vector<CustomValueT>* out_values);

  // All records; see DumpRange.
  Status Dump(std::vector<KeyT>* keys, std::vector<ValueT>* values, SnapshotHandle snapshot);

 protected:
  using Logger = typename KVStoreLogger<ValueT>::type;
  using SharedLock = std::shared_lock<std::shared_mutex>;
  using ExclusiveLock = std::unique_lock<std::shared_mutex>;

  virtual Status CountImpl(const KeyT& key_start, const KeyT& key_limit, uint64_t* count,
                           SnapshotHandle snapshot);
  virtual Status ReadImpl(ReadDirection direction, uint64_t start, uint64_t count,
                          std::vector<KeyT>* keys, std::vector<ValueT>* values,
                          SnapshotHandle snapshot);

  // Reopens the store when "status" says Corruption or I/O error. Leaves
  // "status" unchanged; may come back with "lock" released.
  virtual void HandleErrors(leveldb::Status& status, SharedLock& lock);

  // Closes and opens the database again, at most once per min_reopen_delay_
  // however many threads ask. Requires "lock" held. Comes back with it held
  // after a success or a refusal within the delay, and released after a
  // refusal under the exclusive lock or a failure: ask lock.owns_lock().
  virtual Status Reopen(SharedLock& lock);

  template <typename CustomValueT>
  Status DumpImpl(const KeyT& key_start, const KeyT& key_limit, std::vector<KeyT>* keys,
                  std::vector<CustomValueT>* values, SnapshotHandle snapshot);

  // The only way a store opens: exclusively locked, with recovery now and on
  // every later reopen.
  Status OpenWithRecovery(const std::string& path, bool paranoid_checks, size_t cache_size_mb);

  // The callers of these hold mutex_ exclusively.
  Status OpenNoLock(const std::string& path, bool paranoid_checks, bool create_if_missing,
                    size_t cache_size_mb);
  // Opens "path"; a database that fails verification with Corruption is
  // destroyed (paranoid_checks true) or repaired first and destroyed if that
  // does not help (false). Ends with an empty database rather than none.
  Status OpenWithRecoveryNoLock(const std::string& path, bool paranoid_checks,
                                size_t cache_size_mb);
  void CloseNoLock();

  mutable std::shared_mutex mutex_;
  std::unique_ptr<DB> db_;
  std::string path_;
  bool paranoid_checks_ = true;
  bool use_recovery_ = false;
  uint64_t cache_size_mb_ = 0;
  SteadyTimePoint last_reopen_;
  std::chrono::nanoseconds min_reopen_delay_ = std::chrono::seconds(300);
  HeapTag heap_tag_;

 private:
  static constexpr bool kStringKeys = std::is_same_v<KeyT, std::string>;

  // The first steps of every operation that touches the database: with
  // "lock" taken, reopens a closed store. Returns ok with "lock" held when
  // the store is open.
  Status PassOpenGate(SharedLock& lock);

  // The engine status after HandleErrors, as the caller's result.
  Status Finish(leveldb::Status status, SharedLock& lock);

  // The bytes one key is stored under: a string key's own, or a message
  // key's wire form, kept in "scratch".
  struct EncodedKey {
    std::string scratch;
    const std::string* bytes = nullptr;
  };
  // The same for a vector of keys.
  struct EncodedKeys {
    std::vector<std::string> scratch;
    const std::vector<std::string>* bytes = nullptr;
  };

  // Encodes "key" into *encoded. A message key that does not encode is
  // code 1, with "name" and "failure" as the two parts of its message.
  static Status EncodeKey(const KeyT& key, const char* name, const char* failure,
                          EncodedKey* encoded);
  static Status EncodeKeys(const std::vector<KeyT>& keys, const char* name, const char* failure,
                           EncodedKeys* encoded);
  // Encodes a range bound, with NullKey() translated to the handle's own
  // marker.
  static Status EncodeBound(const KeyT& bound, const char* name, EncodedKey* encoded);
  // Encodes "values" in order; code 1 naming "name" at the first that does
  // not encode.
  static Status EncodeValues(const std::vector<ValueT>& values, const char* name,
                             std::vector<std::string>* bytes);

  // Decodes read records into the caller's vectors, values first.
  template <typename CustomValueT>
  static Status DecodeRecords(std::vector<std::string>& key_bytes,
                              const std::vector<std::string>& value_bytes, std::vector<KeyT>* keys,
                              std::vector<CustomValueT>* values);

  Status IterateImpl(bool reverse, const Callback& callback, SnapshotHandle snapshot);
  Status RecreateIfCorruptNoLock(const std::string& path, size_t cache_size_mb);
  Status RepairIfCorruptNoLock(const std::string& path, size_t cache_size_mb);
  // OpenNoLock, then a full verification of what it opened.
  Status OpenAndVerifyNoLock(const std::string& path, bool paranoid_checks, size_t cache_size_mb);
  // Destroys the database and opens it anew, empty. A failed destroy is
  // logged and the open still runs: it may succeed all the same.
  Status RecreateNoLock(const std::string& path, bool paranoid_checks, size_t cache_size_mb);

  static const leveldb::Snapshot* EngineSnapshot(SnapshotHandle snapshot) {
    return static_cast<const leveldb::Snapshot*>(snapshot);
  }
};

// --- Construction, encoding, the null key ---------------------------------

template <typename KeyT, typename ValueT, typename DataT>
KVStore<KeyT, ValueT, DataT>::KVStore(HeapTag heap_tag)
    : last_reopen_(SteadyNow()), heap_tag_(heap_tag) {
  // The logger is made first so that it outlives the store, whose end may
  // still log.
  Logger::Instance();
}

template <typename KeyT, typename ValueT, typename DataT>
KVStore<KeyT, ValueT, DataT>::~KVStore() {
  ExclusiveLock lock(mutex_);
  CloseNoLock();
}

template <typename KeyT, typename ValueT, typename DataT>
const KeyT& KVStore<KeyT, ValueT, DataT>::NullKey() {
  if constexpr (kStringKeys) {
    static const std::string kNullKey = "Zerla::Persistence::KVStore::NullKey";
    return kNullKey;
  } else {
    static const KeyT kNullKey = KeyT::default_instance();
    return kNullKey;
  }
}

template <typename KeyT, typename ValueT, typename DataT>
template <typename T>
bool KVStore<KeyT, ValueT, DataT>::SerializeToString(const T& message, std::string& out) {
  std::string bytes;
  if (!message.SerializeToString(&bytes)) return false;
  T parsed;
  if (!parsed.ParseFromString(bytes)) return false;
  out.swap(bytes);
  return true;
}

template <typename KeyT, typename ValueT, typename DataT>
template <typename T>
bool KVStore<KeyT, ValueT, DataT>::SerializeToString(const std::vector<T>& messages,
                                                     std::vector<std::string>& out) {
  out.reserve(messages.size());
  for (const T& message : messages) {
    std::string bytes;
    if (!SerializeToString(message, bytes)) return false;
    out.push_back(std::move(bytes));
  }
  return true;
}

template <typename KeyT, typename ValueT, typename DataT>
template <typename CustomValueT>
bool KVStore<KeyT, ValueT, DataT>::DeserializeFromString(const std::vector<std::string>& in,
                                                         std::vector<CustomValueT>* out_values) {
  if (!CHECK_LOGGED(Logger, out_values, "out_values is nullptr")) return false;
  out_values->reserve(in.size());
  for (const std::string& bytes : in) {
    CustomValueT message;
    if (!message.ParseFromString(bytes)) return false;
    out_values->emplace_back();
    out_values->back().Swap(&message);
  }
  return true;
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::EncodeKey(const KeyT& key, [[maybe_unused]] const char* name,
                                               [[maybe_unused]] const char* failure,
                                               EncodedKey* encoded) {
  if constexpr (kStringKeys) {
    encoded->bytes = &key;
  } else {
    if (!SerializeToString(key, encoded->scratch)) {
      return Status(leveldb::Status::NotSupported(name, failure));
    }
    encoded->bytes = &encoded->scratch;
  }
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::EncodeKeys(const std::vector<KeyT>& keys,
                                                [[maybe_unused]] const char* name,
                                                [[maybe_unused]] const char* failure,
                                                EncodedKeys* encoded) {
  if constexpr (kStringKeys) {
    encoded->bytes = &keys;
  } else {
    if (!SerializeToString(keys, encoded->scratch)) {
      return Status(leveldb::Status::NotSupported(name, failure));
    }
    encoded->bytes = &encoded->scratch;
  }
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::EncodeBound(const KeyT& bound, const char* name,
                                                 EncodedKey* encoded) {
  bool is_null_key;
  if constexpr (kStringKeys) {
    is_null_key = bound == NullKey();
  } else {
    is_null_key = google::protobuf::util::MessageDifferencer::Equals(bound, NullKey());
  }
  if (!is_null_key) return EncodeKey(bound, name, "SerializeToString", encoded);
  encoded->bytes = &DB::NullKey();
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::EncodeValues(const std::vector<ValueT>& values,
                                                  const char* name,
                                                  std::vector<std::string>* bytes) {
  if (SerializeToString(values, *bytes)) return Status();
  return Status(leveldb::Status::NotSupported(name, "Failed serializing values"));
}

// --- Opening, the open gate and recovery ----------------------------------

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::OpenWithRecovery(const std::string& path, bool paranoid_checks,
                                                      size_t cache_size_mb) {
  ExclusiveLock lock(mutex_);
  use_recovery_ = true;
  return OpenWithRecoveryNoLock(path, paranoid_checks, cache_size_mb);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::OpenNoLock(const std::string& path, bool paranoid_checks,
                                                bool create_if_missing, size_t cache_size_mb) {
  if (!CHECK_LOGGED(Logger, !db_, "db_ is not nullptr")) {
    return Status(leveldb::Status::InvalidArgument("db_", "!nullptr"));
  }
  // Kept even if the open fails, so that a reopen tries the same again.
  cache_size_mb_ = cache_size_mb;
  paranoid_checks_ = paranoid_checks;
  path_ = path;
  db_ = std::make_unique<DB>(path_);
  const leveldb::Status status = db_->Open(paranoid_checks, create_if_missing, true, cache_size_mb);
  if (!status.ok()) {
    LOG_LINE(Logger, Poco::Message::PRIO_ERROR, "Failed to open database '%s'.", path_);
    db_.reset();
    return Status(status);
  }
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT>
void KVStore<KeyT, ValueT, DataT>::CloseNoLock() {
  if (!db_) return;
  db_->Close();
  db_.reset();
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::OpenWithRecoveryNoLock(const std::string& path,
                                                            bool paranoid_checks,
                                                            size_t cache_size_mb) {
  if (!CHECK_LOGGED(Logger, !db_, "db_ is not nullptr")) {
    return Status(leveldb::Status::InvalidArgument("db_", "!nullptr"));
  }
  return paranoid_checks ? RecreateIfCorruptNoLock(path, cache_size_mb)
                         : RepairIfCorruptNoLock(path, cache_size_mb);
}

// Each step that makes a new handle replaces the old one, so that a database
// still open in it is closed before the next step touches the directory.
template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::OpenAndVerifyNoLock(const std::string& path,
                                                         bool paranoid_checks,
                                                         size_t cache_size_mb) {
  Status status = OpenNoLock(path, paranoid_checks, true, cache_size_mb);
  if (status.ok()) status = Status(db_->Verify());
  return status;
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::RecreateNoLock(const std::string& path, bool paranoid_checks,
                                                    size_t cache_size_mb) {
  db_ = std::make_unique<DB>(path);
  if (!db_->Destroy().ok()) {
    LOG_LINE(Logger, Poco::Message::PRIO_WARNING,
             "Failed to destroy database '%s'. Reopening again.", path);
  }
  db_.reset();
  return OpenNoLock(path, paranoid_checks, true, cache_size_mb);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::RecreateIfCorruptNoLock(const std::string& path,
                                                             size_t cache_size_mb) {
  const Status status = OpenAndVerifyNoLock(path, true, cache_size_mb);
  if (status.code != Status::kCorruption) return status;
  LOG_LINE(Logger, Poco::Message::PRIO_CRITICAL,
           "Failed to open corrupted database '%s'. Recreating.", path);
  return RecreateNoLock(path, true, cache_size_mb);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::RepairIfCorruptNoLock(const std::string& path,
                                                           size_t cache_size_mb) {
  // A probe that neither creates nor changes the store's fields. On a first
  // start it fails for want of a database, and the real open creates one.
  db_ = std::make_unique<DB>(path);
  Status status(db_->Open(true, false, false, 0));
  if (status.ok()) status = Status(db_->Verify());
  if (status.code != Status::kCorruption) {
    db_.reset();
    return OpenNoLock(path, false, true, cache_size_mb);
  }

  LOG_LINE(Logger, Poco::Message::PRIO_CRITICAL,
           "Failed to open corrupted database '%s'. Attempting repair.", path);
  db_ = std::make_unique<DB>(path);
  if (!db_->Repair().ok()) {
    LOG_LINE(Logger, Poco::Message::PRIO_WARNING,
             "Failed to repair database '%s'. Reopening again.", path);
  }
  db_.reset();
  status = OpenAndVerifyNoLock(path, false, cache_size_mb);
  if (status.code != Status::kCorruption) return status;
  LOG_LINE(Logger, Poco::Message::PRIO_CRITICAL, "Failed to repair database '%s' - recreating.",
           path);
  return RecreateNoLock(path, false, cache_size_mb);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::PassOpenGate(SharedLock& lock) {
  if (db_) return Status();
  const Status status = Reopen(lock);
  // A reopen that failed, or that another thread ran, comes back with the
  // lock released; it is taken again before db_ is looked at, so that no
  // operation touches the handle unlocked.
  if (!lock.owns_lock()) lock.lock();
  if (db_) return Status();
  if (!status.ok()) return status;
  return Status(leveldb::Status::IOError("db_", "nullptr"));
}

template <typename KeyT, typename ValueT, typename DataT>
void KVStore<KeyT, ValueT, DataT>::HandleErrors(leveldb::Status& status, SharedLock& lock) {
  if (status.ok()) return;
  // Other failures say nothing about the database's health.
  if (!status.IsCorruption() && !status.IsIOError()) return;
  Reopen(lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Finish(leveldb::Status status, SharedLock& lock) {
  HandleErrors(status, lock);
  return Status(status);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Reopen(SharedLock& lock) {
  logger_ndc_push(Poco::format("Reopen(%s)", path_));
  struct NdcPop {
    ~NdcPop() { logger_ndc_pop(); }
  } ndc_pop;
  const Status refused(Status::kIOError, "");

  // Tested first under the shared lock, so that the many callers of a failing
  // store don't queue for the exclusive side.
  if (SteadyNow() - last_reopen_ < min_reopen_delay_) return refused;
  lock.unlock();
  ExclusiveLock exclusive(mutex_);
  // Tested again: another thread may have reopened while none was held.
  if (SteadyNow() - last_reopen_ < min_reopen_delay_) return refused;
  last_reopen_ = SteadyNow();

  LOG_LINE(Logger, Poco::Message::PRIO_NOTICE, "Reopening the database...");
  CloseNoLock();
  const Status status = use_recovery_
                            ? OpenWithRecoveryNoLock(path_, paranoid_checks_, cache_size_mb_)
                            : OpenNoLock(path_, paranoid_checks_, true, cache_size_mb_);
  if (!status.ok()) {
    LOG_LINE(Logger, Poco::Message::PRIO_CRITICAL, "Database failed to recover with error %d (%s)",
             status.code, status.message);
    return status;
  }
  LOG_LINE(Logger, Poco::Message::PRIO_NOTICE, "Database reopened successfully!");
  exclusive.unlock();
  lock.lock();
  return status;
}

template <typename KeyT, typename ValueT, typename DataT>
void KVStore<KeyT, ValueT, DataT>::set_min_reopen_delay(std::chrono::nanoseconds delay) {
  ExclusiveLock lock(mutex_);
  min_reopen_delay_ = delay;
}

// --- Single keys ----------------------------------------------------------

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Put(const KeyT& key, const ValueT& value, bool sync) {
  SharedLock lock(mutex_);
  Status status = PassOpenGate(lock);
  if (!status.ok()) return status;
  std::string value_bytes;
  if (!SerializeToString(value, value_bytes)) {
    return Status(leveldb::Status::NotSupported("value", "Failed serializing value"));
  }
  EncodedKey key_bytes;
  status = EncodeKey(key, "key", "Failed serializing key", &key_bytes);
  if (!status.ok()) return status;
  return Finish(db_->Put(*key_bytes.bytes, value_bytes, sync), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Get(const KeyT& key, ValueT* value, SnapshotHandle snapshot) {
  if (!CHECK_LOGGED(Logger, value, "value is nullptr")) {
    return Status(leveldb::Status::InvalidArgument("value", "nullptr"));
  }
  value->Clear();
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  EncodedKey key_bytes;
  const Status encoded = EncodeKey(key, "key", "Failed serializing key", &key_bytes);
  if (!encoded.ok()) return encoded;
  std::string value_bytes;
  leveldb::Status status = db_->Get(*key_bytes.bytes, &value_bytes, EngineSnapshot(snapshot));
  HandleErrors(status, lock);
  // A record that does not parse is damage in one record, not in the
  // database: it is reported to the caller and left where it is.
  if (status.ok() && !value->ParseFromString(value_bytes)) {
    return Status(leveldb::Status::NotSupported("db_value", "Failed deserializing value"));
  }
  return Status(status);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Delete(const KeyT& key, bool sync) {
  SharedLock lock(mutex_);
  EncodedKey key_bytes;
  Status status = PassOpenGate(lock);
  if (status.ok()) status = EncodeKey(key, "key", "Failed serializing key", &key_bytes);
  if (!status.ok()) return status;
  return Finish(db_->Delete(*key_bytes.bytes, sync), lock);
}

// --- Bulk writes: everything is encoded, values first, before one handle call.

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Put(const std::vector<KeyT>& keys,
                                         const std::vector<ValueT>& values, bool sync) {
  SharedLock lock(mutex_);
  std::vector<std::string> value_bytes;
  EncodedKeys key_bytes;
  Status status = PassOpenGate(lock);
  if (status.ok()) status = EncodeValues(values, "values", &value_bytes);
  if (status.ok()) status = EncodeKeys(keys, "keys", "Failed serializing keys", &key_bytes);
  if (!status.ok()) return status;
  return Finish(db_->Put(*key_bytes.bytes, value_bytes, sync), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Delete(const std::vector<KeyT>& keys, bool sync) {
  SharedLock lock(mutex_);
  EncodedKeys key_bytes;
  Status status = PassOpenGate(lock);
  if (status.ok()) status = EncodeKeys(keys, "keys", "Failed serializing keys", &key_bytes);
  if (!status.ok()) return status;
  return Finish(db_->Delete(*key_bytes.bytes, sync), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::AtomicDeleteAndPut(const std::vector<KeyT>& del_keys,
                                                        const std::vector<KeyT>& put_keys,
                                                        const std::vector<ValueT>& put_values,
                                                        bool sync) {
  SharedLock lock(mutex_);
  std::vector<std::string> value_bytes;
  EncodedKeys del_bytes;
  EncodedKeys put_bytes;
  Status status = PassOpenGate(lock);
  if (status.ok()) status = EncodeValues(put_values, "put_values", &value_bytes);
  if (status.ok()) {
    status = EncodeKeys(del_keys, "del_keys", "Failed serializing keys to delete", &del_bytes);
  }
  if (status.ok()) {
    status = EncodeKeys(put_keys, "put_keys", "Failed serializing keys to put", &put_bytes);
  }
  if (!status.ok()) return status;
  return Finish(db_->AtomicDeleteAndPut(*del_bytes.bytes, *put_bytes.bytes, value_bytes, sync),
                lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::AtomicClearAndPut(const std::vector<KeyT>& put_keys,
                                                       const std::vector<ValueT>& put_values,
                                                       bool sync) {
  SharedLock lock(mutex_);
  std::vector<std::string> value_bytes;
  EncodedKeys put_bytes;
  Status status = PassOpenGate(lock);
  if (status.ok()) status = EncodeValues(put_values, "put_values", &value_bytes);
  if (status.ok()) {
    status = EncodeKeys(put_keys, "put_keys", "Failed serializing keys to put", &put_bytes);
  }
  if (!status.ok()) return status;
  return Finish(db_->AtomicClearAndPut(*put_bytes.bytes, value_bytes, sync), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Clear(bool sync) {
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  return Finish(db_->Clear(sync), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Import(const DataT* data) {
  std::vector<KeyT> keys;
  std::vector<ValueT> values;
  GatherEntries(*data, &keys, &values);
  if (keys.empty() || values.empty()) {
    return Status(Status::kInvalidArgument, "Received empty keys or values vector");
  }
  const Status status = AtomicClearAndPut(keys, values, true);
  if (!status.ok()) std::cerr << "Failed to write data" << std::endl;
  return status;
}

// --- Range reads ----------------------------------------------------------

template <typename KeyT, typename ValueT, typename DataT>
template <typename CustomValueT>
Status KVStore<KeyT, ValueT, DataT>::DecodeRecords(std::vector<std::string>& key_bytes,
                                                   const std::vector<std::string>& value_bytes,
                                                   std::vector<KeyT>* keys,
                                                   std::vector<CustomValueT>* values) {
  if (values != nullptr && !DeserializeFromString(value_bytes, values)) {
    return Status(leveldb::Status::NotSupported("db_values", "Failed deserializing values"));
  }
  if constexpr (kStringKeys) {
    keys->swap(key_bytes);
  } else {
    if (!DeserializeFromString(key_bytes, keys)) {
      return Status(leveldb::Status::NotSupported("db_keys", "Failed deserializing keys"));
    }
  }
  return Status();
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Get(const std::vector<KeyT>& keys, std::vector<ValueT>* values,
                                         SnapshotHandle snapshot) {
  if (!CHECK_LOGGED(Logger, values, "values is nullptr")) {
    return Status(leveldb::Status::InvalidArgument("values", "nullptr"));
  }
  values->clear();
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  EncodedKeys key_bytes;
  const Status encoded = EncodeKeys(keys, "keys", "Failed serializing keys", &key_bytes);
  if (!encoded.ok()) return encoded;
  std::vector<std::string> value_bytes;
  leveldb::Status status = db_->Get(*key_bytes.bytes, &value_bytes, EngineSnapshot(snapshot));
  HandleErrors(status, lock);
  if (status.ok() && !DeserializeFromString(value_bytes, values)) {
    return Status(leveldb::Status::NotSupported("db_values", "Failed deserializing values"));
  }
  return Status(status);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Dump(std::vector<KeyT>* keys, std::vector<ValueT>* values,
                                          SnapshotHandle snapshot) {
  return DumpImpl(NullKey(), NullKey(), keys, values, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::DumpRange(const KeyT& key_start, const KeyT& key_limit,
                                               std::vector<KeyT>* keys, std::vector<ValueT>* values,
                                               SnapshotHandle snapshot) {
  return DumpImpl(key_start, key_limit, keys, values, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
template <typename CustomValueT>
Status KVStore<KeyT, ValueT, DataT>::DumpImpl(const KeyT& key_start, const KeyT& key_limit,
                                              std::vector<KeyT>* keys,
                                              std::vector<CustomValueT>* values,
                                              SnapshotHandle snapshot) {
  if (!CHECK_LOGGED(Logger, keys, "keys is nullptr")) {
    return Status(leveldb::Status::InvalidArgument("keys", "nullptr"));
  }
  keys->clear();
  if (values != nullptr) values->clear();
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  EncodedKey start;
  EncodedKey limit;
  Status bounds = EncodeBound(key_start, "key_start", &start);
  if (bounds.ok()) bounds = EncodeBound(key_limit, "key_limit", &limit);
  if (!bounds.ok()) return bounds;
  std::vector<std::string> key_bytes;
  std::vector<std::string> value_bytes;
  leveldb::Status status =
      db_->DumpRange(*start.bytes, *limit.bytes, &key_bytes,
                     values != nullptr ? &value_bytes : nullptr, EngineSnapshot(snapshot));
  HandleErrors(status, lock);
  if (!status.ok()) return Status(status);
  return DecodeRecords(key_bytes, value_bytes, keys, values);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Count(uint64_t* count, SnapshotHandle snapshot) {
  return CountImpl(NullKey(), NullKey(), count, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::CountRange(const KeyT& key_start, const KeyT& key_limit,
                                                uint64_t* count, SnapshotHandle snapshot) {
  return CountImpl(key_start, key_limit, count, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::CountImpl(const KeyT& key_start, const KeyT& key_limit,
                                               uint64_t* count, SnapshotHandle snapshot) {
  if (!CHECK_LOGGED(Logger, count, "count is nullptr")) {
    return Status(leveldb::Status::InvalidArgument("count", "nullptr"));
  }
  *count = 0;
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  EncodedKey start;
  EncodedKey limit;
  Status bounds = EncodeBound(key_start, "key_start", &start);
  if (bounds.ok()) bounds = EncodeBound(key_limit, "key_limit", &limit);
  if (!bounds.ok()) return bounds;
  return Finish(db_->CountRange(*start.bytes, *limit.bytes, count, EngineSnapshot(snapshot)), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::ReadInterval(uint64_t start, uint64_t count,
                                                  std::vector<KeyT>* keys,
                                                  std::vector<ValueT>* values,
                                                  SnapshotHandle snapshot) {
  return ReadImpl(kForward, start, count, keys, values, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::ReadReverseInterval(uint64_t start, uint64_t count,
                                                         std::vector<KeyT>* keys,
                                                         std::vector<ValueT>* values,
                                                         SnapshotHandle snapshot) {
  return ReadImpl(kReverse, start, count, keys, values, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::ReadImpl(ReadDirection direction, uint64_t start,
                                              uint64_t count, std::vector<KeyT>* keys,
                                              std::vector<ValueT>* values,
                                              SnapshotHandle snapshot) {
  if (!CHECK_LOGGED(Logger, keys, "keys is nullptr")) {
    return Status(leveldb::Status::InvalidArgument("keys", "nullptr"));
  }
  keys->clear();
  if (values != nullptr) values->clear();
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  if (count == ~uint64_t{0}) count = DB::MaxCount();
  const auto read_step = direction == kForward ? &DB::ReadInterval : &DB::ReadReverseInterval;
  std::vector<std::string> key_bytes;
  std::vector<std::string> value_bytes;
  leveldb::Status status =
      (db_.get()->*read_step)(start, count, &key_bytes, values != nullptr ? &value_bytes : nullptr,
                              EngineSnapshot(snapshot));
  HandleErrors(status, lock);
  if (!status.ok()) return Status(status);
  return DecodeRecords(key_bytes, value_bytes, keys, values);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::ReadDataInterval(uint64_t start, uint64_t count, DataT* data) {
  std::vector<KeyT> keys;
  std::vector<ValueT> values;
  const Status status = ReadInterval(start, count, &keys, &values, nullptr);
  if (!status.ok()) {
    LOG_LINE(Logger, Poco::Message::PRIO_ERROR, "status code=%d message=%s", status.code,
             status.message);
    return status;
  }
  for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
    MoveIntoNewEntry(data, keys[i], values[i]);
  }
  return status;
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Iterate(const Callback& callback, SnapshotHandle snapshot) {
  return IterateImpl(false, callback, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::ReverseIterate(const Callback& callback,
                                                    SnapshotHandle snapshot) {
  return IterateImpl(true, callback, snapshot);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::IterateImpl(bool reverse, const Callback& callback,
                                                 SnapshotHandle snapshot) {
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  // A record that does not decode ends the walk in paranoid mode and is
  // skipped otherwise, silently either way.
  const auto decode_and_call = [this, &callback](std::string key_bytes,
                                                 std::string value_bytes) -> bool {
    ValueT value;
    if (!value.ParseFromString(value_bytes)) return !paranoid_checks_;
    if constexpr (kStringKeys) {
      return callback(std::move(key_bytes), std::move(value));
    } else {
      KeyT key;
      if (!key.ParseFromString(key_bytes)) return !paranoid_checks_;
      return callback(std::move(key), std::move(value));
    }
  };
  const leveldb::Status status =
      reverse ? db_->ReverseIterate(decode_and_call, EngineSnapshot(snapshot))
              : db_->Iterate(decode_and_call, EngineSnapshot(snapshot));
  return Finish(status, lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Empty(bool* is_empty, SnapshotHandle snapshot) {
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  return Finish(db_->Empty(is_empty, EngineSnapshot(snapshot)), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::CreateSnapshot(const void** snapshot) {
  if (!CHECK_LOGGED(Logger, snapshot, "snapshot is nullptr")) {
    return Status(leveldb::Status::InvalidArgument("snapshot", "nullptr"));
  }
  *snapshot = nullptr;
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  const leveldb::Snapshot* engine_snapshot = nullptr;
  const leveldb::Status status = db_->CreateSnapshot(&engine_snapshot);
  *snapshot = engine_snapshot;
  return Finish(status, lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::ReleaseSnapshot(SnapshotHandle snapshot) {
  if (!CHECK_LOGGED(Logger, snapshot, "snapshot is nullptr")) {
    return Status(leveldb::Status::InvalidArgument("snapshot", "nullptr"));
  }
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  return Finish(db_->ReleaseSnapshot(EngineSnapshot(snapshot)), lock);
}

// --- Upkeep and introspection ---------------------------------------------

template <typename KeyT, typename ValueT, typename DataT>
const std::string& KVStore<KeyT, ValueT, DataT>::path() const {
  // path_ changes only on the first open; a reopen assigns the same text.
  { SharedLock lock(mutex_); }
  return path_;
}

template <typename KeyT, typename ValueT, typename DataT>
bool KVStore<KeyT, ValueT, DataT>::is_open() const {
  SharedLock lock(mutex_);
  return db_ && db_->is_open();
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Compact() {
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  return Finish(db_->Compact(), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::Stats(std::string* stats, std::string* sstables) {
  if (stats != nullptr) stats->clear();
  if (sstables != nullptr) sstables->clear();
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  return Finish(db_->Stats(stats, sstables), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
Status KVStore<KeyT, ValueT, DataT>::GetSizeOfKey(const std::string& key, uint64_t& size) {
  SharedLock lock(mutex_);
  const Status gate = PassOpenGate(lock);
  if (!gate.ok()) return gate;
  return Finish(db_->GetSizeOfKey(key, size), lock);
}

template <typename KeyT, typename ValueT, typename DataT>
uint64_t KVStore<KeyT, ValueT, DataT>::GetSize() {
  unsigned long size = 0;
  GetDirSizeOnDisk(path(), &size);
  return size;
}

template <typename KeyT, typename ValueT, typename DataT>
uint64_t KVStore<KeyT, ValueT, DataT>::GetMaxSize() {
  return 0;
}

}  // namespace persistence
