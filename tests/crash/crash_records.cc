#include "crash_records.h"

#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <vector>

#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"

namespace crash {
namespace {

uint64_t Mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

std::string Hex64(uint64_t x) {
  char buffer[17];
  std::snprintf(buffer, sizeof(buffer), "%016" PRIx64, x);
  return buffer;
}

// Modules the agent knows; the bulk writes don't check them.
constexpr int32_t kModules[] = {1,  321, 324, 277, 5,  309, 7,  294, 301, 316, 11, 325, 311, 14,
                                15, 333, 334, 18,  19, 20,  21, 22,  23,  24,  25, 26,  341, 28};
constexpr int kModuleCount = sizeof(kModules) / sizeof(kModules[0]);

std::string ProcessNameOf(int item) {
  char buffer[32];
  std::snprintf(buffer, sizeof(buffer), "proc%05d", item);
  return buffer;
}

int32_t ProcessModuleOf(int item) { return kModules[item % kModuleCount]; }

// Module ids of the general store run from 1: id 0 would encode as an empty
// key, which no store accepts.
int32_t GeneralModuleOf(int item) { return item + 1; }

bool VerdictOf(int list, int item) { return (item % 2 == 0) == (list == kListA); }

std::string SignerNameOf(int list, int item) {
  return std::string("Signer ") + ListName(list) + " " + std::to_string(item);
}

// A policy blob with a zero byte inside, different per list and item.
std::string PolicyOf(int list, int item) {
  std::string policy = std::string("policy-") + ListName(list) + "-" + std::to_string(item);
  policy.push_back('\0');
  policy += Hex64(Mix(static_cast<uint64_t>(item) * 2 + static_cast<uint64_t>(list)));
  return policy;
}

std::string Printable(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      text.push_back(c);
    } else {
      char buffer[5];
      std::snprintf(buffer, sizeof(buffer), "\\x%02x", static_cast<unsigned char>(c));
      text += buffer;
    }
  }
  return text;
}

std::string ProcessKeyText(const std::string& name, int32_t module_id) {
  return name + "/" + std::to_string(module_id);
}

}  // namespace

bool ParseScenario(const std::string& name, Scenario* scenario) {
  if (name == "fvhash") {
    *scenario = Scenario::kFvhash;
  } else if (name == "signers") {
    *scenario = Scenario::kSigners;
  } else if (name == "process_bulk") {
    *scenario = Scenario::kProcessBulk;
  } else if (name == "general_bulk") {
    *scenario = Scenario::kGeneralBulk;
  } else if (name == "enrichment") {
    *scenario = Scenario::kEnrichment;
  } else {
    return false;
  }
  return true;
}

bool IsListScenario(Scenario scenario) { return scenario != Scenario::kEnrichment; }

std::string HashOf(int item) {
  const uint64_t seed = static_cast<uint64_t>(item) * 4;
  return Hex64(Mix(seed)) + Hex64(Mix(seed + 1)) + Hex64(Mix(seed + 2)) + Hex64(Mix(seed + 3));
}

Contents ExpectedContents(Scenario scenario, int list) {
  Contents contents;
  for (int item = kListBegin[list]; item < kListBegin[list] + kListSize; ++item) {
    switch (scenario) {
      case Scenario::kFvhash:
        contents[HashOf(item)] = VerdictOf(list, item) ? "true" : "false";
        break;
      case Scenario::kSigners:
        contents[HashOf(item)] = SignerNameOf(list, item);
        break;
      case Scenario::kProcessBulk:
        contents[ProcessKeyText(ProcessNameOf(item), ProcessModuleOf(item))] =
            Printable(PolicyOf(list, item));
        break;
      case Scenario::kGeneralBulk:
        contents[std::to_string(GeneralModuleOf(item))] = Printable(PolicyOf(list, item));
        break;
      case Scenario::kEnrichment:
        break;
    }
  }
  return contents;
}

int WriteList(Scenario scenario, int list) {
  const int begin = kListBegin[list];
  switch (scenario) {
    case Scenario::kFvhash: {
      std::vector<persistence::fv_hash> hashes;
      hashes.reserve(kListSize);
      for (int item = begin; item < begin + kListSize; ++item) {
        hashes.push_back({VerdictOf(list, item), HashOf(item)});
      }
      return persistence::FVhashStore_Put(hashes);
    }
    case Scenario::kSigners: {
      std::vector<persistence::trusted_signer> signers;
      signers.reserve(kListSize);
      for (int item = begin; item < begin + kListSize; ++item) {
        signers.push_back({SignerNameOf(list, item), HashOf(item)});
      }
      return persistence::TrustedSignersStore_Put(signers);
    }
    case Scenario::kProcessBulk: {
      std::vector<proto::ProcessSettingsPolicyStore::Key> keys(kListSize);
      std::vector<proto::ProcessSettingsPolicyStore::Value> values(kListSize);
      for (int i = 0; i < kListSize; ++i) {
        keys[i].set_process_name(ProcessNameOf(begin + i));
        keys[i].set_module_id(ProcessModuleOf(begin + i));
        values[i].set_policy(PolicyOf(list, begin + i));
      }
      return persistence::process_settings_policy_set_bulk(keys, values);
    }
    case Scenario::kGeneralBulk: {
      std::vector<proto::GeneralSettingsPolicyStore::Key> keys(kListSize);
      std::vector<proto::GeneralSettingsPolicyStore::Value> values(kListSize);
      for (int i = 0; i < kListSize; ++i) {
        keys[i].set_module_id(GeneralModuleOf(begin + i));
        values[i].set_policy(PolicyOf(list, begin + i));
      }
      return persistence::general_settings_policy_set_bulk(keys, values);
    }
    case Scenario::kEnrichment:
      break;
  }
  return -1;
}

int DumpContents(Scenario scenario, Contents* contents) {
  contents->clear();
  switch (scenario) {
    case Scenario::kFvhash: {
      std::vector<std::string> keys;
      std::vector<proto::FVhashStore::Value> values;
      const persistence::Status status = persistence::FVhashStore_Dump(&keys, &values);
      if (!status.ok()) return status.code;
      for (size_t i = 0; i < keys.size(); ++i) {
        (*contents)[keys[i]] = values[i].verdict() ? "true" : "false";
      }
      return 0;
    }
    case Scenario::kSigners: {
      std::vector<std::string> keys;
      std::vector<proto::TrustedSignersStore::Value> values;
      const persistence::Status status = persistence::TrustedSignersStore_Dump(&keys, &values);
      if (!status.ok()) return status.code;
      for (size_t i = 0; i < keys.size(); ++i) (*contents)[keys[i]] = values[i].name();
      return 0;
    }
    case Scenario::kProcessBulk: {
      std::vector<proto::ProcessSettingsPolicyStore::Key> keys;
      std::vector<proto::ProcessSettingsPolicyStore::Value> values;
      const persistence::Status status =
          persistence::ProcessSettingsPolicyStore_Dump(&keys, &values);
      if (!status.ok()) return status.code;
      for (size_t i = 0; i < keys.size(); ++i) {
        (*contents)[ProcessKeyText(keys[i].process_name(), keys[i].module_id())] =
            Printable(values[i].policy());
      }
      return 0;
    }
    case Scenario::kGeneralBulk: {
      std::vector<proto::GeneralSettingsPolicyStore::Key> keys;
      std::vector<proto::GeneralSettingsPolicyStore::Value> values;
      const persistence::Status status =
          persistence::GeneralSettingsPolicyStore_Dump(&keys, &values);
      if (!status.ok()) return status.code;
      for (size_t i = 0; i < keys.size(); ++i) {
        (*contents)[std::to_string(keys[i].module_id())] = Printable(values[i].policy());
      }
      return 0;
    }
    case Scenario::kEnrichment:
      break;
  }
  return -1;
}

std::string ProgressPath(const std::string& root) { return root + "/writer_progress"; }

uint64_t ReadProgress(const std::string& root) {
  struct stat info;
  if (stat(ProgressPath(root).c_str(), &info) != 0) return 0;
  return static_cast<uint64_t>(info.st_size);
}

// --- Enrichment ------------------------------------------------------------

std::string EnrichmentKeyOf(int item) { return HashOf(1000000 + item); }

EnrichmentValue EnrichmentValueOf(const std::string& key, uint64_t generation) {
  const std::string gen = Hex64(generation);
  EnrichmentValue value;
  value.set_image_path("/opt/vendor/" + key.substr(0, 12) + "/bin/tool-" + gen);
  value.set_sha256(key);
  value.set_md5(gen);
  value.set_sa_score(static_cast<double>(generation % 1000) / 10.0);
  proto::EnrichmentStore::SignatureDetails* details = value.mutable_signature_details();
  details->set_product_family("Family " + key.substr(12, 8));
  details->set_vendor("Vendor " + gen);
  details->set_signature_state(static_cast<uint32_t>(generation % 7));
  details->set_os_specific(static_cast<uint32_t>(Mix(generation) % 1000));
  details->set_notarized(generation % 2 == 0);
  // About 1 KiB of entitlements, each naming key and generation.
  for (int i = 0; i < 12; ++i) {
    value.add_entitlements("com.vendor." + key + ".entitlement." + std::to_string(i) + "." + gen);
  }
  return value;
}

bool IsWholeEnrichmentValue(const std::string& key, const EnrichmentValue& value,
                            std::string* why) {
  uint64_t generation = 0;
  if (value.md5().size() != 16 ||
      std::sscanf(value.md5().c_str(), "%16" SCNx64, &generation) != 1) {
    *why = "md5 is not a generation: '" + Printable(value.md5()) + "'";
    return false;
  }
  EnrichmentValue stripped = value;
  stripped.clear_lru_data();
  const EnrichmentValue expected = EnrichmentValueOf(key, generation);
  if (stripped.SerializeAsString() != expected.SerializeAsString()) {
    *why = "value differs from generation " + std::to_string(generation) + ": stored {" +
           stripped.ShortDebugString() + "}";
    return false;
  }
  return true;
}

}  // namespace crash
