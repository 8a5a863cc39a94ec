// Every line that the five plain families write names its own site: the
// family's source file, a line of it that holds the report, and the full
// signature of the exported function that wrote it. The check in a store's
// Open() names line 9 of the store's *_def header, and the size check of
// the process policy walk line 104 of its source. Failures come from real
// directories that cannot be opened and from calls that find nothing. The
// cache's failed renewal, which needs the failing LevelDB environment, and
// the enrichment family's lines are checked by the tests that provoke them
// (trusted_signers_cache_test.cc, tests/enrichment/family_test.cc).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"
#include "stores/family_log_sites.h"
#include "stores/store_test_env.h"
#include "support/stderr_capture.h"

namespace stores_testing {
namespace {

using family_sites::FamilySite;
using family_sites::WrittenAt;

// A line a family must write: priority, text, and where it is written.
struct Expected {
  int priority;
  std::string text;
  FamilySite site;
};

// The source of the store whose directory is "store".
std::string SourceOf(const std::string& store) {
  return "nix/dravinhold/" + store + "/" + store + ".cc";
}

// The site of "format" in "function" (result type and name) of the store.
FamilySite Site(const std::string& store, const std::string& function, const std::string& format) {
  const size_t name = function.find(' ') + 1;
  return {SourceOf(store), function.substr(0, name) + "persistence::" + function.substr(name),
          format};
}

class FamilyLogSitesTest : public StoreTest {
 protected:
  // Each captured line from "first" on is the expected one, written at its
  // site through LibPersistenceLogger, and there are no others.
  void ExpectFamilyLines(size_t first, const std::vector<Expected>& expected) const {
    const std::vector<testing_support::LoggedLine> lines = log_.lines();
    ASSERT_EQ(lines.size(), first + expected.size()) << ::testing::PrintToString(LogLines());
    for (size_t i = 0; i < expected.size(); ++i) {
      EXPECT_TRUE(WrittenAt(lines[first + i], "LibPersistence", "LibPersistenceLogger",
                            expected[i].priority, expected[i].text, expected[i].site));
    }
  }

  // The first use of the store, whose directory is blocked, wrote the
  // store's own line and then the check of Open() at line 9 of the store's
  // *_def header, in "persistence::<store_class>::Open()".
  void ExpectOpenCheckFirst(const std::string& store, const std::string& store_class) const {
    const std::vector<testing_support::LoggedLine> lines = log_.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "Failed to open database '" + StorePath(store) + "'.");
    const testing_support::LoggedLine& check = lines[1];
    EXPECT_EQ(check.text, OpenCheckLine(store, 5, NotADirectoryText(StorePath(store))));
    EXPECT_EQ(check.priority, kError);
    EXPECT_EQ(check.source, "LibPersistence");
    const std::string header = "nix/dravinhold/" + store + "/" + store + "_def.h";
    EXPECT_EQ(check.file, header);
    EXPECT_EQ(check.line, 9);
    EXPECT_EQ(check.function, "persistence::Status persistence::" + store_class + "::Open()");
    const std::vector<std::string> source = family_sites::SourceLines(header);
    ASSERT_GT(source.size(), 9u);
    EXPECT_THAT(source[9], ::testing::HasSubstr("CHECK_LOGGED(LibPersistenceLogger, status.ok(), "
                                                "Poco::format(\"status code=%d message=%s\""));
  }
};

// --- FVhash store ---------------------------------------------------------------

TEST_F(FamilyLogSitesTest, FVhashFamilyLinesNameTheirFunctions) {
  const std::string store = "fvhash_store";
  BlockStoreDirectory(store);
  EXPECT_EQ(persistence::FVhashStore_Put({{true, "ABC"}}), -5);
  EXPECT_FALSE(persistence::FVhashStore_Check("abc"));
  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("abc", &verdict), 5);
  EXPECT_TRUE(verdict);
  EXPECT_EQ(persistence::FVhashStore_Clear(), -5);
  EXPECT_TRUE(persistence::FVhashStore_Empty());

  ExpectOpenCheckFirst(store, "FVhashStore");
  const std::string get_failed = "Failed to get entry from fvhash blacklist, err=%d, msg=%s";
  ExpectFamilyLines(
      2,
      {{kError, "Failed to clear-and-set fvhash blacklist, err=5, msg=",
        Site(store, "int FVhashStore_Put(",
             "Failed to clear-and-set fvhash blacklist, err=%d, msg=%s")},
       {kError, "Failed to get entry from fvhash blacklist, err=5, msg=",
        Site(store, "bool FVhashStore_Check(", get_failed)},
       {kError, "Failed to get entry from fvhash blacklist, err=5, msg=",
        Site(store, "int FVhashStore_GetVerdict(", get_failed)},
       {kError, "Failed to clear fvhash blacklist, err=5, msg=",
        Site(store, "int FVhashStore_Clear(", "Failed to clear fvhash blacklist, err=%d, msg=%s")},
       {kError, "Failed to check if fvhash blacklist is empty, err=5, msg=",
        Site(store, "bool FVhashStore_Empty()",
             "Failed to check if fvhash blacklist is empty, err=%d, msg=%s")}});
}

// --- Trusted signers store ------------------------------------------------------

TEST_F(FamilyLogSitesTest, TrustedSignersFamilyLinesNameTheirFunctions) {
  const std::string store = "trusted_signers_store";
  BlockStoreDirectory(store);
  EXPECT_EQ(persistence::TrustedSignersStore_Put({{"Signer", "ABC"}}), -5);
  EXPECT_FALSE(persistence::TrustedSignersStore_Check("abc"));
  EXPECT_EQ(persistence::TrustedSignersStore_Clear(), -5);
  EXPECT_TRUE(persistence::TrustedSignersStore_Empty());

  ExpectOpenCheckFirst(store, "TrustedSignersStore");
  ExpectFamilyLines(
      2, {{kError, "Failed to clear-and-set trusted signers whitelist, err=5, msg=",
           Site(store, "int TrustedSignersStore_Put(",
                "Failed to clear-and-set trusted signers whitelist, err=%d, msg=%s")},
          {kError, "Failed to get entry from trusted signers whitelist, err=5, msg=",
           Site(store, "bool TrustedSignersStore_Check(",
                "Failed to get entry from trusted signers whitelist, err=%d, msg=%s")},
          {kError, "Failed to clear trusted signers whitelist, err=5, msg=",
           Site(store, "int TrustedSignersStore_Clear(",
                "Failed to clear trusted signers whitelist, err=%d, msg=%s")},
          {kError, "Failed to check if trusted signers whitelist is empty, err=5, msg=",
           Site(store, "bool TrustedSignersStore_Empty()",
                "Failed to check if trusted signers whitelist is empty, err=%d, msg=%s")}});
}

// --- Trusted signers cache ------------------------------------------------------

TEST_F(FamilyLogSitesTest, TrustedSignersCacheLinesNameTheirFunctions) {
  const std::string store = "trusted_signers_cache";
  BlockStoreDirectory(store);
  // The one-pair form hands its pair to the list form, which writes.
  EXPECT_FALSE(persistence::trusted_signers_cache_set_trusted_signer("key", "cert"));
  std::string certhash;
  EXPECT_FALSE(persistence::trusted_signers_cache_get_trusted_signer("key", &certhash));
  EXPECT_FALSE(persistence::trusted_signers_cache_compact());
  EXPECT_FALSE(persistence::trusted_signers_cache_clear());

  ExpectOpenCheckFirst(store, "TrustedSignersCacheStore");
  ExpectFamilyLines(2, {{kError, "Failed to put trusted_signers_cache entry, err=5, msg=",
                         Site(store, "bool trusted_signers_cache_set_trusted_signers(",
                              "Failed to put trusted_signers_cache entry, err=%d, msg=%s")},
                        {kError, "Failed to get trusted_signers_cache entry, err=5, msg=",
                         Site(store, "bool trusted_signers_cache_get_trusted_signer(",
                              "Failed to get trusted_signers_cache entry, err=%d, msg=%s")},
                        {kError, "Failed to compact trusted_signers_cache cache, err=5, msg=",
                         Site(store, "bool trusted_signers_cache_compact(",
                              "Failed to compact trusted_signers_cache cache, err=%d, msg=%s")},
                        {kError, "Failed to clear trusted_signers_cache cache, err=5, msg=",
                         Site(store, "bool trusted_signers_cache_clear(",
                              "Failed to clear trusted_signers_cache cache, err=%d, msg=%s")}});
}

// --- The two policy families -----------------------------------------------------

// What both policy families write when their store fails, in the order
// loaded, set, set_bulk, clear. "family" is the common prefix of the
// functions, "store" the directory of their sources.
std::vector<Expected> PolicyStoreFailures(const std::string& store, const std::string& family) {
  return {{kError, "Failed to check if policy is empty, err=5, msg=",
           Site(store, "bool " + family + "_loaded(",
                "Failed to check if policy is empty, err=%d, msg=%s")},
          {kError, "Failed to set policy, err=5, msg=",
           Site(store, "int " + family + "_set(", "Failed to set policy, err=%d, msg=%s")},
          {kError, "Failed to clear-and-set bulk policy, error=5, messsage=",
           Site(store, "int " + family + "_set_bulk(",
                "Failed to clear-and-set bulk policy, error=%d, messsage=%s")},
          {kError, "Failed to clear policy, err=5, msg=",
           Site(store, "int " + family + "_clear(", "Failed to clear policy, err=%d, msg=%s")}};
}

// What a policy family's loaded check writes about a store that is empty
// or not.
Expected PolicyLoadedLine(const std::string& family, bool is_empty) {
  return {kDebug, std::string("Policy DB status: is_empty: ") + (is_empty ? "1" : "0"),
          Site(family + "_store", "bool " + family + "_loaded(", "Policy DB status: is_empty: %b")};
}

TEST_F(FamilyLogSitesTest, GeneralPolicyFailureLinesNameTheirFunctions) {
  const std::string store = "general_settings_policy_store";
  BlockStoreDirectory(store);
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_EQ(persistence::general_settings_policy_set(1, "policy"), -5);
  proto::GeneralSettingsPolicyStore::Key key;
  key.set_module_id(1);
  EXPECT_EQ(persistence::general_settings_policy_set_bulk(
                {key}, std::vector<proto::GeneralSettingsPolicyStore::Value>(1)),
            5);
  EXPECT_EQ(persistence::general_settings_policy_clear(), -5);
  std::string policy = "untouched";
  EXPECT_EQ(persistence::general_settings_policy_get(321, &policy), -5);
  EXPECT_EQ(policy, "untouched");

  ExpectOpenCheckFirst(store, "GeneralSettingsPolicyStore");
  std::vector<Expected> expected = PolicyStoreFailures(store, "general_settings_policy");
  expected.push_back({kError, "Failed to get GeneralSettingsPolicy for module 321, err=5, msg=",
                      Site(store, "int general_settings_policy_get(",
                           "Failed to get GeneralSettingsPolicy for module %?d, err=%d, msg=%s")});
  ExpectFamilyLines(2, expected);
}

TEST_F(FamilyLogSitesTest, ProcessPolicyFailureLinesNameTheirFunctions) {
  const std::string store = "process_settings_policy_store";
  BlockStoreDirectory(store);
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::process_settings_policy_loaded(&checked_at));
  EXPECT_EQ(persistence::process_settings_policy_set("Proc", 1, "policy"), -5);
  proto::ProcessSettingsPolicyStore::Key key;
  key.set_process_name("proc");
  EXPECT_EQ(persistence::process_settings_policy_set_bulk(
                {key}, std::vector<proto::ProcessSettingsPolicyStore::Value>(1)),
            5);
  EXPECT_EQ(persistence::process_settings_policy_clear(), -5);
  std::string policy;
  EXPECT_EQ(persistence::process_settings_policy_get(" Proc ", 321, &policy), -5);
  // The walk fails at its read: even an empty function is never called.
  EXPECT_EQ(persistence::process_settings_policy_for_each(nullptr), -5);

  ExpectOpenCheckFirst(store, "ProcessSettingsPolicyStore");
  std::vector<Expected> expected = PolicyStoreFailures(store, "process_settings_policy");
  expected.push_back({kError, "Failed to get policy for process  Proc  and module 321, err=5, msg=",
                      Site(store, "int process_settings_policy_get(",
                           "Failed to get policy for process %s and module %?d, err=%d, msg=%s")});
  expected.push_back({kError, "Failed to get policy for all processes, err=5, msg=",
                      Site(store, "int process_settings_policy_for_each(",
                           "Failed to get policy for all processes, err=%d, msg=%s")});
  ExpectFamilyLines(2, expected);
}

// The two policy stores are apart: each family answers for its own.
TEST_F(FamilyLogSitesTest, PolicyDebugAndTraceLinesNameTheirFunctions) {
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_FALSE(persistence::general_settings_policy_loaded(&checked_at));
  ASSERT_EQ(persistence::process_settings_policy_set("Proc", 5, "policy"), 0);
  EXPECT_TRUE(persistence::process_settings_policy_loaded(&checked_at));
  std::string policy;
  EXPECT_EQ(persistence::general_settings_policy_get(5, &policy), -61);
  EXPECT_EQ(persistence::process_settings_policy_get("Proc", 7, &policy), -61);
  ASSERT_EQ(persistence::general_settings_policy_set(7, "policy"), 0);
  EXPECT_TRUE(persistence::general_settings_policy_loaded(&checked_at));
  ASSERT_EQ(persistence::process_settings_policy_clear(), 0);
  EXPECT_FALSE(persistence::process_settings_policy_loaded(&checked_at));

  ExpectFamilyLines(0, {PolicyLoadedLine("general_settings_policy", true),
                        PolicyLoadedLine("process_settings_policy", false),
                        {kDebug, "GeneralSettingsPolicy for module 5 not found",
                         Site("general_settings_policy_store", "int general_settings_policy_get(",
                              "GeneralSettingsPolicy for module %?d not found")},
                        {kTrace, "Policy for process Proc and module 7 not found",
                         Site("process_settings_policy_store", "int process_settings_policy_get(",
                              "Policy for process %s and module %?d not found")},
                        PolicyLoadedLine("general_settings_policy", false),
                        PolicyLoadedLine("process_settings_policy", true)});
}

// The walk reads keys and values in one pass of the engine, so no store,
// however damaged, hands it vectors of two sizes: its size check cannot be
// made to fail from outside. What it would report is fixed by the source:
// the check stands at line 104, inside the walk, with the text of the walk.
TEST(FamilyLogSites, ForEachSizeCheckStandsAtLine104OfItsSource) {
  const std::string file = SourceOf("process_settings_policy_store");
  const std::vector<std::string> source = family_sites::SourceLines(file);
  ASSERT_GT(source.size(), 104u);
  const std::string statement = family_sites::StatementAt(source, 104);
  EXPECT_TRUE(family_sites::StartsAReport(statement, "LibPersistenceLogger")) << statement;
  EXPECT_THAT(statement, ::testing::HasSubstr("CHECK_LOGGED(LibPersistenceLogger, keys.size() == "
                                              "values.size(),"));
  EXPECT_THAT(statement, ::testing::HasSubstr("\"Failed to get policy for all processes, mismatch "
                                              "in size of keys(\""));
  EXPECT_THAT(statement, ::testing::HasSubstr("<< keys.size() << \") and values(\" << "
                                              "values.size() << \")\""));
  EXPECT_THAT(family_sites::EnclosingDefinition(source, 104),
              ::testing::StartsWith("int process_settings_policy_for_each("));
  // The only size check of the file.
  int checks = 0;
  for (const std::string& line : source) {
    if (line.find("CHECK_LOGGED(") != std::string::npos) ++checks;
  }
  EXPECT_EQ(checks, 1);
}

}  // namespace
}  // namespace stores_testing
