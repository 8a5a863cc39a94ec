// Every committed input of every fuzz target, seeds and findings alike,
// through the target's own checks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/families_check.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/lru_index_check.h"
#include "fuzz/stored_records_check.h"
#include "support/temp_dir.h"

namespace {

using ::testing::IsEmpty;

std::vector<std::string> CorpusFiles(const std::string& target) {
  std::vector<std::string> files;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::string(DRAVINHOLD_FUZZ_CORPUS) + "/" + target)) {
    if (entry.is_regular_file()) files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

template <typename Check>
void ReplayAll(const std::string& target, const Check& check, size_t at_least) {
  const std::vector<std::string> files = CorpusFiles(target);
  EXPECT_GE(files.size(), at_least);
  for (const std::string& file : files) {
    const std::vector<uint8_t> input = fuzzing::ReadFileBytes(file);
    EXPECT_THAT(check(input.data(), input.size()), IsEmpty()) << file;
  }
}

TEST(CorpusReplayTest, StoredRecords) {
  testing_support::TempDir root;
  fuzzing::SetStoredRecordsRoot(root.path());
  ReplayAll("fuzz_stored_records", fuzzing::CheckStoredRecords, 28);
  fuzzing::CloseStoredRecordStores();
}

TEST(CorpusReplayTest, LruIndex) {
  testing_support::TempDir root;
  fuzzing::SetLruIndexRoot(root.path());
  ReplayAll("fuzz_lru_index", fuzzing::CheckLruIndex, 9);
  fuzzing::CloseLruIndexStore();
}

TEST(CorpusReplayTest, Families) {
  testing_support::TempDir root;
  setenv("ZERLA_DATA_ROOT", root.path().c_str(), 1);
  ReplayAll("fuzz_families", fuzzing::CheckFamilies, 7);
}

// The reference rule of the LRU index target itself.
TEST(CorpusReplayTest, ExpectedLruIndexRule) {
  EXPECT_EQ(fuzzing::ExpectedLruIndex("                  12"), 12u);
  EXPECT_EQ(fuzzing::ExpectedLruIndex(" 1 2 "), 12u);
  EXPECT_EQ(fuzzing::ExpectedLruIndex("                 1x2"), 0u);
  EXPECT_EQ(fuzzing::ExpectedLruIndex(std::string("\0", 1)), 0u);
  EXPECT_EQ(fuzzing::ExpectedLruIndex("18446744073709551615"), 18446744073709551615u);
  EXPECT_EQ(fuzzing::ExpectedLruIndex("18446744073709551616"), 0u);  // wraps
}

}  // namespace
