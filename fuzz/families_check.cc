#include "fuzz/families_check.h"

#include <chrono>
#include <map>
#include <sstream>
#include <tuple>
#include <utility>

#include "dravinhold/enrichment_store/enrichment_lru_store.pb.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_support.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"
#include "persistence/status.h"
#include "zerla_common/normalize_string.h"

namespace fuzzing {
namespace {

using persistence::Status;
using EnrichmentValue = proto::EnrichmentStore::Value;
using GeneralKey = proto::GeneralSettingsPolicyStore::Key;
using GeneralValue = proto::GeneralSettingsPolicyStore::Value;
using ProcessKey = proto::ProcessSettingsPolicyStore::Key;
using ProcessValue = proto::ProcessSettingsPolicyStore::Value;

constexpr size_t kMaxOperations = 32;

// The module table as the families have it: 0 and 29 close it and are not
// valid ids.
constexpr int32_t kModuleTable[] = {0,   1,  321, 324, 277, 5,  309, 7,   294, 301,
                                    316, 11, 325, 311, 14,  15, 333, 334, 18,  19,
                                    20,  21, 22,  23,  24,  25, 26,  341, 28,  29};

bool ValidModule(int32_t id) {
  for (size_t i = 1; i + 1 < sizeof(kModuleTable) / sizeof(kModuleTable[0]); ++i) {
    if (kModuleTable[i] == id) return true;
  }
  return false;
}

const char kEmptyKey[] = "Invalid argument: key: empty";
const char kEmptyPutKey[] = "Invalid argument: put_key: empty";

// Whether a message survives the store's proof of an encoding: written,
// then read back.
template <typename MessageT>
bool Encodes(const MessageT& message) {
  std::string bytes;
  if (!message.SerializeToString(&bytes)) return false;
  MessageT parsed;
  return parsed.ParseFromString(bytes);
}

std::string AsciiLower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string AsciiUpper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

// An enrichment value as the caller owns it: everything but lru_data.
std::string CallerPart(EnrichmentValue value) {
  value.clear_lru_data();
  return value.SerializeAsString();
}

struct ProcessEntry {
  std::string name;
  int32_t module_id;
  std::string policy;
};

class Session {
 public:
  explicit Session(const uint8_t* data, size_t size) : in_(data, size) {}

  std::vector<std::string> Run() {
    ClearAll();
    for (size_t n = 0; n < kMaxOperations && !in_.empty(); ++n) {
      const uint8_t op = in_.U8();
      step_ = "op " + std::to_string(n) + " (" + std::to_string(op % 26) + ")";
      Operate(op % 26);
    }
    step_ = "final";
    VerifyAll();
    return std::move(failures_);
  }

 private:
  void Fail(const std::string& what) { failures_.push_back(step_ + ": " + what); }

  void ExpectStatus(const std::string& what, const Status& status, int32_t code,
                    const char* message = nullptr) {
    if (status.code != code || (message != nullptr && status.message != message)) {
      Fail(what + ": got " + Describe(status) + ", expected code " + std::to_string(code) +
           (message != nullptr ? std::string(" message \"") + message + "\"" : std::string()));
    }
  }

  void ExpectInt(const std::string& what, int got, int expected) {
    if (got != expected) {
      Fail(what + ": got " + std::to_string(got) + ", expected " + std::to_string(expected));
    }
  }

  void ExpectBool(const std::string& what, bool got, bool expected) {
    if (got != expected) {
      Fail(what + ": got " + std::to_string(got) + ", expected " + std::to_string(expected));
    }
  }

  // A text argument: a fresh one from the input, or one given earlier, as it
  // was or with its letters in upper case.
  std::string Text() {
    const uint8_t selector = in_.U8();
    if ((selector & 0x80) != 0 && !pool_.empty()) {
      const std::string& earlier = pool_[(selector & 0x3F) % pool_.size()];
      return (selector & 0x40) != 0 ? AsciiUpper(earlier) : earlier;
    }
    std::string text = in_.Blob();
    if (pool_.size() < 64) pool_.push_back(text);
    return text;
  }

  int32_t Module() {
    const uint8_t selector = in_.U8();
    if (selector < 30) return kModuleTable[selector];
    if (selector < 200) return selector;
    return in_.I32();
  }

  EnrichmentValue MakeEnrichment() {
    EnrichmentValue value;
    value.set_image_path(in_.Blob());
    auto* details = value.mutable_signature_details();
    details->set_product_family(in_.Blob());
    details->set_vendor(in_.Blob());
    details->set_signature_state(in_.U32());
    details->set_os_specific(in_.U32());
    details->set_notarized(in_.Bool());
    value.set_sha256(Text());
    value.set_md5(in_.Blob());
    value.set_sa_score(in_.Double());
    for (int n = in_.U8() % 3; n > 0; --n) value.add_entitlements(in_.Blob());
    if (in_.Bool()) {
      value.mutable_lru_data()->set_last_used(in_.I64());
      value.mutable_lru_data()->set_index(in_.U64());
    }
    return value;
  }

  void ClearAll() {
    ExpectInt("FVhashStore_Clear", persistence::FVhashStore_Clear(), 0);
    ExpectInt("TrustedSignersStore_Clear", persistence::TrustedSignersStore_Clear(), 0);
    ExpectBool("trusted_signers_cache_clear", persistence::trusted_signers_cache_clear(), true);
    ExpectInt("general_settings_policy_clear", persistence::general_settings_policy_clear(), 0);
    ExpectInt("process_settings_policy_clear", persistence::process_settings_policy_clear(), 0);
    ExpectStatus("EnrichmentStore_Clear", persistence::EnrichmentStore_Clear(), 0);
  }

  void Operate(int op) {
    switch (op) {
      case 0:
        FvhashPut();
        break;
      case 1:
        FvhashCheck();
        break;
      case 2:
        FvhashAtomicClearAndPut();
        break;
      case 3:
        SignersPut();
        break;
      case 4:
        SignersCheck();
        break;
      case 5:
        CacheSet();
        break;
      case 6:
        CacheGet();
        break;
      case 7:
        CacheAtomicClearAndPut();
        break;
      case 8:
        GeneralSet();
        break;
      case 9:
        GeneralGet();
        break;
      case 10:
        GeneralBulk();
        break;
      case 11:
        GeneralClearOrLoaded();
        break;
      case 12:
        ProcessSet();
        break;
      case 13:
        ProcessGet();
        break;
      case 14:
        ProcessForEach();
        break;
      case 15:
        ProcessBulk();
        break;
      case 16:
        ProcessClearOrLoaded();
        break;
      case 17:
      case 18:
        EnrichmentPut();
        break;
      case 19:
      case 20:
        EnrichmentGet();
        break;
      case 21:
        EnrichmentDelete();
        break;
      case 22:
        EnrichmentMultiGet();
        break;
      case 23:
        EnrichmentClear();
        break;
      case 24:
        NullParameters();
        break;
      default:
        VerifyAll();
        break;
    }
  }

  // --- fvhash ---------------------------------------------------------------

  void FvhashPut() {
    std::vector<persistence::fv_hash> hashes;
    for (int n = in_.U8() % 8; n > 0; --n) {
      persistence::fv_hash element;
      element.verdict = in_.Bool();
      element.hash = Text();
      hashes.push_back(element);
    }
    ExpectInt("FVhashStore_Put", persistence::FVhashStore_Put(hashes), 0);
    fvhash_.clear();
    for (const auto& element : hashes) {
      if (!element.hash.empty()) fvhash_[AsciiLower(element.hash)] = element.verdict;
    }
  }

  void FvhashCheck() {
    const std::string hash = Text();
    const auto found = fvhash_.find(hash);
    const bool present = !hash.empty() && found != fvhash_.end();
    ExpectBool("FVhashStore_Check(" + Hex(hash) + ")", persistence::FVhashStore_Check(hash),
               present && found->second);
    bool verdict = true;
    const int code = persistence::FVhashStore_GetVerdict(hash, &verdict);
    const int expected = hash.empty() ? Status::kInvalidArgument
                         : present    ? Status::kOk
                                      : Status::kNotFound;
    ExpectInt("FVhashStore_GetVerdict(" + Hex(hash) + ")", code, expected);
    ExpectBool("FVhashStore_GetVerdict verdict", verdict, present ? found->second : true);
  }

  void FvhashAtomicClearAndPut() {
    proto::FVhashStore::Data data;
    std::map<std::string, bool> next;
    bool empty_key = false;
    for (int n = in_.U8() % 6; n > 0; --n) {
      auto* entry = data.add_entries();
      entry->set_key(Text());
      if (in_.Bool()) entry->mutable_value()->set_verdict(in_.Bool());
      next[entry->key()] = entry->value().verdict();
      empty_key |= entry->key().empty();
    }
    const Status status = persistence::FVhashStore_AtomicClearAndPut(data);
    if (data.entries_size() == 0) {
      ExpectStatus("FVhashStore_AtomicClearAndPut", status, Status::kInvalidArgument,
                   "Received empty keys or values vector");
    } else if (empty_key) {
      ExpectStatus("FVhashStore_AtomicClearAndPut", status, Status::kInvalidArgument, kEmptyPutKey);
    } else {
      ExpectStatus("FVhashStore_AtomicClearAndPut", status, Status::kOk);
      fvhash_ = next;
    }
  }

  // --- trusted signers -----------------------------------------------------

  void SignersPut() {
    std::vector<persistence::trusted_signer> signers;
    std::map<std::string, std::string> next;
    bool encodes = true;
    for (int n = in_.U8() % 6; n > 0; --n) {
      persistence::trusted_signer signer;
      signer.name = in_.Blob();
      signer.hash = Text();
      if (!signer.hash.empty()) {
        proto::TrustedSignersStore::Value value;
        value.set_name(signer.name);
        encodes &= Encodes(value);
        next[AsciiLower(signer.hash)] = signer.name;
      }
      signers.push_back(signer);
    }
    const int result = persistence::TrustedSignersStore_Put(signers);
    ExpectInt("TrustedSignersStore_Put", result, encodes ? 0 : -5);
    if (encodes) signers_ = next;
  }

  void SignersCheck() {
    const std::string hash = Text();
    ExpectBool("TrustedSignersStore_Check(" + Hex(hash) + ")",
               persistence::TrustedSignersStore_Check(hash),
               !hash.empty() && signers_.count(hash) != 0);
    ExpectBool("TrustedSignersStore_Empty", persistence::TrustedSignersStore_Empty(),
               signers_.empty());
  }

  // --- trusted signers cache -----------------------------------------------

  void CacheSet() {
    std::vector<std::pair<std::string, std::string>> pairs;
    bool fine = true;
    for (int n = in_.U8() % 5; n > 0; --n) {
      std::string key = Text();
      std::string certhash = in_.Blob();
      proto::TrustedSignersCacheStore::Value value;
      value.set_certhash(certhash);
      fine &= Encodes(value) && !key.empty();
      pairs.emplace_back(std::move(key), std::move(certhash));
    }
    const bool result =
        pairs.size() == 1
            ? persistence::trusted_signers_cache_set_trusted_signer(pairs[0].first, pairs[0].second)
            : persistence::trusted_signers_cache_set_trusted_signers(pairs);
    ExpectBool("trusted_signers_cache_set_trusted_signers", result, fine);
    if (!fine) return;
    for (const auto& [key, certhash] : pairs) cache_[key] = certhash;
  }

  void CacheGet() {
    const std::string key = Text();
    std::string certhash = "untouched";
    const bool result = persistence::trusted_signers_cache_get_trusted_signer(key, &certhash);
    const auto found = cache_.find(key);
    const bool present = !key.empty() && found != cache_.end();
    ExpectBool("trusted_signers_cache_get_trusted_signer(" + Hex(key) + ")", result, present);
    const std::string expected = present ? found->second : "untouched";
    if (certhash != expected) {
      Fail("trusted_signers_cache_get_trusted_signer(" + Hex(key) + "): certhash " + Hex(certhash) +
           ", expected " + Hex(expected));
    }
  }

  void CacheAtomicClearAndPut() {
    proto::TrustedSignersCacheStore::Data data;
    std::map<std::string, std::string> next;
    bool encodes = true;
    bool empty_key = false;
    for (int n = in_.U8() % 5; n > 0; --n) {
      auto* entry = data.add_entries();
      entry->set_key(Text());
      auto* value = entry->mutable_value();
      value->set_certhash(in_.Blob());
      value->set_last_used(in_.I64());
      value->set_index(in_.U64());
      encodes &= Encodes(*value);
      empty_key |= entry->key().empty();
      next[entry->key()] = value->certhash();
    }
    const Status status = persistence::TrustedSignersCacheStore_AtomicClearAndPut(data);
    const std::string what = "TrustedSignersCacheStore_AtomicClearAndPut";
    if (data.entries_size() == 0) {
      ExpectStatus(what, status, Status::kInvalidArgument, "Received empty keys or values vector");
    } else if (!encodes) {
      ExpectStatus(what, status, Status::kNotSupported,
                   "Not implemented: put_values: Failed serializing values");
    } else if (empty_key) {
      ExpectStatus(what, status, Status::kInvalidArgument, kEmptyPutKey);
    } else {
      ExpectStatus(what, status, Status::kOk);
      cache_ = next;
    }
  }

  // --- general settings policy ---------------------------------------------

  void GeneralSet() {
    const int32_t module_id = Module();
    const std::string policy = in_.Blob();
    const int result = persistence::general_settings_policy_set(module_id, policy);
    ExpectInt("general_settings_policy_set(" + std::to_string(module_id) + ")", result,
              ValidModule(module_id) ? 0 : -22);
    if (ValidModule(module_id)) general_[module_id] = policy;
  }

  void GeneralGet() {
    const int32_t module_id = Module();
    const std::string what = "general_settings_policy_get(" + std::to_string(module_id) + ")";
    if (in_.U8() == 0) {
      ExpectInt(what + " with a null policy",
                persistence::general_settings_policy_get(module_id, nullptr), -22);
      return;
    }
    std::string policy = "untouched";
    const int result = persistence::general_settings_policy_get(module_id, &policy);
    // Module 0 is the key with all fields at default: its encoding is empty,
    // and the database refuses an empty key.
    const auto found = general_.find(module_id);
    if (module_id == 0) {
      ExpectInt(what, result, -5);
    } else if (found == general_.end()) {
      ExpectInt(what, result, -61);
    } else {
      ExpectInt(what, result, 0);
      if (policy != found->second) Fail(what + ": policy " + Hex(policy));
    }
    if (result != 0 && policy != "untouched") Fail(what + ": policy changed on failure");
  }

  void GeneralBulk() {
    std::vector<GeneralKey> keys;
    std::vector<GeneralValue> values;
    for (int n = in_.U8() % 5; n > 0; --n) {
      keys.emplace_back();
      keys.back().set_module_id(Module());
    }
    for (int n = in_.U8() % 5; n > 0; --n) {
      values.emplace_back();
      values.back().set_policy(in_.Blob());
    }
    std::map<int32_t, std::string> next;
    bool empty_key = false;
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
      empty_key |= keys[i].module_id() == 0;
      next[keys[i].module_id()] = values[i].policy();
    }
    const int result = persistence::general_settings_policy_set_bulk(keys, values);
    ExpectInt("general_settings_policy_set_bulk", result,
              empty_key ? Status::kInvalidArgument : Status::kOk);
    if (!empty_key) general_ = next;
  }

  void GeneralClearOrLoaded() {
    if (in_.Bool()) {
      ExpectInt("general_settings_policy_clear", persistence::general_settings_policy_clear(), 0);
      general_.clear();
      return;
    }
    const auto before = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point checked_at{};
    ExpectBool("general_settings_policy_loaded",
               persistence::general_settings_policy_loaded(&checked_at), !general_.empty());
    if (checked_at < before || checked_at > std::chrono::steady_clock::now()) {
      Fail("general_settings_policy_loaded: time of the check outside the call");
    }
  }

  // --- process settings policy ---------------------------------------------

  static ProcessKey MakeProcessKey(const std::string& name, int32_t module_id) {
    ProcessKey key;
    key.set_process_name(name);
    key.set_module_id(module_id);
    return key;
  }

  void ProcessSet() {
    const std::string name = Text();
    const int32_t module_id = Module();
    const std::string policy = in_.Blob();
    const int result = persistence::process_settings_policy_set(name, module_id, policy);
    const std::string what =
        "process_settings_policy_set(" + Hex(name) + ", " + std::to_string(module_id) + ")";
    if (!ValidModule(module_id) || policy.empty()) {
      ExpectInt(what, result, -22);
      return;
    }
    const ProcessKey key = MakeProcessKey(zerla_normalize_string(name, true), module_id);
    if (!Encodes(key)) {
      ExpectInt(what, result, -5);
      return;
    }
    ExpectInt(what, result, 0);
    process_[key.SerializeAsString()] = {key.process_name(), module_id, policy};
  }

  void ProcessGet() {
    const std::string name = Text();
    const int32_t module_id = Module();
    const std::string what =
        "process_settings_policy_get(" + Hex(name) + ", " + std::to_string(module_id) + ")";
    if (in_.U8() == 0) {
      ExpectInt(what + " with a null policy",
                persistence::process_settings_policy_get(name, module_id, nullptr), -22);
      return;
    }
    std::string policy = "untouched";
    const int result = persistence::process_settings_policy_get(name, module_id, &policy);
    const ProcessKey key = MakeProcessKey(zerla_normalize_string(name, true), module_id);
    const std::string bytes = key.SerializeAsString();
    const auto found = process_.find(bytes);
    if (!Encodes(key) || bytes.empty()) {
      ExpectInt(what, result, -5);
    } else if (found == process_.end()) {
      ExpectInt(what, result, -61);
    } else {
      ExpectInt(what, result, 0);
      if (policy != found->second.policy) Fail(what + ": policy " + Hex(policy));
    }
    if (result != 0 && policy != "untouched") Fail(what + ": policy changed on failure");
  }

  void ProcessForEach() {
    std::vector<ProcessEntry> seen;
    const int result = persistence::process_settings_policy_for_each(
        [&seen](const std::string& name, int module_id, const std::string& policy) {
          seen.push_back({name, module_id, policy});
        });
    ExpectInt("process_settings_policy_for_each", result, 0);
    if (seen.size() != process_.size()) {
      Fail("process_settings_policy_for_each: " + std::to_string(seen.size()) +
           " entries, expected " + std::to_string(process_.size()));
      return;
    }
    size_t i = 0;
    for (const auto& [bytes, entry] : process_) {
      const ProcessEntry& got = seen[i++];
      if (got.name != entry.name || got.module_id != entry.module_id ||
          got.policy != entry.policy) {
        Fail("process_settings_policy_for_each: entry " + std::to_string(i - 1) + " differs from " +
             Hex(bytes));
      }
    }
  }

  void ProcessBulk() {
    std::vector<ProcessKey> keys;
    std::vector<ProcessValue> values;
    for (int n = in_.U8() % 5; n > 0; --n) {
      const std::string name = Text();
      keys.push_back(MakeProcessKey(name, Module()));
    }
    for (int n = in_.U8() % 5; n > 0; --n) {
      values.emplace_back();
      values.back().set_policy(in_.Blob());
    }
    bool encodes = true;
    for (const ProcessKey& key : keys) encodes &= Encodes(key);
    std::map<std::string, ProcessEntry> next;
    bool empty_key = false;
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
      const std::string bytes = keys[i].SerializeAsString();
      empty_key |= bytes.empty();
      next[bytes] = {keys[i].process_name(), keys[i].module_id(), values[i].policy()};
    }
    const int result = persistence::process_settings_policy_set_bulk(keys, values);
    const int expected = !encodes    ? Status::kNotSupported
                         : empty_key ? Status::kInvalidArgument
                                     : Status::kOk;
    ExpectInt("process_settings_policy_set_bulk", result, expected);
    if (expected == Status::kOk) process_ = next;
  }

  void ProcessClearOrLoaded() {
    if (in_.Bool()) {
      ExpectInt("process_settings_policy_clear", persistence::process_settings_policy_clear(), 0);
      process_.clear();
      return;
    }
    std::chrono::steady_clock::time_point checked_at{};
    ExpectBool("process_settings_policy_loaded",
               persistence::process_settings_policy_loaded(&checked_at), !process_.empty());
  }

  // --- enrichment ----------------------------------------------------------

  // The order of use keeps each entry's key as a string field of a row: a
  // key that is not UTF-8 can't be written there. The sync thread then
  // removes a new entry of such a key from the store (it could never be
  // pruned), within its period and whenever it runs. Such entries may thus
  // be gone at any later read, and once gone stay gone until put again.
  static bool MayVanish(const std::string& key) {
    proto::EnrichmentLruStore::Value row;
    row.set_foreign_key(key);
    return !Encodes(row);
  }

  void EnrichmentPut() {
    const std::string key = Text();
    const EnrichmentValue value = MakeEnrichment();
    const bool logging = in_.Bool();
    const std::string what =
        std::string(logging ? "EnrichmentStore_PutEntry(" : "EnrichmentStore_Put(") + Hex(key) +
        ")";
    const std::string before = value.SerializeAsString();
    const Status status = logging ? persistence::EnrichmentStore_PutEntry(key, value)
                                  : persistence::EnrichmentStore_Put(key, value);
    if (value.SerializeAsString() != before) Fail(what + ": the caller's value changed");
    // Values are encoded before keys.
    if (!Encodes(value)) {
      ExpectStatus(what, status, Status::kNotSupported,
                   "Not implemented: value: Failed serializing value");
    } else if (key.empty()) {
      ExpectStatus(what, status, Status::kInvalidArgument, kEmptyKey);
    } else {
      ExpectStatus(what, status, Status::kOk);
      enrichment_[key] = CallerPart(value);
    }
  }

  void EnrichmentGet() {
    const std::string key = Text();
    const bool logging = in_.Bool();
    const std::string what =
        std::string(logging ? "EnrichmentStore_GetEntry(" : "EnrichmentStore_Get(") + Hex(key) +
        ")";
    EnrichmentValue value;
    value.set_md5("stale");
    const Status status = logging ? persistence::EnrichmentStore_GetEntry(key, &value)
                                  : persistence::EnrichmentStore_Get(key, &value);
    auto found = enrichment_.find(key);
    if (found != enrichment_.end() && status.code == Status::kNotFound && MayVanish(key)) {
      enrichment_.erase(found);
      found = enrichment_.end();
    }
    if (key.empty()) {
      ExpectStatus(what, status, Status::kInvalidArgument, kEmptyKey);
    } else if (found == enrichment_.end()) {
      ExpectStatus(what, status, Status::kNotFound);
    } else {
      ExpectStatus(what, status, Status::kOk);
      if (CallerPart(value) != found->second) Fail(what + ": value differs");
      return;
    }
    if (value.ByteSizeLong() != 0) Fail(what + ": value not cleared");
  }

  void EnrichmentDelete() {
    const std::string key = Text();
    const bool logging = in_.Bool();
    const std::string what =
        std::string(logging ? "EnrichmentStore_DeleteEntry(" : "EnrichmentStore_Delete(") +
        Hex(key) + ")";
    const Status status = logging ? persistence::EnrichmentStore_DeleteEntry(key)
                                  : persistence::EnrichmentStore_Delete(key);
    if (key.empty()) {
      ExpectStatus(what, status, Status::kInvalidArgument, kEmptyKey);
    } else if (enrichment_.erase(key) == 0) {
      ExpectStatus(what, status, Status::kNotFound);
    } else if (!(status.code == Status::kNotFound && MayVanish(key))) {
      ExpectStatus(what, status, Status::kOk);
    }
  }

  void EnrichmentMultiGet() {
    std::vector<std::string> keys;
    for (int n = in_.U8() % 5; n > 0; --n) keys.push_back(Text());
    int32_t code = Status::kOk;
    bool may_vanish = false;  // a key before the first failure may be gone
    for (const std::string& key : keys) {
      if (key.empty()) {
        code = Status::kInvalidArgument;
        break;
      }
      if (enrichment_.count(key) == 0) {
        code = Status::kNotFound;
        break;
      }
      may_vanish |= MayVanish(key);
    }
    std::vector<EnrichmentValue> values(2);
    const Status status = persistence::EnrichmentStore_Get(keys, &values);
    const std::string what = "EnrichmentStore_Get of " + std::to_string(keys.size()) + " keys";
    if (may_vanish && status.code == Status::kNotFound) code = Status::kNotFound;
    ExpectStatus(what, status, code, code == Status::kInvalidArgument ? kEmptyKey : nullptr);
    if (code != Status::kOk) {
      if (!values.empty()) Fail(what + ": values after a failed read");
      return;
    }
    if (values.size() != keys.size()) {
      Fail(what + ": " + std::to_string(values.size()) + " values");
      return;
    }
    for (size_t i = 0; i < keys.size(); ++i) {
      if (CallerPart(values[i]) != enrichment_[keys[i]]) {
        Fail(what + ": value " + std::to_string(i) + " differs");
      }
    }
  }

  void EnrichmentClear() {
    const Status status = in_.Bool() ? persistence::EnrichmentStore_ClearEntries()
                                     : persistence::EnrichmentStore_Clear();
    ExpectStatus("EnrichmentStore_Clear", status, Status::kOk);
    enrichment_.clear();
  }

  // --- the parameter checks of the generic wrappers ------------------------

  void NullParameters() {
    switch (in_.U8() % 6) {
      case 0:
        ExpectStatus("FVhashStore_Count(nullptr)", persistence::FVhashStore_Count(nullptr),
                     Status::kInvalidArgument, "count is nullptr");
        break;
      case 1:
        ExpectStatus("TrustedSignersStore_Empty(nullptr)",
                     persistence::TrustedSignersStore_Empty(nullptr), Status::kInvalidArgument,
                     "is_empty is nullptr");
        break;
      case 2:
        ExpectStatus(
            "GeneralSettingsPolicyStore_Get(empty keys)",
            persistence::GeneralSettingsPolicyStore_Get(std::vector<GeneralKey>(), nullptr),
            Status::kInvalidArgument, "Received empty keys vector");
        break;
      case 3:
        ExpectStatus("ProcessSettingsPolicyStore_Dump(nullptr keys)",
                     persistence::ProcessSettingsPolicyStore_Dump(nullptr, nullptr),
                     Status::kInvalidArgument, "Received nullptr keys");
        break;
      case 4: {
        std::vector<std::string> keys;
        ExpectStatus("TrustedSignersCacheStore_ReadInterval(nullptr values)",
                     persistence::TrustedSignersCacheStore_ReadInterval(0, 1, &keys, nullptr),
                     Status::kInvalidArgument, "values is nullptr");
        break;
      }
      default:
        ExpectStatus("FVhashStore_Get(nullptr)", persistence::FVhashStore_Get(Text(), nullptr),
                     Status::kInvalidArgument, "Received nullptr value");
        break;
    }
  }

  // --- every store read whole ----------------------------------------------

  void VerifyAll() {
    {
      std::vector<std::string> keys;
      std::vector<proto::FVhashStore::Value> values;
      ExpectStatus("FVhashStore_Dump", persistence::FVhashStore_Dump(&keys, &values), 0);
      bool same = keys.size() == fvhash_.size() && values.size() == fvhash_.size();
      size_t i = 0;
      for (auto it = fvhash_.begin(); same && it != fvhash_.end(); ++it, ++i) {
        same = keys[i] == it->first && values[i].verdict() == it->second;
      }
      if (!same) Fail("FVhashStore_Dump differs from what was stored");
      unsigned long count = 12345;
      ExpectStatus("FVhashStore_Count", persistence::FVhashStore_Count(&count), 0);
      if (count != fvhash_.size()) Fail("FVhashStore_Count: " + std::to_string(count));
    }
    {
      proto::TrustedSignersStore::Data data;
      data.add_entries();
      ExpectStatus("TrustedSignersStore_Dump", persistence::TrustedSignersStore_Dump(&data), 0);
      bool same = data.entries_size() == static_cast<int>(signers_.size());
      int i = 0;
      for (auto it = signers_.begin(); same && it != signers_.end(); ++it, ++i) {
        same = data.entries(i).key() == it->first && data.entries(i).value().name() == it->second;
      }
      if (!same) Fail("TrustedSignersStore_Dump differs from what was stored");
    }
    {
      std::vector<std::string> keys;
      std::vector<proto::TrustedSignersCacheStore::Value> values;
      ExpectStatus("TrustedSignersCacheStore_Dump",
                   persistence::TrustedSignersCacheStore_Dump(&keys, &values), 0);
      bool same = keys.size() == cache_.size() && values.size() == cache_.size();
      size_t i = 0;
      for (auto it = cache_.begin(); same && it != cache_.end(); ++it, ++i) {
        same = keys[i] == it->first && values[i].certhash() == it->second;
      }
      if (!same) Fail("TrustedSignersCacheStore_Dump differs from what was stored");
    }
    {
      std::vector<GeneralKey> keys;
      std::vector<GeneralValue> values;
      ExpectStatus("GeneralSettingsPolicyStore_Dump",
                   persistence::GeneralSettingsPolicyStore_Dump(&keys, &values), 0);
      // Database order is that of the encoded keys.
      std::map<std::string, std::pair<int32_t, std::string>> by_bytes;
      for (const auto& [module_id, policy] : general_) {
        GeneralKey key;
        key.set_module_id(module_id);
        by_bytes[key.SerializeAsString()] = {module_id, policy};
      }
      bool same = keys.size() == by_bytes.size() && values.size() == by_bytes.size();
      size_t i = 0;
      for (auto it = by_bytes.begin(); same && it != by_bytes.end(); ++it, ++i) {
        same = keys[i].module_id() == it->second.first && values[i].policy() == it->second.second;
      }
      if (!same) Fail("GeneralSettingsPolicyStore_Dump differs from what was stored");
    }
    {
      proto::ProcessSettingsPolicyStore::Data data;
      ExpectStatus("ProcessSettingsPolicyStore_ReadInterval",
                   persistence::ProcessSettingsPolicyStore_ReadInterval(0, ~uint64_t{0}, &data), 0);
      bool same = data.entries_size() == static_cast<int>(process_.size());
      int i = 0;
      for (auto it = process_.begin(); same && it != process_.end(); ++it, ++i) {
        const auto& entry = data.entries(i);
        same = entry.key().SerializeAsString() == it->first &&
               entry.value().policy() == it->second.policy;
      }
      if (!same) Fail("ProcessSettingsPolicyStore_ReadInterval differs from what was stored");
    }
    {
      std::vector<std::string> keys;
      std::vector<EnrichmentValue> values;
      ExpectStatus("EnrichmentStore_Dump", persistence::EnrichmentStore_Dump(&keys, &values), 0);
      bool same = keys.size() == values.size();
      size_t i = 0;
      for (auto it = enrichment_.begin(); same && it != enrichment_.end();) {
        if (i < keys.size() && keys[i] == it->first) {
          same = CallerPart(values[i]) == it->second;
          ++i;
          ++it;
        } else if (MayVanish(it->first)) {
          it = enrichment_.erase(it);
        } else {
          same = false;
        }
      }
      if (!same || i != keys.size()) Fail("EnrichmentStore_Dump differs from what was stored");
    }
  }

  FuzzInput in_;
  std::string step_ = "start";
  std::vector<std::string> failures_;
  std::vector<std::string> pool_;

  // What each store must hold.
  std::map<std::string, bool> fvhash_;
  std::map<std::string, std::string> signers_;
  std::map<std::string, std::string> cache_;
  std::map<int32_t, std::string> general_;
  std::map<std::string, ProcessEntry> process_;  // by encoded key
  std::map<std::string, std::string> enrichment_;
};

}  // namespace

std::vector<std::string> CheckFamilies(const uint8_t* data, size_t size) {
  return Session(data, size).Run();
}

}  // namespace fuzzing
