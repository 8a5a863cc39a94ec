#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"

#include <mutex>

#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache_def.h"
#include "persistence/clock.h"

namespace persistence {

template class KVStore<std::string, proto::TrustedSignersCacheStore::Value,
                       proto::TrustedSignersCacheStore::Data>;

namespace {

using Value = proto::TrustedSignersCacheStore::Value;
using Data = proto::TrustedSignersCacheStore::Data;

// The last index handed out in this process. It is never read back from the
// database: numbering starts again at 1 in every process, and nothing
// compares indexes.
uint64_t cache_index_counter = 0;
std::mutex cache_index_mutex;

uint64_t NextCacheIndex() {
  std::lock_guard<std::mutex> lock(cache_index_mutex);
  return ++cache_index_counter;
}

// The comparison is signed: a last use ahead of the clock counts as fresh.
// It is made as "last_used >= now - 59", since the age, now minus a stored
// last_used, can overflow for a value far in the past.
bool IsFresh(const proto::TrustedSignersCacheStore::Value& value, std::time_t now) {
  return value.last_used() >= static_cast<int64_t>(now) - kTrustedSignersCacheRefreshAgeSeconds;
}

void Renew(Value* value, std::time_t now) {
  value->set_index(NextCacheIndex());
  value->set_last_used(now);
}

}  // namespace

bool trusted_signers_cache_init() { return true; }

bool trusted_signers_cache_set_trusted_signer(const std::string& key, const std::string& certhash) {
  return trusted_signers_cache_set_trusted_signers({{key, certhash}});
}

bool trusted_signers_cache_set_trusted_signers(
    const std::vector<std::pair<std::string, std::string>>& signers) {
  if (signers.empty()) return true;
  std::vector<std::string> keys;
  std::vector<Value> values;
  keys.reserve(signers.size());
  values.reserve(signers.size());
  for (const auto& [key, certhash] : signers) {
    const std::time_t now = WallNow();
    Value value;
    value.set_certhash(certhash);
    // A failed read costs the pair a new index, nothing more.
    Value existing;
    if (TrustedSignersCacheStore_Get(key, &existing).ok() && IsFresh(existing, now)) {
      value.set_last_used(existing.last_used());
      value.set_index(existing.index());
    } else {
      Renew(&value, now);
    }
    keys.push_back(key);
    values.push_back(std::move(value));
  }
  const Status status = TrustedSignersCacheStore::Instance().Put(keys, values, true);
  if (status.ok()) return true;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to put trusted_signers_cache entry, err=%d, msg=%s", status.code,
           status.message);
  return false;
}

bool trusted_signers_cache_get_trusted_signer(const std::string& key, std::string* certhash) {
  Value value;
  Status status = TrustedSignersCacheStore_Get(key, &value);
  if (status.code == Status::kNotFound) return false;
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to get trusted_signers_cache entry, err=%d, msg=%s", status.code,
             status.message);
    return false;
  }
  *certhash = value.certhash();
  if (IsFresh(value, WallNow())) return true;

  Renew(&value, WallNow());
  status = TrustedSignersCacheStore::Instance().Put(key, value, false);
  if (status.ok()) return true;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to update trusted_signers_cache entry, err=%d, msg=%s", status.code,
           status.message);
  return false;
}

bool trusted_signers_cache_compact() {
  const Status status = TrustedSignersCacheStore::Instance().Compact();
  if (status.ok()) return true;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to compact trusted_signers_cache cache, err=%d, msg=%s", status.code,
           status.message);
  return false;
}

bool trusted_signers_cache_clear() {
  const Status status = TrustedSignersCacheStore::Instance().Clear(true);
  if (status.ok()) return true;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear trusted_signers_cache cache, err=%d, msg=%s", status.code,
           status.message);
  return false;
}

Status TrustedSignersCacheStore_Empty(bool* is_empty) {
  return StoreEmpty<TrustedSignersCacheStore>(is_empty);
}

Status TrustedSignersCacheStore_Count(unsigned long* count) {
  return StoreCount<TrustedSignersCacheStore>(count);
}

Status TrustedSignersCacheStore_Get(const std::string& key,
                                    proto::TrustedSignersCacheStore::Value* value) {
  return StoreGet<TrustedSignersCacheStore>(key, value);
}

Status TrustedSignersCacheStore_Get(const std::vector<std::string>& keys,
                                    std::vector<proto::TrustedSignersCacheStore::Value>* values) {
  return StoreGet<TrustedSignersCacheStore>(keys, values);
}

Status TrustedSignersCacheStore_AtomicClearAndPut(
    const proto::TrustedSignersCacheStore::Data& data) {
  return AtomicClearAndPut<Data, TrustedSignersCacheStore>(data);
}

Status TrustedSignersCacheStore_ReadInterval(
    uint64_t start, uint64_t count, std::vector<std::string>* keys,
    std::vector<proto::TrustedSignersCacheStore::Value>* values) {
  return ReadInterval<TrustedSignersCacheStore, std::string>(start, count, keys, values);
}

Status TrustedSignersCacheStore_ReadInterval(uint64_t start, uint64_t count,
                                             proto::TrustedSignersCacheStore::Data* data) {
  return ReadInterval<Data, TrustedSignersCacheStore>(start, count, data);
}

Status TrustedSignersCacheStore_Dump(std::vector<std::string>* keys,
                                     std::vector<proto::TrustedSignersCacheStore::Value>* values) {
  return Dump<TrustedSignersCacheStore, std::string>(keys, values);
}

Status TrustedSignersCacheStore_Dump(proto::TrustedSignersCacheStore::Data* data) {
  return Dump<Data, TrustedSignersCacheStore>(data);
}

}  // namespace persistence
