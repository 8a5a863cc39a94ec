#include "kvstore/kvstore_test_util.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <sstream>
#include <thread>

namespace kvstore_test {

// --- Records ----------------------------------------------------------------

Value MakeValue(const std::string& text, int64_t number, const std::string& blob) {
  Value value;
  value.set_text(text);
  value.set_number(number);
  value.set_blob(blob);
  return value;
}

Key MakeKey(const std::string& name, int32_t id) {
  Key key;
  key.set_name(name);
  key.set_id(id);
  return key;
}

Value BadValue() { return MakeValue("\xff", 1); }

Key BadKey() { return MakeKey("\xff", 1); }

std::string GarbageBytes() { return "\xff\xff\xff"; }

std::string Blob(int seed, size_t size) {
  std::string bytes;
  bytes.reserve(size);
  uint32_t state = static_cast<uint32_t>(seed) * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    state = state * 1103515245u + 12345u;
    bytes.push_back(static_cast<char>(state >> 16));
  }
  return bytes;
}

std::string Wire(const google::protobuf::MessageLite& message) {
  std::string bytes;
  message.SerializeToString(&bytes);
  return bytes;
}

// --- Raw access ---------------------------------------------------------------

void WriteRaw(const std::string& dir,
              const std::vector<std::pair<std::string, std::string>>& records) {
  persistence::DB db(dir);
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  for (const auto& record : records) {
    ASSERT_TRUE(db.Put(record.first, record.second, true).ok());
  }
  ASSERT_TRUE(db.Close().ok());
}

std::map<std::string, std::string> ReadRaw(const std::string& dir) {
  std::map<std::string, std::string> records;
  persistence::DB db(dir);
  const leveldb::Status opened = db.Open(true, false, false, 0);
  EXPECT_TRUE(opened.ok()) << opened.ToString();
  if (!opened.ok()) return records;
  std::vector<std::string> keys;
  std::vector<std::string> values;
  EXPECT_TRUE(db.Dump(&keys, &values, nullptr).ok());
  for (size_t i = 0; i < keys.size(); ++i) records[keys[i]] = values[i];
  db.Close();
  return records;
}

Value FilledValue(int i, size_t blob_size) {
  return MakeValue("v" + std::to_string(i), i, Blob(i, blob_size));
}

void FillCompacted(const std::string& path, int count, size_t blob_size) {
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Status());
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(store.Put("k" + std::to_string(i), FilledValue(i, blob_size), false), Status());
  }
  ASSERT_EQ(store.Compact(), Status());
}

void FlipInPlace(const std::string& path, uint64_t offset, uint64_t count) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  ASSERT_TRUE(file.good()) << path;
  for (uint64_t i = 0; i < count; ++i) {
    file.seekg(static_cast<std::streamoff>(offset + i));
    const int byte = file.get();
    ASSERT_NE(byte, EOF);
    file.seekp(static_cast<std::streamoff>(offset + i));
    file.put(static_cast<char>(~byte));
  }
  file.flush();
}

uint64_t OffsetOf(const std::string& path, const std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  const size_t offset = contents.str().find(bytes);
  EXPECT_NE(offset, std::string::npos) << "not found in " << path;
  return offset;
}

std::string OnlyTableFile(const std::string& dir) {
  std::vector<std::string> tables;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".ldb") == 0) tables.push_back(name);
  }
  EXPECT_EQ(tables.size(), 1u) << "table files in " << dir;
  return tables.empty() ? std::string() : dir + "/" + tables.front();
}

uint64_t DiskUsage(const std::string& dir) {
  uint64_t total = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
    struct stat info;
    if (lstat(entry.path().c_str(), &info) != 0 || S_ISDIR(info.st_mode)) continue;
    total += static_cast<uint64_t>(info.st_blocks) * 512u;
  }
  return total;
}

bool IsDirectory(const std::string& path) { return std::filesystem::is_directory(path); }

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

// --- Log lines --------------------------------------------------------------

std::vector<testing_support::LoggedLine> LinesWithText(const testing_support::LogCapture& log,
                                                       const std::string& text) {
  std::vector<testing_support::LoggedLine> found;
  for (const auto& line : log.lines()) {
    if (line.text == text) found.push_back(line);
  }
  return found;
}

int CountText(const testing_support::LogCapture& log, const std::string& text) {
  return static_cast<int>(LinesWithText(log, text).size());
}

std::string Line(int priority, const std::string& text) {
  return std::to_string(priority) + " " + text;
}

std::vector<std::string> Summary(const std::vector<testing_support::LoggedLine>& lines) {
  std::vector<std::string> summary;
  for (const auto& line : lines) summary.push_back(Line(line.priority, line.text));
  return summary;
}

std::vector<std::string> Summary(const testing_support::LogCapture& log) {
  return Summary(log.lines());
}

::testing::AssertionResult IsStoreLine(const testing_support::LoggedLine& line, int priority,
                                       const std::string& text, const std::string& ndc) {
  if (line.text != text) return ::testing::AssertionFailure() << "text is \"" << line.text << "\"";
  if (line.priority != priority) {
    return ::testing::AssertionFailure() << "priority of \"" << text << "\" is " << line.priority;
  }
  if (line.ndc != ndc) {
    return ::testing::AssertionFailure()
           << "context of \"" << text << "\" is \"" << line.ndc << "\"";
  }
  if (line.source != kLoggerName) {
    return ::testing::AssertionFailure() << "source is \"" << line.source << "\"";
  }
  if (line.file != kStoreSource) {
    return ::testing::AssertionFailure() << "file is \"" << line.file << "\"";
  }
  return ::testing::AssertionSuccess();
}

namespace {

std::string SourceLine(const std::string& file, int number) {
  std::ifstream in(std::string(DRAVINHOLD_SOURCE_DIR) + "/" + file);
  std::string text;
  for (int i = 1; std::getline(in, text); ++i) {
    if (i == number) return text;
  }
  return std::string();
}

}  // namespace

::testing::AssertionResult IsCheckLine(const testing_support::LoggedLine& line,
                                       const std::string& condition, const std::string& message,
                                       const std::string& function_name) {
  const std::string expected = "Line " + std::to_string(line.line) + " @ " + kStoreSource +
                               " *** Assertion '((" + condition + "))' failed *** " + message;
  if (line.text != expected) {
    return ::testing::AssertionFailure()
           << "text is \"" << line.text << "\", expected \"" << expected << "\"";
  }
  if (line.priority != 3) return ::testing::AssertionFailure() << "priority " << line.priority;
  if (line.file != kStoreSource) return ::testing::AssertionFailure() << "file " << line.file;
  if (line.function.find("persistence::KVStore<KeyT, ValueT, DataT>::" + function_name + "(") ==
      std::string::npos) {
    return ::testing::AssertionFailure() << "function is \"" << line.function << "\"";
  }
  const std::string site = SourceLine(kStoreSource, line.line);
  if (site.find("CHECK_LOGGED(Logger, " + condition + ", \"" + message + "\")") ==
      std::string::npos) {
    return ::testing::AssertionFailure() << "line " << line.line << " is \"" << site << "\"";
  }
  return ::testing::AssertionSuccess();
}

// --- Standard error ---------------------------------------------------------

std::vector<std::string> WithoutProtobufLines(const std::vector<std::string>& lines) {
  std::vector<std::string> kept;
  for (const std::string& line : lines) {
    if (line.rfind("[libprotobuf ", 0) != 0) kept.push_back(line);
  }
  return kept;
}

std::string RegexEscape(const std::string& text) {
  static const std::string kSpecial = "\\^$.|?*+()[]{}";
  std::string escaped;
  for (char c : text) {
    if (kSpecial.find(c) != std::string::npos) escaped.push_back('\\');
    escaped.push_back(c);
  }
  return escaped;
}

bool FullMatch(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}

::testing::AssertionResult IsDbCheckLine(const std::string& line, const std::string& condition,
                                         const std::string& message) {
  const std::string pattern = "Line [0-9]+ @ persistence/db\\.cc \\*\\*\\* Assertion '\\(\\(" +
                              RegexEscape(condition) + "\\)\\)' failed \\*\\*\\* " +
                              RegexEscape(message);
  if (FullMatch(line, pattern)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "\"" << line << "\" is not the check line of " << condition;
}

// --- Time and threads -------------------------------------------------------

void RunBounded(std::chrono::milliseconds limit, const std::string& what,
                const std::function<void()>& body) {
  // The future is deliberately leaked on a hang: its destructor would wait.
  auto* done = new std::future<void>(std::async(std::launch::async, body));
  if (done->wait_for(limit) != std::future_status::ready) {
    std::fprintf(stderr, "FAILED: %s did not finish within %lld ms (deadlock?)\n", what.c_str(),
                 static_cast<long long>(limit.count()));
    std::fflush(stderr);
    std::fflush(stdout);
    std::_Exit(1);
  }
  done->get();
  delete done;
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int CurrentThreadId() { return static_cast<int>(syscall(SYS_gettid)); }

bool ThreadIsSleeping(int thread_id) {
  std::ifstream in("/proc/self/task/" + std::to_string(thread_id) + "/stat");
  std::string stat;
  std::getline(in, stat);
  // "<tid> (<name>) <state> ...": the state follows the closing parenthesis.
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S';
}

namespace {

std::atomic<int64_t> counting_now{0};
std::atomic<int> counting_reads{0};

persistence::SteadyTimePoint CountingNow() {
  ++counting_reads;
  return persistence::SteadyTimePoint(std::chrono::nanoseconds(counting_now.load()));
}

std::time_t CountingWall() { return 1700000000; }

}  // namespace

CountingClock::CountingClock(std::chrono::nanoseconds start) {
  counting_now.store(start.count());
  counting_reads.store(0);
  persistence::testing::SetClocksForTesting(&CountingNow, &CountingWall);
}

CountingClock::~CountingClock() { persistence::testing::SetClocksForTesting(nullptr, nullptr); }

void CountingClock::Advance(std::chrono::nanoseconds step) { counting_now += step.count(); }

int CountingClock::reads() const { return counting_reads.load(); }

void CountingClock::ResetReads() { counting_reads.store(0); }

bool Rendezvous::ArriveAndWait(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  ++count_;
  arrived_.notify_all();
  return arrived_.wait_for(lock, limit, [this] { return count_ >= parties_; });
}

}  // namespace kvstore_test
