#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"

#include <cerrno>
#include <mutex>

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

// A store that can't be read answers false: a failure reads as not loaded.
bool general_settings_policy_loaded(std::chrono::steady_clock::time_point* checked_at) {
  std::lock_guard<std::mutex> lock(policy_loaded_mutex);
  bool is_empty = false;
  const Status status = CheckPolicyEmpty<GeneralSettingsPolicyStore>(&is_empty, checked_at);
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to check if policy is empty, err=%d, msg=%s", status.code, status.message);
    return false;
  }
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_DEBUG, "Policy DB status: is_empty: %b",
           is_empty);
  return !is_empty;
}

int general_settings_policy_set(int32_t module_id, const std::string& policy) {
  if (!IsValidModuleId(module_id)) return -EINVAL;
  Key key;
  key.set_module_id(module_id);
  Value value;
  value.set_policy(policy);
  const Status status = GeneralSettingsPolicyStore::Instance().Put(key, value, false);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR, "Failed to set policy, err=%d, msg=%s",
           status.code, status.message);
  return -EIO;
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
  const Status status =
      GeneralSettingsPolicyStore::Instance().AtomicClearAndPut(keys, values, true);
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to clear-and-set bulk policy, error=%d, messsage=%s", status.code,
             status.message);
  }
  return status.code;
}

int general_settings_policy_clear() {
  const Status status = GeneralSettingsPolicyStore::Instance().Clear(true);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear policy, err=%d, msg=%s", status.code, status.message);
  return -EIO;
}

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
