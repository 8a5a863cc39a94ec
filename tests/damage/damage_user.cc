// One use of one store through its exported family, the way an agent process
// meets it after a restart: the damage campaign runs it in a fresh process
// for each trial.
//
//   damage_user fill STORE ROUND   writes round ROUND of the store's records
//   damage_user use STORE          counts, reads a sample and compares it,
//                                  writes a record, reads it back, counts
//                                  again and walks the whole store
//
// The data root is ZERLA_DATA_ROOT. STORE is one of fvhash, signers, cache,
// general, process, enrichment. Every value is made from its key, so that a
// value nobody wrote is told from a kept one without knowing the history.
//
// "use" prints one line of fields, "name=value" separated by blanks:
//   count        code of the first count, then count_n its result
//   sample       keys read of the last round's records; sample_ok,
//                sample_missing, sample_wrong, sample_failed
//   write        code of the write; readback: 1 when it reads back whole
//   count_after  code of the second count
//   dump         code of the walk; records, foreign (keys nobody wrote),
//                wrong (values nobody wrote), kept (records of the rounds)
// and exits 0. Anything else is the process's end: a signal, or a hang.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/policy_family.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"

namespace {

// Records per round, and rounds that the campaign writes (each in a process
// of its own, so that every round but the last ends in a table file).
constexpr int kRecordsPerRound = 4000;
constexpr int kPoliciesPerRound = 400;
constexpr int kSampleSize = 200;
// Items written by "use", far above any round's.
constexpr int kUseItem = 1 << 30;

std::string HashOf(int item) {
  char text[65];
  std::snprintf(text, sizeof(text), "%056x%08x", 0xfeedu, static_cast<unsigned>(item));
  return text;
}

// The item of a key made by HashOf, or -1.
int ItemOfHash(const std::string& key) {
  if (key.size() != 64 || key.compare(0, 56, HashOf(0), 0, 56) != 0) return -1;
  char* end = nullptr;
  const unsigned long item = std::strtoul(key.c_str() + 56, &end, 16);
  return end == key.c_str() + 64 ? static_cast<int>(item) : -1;
}

// Text of "size" bytes that only "seed" makes.
std::string Filler(const std::string& seed, size_t size) {
  std::string text;
  uint32_t state = 2166136261u;
  for (const char c : seed) state = (state ^ static_cast<unsigned char>(c)) * 16777619u;
  while (text.size() < size) {
    state = state * 1103515245u + 12345u;
    text.push_back(static_cast<char>('a' + (state >> 16) % 26));
  }
  return text;
}

int32_t ModuleOf(int item) {
  constexpr int kModules = sizeof(persistence::valid_module_ids) / sizeof(int32_t) - 2;
  return persistence::valid_module_ids[1 + item % kModules];
}

std::string ProcessOf(int item) { return "process-" + std::to_string(item); }

// The process item of a stored name, or -1.
int ItemOfProcess(const std::string& name) {
  if (name.compare(0, 8, "process-") != 0) return -1;
  char* end = nullptr;
  const long item = std::strtol(name.c_str() + 8, &end, 10);
  return *end == '\0' && end != name.c_str() + 8 ? static_cast<int>(item) : -1;
}

std::string PolicyOf(const std::string& name, int32_t module) {
  return Filler(name + "/" + std::to_string(module), 2048);
}

proto::EnrichmentStore::Value EnrichmentOf(int item) {
  proto::EnrichmentStore::Value value;
  value.set_image_path("/opt/vendor/bin/tool-" + std::to_string(item) + "/" +
                       Filler(HashOf(item), 300));
  value.mutable_signature_details()->set_vendor("Example Vendor");
  value.mutable_signature_details()->set_signature_state(static_cast<uint32_t>(item % 4));
  value.set_sha256(HashOf(item));
  value.set_sa_score(item / 10.0);
  value.add_entitlements("com.example.network.client");
  return value;
}

bool SameEnrichment(const proto::EnrichmentStore::Value& stored, int item) {
  proto::EnrichmentStore::Value copy = stored;
  copy.clear_lru_data();
  return copy.SerializeAsString() == EnrichmentOf(item).SerializeAsString();
}

// Items of a round: the list stores hold the last round alone, the others
// every round so far.
std::vector<int> ItemsOfRound(int round, int per_round) {
  std::vector<int> items;
  for (int i = 0; i < per_round; ++i) items.push_back(round * per_round + i);
  return items;
}

// What one store answers, in the family's own words.
struct Family {
  virtual ~Family() = default;
  virtual int per_round() const { return kRecordsPerRound; }
  // True for stores whose write replaces the whole list.
  virtual bool replaces() const { return false; }
  virtual int Fill(const std::vector<int>& items) = 0;
  virtual int Count(unsigned long* count) = 0;
  // 0 and the value matches, 3 absent, 4 present with another value, or the
  // failure's code.
  virtual int Read(int item) = 0;
  virtual int Write(int item) = 0;
  // Walks the store: per record, whether its key and its value are ones
  // that were written; kept counts records of items below kUseItem.
  virtual int Walk(uint64_t* records, uint64_t* foreign, uint64_t* wrong, std::set<int>* kept) = 0;
};

int Code(const persistence::Status& status) { return status.code; }

struct FvhashFamily : Family {
  bool replaces() const override { return true; }
  static bool VerdictOf(int item) { return item % 3 == 0; }
  int Fill(const std::vector<int>& items) override {
    std::vector<persistence::fv_hash> hashes;
    for (const int item : items) hashes.push_back({VerdictOf(item), HashOf(item)});
    return persistence::FVhashStore_Put(hashes);
  }
  int Count(unsigned long* count) override { return Code(persistence::FVhashStore_Count(count)); }
  int Read(int item) override {
    bool verdict = false;
    const int code = persistence::FVhashStore_GetVerdict(HashOf(item), &verdict);
    if (code != 0) return code;
    return verdict == VerdictOf(item) ? 0 : 4;
  }
  int Write(int item) override {
    // The family writes whole lists; the single-record write goes through the
    // generic wrapper, which takes the list as it is plus the new record.
    proto::FVhashStore::Data data;
    const int code = Code(persistence::FVhashStore_Dump(&data));
    if (code != 0) return code;
    proto::FVhashStore::Data::Entry* entry = data.add_entries();
    entry->set_key(HashOf(item));
    entry->mutable_value()->set_verdict(VerdictOf(item));
    return Code(persistence::FVhashStore_AtomicClearAndPut(data));
  }
  int Walk(uint64_t* records, uint64_t* foreign, uint64_t* wrong, std::set<int>* kept) override {
    proto::FVhashStore::Data data;
    const int code = Code(persistence::FVhashStore_Dump(&data));
    for (const auto& entry : data.entries()) {
      ++*records;
      const int item = ItemOfHash(entry.key());
      if (item < 0) {
        ++*foreign;
      } else if (entry.value().verdict() != VerdictOf(item)) {
        ++*wrong;
      } else if (item < kUseItem) {
        kept->insert(item);
      }
    }
    return code;
  }
};

struct SignersFamily : Family {
  bool replaces() const override { return true; }
  static std::string NameOf(int item) { return "Signer " + std::to_string(item); }
  int Fill(const std::vector<int>& items) override {
    std::vector<persistence::trusted_signer> signers;
    for (const int item : items) signers.push_back({NameOf(item), HashOf(item)});
    return persistence::TrustedSignersStore_Put(signers);
  }
  int Count(unsigned long* count) override {
    return Code(persistence::TrustedSignersStore_Count(count));
  }
  int Read(int item) override {
    proto::TrustedSignersStore::Value value;
    const int code = Code(persistence::TrustedSignersStore_Get(HashOf(item), &value));
    if (code != 0) return code;
    return value.name() == NameOf(item) ? 0 : 4;
  }
  int Write(int item) override {
    proto::TrustedSignersStore::Data data;
    const int code = Code(persistence::TrustedSignersStore_Dump(&data));
    if (code != 0) return code;
    proto::TrustedSignersStore::Data::Entry* entry = data.add_entries();
    entry->set_key(HashOf(item));
    entry->mutable_value()->set_name(NameOf(item));
    return Code(persistence::TrustedSignersStore_AtomicClearAndPut(data));
  }
  int Walk(uint64_t* records, uint64_t* foreign, uint64_t* wrong, std::set<int>* kept) override {
    proto::TrustedSignersStore::Data data;
    const int code = Code(persistence::TrustedSignersStore_Dump(&data));
    for (const auto& entry : data.entries()) {
      ++*records;
      const int item = ItemOfHash(entry.key());
      if (item < 0) {
        ++*foreign;
      } else if (entry.value().name() != NameOf(item)) {
        ++*wrong;
      } else if (item < kUseItem) {
        kept->insert(item);
      }
    }
    return code;
  }
};

struct CacheFamily : Family {
  static std::string CerthashOf(int item) { return Filler(HashOf(item), 40); }
  int Fill(const std::vector<int>& items) override {
    std::vector<std::pair<std::string, std::string>> signers;
    for (const int item : items) signers.emplace_back(HashOf(item), CerthashOf(item));
    return persistence::trusted_signers_cache_set_trusted_signers(signers) ? 0 : 5;
  }
  int Count(unsigned long* count) override {
    return Code(persistence::TrustedSignersCacheStore_Count(count));
  }
  int Read(int item) override {
    proto::TrustedSignersCacheStore::Value value;
    const int code = Code(persistence::TrustedSignersCacheStore_Get(HashOf(item), &value));
    if (code != 0) return code;
    return value.certhash() == CerthashOf(item) ? 0 : 4;
  }
  int Write(int item) override {
    return persistence::trusted_signers_cache_set_trusted_signer(HashOf(item), CerthashOf(item))
               ? 0
               : 5;
  }
  int Walk(uint64_t* records, uint64_t* foreign, uint64_t* wrong, std::set<int>* kept) override {
    proto::TrustedSignersCacheStore::Data data;
    const int code = Code(persistence::TrustedSignersCacheStore_Dump(&data));
    for (const auto& entry : data.entries()) {
      ++*records;
      const int item = ItemOfHash(entry.key());
      if (item < 0) {
        ++*foreign;
      } else if (entry.value().certhash() != CerthashOf(item)) {
        ++*wrong;
      } else if (item < kUseItem) {
        kept->insert(item);
      }
    }
    return code;
  }
};

// Policies are kept per process and module; the general store has one per
// module, so its items are processes of the process store's shape whose
// module alone is stored: item i is module ModuleOf(i) with the policy of
// process-i. Only the first item of each module survives a later one, so
// the general store writes one item per module.
struct GeneralFamily : Family {
  int per_round() const override {
    return sizeof(persistence::valid_module_ids) / sizeof(int32_t) - 2;
  }
  static std::string PolicyOfModule(int32_t module) { return PolicyOf("general", module) + "!"; }
  int Fill(const std::vector<int>& items) override {
    for (const int item : items) {
      const int32_t module = ModuleOf(item);
      // Large policies, so that a few rounds make several table files.
      const int code = persistence::general_settings_policy_set(
          module, Filler(PolicyOfModule(module), 64 * 1024) + PolicyOfModule(module));
      if (code != 0) return code;
    }
    return 0;
  }
  static std::string Expected(int32_t module) {
    return Filler(PolicyOfModule(module), 64 * 1024) + PolicyOfModule(module);
  }
  int Count(unsigned long* count) override {
    return Code(persistence::GeneralSettingsPolicyStore_Count(count));
  }
  int Read(int item) override {
    std::string policy;
    const int code = persistence::general_settings_policy_get(ModuleOf(item), &policy);
    if (code == -61) return 3;
    if (code != 0) return 5;
    return policy == Expected(ModuleOf(item)) ? 0 : 4;
  }
  int Write(int item) override {
    return persistence::general_settings_policy_set(ModuleOf(item), Expected(ModuleOf(item))) == 0
               ? 0
               : 5;
  }
  int Walk(uint64_t* records, uint64_t* foreign, uint64_t* wrong, std::set<int>* kept) override {
    proto::GeneralSettingsPolicyStore::Data data;
    const int code = Code(persistence::GeneralSettingsPolicyStore_Dump(&data));
    for (const auto& entry : data.entries()) {
      ++*records;
      const int32_t module = entry.key().module_id();
      if (!persistence::IsValidModuleId(module)) {
        ++*foreign;
      } else if (entry.value().policy() != Expected(module)) {
        ++*wrong;
      } else {
        for (int item = 0; item < per_round(); ++item) {
          if (ModuleOf(item) == module) kept->insert(item);
        }
      }
    }
    return code;
  }
};

struct ProcessFamily : Family {
  int per_round() const override { return kPoliciesPerRound; }
  int Fill(const std::vector<int>& items) override {
    for (const int item : items) {
      const int code = persistence::process_settings_policy_set(
          ProcessOf(item), ModuleOf(item), PolicyOf(ProcessOf(item), ModuleOf(item)));
      if (code != 0) return code;
    }
    return 0;
  }
  int Count(unsigned long* count) override {
    return Code(persistence::ProcessSettingsPolicyStore_Count(count));
  }
  int Read(int item) override {
    std::string policy;
    const int code =
        persistence::process_settings_policy_get(ProcessOf(item), ModuleOf(item), &policy);
    if (code == -61) return 3;
    if (code != 0) return 5;
    return policy == PolicyOf(ProcessOf(item), ModuleOf(item)) ? 0 : 4;
  }
  int Write(int item) override { return Fill({item}) == 0 ? 0 : 5; }
  int Walk(uint64_t* records, uint64_t* foreign, uint64_t* wrong, std::set<int>* kept) override {
    return persistence::process_settings_policy_for_each(
               [&](const std::string& name, int module, const std::string& policy) {
                 ++*records;
                 const int item = ItemOfProcess(name);
                 if (item < 0 || ModuleOf(item) != module) {
                   ++*foreign;
                 } else if (policy != PolicyOf(name, module)) {
                   ++*wrong;
                 } else if (item < kUseItem) {
                   kept->insert(item);
                 }
               }) == 0
               ? 0
               : 5;
  }
};

struct EnrichmentFamily : Family {
  int Fill(const std::vector<int>& items) override {
    int code = Put(items);
    // Rows are written by the sync thread within 10 s, and notes still
    // pending at exit are dropped; a delete removes its row at once. Entries
    // put and deleted again give the side database a live log.
    std::vector<int> passing;
    for (int i = 0; i < 50; ++i) passing.push_back(kUseItem / 2 + items.front() + i);
    if (code == 0) code = Put(passing);
    for (const int item : passing) {
      if (code == 0) code = Code(persistence::EnrichmentStore_DeleteEntry(HashOf(item)));
    }
    return code;
  }
  static int Put(const std::vector<int>& items) {
    for (const int item : items) {
      const int code =
          Code(persistence::EnrichmentStore_PutEntry(HashOf(item), EnrichmentOf(item)));
      if (code != 0) return code;
    }
    return 0;
  }
  int Count(unsigned long* count) override {
    std::vector<std::string> keys;
    std::vector<proto::EnrichmentStore::Value> values;
    const int code = Code(persistence::EnrichmentStore_Dump(&keys, &values));
    *count = keys.size();
    return code;
  }
  int Read(int item) override {
    proto::EnrichmentStore::Value value;
    const int code = Code(persistence::EnrichmentStore_GetEntry(HashOf(item), &value));
    if (code != 0) return code;
    return SameEnrichment(value, item) ? 0 : 4;
  }
  int Write(int item) override { return Put({item}); }
  int Walk(uint64_t* records, uint64_t* foreign, uint64_t* wrong, std::set<int>* kept) override {
    std::vector<std::string> keys;
    std::vector<proto::EnrichmentStore::Value> values;
    const int code = Code(persistence::EnrichmentStore_Dump(&keys, &values));
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
      ++*records;
      const int item = ItemOfHash(keys[i]);
      if (item < 0) {
        ++*foreign;
      } else if (!SameEnrichment(values[i], item)) {
        ++*wrong;
      } else if (item < kUseItem) {
        kept->insert(item);
      }
    }
    return code;
  }
};

Family* FamilyNamed(const std::string& name) {
  static FvhashFamily fvhash;
  static SignersFamily signers;
  static CacheFamily cache;
  static GeneralFamily general;
  static ProcessFamily process;
  static EnrichmentFamily enrichment;
  const std::map<std::string, Family*> families = {
      {"fvhash", &fvhash},   {"signers", &signers}, {"cache", &cache},
      {"general", &general}, {"process", &process}, {"enrichment", &enrichment}};
  const auto found = families.find(name);
  return found == families.end() ? nullptr : found->second;
}

int Use(Family& family) {
  unsigned long count = 0;
  const int count_code = family.Count(&count);

  // A sample of the records that a sound store holds whatever the round
  // history: the list stores hold only the last round's, which the campaign
  // names in DAMAGE_LAST_ROUND.
  const char* last_round_text = std::getenv("DAMAGE_LAST_ROUND");
  const int last_round = last_round_text != nullptr ? std::atoi(last_round_text) : 0;
  const int per_round = family.per_round();
  const int first_item = family.replaces() ? last_round * per_round : 0;
  const int items = (last_round + 1) * per_round - first_item;
  int ok = 0, missing = 0, wrong = 0, failed = 0;
  const int sample = items < kSampleSize ? items : kSampleSize;
  for (int i = 0; i < sample; ++i) {
    const int item = first_item + static_cast<int>((static_cast<int64_t>(i) * items) / sample);
    switch (family.Read(item)) {
      case 0:
        ++ok;
        break;
      case 3:
        ++missing;
        break;
      case 4:
        ++wrong;
        break;
      default:
        ++failed;
        break;
    }
  }

  const int write_code = family.Write(kUseItem);
  const int readback = family.Read(kUseItem) == 0 ? 1 : 0;
  unsigned long count_after = 0;
  const int count_after_code = family.Count(&count_after);

  uint64_t records = 0, foreign = 0, wrong_values = 0;
  std::set<int> kept;
  const int dump_code = family.Walk(&records, &foreign, &wrong_values, &kept);
  std::printf(
      "count=%d count_n=%lu sample=%d sample_ok=%d sample_missing=%d sample_wrong=%d "
      "sample_failed=%d write=%d readback=%d count_after=%d count_after_n=%lu dump=%d "
      "records=%" PRIu64 " foreign=%" PRIu64 " wrong=%" PRIu64 " kept=%zu\n",
      count_code, count, sample, ok, missing, wrong, failed, write_code, readback, count_after_code,
      count_after, dump_code, records, foreign, wrong_values, kept.size());
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: damage_user fill STORE ROUND | use STORE\n");
    return 2;
  }
  const std::string mode = argv[1];
  Family* family = FamilyNamed(argv[2]);
  if (family == nullptr) {
    std::fprintf(stderr, "damage_user: unknown store %s\n", argv[2]);
    return 2;
  }
  if (mode == "fill" && argc == 4) {
    const int round = std::atoi(argv[3]);
    const int code = family->Fill(ItemsOfRound(round, family->per_round()));
    if (code != 0) std::fprintf(stderr, "damage_user: fill failed with %d\n", code);
    return code == 0 ? 0 : 1;
  }
  if (mode == "use") return Use(*family);
  std::fprintf(stderr, "damage_user: unknown mode %s\n", mode.c_str());
  return 2;
}
