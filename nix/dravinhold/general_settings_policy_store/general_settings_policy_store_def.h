// clang-format off
#pragma once
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/store_scaffold.h"
namespace persistence {
class DRAVINHOLD_EXPORT GeneralSettingsPolicyStore : public KVStore<proto::GeneralSettingsPolicyStore::Key, proto::GeneralSettingsPolicyStore::Value, proto::GeneralSettingsPolicyStore::Data> {
 public:
  Status Open() { const Status status = OpenWithRecovery(zerla_common::config::PathConfig::Get(zerla_common::config::kGeneralSettingsPolicyStore), true, 0);
    CHECK_LOGGED(LibPersistenceLogger, status.ok(), Poco::format("status code=%d message=%s", status.code, status.message));
    return status;
  }
  // clang-format on
  // Open() runs once, on first use; log lines name its check as line 9 of
  // this file, so the lines above keep their layout.

  using Value = proto::GeneralSettingsPolicyStore::Value;

  // The store, opened on first use. A store whose database did not open is
  // handed out all the same: its operations fail and try to reopen it.
  // Exported, with "instance" and its guard, so that this function inlined
  // in a caller's code and in the library constructs one object per process.
  DRAVINHOLD_EXPORT static GeneralSettingsPolicyStore& Instance() {
    static GeneralSettingsPolicyStore instance;
    return instance;
  }

  ~GeneralSettingsPolicyStore() override = default;

 private:
  GeneralSettingsPolicyStore() : KVStore(kStoreHeapTag) {
    instance_flag_ = true;
    Open();
  }

  bool instance_flag_ = false;
};

// The typed store's code is compiled once, with the store's source.
extern template class KVStore<proto::GeneralSettingsPolicyStore::Key,
                              proto::GeneralSettingsPolicyStore::Value,
                              proto::GeneralSettingsPolicyStore::Data>;

}  // namespace persistence
