#include "engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <vector>

#include "zerla_common/dir_size.h"

namespace dravinholdctl {

namespace {

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// "status" with every mention of the directory "from" turned into "to", of
// the same kind.
leveldb::Status Renamed(const leveldb::Status& status, const std::string& from,
                        const std::string& to) {
  if (status.ok()) return status;
  const std::string text = status.ToString();
  const size_t colon = text.find(": ");
  const std::string message =
      ReplaceAll(colon == std::string::npos ? text : text.substr(colon + 2), from, to);
  if (status.IsNotFound()) return leveldb::Status::NotFound(message);
  if (status.IsCorruption()) return leveldb::Status::Corruption(message);
  if (status.IsNotSupportedError()) return leveldb::Status::NotSupported(message);
  if (status.IsInvalidArgument()) return leveldb::Status::InvalidArgument(message);
  return leveldb::Status::IOError(message);
}

// An iterator of a copy whose failures name the store, not the copy.
class CopiedIterator : public leveldb::Iterator {
 public:
  CopiedIterator(leveldb::Iterator* iterator, const std::string& copy, const std::string& store)
      : iterator_(iterator), copy_(copy), store_(store) {}
  bool Valid() const override { return iterator_->Valid(); }
  void SeekToFirst() override { iterator_->SeekToFirst(); }
  void SeekToLast() override { iterator_->SeekToLast(); }
  void Seek(const leveldb::Slice& target) override { iterator_->Seek(target); }
  void Next() override { iterator_->Next(); }
  void Prev() override { iterator_->Prev(); }
  leveldb::Slice key() const override { return iterator_->key(); }
  leveldb::Slice value() const override { return iterator_->value(); }
  leveldb::Status status() const override { return Renamed(iterator_->status(), copy_, store_); }

 private:
  std::unique_ptr<leveldb::Iterator> iterator_;
  const std::string copy_;
  const std::string store_;
};

// The engine's info log, kept in memory, that remembers what the open
// skipped: without paranoid checks a damaged stretch of the log is dropped
// with no more than a line "<log>: dropping <n> bytes; <why>" here.
class DroppedLogRecords : public leveldb::Logger {
 public:
  void Logv(const char* format, std::va_list arguments) override {
    char line[1024];
    std::vsnprintf(line, sizeof(line), format, arguments);
    std::string text = line;
    if (text.find(": dropping ") == std::string::npos) return;
    const std::string ignoring = "(ignoring error) ";
    if (text.compare(0, ignoring.size(), ignoring) == 0) text.erase(0, ignoring.size());
    std::lock_guard<std::mutex> lock(mutex_);
    if (first_.empty()) first_ = text;
  }

  std::string First() {
    std::lock_guard<std::mutex> lock(mutex_);
    return first_;
  }

 private:
  std::mutex mutex_;
  std::string first_;
};

// A database opened on a copy of a store, which removes the copy when it is
// closed and names the store, not the copy, in its failures. Iterators and
// snapshots must end before it does, as with any leveldb::DB.
class CopiedDB : public leveldb::DB {
 public:
  CopiedDB(std::string copy, std::string store)
      : copy_(std::move(copy)), store_(std::move(store)) {}
  ~CopiedDB() override {
    db_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(copy_, ignored);
  }

  void Adopt(std::unique_ptr<leveldb::DB> db) { db_ = std::move(db); }
  DroppedLogRecords* dropped() { return &dropped_; }

  // Corruption naming what the open dropped, or ok.
  leveldb::Status OpenDamage() {
    const std::string dropped = dropped_.First();
    return dropped.empty() ? leveldb::Status::OK()
                           : leveldb::Status::Corruption(ReplaceAll(dropped, copy_, store_));
  }

  leveldb::Status Put(const leveldb::WriteOptions& options, const leveldb::Slice& key,
                      const leveldb::Slice& value) override {
    return Renamed(db_->Put(options, key, value));
  }
  leveldb::Status Delete(const leveldb::WriteOptions& options, const leveldb::Slice& key) override {
    return Renamed(db_->Delete(options, key));
  }
  leveldb::Status Write(const leveldb::WriteOptions& options,
                        leveldb::WriteBatch* updates) override {
    return Renamed(db_->Write(options, updates));
  }
  leveldb::Status Get(const leveldb::ReadOptions& options, const leveldb::Slice& key,
                      std::string* value) override {
    return Renamed(db_->Get(options, key, value));
  }
  leveldb::Iterator* NewIterator(const leveldb::ReadOptions& options) override {
    return new CopiedIterator(db_->NewIterator(options), copy_, store_);
  }
  const leveldb::Snapshot* GetSnapshot() override { return db_->GetSnapshot(); }
  void ReleaseSnapshot(const leveldb::Snapshot* snapshot) override {
    db_->ReleaseSnapshot(snapshot);
  }
  bool GetProperty(const leveldb::Slice& property, std::string* value) override {
    return db_->GetProperty(property, value);
  }
  void GetApproximateSizes(const leveldb::Range* range, int n, uint64_t* sizes) override {
    db_->GetApproximateSizes(range, n, sizes);
  }
  void CompactRange(const leveldb::Slice* begin, const leveldb::Slice* end) override {
    db_->CompactRange(begin, end);
  }

 private:
  leveldb::Status Renamed(const leveldb::Status& status) const {
    return dravinholdctl::Renamed(status, copy_, store_);
  }

  DroppedLogRecords dropped_;  // outlives db_, which logs into it
  std::unique_ptr<leveldb::DB> db_;
  const std::string copy_;
  const std::string store_;
};

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// A new empty directory under $TMPDIR (or /tmp), or "" with errno set.
std::string MakeTempDirectory() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dravinholdctl-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  return mkdtemp(buffer.data()) != nullptr ? std::string(buffer.data()) : std::string();
}

// Copies what the engine reads of a database from "from" into "to": CURRENT,
// the manifests, the logs and the tables. Tables are never written again
// once made, so they are linked where the file system allows it. LOCK and
// the engine's own info log stay behind.
bool CopyDatabaseFiles(const std::string& from, const std::string& to, std::string* error) {
  std::error_code code;
  for (const auto& entry : std::filesystem::directory_iterator(from, code)) {
    const std::string name = entry.path().filename().string();
    const bool table = EndsWith(name, ".ldb") || EndsWith(name, ".sst");
    if (!table && name != "CURRENT" && name.compare(0, 9, "MANIFEST-") != 0 &&
        !EndsWith(name, ".log")) {
      continue;
    }
    const std::string target = to + "/" + name;
    if (table && link(entry.path().c_str(), target.c_str()) == 0) continue;
    if (!std::filesystem::copy_file(entry.path(), target, code)) {
      *error = "cannot copy " + entry.path().string() + " for reading: " + code.message();
      return false;
    }
  }
  if (code) {
    *error = "cannot list " + from + ": " + code.message();
    return false;
  }
  return true;
}

}  // namespace

std::string StorePath(const std::string& root, const StoreInfo& store) {
  return root + "/" + store.name;
}

bool DirectoryExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

long LockHolder(const std::string& path) {
  const int fd = open((path + "/LOCK").c_str(), O_RDONLY);
  if (fd < 0) return 0;
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  const bool asked = fcntl(fd, F_GETLK, &lock) == 0;
  close(fd);
  return asked && lock.l_type != F_UNLCK ? static_cast<long>(lock.l_pid) : 0;
}

std::unique_ptr<leveldb::DB> OpenExisting(const std::string& path, bool paranoid_checks,
                                          std::string* error) {
  if (!DirectoryExists(path)) {
    *error = "not present: " + path;
    return nullptr;
  }
  if (const long holder = LockHolder(path)) {
    *error = "in use by process " + std::to_string(holder) + ": " + path;
    return nullptr;
  }
  const std::string copy = MakeTempDirectory();
  if (copy.empty()) {
    *error =
        "cannot make a temporary directory for a copy of " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  std::unique_ptr<CopiedDB> guard(new CopiedDB(copy, path));
  if (!CopyDatabaseFiles(path, copy, error)) return nullptr;
  // A process that opened the store while it was being copied may have
  // changed it under the copy.
  if (const long holder = LockHolder(path)) {
    *error = "in use by process " + std::to_string(holder) + ": " + path;
    return nullptr;
  }
  leveldb::Options options;
  options.create_if_missing = false;
  options.paranoid_checks = paranoid_checks;
  options.info_log = guard->dropped();
  leveldb::DB* db = nullptr;
  const leveldb::Status status = leveldb::DB::Open(options, copy, &db);
  if (!status.ok()) {
    *error = "cannot open " + path + ": " + Renamed(status, copy, path).ToString();
    // Where in the log, when that is what the open stumbled on.
    const std::string dropped = guard->dropped()->First();
    if (!dropped.empty()) *error += " (" + ReplaceAll(dropped, copy, path) + ")";
    return nullptr;
  }
  guard->Adopt(std::unique_ptr<leveldb::DB>(db));
  return guard;
}

leveldb::Status Walk(
    leveldb::DB* db, const std::string& start,
    const std::function<bool(const leveldb::Slice&, const leveldb::Slice&)>& visit) {
  leveldb::ReadOptions options;
  options.verify_checksums = true;
  options.fill_cache = false;
  std::unique_ptr<leveldb::Iterator> it(db->NewIterator(options));
  if (start.empty()) {
    it->SeekToFirst();
  } else {
    it->Seek(start);
  }
  for (; it->Valid(); it->Next()) {
    if (!visit(it->key(), it->value())) break;
  }
  const leveldb::Status status = it->status();
  return status.ok() ? OpenDamage(db) : status;
}

leveldb::Status OpenDamage(leveldb::DB* db) {
  auto* copied = dynamic_cast<CopiedDB*>(db);
  return copied != nullptr ? copied->OpenDamage() : leveldb::Status::OK();
}

uint64_t SizeOnDisk(const std::string& path) {
  unsigned long size = 0;
  GetDirSizeOnDisk(path, &size);
  return size;
}

std::string HumanBytes(uint64_t bytes) {
  const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024 && unit < 4) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text;
}

ProgressBar::ProgressBar(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total), visible_(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
  if (visible_ && drawn_percent_ >= 0) std::fprintf(stderr, "\r\033[K");
}

void ProgressBar::Update(uint64_t done) {
  if (!visible_ || total_ == 0) return;
  const int percent = static_cast<int>(std::min<uint64_t>(done, total_) * 100 / total_);
  if (percent == drawn_percent_) return;
  drawn_percent_ = percent;
  const int width = 30;
  const int filled = percent * width / 100;
  std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", label_.c_str(), filled,
               "##############################", width - filled, "", percent);
  std::fflush(stderr);
}

}  // namespace dravinholdctl
