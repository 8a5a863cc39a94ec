#include "bench/bench_common.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <system_error>

namespace bench {
namespace {

Sizes& MutableSizes() {
  static Sizes value;
  return value;
}

std::string& Root() {
  static std::string root;
  return root;
}

uint64_t StatusField(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t length = std::strlen(name);
  while (std::getline(status, line)) {
    if (line.compare(0, length, name) == 0 && line.size() > length && line[length] == ':') {
      return std::stoull(line.substr(length + 1)) * 1024;  // the kernel counts kB
    }
  }
  return 0;
}

}  // namespace

const Sizes& sizes() { return MutableSizes(); }
void SetSizes(const Sizes& value) { MutableSizes() = value; }

void InitDirectories() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/dravinhold-bench-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  Require(mkdtemp(buffer.data()) != nullptr, "mkdtemp " + pattern);
  Root() = buffer.data();
  std::filesystem::create_directories(DataRoot());
  std::filesystem::create_directories(WorkDir());
}

const std::string& DataRoot() {
  static const std::string path = Root() + "/data";
  return path;
}

const std::string& WorkDir() {
  static const std::string path = Root() + "/work";
  return path;
}

void RemoveDirectories() {
  if (Root().empty()) return;
  std::error_code error;
  std::filesystem::remove_all(Root(), error);
}

std::string FreshWorkPath(const std::string& name) {
  const std::string path = WorkDir() + "/" + name;
  RemoveDirectory(path);
  return path;
}

std::string FreshWorkDirectory(const std::string& name) {
  const std::string path = FreshWorkPath(name);
  std::filesystem::create_directories(path);
  return path;
}

void CopyDirectory(const std::string& from, const std::string& to) {
  RemoveDirectory(to);
  std::error_code error;
  std::filesystem::copy(from, to, std::filesystem::copy_options::recursive, error);
  Require(!error, "copy " + from + " to " + to + ": " + error.message());
}

void CopyDatabaseFiles(const std::string& from, const std::string& to) {
  RemoveDirectory(to);
  std::filesystem::create_directories(to);
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(from, error)) {
    if (!entry.is_regular_file() || entry.path().filename() == "LOCK") continue;
    std::filesystem::copy_file(entry.path(), to + "/" + entry.path().filename().string(), error);
    Require(!error, "copy " + entry.path().string() + ": " + error.message());
  }
  Require(!error, "list " + from + ": " + error.message());
}

void RemoveDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  Require(!error, "remove " + path + ": " + error.message());
}

uint64_t DirectorySize(const std::string& path) {
  uint64_t total = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path, error)) {
    struct stat info;
    if (lstat(entry.path().c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) {
      total += static_cast<uint64_t>(info.st_blocks) * 512;
    }
  }
  return total;
}

uint64_t Mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

std::string HashKey(uint64_t set, uint64_t i, bool upper) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string key(64, '0');
  uint64_t state = Mix((set << 40) ^ i);
  for (int word = 0; word < 4; ++word) {
    state = Mix(state);
    for (int nibble = 0; nibble < 16; ++nibble) {
      key[word * 16 + nibble] = digits[(state >> (nibble * 4)) & 0xf];
    }
  }
  return key;
}

std::string PolicyBlob(uint64_t seed) {
  std::string blob(1024, '\0');
  uint64_t state = seed;
  for (size_t i = 0; i < blob.size(); i += 8) {
    state = Mix(state);
    std::memcpy(&blob[i], &state, 8);
  }
  return blob;
}

RawDb::RawDb(const std::string& path, bool paranoid_checks, uint64_t cache_mb) : path_(path) {
  leveldb::Options options;
  options.create_if_missing = true;
  options.paranoid_checks = paranoid_checks;
  filter_.reset(leveldb::NewBloomFilterPolicy(10));
  options.filter_policy = filter_.get();
  if (cache_mb != 0) {
    cache_.reset(leveldb::NewLRUCache(cache_mb << 20));
    options.block_cache = cache_.get();
  }
  leveldb::DB* db = nullptr;
  Require(leveldb::DB::Open(options, path, &db), "open " + path);
  db_.reset(db);
}

RawDb::~RawDb() {
  db_.reset();
  cache_.reset();
  filter_.reset();
}

void RawDb::CompactAll() { db_->CompactRange(nullptr, nullptr); }

leveldb::ReadOptions PlainRead() {
  leveldb::ReadOptions options;
  options.verify_checksums = false;
  options.fill_cache = true;
  return options;
}

leveldb::WriteOptions WriteSync(bool sync) {
  leveldb::WriteOptions options;
  options.sync = sync;
  return options;
}

uint64_t VerifyingWalk(leveldb::DB* db) {
  leveldb::ReadOptions options;
  options.verify_checksums = true;
  options.fill_cache = false;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(options));
  uint64_t count = 0;
  for (it->SeekToFirst(); it->Valid(); it->Next()) ++count;
  Require(it->status(), "verifying walk");
  return count;
}

void Require(bool ok, const std::string& what) {
  if (ok) return;
  std::cerr << "benchmark setup failed: " << what << std::endl;
  std::abort();
}

void Require(const leveldb::Status& status, const std::string& what) {
  Require(status.ok(), what + ": " + status.ToString());
}

uint64_t ResidentBytes() { return StatusField("VmRSS"); }
uint64_t PeakResidentBytes() { return StatusField("VmHWM"); }

void ResetPeakResident() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5" << std::flush;
  Require(static_cast<bool>(clear), "reset the peak resident size through /proc/self/clear_refs");
}

void RegisterPair(const Row& row, std::function<void(benchmark::State&)> library,
                  std::function<void(benchmark::State&)> raw,
                  const std::function<void(benchmark::internal::Benchmark*)>& configure) {
  RatioReporter::AddRow(row);
  configure(benchmark::RegisterBenchmark((row.operation + "/library").c_str(), library));
  configure(benchmark::RegisterBenchmark((row.operation + "/raw").c_str(), raw));
}

}  // namespace bench
