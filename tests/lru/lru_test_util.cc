#include "lru_test_util.h"

#include <Poco/Logger.h>
#include <dirent.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <thread>

namespace lru_test {
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

void PrintTo(const Note& note, std::ostream* out) {
  *out << "{\"" << note.key << "\", " << note.old_index << ", " << note.new_index << "}";
}

void PrintTo(const Line& line, std::ostream* out) {
  *out << "{" << line.first << ", \"" << line.second << "\"}";
}

std::string HashKey(uint64_t seed) { return Hex(seed * 2 + 1, 64); }

Value Record(uint64_t seed) {
  Value value;
  value.set_image_path("/opt/vendor-" + std::to_string(seed % 97) +
                       "/lib/x86_64-linux-gnu/libagent" + std::to_string(seed) + ".so.2.14.0");
  proto::EnrichmentStore::SignatureDetails* signature = value.mutable_signature_details();
  signature->set_product_family("Endpoint Components " + std::to_string(seed % 13));
  signature->set_vendor("Example Software Vendor, Inc. (" + Hex(seed, 10) + ")");
  signature->set_signature_state(static_cast<uint32_t>(seed % 4));
  signature->set_os_specific(static_cast<uint32_t>(seed % 3));
  signature->set_notarized(seed % 2 == 0);
  value.set_sha256(HashKey(seed));
  value.set_md5(Hex(seed + 0x5151, 32));
  value.set_sa_score(static_cast<double>(seed % 1000) / 10.0);
  value.add_entitlements("com.example.security.cs.allow-jit");
  value.add_entitlements("com.example.security.network.client." + std::to_string(seed));
  value.add_entitlements("com.example.security.files.user-selected.read-only");
  return value;
}

Value Stamped(int64_t last_used, uint64_t index) {
  Value value;
  value.mutable_lru_data()->set_last_used(last_used);
  value.mutable_lru_data()->set_index(index);
  return value;
}

std::map<uint64_t, std::string> Rows(TestLruStore& store) {
  std::vector<std::string> keys;
  std::vector<Row> rows;
  const Status status = store.lru().Dump(&keys, &rows, nullptr);
  EXPECT_TRUE(status.ok()) << status.message;
  std::map<uint64_t, std::string> result;
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(keys[i].size(), 20u) << "row key \"" << keys[i] << "\"";
    uint64_t index = 0;
    if (std::sscanf(keys[i].c_str(), "%" SCNu64, &index) != 1) {
      ADD_FAILURE() << "row key \"" << keys[i] << "\"";
    }
    EXPECT_EQ(keys[i], LruKey(index));
    result[index] = rows[i].foreign_key();
  }
  return result;
}

std::map<std::string, Value> Entries(TestLruStore& store) {
  std::vector<std::string> keys;
  std::vector<Value> values;
  const Status status = store.main().Dump(&keys, &values, nullptr);
  EXPECT_TRUE(status.ok()) << status.message;
  std::map<std::string, Value> result;
  for (size_t i = 0; i < keys.size(); ++i) result[keys[i]] = values[i];
  return result;
}

std::map<std::string, std::pair<int64_t, uint64_t>> LruData(TestLruStore& store) {
  std::map<std::string, std::pair<int64_t, uint64_t>> result;
  for (const auto& [key, value] : Entries(store)) {
    result[key] = {value.lru_data().last_used(), value.lru_data().index()};
  }
  return result;
}

std::map<std::string, std::string> ReadRaw(const std::string& dir) {
  persistence::DB db(dir);
  std::map<std::string, std::string> result;
  const leveldb::Status status = db.Open(false, false, false, 0);
  EXPECT_TRUE(status.ok()) << status.ToString();
  if (!status.ok()) return result;
  std::vector<std::string> keys;
  std::vector<std::string> values;
  EXPECT_TRUE(db.Dump(&keys, &values, nullptr).ok());
  for (size_t i = 0; i < keys.size(); ++i) result[keys[i]] = values[i];
  db.Close();
  return result;
}

void WriteRaw(const std::string& dir,
              const std::vector<std::pair<std::string, std::string>>& records) {
  persistence::DB db(dir);
  const leveldb::Status status = db.Open(false, true, false, 0);
  ASSERT_TRUE(status.ok()) << status.ToString();
  for (const auto& [key, value] : records) ASSERT_TRUE(db.Put(key, value, true).ok());
  ASSERT_TRUE(db.Close().ok());
}

void SeedAgreeingPair(const std::string& path) {
  WriteRaw(path, {{"0-seed", Wire(Stamped(kWallStart - 1000, 1))}});
  WriteRaw(path + ".lru", {{LruKey(1), RowWire("0-seed")}});
}

std::string Wire(const google::protobuf::MessageLite& message) {
  std::string bytes;
  EXPECT_TRUE(message.SerializeToString(&bytes));
  return bytes;
}

std::string RowWire(const std::string& foreign_key) {
  Row row;
  row.set_foreign_key(foreign_key);
  return Wire(row);
}

std::vector<Line> Lines(const std::vector<testing_support::LoggedLine>& lines) {
  std::vector<Line> result;
  for (const testing_support::LoggedLine& line : lines)
    result.emplace_back(line.priority, line.text);
  return result;
}

std::vector<Line> Lines(const testing_support::LogCapture& log) { return Lines(log.lines()); }

std::vector<testing_support::LoggedLine> LinesWith(const testing_support::LogCapture& log,
                                                   const std::string& text) {
  std::vector<testing_support::LoggedLine> result;
  for (const testing_support::LoggedLine& line : log.lines()) {
    if (line.text.find(text) != std::string::npos) result.push_back(line);
  }
  return result;
}

std::string SourceLine(const std::string& file, int number) {
  std::ifstream in(std::string(DRAVINHOLD_SOURCE_DIR) + "/" + file);
  std::string text;
  for (int i = 1; std::getline(in, text); ++i) {
    if (i == number) return text;
  }
  return std::string();
}

int SourceLineOf(const std::string& file, const std::string& text) {
  std::ifstream in(std::string(DRAVINHOLD_SOURCE_DIR) + "/" + file);
  std::string line;
  for (int i = 1; std::getline(in, line); ++i) {
    if (line.find(text) != std::string::npos) return i;
  }
  return 0;
}

std::string CheckHeader(const std::string& site_text, const std::string& condition) {
  const int line = SourceLineOf(kLruSource, site_text);
  EXPECT_NE(line, 0) << site_text;
  return "Line " + std::to_string(line) + " @ " + kLruSource + " *** Assertion '((" + condition +
         "))' failed *** ";
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

void HookChannel::log(const Poco::Message& message) {
  testing_support::LoggedLine line;
  line.source = message.getSource();
  line.text = message.getText();
  line.priority = message.getPriority();
  line.file = message.getSourceFile() != nullptr ? message.getSourceFile() : "";
  line.line = message.getSourceLine();
  line.function = message.get("function", std::string());
  line.ndc = message.get("ndc", std::string());
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }
  if (hook) hook(line);
}

std::vector<testing_support::LoggedLine> HookChannel::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

void HookChannel::Install() { Poco::Logger::get(kLoggerName).setChannel(this); }

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

}  // namespace lru_test
