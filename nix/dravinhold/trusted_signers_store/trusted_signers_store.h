// The trusted signers family: a whitelist of signer hashes, each with a name.
// The list is replaced whole and asked by hash; its log lines call it the
// trusted signers whitelist.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "persistence/export.h"
#include "persistence/status.h"

// The message classes are exported with the library.
#pragma GCC visibility push(default)
#include "dravinhold/trusted_signers_store/trusted_signers_store.pb.h"
#pragma GCC visibility pop

namespace persistence {

// One element of the list given to TrustedSignersStore_Put.
struct trusted_signer {
  std::string name;
  std::string hash;  // in any case; stored lower-cased
};

// Replaces the whole whitelist, atomically and synchronously, with the
// elements whose hash is not empty (whatever their name), keyed by the hash
// lower-cased byte by byte. An empty list empties the store. Returns 0, or -5
// (EIO) with the old list kept.
DRAVINHOLD_EXPORT int TrustedSignersStore_Put(const std::vector<trusted_signer>& signers);

// True when "hash", used exactly as given, is listed, whatever its name.
// False when it is not listed or the store failed (logged).
DRAVINHOLD_EXPORT bool TrustedSignersStore_Check(const std::string& hash);

// Empties the store synchronously. Returns 0 or -5.
DRAVINHOLD_EXPORT int TrustedSignersStore_Clear();

// True when the store is empty or cannot be read (logged).
DRAVINHOLD_EXPORT bool TrustedSignersStore_Empty();

// The generic wrappers. Each refuses a bad parameter with code 2 and its
// message before it touches the store, and returns the store's status
// otherwise. Keys are used as given.
DRAVINHOLD_EXPORT Status TrustedSignersStore_Empty(bool* is_empty);
DRAVINHOLD_EXPORT Status TrustedSignersStore_Count(unsigned long* count);
DRAVINHOLD_EXPORT Status TrustedSignersStore_Get(const std::string& key,
                                                 proto::TrustedSignersStore::Value* value);
DRAVINHOLD_EXPORT Status TrustedSignersStore_Get(
    const std::vector<std::string>& keys, std::vector<proto::TrustedSignersStore::Value>* values);
DRAVINHOLD_EXPORT Status
TrustedSignersStore_AtomicClearAndPut(const proto::TrustedSignersStore::Data& data);
DRAVINHOLD_EXPORT Status
TrustedSignersStore_ReadInterval(uint64_t start, uint64_t count, std::vector<std::string>* keys,
                                 std::vector<proto::TrustedSignersStore::Value>* values);
DRAVINHOLD_EXPORT Status TrustedSignersStore_ReadInterval(uint64_t start, uint64_t count,
                                                          proto::TrustedSignersStore::Data* data);
DRAVINHOLD_EXPORT Status TrustedSignersStore_Dump(
    std::vector<std::string>* keys, std::vector<proto::TrustedSignersStore::Value>* values);
DRAVINHOLD_EXPORT Status TrustedSignersStore_Dump(proto::TrustedSignersStore::Data* data);

}  // namespace persistence
