#include "store_catalog.h"

#include "dravinhold/enrichment_store/enrichment_lru_store.pb.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#include "dravinhold/fvhash_store/fvhash_store.pb.h"
#include "dravinhold/general_settings_policy_store/general_settings_policy_store.pb.h"
#include "dravinhold/process_settings_policy_store/process_settings_policy_store.pb.h"
#include "dravinhold/trusted_signers_cache/trusted_signers_cache.pb.h"
#include "dravinhold/trusted_signers_store/trusted_signers_store.pb.h"

namespace dravinholdctl {

const std::vector<StoreInfo>& Stores() {
  static const std::vector<StoreInfo> stores = {
      {"fvhash_store", nullptr, proto::FVhashStore::Value::descriptor(),
       proto::FVhashStore::Data::descriptor(), true},
      {"trusted_signers_store", nullptr, proto::TrustedSignersStore::Value::descriptor(),
       proto::TrustedSignersStore::Data::descriptor(), true},
      {"trusted_signers_cache", nullptr, proto::TrustedSignersCacheStore::Value::descriptor(),
       proto::TrustedSignersCacheStore::Data::descriptor(), false},
      {"general_settings_policy_store", proto::GeneralSettingsPolicyStore::Key::descriptor(),
       proto::GeneralSettingsPolicyStore::Value::descriptor(),
       proto::GeneralSettingsPolicyStore::Data::descriptor(), false},
      {"process_settings_policy_store", proto::ProcessSettingsPolicyStore::Key::descriptor(),
       proto::ProcessSettingsPolicyStore::Value::descriptor(),
       proto::ProcessSettingsPolicyStore::Data::descriptor(), false},
      {"enrichment_store", nullptr, proto::EnrichmentStore::Value::descriptor(),
       proto::EnrichmentStore::Data::descriptor(), false},
      {"enrichment_store.lru", nullptr, proto::EnrichmentLruStore::Value::descriptor(),
       proto::EnrichmentLruStore::Data::descriptor(), false},
  };
  return stores;
}

const StoreInfo* FindStore(const std::string& name) {
  for (const StoreInfo& store : Stores()) {
    if (store.name == name) return &store;
  }
  return nullptr;
}

std::string StoreNames() {
  std::string names;
  for (const StoreInfo& store : Stores()) {
    if (!names.empty()) names += ", ";
    names += store.name;
  }
  return names;
}

}  // namespace dravinholdctl
