// The general settings policy family: one opaque policy blob per listed
// module id, the bulk replacement that takes any id, the loaded check, and
// what callers see of a store that fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "stores/store_test_env.h"
#include "support/stderr_capture.h"

namespace stores_testing {
namespace {

using persistence::Status;
using ::testing::IsEmpty;
using Key = proto::GeneralSettingsPolicyStore::Key;
using Value = proto::GeneralSettingsPolicyStore::Value;

// The modules a policy may be set for, in the library's order.
constexpr int32_t kListedModuleIds[] = {1,  321, 324, 277, 5,  309, 7,   294, 301, 316,
                                        11, 325, 311, 14,  15, 333, 334, 18,  19,  20,
                                        21, 22,  23,  24,  25, 26,  341, 28};

bool IsListed(int32_t id) {
  return std::find(std::begin(kListedModuleIds), std::end(kListedModuleIds), id) !=
         std::end(kListedModuleIds);
}

Key KeyOf(int32_t module_id) {
  Key key;
  key.set_module_id(module_id);
  return key;
}

Value ValueOf(const std::string& policy) {
  Value value;
  value.set_policy(policy);
  return value;
}

class GeneralPolicyTest : public StoreTest {
 protected:
  std::string path() const { return StorePath("general_settings_policy_store"); }

  static unsigned long StoredCount() {
    unsigned long count = 0;
    const Status status = persistence::GeneralSettingsPolicyStore_Count(&count);
    EXPECT_EQ(status.code, 0) << status.message;
    return count;
  }

  // The policy of "module_id", which must be there.
  static std::string Policy(int32_t module_id) {
    std::string policy = "not read";
    EXPECT_EQ(persistence::general_settings_policy_get(module_id, &policy), 0) << module_id;
    return policy;
  }
};

// --- Module ids -----------------------------------------------------------------

TEST_F(GeneralPolicyTest, ModuleTwoIsRefusedAndAbsentFromAnEmptyStore) {
  EXPECT_EQ(persistence::general_settings_policy_set(2, "policy"), -22);
  EXPECT_FALSE(PathExists(path()));
  std::string policy = "untouched";
  EXPECT_EQ(persistence::general_settings_policy_get(2, &policy), -61);
  EXPECT_EQ(policy, "untouched");
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kDebug, "GeneralSettingsPolicy for module 2 not found"}}));
}

TEST_F(GeneralPolicyTest, IdsOutsideTheListAreRefusedWithoutOpeningTheStore) {
  std::vector<int32_t> refused = {0, 29, INT32_MIN, INT32_MAX, -1, 1000};
  for (int32_t id = -3; id <= 400; ++id) {
    if (!IsListed(id)) refused.push_back(id);
  }
  ASSERT_EQ(refused.size(), 6u + 404u - 28u);
  for (const int32_t id : refused) {
    EXPECT_EQ(persistence::general_settings_policy_set(id, "policy"), -22) << id;
  }
  EXPECT_FALSE(PathExists(path()));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(GeneralPolicyTest, EveryListedIdIsAccepted) {
  for (const int32_t id : kListedModuleIds) {
    EXPECT_EQ(persistence::general_settings_policy_set(id, "policy " + std::to_string(id)), 0)
        << id;
  }
  EXPECT_EQ(StoredCount(), 28u);
  for (const int32_t id : kListedModuleIds) {
    EXPECT_EQ(Policy(id), "policy " + std::to_string(id));
  }
  EXPECT_THAT(LogLines(), IsEmpty());
}

// --- Set and get ----------------------------------------------------------------

TEST_F(GeneralPolicyTest, EmptyPolicyIsStoredAndIsNotTheSameAsNone) {
  EXPECT_EQ(persistence::general_settings_policy_set(5, ""), 0);
  std::string policy = "stale";
  EXPECT_EQ(persistence::general_settings_policy_get(5, &policy), 0);
  EXPECT_EQ(policy, "");
  EXPECT_EQ(persistence::general_settings_policy_get(7, &policy), -61);
  EXPECT_EQ(StoredCount(), 1u);
}

TEST_F(GeneralPolicyTest, SettingAModuleTwiceLeavesOneEntryWithTheLaterPolicy) {
  ASSERT_EQ(persistence::general_settings_policy_set(321, "first"), 0);
  ASSERT_EQ(persistence::general_settings_policy_set(321, "second"), 0);
  EXPECT_EQ(StoredCount(), 1u);
  EXPECT_EQ(Policy(321), "second");
}

TEST_F(GeneralPolicyTest, PolicyWithZeroBytesSurvivesUnchanged) {
  const std::string policy("\0head\0middle\0\0tail\0", 19);
  ASSERT_EQ(policy.size(), 19u);
  ASSERT_EQ(persistence::general_settings_policy_set(11, policy), 0);
  EXPECT_EQ(Policy(11), policy);
}

TEST_F(GeneralPolicyTest, PolicyOfEightMebibytesSurvivesUnchanged) {
  const std::string policy = BinaryBlob(8u << 20);
  ASSERT_EQ(persistence::general_settings_policy_set(341, policy), 0);
  const std::string read = Policy(341);
  EXPECT_EQ(read.size(), policy.size());
  EXPECT_TRUE(read == policy);
}

TEST_F(GeneralPolicyTest, GetRefusesANullPolicyWithoutOpeningTheStore) {
  EXPECT_EQ(persistence::general_settings_policy_get(1, nullptr), -22);
  EXPECT_EQ(persistence::general_settings_policy_get(2, nullptr), -22);
  EXPECT_FALSE(PathExists(path()));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(GeneralPolicyTest, ClearEmptiesTheStore) {
  ASSERT_EQ(persistence::general_settings_policy_set(1, "a"), 0);
  ASSERT_EQ(persistence::general_settings_policy_set(5, "b"), 0);
  EXPECT_EQ(persistence::general_settings_policy_clear(), 0);
  EXPECT_EQ(StoredCount(), 0u);
  std::string policy;
  EXPECT_EQ(persistence::general_settings_policy_get(1, &policy), -61);
}

// --- Bulk ---------------------------------------------------------------------------

TEST_F(GeneralPolicyTest, SetBulkStoresIdsOutsideTheListWhichSetThenCannotChange) {
  ASSERT_EQ(persistence::general_settings_policy_set(7, "replaced"), 0);
  EXPECT_EQ(persistence::general_settings_policy_set_bulk(
                {KeyOf(2), KeyOf(29), KeyOf(1000), KeyOf(321)},
                {ValueOf("two"), ValueOf("twenty-nine"), ValueOf("thousand"), ValueOf("listed")}),
            0);
  EXPECT_EQ(StoredCount(), 4u);
  EXPECT_EQ(Policy(2), "two");
  EXPECT_EQ(Policy(29), "twenty-nine");
  EXPECT_EQ(Policy(1000), "thousand");
  EXPECT_EQ(Policy(321), "listed");
  std::string policy;
  EXPECT_EQ(persistence::general_settings_policy_get(7, &policy), -61);

  EXPECT_EQ(persistence::general_settings_policy_set(2, "changed"), -22);
  EXPECT_EQ(Policy(2), "two");
}

TEST_F(GeneralPolicyTest, SetBulkOfTwoEmptyVectorsClearsTheStore) {
  ASSERT_EQ(persistence::general_settings_policy_set(1, "a"), 0);
  EXPECT_EQ(persistence::general_settings_policy_set_bulk({}, {}), 0);
  EXPECT_EQ(StoredCount(), 0u);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(GeneralPolicyTest, SetBulkReturnsTheStatusCodeOfAFailure) {
  ASSERT_EQ(persistence::general_settings_policy_set(1, "kept"), 0);
  testing_support::StderrCapture quiet;  // the handle's own report
  // Module 0 is the default key, stored as no bytes: the engine refuses it.
  EXPECT_EQ(persistence::general_settings_policy_set_bulk({KeyOf(5), KeyOf(0)},
                                                          {ValueOf("a"), ValueOf("b")}),
            2);
  quiet.Text();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kError,
                                            "Failed to clear-and-set bulk policy, error=2, "
                                            "messsage=Invalid argument: put_key: empty"}}));
  EXPECT_EQ(StoredCount(), 1u);
  EXPECT_EQ(Policy(1), "kept");
}

// --- Loaded -------------------------------------------------------------------------

TEST_F(GeneralPolicyTest, LoadedIsFalseOnAnEmptyStoreAndTrueAfterOneSet) {
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at.time_since_epoch(), clock_.steady());
  ASSERT_EQ(persistence::general_settings_policy_set(1, "a"), 0);
  clock_.Advance(std::chrono::seconds(5));
  EXPECT_TRUE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at.time_since_epoch(), clock_.steady());
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kDebug, "Policy DB status: is_empty: 1"},
                                           {kDebug, "Policy DB status: is_empty: 0"}}));
}

TEST_F(GeneralPolicyTest, LoadedRecordsTheTimeAfterTheCheck) {
  ASSERT_EQ(persistence::general_settings_policy_set(1, "a"), 0);
  CountingSteadyClock counting_clock;
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_TRUE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at, CountingSteadyClock::Last());
}

TEST_F(GeneralPolicyTest, LoadedIsFalseOnAFailingStoreAndRecordsTheTimeAfterTheCheck) {
  BlockStoreDirectory("general_settings_policy_store");
  CountingSteadyClock counting_clock;
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at, CountingSteadyClock::Last());
  // The failing check read the clock itself (its reopen test); the time of
  // the check is read after it.
  const auto first = checked_at;
  EXPECT_FALSE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at, CountingSteadyClock::Last());
  EXPECT_GE(checked_at - first, std::chrono::nanoseconds(2));

  const std::vector<Line> lines = LogLines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[2], Line(kError, "Failed to check if policy is empty, err=5, msg="));
  EXPECT_EQ(lines[3], Line(kError, "Failed to check if policy is empty, err=5, msg="));
}

// --- Failures -------------------------------------------------------------------

TEST_F(GeneralPolicyTest, UnreadableStoreFailsEachFunctionWithOneLinePerCall) {
  BlockStoreDirectory("general_settings_policy_store");
  EXPECT_EQ(persistence::general_settings_policy_set(1, "a"), -5);
  ASSERT_EQ(LogLines(), (std::vector<Line>{{kError, "Failed to open database '" + path() + "'."},
                                           {kError, OpenCheckLine("general_settings_policy_store",
                                                                  5, NotADirectoryText(path()))},
                                           {kError, "Failed to set policy, err=5, msg="}}));
  log_.clear();

  std::string policy = "untouched";
  EXPECT_EQ(persistence::general_settings_policy_get(321, &policy), -5);
  EXPECT_EQ(policy, "untouched");
  EXPECT_EQ(persistence::general_settings_policy_set_bulk({KeyOf(1)}, {ValueOf("a")}), 5);
  EXPECT_EQ(persistence::general_settings_policy_clear(), -5);
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at.time_since_epoch(), clock_.steady());
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to get GeneralSettingsPolicy for module 321, err=5, msg="},
                {kError, "Failed to clear-and-set bulk policy, error=5, messsage="},
                {kError, "Failed to clear policy, err=5, msg="},
                {kError, "Failed to check if policy is empty, err=5, msg="}}));
}

TEST_F(GeneralPolicyTest, FailedWritesLogTheEngineTextAndKeepThePolicy) {
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  ASSERT_EQ(persistence::general_settings_policy_set(1, "kept"), 0);

  env.fail_writes = true;
  testing_support::StderrCapture quiet;  // the handle's own reports
  EXPECT_EQ(persistence::general_settings_policy_set(1, "lost"), -5);
  EXPECT_EQ(persistence::general_settings_policy_clear(), -5);
  quiet.Text();
  env.fail_writes = false;

  const std::string engine_text = "IO error: " + path() + "/000003.log: injected write failure";
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError, "Failed to set policy, err=5, msg=" + engine_text},
                               {kError, "Failed to clear policy, err=5, msg=" + engine_text}}));
  EXPECT_EQ(Policy(1), "kept");
}

}  // namespace
}  // namespace stores_testing
