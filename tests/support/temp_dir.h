// A fresh directory under $TMPDIR (or /tmp), removed with everything in it at
// scope end.
#pragma once

#include <string>

namespace testing_support {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string Sub(const std::string& name) const;

 private:
  std::string path_;
};

// Removes "path" and everything under it; a missing path is no error.
void RemoveTree(const std::string& path);

}  // namespace testing_support
