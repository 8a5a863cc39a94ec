// zerla_common::config::PathConfig: where each store keeps its database.
#include "zerla_common/config/path_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

namespace {

using zerla_common::config::PathConfig;
using zerla_common::config::PathItemId;

const std::vector<std::pair<int, std::string>> kKnownItems = {
    {73, "process_settings_policy_store"},
    {74, "general_settings_policy_store"},
    {75, "trusted_signers_cache"},
    {76, "trusted_signers_store"},
    {77, "fvhash_store"},
    {87, "enrichment_store"},
};

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

TEST(PathConfig, ItemNumbersAreTheAgents) {
  EXPECT_EQ(zerla_common::config::kProcessSettingsPolicyStore, 73);
  EXPECT_EQ(zerla_common::config::kGeneralSettingsPolicyStore, 74);
  EXPECT_EQ(zerla_common::config::kTrustedSignersCache, 75);
  EXPECT_EQ(zerla_common::config::kTrustedSignersStore, 76);
  EXPECT_EQ(zerla_common::config::kFvhashStore, 77);
  EXPECT_EQ(zerla_common::config::kEnrichmentStore, 87);
}

TEST(PathConfig, DefaultRootWithoutTheVariable) {
  unsetenv("ZERLA_DATA_ROOT");
  for (const auto& [id, name] : kKnownItems) {
    EXPECT_EQ(PathConfig::Get(static_cast<PathItemId>(id)), "/var/lib/zerla/" + name) << id;
  }
}

TEST(PathConfig, DefaultRootWhenTheVariableIsEmpty) {
  setenv("ZERLA_DATA_ROOT", "", 1);
  for (const auto& [id, name] : kKnownItems) {
    EXPECT_EQ(PathConfig::Get(static_cast<PathItemId>(id)), "/var/lib/zerla/" + name) << id;
  }
}

TEST(PathConfig, RootFromTheVariable) {
  setenv("ZERLA_DATA_ROOT", "/srv/agent data", 1);
  for (const auto& [id, name] : kKnownItems) {
    EXPECT_EQ(PathConfig::Get(static_cast<PathItemId>(id)), "/srv/agent data/" + name) << id;
  }
}

TEST(PathConfig, VariableIsReadOnEveryCall) {
  setenv("ZERLA_DATA_ROOT", "/first", 1);
  EXPECT_EQ(PathConfig::Get(zerla_common::config::kFvhashStore), "/first/fvhash_store");
  setenv("ZERLA_DATA_ROOT", "/second", 1);
  EXPECT_EQ(PathConfig::Get(zerla_common::config::kFvhashStore), "/second/fvhash_store");
  unsetenv("ZERLA_DATA_ROOT");
  EXPECT_EQ(PathConfig::Get(zerla_common::config::kFvhashStore), "/var/lib/zerla/fvhash_store");
}

TEST(PathConfig, UnknownItemsGiveEmptyPath) {
  setenv("ZERLA_DATA_ROOT", "/srv/agent", 1);
  for (int id : {-1, 0, 1, 72, 78, 80, 86, 88, 1000}) {
    EXPECT_EQ(PathConfig::Get(static_cast<PathItemId>(id)), "") << id;
  }
  unsetenv("ZERLA_DATA_ROOT");
  for (int id : {0, 72, 78, 86, 88}) {
    EXPECT_EQ(PathConfig::Get(static_cast<PathItemId>(id)), "") << id;
  }
}

TEST(PathConfig, CreatesNothingOnDisk) {
  testing_support::TempDir dir;
  const std::string root = dir.Sub("root");
  setenv("ZERLA_DATA_ROOT", root.c_str(), 1);
  for (const auto& [id, name] : kKnownItems) {
    const std::string path = PathConfig::Get(static_cast<PathItemId>(id));
    EXPECT_EQ(path, root + "/" + name);
    EXPECT_FALSE(Exists(path)) << path;
  }
  EXPECT_FALSE(Exists(root));
}

}  // namespace
