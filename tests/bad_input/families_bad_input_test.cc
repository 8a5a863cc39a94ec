// Bad input to the functions of each plain family: null pointers, empty
// keys, keys with zero bytes inside, keys of a mebibyte, and values of 64
// MiB. Each call gets its documented result, and the records stored before
// it are all still there afterwards. The pointers that a family deliberately
// does not test end the process on the path that writes through them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "stores/families.h"
#include "stores/store_test_env.h"

namespace bad_input_testing {
namespace {

using namespace stores_testing;  // NOLINT: the shared vocabulary of the store tests
using ::testing::IsEmpty;

const std::string kZeros("ab\0cd\0", 6);
const std::string kMebibyteKey(size_t{1} << 20, 'k');
constexpr size_t k64MiB = size_t{64} << 20;

// "piece" repeated up to 64 MiB: built by whole copies, which stays quick
// under the sanitizers.
std::string Repeat64MiB(const std::string& piece) {
  std::string made;
  made.reserve(k64MiB);
  while (made.size() < k64MiB) made += piece;
  made.resize(k64MiB);
  return made;
}

// A blob of 64 MiB, the same at every call: any bytes, for a bytes field.
const std::string& HugeBlob() {
  static const std::string blob = Repeat64MiB(BinaryBlob(size_t{1} << 20));
  return blob;
}

// A text of 64 MiB, for a string field, which holds valid UTF-8 only.
const std::string& HugeText() {
  static const std::string text = Repeat64MiB("abcdefghijklmnopqrstuvwxyz0123456789");
  return text;
}

// The whole store of family "Family" as raw records.
template <typename Family>
std::vector<std::pair<std::string, std::string>> Contents() {
  std::vector<typename Family::Key> keys;
  std::vector<typename Family::Value> values;
  const Status status = Family::Dump(&keys, &values);
  EXPECT_EQ(status.code, 0) << status.message;
  std::vector<std::pair<std::string, std::string>> records;
  for (size_t i = 0; i < keys.size(); ++i) {
    records.emplace_back(KeyBytes(keys[i]), values[i].SerializeAsString());
  }
  return records;
}

class FamilyBadInputTest : public StoreTest {
 protected:
  FamilyBadInputTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// --- FVhash -----------------------------------------------------------------

class FVhashBadInputTest : public FamilyBadInputTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(persistence::FVhashStore_Put({{true, "aa01"}, {false, "aa02"}, {true, "aa03"}}), 0);
    before_ = Contents<FVhashFamily>();
    log_.clear();
  }
  std::vector<std::pair<std::string, std::string>> before_;
};

TEST_F(FVhashBadInputTest, EmptyHashFailsTheLookupsWithALine) {
  EXPECT_FALSE(persistence::FVhashStore_Check(""));
  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("", &verdict), 2);
  EXPECT_TRUE(verdict);
  const std::string line =
      "Failed to get entry from fvhash blacklist, err=2, msg=Invalid argument: key: empty";
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kError, line}, {kError, line}}));
  EXPECT_EQ(Contents<FVhashFamily>(), before_);
}

TEST_F(FVhashBadInputTest, GetVerdictWithANullVerdictIsFineWhenTheHashIsAbsent) {
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("absent", nullptr), 3);
  EXPECT_THAT(LogLines(), IsEmpty());
  EXPECT_EQ(Contents<FVhashFamily>(), before_);
}

// The verdict pointer is not tested: only the success path writes it.
TEST_F(FVhashBadInputTest, GetVerdictWithANullVerdictEndsTheProcessWhenTheHashIsListed) {
  EXPECT_DEATH(persistence::FVhashStore_GetVerdict("aa01", nullptr), "");
}

TEST_F(FVhashBadInputTest, PutSkipsEmptyHashesAndKeepsZeroBytesAndLongHashes) {
  const std::string long_hash = std::string(size_t{1} << 20, 'H');
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "AA01"},
                                          {true, ""},
                                          {false, "aa02"},
                                          {true, "aa03"},
                                          {true, std::string("AB\0CD\0x", 7)},
                                          {true, long_hash}}),
            0);
  EXPECT_TRUE(persistence::FVhashStore_Check(std::string("ab\0cd\0x", 7)));
  EXPECT_FALSE(persistence::FVhashStore_Check("ab"));
  EXPECT_TRUE(persistence::FVhashStore_Check(std::string(size_t{1} << 20, 'h')));
  auto expected = before_;
  expected.emplace_back(std::string("ab\0cd\0x", 7), "\x08\x01");
  expected.emplace_back(std::string(size_t{1} << 20, 'h'), "\x08\x01");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Contents<FVhashFamily>(), expected);
  EXPECT_THAT(LogLines(), IsEmpty());
}

// --- Trusted signers -----------------------------------------------------------

class TrustedSignersBadInputTest : public FamilyBadInputTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(persistence::TrustedSignersStore_Put({{"One", "bb01"}, {"Two", "bb02"}}), 0);
    before_ = Contents<TrustedSignersFamily>();
    log_.clear();
  }
  std::vector<std::pair<std::string, std::string>> before_;
};

TEST_F(TrustedSignersBadInputTest, EmptyHashFailsTheCheckWithALine) {
  EXPECT_FALSE(persistence::TrustedSignersStore_Check(""));
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError,
                                "Failed to get entry from trusted signers whitelist, err=2, "
                                "msg=Invalid argument: key: empty"}}));
  EXPECT_EQ(Contents<TrustedSignersFamily>(), before_);
}

TEST_F(TrustedSignersBadInputTest, NameOf64MiBAndOddHashesAreStoredWhole) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"One", "bb01"},
                                                  {"Two", "bb02"},
                                                  {"no hash", ""},
                                                  {"zeros", kZeros},
                                                  {"long", kMebibyteKey},
                                                  {HugeText(), "bb03"}}),
            0);
  EXPECT_TRUE(persistence::TrustedSignersStore_Check(kZeros));
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("ab"));
  EXPECT_TRUE(persistence::TrustedSignersStore_Check(kMebibyteKey));
  proto::TrustedSignersStore::Value value;
  ASSERT_EQ(persistence::TrustedSignersStore_Get("bb03", &value).code, 0);
  EXPECT_TRUE(value.name() == HugeText());
  unsigned long count = 0;
  ASSERT_EQ(persistence::TrustedSignersStore_Count(&count).code, 0);
  EXPECT_EQ(count, 5u);
  EXPECT_THAT(LogLines(), IsEmpty());
}

// A name is a string field: bytes that are no valid UTF-8 do not encode, and
// the whole list is refused.
TEST_F(TrustedSignersBadInputTest, NameThatIsNoTextIsRefusedWithTheWholeList) {
  EXPECT_EQ(persistence::TrustedSignersStore_Put({{"Three", "bb03"}, {BinaryBlob(1000), "bb04"}}),
            -5);
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError,
                                "Failed to clear-and-set trusted signers whitelist, err=1, "
                                "msg=Not implemented: put_values: Failed serializing values"}}));
  EXPECT_EQ(Contents<TrustedSignersFamily>(), before_);
}

// --- Trusted signers cache -----------------------------------------------------

class TrustedSignersCacheBadInputTest : public FamilyBadInputTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(
        persistence::trusted_signers_cache_set_trusted_signers({{"k1", "c1"}, {"k2", "c2"}}));
    before_ = Contents<TrustedSignersCacheFamily>();
    log_.clear();
  }
  std::vector<std::pair<std::string, std::string>> before_;
};

TEST_F(TrustedSignersCacheBadInputTest, EmptyKeyFailsTheWholeSetAndTheGetWithALine) {
  EXPECT_FALSE(persistence::trusted_signers_cache_set_trusted_signer("", "c"));
  EXPECT_FALSE(persistence::trusted_signers_cache_set_trusted_signers({{"k3", "c3"}, {"", "c"}}));
  std::string certhash = "before";
  EXPECT_FALSE(persistence::trusted_signers_cache_get_trusted_signer("", &certhash));
  EXPECT_EQ(certhash, "before");
  const std::string set_line =
      "Failed to put trusted_signers_cache entry, err=2, msg=Invalid argument: put_key: empty";
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError, set_line},
                               {kError, set_line},
                               {kError,
                                "Failed to get trusted_signers_cache entry, err=2, msg=Invalid "
                                "argument: key: empty"}}));
  EXPECT_EQ(Contents<TrustedSignersCacheFamily>(), before_);
}

TEST_F(TrustedSignersCacheBadInputTest, KeysWithZeroBytesAndOfAMebibyteAreKeysOfTheirOwn) {
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signers(
      {{kZeros, "zeros"}, {kMebibyteKey, "long"}}));
  std::string certhash;
  EXPECT_TRUE(persistence::trusted_signers_cache_get_trusted_signer(kZeros, &certhash));
  EXPECT_EQ(certhash, "zeros");
  EXPECT_TRUE(persistence::trusted_signers_cache_get_trusted_signer(kMebibyteKey, &certhash));
  EXPECT_EQ(certhash, "long");
  EXPECT_FALSE(persistence::trusted_signers_cache_get_trusted_signer("ab", &certhash));
  EXPECT_EQ(Contents<TrustedSignersCacheFamily>().size(), 4u);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersCacheBadInputTest, GetWithANullCerthashIsFineWhenTheKeyIsAbsent) {
  EXPECT_FALSE(persistence::trusted_signers_cache_get_trusted_signer("absent", nullptr));
  EXPECT_THAT(LogLines(), IsEmpty());
  EXPECT_EQ(Contents<TrustedSignersCacheFamily>(), before_);
}

// The certhash pointer is not tested: a found entry is written through it.
TEST_F(TrustedSignersCacheBadInputTest, GetWithANullCerthashEndsTheProcessWhenTheKeyIsFound) {
  EXPECT_DEATH(persistence::trusted_signers_cache_get_trusted_signer("k1", nullptr), "");
}

// --- General settings policy ---------------------------------------------------

class GeneralPolicyBadInputTest : public FamilyBadInputTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(persistence::general_settings_policy_set(1, "policy one"), 0);
    ASSERT_EQ(persistence::general_settings_policy_set(5, "policy five"), 0);
    before_ = Contents<GeneralPolicyFamily>();
    log_.clear();
  }
  std::vector<std::pair<std::string, std::string>> before_;
};

TEST_F(GeneralPolicyBadInputTest, NullPolicyIsRefused) {
  EXPECT_EQ(persistence::general_settings_policy_get(1, nullptr), -22);
  EXPECT_THAT(LogLines(), IsEmpty());
  EXPECT_EQ(Contents<GeneralPolicyFamily>(), before_);
}

// The time pointer is not tested: it is written after every check.
TEST_F(GeneralPolicyBadInputTest, LoadedWithANullTimeEndsTheProcess) {
  EXPECT_DEATH(persistence::general_settings_policy_loaded(nullptr), "");
}

TEST_F(GeneralPolicyBadInputTest, SetBulkWithAKeyOfModuleZeroIsRefusedWhole) {
  proto::GeneralSettingsPolicyStore::Key good;
  good.set_module_id(7);
  proto::GeneralSettingsPolicyStore::Value value;
  value.set_policy("p");
  // Module id 0 encodes to no bytes at all: an empty key.
  EXPECT_EQ(persistence::general_settings_policy_set_bulk(
                {good, proto::GeneralSettingsPolicyStore::Key()}, {value, value}),
            2);
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kError,
                                            "Failed to clear-and-set bulk policy, error=2, "
                                            "messsage=Invalid argument: put_key: empty"}}));
  EXPECT_EQ(Contents<GeneralPolicyFamily>(), before_);
}

TEST_F(GeneralPolicyBadInputTest, PolicyOf64MiBIsStoredWhole) {
  ASSERT_EQ(persistence::general_settings_policy_set(7, HugeBlob()), 0);
  std::string policy;
  ASSERT_EQ(persistence::general_settings_policy_get(7, &policy), 0);
  EXPECT_TRUE(policy == HugeBlob());
  ASSERT_EQ(persistence::general_settings_policy_get(1, &policy), 0);
  EXPECT_EQ(policy, "policy one");
  EXPECT_EQ(Contents<GeneralPolicyFamily>().size(), 3u);
  EXPECT_THAT(LogLines(), IsEmpty());
}

// --- Process settings policy ---------------------------------------------------

class ProcessPolicyBadInputTest : public FamilyBadInputTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(persistence::process_settings_policy_set("init", 1, "policy one"), 0);
    ASSERT_EQ(persistence::process_settings_policy_set("sshd", 5, "policy five"), 0);
    before_ = Contents<ProcessPolicyFamily>();
    log_.clear();
  }
  std::vector<std::pair<std::string, std::string>> before_;
};

TEST_F(ProcessPolicyBadInputTest, NullPolicyIsRefused) {
  EXPECT_EQ(persistence::process_settings_policy_get("init", 1, nullptr), -22);
  EXPECT_THAT(LogLines(), IsEmpty());
  EXPECT_EQ(Contents<ProcessPolicyFamily>(), before_);
}

// The time pointer is not tested: it is written after every check.
TEST_F(ProcessPolicyBadInputTest, LoadedWithANullTimeEndsTheProcess) {
  EXPECT_DEATH(persistence::process_settings_policy_loaded(nullptr), "");
}

TEST_F(ProcessPolicyBadInputTest, EmptyFunctionThrowsAtTheFirstEntryAndChangesNothing) {
  EXPECT_THROW(persistence::process_settings_policy_for_each(nullptr), std::bad_function_call);
  EXPECT_THAT(LogLines(), IsEmpty());
  EXPECT_EQ(Contents<ProcessPolicyFamily>(), before_);
}

TEST_F(ProcessPolicyBadInputTest, OddProcessNamesAreKeysOfTheirOwn) {
  ASSERT_EQ(persistence::process_settings_policy_set("", 1, "no name"), 0);
  ASSERT_EQ(persistence::process_settings_policy_set(kZeros, 1, "zeros"), 0);
  ASSERT_EQ(persistence::process_settings_policy_set(kMebibyteKey, 1, "long"), 0);
  std::string policy;
  EXPECT_EQ(persistence::process_settings_policy_get("", 1, &policy), 0);
  EXPECT_EQ(policy, "no name");
  EXPECT_EQ(persistence::process_settings_policy_get(kZeros, 1, &policy), 0);
  EXPECT_EQ(policy, "zeros");
  EXPECT_EQ(persistence::process_settings_policy_get(kMebibyteKey, 1, &policy), 0);
  EXPECT_EQ(policy, "long");
  EXPECT_EQ(persistence::process_settings_policy_get("ab", 1, &policy), -61);
  EXPECT_EQ(Contents<ProcessPolicyFamily>().size(), 5u);
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kTrace, "Policy for process ab and module 1 not found"}}));
}

TEST_F(ProcessPolicyBadInputTest, SetBulkWithAnEmptyKeyIsRefusedWhole) {
  proto::ProcessSettingsPolicyStore::Key good;
  good.set_process_name("bash");
  good.set_module_id(7);
  proto::ProcessSettingsPolicyStore::Value value;
  value.set_policy("p");
  EXPECT_EQ(persistence::process_settings_policy_set_bulk(
                {good, proto::ProcessSettingsPolicyStore::Key()}, {value, value}),
            2);
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kError,
                                            "Failed to clear-and-set bulk policy, error=2, "
                                            "messsage=Invalid argument: put_key: empty"}}));
  EXPECT_EQ(Contents<ProcessPolicyFamily>(), before_);
}

TEST_F(ProcessPolicyBadInputTest, PolicyOf64MiBIsStoredWhole) {
  ASSERT_EQ(persistence::process_settings_policy_set("bash", 7, HugeBlob()), 0);
  std::string policy;
  ASSERT_EQ(persistence::process_settings_policy_get("bash", 7, &policy), 0);
  EXPECT_TRUE(policy == HugeBlob());
  ASSERT_EQ(persistence::process_settings_policy_get("init", 1, &policy), 0);
  EXPECT_EQ(policy, "policy one");
  EXPECT_EQ(Contents<ProcessPolicyFamily>().size(), 3u);
  EXPECT_THAT(LogLines(), IsEmpty());
}

}  // namespace
}  // namespace bad_input_testing
