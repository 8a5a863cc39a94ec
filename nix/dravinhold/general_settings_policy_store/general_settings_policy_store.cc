#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"

#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store_def.h"
#include "nix/dravinhold/policy_family.h"

namespace persistence {

template class KVStore<proto::GeneralSettingsPolicyStore::Key,
                       proto::GeneralSettingsPolicyStore::Value,
                       proto::GeneralSettingsPolicyStore::Data>;

namespace {

using Key = proto::GeneralSettingsPolicyStore::Key;
using Value = proto::GeneralSettingsPolicyStore::Value;
using Data = proto::GeneralSettingsPolicyStore::Data;

std::mutex policy_loaded_mutex;

}  // namespace

bool general_settings_policy_loaded(std::chrono::steady_clock::time_point* checked_at) {
  return PolicyLoaded<GeneralSettingsPolicyStore>(policy_loaded_mutex, checked_at);
}

int general_settings_policy_set(int32_t module_id, const std::string& policy) {
  if (!IsValidModuleId(module_id)) return -EINVAL;
  Key key;
  key.set_module_id(module_id);
  Value value;
  value.set_policy(policy);
  return PutPolicy<GeneralSettingsPolicyStore>(key, value);
}

int general_settings_policy_get(int32_t module_id, std::string* policy) {
  if (policy == nullptr) return -EINVAL;
  Key key;
  key.set_module_id(module_id);
  Value value;
  const Status status = GeneralSettingsPolicyStore_Get(key, &value);
  if (status.code == Status::kNotFound) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_DEBUG,
             "GeneralSettingsPolicy for module %?d not found", module_id);
    return -ENODATA;
  }
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to get GeneralSettingsPolicy for module %?d, err=%d, msg=%s", module_id,
             status.code, status.message);
    return -EIO;
  }
  *policy = value.policy();
  return 0;
}

int general_settings_policy_set_bulk(
    const std::vector<proto::GeneralSettingsPolicyStore::Key>& keys,
    const std::vector<proto::GeneralSettingsPolicyStore::Value>& values) {
  return SetBulkPolicy<GeneralSettingsPolicyStore>(keys, values);
}

int general_settings_policy_clear() { return ClearPolicy<GeneralSettingsPolicyStore>(); }

Status GeneralSettingsPolicyStore_Empty(bool* is_empty) {
  return StoreEmpty<GeneralSettingsPolicyStore>(is_empty);
}

Status GeneralSettingsPolicyStore_Count(unsigned long* count) {
  return StoreCount<GeneralSettingsPolicyStore>(count);
}

Status GeneralSettingsPolicyStore_Get(const proto::GeneralSettingsPolicyStore::Key& key,
                                      proto::GeneralSettingsPolicyStore::Value* value) {
  return StoreGet<GeneralSettingsPolicyStore>(key, value);
}

Status GeneralSettingsPolicyStore_Get(
    const std::vector<proto::GeneralSettingsPolicyStore::Key>& keys,
    std::vector<proto::GeneralSettingsPolicyStore::Value>* values) {
  return StoreGet<GeneralSettingsPolicyStore>(keys, values);
}

Status GeneralSettingsPolicyStore_AtomicClearAndPut(
    const proto::GeneralSettingsPolicyStore::Data& data) {
  return AtomicClearAndPut<Data, GeneralSettingsPolicyStore>(data);
}

Status GeneralSettingsPolicyStore_ReadInterval(
    uint64_t start, uint64_t count, std::vector<proto::GeneralSettingsPolicyStore::Key>* keys,
    std::vector<proto::GeneralSettingsPolicyStore::Value>* values) {
  return ReadInterval<GeneralSettingsPolicyStore, Key>(start, count, keys, values);
}

Status GeneralSettingsPolicyStore_ReadInterval(uint64_t start, uint64_t count,
                                               proto::GeneralSettingsPolicyStore::Data* data) {
  return ReadInterval<Data, GeneralSettingsPolicyStore>(start, count, data);
}

Status GeneralSettingsPolicyStore_Dump(
    std::vector<proto::GeneralSettingsPolicyStore::Key>* keys,
    std::vector<proto::GeneralSettingsPolicyStore::Value>* values) {
  return Dump<GeneralSettingsPolicyStore, Key>(keys, values);
}

Status GeneralSettingsPolicyStore_Dump(proto::GeneralSettingsPolicyStore::Data* data) {
  return Dump<Data, GeneralSettingsPolicyStore>(data);
}

}  // namespace persistence
