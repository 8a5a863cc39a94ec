// The enrichment family against raw LevelDB: EnrichmentStore_GetEntry of a
// young entry, EnrichmentStore_PutEntry of a new and of an existing entry
// with the store's threads running, a mixed 90/10 workload on one and two
// threads; and the LRU store's long passes on realistic records: one Prune
// pass on a store at its maximum size, and RebuildLru.
//
// The raw side keeps the order of use as a plain implementation must: a
// renewed or new entry gets its row in the second database in the caller's
// thread, where the library leaves a note for its sync thread.
#include "bench/lru_bench_store.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/bench_common.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"

namespace bench {

EnrichmentValue EnrichmentRecord(uint64_t seed) {
  EnrichmentValue value;
  value.set_image_path("/opt/vendor-" + std::to_string(seed % 97) +
                       "/lib/x86_64-linux-gnu/libagent" + std::to_string(seed) + ".so.2.14.0");
  proto::EnrichmentStore::SignatureDetails* signature = value.mutable_signature_details();
  signature->set_product_family("Endpoint Components " + std::to_string(seed % 13));
  signature->set_vendor("Example Software Vendor, Inc. (" + HashKey(77, seed).substr(0, 10) + ")");
  signature->set_signature_state(static_cast<uint32_t>(seed % 4));
  signature->set_os_specific(static_cast<uint32_t>(seed % 3));
  signature->set_notarized(seed % 2 == 0);
  value.set_sha256(HashKey(78, seed));
  value.set_md5(HashKey(79, seed).substr(0, 32));
  value.set_sa_score(static_cast<double>(seed % 1000) / 10.0);
  value.add_entitlements("com.example.security.cs.allow-jit");
  value.add_entitlements("com.example.security.network.client." + std::to_string(seed));
  value.add_entitlements("com.example.security.files.user-selected.read-only");
  return value;
}

std::string LruRowKey(uint64_t index) {
  char text[21] = {};
  std::snprintf(text, sizeof text, "%20" PRIu64, index);
  return std::string(text, 20);
}

void WriteEnrichmentDirectories(const std::string& path, uint64_t count, bool rows) {
  RawDb main(path, false, 10);
  std::unique_ptr<RawDb> lru;
  if (rows) lru = std::make_unique<RawDb>(path + ".lru", false, 0);
  const int64_t now = std::time(nullptr);
  const uint64_t kBatch = 10000;
  for (uint64_t start = 0; start < count; start += kBatch) {
    leveldb::WriteBatch batch;
    leveldb::WriteBatch row_batch;
    for (uint64_t i = start; i < count && i < start + kBatch; ++i) {
      const std::string key = HashKey(8000, i);
      EnrichmentValue value = EnrichmentRecord(i);
      value.mutable_lru_data()->set_last_used(now);
      value.mutable_lru_data()->set_index(i + 1);
      std::string bytes;
      Require(EncodeVerified(value, &bytes), "encode");
      batch.Put(key, bytes);
      if (rows) {
        EnrichmentRow row;
        row.set_foreign_key(key);
        Require(EncodeVerified(row, &bytes), "encode");
        row_batch.Put(LruRowKey(i + 1), bytes);
      }
    }
    Require(main->Write(WriteSync(false), &batch), "write records");
    if (rows) Require((*lru)->Write(WriteSync(false), &row_batch), "write rows");
  }
  main.CompactAll();
  if (rows) lru->CompactAll();
}

namespace {

constexpr int64_t kRenewSeconds = 60;

// --- The raw enrichment store ---------------------------------------------------

// Both databases with the store's options: no paranoid checks, the Bloom
// filter, 10 MiB of block cache for the records and the engine's default for
// the rows.
struct RawEnrichment {
  std::unique_ptr<RawDb> main;
  std::unique_ptr<RawDb> lru;
  std::mutex index_mutex;
  uint64_t index = 0;

  uint64_t NextIndex() {
    std::lock_guard<std::mutex> lock(index_mutex);
    return ++index;
  }

  // Stamps "value" with a new index and writes it, then its row, and
  // retires the row of "old_index".
  bool Renew(const std::string& key, EnrichmentValue& value, int64_t now) {
    const uint64_t old_index = value.lru_data().index();
    const uint64_t new_index = NextIndex();
    value.mutable_lru_data()->set_last_used(now);
    value.mutable_lru_data()->set_index(new_index);
    std::string bytes;
    if (!EncodeVerified(value, &bytes)) return false;
    if (!main->db()->Put(WriteSync(false), key, bytes).ok()) return false;
    EnrichmentRow row;
    row.set_foreign_key(key);
    if (!EncodeVerified(row, &bytes)) return false;
    if (!lru->db()->Put(WriteSync(false), LruRowKey(new_index), bytes).ok()) return false;
    if (old_index != 0) lru->db()->Delete(WriteSync(false), LruRowKey(old_index));
    return true;
  }

  // EnrichmentStore_GetEntry's work: a read, a parse, the age test, and a
  // renewal when the entry is more than a minute old.
  [[gnu::noinline]] bool Get(const std::string& key, EnrichmentValue* value) {
    std::string bytes;
    value->Clear();
    if (!main->db()->Get(PlainRead(), key, &bytes).ok()) return false;
    if (!value->ParseFromString(bytes)) return false;
    const int64_t now = std::time(nullptr);
    if (now - value->lru_data().last_used() > kRenewSeconds) return Renew(key, *value, now);
    return true;
  }

  // EnrichmentStore_PutEntry's work: the caller's value copied, the stored
  // lru_data taken over, and either a plain write or a renewal.
  [[gnu::noinline]] bool Put(const std::string& key, const EnrichmentValue& caller_value) {
    EnrichmentValue value = caller_value;
    std::string bytes;
    if (main->db()->Get(PlainRead(), key, &bytes).ok()) {
      EnrichmentValue present;
      if (present.ParseFromString(bytes)) *value.mutable_lru_data() = present.lru_data();
    }
    const int64_t now = std::time(nullptr);
    if (now - value.lru_data().last_used() > kRenewSeconds) return Renew(key, value, now);
    if (!EncodeVerified(value, &bytes)) return false;
    return main->db()->Put(WriteSync(false), key, bytes).ok();
  }
};

RawEnrichment& Raw() {
  static RawEnrichment raw;
  static std::once_flag once;
  std::call_once(once, [] {
    const std::string path = FreshWorkPath("raw_enrichment");
    RemoveDirectory(path + ".lru");
    raw.main = std::make_unique<RawDb>(path, false, 10);
    raw.lru = std::make_unique<RawDb>(path + ".lru", false, 0);
  });
  return raw;
}

// --- Young entries ----------------------------------------------------------------

// The keys a run reads and rewrites: a fresh generation per run, written at
// its start, so that every entry stays younger than a minute while it runs.
struct HotSet {
  uint64_t generation = 0;
  std::vector<std::string> keys;
  std::vector<EnrichmentValue> values;

  void Next(uint64_t side) {
    ++generation;
    keys.clear();
    values.clear();
    for (uint64_t i = 0; i < sizes().hot_keys; ++i) {
      keys.push_back(HashKey(10000 + side * 1000000 + generation, i));
      values.push_back(EnrichmentRecord(generation * 100000 + i));
    }
  }
};

HotSet& LibraryHot() {
  static HotSet hot;
  return hot;
}

HotSet& RawHot() {
  static HotSet hot;
  return hot;
}

void WriteLibraryHot() {
  HotSet& hot = LibraryHot();
  hot.Next(1);
  for (size_t i = 0; i < hot.keys.size(); ++i) {
    Require(persistence::EnrichmentStore_PutEntry(hot.keys[i], hot.values[i]).ok(), "PutEntry");
  }
  // Reads then find the entries in the tables, on both sides alike.
  Require(persistence::EnrichmentStoreEx::Instance().Compact().ok(), "compact");
}

void WriteRawHot() {
  HotSet& hot = RawHot();
  hot.Next(2);
  for (size_t i = 0; i < hot.keys.size(); ++i) {
    Require(Raw().Put(hot.keys[i], hot.values[i]), "raw put");
  }
  Raw().lru->CompactAll();
  Raw().main->CompactAll();
}

void LibraryGetEntry(benchmark::State& state) {
  WriteLibraryHot();
  const HotSet& hot = LibraryHot();
  const size_t mask = sizes().hot_keys - 1;
  size_t i = 0;
  EnrichmentValue value;
  for (auto _ : state) {
    const persistence::Status status =
        persistence::EnrichmentStore_GetEntry(hot.keys[i++ & mask], &value);
    benchmark::DoNotOptimize(status.code);
  }
  Require(value.lru_data().index() != 0, "entry read back");
}

void RawGetEntry(benchmark::State& state) {
  WriteRawHot();
  const HotSet& hot = RawHot();
  RawEnrichment& raw = Raw();
  const size_t mask = sizes().hot_keys - 1;
  size_t i = 0;
  EnrichmentValue value;
  for (auto _ : state) {
    const bool found = raw.Get(hot.keys[i++ & mask], &value);
    benchmark::DoNotOptimize(found);
  }
  Require(value.lru_data().index() != 0, "entry read back");
}

void LibraryPutExisting(benchmark::State& state) {
  WriteLibraryHot();
  const HotSet& hot = LibraryHot();
  const size_t mask = sizes().hot_keys - 1;
  size_t i = 0;
  for (auto _ : state) {
    const size_t k = i++ & mask;
    const persistence::Status status =
        persistence::EnrichmentStore_PutEntry(hot.keys[k], hot.values[mask - k]);
    benchmark::DoNotOptimize(status.code);
  }
}

void RawPutExisting(benchmark::State& state) {
  WriteRawHot();
  const HotSet& hot = RawHot();
  RawEnrichment& raw = Raw();
  const size_t mask = sizes().hot_keys - 1;
  size_t i = 0;
  for (auto _ : state) {
    const size_t k = i++ & mask;
    const bool ok = raw.Put(hot.keys[k], hot.values[mask - k]);
    benchmark::DoNotOptimize(ok);
  }
}

// New keys: a fixed number per run, made before the time starts, each run
// with keys never written before.
std::vector<std::string> NewKeys(uint64_t side, int64_t count) {
  static uint64_t generation = 0;
  ++generation;
  std::vector<std::string> keys;
  for (int64_t i = 0; i < count; ++i) {
    keys.push_back(HashKey(50000 + side * 1000000 + generation, static_cast<uint64_t>(i)));
  }
  return keys;
}

void LibraryPutNew(benchmark::State& state) {
  if (LibraryHot().keys.empty()) WriteLibraryHot();
  const std::vector<std::string> keys = NewKeys(1, state.max_iterations);
  const HotSet& hot = LibraryHot();
  const size_t mask = sizes().hot_keys - 1;
  size_t i = 0;
  for (auto _ : state) {
    const persistence::Status status =
        persistence::EnrichmentStore_PutEntry(keys[i], hot.values[i & mask]);
    benchmark::DoNotOptimize(status.code);
    ++i;
  }
}

void RawPutNew(benchmark::State& state) {
  if (RawHot().keys.empty()) WriteRawHot();
  const std::vector<std::string> keys = NewKeys(2, state.max_iterations);
  const HotSet& hot = RawHot();
  RawEnrichment& raw = Raw();
  const size_t mask = sizes().hot_keys - 1;
  size_t i = 0;
  for (auto _ : state) {
    const bool ok = raw.Put(keys[i], hot.values[i & mask]);
    benchmark::DoNotOptimize(ok);
    ++i;
  }
}

// 90 % GetEntry, 10 % PutEntry of young entries, on every thread of the run.
template <typename Get, typename Put>
void Mixed(benchmark::State& state, const HotSet& hot, const Get& get, const Put& put) {
  const size_t mask = sizes().hot_keys - 1;
  uint64_t random = Mix(static_cast<uint64_t>(state.thread_index()) + 1);
  EnrichmentValue value;
  for (auto _ : state) {
    random = Mix(random);
    const size_t k = random & mask;
    if ((random >> 32) % 10 == 0) {
      put(hot.keys[k], hot.values[mask - k]);
    } else {
      get(hot.keys[k], &value);
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void LibraryMixed(benchmark::State& state) {
  if (state.thread_index() == 0) WriteLibraryHot();
  Mixed(
      state, LibraryHot(),
      [](const std::string& key, EnrichmentValue* value) {
        benchmark::DoNotOptimize(persistence::EnrichmentStore_GetEntry(key, value).code);
      },
      [](const std::string& key, const EnrichmentValue& value) {
        benchmark::DoNotOptimize(persistence::EnrichmentStore_PutEntry(key, value).code);
      });
}

void RawMixed(benchmark::State& state) {
  if (state.thread_index() == 0) WriteRawHot();
  RawEnrichment& raw = Raw();
  Mixed(
      state, RawHot(),
      [&raw](const std::string& key, EnrichmentValue* value) {
        benchmark::DoNotOptimize(raw.Get(key, value));
      },
      [&raw](const std::string& key, const EnrichmentValue& value) {
        benchmark::DoNotOptimize(raw.Put(key, value));
      });
}

// --- One pruning pass -------------------------------------------------------------

// A store filled by the library itself, rows applied, compacted, just over
// its maximum: the state in which the pruning thread finds it.
const std::string& PruneTemplate() {
  static std::string parent;
  if (!parent.empty()) return parent;
  parent = FreshWorkDirectory("prune_template");
  const std::string path = parent + "/enrichment";
  const uint64_t max_bytes = sizes().prune_max_mb << 20;
  BenchLruStore store(sizes().prune_max_mb, false);
  Require(store.Open(path, 10).ok(), "open");
  const uint64_t kBatch = 1000;
  uint64_t count = 0;
  for (int round = 1;; ++round) {
    std::vector<std::string> keys;
    std::vector<EnrichmentValue> values;
    for (uint64_t i = 0; i < kBatch; ++i, ++count) {
      keys.push_back(HashKey(9000, count));
      values.push_back(EnrichmentRecord(count));
    }
    Require(store.Put(keys, values, false).ok(), "put");
    store.ApplyLruUpdates();
    if (round % 4 == 0) {
      Require(store.Compact().ok(), "compact");
      if (store.GetSize() > max_bytes) break;
    }
  }
  std::fprintf(stderr, "prune template: %" PRIu64 " records, %" PRIu64 " bytes\n", count,
               store.GetSize());
  return parent;
}

// A pruning pass on raw LevelDB: compact both databases, measure them, count
// the records, walk the rows from the oldest adding up the engine's size
// estimates of each row and its record until the excess over 80 % of the
// maximum is covered, delete those records and then their rows, compact
// again and measure.
[[gnu::noinline]] void RawPrune(RawDb& main, RawDb& lru, uint64_t max_bytes) {
  lru.CompactAll();
  main.CompactAll();
  const uint64_t size = DirectorySize(main.path()) + DirectorySize(lru.path());
  if (size <= max_bytes) return;
  uint64_t count = 0;
  {
    leveldb::ReadOptions options;
    options.fill_cache = false;
    std::unique_ptr<leveldb::Iterator> it(main->NewIterator(options));
    for (it->SeekToFirst(); it->Valid(); it->Next()) ++count;
    Require(it->status(), "count");
  }
  if (count == 0) return;
  const uint64_t target = static_cast<uint64_t>(static_cast<double>(max_bytes) * 0.8);
  const uint64_t excess = size - target;

  std::vector<std::string> row_keys;
  std::vector<std::string> record_keys;
  {
    std::unique_ptr<leveldb::Iterator> rows(lru->NewIterator(leveldb::ReadOptions()));
    std::unique_ptr<leveldb::Iterator> records(main->NewIterator(leveldb::ReadOptions()));
    uint64_t sum = 0;
    rows->SeekToFirst();
    while (rows->Valid() && sum < excess) {
      const std::string row_key = rows->key().ToString();
      EnrichmentRow row;
      const bool parsed =
          row.ParseFromArray(rows->value().data(), static_cast<int>(rows->value().size()));
      rows->Next();
      if (!parsed) continue;
      // The last key of a database has no size.
      if (!rows->Valid()) break;
      const std::string next_row_key = rows->key().ToString();
      records->Seek(row.foreign_key());
      if (!records->Valid()) continue;
      records->Next();
      if (!records->Valid()) continue;
      const std::string next_record_key = records->key().ToString();
      const leveldb::Range ranges[2] = {{row_key, next_row_key},
                                        {row.foreign_key(), next_record_key}};
      uint64_t row_size = 0;
      uint64_t record_size = 0;
      lru->GetApproximateSizes(&ranges[0], 1, &row_size);
      main->GetApproximateSizes(&ranges[1], 1, &record_size);
      sum += row_size + record_size;
      row_keys.push_back(row_key);
      record_keys.push_back(row.foreign_key());
    }
    Require(rows->status(), "walk rows");
  }
  leveldb::WriteBatch record_batch;
  for (const std::string& key : record_keys) record_batch.Delete(key);
  Require(main->Write(WriteSync(false), &record_batch), "delete records");
  leveldb::WriteBatch row_batch;
  for (const std::string& key : row_keys) row_batch.Delete(key);
  Require(lru->Write(WriteSync(false), &row_batch), "delete rows");
  lru.CompactAll();
  main.CompactAll();
  benchmark::DoNotOptimize(DirectorySize(main.path()) + DirectorySize(lru.path()));
}

void LibraryPrune(benchmark::State& state) {
  const std::string run = WorkDir() + "/prune_run";
  CopyDirectory(PruneTemplate(), run);
  const uint64_t max_bytes = sizes().prune_max_mb << 20;
  {
    BenchLruStore store(sizes().prune_max_mb, false);
    Require(store.Open(run + "/enrichment", 10).ok(), "open");
    const uint64_t before = store.GetSize();
    for (auto _ : state) store.Prune();
    const uint64_t after = store.GetSize();
    Require(before > max_bytes && after < max_bytes, "the pass pruned");
    state.counters["bytes_before"] = static_cast<double>(before);
    state.counters["bytes_after"] = static_cast<double>(after);
  }
  RemoveDirectory(run);
}

void RawPruneLoop(benchmark::State& state) {
  const std::string run = WorkDir() + "/prune_run";
  CopyDirectory(PruneTemplate(), run);
  const uint64_t max_bytes = sizes().prune_max_mb << 20;
  {
    RawDb main(run + "/enrichment", false, 10);
    RawDb lru(run + "/enrichment.lru", false, 0);
    const uint64_t before = DirectorySize(main.path()) + DirectorySize(lru.path());
    for (auto _ : state) RawPrune(main, lru, max_bytes);
    const uint64_t after = DirectorySize(main.path()) + DirectorySize(lru.path());
    Require(before > max_bytes && after < max_bytes, "the pass pruned");
    state.counters["bytes_before"] = static_cast<double>(before);
    state.counters["bytes_after"] = static_cast<double>(after);
  }
  RemoveDirectory(run);
}

// --- RebuildLru ---------------------------------------------------------------------

// Records with indexes and no LRU database: what a rebuild starts from.
const std::string& RebuildTemplate() {
  static std::string parent;
  if (!parent.empty()) return parent;
  parent = FreshWorkDirectory("rebuild_template");
  WriteEnrichmentDirectories(parent + "/enrichment", sizes().rebuild_records, false);
  return parent;
}

// A rebuild on raw LevelDB: a walk of the records and one row written for
// each, at its index moved up by 1000.
[[gnu::noinline]] void RawRebuildPass(RawDb& main, RawDb& lru) {
  std::unique_ptr<leveldb::Iterator> it(main->NewIterator(leveldb::ReadOptions()));
  std::string bytes;
  for (it->SeekToFirst(); it->Valid(); it->Next()) {
    EnrichmentValue value;
    Require(value.ParseFromArray(it->value().data(), static_cast<int>(it->value().size())),
            "parse");
    EnrichmentRow row;
    row.set_foreign_key(it->key().ToString());
    Require(EncodeVerified(row, &bytes), "encode");
    Require(lru->Put(WriteSync(false), LruRowKey(value.lru_data().index() + 1000), bytes), "row");
  }
  Require(it->status(), "walk");
}

void LibraryRebuild(benchmark::State& state) {
  const std::string run = WorkDir() + "/rebuild_run";
  CopyDirectory(RebuildTemplate(), run);
  {
    BenchLruStore store(16, false);
    Require(store.Open(run + "/enrichment", 10).ok(), "open");
    for (auto _ : state) Require(store.RebuildLru().ok(), "RebuildLru");
    uint64_t index = 0;
    Require(store.GetCurrentLruIndex(&index).ok() && index == sizes().rebuild_records + 1000,
            "rows rebuilt");
  }
  RemoveDirectory(run);
}

void RawRebuild(benchmark::State& state) {
  const std::string run = WorkDir() + "/rebuild_run";
  CopyDirectory(RebuildTemplate(), run);
  {
    RawDb main(run + "/enrichment", false, 10);
    RawDb lru(run + "/enrichment.lru", false, 0);
    for (auto _ : state) RawRebuildPass(main, lru);
  }
  RemoveDirectory(run);
}

}  // namespace

void RegisterEnrichmentBenchmarks() {
  const auto plain = [](benchmark::internal::Benchmark* b) {
    b->UseRealTime()->MinWarmUpTime(0.2);
  };
  Row get;
  get.operation = "EnrichmentStore_GetEntry_young";
  get.label = "EnrichmentStore_GetEntry, young entry";
  get.goal = 1.10;
  RegisterPair(get, LibraryGetEntry, RawGetEntry, plain);

  Row put_new;
  put_new.operation = "EnrichmentStore_PutEntry_new";
  put_new.label = "EnrichmentStore_PutEntry, new entry";
  put_new.goal = 1.10;
  const int64_t new_puts = sizes().new_entry_puts;
  RegisterPair(put_new, LibraryPutNew, RawPutNew, [new_puts](benchmark::internal::Benchmark* b) {
    b->Iterations(new_puts)->UseRealTime();
  });

  Row put_existing;
  put_existing.operation = "EnrichmentStore_PutEntry_existing";
  put_existing.label = "EnrichmentStore_PutEntry, existing young entry";
  put_existing.goal = 1.10;
  RegisterPair(put_existing, LibraryPutExisting, RawPutExisting, plain);

  Row mixed;
  mixed.operation = "EnrichmentStore_mixed_90_10";
  mixed.label = "EnrichmentStore 90% GetEntry / 10% PutEntry";
  mixed.goal = 1.10;
  mixed.threads = {1, 2};
  mixed.has_scaling = true;
  RegisterPair(mixed, LibraryMixed, RawMixed, [](benchmark::internal::Benchmark* b) {
    b->Threads(1)->Threads(2)->UseRealTime()->MinWarmUpTime(0.2);
  });

  const auto once = [](benchmark::internal::Benchmark* b) {
    b->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
  };
  Row prune;
  prune.operation = "PersistentLruStore_Prune";
  prune.label =
      "Prune, one pass over a " + std::to_string(sizes().prune_max_mb) + " MiB enrichment store";
  RegisterPair(prune, LibraryPrune, RawPruneLoop, once);

  Row rebuild;
  rebuild.operation = "PersistentLruStore_RebuildLru";
  rebuild.label = "RebuildLru of " + std::to_string(sizes().rebuild_records) + " entries";
  RegisterPair(rebuild, LibraryRebuild, RawRebuild, once);
}

}  // namespace bench
