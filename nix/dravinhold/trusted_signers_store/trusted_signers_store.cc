#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"

#include <cerrno>

#include "nix/dravinhold/trusted_signers_store/trusted_signers_store_def.h"

namespace persistence {

template class KVStore<std::string, proto::TrustedSignersStore::Value,
                       proto::TrustedSignersStore::Data>;

namespace {

using Value = proto::TrustedSignersStore::Value;
using Data = proto::TrustedSignersStore::Data;

}  // namespace

int TrustedSignersStore_Put(const std::vector<trusted_signer>& signers) {
  const Status status =
      ReplaceByLowerCaseHash<TrustedSignersStore>(signers, [](const trusted_signer& element) {
        Value value;
        value.set_name(element.name);
        return value;
      });
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear-and-set trusted signers whitelist, err=%d, msg=%s", status.code,
           status.message);
  return -EIO;
}

bool TrustedSignersStore_Check(const std::string& hash) {
  Value value;
  const Status status = TrustedSignersStore_Get(hash, &value);
  if (status.code == Status::kNotFound) return false;
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to get entry from trusted signers whitelist, err=%d, msg=%s", status.code,
             status.message);
    return false;
  }
  return true;
}

int TrustedSignersStore_Clear() {
  const Status status = TrustedSignersStore::Instance().Clear(true);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear trusted signers whitelist, err=%d, msg=%s", status.code,
           status.message);
  return -EIO;
}

// A store that can't be read reads as empty.
bool TrustedSignersStore_Empty() {
  bool is_empty = true;
  const Status status = TrustedSignersStore_Empty(&is_empty);
  if (status.ok()) return is_empty;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to check if trusted signers whitelist is empty, err=%d, msg=%s", status.code,
           status.message);
  return true;
}

Status TrustedSignersStore_Empty(bool* is_empty) {
  return StoreEmpty<TrustedSignersStore>(is_empty);
}

Status TrustedSignersStore_Count(unsigned long* count) {
  return StoreCount<TrustedSignersStore>(count);
}

Status TrustedSignersStore_Get(const std::string& key, proto::TrustedSignersStore::Value* value) {
  return StoreGet<TrustedSignersStore>(key, value);
}

Status TrustedSignersStore_Get(const std::vector<std::string>& keys,
                               std::vector<proto::TrustedSignersStore::Value>* values) {
  return StoreGet<TrustedSignersStore>(keys, values);
}

Status TrustedSignersStore_AtomicClearAndPut(const proto::TrustedSignersStore::Data& data) {
  return AtomicClearAndPut<Data, TrustedSignersStore>(data);
}

Status TrustedSignersStore_ReadInterval(uint64_t start, uint64_t count,
                                        std::vector<std::string>* keys,
                                        std::vector<proto::TrustedSignersStore::Value>* values) {
  return ReadInterval<TrustedSignersStore, std::string>(start, count, keys, values);
}

Status TrustedSignersStore_ReadInterval(uint64_t start, uint64_t count,
                                        proto::TrustedSignersStore::Data* data) {
  return ReadInterval<Data, TrustedSignersStore>(start, count, data);
}

Status TrustedSignersStore_Dump(std::vector<std::string>* keys,
                                std::vector<proto::TrustedSignersStore::Value>* values) {
  return Dump<TrustedSignersStore, std::string>(keys, values);
}

Status TrustedSignersStore_Dump(proto::TrustedSignersStore::Data* data) {
  return Dump<proto::TrustedSignersStore::Data, TrustedSignersStore>(data);
}

}  // namespace persistence
