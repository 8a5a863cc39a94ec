#include "damage_patterns.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace damage {
namespace {

namespace fs = std::filesystem;

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void Write(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
}

// The number of a LevelDB file name such as "000012.ldb", or 0.
uint64_t NumberOf(const std::string& name) { return std::strtoull(name.c_str(), nullptr, 10); }

std::vector<std::string> FilesEndingWith(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> files;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
    const std::string name = entry.path().filename().string();
    if (name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 &&
        entry.is_regular_file()) {
      files.push_back(entry.path().string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::string> Tables(const std::string& dir) {
  std::vector<std::string> tables = FilesEndingWith(dir, ".ldb");
  for (const std::string& sst : FilesEndingWith(dir, ".sst")) tables.push_back(sst);
  return tables;
}

bool LargestTable(const std::string& dir, std::string* table, std::string* why) {
  const std::vector<std::string> tables = Tables(dir);
  if (tables.empty()) {
    *why = "no table file";
    return false;
  }
  *table = *std::max_element(tables.begin(), tables.end(), [](const auto& a, const auto& b) {
    return fs::file_size(a) < fs::file_size(b);
  });
  return true;
}

bool RandomTable(const std::string& dir, std::mt19937_64& random, std::string* table,
                 std::string* why) {
  const std::vector<std::string> tables = Tables(dir);
  if (tables.empty()) {
    *why = "no table file";
    return false;
  }
  *table = tables[random() % tables.size()];
  return true;
}

// The live log: the one with the highest number.
bool LiveLog(const std::string& dir, std::string* log, std::string* why) {
  std::vector<std::string> logs = FilesEndingWith(dir, ".log");
  logs.erase(std::remove_if(logs.begin(), logs.end(),
                            [](const std::string& path) { return fs::file_size(path) == 0; }),
             logs.end());
  if (logs.empty()) {
    *why = "no log with records";
    return false;
  }
  *log = *std::max_element(logs.begin(), logs.end(), [](const auto& a, const auto& b) {
    return NumberOf(fs::path(a).filename().string()) < NumberOf(fs::path(b).filename().string());
  });
  return true;
}

void FlipSpread(const std::string& path, int count, std::mt19937_64& random) {
  std::string bytes = Read(path);
  if (bytes.empty()) return;
  for (int i = 0; i < count; ++i) bytes[random() % bytes.size()] ^= static_cast<char>(0xff);
  Write(path, bytes);
}

void ZeroBlock(const std::string& path, std::mt19937_64& random) {
  std::string bytes = Read(path);
  if (bytes.empty()) return;
  const size_t start = bytes.size() <= 4096 ? 0 : random() % (bytes.size() - 4096);
  std::fill(bytes.begin() + start, bytes.begin() + std::min(bytes.size(), start + 4096), '\0');
  Write(path, bytes);
}

bool Flip1Largest(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!LargestTable(dir, &table, why)) return false;
  FlipSpread(table, 1, random);
  return true;
}

bool Flip1Random(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!RandomTable(dir, random, &table, why)) return false;
  FlipSpread(table, 1, random);
  return true;
}

bool Flip64Largest(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!LargestTable(dir, &table, why)) return false;
  FlipSpread(table, 64, random);
  return true;
}

bool Flip64Random(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!RandomTable(dir, random, &table, why)) return false;
  FlipSpread(table, 64, random);
  return true;
}

bool Zero4kLargest(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!LargestTable(dir, &table, why)) return false;
  ZeroBlock(table, random);
  return true;
}

bool Zero4kRandom(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!RandomTable(dir, random, &table, why)) return false;
  ZeroBlock(table, random);
  return true;
}

bool LogFlip(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string log;
  if (!LiveLog(dir, &log, why)) return false;
  FlipSpread(log, 8, random);
  return true;
}

// A log is a run of 32 KiB blocks of records, each with a 7-byte header
// (checksum, length, type); a whole or first fragment starts with its write
// batch, whose first 8 bytes are the sequence number.
bool LogSequenceBit(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string log;
  if (!LiveLog(dir, &log, why)) return false;
  std::string bytes = Read(log);
  constexpr size_t kBlock = 32768, kHeader = 7;
  std::vector<size_t> sequences;
  size_t offset = 0;
  while (offset + kHeader <= bytes.size()) {
    const size_t left_in_block = kBlock - offset % kBlock;
    if (left_in_block < kHeader) {
      offset += left_in_block;
      continue;
    }
    const size_t length = static_cast<unsigned char>(bytes[offset + 4]) |
                          static_cast<size_t>(static_cast<unsigned char>(bytes[offset + 5])) << 8;
    const int type = static_cast<unsigned char>(bytes[offset + 6]);
    if (type == 0 && length == 0) break;
    if ((type == 1 || type == 2) && length >= 12 && offset + kHeader + 8 <= bytes.size()) {
      sequences.push_back(offset + kHeader);
    }
    offset += kHeader + length;
  }
  if (sequences.empty()) {
    *why = "no record in the log";
    return false;
  }
  const size_t at = sequences[random() % sequences.size()];
  // One of the low bytes, where a flip makes a plausible number.
  bytes[at + random() % 3] ^= static_cast<char>(1u << (random() % 8));
  Write(log, bytes);
  return true;
}

bool LogTruncate(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string log;
  if (!LiveLog(dir, &log, why)) return false;
  const uintmax_t size = fs::file_size(log);
  fs::resize_file(log, random() % size);
  return true;
}

bool TableTruncate(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!RandomTable(dir, random, &table, why)) return false;
  const uintmax_t size = fs::file_size(table);
  fs::resize_file(table, size / 4 + random() % (size / 2));
  return true;
}

bool TableDelete(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!RandomTable(dir, random, &table, why)) return false;
  fs::remove(table);
  return true;
}

bool Manifest(const std::string& dir, std::string* manifest, std::string* why) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
    if (entry.path().filename().string().rfind("MANIFEST-", 0) == 0) {
      *manifest = entry.path().string();
      return true;
    }
  }
  *why = "no MANIFEST";
  return false;
}

bool ManifestDelete(const std::string& dir, std::mt19937_64&, std::string* why) {
  std::string manifest;
  if (!Manifest(dir, &manifest, why)) return false;
  fs::remove(manifest);
  return true;
}

bool ManifestEmpty(const std::string& dir, std::mt19937_64&, std::string* why) {
  std::string manifest;
  if (!Manifest(dir, &manifest, why)) return false;
  fs::resize_file(manifest, 0);
  return true;
}

bool CurrentDelete(const std::string& dir, std::mt19937_64&, std::string* why) {
  if (!fs::remove(dir + "/CURRENT")) {
    *why = "no CURRENT";
    return false;
  }
  return true;
}

bool CurrentGarbage(const std::string& dir, std::mt19937_64& random, std::string*) {
  std::string garbage;
  for (int i = 0; i < 24; ++i) garbage.push_back(static_cast<char>(random() % 256));
  Write(dir + "/CURRENT", garbage + "\n");
  return true;
}

bool TableIsDirectory(const std::string& dir, std::mt19937_64& random, std::string* why) {
  std::string table;
  if (!RandomTable(dir, random, &table, why)) return false;
  fs::remove(table);
  fs::create_directory(table);
  return true;
}

bool StoreIsFile(const std::string& dir, std::mt19937_64&, std::string*) {
  fs::remove_all(dir);
  Write(dir, "not a database directory\n");
  return true;
}

bool GarbageTable(const std::string& dir, std::mt19937_64& random, std::string* why) {
  uint64_t highest = 0;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
    highest = std::max(highest, NumberOf(entry.path().filename().string()));
  }
  if (highest == 0) {
    *why = "no numbered file";
    return false;
  }
  std::string garbage;
  const size_t size = 1000 + random() % 30000;
  for (size_t i = 0; i < size; ++i) garbage.push_back(static_cast<char>(random() % 256));
  char name[32];
  std::snprintf(name, sizeof(name), "/%06llu.ldb", static_cast<unsigned long long>(highest + 7));
  Write(dir + name, garbage);
  return true;
}

}  // namespace

const std::vector<Pattern>& AllPatterns() {
  static const std::vector<Pattern> kPatterns = {
      {"flip1-largest", &Flip1Largest},
      {"flip1-random", &Flip1Random},
      {"flip64-largest", &Flip64Largest},
      {"flip64-random", &Flip64Random},
      {"zero4k-largest", &Zero4kLargest},
      {"zero4k-random", &Zero4kRandom},
      {"log-flip", &LogFlip},
      {"log-seqbit", &LogSequenceBit},
      {"log-truncate", &LogTruncate},
      {"table-truncate", &TableTruncate},
      {"table-delete", &TableDelete},
      {"manifest-delete", &ManifestDelete},
      {"manifest-empty", &ManifestEmpty},
      {"current-delete", &CurrentDelete},
      {"current-garbage", &CurrentGarbage},
      {"table-is-dir", &TableIsDirectory},
      {"store-is-file", &StoreIsFile},
      {"garbage-table", &GarbageTable},
  };
  return kPatterns;
}

const Pattern* FindPattern(const std::string& name) {
  for (const Pattern& pattern : AllPatterns()) {
    if (name == pattern.name) return &pattern;
  }
  return nullptr;
}

}  // namespace damage
