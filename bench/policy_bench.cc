// The policy and signer families against raw LevelDB:
// process_settings_policy_get and _set with policies of 1 KiB, and
// trusted_signers_cache_get_trusted_signer of a fresh entry, which writes
// nothing.
#include <algorithm>
#include <ctime>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_common.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "zerla_common/normalize_string.h"

namespace bench {
namespace {

using PolicyKey = proto::ProcessSettingsPolicyStore::Key;
using PolicyValue = proto::ProcessSettingsPolicyStore::Value;
using SignerValue = proto::TrustedSignersCacheStore::Value;

constexpr int32_t kModule = 321;

// The process names as callers spell them; the family normalises them.
std::string ProcessName(uint64_t i) { return "  Agent-Worker-" + std::to_string(i) + ".EXE"; }

struct PolicyData {
  std::vector<std::string> names;
  std::vector<std::string> blobs;
  std::unique_ptr<RawDb> raw;
};

// --- Raw equivalents ----------------------------------------------------------

bool RawValidModule(int32_t module_id) {
  static constexpr int32_t kModules[] = {1,  321, 324, 277, 5,  309, 7,   294, 301, 316,
                                         11, 325, 311, 14,  15, 333, 334, 18,  19,  20,
                                         21, 22,  23,  24,  25, 26,  341, 28};
  return std::find(std::begin(kModules), std::end(kModules), module_id) != std::end(kModules);
}

PolicyKey RawPolicyKey(const std::string& process_name, int32_t module_id) {
  PolicyKey key;
  key.set_process_name(zerla_normalize_string(process_name, true));
  key.set_module_id(module_id);
  return key;
}

// process_settings_policy_set's work: check, normalise, encode key and value
// with their proofs, one unsynchronised write.
[[gnu::noinline]] int RawPolicySet(leveldb::DB* db, const std::string& process_name,
                                   int32_t module_id, const std::string& policy) {
  if (!RawValidModule(module_id) || policy.empty()) return -22;
  PolicyValue value;
  value.set_policy(policy);
  std::string value_bytes;
  std::string key_bytes;
  if (!EncodeVerified(value, &value_bytes)) return -5;
  if (!EncodeVerified(RawPolicyKey(process_name, module_id), &key_bytes)) return -5;
  return db->Put(WriteSync(false), key_bytes, value_bytes).ok() ? 0 : -5;
}

// process_settings_policy_get's work: normalise, encode the key, read, parse.
[[gnu::noinline]] int RawPolicyGet(leveldb::DB* db, const std::string& process_name,
                                   int32_t module_id, std::string* policy) {
  std::string key_bytes;
  if (!RawPolicyKey(process_name, module_id).SerializeToString(&key_bytes)) return -5;
  std::string bytes;
  const leveldb::Status status = db->Get(PlainRead(), key_bytes, &bytes);
  if (status.IsNotFound()) return -61;
  if (!status.ok()) return -5;
  PolicyValue value;
  if (!value.ParseFromString(bytes)) return -5;
  *policy = value.policy();
  return 0;
}

PolicyData& Policies() {
  static PolicyData data;
  static std::once_flag once;
  std::call_once(once, [] {
    const uint64_t count = sizes().policy_records;
    for (uint64_t i = 0; i < count; ++i) {
      data.names.push_back(ProcessName(i));
      data.blobs.push_back(PolicyBlob(i));
    }
    data.raw = std::make_unique<RawDb>(FreshWorkPath("raw_process_policy"), true, 0);
    for (uint64_t i = 0; i < count; ++i) {
      Require(persistence::process_settings_policy_set(data.names[i], kModule, data.blobs[i]) == 0,
              "process_settings_policy_set");
      Require(RawPolicySet(data.raw->db(), data.names[i], kModule, data.blobs[i]) == 0,
              "raw policy set");
    }
  });
  return data;
}

void LibraryPolicyGet(benchmark::State& state) {
  PolicyData& data = Policies();
  const size_t count = data.names.size();
  size_t i = 0;
  std::string policy;
  for (auto _ : state) {
    const int result = persistence::process_settings_policy_get(data.names[i], kModule, &policy);
    benchmark::DoNotOptimize(result);
    if (++i == count) i = 0;
  }
  Require(policy.size() == 1024, "policy read back");
}

void RawPolicyGetLoop(benchmark::State& state) {
  PolicyData& data = Policies();
  const size_t count = data.names.size();
  size_t i = 0;
  std::string policy;
  for (auto _ : state) {
    const int result = RawPolicyGet(data.raw->db(), data.names[i], kModule, &policy);
    benchmark::DoNotOptimize(result);
    if (++i == count) i = 0;
  }
  Require(policy.size() == 1024, "policy read back");
}

void LibraryPolicySet(benchmark::State& state) {
  PolicyData& data = Policies();
  const size_t count = data.names.size();
  size_t i = 0;
  for (auto _ : state) {
    const int result =
        persistence::process_settings_policy_set(data.names[i], kModule, data.blobs[count - 1 - i]);
    benchmark::DoNotOptimize(result);
    if (++i == count) i = 0;
  }
}

void RawPolicySetLoop(benchmark::State& state) {
  PolicyData& data = Policies();
  const size_t count = data.names.size();
  size_t i = 0;
  for (auto _ : state) {
    const int result =
        RawPolicySet(data.raw->db(), data.names[i], kModule, data.blobs[count - 1 - i]);
    benchmark::DoNotOptimize(result);
    if (++i == count) i = 0;
  }
}

// --- Trusted signers cache ------------------------------------------------------

// Each run caches its own fresh generation of signers, so that no entry
// grows older than the refresh age while it is read.
struct SignerData {
  std::unique_ptr<RawDb> raw;
  uint64_t generation = 0;
};

SignerData& Signers() {
  static SignerData data;
  static std::once_flag once;
  std::call_once(once, [] {
    data.raw = std::make_unique<RawDb>(FreshWorkPath("raw_signers_cache"), true, 0);
  });
  return data;
}

std::vector<std::pair<std::string, std::string>> SignerGeneration(uint64_t generation) {
  std::vector<std::pair<std::string, std::string>> signers;
  for (uint64_t i = 0; i < sizes().policy_records; ++i) {
    signers.emplace_back(HashKey(1000 + generation, i), HashKey(2000, i));
  }
  return signers;
}

void LibrarySignerGet(benchmark::State& state) {
  SignerData& data = Signers();
  const auto signers = SignerGeneration(++data.generation);
  Require(persistence::trusted_signers_cache_set_trusted_signers(signers), "set signers");
  size_t i = 0;
  std::string certhash;
  for (auto _ : state) {
    const bool found =
        persistence::trusted_signers_cache_get_trusted_signer(signers[i].first, &certhash);
    benchmark::DoNotOptimize(found);
    if (++i == signers.size()) i = 0;
  }
  Require(certhash.size() == 64, "certhash read back");
}

// trusted_signers_cache_get_trusted_signer's work on a fresh entry: a read,
// a parse, the copy of the answer and the test of its age.
[[gnu::noinline]] bool RawSignerGet(leveldb::DB* db, const std::string& key,
                                    std::string* certhash) {
  std::string bytes;
  if (!db->Get(PlainRead(), key, &bytes).ok()) return false;
  SignerValue value;
  if (!value.ParseFromString(bytes)) return false;
  *certhash = value.certhash();
  if (static_cast<int64_t>(std::time(nullptr)) - value.last_used() <= 59) return true;
  return false;  // a stale entry would be renewed; none is in this benchmark
}

void RawSignerGetLoop(benchmark::State& state) {
  SignerData& data = Signers();
  const auto signers = SignerGeneration(++data.generation);
  {
    leveldb::WriteBatch batch;
    const int64_t now = std::time(nullptr);
    uint64_t index = 0;
    for (const auto& [key, certhash] : signers) {
      SignerValue value;
      value.set_certhash(certhash);
      value.set_last_used(now);
      value.set_index(++index);
      std::string bytes;
      Require(EncodeVerified(value, &bytes), "encode");
      batch.Put(key, bytes);
    }
    Require(data.raw->db()->Write(WriteSync(true), &batch), "raw signers write");
  }
  size_t i = 0;
  std::string certhash;
  for (auto _ : state) {
    const bool found = RawSignerGet(data.raw->db(), signers[i].first, &certhash);
    benchmark::DoNotOptimize(found);
    if (++i == signers.size()) i = 0;
  }
  Require(certhash.size() == 64, "certhash read back");
}

}  // namespace

void RegisterPolicyBenchmarks() {
  const auto plain = [](benchmark::internal::Benchmark* b) {
    b->UseRealTime()->MinWarmUpTime(0.2);
  };
  Row get;
  get.operation = "process_settings_policy_get";
  get.label = "process_settings_policy_get, 1 KiB policy";
  get.goal = 1.10;
  RegisterPair(get, LibraryPolicyGet, RawPolicyGetLoop, plain);

  Row set;
  set.operation = "process_settings_policy_set";
  set.label = "process_settings_policy_set, 1 KiB policy";
  set.goal = 1.10;
  RegisterPair(set, LibraryPolicySet, RawPolicySetLoop, plain);

  Row signer;
  signer.operation = "trusted_signers_cache_get_trusted_signer";
  signer.label = "trusted_signers_cache_get_trusted_signer, fresh entry";
  signer.goal = 1.10;
  RegisterPair(signer, LibrarySignerGet, RawSignerGetLoop, plain);
}

}  // namespace bench
