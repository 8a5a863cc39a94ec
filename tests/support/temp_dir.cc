#include "support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace testing_support {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dravinhold-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() { RemoveTree(path_); }

std::string TempDir::Sub(const std::string& name) const { return path_ + "/" + name; }

void RemoveTree(const std::string& path) {
  std::error_code ignored;
  std::filesystem::permissions(path, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ignored);
  std::filesystem::remove_all(path, ignored);
}

}  // namespace testing_support
