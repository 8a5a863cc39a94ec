#include "support/test_records.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <thread>

#include "persistence/db.h"
#include "support/temp_dir.h"

namespace testing_support {

uint64_t Mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

std::string HexDigits(uint64_t seed, size_t digits) {
  std::string out;
  uint64_t state = seed;
  while (out.size() < digits) {
    state = Mix(state);
    char buffer[17];
    std::snprintf(buffer, sizeof(buffer), "%016" PRIx64, state);
    out += buffer;
  }
  out.resize(digits);
  return out;
}

std::string HashKey(uint64_t seed) { return HexDigits(seed * 2 + 1, 64); }

proto::EnrichmentStore::Value EnrichmentRecord(uint64_t seed) {
  proto::EnrichmentStore::Value value;
  value.set_image_path("/opt/vendor-" + std::to_string(seed % 97) +
                       "/lib/x86_64-linux-gnu/libagent" + std::to_string(seed) + ".so.2.14.0");
  proto::EnrichmentStore::SignatureDetails* signature = value.mutable_signature_details();
  signature->set_product_family("Endpoint Components " + std::to_string(seed % 13));
  signature->set_vendor("Example Software Vendor, Inc. (" + HexDigits(seed, 10) + ")");
  signature->set_signature_state(static_cast<uint32_t>(seed % 4));
  signature->set_os_specific(static_cast<uint32_t>(seed % 3));
  signature->set_notarized(seed % 2 == 0);
  value.set_sha256(HashKey(seed));
  value.set_md5(HexDigits(seed + 0x5151, 32));
  value.set_sa_score(static_cast<double>(seed % 1000) / 10.0);
  value.add_entitlements("com.example.security.cs.allow-jit");
  value.add_entitlements("com.example.security.network.client." + std::to_string(seed));
  value.add_entitlements("com.example.security.files.user-selected.read-only");
  return value;
}

std::vector<std::string> ThreadNames() {
  std::vector<std::string> names;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream in(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string name;
    if (std::getline(in, name)) names.push_back(name);
  }
  closedir(dir);
  return names;
}

int CountThreads(const std::string& name) {
  int count = 0;
  for (const std::string& each : ThreadNames()) count += each == name ? 1 : 0;
  return count;
}

void StartEngineThread() {
  TempDir scratch;
  persistence::DB db(scratch.Sub("engine"));
  ASSERT_TRUE(db.Open(false, true, false, 0).ok());
  ASSERT_TRUE(db.Put("k", "v", false).ok());
  ASSERT_TRUE(db.Compact().ok());
  db.Close();
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace testing_support
