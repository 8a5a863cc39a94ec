// What the fault tests of the five plain stores share: each family's store
// class, records to prepare a directory with, a write big enough to fill the
// engine's write buffer, and the lines a reopen logs.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "nix/dravinhold/fvhash_store/fvhash_store_def.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store_def.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store_def.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache_def.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store_def.h"
#include "stores/families.h"
#include "stores/store_test_env.h"

namespace faults_testing {

using namespace stores_testing;  // NOLINT: the shared vocabulary of the store tests

// The singleton behind each family.
template <typename Family>
struct StoreOf;
template <>
struct StoreOf<FVhashFamily> {
  using type = persistence::FVhashStore;
};
template <>
struct StoreOf<TrustedSignersFamily> {
  using type = persistence::TrustedSignersStore;
};
template <>
struct StoreOf<TrustedSignersCacheFamily> {
  using type = persistence::TrustedSignersCacheStore;
};
template <>
struct StoreOf<GeneralPolicyFamily> {
  using type = persistence::GeneralSettingsPolicyStore;
};
template <>
struct StoreOf<ProcessPolicyFamily> {
  using type = persistence::ProcessSettingsPolicyStore;
};

constexpr size_t kMebibyte = size_t{1} << 20;

// One mebibyte of record, different for each "i" and "fill".
inline std::string Mebibyte(int i, char fill) {
  return std::string(kMebibyte, fill) + std::to_string(i);
}

// Five records of a mebibyte each: one write of them leaves the engine's
// write buffer (4 MiB) full, so that the next write needs a new log file.
template <typename Family>
typename Family::Data BigData();

template <>
inline FVhashFamily::Data BigData<FVhashFamily>() {
  FVhashFamily::Data data;
  for (int i = 0; i < 5; ++i) {
    auto* entry = data.add_entries();
    entry->set_key(Mebibyte(i, 'h'));
    entry->mutable_value()->set_verdict(true);
  }
  return data;
}

template <>
inline TrustedSignersFamily::Data BigData<TrustedSignersFamily>() {
  TrustedSignersFamily::Data data;
  for (int i = 0; i < 5; ++i) {
    auto* entry = data.add_entries();
    entry->set_key(TrustedSignersFamily::MakeKey(i));
    entry->mutable_value()->set_name(Mebibyte(i, 'n'));
  }
  return data;
}

template <>
inline TrustedSignersCacheFamily::Data BigData<TrustedSignersCacheFamily>() {
  TrustedSignersCacheFamily::Data data;
  for (int i = 0; i < 5; ++i) {
    auto* entry = data.add_entries();
    entry->set_key(TrustedSignersCacheFamily::MakeKey(i));
    entry->mutable_value()->set_certhash(Mebibyte(i, 'c'));
  }
  return data;
}

template <>
inline GeneralPolicyFamily::Data BigData<GeneralPolicyFamily>() {
  GeneralPolicyFamily::Data data;
  for (int i = 0; i < 5; ++i) {
    auto* entry = data.add_entries();
    *entry->mutable_key() = GeneralPolicyFamily::MakeKey(i);
    entry->mutable_value()->set_policy(Mebibyte(i, 'g'));
  }
  return data;
}

template <>
inline ProcessPolicyFamily::Data BigData<ProcessPolicyFamily>() {
  ProcessPolicyFamily::Data data;
  for (int i = 0; i < 5; ++i) {
    auto* entry = data.add_entries();
    *entry->mutable_key() = ProcessPolicyFamily::MakeKey(i);
    entry->mutable_value()->set_policy(Mebibyte(i, 'p'));
  }
  return data;
}

// Raw records 0 to "end" - 1 of a family, as the store keeps them on disk.
// With "padding" each value grows by that many bytes of a field the schema
// does not know (tag 15, varint 120), which parses back as the same value:
// the records then fill several blocks of a table.
template <typename Family>
std::vector<std::pair<std::string, std::string>> RawRecords(int end, size_t padding = 0) {
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < end; ++i) {
    records.emplace_back(KeyBytes(Family::MakeKey(i)),
                         Family::MakeValue(i).SerializeAsString() + std::string(padding, 'x'));
  }
  return records;
}

// Writes the records into a new database at "path", compacts them into its
// tables and closes it, so that a store can open it afterwards. The writes
// are not synchronous: the close is what makes them last.
inline void WriteTables(const std::string& path,
                        const std::vector<std::pair<std::string, std::string>>& records) {
  persistence::DB db(path);
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  for (const auto& [key, value] : records) ASSERT_TRUE(db.Put(key, value, false).ok());
  ASSERT_TRUE(db.Compact().ok());
  ASSERT_TRUE(db.Close().ok());
}

// Writes each record with a write of its own into a new database at "path"
// and closes it without compaction, so that all of them stay in its log.
// Returns the size of the log before the last record was written.
inline uint64_t WriteLoggedRecords(
    const std::string& path, const std::vector<std::pair<std::string, std::string>>& records) {
  persistence::DB db(path);
  EXPECT_TRUE(db.Open(true, true, false, 0).ok());
  const std::vector<std::string> logs = testing_support::FilesWithSuffix(path, ".log");
  EXPECT_EQ(logs.size(), 1u);
  uint64_t before_last = 0;
  for (const auto& [key, value] : records) {
    before_last = testing_support::FileSize(path + "/" + logs.at(0));
    EXPECT_TRUE(db.Put(key, value, false).ok());
  }
  EXPECT_TRUE(db.Close().ok());
  return before_last;
}

// The path of the one file of "dir" whose name ends with "suffix".
inline std::string OnlyFile(const std::string& dir, const std::string& suffix) {
  const std::vector<std::string> names = testing_support::FilesWithSuffix(dir, suffix);
  EXPECT_EQ(names.size(), 1u) << dir << " *" << suffix;
  return names.empty() ? std::string() : dir + "/" + names.front();
}

inline std::string CurrentManifest(const std::string& dir) {
  std::string name = testing_support::ReadFile(dir + "/CURRENT");
  if (!name.empty() && name.back() == '\n') name.pop_back();
  return dir + "/" + name;
}

// Where the records of an engine log file (a log or a MANIFEST) begin, for a
// file shorter than one block of 32 KiB: each has a header of 7 bytes whose
// bytes 4 and 5 hold the length of what follows.
inline std::vector<uint64_t> LogRecordStarts(const std::string& file) {
  const std::string bytes = testing_support::ReadFile(file);
  EXPECT_LT(bytes.size(), 32768u);
  std::vector<uint64_t> starts;
  for (uint64_t offset = 0; offset + 7 <= bytes.size();) {
    starts.push_back(offset);
    const uint64_t length = static_cast<unsigned char>(bytes[offset + 4]) |
                            static_cast<uint64_t>(static_cast<unsigned char>(bytes[offset + 5]))
                                << 8;
    offset += 7 + length;
  }
  return starts;
}

// The lines of a reopen that failed with "status", and of one that worked.
inline std::vector<Line> FailedReopenLines(const std::vector<Line>& open_lines, int code,
                                           const std::string& message) {
  std::vector<Line> lines{{kNotice, "Reopening the database..."}};
  lines.insert(lines.end(), open_lines.begin(), open_lines.end());
  lines.push_back({kCritical, "Database failed to recover with error " + std::to_string(code) +
                                  " (" + message + ")"});
  return lines;
}

inline std::vector<Line> ReopenedLines(const std::vector<Line>& open_lines = {}) {
  std::vector<Line> lines{{kNotice, "Reopening the database..."}};
  lines.insert(lines.end(), open_lines.begin(), open_lines.end());
  lines.push_back({kNotice, "Database reopened successfully!"});
  return lines;
}

}  // namespace faults_testing
