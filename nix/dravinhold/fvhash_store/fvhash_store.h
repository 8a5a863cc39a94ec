// The file-verdict family: one boolean verdict per file hash. The list is
// replaced whole and asked by hash; its log lines call it the fvhash
// blacklist.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "persistence/export.h"
#include "persistence/status.h"

// The message classes are exported with the library.
#pragma GCC visibility push(default)
#include "dravinhold/fvhash_store/fvhash_store.pb.h"
#pragma GCC visibility pop

namespace persistence {

// One element of the list given to FVhashStore_Put.
struct fv_hash {
  bool verdict;
  std::string hash;  // in any case; stored lower-cased
};

// Replaces the whole list, atomically and synchronously, with the elements
// whose hash is not empty, keyed by their hash lower-cased byte by byte. An
// empty list empties the store. Returns 0, or -5 (EIO) with the old list
// kept.
DRAVINHOLD_EXPORT int FVhashStore_Put(const std::vector<fv_hash>& hashes);

// The verdict stored under "hash", used exactly as given (not lower-cased).
// False when the hash is not listed, is listed with false, or the store
// failed (logged).
DRAVINHOLD_EXPORT bool FVhashStore_Check(const std::string& hash);

// Sets *verdict when "hash" is listed and returns the status code: 0 found,
// 3 not listed, another code of persistence::Status on failure (logged).
// *verdict is written on success only.
DRAVINHOLD_EXPORT int FVhashStore_GetVerdict(const std::string& hash, bool* verdict);

// Empties the store synchronously. Returns 0 or -5.
DRAVINHOLD_EXPORT int FVhashStore_Clear();

// True when the store is empty or cannot be read (logged).
DRAVINHOLD_EXPORT bool FVhashStore_Empty();

// The generic wrappers. Each refuses a bad parameter with code 2 and its
// message before it touches the store, and returns the store's status
// otherwise. Keys are used as given.
DRAVINHOLD_EXPORT Status FVhashStore_Empty(bool* is_empty);
DRAVINHOLD_EXPORT Status FVhashStore_Count(unsigned long* count);
DRAVINHOLD_EXPORT Status FVhashStore_Get(const std::string& key, proto::FVhashStore::Value* value);
DRAVINHOLD_EXPORT Status FVhashStore_Get(const std::vector<std::string>& keys,
                                         std::vector<proto::FVhashStore::Value>* values);
DRAVINHOLD_EXPORT Status FVhashStore_AtomicClearAndPut(const proto::FVhashStore::Data& data);
DRAVINHOLD_EXPORT Status FVhashStore_ReadInterval(uint64_t start, uint64_t count,
                                                  std::vector<std::string>* keys,
                                                  std::vector<proto::FVhashStore::Value>* values);
DRAVINHOLD_EXPORT Status FVhashStore_ReadInterval(uint64_t start, uint64_t count,
                                                  proto::FVhashStore::Data* data);
DRAVINHOLD_EXPORT Status FVhashStore_Dump(std::vector<std::string>* keys,
                                          std::vector<proto::FVhashStore::Value>* values);
DRAVINHOLD_EXPORT Status FVhashStore_Dump(proto::FVhashStore::Data* data);

}  // namespace persistence
