#include "plugin.h"

#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"
#include "nix/dravinhold/fvhash_store/fvhash_store_def.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store_def.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store_def.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache_def.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store_def.h"

namespace plugin {
namespace {

template <typename StoreT>
bool Counts() {
  uint64_t count = 0;
  return StoreT::Instance().Count(&count, nullptr).ok();
}

}  // namespace

const void* InstanceOf(Store store) {
  switch (store) {
    case Store::kFVhash:
      return &persistence::FVhashStore::Instance();
    case Store::kTrustedSigners:
      return &persistence::TrustedSignersStore::Instance();
    case Store::kTrustedSignersCache:
      return &persistence::TrustedSignersCacheStore::Instance();
    case Store::kGeneralPolicy:
      return &persistence::GeneralSettingsPolicyStore::Instance();
    case Store::kProcessPolicy:
      return &persistence::ProcessSettingsPolicyStore::Instance();
    case Store::kEnrichment:
      return &persistence::EnrichmentStoreEx::Instance();
  }
  return nullptr;
}

bool Usable(Store store) {
  switch (store) {
    case Store::kFVhash:
      return Counts<persistence::FVhashStore>();
    case Store::kTrustedSigners:
      return Counts<persistence::TrustedSignersStore>();
    case Store::kTrustedSignersCache:
      return Counts<persistence::TrustedSignersCacheStore>();
    case Store::kGeneralPolicy:
      return Counts<persistence::GeneralSettingsPolicyStore>();
    case Store::kProcessPolicy:
      return Counts<persistence::ProcessSettingsPolicyStore>();
    case Store::kEnrichment:
      return Counts<persistence::EnrichmentStoreEx>();
  }
  return false;
}

}  // namespace plugin
