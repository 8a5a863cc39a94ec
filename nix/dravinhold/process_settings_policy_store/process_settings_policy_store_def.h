// clang-format off
#pragma once
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/store_scaffold.h"
namespace persistence {
class DRAVINHOLD_EXPORT ProcessSettingsPolicyStore : public KVStore<proto::ProcessSettingsPolicyStore::Key, proto::ProcessSettingsPolicyStore::Value, proto::ProcessSettingsPolicyStore::Data> {
 public:
  Status Open() { const Status status = OpenWithRecovery(zerla_common::config::PathConfig::Get(zerla_common::config::kProcessSettingsPolicyStore), true, 0);
    CHECK_LOGGED(LibPersistenceLogger, status.ok(), Poco::format("status code=%d message=%s", status.code, status.message));
    return status;
  }
  // clang-format on
  // Open() runs once, on first use; log lines name its check as line 9 of
  // this file, so the lines above keep their layout.

  using Value = proto::ProcessSettingsPolicyStore::Value;

  // The store, opened on first use. A store whose database did not open is
  // handed out all the same: its operations fail and try to reopen it.
  // Exported, with "instance" and its guard, so that this function inlined
  // in a caller's code and in the library constructs one object per process.
  DRAVINHOLD_EXPORT static ProcessSettingsPolicyStore& Instance() {
    static ProcessSettingsPolicyStore instance;
    return instance;
  }

  ~ProcessSettingsPolicyStore() override = default;

 private:
  ProcessSettingsPolicyStore() : KVStore(kStoreHeapTag) {
    instance_flag_ = true;
    Open();
  }

  bool instance_flag_ = false;
};

// The typed store's code is compiled once, with the store's source.
extern template class KVStore<proto::ProcessSettingsPolicyStore::Key,
                              proto::ProcessSettingsPolicyStore::Value,
                              proto::ProcessSettingsPolicyStore::Data>;

}  // namespace persistence
