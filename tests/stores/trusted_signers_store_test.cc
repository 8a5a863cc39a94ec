// The trusted signers family: a whitelist replaced whole, keyed by the signer
// hash lower-cased, where presence is the answer of a check.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"
#include "stores/store_test_env.h"
#include "support/stderr_capture.h"

namespace stores_testing {
namespace {

using persistence::Status;
using persistence::trusted_signer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Value = proto::TrustedSignersStore::Value;
using Data = proto::TrustedSignersStore::Data;
// Key and name of each record.
using Records = std::vector<std::pair<std::string, std::string>>;

class TrustedSignersStoreTest : public StoreTest {
 protected:
  std::string path() const { return StorePath("trusted_signers_store"); }

  // Key and name of every record, in order.
  static Records Contents() {
    std::vector<std::string> keys;
    std::vector<Value> values;
    const Status status = persistence::TrustedSignersStore_Dump(&keys, &values);
    EXPECT_EQ(status.code, 0) << status.message;
    Records contents;
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i) {
      contents.emplace_back(keys[i], values[i].name());
    }
    return contents;
  }
};

TEST_F(TrustedSignersStoreTest, PutReplacesTheWholeListWithLowerCasedKeysAndNames) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"Old", "0ld"}}), 0);
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"Acme Corp", "AB12"}, {"Zed Ltd", "cd34"}}), 0);
  EXPECT_EQ(Contents(), (Records{{"ab12", "Acme Corp"}, {"cd34", "Zed Ltd"}}));
  EXPECT_TRUE(persistence::TrustedSignersStore_Check("ab12"));
  EXPECT_TRUE(persistence::TrustedSignersStore_Check("cd34"));
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("0ld"));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersStoreTest, PutOfAnEmptyListEmptiesTheStore) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"A", "aa"}}), 0);
  EXPECT_EQ(persistence::TrustedSignersStore_Put({}), 0);
  EXPECT_THAT(Contents(), IsEmpty());
  EXPECT_TRUE(persistence::TrustedSignersStore_Empty());
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersStoreTest, AtomicClearAndPutRefusesAnEmptyData) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"A", "aa"}}), 0);
  const Status status = persistence::TrustedSignersStore_AtomicClearAndPut(Data());
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Received empty keys or values vector");
  EXPECT_EQ(Contents(), (Records{{"aa", "A"}}));
}

TEST_F(TrustedSignersStoreTest, ElementWithAnEmptyHashIsSkippedWhateverItsName) {
  ASSERT_EQ(
      persistence::TrustedSignersStore_Put({{"Named", ""}, {"Kept", "k1"}, {"Also named", ""}}), 0);
  EXPECT_EQ(Contents(), (Records{{"k1", "Kept"}}));
}

TEST_F(TrustedSignersStoreTest, ElementWithAnEmptyNameIsStoredAndChecksTrue) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"", "NoName"}}), 0);
  EXPECT_EQ(Contents(), (Records{{"noname", ""}}));
  EXPECT_TRUE(persistence::TrustedSignersStore_Check("noname"));
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("NoName"));
}

TEST_F(TrustedSignersStoreTest, CheckUsesTheHashAsGiven) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"Upper", "FEED01"}}), 0);
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("FEED01"));
  EXPECT_TRUE(persistence::TrustedSignersStore_Check("feed01"));
  Value value;
  ASSERT_EQ(persistence::TrustedSignersStore_Get("feed01", &value).code, 0);
  EXPECT_EQ(value.name(), "Upper");
  EXPECT_EQ(persistence::TrustedSignersStore_Get("FEED01", &value).code, 3);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersStoreTest, HashesThatDifferOnlyInCaseShareOneKeyAndTheLaterNameStands) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"First", "AbCd"}, {"Second", "aBcD"}}), 0);
  EXPECT_EQ(Contents(), (Records{{"abcd", "Second"}}));
}

TEST_F(TrustedSignersStoreTest, AtomicClearAndPutDoesNotLowerCase) {
  Data data;
  auto* entry = data.add_entries();
  entry->set_key("UPPER");
  entry->mutable_value()->set_name("Kept as given");
  ASSERT_EQ(persistence::TrustedSignersStore_AtomicClearAndPut(data).code, 0);
  EXPECT_TRUE(persistence::TrustedSignersStore_Check("UPPER"));
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("upper"));
}

TEST_F(TrustedSignersStoreTest, ClearEmptiesTheStore) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"A", "aa"}, {"B", "bb"}}), 0);
  EXPECT_FALSE(persistence::TrustedSignersStore_Empty());
  EXPECT_EQ(persistence::TrustedSignersStore_Clear(), 0);
  EXPECT_THAT(Contents(), IsEmpty());
  EXPECT_TRUE(persistence::TrustedSignersStore_Empty());
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("aa"));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TrustedSignersStoreTest, UnreadableStoreFailsEachFunctionWithOneLinePerCall) {
  BlockStoreDirectory("trusted_signers_store");
  EXPECT_TRUE(persistence::TrustedSignersStore_Empty());
  ASSERT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to open database '" + path() + "'."},
                {kError, OpenCheckLine("trusted_signers_store", 5, NotADirectoryText(path()))},
                {kError, "Failed to check if trusted signers whitelist is empty, err=5, msg="}}));
  log_.clear();

  EXPECT_TRUE(persistence::TrustedSignersStore_Empty());
  EXPECT_EQ(persistence::TrustedSignersStore_Put({{"A", "aa"}}), -5);
  EXPECT_EQ(persistence::TrustedSignersStore_Clear(), -5);
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("aa"));
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("aa"));
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to check if trusted signers whitelist is empty, err=5, msg="},
                {kError, "Failed to clear-and-set trusted signers whitelist, err=5, msg="},
                {kError, "Failed to clear trusted signers whitelist, err=5, msg="},
                {kError, "Failed to get entry from trusted signers whitelist, err=5, msg="},
                {kError, "Failed to get entry from trusted signers whitelist, err=5, msg="}}));
}

TEST_F(TrustedSignersStoreTest, FailedPutKeepsTheOldListAndLogsTheEngineText) {
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"Old", "old1"}}), 0);

  env.fail_writes = true;
  testing_support::StderrCapture quiet;  // the handle's own reports
  EXPECT_EQ(persistence::TrustedSignersStore_Put({{"New", "new1"}}), -5);
  EXPECT_EQ(persistence::TrustedSignersStore_Clear(), -5);
  quiet.Text();
  env.fail_writes = false;

  const std::string engine_text = "IO error: " + path() + "/000003.log: injected write failure";
  EXPECT_EQ(
      LogLines(),
      (std::vector<Line>{
          {kError, "Failed to clear-and-set trusted signers whitelist, err=5, msg=" + engine_text},
          {kError, "Failed to clear trusted signers whitelist, err=5, msg=" + engine_text}}));
  EXPECT_EQ(Contents(), (Records{{"old1", "Old"}}));
}

}  // namespace
}  // namespace stores_testing
