// Reads of many records: multi-key Get, dumps, counts, pages, walks, Empty
// and snapshots, and what each does with a record that does not decode.
#include <gtest/gtest.h>

#include <google/protobuf/util/message_differencer.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "kvstore/kvstore_test_util.h"
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

constexpr uint64_t kAll = ~uint64_t{0};

std::vector<std::string> Texts(const std::vector<Value>& values) {
  std::vector<std::string> texts;
  for (const Value& value : values) texts.push_back(value.text());
  return texts;
}

using Strings = std::vector<std::string>;

// A store of the records a..e, with values "A".."E".
class KVStoreRange : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(store_.Open(dir_.Sub("db"), true), Ok());
    for (const char* key : {"c", "a", "e", "b", "d"}) {
      ASSERT_EQ(store_.Put(key, MakeValue(std::string(1, key[0] - 'a' + 'A')), false), Ok());
    }
  }

  TestClock clock_;
  TempDir dir_;
  TestStringStore store_;
};

// --- Dumps and counts --------------------------------------------------------------

TEST(KVStoreDump, EmptyStoreGivesCodeZeroAndClearsBothVectors) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  Strings keys = {"stale"};
  std::vector<Value> values = {MakeValue("stale")};
  EXPECT_EQ(store.Dump(&keys, &values, nullptr), Ok());
  EXPECT_TRUE(keys.empty());
  EXPECT_TRUE(values.empty());
}

TEST_F(KVStoreRange, DumpGivesEveryRecordInKeyOrder) {
  Strings keys;
  std::vector<Value> values;
  EXPECT_EQ(store_.Dump(&keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"a", "b", "c", "d", "e"}));
  EXPECT_EQ(Texts(values), (Strings{"A", "B", "C", "D", "E"}));
}

TEST_F(KVStoreRange, DumpRangeStartIsInclusiveLimitExclusive) {
  Strings keys;
  std::vector<Value> values;
  EXPECT_EQ(store_.DumpRange("b", "d", &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"b", "c"}));
  EXPECT_EQ(Texts(values), (Strings{"B", "C"}));
  EXPECT_EQ(store_.DumpRange("bb", StringStore::NullKey(), &keys, nullptr, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"c", "d", "e"}));
  EXPECT_EQ(store_.DumpRange("c", "c", &keys, &values, nullptr), Ok());
  EXPECT_TRUE(keys.empty());
  EXPECT_TRUE(values.empty());
}

TEST_F(KVStoreRange, CountAndCountRange) {
  uint64_t count = 99;
  EXPECT_EQ(store_.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 5u);
  EXPECT_EQ(store_.CountRange("a", "c", &count, nullptr), Ok());
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(store_.CountRange(StringStore::NullKey(), "d", &count, nullptr), Ok());
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(store_.CountRange("d", StringStore::NullKey(), &count, nullptr), Ok());
  EXPECT_EQ(count, 2u);
}

// Records the bounds Count hands to the virtual CountImpl.
template <typename Base>
class BoundRecorder : public Base {
 public:
  using KeyType = std::decay_t<decltype(Base::NullKey())>;
  std::vector<KeyType> starts;
  std::vector<KeyType> limits;

 protected:
  Status CountImpl(const KeyType& start, const KeyType& limit, uint64_t* count,
                   typename Base::SnapshotHandle snapshot) override {
    starts.push_back(start);
    limits.push_back(limit);
    return Base::CountImpl(start, limit, count, snapshot);
  }
};

TEST(KVStoreCount, PassesTheNullKeyBothWaysToCountImpl) {
  TestClock clock;
  TempDir dir;
  BoundRecorder<TestStringStore> store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  uint64_t count = 9;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(store.starts, (Strings{StringStore::NullKey()}));
  EXPECT_EQ(store.limits, (Strings{StringStore::NullKey()}));

  BoundRecorder<TestKeyedStore> keyed;
  ASSERT_EQ(keyed.Open(dir.Sub("keyed"), true), Ok());
  EXPECT_EQ(keyed.Count(&count, nullptr), Ok());
  ASSERT_EQ(keyed.starts.size(), 1u);
  EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(keyed.starts[0], Key()));
  EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(keyed.limits[0], Key()));
}

TEST(KVStoreCount, MessageKeyWithAllFieldsAtDefaultIsAnOpenEnd) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  for (int id : {1, 2, 3, 4}) ASSERT_EQ(store.Put(MakeKey("", id), MakeValue("v"), false), Ok());
  uint64_t count = 0;
  EXPECT_EQ(store.CountRange(Key(), MakeKey("", 3), &count, nullptr), Ok());
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(store.CountRange(MakeKey("", 2), Key(), &count, nullptr), Ok());
  EXPECT_EQ(count, 3u);
  std::vector<Key> keys;
  EXPECT_EQ(store.DumpRange(MakeKey("", 2), MakeKey("", 4), &keys, nullptr, nullptr), Ok());
  ASSERT_EQ(keys.size(), 2u);
  EXPECT_EQ(keys[0].id(), 2);
  EXPECT_EQ(keys[1].id(), 3);
}

TEST(KVStoreCount, BoundsThatWontEncodeAreRefused) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  ASSERT_EQ(store.Put(MakeKey("", 1), MakeValue("v"), false), Ok());
  uint64_t count = 7;
  std::vector<Key> keys = {MakeKey("stale", 1)};
  const Status bad_start = St(1, "Not implemented: key_start: SerializeToString");
  const Status bad_limit = St(1, "Not implemented: key_limit: SerializeToString");
  EXPECT_EQ(store.CountRange(BadKey(), Key(), &count, nullptr), bad_start);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(store.CountRange(Key(), BadKey(), &count, nullptr), bad_limit);
  EXPECT_EQ(store.CountRange(BadKey(), BadKey(), &count, nullptr), bad_start);
  EXPECT_EQ(store.DumpRange(BadKey(), Key(), &keys, nullptr, nullptr), bad_start);
  EXPECT_TRUE(keys.empty());
  EXPECT_EQ(store.DumpRange(MakeKey("", 1), BadKey(), &keys, nullptr, nullptr), bad_limit);
}

// --- Pages ---------------------------------------------------------------------------

TEST_F(KVStoreRange, ReadIntervalCountsPositionsFromOne) {
  Strings keys;
  std::vector<Value> values;
  EXPECT_EQ(store_.ReadInterval(1, 2, &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"a", "b"}));
  EXPECT_EQ(Texts(values), (Strings{"A", "B"}));
  EXPECT_EQ(store_.ReadInterval(0, 2, &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"a", "b"}));
  EXPECT_EQ(store_.ReadInterval(3, 2, &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"c", "d"}));
  EXPECT_EQ(Texts(values), (Strings{"C", "D"}));
  EXPECT_EQ(store_.ReadInterval(4, kAll, &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"d", "e"}));
  EXPECT_EQ(store_.ReadInterval(6, 1, &keys, &values, nullptr), Ok());
  EXPECT_TRUE(keys.empty());
}

TEST_F(KVStoreRange, ReadIntervalOfCountZeroGivesNothing) {
  Strings keys = {"stale"};
  std::vector<Value> values = {MakeValue("stale")};
  EXPECT_EQ(store_.ReadInterval(1, 0, &keys, &values, nullptr), Ok());
  EXPECT_TRUE(keys.empty());
  EXPECT_TRUE(values.empty());
}

TEST_F(KVStoreRange, ReadReverseIntervalWalksFromTheLastRecord) {
  Strings keys;
  std::vector<Value> values;
  EXPECT_EQ(store_.ReadReverseInterval(0, 1, &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"e"}));
  EXPECT_EQ(Texts(values), (Strings{"E"}));
  EXPECT_EQ(store_.ReadReverseInterval(1, 2, &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"e", "d"}));
  EXPECT_EQ(store_.ReadReverseInterval(4, kAll, &keys, nullptr, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"b", "a"}));
}

TEST_F(KVStoreRange, ReadIntervalWithoutValuesGivesKeysOnly) {
  Strings keys;
  EXPECT_EQ(store_.ReadInterval(2, 2, &keys, nullptr, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"b", "c"}));
}

TEST_F(KVStoreRange, ReadDataIntervalAppendsPagesToTheBulkMessage) {
  proto::Testing::Data data;
  EXPECT_EQ(store_.ReadDataInterval(1, 2, &data), Ok());
  EXPECT_EQ(store_.ReadDataInterval(4, 5, &data), Ok());
  ASSERT_EQ(data.entries_size(), 4);
  const Strings expected_keys = {"a", "b", "d", "e"};
  const Strings expected_texts = {"A", "B", "D", "E"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(data.entries(i).key(), expected_keys[i]);
    EXPECT_EQ(data.entries(i).value().text(), expected_texts[i]);
  }
}

TEST(KVStoreReadDataInterval, KeyedPageFillsMessageKeys) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  ASSERT_EQ(store.Put(MakeKey("m", 2), MakeValue("two"), false), Ok());
  ASSERT_EQ(store.Put(MakeKey("m", 1), MakeValue("one"), false), Ok());
  proto::Testing::KeyedData data;
  EXPECT_EQ(store.ReadDataInterval(0, kAll, &data), Ok());
  ASSERT_EQ(data.entries_size(), 2);
  EXPECT_EQ(data.entries(0).key().id(), 1);
  EXPECT_EQ(data.entries(0).key().name(), "m");
  EXPECT_EQ(data.entries(1).value().text(), "two");
}

TEST(KVStoreReadDataInterval, FailureIsLoggedAndLeavesDataUntouched) {
  TestClock clock;
  TestStringStore store;  // closed, within the delay
  LogCapture log(kLoggerName);
  proto::Testing::Data data;
  data.add_entries()->set_key("kept");
  EXPECT_EQ(store.ReadDataInterval(0, kAll, &data), Refused());
  ASSERT_EQ(data.entries_size(), 1);
  EXPECT_EQ(data.entries(0).key(), "kept");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsStoreLine(lines[0], 3, "status code=5 message=", ""));
}

// --- Multi-key Get -------------------------------------------------------------------

TEST_F(KVStoreRange, MultiKeyGetMatchesKeysOneToOne) {
  std::vector<Value> values = {MakeValue("stale")};
  EXPECT_EQ(store_.Get(Strings{"d", "a", "d"}, &values, nullptr), Ok());
  EXPECT_EQ(Texts(values), (Strings{"D", "A", "D"}));
  EXPECT_EQ(store_.Get(Strings{}, &values, nullptr), Ok());
  EXPECT_TRUE(values.empty());
}

TEST_F(KVStoreRange, MultiKeyGetWithAnAbsentKeyFailsWhole) {
  std::vector<Value> values = {MakeValue("stale")};
  EXPECT_EQ(store_.Get(Strings{"a", "x", "b"}, &values, nullptr), St(3, "NotFound: "));
  EXPECT_TRUE(values.empty());
  EXPECT_EQ(store_.reopen_calls.load(), 0);
}

TEST(KVStoreMultiGet, KeyThatWontEncodeIsRefused) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  ASSERT_EQ(store.Put(MakeKey("", 1), MakeValue("one"), false), Ok());
  std::vector<Value> values = {MakeValue("stale")};
  EXPECT_EQ(store.Get(std::vector<Key>{MakeKey("", 1), BadKey()}, &values, nullptr),
            St(1, "Not implemented: keys: Failed serializing keys"));
  EXPECT_TRUE(values.empty());
  EXPECT_EQ(store.Get(std::vector<Key>{MakeKey("", 1)}, &values, nullptr), Ok());
  EXPECT_EQ(Texts(values), (Strings{"one"}));
}

// --- Null out-parameters ---------------------------------------------------------------

TEST_F(KVStoreRange, NullOutParametersAreRefusedWithACheckLineOfTheirSite) {
  LogCapture log(kLoggerName);
  std::vector<Value> values;
  EXPECT_EQ(store_.Dump(nullptr, &values, nullptr), St(2, "Invalid argument: keys: nullptr"));
  EXPECT_EQ(store_.Count(nullptr, nullptr), St(2, "Invalid argument: count: nullptr"));
  EXPECT_EQ(store_.ReadInterval(0, 1, nullptr, &values, nullptr),
            St(2, "Invalid argument: keys: nullptr"));
  EXPECT_EQ(store_.Get(Strings{"a"}, nullptr, nullptr), St(2, "Invalid argument: values: nullptr"));
  // Empty has no check of its own: the handle refuses, and nothing is logged.
  EXPECT_EQ(store_.Empty(nullptr, nullptr), St(2, "Invalid argument: is_empty: nullptr"));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(IsCheckLine(lines[0], "keys", "keys is nullptr", "DumpImpl"));
  EXPECT_TRUE(IsCheckLine(lines[1], "count", "count is nullptr", "CountImpl"));
  EXPECT_TRUE(IsCheckLine(lines[2], "keys", "keys is nullptr", "ReadImpl"));
  EXPECT_TRUE(IsCheckLine(lines[3], "values", "values is nullptr", "Get"));
  EXPECT_EQ(store_.reopen_calls.load(), 0);
}

TEST_F(KVStoreRange, NullSnapshotPointersAreCheckedAtTwoRateLimitedSites) {
  LogCapture log(kLoggerName);
  const Status refused = St(2, "Invalid argument: snapshot: nullptr");
  EXPECT_EQ(store_.CreateSnapshot(nullptr), refused);
  EXPECT_EQ(store_.ReleaseSnapshot(nullptr), refused);
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(IsCheckLine(lines[0], "snapshot", "snapshot is nullptr", "CreateSnapshot"));
  EXPECT_TRUE(IsCheckLine(lines[1], "snapshot", "snapshot is nullptr", "ReleaseSnapshot"));
  EXPECT_NE(lines[0].line, lines[1].line);
  // Each site is silent for 600 seconds after its line, and no longer.
  clock_.Advance(std::chrono::seconds(600));
  EXPECT_EQ(store_.CreateSnapshot(nullptr), refused);
  EXPECT_EQ(log.lines().size(), 2u);
  clock_.Advance(std::chrono::nanoseconds(1));
  EXPECT_EQ(store_.CreateSnapshot(nullptr), refused);
  EXPECT_EQ(store_.CreateSnapshot(nullptr), refused);
  lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(IsCheckLine(lines[2], "snapshot", "snapshot is nullptr", "CreateSnapshot"));
}

// --- Walks -------------------------------------------------------------------------------

TEST_F(KVStoreRange, IterateWalksInKeyOrderAndReverseIterateBackwards) {
  Strings seen;
  const auto record = [&seen](std::string key, Value value) {
    seen.push_back(key + "=" + value.text());
    return true;
  };
  EXPECT_EQ(store_.Iterate(record, nullptr), Ok());
  EXPECT_EQ(seen, (Strings{"a=A", "b=B", "c=C", "d=D", "e=E"}));
  seen.clear();
  EXPECT_EQ(store_.ReverseIterate(record, nullptr), Ok());
  EXPECT_EQ(seen, (Strings{"e=E", "d=D", "c=C", "b=B", "a=A"}));
}

TEST_F(KVStoreRange, CallbackReturningFalseStopsAfterOneCall) {
  int calls = 0;
  EXPECT_EQ(store_.Iterate(
                [&calls](std::string, Value) {
                  ++calls;
                  return false;
                },
                nullptr),
            Ok());
  EXPECT_EQ(calls, 1);
}

TEST_F(KVStoreRange, ExceptionFromTheCallbackPassesAndReleasesTheLock) {
  EXPECT_THROW(
      store_.Iterate([](std::string, Value) -> bool { throw std::runtime_error("cb"); }, nullptr),
      std::runtime_error);
  ASSERT_TRUE(store_.mutex().try_lock());
  store_.mutex().unlock();
  uint64_t count = 0;
  EXPECT_EQ(store_.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 5u);
}

TEST(KVStoreIterate, KeyedWalkDecodesKeys) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), false), Ok());
  ASSERT_EQ(store.Put(MakeKey("x", 2), MakeValue("two"), false), Ok());
  ASSERT_EQ(store.Put(MakeKey("x", 1), MakeValue("one"), false), Ok());
  Strings seen;
  EXPECT_EQ(store.ReverseIterate(
                [&seen](Key key, Value value) {
                  seen.push_back(key.name() + std::to_string(key.id()) + "=" + value.text());
                  return true;
                },
                nullptr),
            Ok());
  EXPECT_EQ(seen, (Strings{"x2=two", "x1=one"}));
}

// --- Empty and snapshots ----------------------------------------------------------------

TEST(KVStoreEmpty, TellsWhetherAnyRecordIsThere) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  bool empty = false;
  EXPECT_EQ(store.Empty(&empty, nullptr), Ok());
  EXPECT_TRUE(empty);
  const void* snapshot = nullptr;
  ASSERT_EQ(store.CreateSnapshot(&snapshot), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), false), Ok());
  EXPECT_EQ(store.Empty(&empty, nullptr), Ok());
  EXPECT_FALSE(empty);
  EXPECT_EQ(store.Empty(&empty, snapshot), Ok());
  EXPECT_TRUE(empty);
  EXPECT_EQ(store.ReleaseSnapshot(snapshot), Ok());
}

TEST_F(KVStoreRange, SnapshotKeepsTheStateItWasTakenIn) {
  const void* snapshot = reinterpret_cast<const void*>(0x1);
  ASSERT_EQ(store_.CreateSnapshot(&snapshot), Ok());
  ASSERT_NE(snapshot, nullptr);
  ASSERT_EQ(store_.Put("a", MakeValue("A2"), false), Ok());
  ASSERT_EQ(store_.Put("f", MakeValue("F"), false), Ok());
  ASSERT_EQ(store_.Delete("b", false), Ok());
  Value value;
  EXPECT_EQ(store_.Get("a", &value, snapshot), Ok());
  EXPECT_EQ(value.text(), "A");
  EXPECT_EQ(store_.Get("a", &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "A2");
  EXPECT_EQ(store_.Get("f", &value, snapshot), St(3, "NotFound: "));
  Strings keys;
  EXPECT_EQ(store_.Dump(&keys, nullptr, snapshot), Ok());
  EXPECT_EQ(keys, (Strings{"a", "b", "c", "d", "e"}));
  std::vector<Value> values;
  EXPECT_EQ(store_.Get(Strings{"a", "b"}, &values, snapshot), Ok());
  EXPECT_EQ(Texts(values), (Strings{"A", "B"}));
  uint64_t count = 0;
  EXPECT_EQ(store_.Count(&count, snapshot), Ok());
  EXPECT_EQ(count, 5u);
  EXPECT_EQ(store_.ReadReverseInterval(0, 1, &keys, nullptr, snapshot), Ok());
  EXPECT_EQ(keys, (Strings{"e"}));
  Strings walked;
  EXPECT_EQ(store_.Iterate(
                [&walked](std::string key, Value) {
                  walked.push_back(key);
                  return true;
                },
                snapshot),
            Ok());
  EXPECT_EQ(walked, (Strings{"a", "b", "c", "d", "e"}));
  EXPECT_EQ(store_.ReleaseSnapshot(snapshot), Ok());
  EXPECT_EQ(store_.Dump(&keys, nullptr, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"a", "c", "d", "e", "f"}));
}

// --- A record whose bytes do not decode ------------------------------------------------

// The records a (good), b (garbage), c (good), written raw before the store
// opens, in the mode given.
class KVStoreBadRecord : public ::testing::Test {
 protected:
  void OpenWithBadRecord(bool paranoid) {
    WriteRaw(dir_.Sub("db"),
             {{"a", Wire(MakeValue("A"))}, {"b", GarbageBytes()}, {"c", Wire(MakeValue("C"))}});
    ASSERT_EQ(store_.Open(dir_.Sub("db"), paranoid), Ok());
  }

  Strings Walk(bool reverse) {
    Strings seen;
    const auto record = [&seen](std::string key, Value value) {
      seen.push_back(key + "=" + value.text());
      return true;
    };
    EXPECT_EQ(reverse ? store_.ReverseIterate(record, nullptr) : store_.Iterate(record, nullptr),
              Ok());
    return seen;
  }

  const Status bad_values_ = St(1, "Not implemented: db_values: Failed deserializing values");
  TestClock clock_;
  TempDir dir_;
  TestStringStore store_;
};

TEST_F(KVStoreBadRecord, DumpFailsWholeWithKeysEmpty) {
  OpenWithBadRecord(true);
  clock_.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  StderrCapture err;
  Strings keys = {"stale"};
  std::vector<Value> values;
  EXPECT_EQ(store_.Dump(&keys, &values, nullptr), bad_values_);
  EXPECT_TRUE(keys.empty());
  // What was decoded before the bad record stays.
  EXPECT_EQ(Texts(values), (Strings{"A"}));
  EXPECT_EQ(store_.DumpRange("b", "c", &keys, &values, nullptr), bad_values_);
  EXPECT_TRUE(values.empty());
  // Decoding failures reopen nothing and report nothing.
  EXPECT_EQ(store_.reopen_calls.load(), 0);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(err.Text(), "");
}

TEST_F(KVStoreBadRecord, DumpWithoutValuesDecodesNoValue) {
  OpenWithBadRecord(true);
  Strings keys;
  EXPECT_EQ(
      store_.DumpRange(StringStore::NullKey(), StringStore::NullKey(), &keys, nullptr, nullptr),
      Ok());
  EXPECT_EQ(keys, (Strings{"a", "b", "c"}));
  EXPECT_EQ(store_.ReadInterval(0, kAll, &keys, nullptr, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"a", "b", "c"}));
}

TEST_F(KVStoreBadRecord, PagesAndMultiKeyGetFailWithCodeOne) {
  OpenWithBadRecord(true);
  Strings keys = {"stale"};
  std::vector<Value> values;
  EXPECT_EQ(store_.ReadInterval(0, kAll, &keys, &values, nullptr), bad_values_);
  EXPECT_TRUE(keys.empty());
  EXPECT_EQ(store_.ReadReverseInterval(0, kAll, &keys, &values, nullptr), bad_values_);
  EXPECT_EQ(Texts(values), (Strings{"C"}));
  EXPECT_EQ(store_.ReadInterval(0, 1, &keys, &values, nullptr), Ok());
  EXPECT_EQ(keys, (Strings{"a"}));
  EXPECT_EQ(store_.Get(Strings{"a", "b", "c"}, &values, nullptr), bad_values_);
  EXPECT_EQ(Texts(values), (Strings{"A"}));
  EXPECT_EQ(store_.Get(Strings{"c", "a"}, &values, nullptr), Ok());
  EXPECT_EQ(Texts(values), (Strings{"C", "A"}));
  Value value;
  EXPECT_EQ(store_.Get("b", &value, nullptr),
            St(1, "Not implemented: db_value: Failed deserializing value"));
  EXPECT_EQ(store_.reopen_calls.load(), 0);
}

TEST_F(KVStoreBadRecord, ReadDataIntervalLogsTheFailure) {
  OpenWithBadRecord(true);
  LogCapture log(kLoggerName);
  proto::Testing::Data data;
  EXPECT_EQ(store_.ReadDataInterval(0, kAll, &data), bad_values_);
  EXPECT_EQ(data.entries_size(), 0);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsStoreLine(lines[0], 3,
                          "status code=1 message=Not implemented: db_values: Failed deserializing "
                          "values",
                          ""));
}

TEST_F(KVStoreBadRecord, CountStillCountsIt) {
  OpenWithBadRecord(true);
  uint64_t count = 0;
  EXPECT_EQ(store_.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(store_.CountRange("b", "c", &count, nullptr), Ok());
  EXPECT_EQ(count, 1u);
}

TEST_F(KVStoreBadRecord, ParanoidWalkEndsThereWithCodeZero) {
  OpenWithBadRecord(true);
  LogCapture log(kLoggerName);
  EXPECT_EQ(Walk(false), (Strings{"a=A"}));
  EXPECT_EQ(Walk(true), (Strings{"c=C"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(KVStoreBadRecord, NonParanoidWalkSkipsIt) {
  OpenWithBadRecord(false);
  LogCapture log(kLoggerName);
  EXPECT_EQ(Walk(false), (Strings{"a=A", "c=C"}));
  EXPECT_EQ(Walk(true), (Strings{"c=C", "a=A"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST(KVStoreBadKey, StoredKeyThatDoesNotDecode) {
  for (const bool paranoid : {true, false}) {
    TestClock clock;
    TempDir dir;
    const std::string path = dir.Sub("db");
    WriteRaw(path, {{Wire(MakeKey("", 1)), Wire(MakeValue("one"))},
                    {GarbageBytes(), Wire(MakeValue("garbage key"))}});
    TestKeyedStore store;
    ASSERT_EQ(store.Open(path, paranoid), Ok());
    const Status bad_keys = St(1, "Not implemented: db_keys: Failed deserializing keys");
    std::vector<Key> keys = {MakeKey("stale", 1)};
    std::vector<Value> values;
    EXPECT_EQ(store.Dump(&keys, &values, nullptr), bad_keys);
    // Values are decoded before keys and are all good here.
    EXPECT_EQ(Texts(values), (Strings{"one", "garbage key"}));
    EXPECT_EQ(keys.size(), 1u) << "the key before the bad one";
    EXPECT_EQ(store.Dump(&keys, nullptr, nullptr), bad_keys);
    EXPECT_EQ(store.ReadInterval(0, kAll, &keys, nullptr, nullptr), bad_keys);
    uint64_t count = 0;
    EXPECT_EQ(store.Count(&count, nullptr), Ok());
    EXPECT_EQ(count, 2u);
    Strings seen;
    const auto record = [&seen](Key key, Value value) {
      seen.push_back(std::to_string(key.id()) + "=" + value.text());
      return true;
    };
    EXPECT_EQ(store.ReverseIterate(record, nullptr), Ok());
    // The garbage key sorts last: paranoid ends the walk at once, otherwise
    // it is skipped.
    EXPECT_EQ(seen, paranoid ? Strings{} : Strings{"1=one"}) << "paranoid " << paranoid;
  }
}

// --- Failures of the engine -----------------------------------------------------------

TEST(KVStoreRangeEngine, FailedWalkReachesHandleErrorsAndDecodesNothing) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 10);
  const std::string table = OnlyTableFile(path);
  FaultEnv env;
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, false), Ok());
  env.fail_table_reads = true;
  const Status failure = St(5, "IO error: " + table + ": injected read failure");
  Strings keys = {"stale"};
  std::vector<Value> values = {MakeValue("stale")};
  StderrCapture err;
  EXPECT_EQ(store.Dump(&keys, &values, nullptr), failure);
  EXPECT_TRUE(keys.empty());
  EXPECT_TRUE(values.empty());
  EXPECT_EQ(store.ReadInterval(0, kAll, &keys, &values, nullptr), failure);
  EXPECT_TRUE(keys.empty());
  uint64_t count = 9;
  EXPECT_EQ(store.Count(&count, nullptr), failure);
  EXPECT_EQ(store.Iterate([](std::string, Value) { return true; }, nullptr), failure);
  EXPECT_EQ(store.Get(Strings{"k1"}, &values, nullptr), failure);
  EXPECT_TRUE(values.empty());
  const auto lines = err.Lines();
  ASSERT_EQ(lines.size(), 10u);
  EXPECT_EQ(lines[0], "persistence::DB: " + path + ": Dump: " + failure.message);
  EXPECT_EQ(lines[2], "persistence::DB: " + path + ": Read: " + failure.message);
  EXPECT_EQ(lines[4], "persistence::DB: " + path + ": Count: " + failure.message);
  EXPECT_EQ(lines[6], "persistence::DB: " + path + ": Iterate: " + failure.message);
  EXPECT_EQ(lines[8], "persistence::DB: " + path + ": Get: " + failure.message);
  // Each failure asked for a reopen; within the delay each was refused.
  EXPECT_EQ(store.reopen_calls.load(), 5);
  EXPECT_TRUE(store.is_open());
}

}  // namespace
}  // namespace kvstore_test
