// Bad input to the enrichment family: null out-parameters, empty keys, keys
// with zero bytes inside, keys of a mebibyte and values of 64 MiB, through
// the silent functions and the entry functions. Each call gets its status,
// and the entries stored before it are all still there afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"
#include "stores/store_test_env.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace bad_input_testing {
namespace {

using persistence::EnrichmentStoreEx;
using persistence::Status;
using stores_testing::kDebug;
using stores_testing::kError;
using stores_testing::kTrace;
using stores_testing::Line;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using Value = proto::EnrichmentStore::Value;

const std::string kZeros("ab\0cd\0", 6);
const std::string kMebibyteKey(size_t{1} << 20, 'k');

Value Record(int i) {
  Value value;
  value.set_image_path("/usr/bin/tool-" + std::to_string(i));
  value.set_sha256("sha-" + std::to_string(i));
  value.set_sa_score(i);
  return value;
}

// The main store's entries, read past the order of use, as raw records.
std::map<std::string, std::string> Entries() {
  std::vector<std::string> keys;
  std::vector<Value> values;
  const Status status =
      EnrichmentStoreEx::Instance().Dump(&keys, &values, static_cast<const void*>(nullptr));
  EXPECT_EQ(status.code, 0) << status.message;
  std::map<std::string, std::string> entries;
  for (size_t i = 0; i < keys.size(); ++i) entries[keys[i]] = values[i].SerializeAsString();
  return entries;
}

// The rate-limited check line of the LRU store for "condition".
std::string CheckLine(const std::string& condition, const std::string& message) {
  return "Line [0-9]+ @ persistence/persistent_lru_store\\.h \\*\\*\\* Assertion '\\(\\(" +
         condition + "\\)\\)' failed \\*\\*\\* " + message;
}

// The store's threads stopped, and three entries put: every call runs on the
// test's thread alone. The test
// clock's steady time stands past the 600 s in which checks are silent.
class EnrichmentBadInputTest : public ::testing::Test {
 protected:
  EnrichmentBadInputTest() {
    setenv("ZERLA_DATA_ROOT", root_.path().c_str(), 1);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }

  void SetUp() override {
    // The sync thread makes its first validity check on the empty store and
    // ends with Stop().
    EnrichmentStoreEx::Instance().Stop();
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(persistence::EnrichmentStore_Put("hash" + std::to_string(i), Record(i)).code, 0);
    }
    entries_ = Entries();
    ASSERT_EQ(entries_.size(), 3u);
    log_.clear();
  }

  void TearDown() override { EXPECT_EQ(Entries(), entries_); }

  std::vector<Line> LogLines() const { return stores_testing::Lines(log_); }

  testing_support::TempDir root_;
  testing_support::TestClock clock_;
  testing_support::LogCapture log_{"Enrichment"};
  std::map<std::string, std::string> entries_;
};

TEST_F(EnrichmentBadInputTest, NullOutParametersAreCode2WithTheTextInTheLogAlone) {
  Status status = persistence::EnrichmentStore_Get("hash1", nullptr);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "");
  std::vector<std::string> keys{"stale"};
  status = persistence::EnrichmentStore_Get(std::vector<std::string>{"hash1"}, nullptr);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "");
  std::vector<Value> values{Record(9)};
  status = persistence::EnrichmentStore_Dump(nullptr, &values);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(values.size(), 1u);
  status = persistence::EnrichmentStore_Dump(&keys, nullptr);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(keys, std::vector<std::string>{"stale"});
  status = persistence::EnrichmentStore_GetEntry("hash1", nullptr);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "");
  // Each check site logs once; the second null value pointer is inside the
  // first one's ten minutes.
  EXPECT_THAT(
      LogLines(),
      ElementsAre(
          Pair(kError, MatchesRegex(CheckLine("value", "Invalid out parameter, value is NULL"))),
          Pair(kError, MatchesRegex(CheckLine("values", "Invalid out parameter, values is NULL"))),
          Pair(kError, MatchesRegex(CheckLine("keys", "Received nullptr keys parameter"))),
          Pair(kError, MatchesRegex(CheckLine("values", "Received nullptr values parameter"))),
          Line{kError, "Failed to get enrichment for file hash 'hash1', error=2, messsage="}));
}

TEST_F(EnrichmentBadInputTest, EmptyKeyIsRefusedByTheHandleOnEveryPath) {
  Value value = Record(9);
  Status status = persistence::EnrichmentStore_Get("", &value);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Invalid argument: key: empty");
  EXPECT_EQ(value.ByteSizeLong(), 0u);
  std::vector<Value> values{Record(9)};
  status = persistence::EnrichmentStore_Get(std::vector<std::string>{"hash1", ""}, &values);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Invalid argument: key: empty");
  EXPECT_THAT(values, IsEmpty());
  status = persistence::EnrichmentStore_Put("", Record(9));
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Invalid argument: key: empty");
  status = persistence::EnrichmentStore_Delete("");
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Invalid argument: key: empty");
  const std::string empty = "error=2, message=Invalid argument: key: empty";
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kTrace, "Failed to get entry, " + empty},
                                           {kDebug, "Failed to get the values list, " + empty},
                                           {kError, "Failed to update entry, " + empty},
                                           {kError, "Failed to get entry, " + empty}}));

  log_.clear();
  const std::string messsage = "error=2, messsage=Invalid argument: key: empty";
  EXPECT_EQ(persistence::EnrichmentStore_GetEntry("", &value).code, 2);
  EXPECT_EQ(persistence::EnrichmentStore_PutEntry("", Record(9)).code, 2);
  EXPECT_EQ(persistence::EnrichmentStore_DeleteEntry("").code, 2);
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{
                {kTrace, "Failed to get entry, " + empty},
                {kError, "Failed to get enrichment for file hash '', " + messsage},
                {kError, "Failed to update entry, " + empty},
                {kError, "Failed to put enrichment for file hash '', " + messsage},
                {kError, "Failed to get entry, " + empty},
                {kError, "Failed to delete enrichment entry for file hash '', " + messsage}}));
}

TEST_F(EnrichmentBadInputTest, EmptyListOfKeysReadsNothing) {
  std::vector<Value> values{Record(9)};
  const Status status = persistence::EnrichmentStore_Get(std::vector<std::string>{}, &values);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(EnrichmentBadInputTest, KeysWithZeroBytesAndOfAMebibyteAreKeysOfTheirOwn) {
  ASSERT_EQ(persistence::EnrichmentStore_PutEntry(kZeros, Record(7)).code, 0);
  ASSERT_EQ(persistence::EnrichmentStore_PutEntry(kMebibyteKey, Record(8)).code, 0);
  Value value;
  ASSERT_EQ(persistence::EnrichmentStore_GetEntry(kZeros, &value).code, 0);
  EXPECT_EQ(value.image_path(), Record(7).image_path());
  ASSERT_EQ(persistence::EnrichmentStore_GetEntry(kMebibyteKey, &value).code, 0);
  EXPECT_EQ(value.image_path(), Record(8).image_path());
  EXPECT_EQ(persistence::EnrichmentStore_GetEntry("ab", &value).code, 3);
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kTrace, "Failed to get entry, error=3, message=NotFound: "},
                               {kDebug, "enrichment entry for file hash 'ab' not found"}}));
  ASSERT_EQ(persistence::EnrichmentStore_DeleteEntry(kZeros).code, 0);
  ASSERT_EQ(persistence::EnrichmentStore_DeleteEntry(kMebibyteKey).code, 0);
}

TEST_F(EnrichmentBadInputTest, ValueOf64MiBIsStoredWhole) {
  Value huge = Record(7);
  // Built by whole copies, which stays quick under the sanitizers.
  std::string text;
  while (text.size() < (size_t{64} << 20)) text += "abcdefghijklmnopqrstuvwxyz0123456789";
  text.resize(size_t{64} << 20);
  huge.set_image_path(text);
  ASSERT_EQ(persistence::EnrichmentStore_PutEntry("huge", huge).code, 0);
  Value value;
  ASSERT_EQ(persistence::EnrichmentStore_GetEntry("huge", &value).code, 0);
  EXPECT_TRUE(value.image_path() == huge.image_path());
  EXPECT_EQ(value.lru_data().index(), 4u);
  EXPECT_THAT(LogLines(), IsEmpty());
  ASSERT_EQ(persistence::EnrichmentStore_DeleteEntry("huge").code, 0);
}

// The image path is a string field: bytes that are no valid UTF-8 do not
// encode, and nothing is written.
TEST_F(EnrichmentBadInputTest, ValueThatDoesNotEncodeIsRefused) {
  Value binary = Record(7);
  binary.set_image_path(stores_testing::BinaryBlob(1000));
  const Status status = persistence::EnrichmentStore_PutEntry("binary", binary);
  EXPECT_EQ(status.code, 1);
  EXPECT_EQ(status.message, "Not implemented: value: Failed serializing value");
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to update entry, error=1, message=" + status.message},
                {kError, "Failed to put enrichment for file hash 'binary', error=1, messsage=" +
                             status.message}}));
}

}  // namespace
}  // namespace bad_input_testing
