// Helpers shared by the tests of persistence::DB: a handle that shows its
// protected state, matchers for the lines the handle prints on standard
// error, and small routines that prepare real database directories.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "persistence/db.h"
#include "support/damage.h"

namespace db_test {

// A handle whose protected accessors are public.
class DBProbe : public persistence::DB {
 public:
  using DB::block_cache;
  using DB::corrupted;
  using DB::DB;
  using DB::filter_policy;
};

using Entries = std::vector<std::pair<std::string, std::string>>;

// The header of a failed check printed by persistence::DB:
//   Line <n> @ persistence/db.cc *** Assertion '((<condition>))' failed *** <message>
// The line number is matched as digits, everything else literally.
MATCHER_P2(IsCheckLine, condition, message,
           std::string("is the check line of '") + condition + "' with message \"" + message +
               "\"") {
  static const std::regex kShape("Line [0-9]+ (@ .*)");
  std::smatch match;
  const std::string line = arg;
  if (!std::regex_match(line, match, kShape)) return false;
  return match[1].str() == std::string("@ persistence/db.cc *** Assertion '((") + condition +
                               "))' failed *** " + message;
}

// The line printed after a failed engine call.
inline std::string ReportLine(const std::string& path, const std::string& operation,
                              const std::string& status_text) {
  return "persistence::DB: " + path + ": " + operation + ": " + status_text;
}

// The check that follows the report of a failed operation.
inline auto StatusOkCheck() { return IsCheckLine("status.ok()", "status.cond()"); }
// The same for a failed read, where NotFound is an ordinary result.
inline auto ReadStatusCheck() {
  return IsCheckLine("status.ok() || status.IsNotFound()", "status.cond1() || status.cond2()");
}
inline auto DbNullCheck() { return IsCheckLine("db_", "db_ is nullptr"); }
inline auto EmptyKeyCheck() { return IsCheckLine("!key.empty()", "!key.empty()"); }

inline bool Exists(const std::string& path) { return std::filesystem::exists(path); }

// Names of everything in "dir", sorted.
inline std::vector<std::string> DirectoryNames(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Writes "entries", one engine write each, into the database at "path"
// (created if missing) and closes it. They stay in the log file.
inline void WriteEntries(const std::string& path, const Entries& entries) {
  persistence::DB db(path);
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  for (const auto& entry : entries) ASSERT_TRUE(db.Put(entry.first, entry.second, false).ok());
  ASSERT_TRUE(db.Close().ok());
}

// Opens and closes the database: recovery turns what the log holds into a
// level-0 table file.
inline void FlushLogToTable(const std::string& path) {
  persistence::DB db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  ASSERT_TRUE(db.Close().ok());
}

// Writes "entries" and turns them into a table file of their own. Returns the
// name of the new table file.
inline std::string WriteTable(const std::string& path, const Entries& entries) {
  std::vector<std::string> before;
  if (Exists(path)) before = testing_support::FilesWithSuffix(path, ".ldb");
  WriteEntries(path, entries);
  FlushLogToTable(path);
  std::vector<std::string> after = testing_support::FilesWithSuffix(path, ".ldb");
  for (const std::string& name : after) {
    if (std::find(before.begin(), before.end(), name) == before.end()) return name;
  }
  ADD_FAILURE() << "no new table file in " << path;
  return "";
}

// Everything the database at "path" holds, read by a handle of its own opened
// without paranoid checks. The status of the open or the dump goes to
// "status".
inline Entries ReadAll(const std::string& path, leveldb::Status* status = nullptr) {
  persistence::DB db(path);
  leveldb::Status result = db.Open(false, false, false, 0);
  std::vector<std::string> keys;
  std::vector<std::string> values;
  if (result.ok()) result = db.Dump(&keys, &values, nullptr);
  if (status != nullptr) *status = result;
  Entries entries;
  for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
    entries.emplace_back(keys[i], values[i]);
  }
  return entries;
}

// The entries "<prefix><i>" -> "<value_prefix><i>" for i in [0, count), with
// i printed in "width" digits so that key order is numeric order.
inline Entries NumberedEntries(const std::string& prefix, const std::string& value_prefix,
                               int count, int width = 3) {
  Entries entries;
  for (int i = 0; i < count; ++i) {
    std::string number = std::to_string(i);
    number.insert(0, static_cast<size_t>(width) - std::min<size_t>(width, number.size()), '0');
    entries.emplace_back(prefix + number, value_prefix + number);
  }
  return entries;
}

inline std::vector<std::string> KeysOf(const Entries& entries) {
  std::vector<std::string> keys;
  for (const auto& entry : entries) keys.push_back(entry.first);
  return keys;
}

inline std::vector<std::string> ValuesOf(const Entries& entries) {
  std::vector<std::string> values;
  for (const auto& entry : entries) values.push_back(entry.second);
  return values;
}

}  // namespace db_test
