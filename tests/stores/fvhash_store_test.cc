// The fvhash family: the whole list replaced at once, keys lower-cased on
// the way in and used as given on the way out, the verdict as the answer,
// and what callers see of a store that fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "stores/store_test_env.h"
#include "support/stderr_capture.h"

namespace stores_testing {
namespace {

using persistence::fv_hash;
using persistence::Status;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Value = proto::FVhashStore::Value;
using Data = proto::FVhashStore::Data;

class FVhashStoreTest : public StoreTest {
 protected:
  std::string path() const { return StorePath("fvhash_store"); }

  // The keys of the whole store, in order.
  static std::vector<std::string> StoredKeys() {
    std::vector<std::string> keys;
    std::vector<Value> values;
    const Status status = persistence::FVhashStore_Dump(&keys, &values);
    EXPECT_EQ(status.code, 0) << status.message;
    return keys;
  }

  static unsigned long StoredCount() {
    unsigned long count = 0;
    const Status status = persistence::FVhashStore_Count(&count);
    EXPECT_EQ(status.code, 0) << status.message;
    return count;
  }

  static Data DataOf(const std::vector<std::pair<std::string, bool>>& entries) {
    Data data;
    for (const auto& [key, verdict] : entries) {
      auto* entry = data.add_entries();
      entry->set_key(key);
      entry->mutable_value()->set_verdict(verdict);
    }
    return data;
  }
};

TEST_F(FVhashStoreTest, PutReplacesTheWholeListWithLowerCasedKeys) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "old1"}, {false, "old2"}}), 0);
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "AbC1"}, {false, "def2"}, {true, "GHI3"}}), 0);
  EXPECT_THAT(StoredKeys(), ElementsAre("abc1", "def2", "ghi3"));
  EXPECT_TRUE(persistence::FVhashStore_Check("abc1"));
  EXPECT_FALSE(persistence::FVhashStore_Check("def2"));
  EXPECT_TRUE(persistence::FVhashStore_Check("ghi3"));
  EXPECT_FALSE(persistence::FVhashStore_Check("old1"));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(FVhashStoreTest, PutOfAnEmptyListEmptiesTheStore) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "a1"}, {true, "b2"}}), 0);
  EXPECT_EQ(persistence::FVhashStore_Put({}), 0);
  EXPECT_EQ(StoredCount(), 0u);
  EXPECT_TRUE(persistence::FVhashStore_Empty());
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(FVhashStoreTest, PutOfOnlyEmptyHashesEmptiesTheStore) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "a1"}}), 0);
  EXPECT_EQ(persistence::FVhashStore_Put({{true, ""}, {false, ""}}), 0);
  EXPECT_EQ(StoredCount(), 0u);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(FVhashStoreTest, PutOfAnEmptyListOnAFreshStoreOpensIt) {
  EXPECT_EQ(persistence::FVhashStore_Put({}), 0);
  EXPECT_TRUE(IsDirectory(path()));
  EXPECT_EQ(StoredCount(), 0u);
}

TEST_F(FVhashStoreTest, AtomicClearAndPutRefusesAnEmptyDataWherePutEmpties) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "a1"}}), 0);
  const Status status = persistence::FVhashStore_AtomicClearAndPut(Data());
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Received empty keys or values vector");
  EXPECT_THAT(StoredKeys(), ElementsAre("a1"));
}

TEST_F(FVhashStoreTest, ElementWithAnEmptyHashIsSkipped) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "aa"}, {true, ""}, {false, "bb"}}), 0);
  EXPECT_THAT(StoredKeys(), ElementsAre("aa", "bb"));
  EXPECT_THAT(LogLines(), IsEmpty());

  // GetVerdict passes a failure's code on: the engine refuses an empty key.
  testing_support::StderrCapture quiet;
  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("", &verdict), 2);
  EXPECT_TRUE(verdict);
  EXPECT_EQ(LogLines(), (std::vector<Line>{{kError,
                                            "Failed to get entry from fvhash blacklist, err=2, "
                                            "msg=Invalid argument: key: empty"}}));
}

TEST_F(FVhashStoreTest, HashesThatDifferOnlyInCaseShareOneKeyAndTheLaterVerdictStands) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "CafeBabe"}, {false, "cafebabe"}}), 0);
  EXPECT_THAT(StoredKeys(), ElementsAre("cafebabe"));
  EXPECT_FALSE(persistence::FVhashStore_Check("cafebabe"));
  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("cafebabe", &verdict), 0);
  EXPECT_FALSE(verdict);

  ASSERT_EQ(persistence::FVhashStore_Put({{false, "cafebabe"}, {true, "CAFEBABE"}}), 0);
  EXPECT_THAT(StoredKeys(), ElementsAre("cafebabe"));
  EXPECT_TRUE(persistence::FVhashStore_Check("cafebabe"));
}

TEST_F(FVhashStoreTest, CheckAndGetVerdictUseTheHashAsGiven) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "DEADBEEF"}}), 0);
  EXPECT_FALSE(persistence::FVhashStore_Check("DEADBEEF"));
  EXPECT_TRUE(persistence::FVhashStore_Check("deadbeef"));
  bool verdict = false;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("DEADBEEF", &verdict), 3);
  EXPECT_FALSE(verdict);
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("deadbeef", &verdict), 0);
  EXPECT_TRUE(verdict);
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(FVhashStoreTest, LowerCasingIsByteByByteInTheCLocale) {
  // Bytes beyond ASCII pass through tolower unchanged.
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "AB\xC3\x84Z"}}), 0);
  EXPECT_THAT(StoredKeys(), ElementsAre("ab\xC3\x84z"));
  EXPECT_TRUE(persistence::FVhashStore_Check("ab\xC3\x84z"));
}

TEST_F(FVhashStoreTest, AtomicClearAndPutAndGetDoNotLowerCase) {
  ASSERT_EQ(persistence::FVhashStore_AtomicClearAndPut(DataOf({{"ABCD", true}})).code, 0);
  EXPECT_THAT(StoredKeys(), ElementsAre("ABCD"));
  EXPECT_TRUE(persistence::FVhashStore_Check("ABCD"));
  EXPECT_FALSE(persistence::FVhashStore_Check("abcd"));
  Value value;
  EXPECT_EQ(persistence::FVhashStore_Get("ABCD", &value).code, 0);
  EXPECT_TRUE(value.verdict());
  EXPECT_EQ(persistence::FVhashStore_Get("abcd", &value).code, 3);
}

TEST_F(FVhashStoreTest, ListedFalseAndUnlistedBothCheckFalseButGetVerdictTellsThemApart) {
  ASSERT_EQ(persistence::FVhashStore_Put({{false, "listed"}}), 0);
  EXPECT_FALSE(persistence::FVhashStore_Check("listed"));
  EXPECT_FALSE(persistence::FVhashStore_Check("unlisted"));

  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("listed", &verdict), 0);
  EXPECT_FALSE(verdict);

  verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("unlisted", &verdict), 3);
  EXPECT_TRUE(verdict);  // untouched
  verdict = false;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("unlisted", &verdict), 3);
  EXPECT_FALSE(verdict);
  // Absence is no failure: nothing is logged.
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(FVhashStoreTest, ClearEmptiesTheStore) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "a1"}, {true, "b2"}}), 0);
  EXPECT_FALSE(persistence::FVhashStore_Empty());
  EXPECT_EQ(persistence::FVhashStore_Clear(), 0);
  EXPECT_EQ(StoredCount(), 0u);
  EXPECT_TRUE(persistence::FVhashStore_Empty());
  EXPECT_FALSE(persistence::FVhashStore_Check("a1"));
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(FVhashStoreTest, EmptyIsFalseForAListedStoreAndLogsNothing) {
  EXPECT_TRUE(persistence::FVhashStore_Empty());
  ASSERT_EQ(persistence::FVhashStore_Put({{false, "a1"}}), 0);
  EXPECT_FALSE(persistence::FVhashStore_Empty());
  EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(FVhashStoreTest, UnreadableStoreFailsEachFunctionWithOneLinePerCall) {
  BlockStoreDirectory("fvhash_store");
  EXPECT_TRUE(persistence::FVhashStore_Empty());
  const std::vector<Line> open_lines{
      {kError, "Failed to open database '" + path() + "'."},
      {kError, OpenCheckLine("fvhash_store", 5, NotADirectoryText(path()))}};
  std::vector<Line> expected = open_lines;
  expected.emplace_back(kError, "Failed to check if fvhash blacklist is empty, err=5, msg=");
  ASSERT_EQ(LogLines(), expected);
  log_.clear();

  EXPECT_TRUE(persistence::FVhashStore_Empty());
  EXPECT_EQ(persistence::FVhashStore_Put({{true, "a1"}}), -5);
  EXPECT_EQ(persistence::FVhashStore_Put({}), -5);
  EXPECT_EQ(persistence::FVhashStore_Clear(), -5);
  EXPECT_FALSE(persistence::FVhashStore_Check("a1"));
  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("a1", &verdict), 5);
  EXPECT_TRUE(verdict);
  EXPECT_EQ(LogLines(), (std::vector<Line>{
                            {kError, "Failed to check if fvhash blacklist is empty, err=5, msg="},
                            {kError, "Failed to clear-and-set fvhash blacklist, err=5, msg="},
                            {kError, "Failed to clear-and-set fvhash blacklist, err=5, msg="},
                            {kError, "Failed to clear fvhash blacklist, err=5, msg="},
                            {kError, "Failed to get entry from fvhash blacklist, err=5, msg="},
                            {kError, "Failed to get entry from fvhash blacklist, err=5, msg="}}));
}

TEST_F(FVhashStoreTest, FailedPutKeepsTheOldListAndLogsTheEngineText) {
  testing_support::FaultEnv& env = LastingFaultEnv();
  testing_support::ScopedTestEnv scoped_env(&env);
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "old1"}, {true, "old2"}}), 0);

  env.fail_writes = true;
  testing_support::StderrCapture quiet;  // the handle's own reports
  EXPECT_EQ(persistence::FVhashStore_Put({{true, "new1"}}), -5);
  EXPECT_EQ(persistence::FVhashStore_Clear(), -5);
  quiet.Text();
  env.fail_writes = false;

  const std::string engine_text = "IO error: " + path() + "/000003.log: injected write failure";
  EXPECT_EQ(LogLines(),
            (std::vector<Line>{
                {kError, "Failed to clear-and-set fvhash blacklist, err=5, msg=" + engine_text},
                {kError, "Failed to clear fvhash blacklist, err=5, msg=" + engine_text}}));
  EXPECT_THAT(StoredKeys(), ElementsAre("old1", "old2"));
  EXPECT_TRUE(persistence::FVhashStore_Check("old1"));
  EXPECT_FALSE(persistence::FVhashStore_Check("new1"));
}

TEST_F(FVhashStoreTest, HundredThousandHashesAreEachFoundWithTheirVerdict) {
  constexpr int kCount = 100000;
  std::vector<fv_hash> hashes;
  hashes.reserve(kCount);
  char text[32];
  for (int i = 0; i < kCount; ++i) {
    snprintf(text, sizeof(text), "F1E2D3C4%08X", i);
    hashes.push_back({i % 3 == 0, text});
  }
  ASSERT_EQ(persistence::FVhashStore_Put(hashes), 0);
  EXPECT_EQ(StoredCount(), static_cast<unsigned long>(kCount));

  int wrong = 0;
  for (int i = 0; i < kCount; ++i) {
    snprintf(text, sizeof(text), "f1e2d3c4%08x", i);
    if (persistence::FVhashStore_Check(text) != (i % 3 == 0)) ++wrong;
    bool verdict = i % 3 != 0;
    if (persistence::FVhashStore_GetVerdict(text, &verdict) != 0 || verdict != (i % 3 == 0)) {
      ++wrong;
    }
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_FALSE(persistence::FVhashStore_Check("f1e2d3c4000186a0"));  // one past the end
  EXPECT_THAT(LogLines(), IsEmpty());
}

// Two lists that share some hashes: list A has hashes "a..." and "c..." with
// verdict true, list B hashes "b..." and "c..." with verdict false. Any state
// but exactly A or exactly B is a mix.
class FVhashAtomicityTest : public FVhashStoreTest {
 protected:
  static constexpr int kPerPart = 300;

  static std::vector<fv_hash> List(bool a) {
    std::vector<fv_hash> list;
    for (int i = 0; i < kPerPart; ++i) list.push_back({a, Numbered(a ? "A" : "B", i)});
    for (int i = 0; i < kPerPart; ++i) list.push_back({a, Numbered("C", i)});
    return list;
  }

  static std::string Numbered(const char* prefix, int i) {
    char text[16];
    snprintf(text, sizeof(text), "%s%04d", prefix, i);
    return text;
  }

  // 1 for list A, 2 for list B, 0 for anything else.
  static int Classify(const std::vector<std::string>& keys, const std::vector<Value>& values) {
    if (keys.size() != 2 * kPerPart || values.size() != keys.size()) return 0;
    const bool a = keys.front() == "a0000";
    for (int i = 0; i < kPerPart; ++i) {
      if (keys[i] != Numbered(a ? "a" : "b", i)) return 0;
      if (keys[kPerPart + i] != Numbered("c", i)) return 0;
    }
    for (const Value& value : values) {
      if (value.verdict() != a) return 0;
    }
    return a ? 1 : 2;
  }
};

TEST_F(FVhashAtomicityTest, ReaderSeesTheOldOrTheNewListWholeNeverAMix) {
  // Names in the lists are upper case; the store holds them lower-cased.
  ASSERT_EQ(persistence::FVhashStore_Put(List(true)), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> writes{0};
  std::atomic<int> failed_writes{0};
  std::thread writer([&] {
    for (bool a = false; !stop; a = !a) {
      if (persistence::FVhashStore_Put(List(a)) != 0) ++failed_writes;
      ++writes;
    }
  });

  int seen_a = 0;
  int seen_b = 0;
  int mixed = 0;
  int failed_reads = 0;
  const auto start = std::chrono::steady_clock::now();
  const auto elapsed = [&] { return std::chrono::steady_clock::now() - start; };
  while (elapsed() < std::chrono::seconds(8) &&
         (elapsed() < std::chrono::seconds(2) || seen_a < 3 || seen_b < 3)) {
    std::vector<std::string> keys;
    std::vector<Value> values;
    if (persistence::FVhashStore_Dump(&keys, &values).code != 0) {
      ++failed_reads;
      continue;
    }
    switch (Classify(keys, values)) {
      case 1:
        ++seen_a;
        break;
      case 2:
        ++seen_b;
        break;
      default:
        ++mixed;
    }
    // A single read of two records sees one list too: an "a" hash found
    // means its shared "c" hash carries verdict true.
    std::vector<Value> pair;
    const Status status = persistence::FVhashStore_Get({"a0007", "c0123"}, &pair);
    if (status.code == 0) {
      if (pair.size() != 2 || !pair[0].verdict() || !pair[1].verdict()) ++mixed;
    } else if (status.code != 3) {
      ++failed_reads;
    }
  }
  stop = true;
  writer.join();

  // How much happened, for the XML report.
  RecordProperty("writes", writes.load());
  RecordProperty("seen_a", seen_a);
  RecordProperty("seen_b", seen_b);
  EXPECT_EQ(mixed, 0);
  EXPECT_EQ(failed_reads, 0);
  EXPECT_EQ(failed_writes, 0);
  EXPECT_GE(writes, 2);
  EXPECT_GE(seen_a, 1);
  EXPECT_GE(seen_b, 1);
  EXPECT_THAT(LogLines(), IsEmpty());
}

}  // namespace
}  // namespace stores_testing
