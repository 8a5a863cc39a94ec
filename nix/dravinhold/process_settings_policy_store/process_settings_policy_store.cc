#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"

#include <cerrno>
#include <limits>
#include <mutex>

#include "nix/dravinhold/policy_family.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store_def.h"
#include "zerla_common/normalize_string.h"

namespace persistence {

template class KVStore<proto::ProcessSettingsPolicyStore::Key,
                       proto::ProcessSettingsPolicyStore::Value,
                       proto::ProcessSettingsPolicyStore::Data>;

namespace {

using Key = proto::ProcessSettingsPolicyStore::Key;
using Value = proto::ProcessSettingsPolicyStore::Value;
using Data = proto::ProcessSettingsPolicyStore::Data;

std::mutex policy_loaded_mutex;

// The key of a process and module; two spellings of a name that normalise
// to the same text reach the same policy.
Key MakeKey(const std::string& process_name, int32_t module_id) {
  Key key;
  key.set_process_name(zerla_normalize_string(process_name, true));
  key.set_module_id(module_id);
  return key;
}

}  // namespace

// A store that can't be read answers false: a failure reads as not loaded.
bool process_settings_policy_loaded(std::chrono::steady_clock::time_point* checked_at) {
  std::lock_guard<std::mutex> lock(policy_loaded_mutex);
  bool is_empty = false;
  const Status status = CheckPolicyEmpty<ProcessSettingsPolicyStore>(&is_empty, checked_at);
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to check if policy is empty, err=%d, msg=%s", status.code, status.message);
    return false;
  }
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_DEBUG, "Policy DB status: is_empty: %b",
           is_empty);
  return !is_empty;
}

int process_settings_policy_set(const std::string& process_name, int32_t module_id,
                                const std::string& policy) {
  if (!IsValidModuleId(module_id)) return -EINVAL;
  if (policy.empty()) return -EINVAL;
  Value value;
  value.set_policy(policy);
  const Status status =
      ProcessSettingsPolicyStore::Instance().Put(MakeKey(process_name, module_id), value, false);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR, "Failed to set policy, err=%d, msg=%s",
           status.code, status.message);
  return -EIO;
}

int process_settings_policy_get(const std::string& process_name, int32_t module_id,
                                std::string* policy) {
  if (policy == nullptr) return -EINVAL;
  Value value;
  const Status status = ProcessSettingsPolicyStore_Get(MakeKey(process_name, module_id), &value);
  if (status.code == Status::kNotFound) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_TRACE,
             "Policy for process %s and module %?d not found", process_name, module_id);
    return -ENODATA;
  }
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to get policy for process %s and module %?d, err=%d, msg=%s", process_name,
             module_id, status.code, status.message);
    return -EIO;
  }
  *policy = value.policy();
  return 0;
}

// Walks every policy in key order. Log lines name the size check below as
// line 104 of this file: a line added or removed above it moves the check,
// and its reports with it.
int process_settings_policy_for_each(
    std::function<void(const std::string&, int, const std::string&)> function) {
  // The whole store is read into memory first, so that no lock is held while
  // "function" runs and it may call back into this family. At most INT32_MAX
  // entries are read.
  std::vector<Key> keys;
  std::vector<Value> values;
  const Status status = ProcessSettingsPolicyStore_ReadInterval(
      0, std::numeric_limits<int32_t>::max(), &keys, &values);
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to get policy for all processes, err=%d, msg=%s", status.code, status.message);
    return -EIO;
  }
  // A mismatch is reported, and the walk still goes on over the pairs that
  // are complete.
  CHECK_LOGGED(LibPersistenceLogger, keys.size() == values.size(),
               "Failed to get policy for all processes, mismatch in size of keys("
                   << keys.size() << ") and values(" << values.size() << ")");
  for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
    function(keys[i].process_name(), keys[i].module_id(), values[i].policy());
  }
  return 0;
}

int process_settings_policy_set_bulk(
    const std::vector<proto::ProcessSettingsPolicyStore::Key>& keys,
    const std::vector<proto::ProcessSettingsPolicyStore::Value>& values) {
  const Status status =
      ProcessSettingsPolicyStore::Instance().AtomicClearAndPut(keys, values, true);
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to clear-and-set bulk policy, error=%d, messsage=%s", status.code,
             status.message);
  }
  return status.code;
}

int process_settings_policy_clear() {
  const Status status = ProcessSettingsPolicyStore::Instance().Clear(true);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear policy, err=%d, msg=%s", status.code, status.message);
  return -EIO;
}

Status ProcessSettingsPolicyStore_Empty(bool* is_empty) {
  return StoreEmpty<ProcessSettingsPolicyStore>(is_empty);
}

Status ProcessSettingsPolicyStore_Count(unsigned long* count) {
  return StoreCount<ProcessSettingsPolicyStore>(count);
}

Status ProcessSettingsPolicyStore_Get(const proto::ProcessSettingsPolicyStore::Key& key,
                                      proto::ProcessSettingsPolicyStore::Value* value) {
  return StoreGet<ProcessSettingsPolicyStore>(key, value);
}

Status ProcessSettingsPolicyStore_Get(
    const std::vector<proto::ProcessSettingsPolicyStore::Key>& keys,
    std::vector<proto::ProcessSettingsPolicyStore::Value>* values) {
  return StoreGet<ProcessSettingsPolicyStore>(keys, values);
}

Status ProcessSettingsPolicyStore_AtomicClearAndPut(
    const proto::ProcessSettingsPolicyStore::Data& data) {
  return AtomicClearAndPut<Data, ProcessSettingsPolicyStore>(data);
}

Status ProcessSettingsPolicyStore_ReadInterval(
    uint64_t start, uint64_t count, std::vector<proto::ProcessSettingsPolicyStore::Key>* keys,
    std::vector<proto::ProcessSettingsPolicyStore::Value>* values) {
  return ReadInterval<ProcessSettingsPolicyStore, Key>(start, count, keys, values);
}

Status ProcessSettingsPolicyStore_ReadInterval(uint64_t start, uint64_t count,
                                               proto::ProcessSettingsPolicyStore::Data* data) {
  return ReadInterval<Data, ProcessSettingsPolicyStore>(start, count, data);
}

Status ProcessSettingsPolicyStore_Dump(
    std::vector<proto::ProcessSettingsPolicyStore::Key>* keys,
    std::vector<proto::ProcessSettingsPolicyStore::Value>* values) {
  return Dump<ProcessSettingsPolicyStore, Key>(keys, values);
}

Status ProcessSettingsPolicyStore_Dump(proto::ProcessSettingsPolicyStore::Data* data) {
  return Dump<Data, ProcessSettingsPolicyStore>(data);
}

}  // namespace persistence
