// Damage done to real database directories, the way disks and people do it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

// Names (not paths) of the files in "dir" that end with "suffix", sorted.
std::vector<std::string> FilesWithSuffix(const std::string& dir, const std::string& suffix);
// Name of the first file in "dir" that starts with "prefix", or "".
std::string FileWithPrefix(const std::string& dir, const std::string& prefix);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& contents);
uint64_t FileSize(const std::string& path);

// Inverts "count" bytes of the file from "offset" on (clipped to its end).
void FlipBytes(const std::string& path, uint64_t offset, uint64_t count);
void TruncateFile(const std::string& path, uint64_t size);

// Flips bytes in the middle of every table file of the database in "dir",
// so that reading its blocks fails checksum verification. Returns the number
// of files damaged.
int DamageTableFiles(const std::string& dir);

}  // namespace testing_support
