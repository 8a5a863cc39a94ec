#include "persistence/db.h"

#include <leveldb/comparator.h>
#include <leveldb/env.h>
#include <leveldb/iterator.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <mutex>

#include "persistence/log_salvage.h"
#include "persistence/report.h"
#include "persistence/testing/seams.h"

namespace persistence {
namespace {

std::atomic<leveldb::Env*> test_env{nullptr};

// The engine starts its one background thread when it first needs one, from
// whichever thread needs it, and a new thread takes its creator's name. Left
// alone, it could start from a store's "LruStoreSync" or "LruStorePrune"
// thread and carry that name for the life of the process: one thread more of
// that name for anyone who looks. Started at the first open, it takes the
// name of the caller's thread.
void StartEngineThread(leveldb::Env* env) {
  static std::once_flag started;
  std::call_once(started, [env] { env->Schedule([](void*) {}, nullptr); });
}

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
DB::~DB() {
  ReleaseAllSnapshots();
  db_.reset();
}

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

leveldb::Status DB::CheckReadable(const leveldb::Snapshot* snapshot) const {
  leveldb::Status status = CheckOpenAndNotCorrupted();
  if (status.ok()) status = CheckSnapshot(snapshot);
  return status;
}

leveldb::Status DB::CheckSnapshot(const leveldb::Snapshot* snapshot) const {
  if (snapshot == nullptr) return leveldb::Status::OK();
  std::lock_guard<std::mutex> lock(snapshots_mutex_);
  if (snapshots_.count(snapshot) != 0) return leveldb::Status::OK();
  return leveldb::Status::InvalidArgument("snapshot", "stale");
}

// A snapshot outliving its engine would point into freed memory, and the
// engine asserts that what it is given back is its own.
void DB::ReleaseAllSnapshots() {
  std::lock_guard<std::mutex> lock(snapshots_mutex_);
  if (db_) {
    for (const leveldb::Snapshot* snapshot : snapshots_) db_->ReleaseSnapshot(snapshot);
  }
  snapshots_.clear();
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

leveldb::Status DB::FailureTail(const leveldb::Status& engine_status, const char* operation) {
  return ReportFailure(AsDamage(engine_status), operation);
}

leveldb::Status DB::ReportFailure(const leveldb::Status& status, const char* operation) {
  FlagCorruption(status);
  REPORT_STDERR(path_, operation, status);
  (void)CHECK_STDERR(status.ok(), "status.cond()");
  return status;
}

leveldb::Status DB::ReadFailureTail(const leveldb::Status& engine_status, const char* operation) {
  const leveldb::Status status = AsDamage(engine_status);
  FlagCorruption(status);
  REPORT_STDERR(path_, operation, status);
  (void)CHECK_STDERR(status.ok() || status.IsNotFound(), "status.cond1() || status.cond2()");
  return status;
}

// --- What counts as damage -------------------------------------------------

namespace {

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool IsTableName(const std::string& name) {
  return EndsWith(name, ".ldb") || EndsWith(name, ".sst");
}

// The files the engine reads back: tables, logs, the MANIFEST and CURRENT.
// Its temporary files, LOCK and its info log are not the data.
bool IsDataFileName(const std::string& name) {
  return IsTableName(name) || EndsWith(name, ".log") || name.compare(0, 9, "MANIFEST-") == 0 ||
         name == "CURRENT";
}

bool IsRegularFile(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool IsDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

// The engine names a file of the database that is malformed or of the wrong
// kind as an I/O error of the system call that met it: a read past the end of
// a cut table (EINVAL from the mapping), a directory where a file should be
// (ENODEV, EISDIR), a table that the MANIFEST names and that is gone
// (ENOENT, which it calls NotFound). These say the database is damaged, as
// Corruption does. Errors of the environment (EIO, ENOSPC, EACCES, EMFILE,
// ENOTDIR for a store path taken by a regular file) pass unchanged: they
// destroy nothing, and the store waits for them to go.
leveldb::Status DB::AsDamage(const leveldb::Status& status) const {
  if (!status.IsIOError() && !status.IsNotFound()) return status;
  // Every Get of an absent key comes through here: its "NotFound: " fits the
  // string's own buffer, and it is told apart before anything is allocated.
  const std::string text = status.ToString();
  const size_t kind = status.IsIOError() ? std::strlen("IO error: ") : std::strlen("NotFound: ");
  const size_t name_start = kind + path_.size() + 1;
  if (text.size() <= name_start || text.compare(kind, path_.size(), path_) != 0 ||
      text[name_start - 1] != '/') {
    return status;
  }
  const size_t colon = text.find(": ", name_start);
  if (colon == std::string::npos) return status;
  const std::string name = text.substr(name_start, colon - name_start);
  const std::string reason = text.substr(colon + 2);
  if (name.find('/') != std::string::npos || !IsDataFileName(name)) return status;
  const bool damaged =
      status.IsIOError()
          ? reason == strerror(EINVAL) || reason == strerror(ENODEV) || reason == strerror(EISDIR)
          : IsTableName(name) && reason == strerror(ENOENT);
  // A table is missing from a database that is still there; a table that
  // cannot be made because the whole directory went away is no damage.
  if (!damaged || (status.IsNotFound() && !IsDirectory(path_))) return status;
  return leveldb::Status::Corruption(path_ + "/" + name, reason);
}

// Without CURRENT the engine takes the directory for a new database: it
// replays the live log into it and deletes every table as obsolete, silently.
// A directory that holds a MANIFEST or tables but no CURRENT is a damaged
// database, not a missing one.
leveldb::Status DB::CheckCurrentFile(leveldb::Env* env) const {
  const std::string current = path_ + "/CURRENT";
  if (env->FileExists(current)) return leveldb::Status::OK();
  std::vector<std::string> children;
  if (!env->GetChildren(path_, &children).ok()) return leveldb::Status::OK();
  for (const std::string& name : children) {
    // Only files: what a failed destruction leaves behind (a directory under
    // a table's name) is no database, and the recreation goes on over it.
    if ((name.compare(0, 9, "MANIFEST-") == 0 || IsTableName(name)) &&
        IsRegularFile(path_ + "/" + name)) {
      return leveldb::Status::Corruption(current, "missing from a database that has files");
    }
  }
  return leveldb::Status::OK();
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
  // The engine checks block checksums in its compactions only with paranoid
  // checks on; without them a damaged block that still decodes reaches the
  // table builder, whose assertions end the process. So the engine always
  // runs paranoid, and "paranoid_checks" chooses only what the handle does
  // with a Corruption (the flag above).
  options.paranoid_checks = true;
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
    status = CheckCurrentFile(options.env);
    if (!status.ok()) return status;
    StartEngineThread(options.env);
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
  return AsDamage(status);
}

leveldb::Status DB::Close() {
  if (!db_) return leveldb::Status::InvalidArgument("db_", "nullptr");
  ReleaseAllSnapshots();
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
  status = CheckReadable(snapshot);
  if (!status.ok()) return status;
  status = db_->Get(MakeReadOptions(false, true, snapshot), key, value);
  if (status.ok() || (status.IsNotFound() && AsDamage(status).IsNotFound())) return status;
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
  leveldb::Status status = CheckReadable(snapshot);
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
  leveldb::Status status = CheckReadable(snapshot);
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
  leveldb::Status status = CheckReadable(snapshot);
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
  leveldb::Status status = CheckReadable(snapshot);
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
  leveldb::Status status = CheckReadable(snapshot);
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
  leveldb::Status status = CheckReadable(snapshot);
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
  if (*snapshot != nullptr) {
    std::lock_guard<std::mutex> lock(snapshots_mutex_);
    snapshots_.insert(*snapshot);
    return leveldb::Status::OK();
  }
  return FailureTail(leveldb::Status::NotSupported("snapshot", "nullptr"), "CreateSnapshot");
}

leveldb::Status DB::ReleaseSnapshot(const leveldb::Snapshot* snapshot) {
  if (snapshot == nullptr) return leveldb::Status::InvalidArgument("snapshot", "nullptr");
  leveldb::Status status = CheckOpen();
  if (!status.ok()) return status;
  std::lock_guard<std::mutex> lock(snapshots_mutex_);
  if (snapshots_.count(snapshot) == 0) return leveldb::Status::InvalidArgument("snapshot", "stale");
  // A corrupted handle keeps it, and gives it back when it closes.
  status = CheckNotCorrupted();
  if (!status.ok()) return status;
  snapshots_.erase(snapshot);
  db_->ReleaseSnapshot(snapshot);
  return leveldb::Status::OK();
}

// --- Work that may end the process it runs in ------------------------------

namespace {

// Writes all of "text" to "fd", going on after interruptions.
void WriteAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    written += static_cast<size_t>(n);
  }
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return text;
    text.append(buffer, static_cast<size_t>(n));
  }
}

// The status whose ToString() is "text": the child's result, as it printed it.
bool StatusFromText(const std::string& text, leveldb::Status* status) {
  struct Kind {
    const char* prefix;
    leveldb::Status (*make)(const leveldb::Slice&, const leveldb::Slice&);
  };
  static const Kind kKinds[] = {
      {"NotFound: ", &leveldb::Status::NotFound},
      {"Corruption: ", &leveldb::Status::Corruption},
      {"Not implemented: ", &leveldb::Status::NotSupported},
      {"Invalid argument: ", &leveldb::Status::InvalidArgument},
      {"IO error: ", &leveldb::Status::IOError},
  };
  if (text == "OK") {
    *status = leveldb::Status::OK();
    return true;
  }
  for (const Kind& kind : kKinds) {
    const size_t length = strlen(kind.prefix);
    if (text.compare(0, length, kind.prefix) == 0) {
      *status = kind.make(text.substr(length), leveldb::Slice());
      return true;
    }
  }
  return false;
}

}  // namespace

// The engine asserts on damaged input where it trusts what it reads, and an
// assertion ends the whole process. Work of that kind runs in a child: its
// death is a failed call, and the caller goes on. The child only runs "work"
// and leaves through _exit, so none of the parent's exit handlers run twice.
leveldb::Status DB::RunInChildProcess(const std::string& path,
                                      const std::function<leveldb::Status()>& work) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return leveldb::Status::IOError(path, std::string("pipe: ") + strerror(errno));
  }
  const pid_t pid = ::fork();
  if (pid < 0) {
    const int error = errno;
    ::close(fds[0]);
    ::close(fds[1]);
    return leveldb::Status::IOError(path, std::string("fork: ") + strerror(error));
  }
  if (pid == 0) {
    ::close(fds[0]);
    leveldb::Status status;
    try {
      status = work();
    } catch (const std::exception& failure) {
      status = leveldb::Status::IOError(failure.what(), "");
    } catch (...) {
      status = leveldb::Status::IOError("unknown exception", "");
    }
    WriteAll(fds[1], status.ToString());
    ::_exit(0);
  }
  ::close(fds[1]);
  const std::string text = ReadAll(fds[0]);
  ::close(fds[0]);
  int wait_status = 0;
  pid_t waited;
  do {
    waited = ::waitpid(pid, &wait_status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited == pid && WIFSIGNALED(wait_status)) {
    return leveldb::Status::Corruption(
        path, "repair ended by signal " + std::to_string(WTERMSIG(wait_status)));
  }
  leveldb::Status status;
  // A host that ignores SIGCHLD has its children reaped for it; the result on
  // the pipe then says all there is.
  if (StatusFromText(text, &status)) return status;
  return leveldb::Status::Corruption(path, "repair ended without a result");
}

// --- Repair and upkeep ----------------------------------------------------

leveldb::Status DB::Destroy() {
  if (!CHECK_STDERR(!path_.empty(), "!path_.empty()")) {
    return leveldb::Status::InvalidArgument("path_", "empty");
  }
  ReleaseAllSnapshots();
  db_.reset();
  filter_policy_.reset();
  // Default options, not those of the last Open: the directory is going away.
  leveldb::Status status = Guarded([this] { return leveldb::DestroyDB(path_, OptionsForEnv()); });
  if (!status.ok()) ReportFailure(status, "Destroy");
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
  status = AsDamage(status);
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
  leveldb::Options options = OptionsForEnv();
  // With paranoid checks the repair reads tables with block checksums
  // verified: a damaged block is left out of the repaired table instead of
  // feeding its keys to the table builder.
  options.paranoid_checks = true;
  const leveldb::Status status = RunInChildProcess(path_, [this, &options] {
    // The repair replays logs without checksums: it is given logs that hold
    // only verified records.
    leveldb::Status salvaged = SalvageLogs(options.env, path_);
    if (!salvaged.ok()) return salvaged;
    return leveldb::RepairDB(path_, options);
  });
  return status.ok() ? status : ReportFailure(status, "Repair");
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
