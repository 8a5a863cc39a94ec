#include "persistence/db.h"

#include <leveldb/comparator.h>
#include <leveldb/env.h>
#include <leveldb/iterator.h>

#include <atomic>
#include <exception>
#include <limits>

#include "persistence/report.h"
#include "persistence/testing/seams.h"

namespace persistence {
namespace {

std::atomic<leveldb::Env*> test_env{nullptr};

// Runs an engine call; an exception derived from std::exception becomes an
// IOError with its text, anything else passes through.
template <typename Call>
leveldb::Status Guarded(const Call& call) {
  try {
    return call();
  } catch (const std::exception& failure) {
    return leveldb::Status::IOError(failure.what(), "");
  }
}

leveldb::ReadOptions MakeReadOptions(bool verify_checksums, bool fill_cache,
                                     const leveldb::Snapshot* snapshot) {
  leveldb::ReadOptions options;
  options.verify_checksums = verify_checksums;
  options.fill_cache = fill_cache;
  options.snapshot = snapshot;
  return options;
}

leveldb::WriteOptions MakeWriteOptions(bool sync) {
  leveldb::WriteOptions options;
  options.sync = sync;
  return options;
}

// The caller's snapshot, or one of our own that is given back at scope end or
// by Release(), whichever comes first.
class ScopedSnapshot {
 public:
  ScopedSnapshot(leveldb::DB* db, const leveldb::Snapshot* given)
      : db_(db), own_(given == nullptr ? db->GetSnapshot() : nullptr) {
    snapshot_ = given == nullptr ? own_ : given;
  }
  ~ScopedSnapshot() { Release(); }
  ScopedSnapshot(const ScopedSnapshot&) = delete;
  ScopedSnapshot& operator=(const ScopedSnapshot&) = delete;

  const leveldb::Snapshot* get() const { return snapshot_; }

  void Release() {
    if (own_ != nullptr) db_->ReleaseSnapshot(own_);
    own_ = nullptr;
  }

 private:
  leveldb::DB* const db_;
  const leveldb::Snapshot* own_;
  const leveldb::Snapshot* snapshot_;
};

void AppendIfWanted(std::vector<std::string>* out, const leveldb::Slice& slice) {
  if (out != nullptr) out->push_back(slice.ToString());
}

void ClearIfGiven(std::vector<std::string>* out) {
  if (out != nullptr) out->clear();
}

}  // namespace

DB::DB(const std::string& path) : path_(path) {}

// The engine must go before its cache and filter policy, which it uses until
// its background work has stopped.
DB::~DB() { db_.reset(); }

uint64_t DB::MaxCount() { return std::numeric_limits<uint64_t>::max(); }

const std::string& DB::NullKey() {
  static const std::string kNullKey = "Zerla::Persistence::DB::NullKey";
  return kNullKey;
}

bool DB::IsNullKey(const std::string& key) { return key == NullKey(); }

namespace testing {
void SetEnvForTesting(leveldb::Env* env) { test_env.store(env); }
}  // namespace testing

leveldb::Options DB::OptionsForEnv() const {
  leveldb::Options options;
  if (leveldb::Env* env = test_env.load()) options.env = env;
  return options;
}

// --- Preconditions and the failure tail -----------------------------------

leveldb::Status DB::CheckOpen() const {
  if (!CHECK_STDERR(db_, "db_ is nullptr"))
    return leveldb::Status::InvalidArgument("db_", "nullptr");
  return leveldb::Status::OK();
}

leveldb::Status DB::CheckNotCorrupted() const {
  if (corrupted_) return leveldb::Status::Corruption("corrupted_", "true");
  return leveldb::Status::OK();
}

leveldb::Status DB::CheckOpenAndNotCorrupted() const {
  leveldb::Status status = CheckOpen();
  if (status.ok()) status = CheckNotCorrupted();
  return status;
}

namespace {

leveldb::Status CheckKey(const std::string& key, const char* role) {
  if (!CHECK_STDERR(!key.empty(), "!key.empty()"))
    return leveldb::Status::InvalidArgument(role, "empty");
  return leveldb::Status::OK();
}

}  // namespace

void DB::FlagCorruption(const leveldb::Status& status) {
  if (status.IsCorruption() && paranoid_checks_) corrupted_ = true;
}

leveldb::Status DB::FailureTail(const leveldb::Status& status, const char* operation) {
  FlagCorruption(status);
  REPORT_STDERR(path_, operation, status);
  (void)CHECK_STDERR(status.ok(), "status.cond()");
  return status;
}

leveldb::Status DB::ReadFailureTail(const leveldb::Status& status, const char* operation) {
  FlagCorruption(status);
  REPORT_STDERR(path_, operation, status);
  (void)CHECK_STDERR(status.ok() || status.IsNotFound(), "status.cond1() || status.cond2()");
  return status;
}

// --- Open, close, single keys ---------------------------------------------

leveldb::Status DB::Open(bool paranoid_checks, bool create_if_missing, bool use_bloom_filter,
                         uint64_t cache_size_mb) {
  if (!CHECK_STDERR(!path_.empty(), "!path_.empty()")) {
    return leveldb::Status::InvalidArgument("path_", "empty");
  }
  if (!CHECK_STDERR(!db_, "!db_")) return leveldb::Status::InvalidArgument("db_", "!nullptr");
  paranoid_checks_ = paranoid_checks;
  corrupted_ = false;

  leveldb::Options options = OptionsForEnv();
  options.create_if_missing = create_if_missing;
  options.paranoid_checks = paranoid_checks;
  leveldb::Status status;
  try {
    if (use_bloom_filter) {
      filter_policy_.reset(leveldb::NewBloomFilterPolicy(10));
      options.filter_policy = filter_policy_.get();
    }
    if (cache_size_mb != 0) {
      cache_.reset(leveldb::NewLRUCache(cache_size_mb << 20));
      options.block_cache = cache_.get();
    }
    leveldb::DB* db = nullptr;
    status = leveldb::DB::Open(options, path_, &db);
    db_.reset(db);
  } catch (const std::exception& failure) {
    db_.reset();
    cache_.reset();
    filter_policy_.reset();
    return leveldb::Status::IOError(failure.what(), "");
  }
  if (!status.ok()) db_.reset();
  return status;
}

leveldb::Status DB::Close() {
  if (!db_) return leveldb::Status::InvalidArgument("db_", "nullptr");
  db_.reset();
  cache_.reset();
  filter_policy_.reset();
  corrupted_ = false;
  return leveldb::Status::OK();
}

bool DB::is_open() const { return db_ != nullptr; }

leveldb::Status DB::Put(const std::string& key, const std::string& value, bool sync) {
  leveldb::Status status = CheckKey(key, "key");
  if (status.ok()) status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  status = db_->Put(MakeWriteOptions(sync), key, value);
  return status.ok() ? status : FailureTail(status, "Put");
}

leveldb::Status DB::Delete(const std::string& key, bool sync) {
  leveldb::Status status = CheckKey(key, "key");
  if (status.ok()) status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  status = db_->Delete(MakeWriteOptions(sync), key);
  return status.ok() ? status : FailureTail(status, "Delete");
}

leveldb::Status DB::Get(const std::string& key, std::string* value,
                        const leveldb::Snapshot* snapshot) {
  leveldb::Status status = CheckKey(key, "key");
  if (!status.ok()) return status;
  if (value == nullptr) return leveldb::Status::InvalidArgument("value", "nullptr");
  value->clear();
  status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  status = db_->Get(MakeReadOptions(false, true, snapshot), key, value);
  if (status.ok() || status.IsNotFound()) return status;
  return ReadFailureTail(status, "Get");
}

// --- Batched writes -------------------------------------------------------

leveldb::Status DB::WriteBatchImpl(leveldb::WriteBatch& batch,
                                   const std::vector<std::string>& del_keys,
                                   const std::vector<std::string>& put_keys,
                                   const std::vector<std::string>& put_values, bool sync) {
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  for (const std::string& key : del_keys) {
    status = CheckKey(key, "del_key");
    if (!status.ok()) return status;
    batch.Delete(key);
  }
  for (size_t i = 0; i < put_keys.size() && i < put_values.size(); ++i) {
    status = CheckKey(put_keys[i], "put_key");
    if (!status.ok()) return status;
    batch.Put(put_keys[i], put_values[i]);
  }
  status = db_->Write(MakeWriteOptions(sync), &batch);
  return status.ok() ? status : FailureTail(status, "WriteBatch");
}

leveldb::Status DB::Put(const std::vector<std::string>& keys,
                        const std::vector<std::string>& values, bool sync) {
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  leveldb::WriteBatch batch;
  status = WriteBatchImpl(batch, {}, keys, values, sync);
  return status.ok() ? status : FailureTail(status, "Put");
}

leveldb::Status DB::Delete(const std::vector<std::string>& keys, bool sync) {
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  leveldb::WriteBatch batch;
  status = WriteBatchImpl(batch, keys, {}, {}, sync);
  return status.ok() ? status : FailureTail(status, "Delete");
}

leveldb::Status DB::AtomicDeleteAndPut(const std::vector<std::string>& del_keys,
                                       const std::vector<std::string>& put_keys,
                                       const std::vector<std::string>& put_values, bool sync) {
  return AtomicDeleteAndPutImpl(del_keys, put_keys, put_values, sync);
}

leveldb::Status DB::AtomicClearAndPut(const std::vector<std::string>& keys,
                                      const std::vector<std::string>& values, bool sync) {
  return AtomicClearAndPutImpl(keys, values, sync);
}

leveldb::Status DB::Clear(bool sync) { return AtomicClearAndPutImpl({}, {}, sync); }

leveldb::Status DB::AtomicDeleteAndPutImpl(const std::vector<std::string>& del_keys,
                                           const std::vector<std::string>& put_keys,
                                           const std::vector<std::string>& put_values, bool sync) {
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  leveldb::WriteBatch batch;
  status = WriteBatchImpl(batch, del_keys, put_keys, put_values, sync);
  return status.ok() ? status : FailureTail(status, "AtomicDeleteAndPut");
}

leveldb::Status DB::AtomicClearAndPutImpl(const std::vector<std::string>& keys,
                                          const std::vector<std::string>& values, bool sync) {
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  leveldb::WriteBatch batch;
  {
    // The scan that collects the present keys does not fill the block cache.
    std::unique_ptr<leveldb::Iterator> it(db_->NewIterator(MakeReadOptions(false, false, nullptr)));
    for (it->SeekToFirst(); it->Valid(); it->Next()) batch.Delete(it->key());
    status = it->status();
  }
  if (status.ok()) status = WriteBatchImpl(batch, {}, keys, values, sync);
  return status.ok() ? status : FailureTail(status, "AtomicClearAndPut");
}

// --- Range reads ----------------------------------------------------------

leveldb::Status DB::Get(const std::vector<std::string>& keys, std::vector<std::string>* values,
                        const leveldb::Snapshot* snapshot) {
  if (values == nullptr) return leveldb::Status::InvalidArgument("values", "nullptr");
  values->clear();
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  {
    ScopedSnapshot read_snapshot(db_.get(), snapshot);
    const leveldb::ReadOptions options = MakeReadOptions(false, true, read_snapshot.get());
    for (const std::string& key : keys) {
      status = CheckKey(key, "key");
      if (!status.ok()) break;
      std::string value;
      status = db_->Get(options, key, &value);
      if (!status.ok()) break;
      values->push_back(std::move(value));
    }
  }
  if (status.ok() || status.IsNotFound()) return status;
  return ReadFailureTail(status, "Get");
}

leveldb::Status DB::Dump(std::vector<std::string>* keys, std::vector<std::string>* values,
                         const leveldb::Snapshot* snapshot) {
  return DumpImpl(NullKey(), NullKey(), keys, values, snapshot);
}

leveldb::Status DB::DumpRange(const std::string& key_start, const std::string& key_limit,
                              std::vector<std::string>* keys, std::vector<std::string>* values,
                              const leveldb::Snapshot* snapshot) {
  return DumpImpl(key_start, key_limit, keys, values, snapshot);
}

leveldb::Status DB::Count(uint64_t* count, const leveldb::Snapshot* snapshot) {
  return CountImpl(NullKey(), NullKey(), count, snapshot);
}

leveldb::Status DB::CountRange(const std::string& key_start, const std::string& key_limit,
                               uint64_t* count, const leveldb::Snapshot* snapshot) {
  return CountImpl(key_start, key_limit, count, snapshot);
}

namespace {

// The bounds only report: an empty bound is the caller's mistake, and the walk
// goes on with it.
void ReportEmptyBounds(const std::string& key_start, const std::string& key_limit) {
  (void)CHECK_STDERR(!key_start.empty(), "!key_start.empty()");
  (void)CHECK_STDERR(!key_limit.empty(), "!key_limit.empty()");
}

}  // namespace

leveldb::Status DB::WalkRange(const std::string& key_start, const std::string& key_limit,
                              const leveldb::Snapshot* snapshot,
                              const std::function<void(leveldb::Iterator&)>& visit) {
  leveldb::Status status;
  {
    ScopedSnapshot read_snapshot(db_.get(), snapshot);
    std::unique_ptr<leveldb::Iterator> it(
        db_->NewIterator(MakeReadOptions(false, false, read_snapshot.get())));
    if (IsNullKey(key_start)) {
      it->SeekToFirst();
    } else {
      it->Seek(key_start);
    }
    const bool to_end = IsNullKey(key_limit);
    const leveldb::Comparator* comparator = leveldb::BytewiseComparator();
    for (; it->Valid() && (to_end || comparator->Compare(it->key(), key_limit) < 0); it->Next()) {
      visit(*it);
    }
    status = it->status();
  }
  return status;
}

leveldb::Status DB::DumpImpl(const std::string& key_start, const std::string& key_limit,
                             std::vector<std::string>* keys, std::vector<std::string>* values,
                             const leveldb::Snapshot* snapshot) {
  ReportEmptyBounds(key_start, key_limit);
  if (keys == nullptr) return leveldb::Status::InvalidArgument("keys", "nullptr");
  keys->clear();
  ClearIfGiven(values);
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  status = WalkRange(key_start, key_limit, snapshot, [&](leveldb::Iterator& it) {
    keys->push_back(it.key().ToString());
    AppendIfWanted(values, it.value());
  });
  return status.ok() ? status : FailureTail(status, "Dump");
}

leveldb::Status DB::CountImpl(const std::string& key_start, const std::string& key_limit,
                              uint64_t* count, const leveldb::Snapshot* snapshot) {
  ReportEmptyBounds(key_start, key_limit);
  if (count == nullptr) return leveldb::Status::InvalidArgument("count", "nullptr");
  *count = 0;
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  status = WalkRange(key_start, key_limit, snapshot, [count](leveldb::Iterator&) { ++*count; });
  return status.ok() ? status : FailureTail(status, "Count");
}

leveldb::Status DB::ReadInterval(uint64_t start, uint64_t count, std::vector<std::string>* keys,
                                 std::vector<std::string>* values,
                                 const leveldb::Snapshot* snapshot) {
  return ReadImpl(kForward, start, count, keys, values, snapshot);
}

leveldb::Status DB::ReadReverseInterval(uint64_t start, uint64_t count,
                                        std::vector<std::string>* keys,
                                        std::vector<std::string>* values,
                                        const leveldb::Snapshot* snapshot) {
  return ReadImpl(kReverse, start, count, keys, values, snapshot);
}

leveldb::Status DB::ReadImpl(ReadDirection direction, uint64_t start, uint64_t count,
                             std::vector<std::string>* keys, std::vector<std::string>* values,
                             const leveldb::Snapshot* snapshot) {
  if (keys == nullptr) return leveldb::Status::InvalidArgument("keys", "nullptr");
  keys->clear();
  ClearIfGiven(values);
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  {
    ScopedSnapshot read_snapshot(db_.get(), snapshot);
    std::unique_ptr<leveldb::Iterator> it(
        db_->NewIterator(MakeReadOptions(false, false, read_snapshot.get())));
    const bool forward = direction == kForward;
    if (forward) {
      it->SeekToFirst();
    } else {
      it->SeekToLast();
    }
    const auto move = [&it, forward] { forward ? it->Next() : it->Prev(); };
    for (uint64_t position = 1; it->Valid() && position < start; ++position) move();
    for (; it->Valid() && keys->size() < count; move()) {
      keys->push_back(it->key().ToString());
      AppendIfWanted(values, it->value());
    }
    status = it->status();
  }
  return status.ok() ? status : FailureTail(status, "Read");
}

leveldb::Status DB::Iterate(IterateCallback callback, const leveldb::Snapshot* snapshot) {
  return IterateImpl(kForward, std::move(callback), snapshot);
}

leveldb::Status DB::ReverseIterate(IterateCallback callback, const leveldb::Snapshot* snapshot) {
  return IterateImpl(kReverse, std::move(callback), snapshot);
}

leveldb::Status DB::IterateImpl(ReadDirection direction, IterateCallback callback,
                                const leveldb::Snapshot* snapshot) {
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  {
    // Both end on every way out, also when the callback throws.
    ScopedSnapshot read_snapshot(db_.get(), snapshot);
    std::unique_ptr<leveldb::Iterator> it(
        db_->NewIterator(MakeReadOptions(false, false, read_snapshot.get())));
    const bool reverse = direction == kReverse;
    if (reverse) {
      it->SeekToLast();
    } else {
      it->SeekToFirst();
    }
    while (it->Valid()) {
      if (!callback(it->key().ToString(), it->value().ToString())) break;
      if (reverse) {
        it->Prev();
      } else {
        it->Next();
      }
    }
    status = it->status();
  }
  return status.ok() ? status : FailureTail(status, "Iterate");
}

leveldb::Status DB::Empty(bool* is_empty, const leveldb::Snapshot* snapshot) {
  if (is_empty == nullptr) return leveldb::Status::InvalidArgument("is_empty", "nullptr");
  *is_empty = true;
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  {
    std::unique_ptr<leveldb::Iterator> it(db_->NewIterator(MakeReadOptions(false, true, snapshot)));
    it->SeekToFirst();
    status = it->status();
    if (status.ok()) *is_empty = !it->Valid();
  }
  return status.ok() ? status : FailureTail(status, "Empty");
}

leveldb::Status DB::CreateSnapshot(const leveldb::Snapshot** snapshot) {
  if (snapshot == nullptr) return leveldb::Status::InvalidArgument("snapshot", "nullptr");
  *snapshot = nullptr;
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  *snapshot = db_->GetSnapshot();
  if (*snapshot != nullptr) return leveldb::Status::OK();
  return FailureTail(leveldb::Status::NotSupported("snapshot", "nullptr"), "CreateSnapshot");
}

leveldb::Status DB::ReleaseSnapshot(const leveldb::Snapshot* snapshot) {
  if (snapshot == nullptr) return leveldb::Status::InvalidArgument("snapshot", "nullptr");
  const leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  db_->ReleaseSnapshot(snapshot);
  return leveldb::Status::OK();
}

// --- Repair and upkeep ----------------------------------------------------

leveldb::Status DB::Destroy() {
  if (!CHECK_STDERR(!path_.empty(), "!path_.empty()")) {
    return leveldb::Status::InvalidArgument("path_", "empty");
  }
  db_.reset();
  filter_policy_.reset();
  // Default options, not those of the last Open: the directory is going away.
  leveldb::Status status = Guarded([this] { return leveldb::DestroyDB(path_, OptionsForEnv()); });
  if (!status.ok()) FailureTail(status, "Destroy");
  corrupted_ = false;
  return status;
}

leveldb::Status DB::Verify() {
  leveldb::Status status = CheckOpen();
  if (!status.ok()) return status;
  status = Guarded([this] {
    std::unique_ptr<leveldb::Iterator> it(db_->NewIterator(MakeReadOptions(true, false, nullptr)));
    for (it->SeekToFirst(); it->Valid(); it->Next()) {
    }
    return it->status();
  });
  if (status.ok()) {
    corrupted_ = false;
    return status;
  }
  // Only a Corruption may set the flag or leave it; any other failure says
  // nothing about the data, and clears it.
  if (status.IsCorruption()) {
    FlagCorruption(status);
  } else {
    corrupted_ = false;
  }
  REPORT_STDERR(path_, "Verify", status);
  (void)CHECK_STDERR(status.ok(), "status.cond()");
  return status;
}

leveldb::Status DB::Repair() {
  if (!CHECK_STDERR(!db_, "!db_")) return leveldb::Status::InvalidArgument("db_", "!nullptr");
  const leveldb::Status status =
      Guarded([this] { return leveldb::RepairDB(path_, OptionsForEnv()); });
  return status.ok() ? status : FailureTail(status, "Repair");
}

leveldb::Status DB::Compact() {
  const leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  db_->CompactRange(nullptr, nullptr);
  return leveldb::Status::OK();
}

leveldb::Status DB::Stats(std::string* stats, std::string* sstables) {
  if (stats != nullptr) stats->clear();
  if (sstables != nullptr) sstables->clear();
  const leveldb::Status status = CheckOpenAndNotCorrupted();
  if (!status.ok()) return status;
  if (stats != nullptr) db_->GetProperty("leveldb.stats", stats);
  if (sstables != nullptr) db_->GetProperty("leveldb.sstables", sstables);
  return leveldb::Status::OK();
}

leveldb::Status DB::GetSizeOfKey(const std::string& key, uint64_t& size) const {
  ScopedSnapshot read_snapshot(db_.get(), nullptr);
  std::unique_ptr<leveldb::Iterator> it(
      db_->NewIterator(MakeReadOptions(false, false, read_snapshot.get())));
  it->Seek(key);
  if (!it->Valid()) return leveldb::Status::NotFound("Key not found", key);
  it->Next();
  if (!it->Valid()) return leveldb::Status::NotFound("Next key not found", key);
  const std::string next_key = it->key().ToString();
  const leveldb::Range range(key, next_key);
  db_->GetApproximateSizes(&range, 1, &size);
  return leveldb::Status::OK();
}

}  // namespace persistence
