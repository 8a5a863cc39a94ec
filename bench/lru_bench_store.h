// The enrichment records as the benchmarks make them, and a store over them
// that reaches the LRU store's protected passes (Prune, RebuildLru) and can
// run without its two threads.
#pragma once

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "persistence/persistent_lru_store.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace bench {

using EnrichmentValue = proto::EnrichmentStore::Value;
using EnrichmentRow = proto::EnrichmentLruStore::Value;
using LruStoreBase =
    persistence::PersistentLruStore<std::string, EnrichmentValue, proto::EnrichmentStore::Data,
                                    EnrichmentRow, proto::EnrichmentLruStore::Data>;

// The enrichment store's construction values, with the maximum and the two
// threads chosen by the benchmark.
class BenchLruStore : public LruStoreBase {
 public:
  BenchLruStore(size_t max_size_mb, bool threads)
      : LruStoreBase(max_size_mb, std::chrono::hours(24), 108), threads_(threads) {}
  // Joins the threads while this part of the object still stands.
  ~BenchLruStore() override { Stop(); }

  bool worker_threads_enabled() const override { return threads_; }

  using LruStoreBase::ApplyLruUpdates;
  using LruStoreBase::Prune;
  using LruStoreBase::RebuildLru;

 private:
  const bool threads_;
};

// A realistic record: image path, signature details, hashes, score and three
// entitlements; lru_data is left unset.
EnrichmentValue EnrichmentRecord(uint64_t seed);

// The key of the LRU database for "index": "%20llu", 20 bytes.
std::string LruRowKey(uint64_t index);

// Main-store and LRU directories of a store of "count" records with rows,
// compacted, written directly; every record has index i + 1 and a row for it
// when "rows" is set.
void WriteEnrichmentDirectories(const std::string& path, uint64_t count, bool rows);

}  // namespace bench
