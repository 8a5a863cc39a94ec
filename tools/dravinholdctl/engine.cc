#include "engine.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <leveldb/dumpfile.h>
#include <leveldb/table.h>

#include "cleanup.h"
#include "text_sink.h"
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

// The file system of a copy. The copy's tables are links to the store's own
// files, and the engine of the copy makes files of its own numbered on from
// the copied manifest, numbers a store that has gone on writing may already
// use: opening such a name for writing would truncate and overwrite the
// store's table through the link. So every file the copy writes is first
// unlinked, and a file it appends to is first made a file of its own.
class CopyEnv : public leveldb::EnvWrapper {
 public:
  CopyEnv() : leveldb::EnvWrapper(leveldb::Env::Default()) {}

  leveldb::Status NewWritableFile(const std::string& name, leveldb::WritableFile** file) override {
    unlink(name.c_str());
    return target()->NewWritableFile(name, file);
  }

  leveldb::Status NewAppendableFile(const std::string& name,
                                    leveldb::WritableFile** file) override {
    struct stat info;
    if (stat(name.c_str(), &info) == 0 && info.st_nlink > 1) {
      const std::string own = name + ".own";
      std::error_code code;
      std::filesystem::copy_file(name, own, std::filesystem::copy_options::overwrite_existing,
                                 code);
      if (code || rename(own.c_str(), name.c_str()) != 0) {
        return leveldb::Status::IOError(name, "cannot unshare: " + code.message());
      }
    }
    return target()->NewAppendableFile(name, file);
  }
};

// A database opened on a copy of a store, which removes the copy when it is
// closed and names the store, not the copy, in its failures. Iterators and
// snapshots must end before it does, as with any leveldb::DB.
class CopiedDB : public leveldb::DB {
 public:
  CopiedDB(std::string copy, std::string store) : copy_(std::move(copy)), store_(std::move(store)) {
    RegisterTemporaryDirectory(copy_);
  }
  ~CopiedDB() override {
    db_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(copy_, ignored);
    UnregisterTemporaryDirectory(copy_);
  }

  void Adopt(std::unique_ptr<leveldb::DB> db) { db_ = std::move(db); }
  DroppedLogRecords* dropped() { return &dropped_; }
  leveldb::Env* env() { return &env_; }

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

  CopyEnv env_;                // outlives db_, which works through it
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

bool IsTable(const std::string& name) { return EndsWith(name, ".ldb") || EndsWith(name, ".sst"); }

bool IsLog(const std::string& name) { return EndsWith(name, ".log"); }

bool IsManifest(const std::string& name) { return name.compare(0, 9, "MANIFEST-") == 0; }

// The names of the tables, logs and manifests in "path", sorted. False with
// errno set when the directory cannot be listed.
bool ListDatabaseFiles(const std::string& path, std::set<std::string>* names) {
  names->clear();
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return false;
  errno = 0;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (IsTable(name) || IsLog(name) || IsManifest(name)) names->insert(name);
  }
  const int error = errno;
  closedir(dir);
  errno = error;
  return error == 0;
}

// What a step of the copy came to.
enum class Step { kDone, kVanished, kFailed };

// Reads all of "path" into *contents. kVanished when it is not there.
Step ReadFile(const std::string& path, std::string* contents, std::string* error) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return Step::kVanished;
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return Step::kFailed;
  }
  contents->clear();
  char buffer[65536];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      *error = "cannot read " + path + ": " + std::strerror(errno);
      close(fd);
      return Step::kFailed;
    }
    contents->append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  return Step::kDone;
}

Step WriteFile(const std::string& path, const std::string& contents, std::string* error) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  size_t written = 0;
  while (fd >= 0 && written < contents.size()) {
    const ssize_t put = write(fd, contents.data() + written, contents.size() - written);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) break;
    written += static_cast<size_t>(put);
  }
  const int saved = errno;
  if (fd >= 0 && close(fd) == 0 && written == contents.size()) return Step::kDone;
  *error = "cannot write " + path + ": " + std::strerror(fd < 0 ? errno : saved);
  return Step::kFailed;
}

// Copies one file. A log or a manifest may grow while it is read; what was
// read is a prefix of it, which recovery takes as a database that stopped
// there.
Step CopyFile(const std::string& from, const std::string& to, std::string* error) {
  // The kernel copies (copy_file_range or sendfile): no pass through this
  // process's memory for a log of several MiB.
  std::error_code code;
  if (std::filesystem::copy_file(from, to, code)) return Step::kDone;
  if (code == std::errc::no_such_file_or_directory) return Step::kVanished;
  *error = "cannot copy " + from + " to " + to + ": " + code.message();
  return Step::kFailed;
}

// Tables are never written again once made: a link is a copy for free.
Step LinkOrCopyFile(const std::string& from, const std::string& to, std::string* error) {
  if (link(from.c_str(), to.c_str()) == 0) return Step::kDone;
  if (errno == ENOENT) return Step::kVanished;
  return CopyFile(from, to, error);
}

// Empties "path" of what a failed attempt left.
void EmptyDirectory(const std::string& path) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(path, ignored)) {
    std::filesystem::remove_all(entry.path(), ignored);
  }
}

// Whether the copy in "to" holds every file its manifest "manifest" needs:
// the tables of the last version and the log the manifest names. The
// manifest is read through the engine's own dump of it, edit by edit.
bool HasWhatTheManifestNeeds(const std::string& to, const std::string& manifest) {
  std::string text;
  TextSink sink(&text);
  if (!leveldb::DumpFile(leveldb::Env::Default(), to + "/" + manifest, &sink).ok()) return false;
  std::set<unsigned long long> tables;
  unsigned long long log_number = 0;
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(begin, end - begin);
    begin = end + 1;
    int level = 0;
    unsigned long long number = 0;
    if (std::sscanf(line.c_str(), "  LogNumber: %llu", &number) == 1) {
      log_number = number;
    } else if (std::sscanf(line.c_str(), "  AddFile: %d %llu", &level, &number) == 2) {
      tables.insert(number);
    } else if (std::sscanf(line.c_str(), "  RemoveFile: %d %llu", &level, &number) == 2) {
      tables.erase(number);
    }
  }
  const auto present = [&to](unsigned long long number, const char* suffix) {
    char name[32];
    std::snprintf(name, sizeof(name), "/%06llu.%s", number, suffix);
    struct stat info;
    return stat((to + name).c_str(), &info) == 0;
  };
  for (const unsigned long long table : tables) {
    if (!present(table, "ldb") && !present(table, "sst")) return false;
  }
  return log_number == 0 || present(log_number, "log");
}

// One attempt at the copy.
Step CopyOnce(const std::string& from, const std::string& to, std::string* error) {
  // Files present before the manifest is read must all still be there after
  // the copy: a table or log deleted in between was made obsolete by a
  // manifest record the copy may lack, or holds writes it needs.
  std::set<std::string> before;
  if (!ListDatabaseFiles(from, &before)) {
    *error = "cannot list " + from + ": " + std::strerror(errno);
    return Step::kFailed;
  }
  std::string current;
  Step step = ReadFile(from + "/CURRENT", &current, error);
  if (step == Step::kFailed) return step;
  // Without CURRENT there is no database to copy; the engine says so when it
  // opens the copy.
  const bool has_current = step == Step::kDone;
  const std::string manifest = current.substr(0, current.find('\n'));
  const bool has_manifest =
      has_current && IsManifest(manifest) && manifest.find('/') == std::string::npos;
  if (has_current) {
    step = WriteFile(to + "/CURRENT", current, error);
    if (step != Step::kDone) return step;
    if (has_manifest) {
      step = CopyFile(from + "/" + manifest, to + "/" + manifest, error);
      if (step != Step::kDone) return step;
    }
  }
  std::set<std::string> during;
  if (!ListDatabaseFiles(from, &during)) {
    *error = "cannot list " + from + ": " + std::strerror(errno);
    return Step::kFailed;
  }
  for (const std::string& name : during) {
    if (IsManifest(name)) continue;  // only the one CURRENT names counts
    step = IsTable(name) ? LinkOrCopyFile(from + "/" + name, to + "/" + name, error)
                         : CopyFile(from + "/" + name, to + "/" + name, error);
    if (step != Step::kDone) return step;
  }
  std::set<std::string> after;
  if (!ListDatabaseFiles(from, &after)) {
    *error = "cannot list " + from + ": " + std::strerror(errno);
    return Step::kFailed;
  }
  for (const std::set<std::string>* earlier : {&before, &during}) {
    if (!std::includes(after.begin(), after.end(), earlier->begin(), earlier->end())) {
      return Step::kVanished;
    }
  }
  std::string current_after;
  step = ReadFile(from + "/CURRENT", &current_after, error);
  if (step == Step::kFailed) return step;
  if ((step == Step::kDone) != has_current || current_after != current) return Step::kVanished;
  // A file made and removed again between two listings escapes them; the
  // manifest tells whether the copy lacks one. When the store's files did not
  // change at all, a lack is damage of the store itself, for the engine to
  // report, and no reason to copy again.
  if (has_manifest && after != before && !HasWhatTheManifestNeeds(to, manifest)) {
    return Step::kVanished;
  }
  return Step::kDone;
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

bool CopyLiveDatabase(const std::string& from, const std::string& to, std::string* error) {
  // A writer flushes its log into a table every few MiB of writes and
  // compacts now and then; each time a few files come and go within
  // milliseconds. An attempt takes about as long, so a few attempts are
  // enough even beside a writer that never pauses.
  constexpr int kAttempts = 200;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    EmptyDirectory(to);
    const Step step = CopyOnce(from, to, error);
    if (step == Step::kDone) return true;
    if (step == Step::kFailed) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min(attempt, 20)));
  }
  *error = "cannot copy " + from + ": its files changed under each of " +
           std::to_string(kAttempts) + " attempts";
  return false;
}

std::unique_ptr<leveldb::DB> OpenExisting(const std::string& path, bool paranoid_checks,
                                          std::string* error, OpenProblem* problem) {
  OpenProblem ignored_problem;
  if (problem == nullptr) problem = &ignored_problem;
  *problem = OpenProblem::kCannotCheck;
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    *problem = errno == ENOENT ? OpenProblem::kAbsent : OpenProblem::kCannotCheck;
    *error = errno == ENOENT ? "not present: " + path
                             : "cannot look at " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  if (!S_ISDIR(info.st_mode)) {
    *problem = OpenProblem::kDamaged;
    *error = "not a directory: " + path;
    return nullptr;
  }
  const std::string copy = MakeTempDirectory();
  if (copy.empty()) {
    *error =
        "cannot make a temporary directory for a copy of " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  std::unique_ptr<CopiedDB> guard(new CopiedDB(copy, path));
  if (!CopyLiveDatabase(path, copy, error)) return nullptr;
  leveldb::Options options;
  options.create_if_missing = false;
  options.paranoid_checks = paranoid_checks;
  options.info_log = guard->dropped();
  options.env = guard->env();
  // The log is replayed into memory and kept there, as the log of the copy:
  // no table is written from it and no manifest made anew, which is most of
  // what an open costs on a large store. The copy is never written to.
  options.reuse_logs = true;
  options.write_buffer_size = 1u << 30;
  leveldb::DB* db = nullptr;
  const leveldb::Status status = leveldb::DB::Open(options, copy, &db);
  if (!status.ok()) {
    *problem = status.IsIOError() ? OpenProblem::kCannotCheck : OpenProblem::kDamaged;
    *error = "cannot open " + path + ": " + Renamed(status, copy, path).ToString();
    // Where in the log, when that is what the open stumbled on.
    const std::string dropped = guard->dropped()->First();
    if (!dropped.empty()) *error += " (" + ReplaceAll(dropped, copy, path) + ")";
    return nullptr;
  }
  *problem = OpenProblem::kNone;
  guard->Adopt(std::unique_ptr<leveldb::DB>(db));
  return guard;
}

std::vector<std::string> DamagedTables(const std::string& path) {
  std::vector<std::string> damaged;
  std::set<std::string> names;
  if (!ListDatabaseFiles(path, &names)) return damaged;
  leveldb::Env* env = leveldb::Env::Default();
  for (const std::string& name : names) {
    if (!IsTable(name)) continue;
    const std::string file = path + "/" + name;
    uint64_t size = 0;
    leveldb::RandomAccessFile* raw = nullptr;
    if (!env->GetFileSize(file, &size).ok() || !env->NewRandomAccessFile(file, &raw).ok()) {
      continue;
    }
    std::unique_ptr<leveldb::RandomAccessFile> readable(raw);
    leveldb::Options options;
    options.paranoid_checks = true;
    leveldb::Table* opened = nullptr;
    leveldb::Status status = leveldb::Table::Open(options, readable.get(), size, &opened);
    std::unique_ptr<leveldb::Table> table(opened);
    if (status.ok()) {
      leveldb::ReadOptions read;
      read.verify_checksums = true;
      read.fill_cache = false;
      std::unique_ptr<leveldb::Iterator> it(table->NewIterator(read));
      for (it->SeekToFirst(); it->Valid(); it->Next()) {
      }
      status = it->status();
    }
    if (!status.ok()) damaged.push_back(file + ": " + status.ToString());
  }
  return damaged;
}

bool BackUpDirectory(const std::string& from, const std::string& to, std::string* error) {
  if (mkdir(to.c_str(), 0755) != 0) {
    *error = "cannot make " + to + ": " + std::strerror(errno);
    return false;
  }
  DIR* dir = opendir(from.c_str());
  if (dir == nullptr) {
    *error = "cannot list " + from + ": " + std::strerror(errno);
    return false;
  }
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    struct stat info;
    if (name == "LOCK" || stat((from + "/" + name).c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
      continue;
    }
    names.push_back(name);
  }
  closedir(dir);
  for (const std::string& name : names) {
    const Step step = IsTable(name) ? LinkOrCopyFile(from + "/" + name, to + "/" + name, error)
                                    : CopyFile(from + "/" + name, to + "/" + name, error);
    if (step == Step::kFailed) return false;
  }
  return true;
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

leveldb::Status WalkWithProgress(
    leveldb::DB* db, const std::string& label,
    const std::function<bool(const leveldb::Slice&, const leveldb::Slice&)>& visit) {
  std::string first_key;
  std::string last_key;
  {
    std::unique_ptr<leveldb::Iterator> it(db->NewIterator(leveldb::ReadOptions()));
    it->SeekToFirst();
    if (it->Valid()) first_key = it->key().ToString();
    it->SeekToLast();
    if (it->Valid()) last_key = it->key().ToString();
  }
  uint64_t total = 0;
  const leveldb::Range whole(first_key, last_key);
  db->GetApproximateSizes(&whole, 1, &total);
  ProgressBar progress(label, total);
  uint64_t records = 0;
  const leveldb::Status status =
      Walk(db, "", [&](const leveldb::Slice& key, const leveldb::Slice& value) {
        if (++records % 1024 == 0) {
          const leveldb::Range range(first_key, key);
          uint64_t done = 0;
          db->GetApproximateSizes(&range, 1, &done);
          progress.Update(done);
        }
        return visit(key, value);
      });
  if (status.ok()) progress.Finish();
  return status;
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
  if (visible_ && drawn_percent_ >= 0 && !finished_) std::fprintf(stderr, "\r\033[K");
}

void ProgressBar::Finish() {
  if (!visible_ || finished_) return;
  drawn_percent_ = -1;
  Draw(100);
  std::fprintf(stderr, "\n");
  finished_ = true;
}

void ProgressBar::Update(uint64_t done) {
  if (!visible_ || finished_ || total_ == 0) return;
  Draw(static_cast<int>(std::min<uint64_t>(done, total_) * 100 / total_));
}

void ProgressBar::Draw(int percent) {
  if (percent == drawn_percent_) return;
  drawn_percent_ = percent;
  const int width = 30;
  const int filled = percent * width / 100;
  std::fprintf(stderr, "\r%s [%.*s%*s] %3d%%", label_.c_str(), filled,
               "##############################", width - filled, "", percent);
  std::fflush(stderr);
}

}  // namespace dravinholdctl
