#include "support/damage.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testing_support {

std::vector<std::string> FilesWithSuffix(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string FileWithPrefix(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names.empty() ? std::string() : names.front();
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

void WriteFile(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << contents;
}

uint64_t FileSize(const std::string& path) { return std::filesystem::file_size(path); }

void FlipBytes(const std::string& path, uint64_t offset, uint64_t count) {
  std::string contents = ReadFile(path);
  for (uint64_t i = offset; i < offset + count && i < contents.size(); ++i) {
    contents[i] = static_cast<char>(~contents[i]);
  }
  WriteFile(path, contents);
}

void TruncateFile(const std::string& path, uint64_t size) {
  if (truncate(path.c_str(), static_cast<off_t>(size)) != 0) {
    throw std::runtime_error("cannot truncate " + path);
  }
}

int DamageTableFiles(const std::string& dir) {
  int damaged = 0;
  for (const std::string& name : FilesWithSuffix(dir, ".ldb")) {
    const std::string path = dir + "/" + name;
    const uint64_t size = FileSize(path);
    FlipBytes(path, size / 4, 16);
    ++damaged;
  }
  return damaged;
}

}  // namespace testing_support
