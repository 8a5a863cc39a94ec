#include "lru_test_util.h"

#include <Poco/Logger.h>
#include <dirent.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <thread>

namespace lru_test {

void PrintTo(const Note& note, std::ostream* out) {
  *out << "{\"" << note.key << "\", " << note.old_index << ", " << note.new_index << "}";
}

void PrintTo(const Line& line, std::ostream* out) {
  *out << "{" << line.first << ", \"" << line.second << "\"}";
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

}  // namespace lru_test
