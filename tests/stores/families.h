// The five plain families side by side, for the tests that every family must
// pass alike: each struct names a family's types, its directory, records
// that sort in the order of their number, and its generic wrappers.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"
#include "persistence/status.h"

namespace stores_testing {

using persistence::Status;

// The bytes a key is stored under: a string key as it stands, a message key
// in its wire form.
inline std::string KeyBytes(const std::string& key) { return key; }
template <typename MessageT>
std::string KeyBytes(const MessageT& key) {
  return key.SerializeAsString();
}

// Keys and values compared by what they are on disk.
template <typename T>
std::vector<std::string> AllBytes(const std::vector<T>& items) {
  std::vector<std::string> bytes;
  for (const T& item : items) bytes.push_back(KeyBytes(item));
  return bytes;
}

inline std::string Numbered(const char* prefix, int i) {
  char text[16];
  snprintf(text, sizeof(text), "%03d", i);
  return prefix + std::string(text);
}

// The generic wrappers of the family "Prefix" under common names, so that a
// typed test calls FVhashStore_Count and ProcessSettingsPolicyStore_Count
// alike as Family::Count.
#define STORES_TESTING_WRAPPERS(Prefix)                                                    \
  static Status Empty(bool* is_empty) { return persistence::Prefix##_Empty(is_empty); }    \
  static Status Count(unsigned long* count) { return persistence::Prefix##_Count(count); } \
  static Status Get(const Key& key, Value* value) {                                        \
    return persistence::Prefix##_Get(key, value);                                          \
  }                                                                                        \
  static Status Get(const std::vector<Key>& keys, std::vector<Value>* values) {            \
    return persistence::Prefix##_Get(keys, values);                                        \
  }                                                                                        \
  static Status AtomicClearAndPut(const Data& data) {                                      \
    return persistence::Prefix##_AtomicClearAndPut(data);                                  \
  }                                                                                        \
  static Status ReadInterval(uint64_t start, uint64_t count, std::vector<Key>* keys,       \
                             std::vector<Value>* values) {                                 \
    return persistence::Prefix##_ReadInterval(start, count, keys, values);                 \
  }                                                                                        \
  static Status ReadInterval(uint64_t start, uint64_t count, Data* data) {                 \
    return persistence::Prefix##_ReadInterval(start, count, data);                         \
  }                                                                                        \
  static Status Dump(std::vector<Key>* keys, std::vector<Value>* values) {                 \
    return persistence::Prefix##_Dump(keys, values);                                       \
  }                                                                                        \
  static Status Dump(Data* data) { return persistence::Prefix##_Dump(data); }

struct FVhashFamily {
  using Key = std::string;
  using Value = proto::FVhashStore::Value;
  using Data = proto::FVhashStore::Data;
  static constexpr char kStore[] = "fvhash_store";
  static Key MakeKey(int i) { return Numbered("hash", i); }
  static Value MakeValue(int i) {
    Value value;
    value.set_verdict(i % 2 == 0);
    return value;
  }
  static Key EmptyKey() { return Key(); }
  STORES_TESTING_WRAPPERS(FVhashStore)
};

struct TrustedSignersFamily {
  using Key = std::string;
  using Value = proto::TrustedSignersStore::Value;
  using Data = proto::TrustedSignersStore::Data;
  static constexpr char kStore[] = "trusted_signers_store";
  static Key MakeKey(int i) { return Numbered("signer", i); }
  static Value MakeValue(int i) {
    Value value;
    value.set_name(Numbered("Signer name ", i));
    return value;
  }
  static Key EmptyKey() { return Key(); }
  STORES_TESTING_WRAPPERS(TrustedSignersStore)
};

struct TrustedSignersCacheFamily {
  using Key = std::string;
  using Value = proto::TrustedSignersCacheStore::Value;
  using Data = proto::TrustedSignersCacheStore::Data;
  static constexpr char kStore[] = "trusted_signers_cache";
  static Key MakeKey(int i) { return Numbered("key", i); }
  static Value MakeValue(int i) {
    Value value;
    value.set_certhash(Numbered("cert", i));
    value.set_last_used(1700000000 + i);
    value.set_index(100 + i);
    return value;
  }
  static Key EmptyKey() { return Key(); }
  STORES_TESTING_WRAPPERS(TrustedSignersCacheStore)
};

// Module ids below 128 encode as two bytes, 0x08 and the id, so these keys
// sort in the order of their number.
constexpr int32_t kSmallListedModuleIds[] = {1, 5, 7, 11, 14, 15, 18, 19, 20, 21};

struct GeneralPolicyFamily {
  using Key = proto::GeneralSettingsPolicyStore::Key;
  using Value = proto::GeneralSettingsPolicyStore::Value;
  using Data = proto::GeneralSettingsPolicyStore::Data;
  static constexpr char kStore[] = "general_settings_policy_store";
  static Key MakeKey(int i) {
    Key key;
    key.set_module_id(kSmallListedModuleIds[i]);
    return key;
  }
  static Value MakeValue(int i) {
    Value value;
    value.set_policy(Numbered("general policy ", i));
    return value;
  }
  static Key EmptyKey() { return Key(); }
  STORES_TESTING_WRAPPERS(GeneralSettingsPolicyStore)
};

struct ProcessPolicyFamily {
  using Key = proto::ProcessSettingsPolicyStore::Key;
  using Value = proto::ProcessSettingsPolicyStore::Value;
  using Data = proto::ProcessSettingsPolicyStore::Data;
  static constexpr char kStore[] = "process_settings_policy_store";
  // Names of one length: the keys sort by name.
  static Key MakeKey(int i) {
    Key key;
    key.set_process_name(Numbered("proc", i));
    key.set_module_id(1);
    return key;
  }
  static Value MakeValue(int i) {
    Value value;
    value.set_policy(Numbered("process policy ", i));
    return value;
  }
  static Key EmptyKey() { return Key(); }
  STORES_TESTING_WRAPPERS(ProcessSettingsPolicyStore)
};

#undef STORES_TESTING_WRAPPERS

using AllFamilies = ::testing::Types<FVhashFamily, TrustedSignersFamily, TrustedSignersCacheFamily,
                                     GeneralPolicyFamily, ProcessPolicyFamily>;

// Names the typed tests after the family's directory.
struct FamilyName {
  template <typename Family>
  static std::string GetName(int) {
    return Family::kStore;
  }
};

}  // namespace stores_testing
