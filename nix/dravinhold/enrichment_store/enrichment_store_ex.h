// persistence::EnrichmentStoreEx: the enrichment store's singleton, the one
// instance of the LRU store.
#pragma once

#include <chrono>

#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "nix/dravinhold/store_scaffold.h"
#include "persistence/persistent_lru_store.h"
#include "zerla_common/config/path_config.h"

namespace persistence {

// The stores' code is compiled once, with the enrichment store's source.
extern template class KVStore<std::string, proto::EnrichmentStore::Value,
                              proto::EnrichmentStore::Data>;
extern template class KVStore<std::string, proto::EnrichmentLruStore::Value,
                              proto::EnrichmentLruStore::Data>;
extern template class PersistentLruStore<
    std::string, proto::EnrichmentStore::Value, proto::EnrichmentStore::Data,
    proto::EnrichmentLruStore::Value, proto::EnrichmentLruStore::Data>;

class DRAVINHOLD_EXPORT EnrichmentStoreEx
    : public PersistentLruStore<std::string, proto::EnrichmentStore::Value,
                                proto::EnrichmentStore::Data, proto::EnrichmentLruStore::Value,
                                proto::EnrichmentLruStore::Data> {
 public:
  // Both databases together stay below this, in MiB.
  static constexpr size_t kMaxSizeMb = 16;
  static constexpr std::chrono::hours kPruningInterval{24};
  // Block cache of the main store, in MiB.
  static constexpr unsigned long kCacheSizeMb = 10;

  // The store, constructed and opened on first use, with both threads
  // running until process exit. A store whose databases did not open is
  // handed out all the same: its operations fail and try to reopen them.
  // Exported, with "instance" and its guard, so that this function inlined
  // in a caller's code and in the library constructs one object per process.
  DRAVINHOLD_EXPORT static EnrichmentStoreEx& Instance() {
    static EnrichmentStoreEx instance;
    return instance;
  }

  // Joins the threads before this object's end starts, so that they never
  // meet a half-destroyed store.
  ~EnrichmentStoreEx() override { Stop(); }

 private:
  EnrichmentStoreEx() : PersistentLruStore(kMaxSizeMb, kPruningInterval, kStoreHeapTag) {
    // Whatever Open reports is all that is reported.
    Open(zerla_common::config::PathConfig::Get(zerla_common::config::kEnrichmentStore),
         kCacheSizeMb);
  }
};

}  // namespace persistence
