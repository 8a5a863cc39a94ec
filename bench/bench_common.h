// What the benchmarks share: the sizes of a run, directories, realistic keys
// and records, the raw LevelDB handle that every library operation is
// compared with, and resident-memory probes.
//
// Every benchmark comes as a pair, "<operation>/library" and
// "<operation>/raw", run on the same data in the same process; the ratio
// reporter (ratio_reporter.h) turns the pairs into the table of ratios.
#pragma once

#include <benchmark/benchmark.h>
#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/iterator.h>
#include <leveldb/write_batch.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/ratio_reporter.h"

namespace bench {

// The sizes of a run. "full" is the measurement; "small" divides the counts
// so that the whole suite can be tried in a minute.
struct Sizes {
  bool small = false;
  uint64_t check_records = 1000000;                       // FVhashStore_Check
  std::vector<uint64_t> put_records = {100000, 1000000};  // FVhashStore_Put
  uint64_t first_use_records = 1000000;                   // open with recovery
  uint64_t prune_max_mb = 16;                             // the enrichment store's maximum
  uint64_t rebuild_records = 100000;                      // RebuildLru
  uint64_t hot_keys = 4096;                               // keys a read or write loop cycles over
  uint64_t policy_records = 1024;                         // policies and cached signers
  int64_t new_entry_puts = 8000;                          // PutEntry of new keys, per run
};

const Sizes& sizes();
void SetSizes(const Sizes& sizes);

// The data root given to the library ($ZERLA_DATA_ROOT) and a directory for
// everything else; both under one fresh temporary directory.
const std::string& DataRoot();
const std::string& WorkDir();
void InitDirectories();
// Removes the temporary directory; runs at exit, after the stores closed.
void RemoveDirectories();

// A path in WorkDir(), removed first if it exists; FreshWorkDirectory also
// creates it, empty.
std::string FreshWorkPath(const std::string& name);
std::string FreshWorkDirectory(const std::string& name);
void CopyDirectory(const std::string& from, const std::string& to);
// Copies the files of a database that may be open (all but its LOCK) into a
// new directory "to". The database must be quiet: compacted, no writes.
void CopyDatabaseFiles(const std::string& from, const std::string& to);
void RemoveDirectory(const std::string& path);
// The allocated size of everything below "path", in bytes (st_blocks).
uint64_t DirectorySize(const std::string& path);

// Keys and records.
uint64_t Mix(uint64_t x);
// A file hash: 64 hex digits from ("set", "i"), lower or upper case.
std::string HashKey(uint64_t set, uint64_t i, bool upper = false);
// 1 KiB of policy bytes from "seed".
std::string PolicyBlob(uint64_t seed);

// A raw LevelDB handle with the engine options the stores use: paranoid
// checks as given, the Bloom filter of 10 bits a key, and a block cache of
// "cache_mb" MiB, or the engine's default cache when 0.
class RawDb {
 public:
  RawDb(const std::string& path, bool paranoid_checks, uint64_t cache_mb);
  ~RawDb();
  RawDb(const RawDb&) = delete;
  RawDb& operator=(const RawDb&) = delete;

  leveldb::DB* db() const { return db_.get(); }
  leveldb::DB* operator->() const { return db_.get(); }
  const std::string& path() const { return path_; }
  // Compacts everything and waits for it.
  void CompactAll();

 private:
  std::string path_;
  std::unique_ptr<const leveldb::FilterPolicy> filter_;
  std::unique_ptr<leveldb::Cache> cache_;
  std::unique_ptr<leveldb::DB> db_;
};

// Read and write options as the stores use them.
leveldb::ReadOptions PlainRead();
leveldb::WriteOptions WriteSync(bool sync);

// Encodes "message" and proves the encoding by parsing it into a fresh
// message, as every write must.
template <typename T>
bool EncodeVerified(const T& message, std::string* out) {
  std::string bytes;
  if (!message.SerializeToString(&bytes)) return false;
  T parsed;
  if (!parsed.ParseFromString(bytes)) return false;
  out->swap(bytes);
  return true;
}

// Walks the open database with checksums verified and the cache untouched,
// as a first use must; returns the number of records, aborts on a failure.
uint64_t VerifyingWalk(leveldb::DB* db);

// Aborts the program with "what" when "ok" is false: a benchmark that meets
// a failure measures nothing.
void Require(bool ok, const std::string& what);
void Require(const leveldb::Status& status, const std::string& what);

// Resident memory of this process, from /proc/self/status, in bytes.
uint64_t ResidentBytes();
uint64_t PeakResidentBytes();
// Sets the peak (VmHWM) back to the present resident size.
void ResetPeakResident();

// Registers "<operation>/library" and "<operation>/raw" and the row of the
// table that compares them. "configure" is applied to both.
void RegisterPair(const Row& row, std::function<void(benchmark::State&)> library,
                  std::function<void(benchmark::State&)> raw,
                  const std::function<void(benchmark::internal::Benchmark*)>& configure);

// The families of benchmarks, registered in this order by main().
void RegisterFVhashBenchmarks();
void RegisterPolicyBenchmarks();
void RegisterEnrichmentBenchmarks();
void RegisterFirstUseBenchmarks();
void RegisterRepairBenchmarks();

// The child side of the peak-memory benchmarks: runs one FVhashStore_Put or
// its raw equivalent in a fresh process and prints the peak. Returns the
// process's exit code.
int RunMemoryProbe(int argc, char** argv);

}  // namespace bench
