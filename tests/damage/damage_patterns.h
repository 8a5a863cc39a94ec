// The ways the damage campaign harms a database directory: what disks,
// crashes and people do to the files of a LevelDB directory.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace damage {

struct Pattern {
  const char* name;
  // Harms the database in "dir"; false with *why set when the directory
  // lacks what the pattern needs (no table, no log).
  bool (*apply)(const std::string& dir, std::mt19937_64& random, std::string* why);
};

// Every pattern, in the order the campaign's table shows them.
const std::vector<Pattern>& AllPatterns();

// The pattern named "name", or null.
const Pattern* FindPattern(const std::string& name);

}  // namespace damage
