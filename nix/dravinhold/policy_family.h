// What the two policy families share: the table of module ids and the
// bodies of the functions that do not depend on the key's shape.
#pragma once

#include <Poco/Message.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <vector>

#include "nix/dravinhold/logging.h"
#include "nix/dravinhold/store_scaffold.h"
#include "persistence/clock.h"
#include "persistence/report.h"
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

// Whether the store holds any policy, where a store that can't be read
// answers false. Stores the time of the check in *checked_at, also when the
// check fails. Calls are serialised by "loaded_mutex".
template <typename StoreT>
bool PolicyLoaded(std::mutex& loaded_mutex, SteadyTimePoint* checked_at) {
  std::lock_guard<std::mutex> lock(loaded_mutex);
  bool is_empty = false;
  const Status status = StoreEmpty<StoreT>(&is_empty);
  *checked_at = SteadyNow();
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to check if policy is empty, err=%d, msg=%s", status.code, status.message);
    return false;
  }
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_DEBUG, "Policy DB status: is_empty: %b",
           is_empty);
  return !is_empty;
}

// Stores "value" under "key", unsynchronised. Returns 0 or -5 (logged).
template <typename StoreT, typename KeyT, typename ValueT>
int PutPolicy(const KeyT& key, const ValueT& value) {
  const Status status = StoreT::Instance().Put(key, value, false);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR, "Failed to set policy, err=%d, msg=%s",
           status.code, status.message);
  return -EIO;
}

// Replaces the whole store, atomically and synchronously, with the pairs as
// they are. Returns the status code itself (0 on success).
template <typename StoreT, typename KeyT, typename ValueT>
int SetBulkPolicy(const std::vector<KeyT>& keys, const std::vector<ValueT>& values) {
  const Status status = StoreT::Instance().AtomicClearAndPut(keys, values, true);
  if (!status.ok()) {
    LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
             "Failed to clear-and-set bulk policy, error=%d, messsage=%s", status.code,
             status.message);
  }
  return status.code;
}

// Empties the store synchronously. Returns 0 or -5 (logged).
template <typename StoreT>
int ClearPolicy() {
  const Status status = StoreT::Instance().Clear(true);
  if (status.ok()) return 0;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR,
           "Failed to clear policy, err=%d, msg=%s", status.code, status.message);
  return -EIO;
}

}  // namespace persistence
