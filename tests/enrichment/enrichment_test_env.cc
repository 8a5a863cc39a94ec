#include "enrichment_test_env.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <thread>

#include "persistence/db.h"

namespace enrichment_test {

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

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace enrichment_test
