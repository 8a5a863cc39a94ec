#include "zerla_common/dir_size.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include <memory>

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

// Adds the allocated size of everything below "path" to *total. Returns 0 or
// a negative errno value.
int AddDirSize(const std::string& path, unsigned long* total) {
  std::unique_ptr<DIR, DirCloser> dir(opendir(path.c_str()));
  if (!dir) return -errno;
  errno = 0;
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string child = path + "/" + name;
    struct stat info;
    if (lstat(child.c_str(), &info) != 0) {
      if (errno == ENOENT) continue;  // removed while we walked: it takes no space
      return -errno;
    }
    if (S_ISDIR(info.st_mode)) {
      const int result = AddDirSize(child, total);
      if (result != 0) return result;
    } else {
      *total += static_cast<unsigned long>(info.st_blocks) * 512UL;
    }
    errno = 0;
  }
  return errno == 0 ? 0 : -errno;
}

}  // namespace

int GetDirSizeOnDisk(const std::string& path, unsigned long* size) {
  if (size == nullptr) return -EINVAL;
  unsigned long total = 0;
  const int result = AddDirSize(path, &total);
  if (result != 0) return result;
  *size = total;
  return 0;
}
