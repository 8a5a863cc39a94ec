#include "engine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "zerla_common/dir_size.h"

namespace dravinholdctl {

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
  leveldb::Options options;
  options.create_if_missing = false;
  options.paranoid_checks = paranoid_checks;
  leveldb::DB* db = nullptr;
  const leveldb::Status status = leveldb::DB::Open(options, path, &db);
  if (!status.ok()) {
    *error = "cannot open " + path + ": " + status.ToString();
    return nullptr;
  }
  return std::unique_ptr<leveldb::DB>(db);
}

leveldb::Status Walk(
    leveldb::DB* db, const std::string& start, bool verify,
    const std::function<bool(const leveldb::Slice&, const leveldb::Slice&)>& visit) {
  leveldb::ReadOptions options;
  options.verify_checksums = verify;
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
  return it->status();
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
