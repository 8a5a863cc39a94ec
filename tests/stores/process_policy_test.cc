// The process settings policy family: one opaque policy blob per process
// name and listed module id, names normalised on the way through set and
// get, the walk over all policies, the bulk replacement that takes keys as
// they are, the loaded check, and what callers see of a store that fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <functional>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "stores/store_test_env.h"
#include "support/stderr_capture.h"

namespace stores_testing {
namespace {

using persistence::Status;
using ::testing::IsEmpty;
using Key = proto::ProcessSettingsPolicyStore::Key;
using Value = proto::ProcessSettingsPolicyStore::Value;
// Process name, module id and policy, as the walk reports them.
using Policy = std::tuple<std::string, int, std::string>;

// The modules a policy may be set for, in the library's order.
constexpr int32_t kListedModuleIds[] = {1,  321, 324, 277, 5,  309, 7,   294, 301, 316,
                                        11, 325, 311, 14,  15, 333, 334, 18,  19,  20,
                                        21, 22,  23,  24,  25, 26,  341, 28};

bool IsListed(int32_t id) {
  return std::find(std::begin(kListedModuleIds), std::end(kListedModuleIds), id) !=
         std::end(kListedModuleIds);
}

Key KeyOf(const std::string& process_name, int32_t module_id) {
  Key key;
  key.set_process_name(process_name);
  key.set_module_id(module_id);
  return key;
}

Value ValueOf(const std::string& policy) {
  Value value;
  value.set_policy(policy);
  return value;
}

class ProcessPolicyTest : public StoreTest {
 protected:
  std::string path() const { return StorePath("process_settings_policy_store"); }

  static unsigned long StoredCount() {
    unsigned long count = 0;
    const Status status = persistence::ProcessSettingsPolicyStore_Count(&count);
    EXPECT_EQ(status.code, 0) << status.message;
    return count;
  }

  // The policy of the process and module, which must be there.
  static std::string PolicyOf(const std::string& process_name, int32_t module_id) {
    std::string policy = "not read";
    EXPECT_EQ(persistence::process_settings_policy_get(process_name, module_id, &policy), 0)
        << process_name << " " << module_id;
    return policy;
  }

  // Everything the walk reports, in its order; fails the test unless the
  // walk returns 0.
  static std::vector<Policy> Walk() {
    std::vector<Policy> seen;
    const int result = persistence::process_settings_policy_for_each(
        [&seen](const std::string& name, int module_id, const std::string& policy) {
          seen.emplace_back(name, module_id, policy);
        });
    EXPECT_EQ(result, 0);
    return seen;
  }
};

// --- Module ids and parameters -----------------------------------------------------

TEST_F(ProcessPolicyTest, ModulesTwoZeroAndTwentyNineAreRefusedAnd321Accepted) {
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 2, "policy"), -22);
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 0, "policy"), -22);
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 29, "policy"), -22);
  EXPECT_FALSE(PathExists(path()));
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 321, "policy"), 0);
  EXPECT_EQ(PolicyOf("proc", 321), "policy");
  EXPECT_EQ(StoredCount(), 1u);
}

TEST_F(ProcessPolicyTest, ModuleTwoIsAbsentFromAnEmptyStore) {
  std::string policy = "untouched";
  EXPECT_EQ(persistence::process_settings_policy_get("proc", 2, &policy), -61);
  EXPECT_EQ(policy, "untouched");
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kTrace, "Policy for process proc and module 2 not found"}}));
}

TEST_F(ProcessPolicyTest, IdsOutsideTheListAreRefusedWithoutOpeningTheStore) {
  std::vector<int32_t> refused = {0, 29, INT32_MIN, INT32_MAX, -1, 1000};
  for (int32_t id = -3; id <= 400; ++id) {
    if (!IsListed(id)) refused.push_back(id);
  }
  ASSERT_EQ(refused.size(), 6u + 404u - 28u);
  for (const int32_t id : refused) {
    EXPECT_EQ(persistence::process_settings_policy_set("proc", id, "policy"), -22) << id;
  }
  EXPECT_FALSE(PathExists(path()));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ProcessPolicyTest, EveryListedIdIsAccepted) {
  for (const int32_t id : kListedModuleIds) {
    EXPECT_EQ(persistence::process_settings_policy_set("proc", id, "p" + std::to_string(id)), 0)
        << id;
  }
  EXPECT_EQ(StoredCount(), 28u);
  for (const int32_t id : kListedModuleIds) {
    EXPECT_EQ(PolicyOf("proc", id), "p" + std::to_string(id));
  }
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ProcessPolicyTest, EmptyPolicyIsRefusedAfterTheModuleId) {
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 1, ""), -22);
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 2, ""), -22);
  EXPECT_FALSE(PathExists(path()));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ProcessPolicyTest, GetRefusesANullPolicyWithoutOpeningTheStore) {
  EXPECT_EQ(persistence::process_settings_policy_get("proc", 1, nullptr), -22);
  EXPECT_EQ(persistence::process_settings_policy_get("proc", 2, nullptr), -22);
  EXPECT_FALSE(PathExists(path()));
  EXPECT_THAT(LogLines(), IsEmpty());
}

// --- Set and get -----------------------------------------------------------------

TEST_F(ProcessPolicyTest, PolicyWithZeroBytesSurvivesUnchanged) {
  const std::string policy("\0head\0middle\0\0tail\0", 19);
  ASSERT_EQ(policy.size(), 19u);
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 11, policy), 0);
  EXPECT_EQ(PolicyOf("proc", 11), policy);
  EXPECT_EQ(Walk(), (std::vector<Policy>{{"proc", 11, policy}}));
}

TEST_F(ProcessPolicyTest, PolicyOfEightMebibytesSurvivesUnchanged) {
  const std::string policy = BinaryBlob(8u << 20);
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 341, policy), 0);
  const std::string read = PolicyOf("proc", 341);
  EXPECT_EQ(read.size(), policy.size());
  EXPECT_TRUE(read == policy);
}

TEST_F(ProcessPolicyTest, TwoSpellingsOfANameReachOneEntry) {
  ASSERT_EQ(persistence::process_settings_policy_set("  Chrome.EXE\t", 1, "first"), 0);
  EXPECT_EQ(PolicyOf("chrome.exe", 1), "first");
  ASSERT_EQ(persistence::process_settings_policy_set("CHROME.exe", 1, "second"), 0);
  EXPECT_EQ(StoredCount(), 1u);
  EXPECT_EQ(PolicyOf("  Chrome.EXE\t", 1), "second");
  // The same name under another module is another entry.
  ASSERT_EQ(persistence::process_settings_policy_set("chrome.exe", 5, "third"), 0);
  EXPECT_EQ(StoredCount(), 2u);
  EXPECT_EQ(PolicyOf("Chrome.exe", 1), "second");
}

TEST_F(ProcessPolicyTest, NotFoundLineNamesTheProcessAsGiven) {
  ASSERT_EQ(persistence::process_settings_policy_set("Other", 1, "policy"), 0);
  std::string policy;
  EXPECT_EQ(persistence::process_settings_policy_get(" Chrome.EXE ", 5, &policy), -61);
  EXPECT_EQ(
      LogLines(),
      (std::vector<Line>{{kTrace, "Policy for process  Chrome.EXE  and module 5 not found"}}));
}

TEST_F(ProcessPolicyTest, EmptyProcessNameIsStoredLikeAnyOther) {
  ASSERT_EQ(persistence::process_settings_policy_set("", 1, "nameless"), 0);
  EXPECT_EQ(PolicyOf("", 1), "nameless");
  EXPECT_EQ(PolicyOf(" \t ", 1), "nameless");
  EXPECT_EQ(Walk(), (std::vector<Policy>{{"", 1, "nameless"}}));
}

TEST_F(ProcessPolicyTest, SettingAKeyTwiceLeavesOneEntryWithTheLaterPolicy) {
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 7, "first"), 0);
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 7, "second"), 0);
  EXPECT_EQ(StoredCount(), 1u);
  EXPECT_EQ(PolicyOf("proc", 7), "second");
}

TEST_F(ProcessPolicyTest, ClearEmptiesTheStore) {
  ASSERT_EQ(persistence::process_settings_policy_set("a", 1, "x"), 0);
  ASSERT_EQ(persistence::process_settings_policy_set("b", 5, "y"), 0);
  EXPECT_EQ(persistence::process_settings_policy_clear(), 0);
  EXPECT_EQ(StoredCount(), 0u);
  std::string policy;
  EXPECT_EQ(persistence::process_settings_policy_get("a", 1, &policy), -61);
}

// --- The walk ------------------------------------------------------------------------

TEST_F(ProcessPolicyTest, ForEachReportsTheStoredNormalisedNamesInKeyOrder) {
  ASSERT_EQ(persistence::process_settings_policy_set("  Chrome.EXE ", 1, "chrome policy"), 0);
  ASSERT_EQ(persistence::process_settings_policy_set("BASH", 5, "bash policy"), 0);
  ASSERT_EQ(persistence::process_settings_policy_set("bash", 1, "bash one"), 0);
  // Keys sort by their wire form: the name's length comes before its text.
  EXPECT_EQ(Walk(), (std::vector<Policy>{{"bash", 1, "bash one"},
                                         {"bash", 5, "bash policy"},
                                         {"chrome.exe", 1, "chrome policy"}}));
  std::vector<Key> keys;
  std::vector<Value> values;
  ASSERT_EQ(persistence::ProcessSettingsPolicyStore_Dump(&keys, &values).code, 0);
  ASSERT_EQ(keys.size(), 3u);
  EXPECT_EQ(keys[2].process_name(), "chrome.exe");
  // A normal walk reports nothing, its size check included.
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ProcessPolicyTest, EmptyStoreIsNotLoadedAndItsWalkCallsNothing) {
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::process_settings_policy_loaded(&checked_at));
  int calls = 0;
  EXPECT_EQ(persistence::process_settings_policy_for_each(
                [&calls](const std::string&, int, const std::string&) { ++calls; }),
            0);
  EXPECT_EQ(calls, 0);
  // An empty function is never called either.
  EXPECT_EQ(persistence::process_settings_policy_for_each(nullptr), 0);
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kDebug, "Policy DB status: is_empty: 1"}}));
}

TEST_F(ProcessPolicyTest, ForEachWithAnEmptyFunctionThrowsAtTheFirstEntry) {
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 1, "policy"), 0);
  EXPECT_THROW(persistence::process_settings_policy_for_each(nullptr), std::bad_function_call);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ProcessPolicyTest, ForEachCallbackMayCallBackIntoTheFamily) {
  ASSERT_EQ(persistence::process_settings_policy_set("a", 1, "x"), 0);
  ASSERT_EQ(persistence::process_settings_policy_set("b", 1, "y"), 0);
  std::vector<std::string> read_back;
  const int result = persistence::process_settings_policy_for_each(
      [&read_back](const std::string& name, int module_id, const std::string&) {
        std::string policy;
        EXPECT_EQ(persistence::process_settings_policy_get(name, module_id, &policy), 0);
        read_back.push_back(policy);
        EXPECT_EQ(persistence::process_settings_policy_set(name, module_id, policy + "!"), 0);
      });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(read_back, (std::vector<std::string>{"x", "y"}));
  // The walk works on what it read first.
  EXPECT_EQ(Walk(), (std::vector<Policy>{{"a", 1, "x!"}, {"b", 1, "y!"}}));
}

// --- Bulk ---------------------------------------------------------------------------

TEST_F(ProcessPolicyTest, SetBulkTakesKeysAsTheyAre) {
  ASSERT_EQ(persistence::process_settings_policy_set("old", 1, "replaced"), 0);
  EXPECT_EQ(persistence::process_settings_policy_set_bulk(
                {KeyOf("Chrome", 1), KeyOf("bash", 2), KeyOf("bash", 1000)},
                {ValueOf("chrome"), ValueOf("two"), ValueOf("thousand")}),
            0);
  EXPECT_EQ(StoredCount(), 3u);
  std::string policy;
  // Get normalises "Chrome" to "chrome", which is not stored.
  EXPECT_EQ(persistence::process_settings_policy_get("Chrome", 1, &policy), -61);
  EXPECT_EQ(PolicyOf("bash", 2), "two");
  EXPECT_EQ(PolicyOf("BASH", 1000), "thousand");
  EXPECT_EQ(persistence::process_settings_policy_get("old", 1, &policy), -61);
  EXPECT_EQ(Walk(), (std::vector<Policy>{
                        {"bash", 2, "two"}, {"bash", 1000, "thousand"}, {"Chrome", 1, "chrome"}}));
  // Set still refuses an unlisted module.
  EXPECT_EQ(persistence::process_settings_policy_set("bash", 2, "changed"), -22);
  EXPECT_EQ(PolicyOf("bash", 2), "two");
}

TEST_F(ProcessPolicyTest, SetBulkOfTwoEmptyVectorsClearsTheStore) {
  ASSERT_EQ(persistence::process_settings_policy_set("a", 1, "x"), 0);
  EXPECT_EQ(persistence::process_settings_policy_set_bulk({}, {}), 0);
  EXPECT_EQ(StoredCount(), 0u);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ProcessPolicyTest, SetBulkOfVectorsOfDifferentSizesWritesThePairs) {
  EXPECT_EQ(
      persistence::process_settings_policy_set_bulk({KeyOf("a", 1), KeyOf("b", 1)}, {ValueOf("x")}),
      0);
  EXPECT_EQ(Walk(), (std::vector<Policy>{{"a", 1, "x"}}));
}

TEST_F(ProcessPolicyTest, SetBulkReturnsThePositiveStatusCodeOfAFailure) {
  ASSERT_EQ(persistence::process_settings_policy_set("kept", 1, "x"), 0);
  testing_support::StderrCapture quiet;  // the handle's own report
  // A key with every field at its default is stored as no bytes: refused.
  EXPECT_EQ(persistence::process_settings_policy_set_bulk({KeyOf("a", 1), KeyOf("", 0)},
                                                          {ValueOf("y"), ValueOf("z")}),
            2);
  quiet.Text();
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kError,
                                            "Failed to clear-and-set bulk policy, error=2, "
                                            "messsage=Invalid argument: put_key: empty"}}));
  EXPECT_EQ(Walk(), (std::vector<Policy>{{"kept", 1, "x"}}));
}

// --- Loaded -------------------------------------------------------------------------

TEST_F(ProcessPolicyTest, LoadedIsTrueAfterOneSet) {
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 1, "a"), 0);
  clock_.Advance(std::chrono::seconds(5));
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_TRUE(persistence::process_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at.time_since_epoch(), clock_.steady());
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kDebug, "Policy DB status: is_empty: 0"}}));
}

TEST_F(ProcessPolicyTest, LoadedRecordsTheTimeAfterTheCheck) {
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 1, "a"), 0);
  CountingSteadyClock counting_clock;
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_TRUE(persistence::process_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at, CountingSteadyClock::Last());
}

TEST_F(ProcessPolicyTest, LoadedIsFalseOnAFailingStoreAndRecordsTheTimeAfterTheCheck) {
  BlockStoreDirectory("process_settings_policy_store");
  CountingSteadyClock counting_clock;
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::process_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at, CountingSteadyClock::Last());
  // The failing check read the clock itself (its reopen test); the time of
  // the check is read after it.
  const auto first = checked_at;
  EXPECT_FALSE(persistence::process_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at, CountingSteadyClock::Last());
  EXPECT_GE(checked_at - first, std::chrono::nanoseconds(2));

  const std::vector<Line> lines = LogLines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[2], Line(kError, "Failed to check if policy is empty, err=5, msg="));
  EXPECT_EQ(lines[3], Line(kError, "Failed to check if policy is empty, err=5, msg="));
}

// --- Failures -------------------------------------------------------------------

TEST_F(ProcessPolicyTest, UnreadableStoreFailsEachFunctionWithOneLinePerCall) {
  BlockStoreDirectory("process_settings_policy_store");
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 1, "a"), -5);
  ASSERT_EQ(LogLines(), (std::vector<Line>{{kError, "Failed to open database '" + path() + "'."},
                                           {kError, OpenCheckLine("process_settings_policy_store",
                                                                  5, NotADirectoryText(path()))},
                                           {kError, "Failed to set policy, err=5, msg="}}));
  log_.clear();

  std::string policy = "untouched";
  EXPECT_EQ(persistence::process_settings_policy_get(" Proc ", 321, &policy), -5);
  EXPECT_EQ(policy, "untouched");
  EXPECT_EQ(persistence::process_settings_policy_set_bulk({KeyOf("proc", 1)}, {ValueOf("a")}), 5);
  int calls = 0;
  EXPECT_EQ(persistence::process_settings_policy_for_each(
                [&calls](const std::string&, int, const std::string&) { ++calls; }),
            -5);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(persistence::process_settings_policy_clear(), -5);
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::process_settings_policy_loaded(&checked_at));
  EXPECT_EQ(checked_at.time_since_epoch(), clock_.steady());
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to get policy for process  Proc  and module 321, err=5, msg="},
                {kError, "Failed to clear-and-set bulk policy, error=5, messsage="},
                {kError, "Failed to get policy for all processes, err=5, msg="},
                {kError, "Failed to clear policy, err=5, msg="},
                {kError, "Failed to check if policy is empty, err=5, msg="}}));
}

TEST_F(ProcessPolicyTest, FailedWritesLogTheEngineTextAndKeepThePolicy) {
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  ASSERT_EQ(persistence::process_settings_policy_set("proc", 1, "kept"), 0);

  env.fail_writes = true;
  testing_support::StderrCapture quiet;  // the handle's own reports
  EXPECT_EQ(persistence::process_settings_policy_set("proc", 1, "lost"), -5);
  EXPECT_EQ(persistence::process_settings_policy_clear(), -5);
  EXPECT_EQ(persistence::process_settings_policy_set_bulk({KeyOf("x", 1)}, {ValueOf("y")}), 5);
  quiet.Text();
  env.fail_writes = false;

  const std::string engine_text = "IO error: " + path() + "/000003.log: injected write failure";
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{{kError, "Failed to set policy, err=5, msg=" + engine_text},
                               {kError, "Failed to clear policy, err=5, msg=" + engine_text},
                               {kError, "Failed to clear-and-set bulk policy, error=5, messsage=" +
                                            engine_text}}));
  EXPECT_EQ(Walk(), (std::vector<Policy>{{"proc", 1, "kept"}}));
}

}  // namespace
}  // namespace stores_testing
