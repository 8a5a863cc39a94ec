// Where the agent keeps its data: one directory per store, resolved by id.
#pragma once

#include <string>

namespace zerla_common {
namespace config {

// The path items this stand-in knows. The numbers are those of the agent's
// path configuration and never change.
enum PathItemId : int {
  kProcessSettingsPolicyStore = 73,
  kGeneralSettingsPolicyStore = 74,
  kTrustedSignersCache = 75,
  kTrustedSignersStore = 76,
  kFvhashStore = 77,
  kEnrichmentStore = 87,
};

class PathConfig {
 public:
  // Returns "<root>/<name>" for a known item, where <root> is $ZERLA_DATA_ROOT
  // when it is set and not empty, else "/var/lib/zerla". Returns "" for any
  // other item. Creates nothing on disk.
  static std::string Get(PathItemId item);
};

}  // namespace config
}  // namespace zerla_common
