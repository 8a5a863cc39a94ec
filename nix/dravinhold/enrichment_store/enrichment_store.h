// The enrichment family: what the agent knows of a file, per file hash (used
// as given: upper and lower case are two keys). The store stays below 16 MiB
// on disk by forgetting the entries used longest ago; it manages each value's
// lru_data itself, and stores and returns all other fields as they are.
//
// Each operation comes twice, with the same effect and result: a silent
// function, and an entry function that also logs a failure.
#pragma once

#include <string>
#include <vector>

#include "persistence/export.h"
#include "persistence/status.h"

// The message classes are exported with the library.
#pragma GCC visibility push(default)
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#pragma GCC visibility pop

namespace persistence {

// Reads the entry of "key" into *value (code 3 when absent), renewing its
// place in the order of use at most once a minute. A null "value" is code 2.
DRAVINHOLD_EXPORT Status EnrichmentStore_Get(const std::string& key,
                                             proto::EnrichmentStore::Value* value);

// Reads the entries of all "keys", or fails whole at the first absent one.
DRAVINHOLD_EXPORT Status EnrichmentStore_Get(const std::vector<std::string>& keys,
                                             std::vector<proto::EnrichmentStore::Value>* values);

// Writes the entry of "key". The store sets lru_data in its own copy.
DRAVINHOLD_EXPORT Status EnrichmentStore_Put(const std::string& key,
                                             proto::EnrichmentStore::Value value);

// Deletes the entry of "key"; an absent key is code 3.
DRAVINHOLD_EXPORT Status EnrichmentStore_Delete(const std::string& key);

// Deletes every entry.
DRAVINHOLD_EXPORT Status EnrichmentStore_Clear();

// The whole store; counts as no use of the entries.
DRAVINHOLD_EXPORT Status EnrichmentStore_Dump(std::vector<std::string>* keys,
                                              std::vector<proto::EnrichmentStore::Value>* values);

// As the functions above, with a failure logged: an absent key is a debug
// line for GetEntry, an error for the others.
DRAVINHOLD_EXPORT Status EnrichmentStore_GetEntry(const std::string& key,
                                                  proto::EnrichmentStore::Value* value);
DRAVINHOLD_EXPORT Status EnrichmentStore_PutEntry(const std::string& key,
                                                  const proto::EnrichmentStore::Value& value);
DRAVINHOLD_EXPORT Status EnrichmentStore_DeleteEntry(const std::string& key);
DRAVINHOLD_EXPORT Status EnrichmentStore_ClearEntries();

}  // namespace persistence
