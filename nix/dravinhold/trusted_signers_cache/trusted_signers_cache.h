// The trusted signers cache: a certificate hash per key of the caller's, with
// the time and running number of its last renewal. Keys and certificate
// hashes are opaque strings, used as given. Nothing is evicted: the cache
// shrinks only by trusted_signers_cache_clear.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "persistence/export.h"
#include "persistence/status.h"

// The message classes are exported with the library.
#pragma GCC visibility push(default)
#include "dravinhold/trusted_signers_cache/trusted_signers_cache.pb.h"
#pragma GCC visibility pop

namespace persistence {

// An entry is fresh while its last renewal lies at most this many seconds
// back; a fresh entry is not rewritten.
constexpr int64_t kTrustedSignersCacheRefreshAgeSeconds = 59;

// Returns true and does nothing: the cache opens on first real use.
DRAVINHOLD_EXPORT bool trusted_signers_cache_init();

// trusted_signers_cache_set_trusted_signers with one pair.
DRAVINHOLD_EXPORT bool trusted_signers_cache_set_trusted_signer(const std::string& key,
                                                                const std::string& certhash);

// Writes each (key, certhash) pair in one synchronous write. A pair whose
// entry is fresh keeps its last use and index and only takes the new
// certhash; any other pair is renewed: now, and the next index of this
// process. An empty list returns true without touching the store. False when
// the write fails (logged).
DRAVINHOLD_EXPORT bool trusted_signers_cache_set_trusted_signers(
    const std::vector<std::pair<std::string, std::string>>& signers);

// Sets *certhash from the entry of "key" and returns true; renews an entry
// that is no longer fresh with a single, unsynchronised write. False when the
// key is absent, the read fails (logged), or the renewal fails (logged; then
// *certhash is set all the same). Requires a non-null "certhash".
DRAVINHOLD_EXPORT bool trusted_signers_cache_get_trusted_signer(const std::string& key,
                                                                std::string* certhash);

// Asks the engine to reclaim space. False on failure (logged).
DRAVINHOLD_EXPORT bool trusted_signers_cache_compact();

// Empties the cache synchronously. False on failure (logged). The running
// number goes on.
DRAVINHOLD_EXPORT bool trusted_signers_cache_clear();

// The generic wrappers. Each refuses a bad parameter with code 2 and its
// message before it touches the store, and returns the store's status
// otherwise.
DRAVINHOLD_EXPORT Status TrustedSignersCacheStore_Empty(bool* is_empty);
DRAVINHOLD_EXPORT Status TrustedSignersCacheStore_Count(unsigned long* count);
DRAVINHOLD_EXPORT Status
TrustedSignersCacheStore_Get(const std::string& key, proto::TrustedSignersCacheStore::Value* value);
DRAVINHOLD_EXPORT Status
TrustedSignersCacheStore_Get(const std::vector<std::string>& keys,
                             std::vector<proto::TrustedSignersCacheStore::Value>* values);
DRAVINHOLD_EXPORT Status
TrustedSignersCacheStore_AtomicClearAndPut(const proto::TrustedSignersCacheStore::Data& data);
DRAVINHOLD_EXPORT Status TrustedSignersCacheStore_ReadInterval(
    uint64_t start, uint64_t count, std::vector<std::string>* keys,
    std::vector<proto::TrustedSignersCacheStore::Value>* values);
DRAVINHOLD_EXPORT Status TrustedSignersCacheStore_ReadInterval(
    uint64_t start, uint64_t count, proto::TrustedSignersCacheStore::Data* data);
DRAVINHOLD_EXPORT Status TrustedSignersCacheStore_Dump(
    std::vector<std::string>* keys, std::vector<proto::TrustedSignersCacheStore::Value>* values);
DRAVINHOLD_EXPORT Status TrustedSignersCacheStore_Dump(proto::TrustedSignersCacheStore::Data* data);

}  // namespace persistence
