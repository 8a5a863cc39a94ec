// The plain families reached through libdravinhold.so: this program links the
// shared library and nothing of the static archive, so every call below goes
// through the library's exports.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"

namespace {

// The file name of the object that holds "address".
std::string ObjectOf(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "";
  return std::filesystem::path(info.dli_fname).filename().string();
}

// A data root of its own for the stores, removed at the end.
class SharedLibraryTest : public ::testing::Test {
 protected:
  SharedLibraryTest() {
    const char* base = getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dravinhold-so-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) != nullptr) root_ = buffer.data();
    setenv("ZERLA_DATA_ROOT", root_.c_str(), 1);
  }
  ~SharedLibraryTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  void SetUp() override { ASSERT_FALSE(root_.empty()); }

  bool StoreDirectoryExists(const std::string& store) const {
    return std::filesystem::is_directory(root_ + "/" + store);
  }

  std::string root_;
};

TEST_F(SharedLibraryTest, FamiliesComeFromTheSharedLibrary) {
  const std::string library = "libdravinhold.so.1";
  EXPECT_EQ(ObjectOf(reinterpret_cast<const void*>(&persistence::FVhashStore_Put)), library);
  EXPECT_EQ(ObjectOf(reinterpret_cast<const void*>(&persistence::TrustedSignersStore_Check)),
            library);
  EXPECT_EQ(ObjectOf(reinterpret_cast<const void*>(
                &persistence::trusted_signers_cache_get_trusted_signer)),
            library);
  EXPECT_EQ(ObjectOf(reinterpret_cast<const void*>(&persistence::general_settings_policy_get)),
            library);
  EXPECT_EQ(ObjectOf(reinterpret_cast<const void*>(&persistence::process_settings_policy_get)),
            library);
}

TEST_F(SharedLibraryTest, FVhashFamily) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "ABC123"}, {false, "def456"}}), 0);
  EXPECT_TRUE(persistence::FVhashStore_Check("abc123"));
  EXPECT_FALSE(persistence::FVhashStore_Check("def456"));
  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("def456", &verdict), 0);
  EXPECT_FALSE(verdict);
  unsigned long count = 0;
  const persistence::Status status = persistence::FVhashStore_Count(&count);
  EXPECT_EQ(status.code, 0);
  EXPECT_EQ(count, 2u);
  EXPECT_TRUE(StoreDirectoryExists("fvhash_store"));
}

TEST_F(SharedLibraryTest, TrustedSignersFamily) {
  ASSERT_EQ(persistence::TrustedSignersStore_Put({{"Acme", "FEED01"}}), 0);
  EXPECT_TRUE(persistence::TrustedSignersStore_Check("feed01"));
  proto::TrustedSignersStore::Value value;
  EXPECT_EQ(persistence::TrustedSignersStore_Get("feed01", &value).code, 0);
  EXPECT_EQ(value.name(), "Acme");
  EXPECT_TRUE(StoreDirectoryExists("trusted_signers_store"));
}

TEST_F(SharedLibraryTest, TrustedSignersCacheFamily) {
  EXPECT_TRUE(persistence::trusted_signers_cache_init());
  ASSERT_TRUE(persistence::trusted_signers_cache_set_trusted_signer("key", "cert"));
  std::string certhash;
  EXPECT_TRUE(persistence::trusted_signers_cache_get_trusted_signer("key", &certhash));
  EXPECT_EQ(certhash, "cert");
  proto::TrustedSignersCacheStore::Value value;
  EXPECT_EQ(persistence::TrustedSignersCacheStore_Get("key", &value).code, 0);
  EXPECT_EQ(value.index(), 1u);
  EXPECT_TRUE(StoreDirectoryExists("trusted_signers_cache"));
}

TEST_F(SharedLibraryTest, GeneralPolicyFamily) {
  EXPECT_EQ(persistence::general_settings_policy_set(2, "refused"), -22);
  ASSERT_EQ(persistence::general_settings_policy_set(321, std::string("a\0b", 3)), 0);
  std::string policy;
  EXPECT_EQ(persistence::general_settings_policy_get(321, &policy), 0);
  EXPECT_EQ(policy, std::string("a\0b", 3));
  std::chrono::steady_clock::time_point checked_at{};
  EXPECT_TRUE(persistence::general_settings_policy_loaded(&checked_at));
  EXPECT_TRUE(StoreDirectoryExists("general_settings_policy_store"));
}

TEST_F(SharedLibraryTest, ProcessPolicyFamily) {
  ASSERT_EQ(persistence::process_settings_policy_set(" Chrome.EXE ", 1, "policy"), 0);
  std::string policy;
  EXPECT_EQ(persistence::process_settings_policy_get("chrome.exe", 1, &policy), 0);
  EXPECT_EQ(policy, "policy");
  std::vector<std::string> names;
  EXPECT_EQ(
      persistence::process_settings_policy_for_each(
          [&names](const std::string& name, int, const std::string&) { names.push_back(name); }),
      0);
  EXPECT_EQ(names, std::vector<std::string>{"chrome.exe"});
  EXPECT_TRUE(StoreDirectoryExists("process_settings_policy_store"));
}

}  // namespace
