#include "zerla_common/config/path_config.h"

#include <cstdlib>

namespace zerla_common {
namespace config {
namespace {

const char* ItemName(PathItemId item) {
  switch (item) {
    case kProcessSettingsPolicyStore:
      return "process_settings_policy_store";
    case kGeneralSettingsPolicyStore:
      return "general_settings_policy_store";
    case kTrustedSignersCache:
      return "trusted_signers_cache";
    case kTrustedSignersStore:
      return "trusted_signers_store";
    case kFvhashStore:
      return "fvhash_store";
    case kEnrichmentStore:
      return "enrichment_store";
  }
  return nullptr;
}

}  // namespace

std::string PathConfig::Get(PathItemId item) {
  const char* name = ItemName(item);
  if (name == nullptr) return std::string();
  const char* root = std::getenv("ZERLA_DATA_ROOT");
  std::string path = (root != nullptr && *root != '\0') ? root : "/var/lib/zerla";
  path += '/';
  path += name;
  return path;
}

}  // namespace config
}  // namespace zerla_common
