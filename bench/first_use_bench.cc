// First use of a store, that is its open with recovery, on a million
// records, against a raw open and a walk that verifies every checksum.
//
// A store's singleton opens once per process, so the typed store is opened
// here through a store of its own over the same records that calls the
// protected open exactly as the singleton does. The enrichment store's LRU
// store opens each of its two databases twice (a probe with its verifying
// read, then the real open), by design; its raw equivalent opens each once.
#include <cstdint>
#include <memory>
#include <string>

#include "bench/bench_common.h"
#include "bench/lru_bench_store.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "persistence/kvstore.h"

namespace bench {
namespace {

// The fvhash store's typed store, opened as persistence::FVhashStore opens
// it: recovery on, paranoid checks, no block cache of its own.
class FirstUseFVhashStore : public persistence::KVStore<std::string, proto::FVhashStore::Value,
                                                        proto::FVhashStore::Data> {
 public:
  FirstUseFVhashStore() : KVStore(108) {}
  persistence::Status Open(const std::string& path) { return OpenWithRecovery(path, true, 0); }
};

const std::string& FVhashDirectory() {
  static std::string path;
  if (!path.empty()) return path;
  path = FreshWorkPath("first_use_fvhash");
  RawDb db(path, true, 0);
  const uint64_t count = sizes().first_use_records;
  const uint64_t kBatch = 10000;
  for (uint64_t start = 0; start < count; start += kBatch) {
    leveldb::WriteBatch batch;
    std::string bytes;
    for (uint64_t i = start; i < count && i < start + kBatch; ++i) {
      proto::FVhashStore::Value value;
      value.set_verdict(i % 2 == 0);
      Require(EncodeVerified(value, &bytes), "encode");
      batch.Put(HashKey(4, i), bytes);
    }
    Require(db->Write(WriteSync(false), &batch), "write");
  }
  db.CompactAll();
  return path;
}

void LibraryFVhashFirstUse(benchmark::State& state) {
  const std::string& path = FVhashDirectory();
  std::unique_ptr<FirstUseFVhashStore> store;
  for (auto _ : state) {
    store.reset();
    store = std::make_unique<FirstUseFVhashStore>();
    Require(store->Open(path).ok(), "open with recovery");
  }
  uint64_t count = 0;
  Require(store->Count(&count, nullptr).ok() && count == sizes().first_use_records, "count");
  store.reset();
}

// Raw: the database opened with the store's options and read through with
// checksums verified.
[[gnu::noinline]] std::unique_ptr<RawDb> RawFVhashOpen(const std::string& path, uint64_t* count) {
  auto db = std::make_unique<RawDb>(path, true, 0);
  *count = VerifyingWalk(db->db());
  return db;
}

void RawFVhashFirstUse(benchmark::State& state) {
  const std::string& path = FVhashDirectory();
  std::unique_ptr<RawDb> db;
  uint64_t count = 0;
  for (auto _ : state) {
    db.reset();
    db = RawFVhashOpen(path, &count);
  }
  Require(count == sizes().first_use_records, "count");
  db.reset();
}

const std::string& EnrichmentDirectory() {
  static std::string parent;
  if (!parent.empty()) return parent;
  parent = FreshWorkDirectory("first_use_enrichment");
  WriteEnrichmentDirectories(parent + "/enrichment", sizes().first_use_records, true);
  return parent;
}

// The enrichment store's first use: construction and Open with its 10 MiB
// cache, both threads started.
void LibraryEnrichmentFirstUse(benchmark::State& state) {
  const std::string path = EnrichmentDirectory() + "/enrichment";
  std::unique_ptr<BenchLruStore> store;
  for (auto _ : state) {
    store.reset();
    store = std::make_unique<BenchLruStore>(16, true);
    Require(store->Open(path, 10).ok(), "open");
  }
  uint64_t index = 0;
  Require(store->GetCurrentLruIndex(&index).ok() && index == sizes().first_use_records,
          "highest row");
  store.reset();
}

// Raw: each database opened once with the store's options and read through
// with checksums verified, and the highest row read for the counter.
void RawEnrichmentFirstUse(benchmark::State& state) {
  const std::string path = EnrichmentDirectory() + "/enrichment";
  std::unique_ptr<RawDb> main;
  std::unique_ptr<RawDb> lru;
  uint64_t index = 0;
  for (auto _ : state) {
    lru.reset();
    main.reset();
    main = std::make_unique<RawDb>(path, false, 10);
    VerifyingWalk(main->db());
    lru = std::make_unique<RawDb>(path + ".lru", false, 0);
    VerifyingWalk(lru->db());
    std::unique_ptr<leveldb::Iterator> it((*lru)->NewIterator(leveldb::ReadOptions()));
    it->SeekToLast();
    index = 0;
    if (it->Valid()) {
      for (const char c : it->key().ToString()) {
        if (c >= '0' && c <= '9') index = index * 10 + static_cast<uint64_t>(c - '0');
      }
    }
  }
  Require(index == sizes().first_use_records, "highest row");
  lru.reset();
  main.reset();
}

}  // namespace

void RegisterFirstUseBenchmarks() {
  const auto once = [](benchmark::internal::Benchmark* b) {
    b->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
  };
  Row fvhash;
  fvhash.operation = "FirstUse_FVhashStore";
  fvhash.label = "First use (open with recovery), fvhash store, " +
                 std::to_string(sizes().first_use_records) + " records";
  fvhash.goal = 1.2;
  RegisterPair(fvhash, LibraryFVhashFirstUse, RawFVhashFirstUse, once);

  Row enrichment;
  enrichment.operation = "FirstUse_EnrichmentStore";
  enrichment.label = "First use (open with recovery), enrichment store, " +
                     std::to_string(sizes().first_use_records) + " records";
  RegisterPair(enrichment, LibraryEnrichmentFirstUse, RawEnrichmentFirstUse, once);
}

}  // namespace bench
