// The enrichment store's two record schemas, and the logger of the typed
// stores over them. Every instantiation over these records must see this
// header: they log through the enrichment logger.
#pragma once

// The message classes are exported with the library.
#pragma GCC visibility push(default)
#include "dravinhold/enrichment_store/enrichment_lru_store.pb.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#pragma GCC visibility pop

#include "nix/dravinhold/logging.h"
#include "persistence/kvstore.h"

namespace persistence {

template <>
struct KVStoreLogger<proto::EnrichmentStore::Value> {
  using type = EnrichmentLogger;
};

template <>
struct KVStoreLogger<proto::EnrichmentLruStore::Value> {
  using type = EnrichmentLogger;
};

}  // namespace persistence
