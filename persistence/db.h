// persistence::DB: an untyped handle on one LevelDB directory.
//
// Byte-string keys and values, atomic batches, walks on snapshots, and the
// primitives of repair. Every operation returns the engine's leveldb::Status;
// the typed store above turns it into a persistence::Status. The handle has no
// lock: the typed store calls its data operations concurrently under a shared
// lock, and opens, closes, repairs and destroys under an exclusive one.
//
// Failures are reported on standard error: a failed check as
//   Line <n> @ <file> *** Assertion '((<condition>))' failed *** <message>
// and a failed engine call as
//   persistence::DB: <path>: <operation>: <status text>
//
// The corruption flag: once the engine reports Corruption on a handle opened
// with paranoid checks, the handle no longer touches the database. Every data
// operation then returns "Corruption: corrupted_: true" until the handle is
// closed, verified clean, or destroyed.
#pragma once

#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/status.h>
#include <leveldb/write_batch.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "persistence/export.h"

namespace persistence {

class DRAVINHOLD_EXPORT DB {
 public:
  enum ReadDirection { kForward = 1, kReverse = 2 };

  // Called with the key and the value of each entry of a walk; returns true
  // to go on, false to stop.
  using IterateCallback = std::function<bool(std::string, std::string)>;

  // A closed handle on "path". Does not touch the disk.
  explicit DB(const std::string& path);
  ~DB();

  DB(const DB&) = delete;
  DB& operator=(const DB&) = delete;

  // The count that means "no limit": all bits set.
  static uint64_t MaxCount();

  // The marker for an open end of a key range: as a start it means the first
  // key, as a limit the end of the database. Compared by value.
  static const std::string& NullKey();
  static bool IsNullKey(const std::string& key);

  // Opens the database. The Bloom filter (10 bits a key) is used only when
  // "use_bloom_filter" is true; a block cache of "cache_size_mb" MiB only when
  // it is not 0, else the engine's default cache. Requires a non-empty path
  // and a closed handle. A failed open prints nothing and leaves the handle
  // closed. A directory that holds a database's files but no CURRENT is
  // Corruption, not a new database.
  leveldb::Status Open(bool paranoid_checks, bool create_if_missing, bool use_bloom_filter,
                       uint64_t cache_size_mb);

  // Closes the database and clears the corruption flag. On a closed handle
  // returns "Invalid argument: db_: nullptr" and prints nothing.
  leveldb::Status Close();

  // True when the database is open.
  bool is_open() const;

  // Single-key access. "sync" asks the engine to sync its log before it
  // returns. An empty key is refused. Deleting an absent key succeeds. Get
  // clears *value first; an absent key returns NotFound, silently.
  leveldb::Status Put(const std::string& key, const std::string& value, bool sync);
  leveldb::Status Delete(const std::string& key, bool sync);
  leveldb::Status Get(const std::string& key, std::string* value,
                      const leveldb::Snapshot* snapshot);

  // Batched writes: each call is one engine write, applied whole or not at
  // all. Deletes go before puts, so a key in both ends with the new value.
  // Put writes min(keys, values) pairs and drops the surplus silently.
  // AtomicClearAndPut deletes every key present and puts the new pairs in the
  // same batch; Clear is AtomicClearAndPut of nothing.
  leveldb::Status Put(const std::vector<std::string>& keys, const std::vector<std::string>& values,
                      bool sync);
  leveldb::Status Delete(const std::vector<std::string>& keys, bool sync);
  leveldb::Status AtomicDeleteAndPut(const std::vector<std::string>& del_keys,
                                     const std::vector<std::string>& put_keys,
                                     const std::vector<std::string>& put_values, bool sync);
  leveldb::Status AtomicClearAndPut(const std::vector<std::string>& keys,
                                    const std::vector<std::string>& values, bool sync);
  leveldb::Status Clear(bool sync);

  // Range reads. Each runs on "snapshot", or on one of its own when it is
  // null, so it never sees a change made after it began. "values" may be null
  // where keys are the output, and then no values are read.

  // Reads the values of "keys" in order. Stops at the first absent key with
  // NotFound; *values then holds the values of the keys before it.
  leveldb::Status Get(const std::vector<std::string>& keys, std::vector<std::string>* values,
                      const leveldb::Snapshot* snapshot);

  // Entries from "key_start" (inclusive) to "key_limit" (exclusive). NullKey()
  // as a bound is an open end. What was read before a failure stays in the
  // output.
  leveldb::Status Dump(std::vector<std::string>* keys, std::vector<std::string>* values,
                       const leveldb::Snapshot* snapshot);
  leveldb::Status DumpRange(const std::string& key_start, const std::string& key_limit,
                            std::vector<std::string>* keys, std::vector<std::string>* values,
                            const leveldb::Snapshot* snapshot);
  leveldb::Status Count(uint64_t* count, const leveldb::Snapshot* snapshot);
  leveldb::Status CountRange(const std::string& key_start, const std::string& key_limit,
                             uint64_t* count, const leveldb::Snapshot* snapshot);

  // A page of up to "count" entries from position "start", counted from 1 in
  // the direction of the walk; 0 and 1 both begin at the first entry.
  leveldb::Status ReadInterval(uint64_t start, uint64_t count, std::vector<std::string>* keys,
                               std::vector<std::string>* values, const leveldb::Snapshot* snapshot);
  leveldb::Status ReadReverseInterval(uint64_t start, uint64_t count,
                                      std::vector<std::string>* keys,
                                      std::vector<std::string>* values,
                                      const leveldb::Snapshot* snapshot);

  // Calls "callback" for each entry, in key order or its reverse, until it
  // returns false. An exception from the callback passes through.
  leveldb::Status Iterate(IterateCallback callback, const leveldb::Snapshot* snapshot);
  leveldb::Status ReverseIterate(IterateCallback callback, const leveldb::Snapshot* snapshot);

  // Sets *is_empty to whether the database holds no entry; true on failure.
  leveldb::Status Empty(bool* is_empty, const leveldb::Snapshot* snapshot);

  // A snapshot belongs to its caller until ReleaseSnapshot. A snapshot
  // released on a corrupted handle is not given back to the engine.
  //
  // Snapshots live no longer than the engine that made them: Close, Destroy
  // and the destructor give back every snapshot still held. A snapshot that
  // this handle's engine did not make, or already took back, is stale: every
  // operation given one returns "Invalid argument: snapshot: stale" and
  // touches nothing.
  leveldb::Status CreateSnapshot(const leveldb::Snapshot** snapshot);
  leveldb::Status ReleaseSnapshot(const leveldb::Snapshot* snapshot);

  // Closes the handle and deletes the database directory's contents with
  // default options. Clears the corruption flag whatever the outcome.
  leveldb::Status Destroy();

  // Reads every block of the open database with checksums verified. Clears
  // the corruption flag on success and on a failure other than Corruption; a
  // Corruption sets it when the handle was opened with paranoid checks.
  leveldb::Status Verify();

  // Repairs the database directory. Requires a closed handle and leaves it
  // closed. The engine's repair reads damaged files with its assertions
  // armed, so it runs in a child process: a repair that dies there returns
  // "Corruption: <path>: repair ended by signal <n>" and leaves the caller
  // running. It verifies block checksums, so that damaged blocks are dropped
  // rather than copied into the repaired tables.
  leveldb::Status Repair();

  // Compacts the whole key range. The engine verifies the checksum of every
  // block it rewrites, on every handle: a damaged block fails the compaction
  // (and the writes after it) instead of reaching the table builder.
  leveldb::Status Compact();

  // The engine's "leveldb.stats" and "leveldb.sstables" texts; either pointer
  // may be null. Both strings are cleared first, even if the call fails.
  leveldb::Status Stats(std::string* stats, std::string* sstables);

  // An estimate of the disk space of the entry at or after "key": the
  // approximate size of the range from "key" to the entry after it. Returns
  // NotFound, leaving "size" alone, when there is no entry at or after "key"
  // ("Key not found") or none after that one ("Next key not found").
  // Requires an open handle; checks nothing.
  leveldb::Status GetSizeOfKey(const std::string& key, uint64_t& size) const;

 protected:
  // For tests that look at how the handle was opened.
  const leveldb::Cache* block_cache() const { return cache_.get(); }
  const leveldb::FilterPolicy* filter_policy() const { return filter_policy_.get(); }
  bool corrupted() const { return corrupted_; }

 private:
  leveldb::Status WriteBatchImpl(leveldb::WriteBatch& batch,
                                 const std::vector<std::string>& del_keys,
                                 const std::vector<std::string>& put_keys,
                                 const std::vector<std::string>& put_values, bool sync);
  leveldb::Status AtomicDeleteAndPutImpl(const std::vector<std::string>& del_keys,
                                         const std::vector<std::string>& put_keys,
                                         const std::vector<std::string>& put_values, bool sync);
  leveldb::Status AtomicClearAndPutImpl(const std::vector<std::string>& keys,
                                        const std::vector<std::string>& values, bool sync);
  leveldb::Status DumpImpl(const std::string& key_start, const std::string& key_limit,
                           std::vector<std::string>* keys, std::vector<std::string>* values,
                           const leveldb::Snapshot* snapshot);
  leveldb::Status CountImpl(const std::string& key_start, const std::string& key_limit,
                            uint64_t* count, const leveldb::Snapshot* snapshot);
  leveldb::Status ReadImpl(ReadDirection direction, uint64_t start, uint64_t count,
                           std::vector<std::string>* keys, std::vector<std::string>* values,
                           const leveldb::Snapshot* snapshot);
  leveldb::Status IterateImpl(ReadDirection direction, IterateCallback callback,
                              const leveldb::Snapshot* snapshot);

  // The preconditions shared by the operations: an open handle, a handle that
  // is not corrupted, a non-empty key. Each returns ok when it holds.
  leveldb::Status CheckOpen() const;
  leveldb::Status CheckNotCorrupted() const;
  leveldb::Status CheckOpenAndNotCorrupted() const;
  // CheckOpenAndNotCorrupted, then CheckSnapshot: the preconditions of a read.
  leveldb::Status CheckReadable(const leveldb::Snapshot* snapshot) const;

  // The end of an operation whose engine call failed: flags a Corruption
  // when paranoid, reports the failure, returns "status" unchanged.
  leveldb::Status FailureTail(const leveldb::Status& engine_status, const char* operation);
  // The same for reads, where NotFound is an ordinary result.
  leveldb::Status ReadFailureTail(const leveldb::Status& engine_status, const char* operation);

  // The failure tail without AsDamage: for Destroy and Repair, whose failures
  // say nothing new about the data.
  leveldb::Status ReportFailure(const leveldb::Status& status, const char* operation);

  // "status", or Corruption with the same text when the engine's I/O error
  // says that a file of this database is malformed or of the wrong kind.
  leveldb::Status AsDamage(const leveldb::Status& status) const;
  // Corruption when CURRENT is missing from a directory that holds a
  // database's files, which the engine would take for a new database.
  leveldb::Status CheckCurrentFile(leveldb::Env* env) const;
  void FlagCorruption(const leveldb::Status& status);

  // Walks a key range, calling "visit" with each entry; the shared body of
  // DumpImpl and CountImpl.
  leveldb::Status WalkRange(const std::string& key_start, const std::string& key_limit,
                            const leveldb::Snapshot* snapshot,
                            const std::function<void(leveldb::Iterator&)>& visit);

  leveldb::Options OptionsForEnv() const;

  // Runs "work" in a child process and returns its status; a child that dies
  // returns Corruption naming "path" and the signal.
  static leveldb::Status RunInChildProcess(const std::string& path,
                                           const std::function<leveldb::Status()>& work);

  // Ok for null (the current state) and for a snapshot this engine made and
  // has not taken back; "Invalid argument: snapshot: stale" otherwise.
  leveldb::Status CheckSnapshot(const leveldb::Snapshot* snapshot) const;
  // Gives every snapshot still held back to the engine before it ends.
  void ReleaseAllSnapshots();

  std::string path_;
  std::unique_ptr<leveldb::DB> db_;
  std::unique_ptr<leveldb::Cache> cache_;
  std::unique_ptr<const leveldb::FilterPolicy> filter_policy_;
  bool paranoid_checks_ = true;
  bool corrupted_ = false;
  // The callers' snapshots of the current engine. Guarded by its own mutex:
  // snapshots are made and given back concurrently under the store's shared
  // lock.
  mutable std::mutex snapshots_mutex_;
  std::set<const leveldb::Snapshot*> snapshots_;
};

}  // namespace persistence
