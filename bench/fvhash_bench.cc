// The fvhash family against raw LevelDB: FVhashStore_Check of a listed and
// of an unlisted hash on a list of a million, on one and two threads; and
// FVhashStore_Put, the clear-and-set of the whole list, in time and in peak
// resident memory.
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/bench_common.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/fvhash_store/fvhash_store_def.h"

namespace bench {
namespace {

using Value = proto::FVhashStore::Value;
using persistence::fv_hash;

constexpr uint64_t kCheckSet = 1;
constexpr uint64_t kPutSetA = 2;
constexpr uint64_t kPutSetB = 3;
constexpr uint64_t kMissSet = 99;

// The elements of a list: hashes in upper case (the store lower-cases
// them), verdicts alternating.
std::vector<fv_hash> MakeList(uint64_t set, uint64_t count, bool upper) {
  std::vector<fv_hash> list;
  list.reserve(count);
  for (uint64_t i = 0; i < count; ++i) list.push_back({i % 2 == 0, HashKey(set, i, upper)});
  return list;
}

std::string LowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// What a raw clear-and-set does: one synchronous batch that deletes every key
// present (found by a walk that leaves the cache alone) and puts each
// element under its lower-cased hash, its value encoded and proved.
[[gnu::noinline]] void RawClearAndSet(leveldb::DB* db, const std::vector<fv_hash>& list) {
  leveldb::WriteBatch batch;
  {
    leveldb::ReadOptions options;
    options.fill_cache = false;
    std::unique_ptr<leveldb::Iterator> it(db->NewIterator(options));
    for (it->SeekToFirst(); it->Valid(); it->Next()) batch.Delete(it->key());
    Require(it->status(), "raw walk");
  }
  std::string bytes;
  for (const fv_hash& element : list) {
    if (element.hash.empty()) continue;
    Value value;
    value.set_verdict(element.verdict);
    Require(EncodeVerified(value, &bytes), "encode");
    batch.Put(LowerCase(element.hash), bytes);
  }
  Require(db->Write(WriteSync(true), &batch), "raw write");
}

// What the library's store and the raw database hold now: "<set>:<count>".
std::string& LibraryContents() {
  static std::string contents;
  return contents;
}

std::string Contents(uint64_t set, uint64_t count) {
  return std::to_string(set) + ":" + std::to_string(count);
}

// Makes the library's store hold exactly "list", compacted.
void LoadLibrary(uint64_t set, const std::vector<fv_hash>& list) {
  if (LibraryContents() == Contents(set, list.size())) return;
  Require(persistence::FVhashStore_Put(list) == 0, "FVhashStore_Put");
  Require(persistence::FVhashStore::Instance().Compact().ok(), "compact");
  LibraryContents() = Contents(set, list.size());
}

// --- FVhashStore_Check ------------------------------------------------------

struct CheckData {
  std::vector<std::string> hits;
  std::vector<std::string> misses;
  std::vector<fv_hash> list;
  std::unique_ptr<RawDb> raw;
};

// Both sides read the same tables: the library's store is loaded with the
// list and compacted, and the raw database is a copy of its files, so that
// the engine does the same work on either side. Every thread of a run calls
// this before its loop; the first does the work.
CheckData& Check() {
  static CheckData data;
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  const uint64_t count = sizes().check_records;
  if (data.list.empty()) {
    data.list = MakeList(kCheckSet, count, false);
    for (uint64_t i = 0; i < sizes().hot_keys; ++i) {
      data.hits.push_back(HashKey(kCheckSet, Mix(i) % count));
      data.misses.push_back(HashKey(kMissSet, i));
    }
  }
  if (LibraryContents() != Contents(kCheckSet, count)) {
    data.raw.reset();
    LoadLibrary(kCheckSet, data.list);
  }
  if (!data.raw) {
    const std::string path = FreshWorkPath("raw_fvhash_check");
    CopyDatabaseFiles(DataRoot() + "/fvhash_store", path);
    data.raw = std::make_unique<RawDb>(path, true, 0);
  }
  return data;
}

void LibraryCheck(benchmark::State& state, bool hit) {
  CheckData& data = Check();
  const std::vector<std::string>& keys = hit ? data.hits : data.misses;
  const size_t mask = keys.size() - 1;
  size_t i = static_cast<size_t>(state.thread_index()) * 7919;
  for (auto _ : state) {
    bool verdict = persistence::FVhashStore_Check(keys[i++ & mask]);
    benchmark::DoNotOptimize(verdict);
  }
  state.SetItemsProcessed(state.iterations());
}

// FVhashStore_Check's work on raw LevelDB: a read and a parse; absence is
// false.
[[gnu::noinline]] bool RawCheck(leveldb::DB* db, const std::string& hash) {
  std::string bytes;
  const leveldb::Status status = db->Get(PlainRead(), hash, &bytes);
  if (!status.ok()) {
    if (!status.IsNotFound()) std::cerr << status.ToString() << std::endl;
    return false;
  }
  Value value;
  if (!value.ParseFromString(bytes)) return false;
  return value.verdict();
}

void RawCheckLoop(benchmark::State& state, bool hit) {
  CheckData& data = Check();
  const std::vector<std::string>& keys = hit ? data.hits : data.misses;
  const size_t mask = keys.size() - 1;
  size_t i = static_cast<size_t>(state.thread_index()) * 7919;
  leveldb::DB* db = data.raw->db();
  for (auto _ : state) {
    bool verdict = RawCheck(db, keys[i++ & mask]);
    benchmark::DoNotOptimize(verdict);
  }
  state.SetItemsProcessed(state.iterations());
}

// --- FVhashStore_Put ----------------------------------------------------------

struct PutData {
  std::vector<fv_hash> a;
  std::vector<fv_hash> b;
  std::unique_ptr<RawDb> raw;
  std::string raw_contents;
};

PutData& Put(uint64_t count) {
  static std::map<uint64_t, PutData> all;
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  PutData& data = all[count];
  if (data.a.empty()) {
    data.a = MakeList(kPutSetA, count, true);
    data.b = MakeList(kPutSetB, count, true);
  }
  return data;
}

// Each run replaces list A by list B or B by A, whichever the store holds,
// and compacts afterwards, outside the time, so that every run starts from a
// compacted store of "count" hashes.
void LibraryPut(benchmark::State& state, uint64_t count) {
  PutData& data = Put(count);
  if (LibraryContents() != Contents(kPutSetA, count) &&
      LibraryContents() != Contents(kPutSetB, count)) {
    LoadLibrary(kPutSetA, data.a);
  }
  bool holds_a = LibraryContents() == Contents(kPutSetA, count);
  for (auto _ : state) {
    const int result = persistence::FVhashStore_Put(holds_a ? data.b : data.a);
    Require(result == 0, "FVhashStore_Put");
    state.PauseTiming();
    Require(persistence::FVhashStore::Instance().Compact().ok(), "compact");
    holds_a = !holds_a;
    LibraryContents() = Contents(holds_a ? kPutSetA : kPutSetB, count);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

void RawPut(benchmark::State& state, uint64_t count) {
  PutData& data = Put(count);
  if (!data.raw) {
    data.raw =
        std::make_unique<RawDb>(FreshWorkPath("raw_fvhash_put_" + std::to_string(count)), true, 0);
    RawClearAndSet(data.raw->db(), data.a);
    data.raw->CompactAll();
    data.raw_contents = "a";
  }
  for (auto _ : state) {
    RawClearAndSet(data.raw->db(), data.raw_contents == "a" ? data.b : data.a);
    state.PauseTiming();
    data.raw->CompactAll();
    data.raw_contents = data.raw_contents == "a" ? "b" : "a";
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

// --- Peak resident memory of FVhashStore_Put ------------------------------------

// A compacted directory holding list A of "count" hashes, as the store keeps
// it: the starting point of every probe.
const std::string& PutTemplate(uint64_t count) {
  static std::map<uint64_t, std::string> templates;
  std::string& path = templates[count];
  if (path.empty()) {
    path = FreshWorkPath("fvhash_template_" + std::to_string(count));
    RawDb db(path, true, 0);
    RawClearAndSet(db.db(), MakeList(kPutSetA, count, true));
    db.CompactAll();
  }
  return path;
}

std::string SelfPath() {
  char buffer[4096];
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  Require(length > 0, "readlink /proc/self/exe");
  return std::string(buffer, static_cast<size_t>(length));
}

// Runs the probe in a fresh process and sets the counters from its answer.
void MemoryProbe(benchmark::State& state, const char* mode, uint64_t count) {
  const std::string command = "'" + SelfPath() + "' --memory-probe " + mode + " '" +
                              PutTemplate(count) + "' " + std::to_string(count);
  unsigned long long peak_delta = 0;
  unsigned long long peak = 0;
  for (auto _ : state) {
    FILE* child = popen(command.c_str(), "r");
    Require(child != nullptr, "popen " + command);
    const int fields = std::fscanf(child, "%llu %llu", &peak_delta, &peak);
    const int status = pclose(child);
    Require(fields == 2 && status == 0, "memory probe " + command);
  }
  state.counters["peak_rss_growth"] = static_cast<double>(peak_delta);
  state.counters["peak_rss"] = static_cast<double>(peak);
}

}  // namespace

int RunMemoryProbe(int argc, char** argv) {
  // <exe> --memory-probe library|raw <template> <count>
  if (argc != 5) {
    std::cerr << "usage: " << argv[0] << " --memory-probe library|raw <directory> <count>\n";
    return 2;
  }
  const std::string mode = argv[2];
  const std::string template_path = argv[3];
  const uint64_t count = std::strtoull(argv[4], nullptr, 10);
  InitDirectories();
  setenv("ZERLA_DATA_ROOT", DataRoot().c_str(), 1);
  const std::vector<fv_hash> list = MakeList(kPutSetB, count, true);

  unsigned long long growth = 0;
  unsigned long long peak = 0;
  if (mode == "library") {
    CopyDirectory(template_path, DataRoot() + "/fvhash_store");
    unsigned long present = 0;
    // First use: the store opens with its verifying read.
    Require(persistence::FVhashStore_Count(&present).ok() && present == count, "count");
    ResetPeakResident();
    const uint64_t before = ResidentBytes();
    Require(persistence::FVhashStore_Put(list) == 0, "FVhashStore_Put");
    peak = PeakResidentBytes();
    growth = peak - before;
  } else if (mode == "raw") {
    const std::string path = WorkDir() + "/raw";
    CopyDirectory(template_path, path);
    RawDb db(path, true, 0);
    // The same verifying read as the store's first use, so that both start
    // with the tables mapped and read once.
    Require(VerifyingWalk(db.db()) == count, "count");
    ResetPeakResident();
    const uint64_t before = ResidentBytes();
    RawClearAndSet(db.db(), list);
    peak = PeakResidentBytes();
    growth = peak - before;
  } else {
    std::cerr << "unknown probe mode " << mode << "\n";
    return 2;
  }
  std::printf("%llu %llu\n", growth, peak);
  std::fflush(stdout);
  return 0;
}

void RegisterFVhashBenchmarks() {
  const auto threads = [](benchmark::internal::Benchmark* b) {
    b->Threads(1)->Threads(2)->UseRealTime()->MinWarmUpTime(0.2);
  };
  Row hit;
  hit.operation = "FVhashStore_Check_hit";
  hit.label =
      "FVhashStore_Check, listed hash, " + std::to_string(sizes().check_records) + " hashes";
  hit.goal = 1.10;
  hit.threads = {1, 2};
  hit.has_scaling = true;
  hit.scaling_goal = 1.7;
  RegisterPair(
      hit, [](benchmark::State& state) { LibraryCheck(state, true); },
      [](benchmark::State& state) { RawCheckLoop(state, true); }, threads);

  Row miss = hit;
  miss.operation = "FVhashStore_Check_miss";
  miss.label =
      "FVhashStore_Check, unlisted hash, " + std::to_string(sizes().check_records) + " hashes";
  RegisterPair(
      miss, [](benchmark::State& state) { LibraryCheck(state, false); },
      [](benchmark::State& state) { RawCheckLoop(state, false); }, threads);

  for (const uint64_t count : sizes().put_records) {
    Row put;
    put.operation = "FVhashStore_Put_" + std::to_string(count);
    put.label = "FVhashStore_Put of " + std::to_string(count) + " hashes";
    put.goal = 1.15;
    RegisterPair(
        put, [count](benchmark::State& state) { LibraryPut(state, count); },
        [count](benchmark::State& state) { RawPut(state, count); },
        [](benchmark::internal::Benchmark* b) {
          b->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
        });
  }
  for (const uint64_t count : sizes().put_records) {
    Row memory;
    memory.operation = "FVhashStore_Put_" + std::to_string(count) + "_peak_memory";
    memory.label = "FVhashStore_Put of " + std::to_string(count) + " hashes, peak resident growth";
    memory.metric = Metric::kMemory;
    memory.counter = "peak_rss_growth";
    memory.goal = 1.5;
    RegisterPair(
        memory, [count](benchmark::State& state) { MemoryProbe(state, "library", count); },
        [count](benchmark::State& state) { MemoryProbe(state, "raw", count); },
        [](benchmark::internal::Benchmark* b) {
          b->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
        });
  }
}

}  // namespace bench
