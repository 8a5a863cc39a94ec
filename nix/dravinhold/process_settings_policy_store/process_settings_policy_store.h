// The process settings policy family: one policy blob per process name and
// module id, kept as opaque bytes. Process names are normalised (trimmed and
// lower-cased by the common library) on the way through set and get.
//
// Integer results: 0 success, -22 (EINVAL) bad argument, -61 (ENODATA) no
// policy for the key, -5 (EIO) the store failed; _set_bulk returns the
// persistence::Status code itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "persistence/export.h"
#include "persistence/status.h"

// The message classes are exported with the library.
#pragma GCC visibility push(default)
#include "dravinhold/process_settings_policy_store/process_settings_policy_store.pb.h"
#pragma GCC visibility pop

namespace persistence {

// True when the store holds a policy; false when it is empty or cannot be
// read (logged). Stores the steady-clock time of the check in *checked_at,
// also when the check fails. Requires a non-null "checked_at".
DRAVINHOLD_EXPORT bool process_settings_policy_loaded(
    std::chrono::steady_clock::time_point* checked_at);

// Stores a non-empty "policy" for a listed module, unsynchronised. Returns 0,
// -22 for a module that is not listed or an empty policy, or -5.
DRAVINHOLD_EXPORT int process_settings_policy_set(const std::string& process_name,
                                                  int32_t module_id, const std::string& policy);

// Sets *policy to the policy of the process and module. Returns 0, -22 for a
// null "policy", -61 when there is none, or -5.
DRAVINHOLD_EXPORT int process_settings_policy_get(const std::string& process_name,
                                                  int32_t module_id, std::string* policy);

// Replaces the whole store, atomically and synchronously, with the pairs as
// they are: names are not normalised and module ids not checked, and two
// empty vectors clear it. Returns the persistence::Status code.
DRAVINHOLD_EXPORT int process_settings_policy_set_bulk(
    const std::vector<proto::ProcessSettingsPolicyStore::Key>& keys,
    const std::vector<proto::ProcessSettingsPolicyStore::Value>& values);

// Reads the whole store (at most 2^31 - 1 entries) and then calls "function"
// with the stored process name, module id and policy of each, in key order,
// with no lock held: it may call back into this family. Returns 0, or -5 when
// the read fails (logged).
DRAVINHOLD_EXPORT int process_settings_policy_for_each(
    std::function<void(const std::string&, int, const std::string&)> function);

// Empties the store synchronously. Returns 0 or -5.
DRAVINHOLD_EXPORT int process_settings_policy_clear();

// The generic wrappers. Each refuses a bad parameter with code 2 and its
// message before it touches the store, and returns the store's status
// otherwise. Keys are used as given.
DRAVINHOLD_EXPORT Status ProcessSettingsPolicyStore_Empty(bool* is_empty);
DRAVINHOLD_EXPORT Status ProcessSettingsPolicyStore_Count(unsigned long* count);
DRAVINHOLD_EXPORT Status
ProcessSettingsPolicyStore_Get(const proto::ProcessSettingsPolicyStore::Key& key,
                               proto::ProcessSettingsPolicyStore::Value* value);
DRAVINHOLD_EXPORT Status
ProcessSettingsPolicyStore_Get(const std::vector<proto::ProcessSettingsPolicyStore::Key>& keys,
                               std::vector<proto::ProcessSettingsPolicyStore::Value>* values);
DRAVINHOLD_EXPORT Status
ProcessSettingsPolicyStore_AtomicClearAndPut(const proto::ProcessSettingsPolicyStore::Data& data);
DRAVINHOLD_EXPORT Status ProcessSettingsPolicyStore_ReadInterval(
    uint64_t start, uint64_t count, std::vector<proto::ProcessSettingsPolicyStore::Key>* keys,
    std::vector<proto::ProcessSettingsPolicyStore::Value>* values);
DRAVINHOLD_EXPORT Status ProcessSettingsPolicyStore_ReadInterval(
    uint64_t start, uint64_t count, proto::ProcessSettingsPolicyStore::Data* data);
DRAVINHOLD_EXPORT Status
ProcessSettingsPolicyStore_Dump(std::vector<proto::ProcessSettingsPolicyStore::Key>* keys,
                                std::vector<proto::ProcessSettingsPolicyStore::Value>* values);
DRAVINHOLD_EXPORT Status
ProcessSettingsPolicyStore_Dump(proto::ProcessSettingsPolicyStore::Data* data);

}  // namespace persistence
