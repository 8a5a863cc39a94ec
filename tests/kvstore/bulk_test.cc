// Writes of many records: multi-key Put and Delete, the atomic replacements,
// Clear and Import. Everything is encoded before one engine write, and a bad
// element means no write at all.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvstore/kvstore_test_util.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/log_capture.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace kvstore_test {
namespace {

using testing_support::FaultEnv;
using testing_support::LogCapture;
using testing_support::ScopedTestEnv;
using testing_support::StderrCapture;
using testing_support::TempDir;
using testing_support::TestClock;

std::map<std::string, std::string> Contents(TestStringStore& store) {
  std::vector<std::string> keys;
  std::vector<Value> values;
  EXPECT_EQ(store.Dump(&keys, &values, nullptr), Ok());
  std::map<std::string, std::string> contents;
  for (size_t i = 0; i < keys.size(); ++i) contents[keys[i]] = values[i].text();
  return contents;
}

std::vector<std::pair<int32_t, std::string>> Contents(TestKeyedStore& store) {
  std::vector<Key> keys;
  std::vector<Value> values;
  EXPECT_EQ(store.Dump(&keys, &values, nullptr), Ok());
  std::vector<std::pair<int32_t, std::string>> contents;
  for (size_t i = 0; i < keys.size(); ++i) contents.emplace_back(keys[i].id(), values[i].text());
  return contents;
}

std::vector<Value> Values(const std::vector<std::string>& texts) {
  std::vector<Value> values;
  for (const std::string& text : texts) values.push_back(MakeValue(text));
  return values;
}

class KVStoreBulk : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(store_.Open(dir_.Sub("db"), true), Ok());
    ASSERT_EQ(store_.Put({"a", "b"}, Values({"A", "B"}), false), Ok());
    ASSERT_EQ(keyed_.Open(dir_.Sub("keyed"), true), Ok());
    ASSERT_EQ(keyed_.Put({MakeKey("", 1), MakeKey("", 2)}, Values({"one", "two"}), false), Ok());
  }

  const std::map<std::string, std::string> kBefore = {{"a", "A"}, {"b", "B"}};
  const std::vector<std::pair<int32_t, std::string>> kKeyedBefore = {{1, "one"}, {2, "two"}};

  TestClock clock_;
  TempDir dir_;
  TestStringStore store_;
  TestKeyedStore keyed_;
};

// --- Put and Delete of many keys ---------------------------------------------------

TEST_F(KVStoreBulk, PutOfTenWithTheSixthUnencodableWritesNothing) {
  std::vector<std::string> keys;
  std::vector<Value> values;
  for (int i = 0; i < 10; ++i) {
    keys.push_back("n" + std::to_string(i));
    values.push_back(i == 5 ? BadValue() : MakeValue("x"));
  }
  StderrCapture err;
  EXPECT_EQ(store_.Put(keys, values, true),
            St(1, "Not implemented: values: Failed serializing values"));
  EXPECT_TRUE(WithoutProtobufLines(err.Lines()).empty());
  EXPECT_EQ(Contents(store_), kBefore);
  EXPECT_EQ(store_.reopen_calls.load(), 0);
}

TEST_F(KVStoreBulk, PutAppliesPairsInTheirOrder) {
  EXPECT_EQ(store_.Put({"c", "a", "c"}, Values({"C1", "A2", "C2"}), false), Ok());
  EXPECT_EQ(Contents(store_),
            (std::map<std::string, std::string>{{"a", "A2"}, {"b", "B"}, {"c", "C2"}}));
}

TEST_F(KVStoreBulk, StringKeysAndValuesOfDifferentLengthsReachTheHandle) {
  // The surplus of the longer vector is dropped there, without a word.
  EXPECT_EQ(store_.Put({"c", "d", "e"}, Values({"C", "D"}), false), Ok());
  EXPECT_EQ(store_.Put({"f"}, Values({"F", "G"}), false), Ok());
  EXPECT_EQ(Contents(store_), (std::map<std::string, std::string>{
                                  {"a", "A"}, {"b", "B"}, {"c", "C"}, {"d", "D"}, {"f", "F"}}));
}

TEST_F(KVStoreBulk, DeleteRemovesTheGivenKeys) {
  EXPECT_EQ(store_.Delete(std::vector<std::string>{"a", "absent"}, false), Ok());
  EXPECT_EQ(Contents(store_), (std::map<std::string, std::string>{{"b", "B"}}));
  EXPECT_EQ(keyed_.Delete({MakeKey("", 2)}, true), Ok());
  EXPECT_EQ(Contents(keyed_), (std::vector<std::pair<int32_t, std::string>>{{1, "one"}}));
}

TEST_F(KVStoreBulk, EmptyVectorsAreNotLookedAtAndReachTheEngine) {
  EXPECT_EQ(store_.Put(std::vector<std::string>{}, std::vector<Value>{}, false), Ok());
  EXPECT_EQ(store_.Delete(std::vector<std::string>{}, false), Ok());
  EXPECT_EQ(keyed_.Put(std::vector<Key>{}, std::vector<Value>{}, false), Ok());
  EXPECT_EQ(keyed_.Delete(std::vector<Key>{}, false), Ok());
  EXPECT_EQ(Contents(store_), kBefore);
}

TEST(KVStoreBulkEngine, EmptyBatchesAreWrittenByTheEngine) {
  // With writes failing, an empty batch fails too: it was handed down.
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FaultEnv env;
  env.only_files = ".log";
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  const auto logs = testing_support::FilesWithSuffix(path, ".log");
  ASSERT_EQ(logs.size(), 1u);
  env.fail_writes = true;
  const Status failure = St(5, "IO error: " + path + "/" + logs[0] + ": injected write failure");
  StderrCapture err;
  EXPECT_EQ(store.Put(std::vector<std::string>{}, std::vector<Value>{}, false), failure);
  EXPECT_EQ(store.Delete(std::vector<std::string>{}, false), failure);
  EXPECT_EQ(store.Clear(false), failure);
  const auto lines = err.Lines();
  ASSERT_EQ(lines.size(), 12u);
  // Each failed write is reported by the batch and by the operation.
  EXPECT_EQ(lines[0], "persistence::DB: " + path + ": WriteBatch: " + failure.message);
  EXPECT_EQ(lines[2], "persistence::DB: " + path + ": Put: " + failure.message);
  EXPECT_EQ(lines[4], "persistence::DB: " + path + ": WriteBatch: " + failure.message);
  EXPECT_EQ(lines[6], "persistence::DB: " + path + ": Delete: " + failure.message);
  EXPECT_EQ(lines[8], "persistence::DB: " + path + ": WriteBatch: " + failure.message);
  EXPECT_EQ(lines[10], "persistence::DB: " + path + ": AtomicClearAndPut: " + failure.message);
  for (size_t i = 1; i < lines.size(); i += 2) {
    EXPECT_TRUE(IsDbCheckLine(lines[i], "status.ok()", "status.cond()"));
  }
  // Within the delay, the failures reach Reopen and are refused there.
  EXPECT_EQ(store.reopen_calls.load(), 3);
}

TEST_F(KVStoreBulk, MessageKeysThatWontEncodeAreRefused) {
  EXPECT_EQ(keyed_.Put({MakeKey("", 3), BadKey()}, Values({"x", "y"}), false),
            St(1, "Not implemented: keys: Failed serializing keys"));
  EXPECT_EQ(keyed_.Delete({MakeKey("", 1), BadKey()}, false),
            St(1, "Not implemented: keys: Failed serializing keys"));
  // A bad value is reported before a bad key.
  EXPECT_EQ(keyed_.Put(std::vector<Key>{BadKey()}, std::vector<Value>{BadValue()}, false),
            St(1, "Not implemented: values: Failed serializing values"));
  EXPECT_EQ(Contents(keyed_), kKeyedBefore);
}

// --- Atomic replacements ------------------------------------------------------------

TEST_F(KVStoreBulk, AtomicDeleteAndPutDeletesFirstThenPuts) {
  EXPECT_EQ(store_.AtomicDeleteAndPut({"a", "b"}, {"b", "c"}, Values({"B2", "C"}), false), Ok());
  EXPECT_EQ(Contents(store_), (std::map<std::string, std::string>{{"b", "B2"}, {"c", "C"}}));
}

TEST_F(KVStoreBulk, AtomicDeleteAndPutReportsTheValueBeforeAnyKey) {
  EXPECT_EQ(keyed_.AtomicDeleteAndPut({BadKey()}, {BadKey()}, {BadValue()}, false),
            St(1, "Not implemented: put_values: Failed serializing values"));
  EXPECT_EQ(store_.AtomicDeleteAndPut({"a"}, {"c", "d"}, {MakeValue("C"), BadValue()}, false),
            St(1, "Not implemented: put_values: Failed serializing values"));
  EXPECT_EQ(Contents(keyed_), kKeyedBefore);
  EXPECT_EQ(Contents(store_), kBefore);
}

TEST_F(KVStoreBulk, AtomicDeleteAndPutReportsKeysToDeleteBeforeKeysToPut) {
  EXPECT_EQ(keyed_.AtomicDeleteAndPut({MakeKey("", 1), BadKey()}, {BadKey()}, Values({"x"}), false),
            St(1, "Not implemented: del_keys: Failed serializing keys to delete"));
  EXPECT_EQ(keyed_.AtomicDeleteAndPut({MakeKey("", 1)}, {MakeKey("", 5), BadKey()},
                                      Values({"x", "y"}), false),
            St(1, "Not implemented: put_keys: Failed serializing keys to put"));
  EXPECT_EQ(Contents(keyed_), kKeyedBefore);
}

TEST_F(KVStoreBulk, AtomicDeleteAndPutWithAnEmptyPutKeyWritesNothing) {
  StderrCapture err;
  EXPECT_EQ(store_.AtomicDeleteAndPut({"a"}, {"c", ""}, Values({"C", "E"}), false),
            St(2, "Invalid argument: put_key: empty"));
  EXPECT_EQ(Contents(store_), kBefore);
  // An argument refusal is no sign of damage.
  EXPECT_EQ(store_.reopen_calls.load(), 0);
  const auto lines = err.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(IsDbCheckLine(lines[0], "!key.empty()", "!key.empty()"));
  EXPECT_EQ(lines[1], "persistence::DB: " + dir_.Sub("db") +
                          ": AtomicDeleteAndPut: Invalid argument: put_key: empty");
  EXPECT_TRUE(IsDbCheckLine(lines[2], "status.ok()", "status.cond()"));
}

TEST_F(KVStoreBulk, AtomicClearAndPutReplacesEverything) {
  EXPECT_EQ(store_.AtomicClearAndPut({"b", "z"}, Values({"B2", "Z"}), true), Ok());
  EXPECT_EQ(Contents(store_), (std::map<std::string, std::string>{{"b", "B2"}, {"z", "Z"}}));
  EXPECT_EQ(keyed_.AtomicClearAndPut({MakeKey("", 7)}, Values({"seven"}), false), Ok());
  EXPECT_EQ(Contents(keyed_), (std::vector<std::pair<int32_t, std::string>>{{7, "seven"}}));
  // With nothing to put it is Clear.
  EXPECT_EQ(store_.AtomicClearAndPut({}, {}, false), Ok());
  EXPECT_TRUE(Contents(store_).empty());
}

TEST_F(KVStoreBulk, AtomicClearAndPutWithABadElementLeavesTheStoreAsItWas) {
  EXPECT_EQ(store_.AtomicClearAndPut({"x", "y"}, {MakeValue("X"), BadValue()}, false),
            St(1, "Not implemented: put_values: Failed serializing values"));
  EXPECT_EQ(keyed_.AtomicClearAndPut({MakeKey("", 3), BadKey()}, Values({"x", "y"}), false),
            St(1, "Not implemented: put_keys: Failed serializing keys to put"));
  EXPECT_EQ(keyed_.AtomicClearAndPut({BadKey()}, {BadValue()}, false),
            St(1, "Not implemented: put_values: Failed serializing values"));
  EXPECT_EQ(Contents(store_), kBefore);
  EXPECT_EQ(Contents(keyed_), kKeyedBefore);
}

TEST_F(KVStoreBulk, ClearEmptiesTheStore) {
  EXPECT_EQ(store_.Clear(true), Ok());
  EXPECT_TRUE(Contents(store_).empty());
  bool empty = false;
  EXPECT_EQ(store_.Empty(&empty, nullptr), Ok());
  EXPECT_TRUE(empty);
}

TEST(KVStoreClear, ClosedStoreGoesThroughTheOpenGate) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), true), Ok());
  store.Close();
  LogCapture log(kLoggerName);
  EXPECT_EQ(store.Clear(false), Refused());
  EXPECT_TRUE(log.lines().empty());
  clock.Advance(kReopenDelay);
  EXPECT_EQ(store.Clear(false), Ok());
  EXPECT_EQ(Summary(log), (std::vector<std::string>{Line(5, "Reopening the database..."),
                                                    Line(5, "Database reopened successfully!")}));
  uint64_t count = 9;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 0u);
}

TEST(KVStoreBulkEngine, FailedBulkWriteReopensAndIsNotRepeated) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FaultEnv env;
  env.only_files = ".log";
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  const auto logs = testing_support::FilesWithSuffix(path, ".log");
  ASSERT_EQ(logs.size(), 1u);
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  env.disk_full = true;
  EXPECT_EQ(store.Put({"a", "b"}, Values({"A", "B"}), false),
            St(5, "IO error: " + path + "/" + logs[0] + ": No space left on device"));
  env.disk_full = false;
  EXPECT_EQ(Summary(log), (std::vector<std::string>{Line(5, "Reopening the database..."),
                                                    Line(5, "Database reopened successfully!")}));
  uint64_t count = 9;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 0u);
}

// --- Import -------------------------------------------------------------------------

proto::Testing::Data MakeData(const std::vector<std::pair<std::string, std::string>>& entries) {
  proto::Testing::Data data;
  for (const auto& [key, text] : entries) {
    auto* entry = data.add_entries();
    entry->set_key(key);
    *entry->mutable_value() = MakeValue(text);
  }
  return data;
}

TEST_F(KVStoreBulk, ImportReplacesTheWholeStore) {
  const proto::Testing::Data data = MakeData({{"x", "X"}, {"a", "A2"}});
  StderrCapture err;
  EXPECT_EQ(store_.Import(&data), Ok());
  EXPECT_EQ(err.Text(), "");
  EXPECT_EQ(Contents(store_), (std::map<std::string, std::string>{{"a", "A2"}, {"x", "X"}}));
}

TEST(KVStoreImport, EntryWithoutValueStoresTheEmptyEncoding) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  {
    TestStringStore store;
    ASSERT_EQ(store.Open(path, true), Ok());
    proto::Testing::Data data;
    data.add_entries()->set_key("bare");
    EXPECT_EQ(store.Import(&data), Ok());
    Value value = MakeValue("stale");
    EXPECT_EQ(store.Get("bare", &value, nullptr), Ok());
    EXPECT_EQ(value.ByteSizeLong(), 0u);
  }
  EXPECT_EQ(ReadRaw(path), (std::map<std::string, std::string>{{"bare", ""}}));
}

TEST_F(KVStoreBulk, ImportOfAnEntryWithoutKeyIsRefusedWhole) {
  proto::Testing::Data data = MakeData({{"x", "X"}});
  *data.add_entries()->mutable_value() = MakeValue("keyless");
  StderrCapture err;
  EXPECT_EQ(store_.Import(&data), St(2, "Invalid argument: put_key: empty"));
  const auto lines = err.Lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(IsDbCheckLine(lines[0], "!key.empty()", "!key.empty()"));
  EXPECT_EQ(lines[1], "persistence::DB: " + dir_.Sub("db") +
                          ": AtomicClearAndPut: Invalid argument: put_key: empty");
  EXPECT_TRUE(IsDbCheckLine(lines[2], "status.ok()", "status.cond()"));
  EXPECT_EQ(lines[3], "Failed to write data");
  EXPECT_EQ(Contents(store_), kBefore);
}

TEST_F(KVStoreBulk, KeyedImportOfAnEntryWithoutKeyPassesTheEmptyKey) {
  proto::Testing::KeyedData data;
  *data.add_entries()->mutable_value() = MakeValue("keyless");
  StderrCapture err;
  EXPECT_EQ(keyed_.Import(&data), St(2, "Invalid argument: put_key: empty"));
  EXPECT_EQ(err.Lines().back(), "Failed to write data");
  EXPECT_EQ(Contents(keyed_), kKeyedBefore);
  proto::Testing::KeyedData good;
  auto* entry = good.add_entries();
  *entry->mutable_key() = MakeKey("", 9);
  *entry->mutable_value() = MakeValue("nine");
  EXPECT_EQ(keyed_.Import(&good), Ok());
  EXPECT_EQ(Contents(keyed_), (std::vector<std::pair<int32_t, std::string>>{{9, "nine"}}));
}

TEST_F(KVStoreBulk, ImportWithoutEntriesIsRefusedSilently) {
  const proto::Testing::Data data;
  StderrCapture err;
  EXPECT_EQ(store_.Import(&data), St(2, "Received empty keys or values vector"));
  EXPECT_EQ(err.Text(), "");
  EXPECT_EQ(Contents(store_), kBefore);
}

TEST_F(KVStoreBulk, ImportWithAnUnencodableValueReportsTheEncodingFailure) {
  proto::Testing::Data data = MakeData({{"x", "X"}});
  auto* entry = data.add_entries();
  entry->set_key("y");
  *entry->mutable_value() = BadValue();
  StderrCapture err;
  EXPECT_EQ(store_.Import(&data), St(1, "Not implemented: put_values: Failed serializing values"));
  EXPECT_EQ(WithoutProtobufLines(err.Lines()), (std::vector<std::string>{"Failed to write data"}));
  EXPECT_EQ(Contents(store_), kBefore);
}

TEST(KVStoreImport, FailureAtTheHandlePrintsAndKeepsTheRecords) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FaultEnv env;
  env.only_files = ".log";
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  ASSERT_EQ(store.Put("old", MakeValue("O"), true), Ok());
  const auto logs = testing_support::FilesWithSuffix(path, ".log");
  ASSERT_EQ(logs.size(), 1u);
  env.disk_full = true;
  const proto::Testing::Data data = MakeData({{"new", "N"}});
  StderrCapture err;
  const Status failure = St(5, "IO error: " + path + "/" + logs[0] + ": No space left on device");
  EXPECT_EQ(store.Import(&data), failure);
  const auto lines = err.Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "Failed to write data");
  EXPECT_EQ(lines[lines.size() - 3],
            "persistence::DB: " + path + ": AtomicClearAndPut: " + failure.message);
  env.disk_full = false;
  EXPECT_EQ(Contents(store), (std::map<std::string, std::string>{{"old", "O"}}));
}

// Import hands its vectors to the virtual AtomicClearAndPut.
class RecordingStore : public TestStringStore {
 public:
  Status AtomicClearAndPut(const std::vector<std::string>& keys, const std::vector<Value>& values,
                           bool sync) override {
    seen_keys = keys;
    seen_values = values;
    seen_sync = sync;
    return St(4, "Corruption: from the override");
  }
  std::vector<std::string> seen_keys;
  std::vector<Value> seen_values;
  bool seen_sync = false;
};

TEST(KVStoreImport, GoesThroughTheVirtualAtomicClearAndPutSynchronously) {
  TestClock clock;
  RecordingStore store;  // never opened: Import itself passes no open gate
  proto::Testing::Data data = MakeData({{"b", "B"}, {"a", "A"}});
  data.add_entries()->set_key("c");
  StderrCapture err;
  EXPECT_EQ(store.Import(&data), St(4, "Corruption: from the override"));
  EXPECT_EQ(err.Lines(), (std::vector<std::string>{"Failed to write data"}));
  EXPECT_EQ(store.seen_keys, (std::vector<std::string>{"b", "a", "c"}));
  ASSERT_EQ(store.seen_values.size(), 3u);
  EXPECT_EQ(store.seen_values[0].text(), "B");
  EXPECT_EQ(store.seen_values[1].text(), "A");
  EXPECT_EQ(store.seen_values[2].ByteSizeLong(), 0u);
  EXPECT_TRUE(store.seen_sync);
  EXPECT_EQ(store.reopen_calls.load(), 0);
}

}  // namespace
}  // namespace kvstore_test
