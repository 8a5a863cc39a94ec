#include "nix/dravinhold/enrichment_store/enrichment_store.h"

#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"

namespace persistence {

template class KVStore<std::string, proto::EnrichmentStore::Value, proto::EnrichmentStore::Data>;
template class KVStore<std::string, proto::EnrichmentLruStore::Value,
                       proto::EnrichmentLruStore::Data>;
template class PersistentLruStore<std::string, proto::EnrichmentStore::Value,
                                  proto::EnrichmentStore::Data, proto::EnrichmentLruStore::Value,
                                  proto::EnrichmentLruStore::Data>;

namespace {

using Value = proto::EnrichmentStore::Value;

}  // namespace

Status EnrichmentStore_Get(const std::string& key, proto::EnrichmentStore::Value* value) {
  return EnrichmentStoreEx::Instance().Get(key, value);
}

Status EnrichmentStore_Get(const std::vector<std::string>& keys,
                           std::vector<proto::EnrichmentStore::Value>* values) {
  return EnrichmentStoreEx::Instance().Get(keys, values);
}

Status EnrichmentStore_Put(const std::string& key, proto::EnrichmentStore::Value value) {
  return EnrichmentStoreEx::Instance().Put(key, value);
}

Status EnrichmentStore_Delete(const std::string& key) {
  return EnrichmentStoreEx::Instance().Delete(key);
}

Status EnrichmentStore_Clear() { return EnrichmentStoreEx::Instance().Clear(); }

Status EnrichmentStore_Dump(std::vector<std::string>* keys,
                            std::vector<proto::EnrichmentStore::Value>* values) {
  return EnrichmentStoreEx::Instance().Dump(keys, values, false);
}

Status EnrichmentStore_GetEntry(const std::string& key, proto::EnrichmentStore::Value* value) {
  const Status status = EnrichmentStore_Get(key, value);
  if (status.code == Status::kNotFound) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_DEBUG,
             "enrichment entry for file hash '%s' not found", key);
  } else if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to get enrichment for file hash '%s', error=%d, messsage=%s", key, status.code,
             status.message);
  }
  return status;
}

Status EnrichmentStore_PutEntry(const std::string& key,
                                const proto::EnrichmentStore::Value& value) {
  const Status status = EnrichmentStore_Put(key, value);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to put enrichment for file hash '%s', error=%d, messsage=%s", key, status.code,
             status.message);
  }
  return status;
}

Status EnrichmentStore_DeleteEntry(const std::string& key) {
  const Status status = EnrichmentStore_Delete(key);
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to delete enrichment entry for file hash '%s', error=%d, messsage=%s", key,
             status.code, status.message);
  }
  return status;
}

Status EnrichmentStore_ClearEntries() {
  const Status status = EnrichmentStore_Clear();
  if (!status.ok()) {
    LOG_LINE(EnrichmentLogger, Poco::Message::PRIO_ERROR,
             "Failed to clear enrichment store, error=%d, messsage=%s", status.code,
             status.message);
  }
  return status;
}

}  // namespace persistence
