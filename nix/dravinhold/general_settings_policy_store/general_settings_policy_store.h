// The general settings policy family: one policy blob per module id, kept as
// opaque bytes.
//
// Integer results: 0 success, -22 (EINVAL) bad argument, -61 (ENODATA) no
// policy for the module, -5 (EIO) the store failed.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "persistence/export.h"
#include "persistence/status.h"

// The message classes are exported with the library.
#pragma GCC visibility push(default)
#include "dravinhold/general_settings_policy_store/general_settings_policy_store.pb.h"
#pragma GCC visibility pop

namespace persistence {

// True when the store holds a policy; false when it is empty or cannot be
// read (logged). Stores the steady-clock time of the check in *checked_at,
// also when the check fails. Requires a non-null "checked_at".
DRAVINHOLD_EXPORT bool general_settings_policy_loaded(
    std::chrono::steady_clock::time_point* checked_at);

// Stores "policy", empty or not, for a listed module, unsynchronised.
// Returns 0, -22 for a module that is not listed, or -5.
DRAVINHOLD_EXPORT int general_settings_policy_set(int32_t module_id, const std::string& policy);

// Sets *policy to the module's policy. Returns 0, -22 for a null "policy",
// -61 when the module has none, or -5.
DRAVINHOLD_EXPORT int general_settings_policy_get(int32_t module_id, std::string* policy);

// Replaces the whole store, atomically and synchronously, with the pairs as
// they are: module ids are not checked, and two empty vectors clear it.
// Returns the persistence::Status code (0 on success).
DRAVINHOLD_EXPORT int general_settings_policy_set_bulk(
    const std::vector<proto::GeneralSettingsPolicyStore::Key>& keys,
    const std::vector<proto::GeneralSettingsPolicyStore::Value>& values);

// Empties the store synchronously. Returns 0 or -5.
DRAVINHOLD_EXPORT int general_settings_policy_clear();

// The generic wrappers. Each refuses a bad parameter with code 2 and its
// message before it touches the store, and returns the store's status
// otherwise.
DRAVINHOLD_EXPORT Status GeneralSettingsPolicyStore_Empty(bool* is_empty);
DRAVINHOLD_EXPORT Status GeneralSettingsPolicyStore_Count(unsigned long* count);
DRAVINHOLD_EXPORT Status
GeneralSettingsPolicyStore_Get(const proto::GeneralSettingsPolicyStore::Key& key,
                               proto::GeneralSettingsPolicyStore::Value* value);
DRAVINHOLD_EXPORT Status
GeneralSettingsPolicyStore_Get(const std::vector<proto::GeneralSettingsPolicyStore::Key>& keys,
                               std::vector<proto::GeneralSettingsPolicyStore::Value>* values);
DRAVINHOLD_EXPORT Status
GeneralSettingsPolicyStore_AtomicClearAndPut(const proto::GeneralSettingsPolicyStore::Data& data);
DRAVINHOLD_EXPORT Status GeneralSettingsPolicyStore_ReadInterval(
    uint64_t start, uint64_t count, std::vector<proto::GeneralSettingsPolicyStore::Key>* keys,
    std::vector<proto::GeneralSettingsPolicyStore::Value>* values);
DRAVINHOLD_EXPORT Status GeneralSettingsPolicyStore_ReadInterval(
    uint64_t start, uint64_t count, proto::GeneralSettingsPolicyStore::Data* data);
DRAVINHOLD_EXPORT Status
GeneralSettingsPolicyStore_Dump(std::vector<proto::GeneralSettingsPolicyStore::Key>* keys,
                                std::vector<proto::GeneralSettingsPolicyStore::Value>* values);
DRAVINHOLD_EXPORT Status
GeneralSettingsPolicyStore_Dump(proto::GeneralSettingsPolicyStore::Data* data);

}  // namespace persistence
