// What the two policy families share: the table of module ids and the
// store work of the "loaded" check. The families write their log lines
// themselves, so that each line names the family function that wrote it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "nix/dravinhold/store_scaffold.h"
#include "persistence/clock.h"
#include "persistence/status.h"

namespace persistence {

// The modules a policy may be set for. The first and the last value close
// the table and are not searched, so 0 and 29 are refused like any id that is
// not listed.
constexpr int32_t valid_module_ids[] = {0,   1,  321, 324, 277, 5,  309, 7,   294, 301,
                                        316, 11, 325, 311, 14,  15, 333, 334, 18,  19,
                                        20,  21, 22,  23,  24,  25, 26,  341, 28,  29};

inline bool IsValidModuleId(int32_t module_id) {
  const int32_t* const first = std::begin(valid_module_ids) + 1;
  const int32_t* const last = std::end(valid_module_ids) - 1;
  return std::find(first, last, module_id) != last;
}

// Whether the store is empty, read for the family's "loaded" check: stores
// the time of the check in *checked_at after the check, also when it fails.
// The family logs what the status says, so that its line names the family.
template <typename StoreT>
Status CheckPolicyEmpty(bool* is_empty, SteadyTimePoint* checked_at) {
  const Status status = StoreEmpty<StoreT>(is_empty);
  *checked_at = SteadyNow();
  return status;
}

}  // namespace persistence
