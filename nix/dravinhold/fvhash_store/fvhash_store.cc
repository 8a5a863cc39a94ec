#include "nix/dravinhold/fvhash_store/fvhash_store.h"

#include <cerrno>

#include "nix/dravinhold/fvhash_store/fvhash_store_def.h"

namespace persistence {

template class KVStore<std::string, proto::FVhashStore::Value, proto::FVhashStore::Data>;

namespace {

using Value = proto::FVhashStore::Value;
using Data = proto::FVhashStore::Data;

}  // namespace

int FVhashStore_Put(const std::vector<fv_hash>& hashes) {
  const Status status = ReplaceByLowerCaseHash<FVhashStore>(hashes, [](const fv_hash& element) {
    Value value;
    value.set_verdict(element.verdict);
    return value;
  });
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear-and-set fvhash blacklist, err=%d, msg=%s", status.code, status.message);
  return -EIO;
}

bool FVhashStore_Check(const std::string& hash) {
  Value value;
  const Status status = FVhashStore_Get(hash, &value);
  if (status.code == Status::kNotFound) return false;
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to get entry from fvhash blacklist, err=%d, msg=%s", status.code,
             status.message);
    return false;
  }
  return value.verdict();
}

int FVhashStore_GetVerdict(const std::string& hash, bool* verdict) {
  Value value;
  const Status status = FVhashStore_Get(hash, &value);
  if (!status.ok() && status.code != Status::kNotFound) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to get entry from fvhash blacklist, err=%d, msg=%s", status.code,
             status.message);
  }
  if (status.ok()) *verdict = value.verdict();
  return status.code;
}

int FVhashStore_Clear() {
  const Status status = FVhashStore::Instance().Clear(true);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear fvhash blacklist, err=%d, msg=%s", status.code, status.message);
  return -EIO;
}

// A store that can't be read reads as empty.
bool FVhashStore_Empty() {
  bool is_empty = true;
  const Status status = FVhashStore_Empty(&is_empty);
  if (status.ok()) return is_empty;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to check if fvhash blacklist is empty, err=%d, msg=%s", status.code,
           status.message);
  return true;
}

Status FVhashStore_Empty(bool* is_empty) { return StoreEmpty<FVhashStore>(is_empty); }

Status FVhashStore_Count(unsigned long* count) { return StoreCount<FVhashStore>(count); }

Status FVhashStore_Get(const std::string& key, proto::FVhashStore::Value* value) {
  return StoreGet<FVhashStore>(key, value);
}

Status FVhashStore_Get(const std::vector<std::string>& keys,
                       std::vector<proto::FVhashStore::Value>* values) {
  return StoreGet<FVhashStore>(keys, values);
}

Status FVhashStore_AtomicClearAndPut(const proto::FVhashStore::Data& data) {
  return AtomicClearAndPut<Data, FVhashStore>(data);
}

Status FVhashStore_ReadInterval(uint64_t start, uint64_t count, std::vector<std::string>* keys,
                                std::vector<proto::FVhashStore::Value>* values) {
  return ReadInterval<FVhashStore, std::string>(start, count, keys, values);
}

Status FVhashStore_ReadInterval(uint64_t start, uint64_t count, proto::FVhashStore::Data* data) {
  return ReadInterval<Data, FVhashStore>(start, count, data);
}

Status FVhashStore_Dump(std::vector<std::string>* keys,
                        std::vector<proto::FVhashStore::Value>* values) {
  return Dump<FVhashStore, std::string>(keys, values);
}

Status FVhashStore_Dump(proto::FVhashStore::Data* data) {
  return Dump<proto::FVhashStore::Data, FVhashStore>(data);
}

}  // namespace persistence
