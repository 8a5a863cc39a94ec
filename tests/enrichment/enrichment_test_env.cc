#include "enrichment_test_env.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <thread>

#include "persistence/db.h"

namespace enrichment_test {
namespace {

uint64_t Mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

std::string Hex(uint64_t seed, size_t digits) {
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

}  // namespace

std::string HashKey(uint64_t seed) { return Hex(seed * 2 + 1, 64); }

Value Record(uint64_t seed) {
  Value value;
  value.set_image_path("/usr/libexec/vendor-" + std::to_string(seed % 31) + "/bin/helper-" +
                       std::to_string(seed));
  proto::EnrichmentStore::SignatureDetails* signature = value.mutable_signature_details();
  signature->set_product_family("Endpoint Components " + std::to_string(seed % 7));
  signature->set_vendor("Example Software Vendor, Inc.");
  signature->set_signature_state(static_cast<uint32_t>(seed % 4));
  signature->set_os_specific(static_cast<uint32_t>(seed % 3));
  signature->set_notarized(seed % 2 == 1);
  value.set_sha256(HashKey(seed));
  value.set_md5(Hex(seed + 0x5151, 32));
  value.set_sa_score(static_cast<double>(seed % 1000) / 10.0);
  value.add_entitlements("com.example.security.cs.allow-jit");
  value.add_entitlements("com.example.security.network.client");
  value.add_entitlements("com.example.security.files.user-selected.read-write");
  return value;
}

void SeedAgreeingPair(const std::string& path) {
  Value seed;
  seed.mutable_lru_data()->set_last_used(kWallStart - 1000);
  seed.mutable_lru_data()->set_index(1);
  Row row;
  row.set_foreign_key(kSeedKey);
  const std::vector<std::pair<std::string, std::pair<std::string, std::string>>> records = {
      {path, {kSeedKey, seed.SerializeAsString()}},
      {path + ".lru", {std::string(19, ' ') + "1", row.SerializeAsString()}}};
  for (const auto& [dir, record] : records) {
    persistence::DB db(dir);
    ASSERT_TRUE(db.Open(false, true, false, 0).ok());
    ASSERT_TRUE(db.Put(record.first, record.second, true).ok());
    ASSERT_TRUE(db.Close().ok());
  }
}

std::map<uint64_t, std::string> Rows() {
  std::vector<std::string> keys;
  std::vector<Row> rows;
  const Status status = StoreAccess::Lru().Dump(&keys, &rows, nullptr);
  EXPECT_TRUE(status.ok()) << status.message;
  std::map<uint64_t, std::string> result;
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(keys[i].size(), 20u);
    result[std::stoull(keys[i])] = rows[i].foreign_key();
  }
  return result;
}

std::map<std::string, Value> Entries() {
  std::vector<std::string> keys;
  std::vector<Value> values;
  const Status status =
      EnrichmentStoreEx::Instance().Dump(&keys, &values, static_cast<const void*>(nullptr));
  EXPECT_TRUE(status.ok()) << status.message;
  std::map<std::string, Value> result;
  for (size_t i = 0; i < keys.size(); ++i) result[keys[i]] = values[i];
  return result;
}

std::vector<Line> CallerLines(const testing_support::LogCapture& log) {
  std::vector<Line> result;
  for (const testing_support::LoggedLine& line : log.lines()) {
    if (line.ndc.empty()) result.emplace_back(line.priority, line.text);
  }
  return result;
}

void PrintTo(const Line& line, std::ostream* out) {
  *out << "{" << line.first << ", \"" << line.second << "\"}";
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

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void StartEngineThread() {
  testing_support::TempDir scratch;
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

}  // namespace enrichment_test
