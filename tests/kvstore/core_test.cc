// The typed store's core: construction, the open gate, the encoding of keys
// and values, opening without recovery, and single-key Put, Get and Delete.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "kvstore/kvstore_test_util.h"
#include "loggerhl/logger_ndc.h"
#include "support/damage.h"
#include "support/log_capture.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace kvstore_test {
namespace {

using testing_support::LogCapture;
using testing_support::StderrCapture;
using testing_support::TempDir;
using testing_support::TestClock;

// --- Construction and a store that never opened -----------------------------

TEST(KVStoreConstruction, FieldsOfANewStore) {
  TestClock clock;
  TestStringStore store(7);
  EXPECT_EQ(store.heap_tag(), 7u);
  EXPECT_EQ(store.db(), nullptr);
  EXPECT_FALSE(store.is_open());
  EXPECT_EQ(store.stored_path(), "");
  EXPECT_TRUE(store.paranoid_checks());
  EXPECT_FALSE(store.use_recovery());
  EXPECT_EQ(store.cache_size_mb(), 0u);
  EXPECT_EQ(store.min_reopen_delay(), std::chrono::seconds(300));
  // The delay counts from construction, not from zero.
  EXPECT_EQ(store.last_reopen().time_since_epoch(), std::chrono::hours(1));
  EXPECT_EQ(store.GetMaxSize(), 0u);
}

TEST(KVStoreConstruction, NewStoreAnswersCodeFiveWithEmptyMessageWithinDelay) {
  TestClock clock;
  LogCapture log(kLoggerName);
  TestStringStore store;
  Value value = MakeValue("stale", 3);
  EXPECT_EQ(store.Get("k", &value, nullptr), Refused());
  EXPECT_EQ(value.ByteSizeLong(), 0u);
  EXPECT_EQ(store.Put("k", MakeValue("v"), false), Refused());
  EXPECT_EQ(store.Delete("k", false), Refused());
  clock.Advance(kReopenDelay - std::chrono::nanoseconds(1));
  EXPECT_EQ(store.Get("k", &value, nullptr), Refused());
  EXPECT_EQ(store.reopen_calls.load(), 4);
  EXPECT_FALSE(store.is_open());
  EXPECT_TRUE(log.lines().empty());
}

TEST(KVStoreConstruction, NewStoreAfterDelayTriesItsEmptyPathOnce) {
  TestClock clock;
  LogCapture log(kLoggerName);
  TestStringStore store;
  clock.Advance(kReopenDelay);
  Value value;
  StderrCapture err;
  // A reopen without recovery of a store that never had a path.
  EXPECT_EQ(store.Get("k", &value, nullptr), St(2, "Invalid argument: path_: empty"));
  const std::vector<std::string> err_lines = err.Lines();
  ASSERT_EQ(err_lines.size(), 1u);
  EXPECT_TRUE(IsDbCheckLine(err_lines[0], "!path_.empty()", "!path_.empty()"));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", "Reopen()"));
  EXPECT_TRUE(IsStoreLine(lines[1], 3, "Failed to open database ''.", "Reopen()"));
  EXPECT_TRUE(IsStoreLine(lines[2], 2,
                          "Database failed to recover with error 2 (Invalid argument: path_: "
                          "empty)",
                          "Reopen()"));
  // The next attempt waits for the delay again.
  EXPECT_EQ(store.Get("k", &value, nullptr), Refused());
  EXPECT_EQ(log.lines().size(), 3u);
}

// A store whose reopen claims success without opening anything.
class HollowReopenStore : public StringStore {
 public:
  HollowReopenStore() : StringStore(108) {}

 protected:
  Status Reopen(SharedLock&) override { return Status(); }
};

TEST(KVStoreOpenGate, ReopenThatLeavesStoreClosedGivesIOErrorDbNullptr) {
  TestClock clock;
  HollowReopenStore store;
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), St(5, "IO error: db_: nullptr"));
  EXPECT_EQ(store.Put("k", value, false), St(5, "IO error: db_: nullptr"));
  EXPECT_EQ(store.Clear(false), St(5, "IO error: db_: nullptr"));
}

TEST(KVStoreOpenGate, ClosedStoreReopensAfterDelayAndOperationGoesOn) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v", 1), true), Ok());
  store.Close();
  LogCapture log(kLoggerName);
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), Refused());
  clock.Advance(kReopenDelay);
  EXPECT_EQ(store.Get("k", &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "v");
  EXPECT_TRUE(store.is_open());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", "Reopen(" + path + ")"));
  EXPECT_TRUE(IsStoreLine(lines[1], 5, "Database reopened successfully!", "Reopen(" + path + ")"));
  // The context is the reopen's alone.
  EXPECT_EQ(logger_ndc_get(), "");
}

// --- Encoding -------------------------------------------------------------------

TEST(KVStoreEncoding, PutThenGetReturnsEqualMessageStoredAsBareWireForm) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Value stored = MakeValue("hello", -42, std::string("\0\x01\x02", 3));
  {
    TestStringStore store;
    ASSERT_EQ(store.Open(path, true), Ok());
    ASSERT_EQ(store.Put("alpha", stored, false), Ok());
    ASSERT_EQ(store.Put("beta", MakeValue("b"), true), Ok());
    Value read = MakeValue("old", 9);
    ASSERT_EQ(store.Get("alpha", &read, nullptr), Ok());
    EXPECT_EQ(Wire(read), Wire(stored));
    EXPECT_EQ(read.text(), "hello");
    EXPECT_EQ(read.number(), -42);
  }
  const auto raw = ReadRaw(path);
  ASSERT_EQ(raw.size(), 2u);
  EXPECT_EQ(raw.at("alpha"), Wire(stored));
  EXPECT_EQ(raw.at("beta"), Wire(MakeValue("b")));
}

TEST(KVStoreEncoding, MessageKeyIsStoredAsItsWireForm) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  const Key key = MakeKey("module", 7);
  {
    TestKeyedStore store;
    ASSERT_EQ(store.Open(path, true), Ok());
    ASSERT_EQ(store.Put(key, MakeValue("v"), false), Ok());
    Value read;
    ASSERT_EQ(store.Get(key, &read, nullptr), Ok());
    EXPECT_EQ(read.text(), "v");
  }
  const auto raw = ReadRaw(path);
  ASSERT_EQ(raw.size(), 1u);
  EXPECT_EQ(raw.begin()->first, std::string("\x0a\x06module\x10\x07", 10));
  EXPECT_EQ(raw.begin()->second, Wire(MakeValue("v")));
}

TEST(KVStoreEncoding, MessageKeysOrderByTheirBytesNotTheirNumbers) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  for (const Key& key : {MakeKey("", -1), MakeKey("", 2), MakeKey("a", 5), MakeKey("", 1)}) {
    ASSERT_EQ(store.Put(key, MakeValue("v"), false), Ok());
  }
  std::vector<Key> keys;
  ASSERT_EQ(store.Dump(&keys, nullptr, nullptr), Ok());
  ASSERT_EQ(keys.size(), 4u);
  // A name (field 1) sorts first; -1 is ten bytes of varint and sorts last.
  EXPECT_EQ(keys[0].name(), "a");
  EXPECT_EQ(keys[1].id(), 1);
  EXPECT_EQ(keys[2].id(), 2);
  EXPECT_EQ(keys[3].id(), -1);
}

TEST(KVStoreEncoding, DefaultValueIsStoredAsEmptyBytesAndReadBackEmpty) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  {
    TestStringStore store;
    ASSERT_EQ(store.Open(path, true), Ok());
    ASSERT_EQ(store.Put("k", Value(), false), Ok());
    Value read = MakeValue("old", 1);
    EXPECT_EQ(store.Get("k", &read, nullptr), Ok());
    EXPECT_EQ(read.ByteSizeLong(), 0u);
  }
  const auto raw = ReadRaw(path);
  ASSERT_EQ(raw.count("k"), 1u);
  EXPECT_EQ(raw.at("k"), "");
}

TEST(KVStoreEncoding, DefaultMessageKeyIsAnEmptyKeyThatTheHandleRefuses) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  const Status refused = St(2, "Invalid argument: key: empty");
  Value value;
  for (int op = 0; op < 3; ++op) {
    StderrCapture err;
    Status status;
    if (op == 0) status = store.Put(Key(), MakeValue("v"), false);
    if (op == 1) status = store.Get(Key(), &value, nullptr);
    if (op == 2) status = store.Delete(Key(), false);
    EXPECT_EQ(status, refused) << "operation " << op;
    const auto lines = err.Lines();
    ASSERT_EQ(lines.size(), 1u) << "operation " << op;
    EXPECT_TRUE(IsDbCheckLine(lines[0], "!key.empty()", "!key.empty()"));
  }
  // Refusals of the handle are no sign of damage.
  EXPECT_EQ(store.reopen_calls.load(), 0);
  uint64_t count = 9;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 0u);
}

TEST(KVStoreEncoding, StringNullKeyTextIsAnOrdinaryKeyOutsideRanges) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  const std::string null_text = "Zerla::Persistence::KVStore::NullKey";
  ASSERT_EQ(StringStore::NullKey(), null_text);
  ASSERT_EQ(store.Put(null_text, MakeValue("null"), false), Ok());
  for (const char* key : {"A", "a", "c"}) ASSERT_EQ(store.Put(key, MakeValue(key), false), Ok());
  Value value;
  EXPECT_EQ(store.Get(null_text, &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "null");
  // As a bound it is an open end: "A" < "Zerla..." < "a" < "c".
  uint64_t count = 0;
  EXPECT_EQ(store.CountRange(null_text, "c", &count, nullptr), Ok());
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(store.CountRange("a", null_text, &count, nullptr), Ok());
  EXPECT_EQ(count, 2u);
  std::vector<std::string> keys;
  EXPECT_EQ(store.DumpRange(null_text, null_text, &keys, nullptr, nullptr), Ok());
  EXPECT_EQ(keys, (std::vector<std::string>{"A", null_text, "a", "c"}));
  EXPECT_EQ(store.Delete(null_text, false), Ok());
  EXPECT_EQ(store.Get(null_text, &value, nullptr), St(3, "NotFound: "));
}

TEST(KVStoreEncoding, ValueThatWontEncodeIsRefusedAndNothingWritten) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  StderrCapture err;
  EXPECT_EQ(store.Put("k", BadValue(), false),
            St(1, "Not implemented: value: Failed serializing value"));
  EXPECT_TRUE(WithoutProtobufLines(err.Lines()).empty());
  uint64_t count = 9;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(store.reopen_calls.load(), 0);
}

TEST(KVStoreEncoding, MessageKeyThatWontEncodeIsRefusedValueFirst) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  const Status bad_key = St(1, "Not implemented: key: Failed serializing key");
  Value value = MakeValue("old");
  EXPECT_EQ(store.Put(BadKey(), MakeValue("v"), false), bad_key);
  EXPECT_EQ(store.Get(BadKey(), &value, nullptr), bad_key);
  EXPECT_EQ(value.ByteSizeLong(), 0u);
  EXPECT_EQ(store.Delete(BadKey(), false), bad_key);
  // The value is encoded first and reported even when the key is bad too.
  EXPECT_EQ(store.Put(BadKey(), BadValue(), false),
            St(1, "Not implemented: value: Failed serializing value"));
  uint64_t count = 9;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 0u);
}

TEST(KVStoreEncoding, SerializeToStringProvesWhatItWrites) {
  std::string out = "untouched";
  EXPECT_TRUE(StringStore::SerializeToString(MakeValue("a", 1), out));
  EXPECT_EQ(out, Wire(MakeValue("a", 1)));
  out = "untouched";
  EXPECT_FALSE(StringStore::SerializeToString(BadValue(), out));
  EXPECT_EQ(out, "untouched");

  std::vector<std::string> many = {"before"};
  EXPECT_FALSE(StringStore::SerializeToString(
      std::vector<Value>{MakeValue("a"), MakeValue("b"), BadValue(), MakeValue("c")}, many));
  EXPECT_EQ(many, (std::vector<std::string>{"before", Wire(MakeValue("a")), Wire(MakeValue("b"))}));
  many.clear();
  EXPECT_TRUE(
      KeyedStore::SerializeToString(std::vector<Key>{MakeKey("x", 1), MakeKey("", 2)}, many));
  EXPECT_EQ(many, (std::vector<std::string>{Wire(MakeKey("x", 1)), Wire(MakeKey("", 2))}));
}

TEST(KVStoreEncoding, DeserializeFromStringAppendsUntilTheFirstBadRecord) {
  TestClock clock;
  LogCapture log(kLoggerName);
  std::vector<Value> out = {MakeValue("kept")};
  EXPECT_FALSE(StringStore::DeserializeFromString(
      {Wire(MakeValue("a")), GarbageBytes(), Wire(MakeValue("b"))}, &out));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].text(), "kept");
  EXPECT_EQ(out[1].text(), "a");
  EXPECT_TRUE(StringStore::DeserializeFromString({"", Wire(MakeValue("c"))}, &out));
  ASSERT_EQ(out.size(), 4u);
  EXPECT_EQ(out[3].text(), "c");
  EXPECT_TRUE(log.lines().empty());

  EXPECT_FALSE(StringStore::DeserializeFromString<Value>({""}, nullptr));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(
      IsCheckLine(lines[0], "out_values", "out_values is nullptr", "DeserializeFromString"));
}

// --- Single keys --------------------------------------------------------------

TEST(KVStoreGet, NullValueIsRefusedWithoutTakingTheLock) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  LogCapture log(kLoggerName);
  // Another thread holds the lock exclusively for the whole call.
  std::unique_lock<std::shared_mutex> held(store.mutex());
  RunBounded(std::chrono::seconds(5), "Get with a null value", [&] {
    EXPECT_EQ(store.Get("k", nullptr, nullptr), St(2, "Invalid argument: value: nullptr"));
    EXPECT_EQ(store.Get("k", nullptr, nullptr), St(2, "Invalid argument: value: nullptr"));
  });
  held.unlock();
  // One line: the second failure is within the site's 600 seconds.
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsCheckLine(lines[0], "value", "value is nullptr", "Get"));
  EXPECT_EQ(store.reopen_calls.load(), 0);
}

TEST(KVStoreGet, AbsentKeyIsCodeThreeWithValueClearedAndNoReopen) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  StderrCapture err;
  Value value = MakeValue("stale", 5, "blob");
  EXPECT_EQ(store.Get("absent", &value, nullptr), St(3, "NotFound: "));
  EXPECT_EQ(value.ByteSizeLong(), 0u);
  EXPECT_EQ(store.reopen_calls.load(), 0);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(err.Text(), "");
}

TEST(KVStoreGet, RecordThatDoesNotParseIsCodeOneAndStoreStaysOpen) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  WriteRaw(path, {{"bad", GarbageBytes()}, {"good", Wire(MakeValue("g", 1))}});
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  StderrCapture err;
  Value value;
  EXPECT_EQ(store.Get("bad", &value, nullptr),
            St(1, "Not implemented: db_value: Failed deserializing value"));
  EXPECT_EQ(err.Text(), "");
  EXPECT_TRUE(log.lines().empty());
  // No reopen: the damage is in one record, not in the database.
  EXPECT_EQ(store.reopen_calls.load(), 0);
  EXPECT_TRUE(store.is_open());
  EXPECT_EQ(store.Get("good", &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "g");
  // The record stays where it is.
  uint64_t count = 0;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  EXPECT_EQ(count, 2u);
}

TEST(KVStoreDelete, AbsentKeyIsSuccessAndPresentKeyGoes) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  EXPECT_EQ(store.Delete("never", false), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), false), Ok());
  EXPECT_EQ(store.Delete("k", true), Ok());
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), St(3, "NotFound: "));
}

TEST(KVStoreDelete, KeyedDeleteRemovesOnlyThatKey) {
  TestClock clock;
  TempDir dir;
  TestKeyedStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), false), Ok());
  ASSERT_EQ(store.Put(MakeKey("m", 1), MakeValue("one"), false), Ok());
  ASSERT_EQ(store.Put(MakeKey("m", 2), MakeValue("two"), false), Ok());
  EXPECT_EQ(store.Delete(MakeKey("m", 1), false), Ok());
  Value value;
  EXPECT_EQ(store.Get(MakeKey("m", 1), &value, nullptr), St(3, "NotFound: "));
  EXPECT_EQ(store.Get(MakeKey("m", 2), &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "two");
}

// --- Opening without recovery ---------------------------------------------------

TEST(KVStoreOpenNoLock, OnAnOpenStoreIsRefusedAndChangesNothing) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), false), Ok());
  persistence::DB* const handle = store.db();
  LogCapture log(kLoggerName);
  EXPECT_EQ(store.OpenPlain(dir.Sub("other"), false, true, 8),
            St(2, "Invalid argument: db_: !nullptr"));
  EXPECT_EQ(store.db(), handle);
  EXPECT_EQ(store.stored_path(), path);
  EXPECT_TRUE(store.paranoid_checks());
  EXPECT_EQ(store.cache_size_mb(), 0u);
  EXPECT_FALSE(Exists(dir.Sub("other")));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsCheckLine(lines[0], "!db_", "db_ is not nullptr", "OpenNoLock"));
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "v");
}

TEST(KVStoreOpenNoLock, FailedOpenLeavesStoreClosedWithItsSettingsKept) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  testing_support::WriteFile(path, "not a directory");
  TestStringStore store;
  LogCapture log(kLoggerName);
  StderrCapture err;
  EXPECT_EQ(store.OpenPlain(path, false, true, 4),
            St(5, "IO error: " + path + "/LOCK: Not a directory"));
  // A failed open prints nothing of the handle's own.
  EXPECT_EQ(err.Text(), "");
  EXPECT_EQ(store.db(), nullptr);
  EXPECT_FALSE(store.is_open());
  EXPECT_EQ(store.stored_path(), path);
  EXPECT_EQ(store.path(), path);
  EXPECT_FALSE(store.paranoid_checks());
  EXPECT_EQ(store.cache_size_mb(), 4u);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsStoreLine(lines[0], 3, "Failed to open database '" + path + "'.", ""));
}

TEST(KVStoreOpenNoLock, MissingDirectoryWithoutCreateFails) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("missing");
  TestStringStore store;
  LogCapture log(kLoggerName);
  EXPECT_EQ(store.OpenPlain(path, true, false),
            St(2, "Invalid argument: " + path + ": does not exist (create_if_missing is false)"));
  EXPECT_EQ(store.db(), nullptr);
  EXPECT_EQ(Summary(log),
            (std::vector<std::string>{Line(3, "Failed to open database '" + path + "'.")}));
}

TEST(KVStoreLifetime, DestructorClosesTheDatabase) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  {
    TestStringStore store;
    ASSERT_EQ(store.Open(path, true), Ok());
    ASSERT_EQ(store.Put("k", MakeValue("v"), false), Ok());
    // While open, the directory's lock is held.
    persistence::DB other(path);
    EXPECT_FALSE(other.Open(true, false, false, 0).ok());
  }
  persistence::DB after(path);
  EXPECT_TRUE(after.Open(true, false, false, 0).ok());
  std::string bytes;
  EXPECT_TRUE(after.Get("k", &bytes, nullptr).ok());
  EXPECT_EQ(bytes, Wire(MakeValue("v")));
}

}  // namespace
}  // namespace kvstore_test
