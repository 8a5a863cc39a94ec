// persistence::DB: the null key, opening and closing, the single-key
// operations, their preconditions, and the engine options chosen by Open.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <leveldb/cache.h>
#include <leveldb/env.h>
#include <leveldb/filter_policy.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "db/db_test_util.h"
#include "persistence/db.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "support/test_records.h"

namespace {

using db_test::DbNullCheck;
using db_test::DBProbe;
using db_test::EmptyKeyCheck;
using db_test::IsCheckLine;
using persistence::DB;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::StderrCapture;
using testing_support::TempDir;

// --- The null key and the unlimited count ---------------------------------

TEST(DBNullKey, IsTheFixedMarkerText) {
  EXPECT_EQ(DB::NullKey(), "Zerla::Persistence::DB::NullKey");
  // One process-wide constant.
  EXPECT_EQ(&DB::NullKey(), &DB::NullKey());
}

TEST(DBNullKey, IsNullKeyComparesLengthAndBytes) {
  const std::string marker = "Zerla::Persistence::DB::NullKey";
  EXPECT_TRUE(DB::IsNullKey(marker));
  EXPECT_TRUE(DB::IsNullKey(DB::NullKey()));
  EXPECT_FALSE(DB::IsNullKey(marker.substr(0, marker.size() - 1)));
  EXPECT_FALSE(DB::IsNullKey(marker + "y"));
  EXPECT_FALSE(DB::IsNullKey(marker + std::string(1, '\0')));
  EXPECT_FALSE(DB::IsNullKey("zerla::Persistence::DB::NullKey"));
  EXPECT_FALSE(DB::IsNullKey(""));
}

TEST(DBMaxCount, HasAllBitsSet) {
  EXPECT_EQ(DB::MaxCount(), 18446744073709551615ULL);
  EXPECT_EQ(DB::MaxCount(), ~uint64_t{0});
}

// --- Construction and Open ------------------------------------------------

TEST(DBConstruct, DoesNotTouchTheDisk) {
  TempDir dir;
  {
    DBProbe db(dir.Sub("db"));
    EXPECT_FALSE(db.is_open());
    EXPECT_FALSE(db.corrupted());
    EXPECT_EQ(db.block_cache(), nullptr);
    EXPECT_EQ(db.filter_policy(), nullptr);
  }
  EXPECT_FALSE(db_test::Exists(dir.Sub("db")));
}

TEST(DBOpen, EmptyPathPrintsOneCheckLine) {
  DBProbe db("");
  StderrCapture capture;
  const leveldb::Status status = db.Open(true, true, true, 1);
  EXPECT_EQ(status.ToString(), "Invalid argument: path_: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(IsCheckLine("!path_.empty()", "!path_.empty()")));
  EXPECT_FALSE(db.is_open());
  // Returned before anything was made.
  EXPECT_EQ(db.block_cache(), nullptr);
  EXPECT_EQ(db.filter_policy(), nullptr);
}

TEST(DBOpen, CreatesAPlainEngineDirectory) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  DB db(path);
  StderrCapture capture;
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  EXPECT_TRUE(db.is_open());
  ASSERT_TRUE(db.Put("k", "v", false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  // Only the engine's own files: the handle adds none.
  const std::regex engine_file("CURRENT|LOCK|LOG|LOG\\.old|MANIFEST-[0-9]{6}|[0-9]{6}\\.(log|ldb)");
  for (const std::string& name : db_test::DirectoryNames(path)) {
    EXPECT_TRUE(std::regex_match(name, engine_file)) << name;
  }
  const std::string current = testing_support::ReadFile(path + "/CURRENT");
  ASSERT_TRUE(std::regex_match(current, std::regex("MANIFEST-[0-9]{6}\n"))) << current;
  EXPECT_TRUE(db_test::Exists(path + "/" + current.substr(0, current.size() - 1)));
}

TEST(DBOpen, SecondOpenIsRefusedAndTheDatabaseKeepsWorking) {
  TempDir dir;
  DBProbe db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  ASSERT_TRUE(db.Put("a", "1", false).ok());
  {
    StderrCapture capture;
    const leveldb::Status status = db.Open(false, true, true, 4);
    EXPECT_EQ(status.ToString(), "Invalid argument: db_: !nullptr");
    EXPECT_THAT(capture.Lines(), ElementsAre(IsCheckLine("!db_", "!db_")));
  }
  EXPECT_TRUE(db.is_open());
  // The refused Open made neither filter nor cache.
  EXPECT_EQ(db.filter_policy(), nullptr);
  EXPECT_EQ(db.block_cache(), nullptr);
  StderrCapture capture;
  std::string value;
  ASSERT_TRUE(db.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "1");
  ASSERT_TRUE(db.Put("b", "2", false).ok());
  ASSERT_TRUE(db.Get("b", &value, nullptr).ok());
  EXPECT_EQ(value, "2");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBOpen, MissingDirectoryWithoutCreateFailsSilently) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  DB db(path);
  StderrCapture capture;
  const leveldb::Status status = db.Open(true, false, false, 0);
  EXPECT_EQ(status.ToString(),
            "Invalid argument: " + path + ": does not exist (create_if_missing is false)");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db_test::Exists(path + "/CURRENT"));
}

TEST(DBOpen, FailedOpenLeavesTheHandleClosed) {
  TempDir dir;
  DB db(dir.Sub("db"));
  ASSERT_FALSE(db.Open(true, false, false, 0).ok());
  StderrCapture capture;
  const leveldb::Status status = db.Put("k", "v", false);
  EXPECT_EQ(status.ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
}

TEST(DBOpen, FailedOpenKeepsCacheAndFilterUntilReplaced) {
  TempDir dir;
  DBProbe db(dir.Sub("db"));
  ASSERT_FALSE(db.Open(true, false, true, 1).ok());
  EXPECT_FALSE(db.is_open());
  EXPECT_NE(db.filter_policy(), nullptr);
  ASSERT_NE(db.block_cache(), nullptr);
  const leveldb::Cache* former_cache = db.block_cache();
  EXPECT_EQ(former_cache->TotalCharge(), 0u);
  // A later Open that asks for a cache replaces it.
  ASSERT_TRUE(db.Open(true, true, true, 2).ok());
  EXPECT_NE(db.block_cache(), nullptr);
  EXPECT_NE(db.filter_policy(), nullptr);
}

TEST(DBOpen, ExistingDatabaseOpensWithoutCreate) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, {{"a", "1"}, {"b", "2"}});
  DB db(path);
  StderrCapture capture;
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  std::string value;
  ASSERT_TRUE(db.Get("b", &value, nullptr).ok());
  EXPECT_EQ(value, "2");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBOpen, CorruptionOfAFailedOpenPrintsNothingAndDoesNotFlag) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, {{"a", "1"}});
  testing_support::WriteFile(path + "/CURRENT", "MANIFEST-000001");
  DBProbe db(path);
  StderrCapture capture;
  const leveldb::Status status = db.Open(true, false, false, 0);
  EXPECT_EQ(status.ToString(), "Corruption: CURRENT file does not end with newline");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db.corrupted());
}

// --- Close ------------------------------------------------------------------

TEST(DBOpen, StartsTheEngineThreadInTheOpenersName) {
  // The engine's background thread takes the name of the thread that starts
  // it. A compaction asked from a named thread after the open must not be
  // what starts it: the name would outlive that thread.
  TempDir dir;
  DB db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  ASSERT_TRUE(db.Put("key", "value", false).ok());
  std::thread compactor([&db] {
    pthread_setname_np(pthread_self(), "LruStorePrune");
    EXPECT_TRUE(db.Compact().ok());
  });
  compactor.join();
  EXPECT_EQ(testing_support::CountThreads("LruStorePrune"), 0);
  EXPECT_TRUE(db.Close().ok());
}

TEST(DBClose, ClosedHandleReturnsInvalidArgumentSilently) {
  TempDir dir;
  DB db(dir.Sub("db"));
  {
    StderrCapture capture;
    EXPECT_EQ(db.Close().ToString(), "Invalid argument: db_: nullptr");
    EXPECT_THAT(capture.Lines(), IsEmpty());
  }
  ASSERT_TRUE(db.Open(true, true, false, 0).ok());
  ASSERT_TRUE(db.Close().ok());
  StderrCapture capture;
  EXPECT_EQ(db.Close().ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBClose, PutOnAClosedHandlePrintsTheCheckLine) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Put("k", "v", false).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
  EXPECT_FALSE(db_test::Exists(dir.Sub("db")));
}

TEST(DBClose, EndsEngineCacheAndFilterAndKeepsTheData) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, true, true, 1).ok());
  ASSERT_NE(db.block_cache(), nullptr);
  ASSERT_NE(db.filter_policy(), nullptr);
  ASSERT_TRUE(db.Put("k", "v", true).ok());
  StderrCapture capture;
  ASSERT_TRUE(db.Close().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  EXPECT_EQ(db.block_cache(), nullptr);
  EXPECT_EQ(db.filter_policy(), nullptr);
  EXPECT_FALSE(db.corrupted());
  // The lock is given back: another handle opens the directory.
  DB other(path);
  ASSERT_TRUE(other.Open(true, false, false, 0).ok());
  std::string value;
  ASSERT_TRUE(other.Get("k", &value, nullptr).ok());
  EXPECT_EQ(value, "v");
}

// --- Put, Delete, Get -------------------------------------------------------

class DBSingleKey : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(db_.Open(true, true, false, 0).ok()); }

  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  DBProbe db_{path_};
};

TEST_F(DBSingleKey, PutThenGetReturnsTheValue) {
  StderrCapture capture;
  ASSERT_TRUE(db_.Put("key", "value", false).ok());
  ASSERT_TRUE(db_.Put("key", "second", false).ok());
  std::string value = "stale";
  const leveldb::Status status = db_.Get("key", &value, nullptr);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(status.ToString(), "OK");
  EXPECT_EQ(value, "second");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBSingleKey, EmptyValueIsStored) {
  ASSERT_TRUE(db_.Put("key", "", false).ok());
  std::string value = "stale";
  ASSERT_TRUE(db_.Get("key", &value, nullptr).ok());
  EXPECT_EQ(value, "");
  uint64_t count = 0;
  ASSERT_TRUE(db_.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 1u);
}

TEST_F(DBSingleKey, BinaryKeysAndValuesAreKeptByteForByte) {
  const std::string key("k\0ey", 4);
  const std::string value("\0\xff\x01", 3);
  ASSERT_TRUE(db_.Put(key, value, false).ok());
  std::string read;
  ASSERT_TRUE(db_.Get(key, &read, nullptr).ok());
  EXPECT_EQ(read, value);
  EXPECT_EQ(db_.Get("k", &read, nullptr).ToString(), "NotFound: ");
}

TEST_F(DBSingleKey, SyncedPutSurvivesReopen) {
  ASSERT_TRUE(db_.Put("key", "value", true).ok());
  ASSERT_TRUE(db_.Close().ok());
  ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  std::string value;
  ASSERT_TRUE(db_.Get("key", &value, nullptr).ok());
  EXPECT_EQ(value, "value");
}

TEST_F(DBSingleKey, PutWithEmptyKeyIsRefusedAndWritesNothing) {
  StderrCapture capture;
  EXPECT_EQ(db_.Put("", "v", false).ToString(), "Invalid argument: key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck()));
  uint64_t count = 7;
  ASSERT_TRUE(db_.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 0u);
}

TEST(DBPreconditions, PutChecksTheKeyBeforeTheHandle) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Put("", "v", false).ToString(), "Invalid argument: key: empty");
  EXPECT_EQ(db.Delete("", false).ToString(), "Invalid argument: key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck(), EmptyKeyCheck()));
}

TEST(DBPreconditions, DeleteOnAClosedHandlePrintsTheCheckLine) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Delete("k", true).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
}

TEST(DBPreconditions, EveryFailedCheckPrintsItsLine) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(db.Put("k", "v", false).ToString(), "Invalid argument: db_: nullptr");
  }
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 100u);
  for (const std::string& line : lines) EXPECT_THAT(line, DbNullCheck());
}

TEST_F(DBSingleKey, DeleteRemovesTheKey) {
  ASSERT_TRUE(db_.Put("a", "1", false).ok());
  ASSERT_TRUE(db_.Put("b", "2", false).ok());
  StderrCapture capture;
  ASSERT_TRUE(db_.Delete("a", true).ok());
  std::string value = "stale";
  EXPECT_EQ(db_.Get("a", &value, nullptr).ToString(), "NotFound: ");
  EXPECT_EQ(value, "");
  ASSERT_TRUE(db_.Get("b", &value, nullptr).ok());
  EXPECT_EQ(value, "2");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBSingleKey, DeleteOfAnAbsentKeySucceeds) {
  StderrCapture capture;
  EXPECT_TRUE(db_.Delete("never", false).ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBSingleKey, DeleteWithEmptyKeyIsRefused) {
  ASSERT_TRUE(db_.Put("a", "1", false).ok());
  StderrCapture capture;
  EXPECT_EQ(db_.Delete("", false).ToString(), "Invalid argument: key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck()));
  uint64_t count = 0;
  ASSERT_TRUE(db_.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 1u);
}

TEST_F(DBSingleKey, GetOfAnAbsentKeyIsNotFoundSilently) {
  ASSERT_TRUE(db_.Put("a", "1", false).ok());
  std::string value = "stale";
  StderrCapture capture;
  const leveldb::Status status = db_.Get("b", &value, nullptr);
  EXPECT_TRUE(status.IsNotFound());
  EXPECT_EQ(status.ToString(), "NotFound: ");
  EXPECT_EQ(value, "");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db_.corrupted());
}

TEST_F(DBSingleKey, GetWithEmptyKeyAndNullValueReportsTheKey) {
  StderrCapture capture;
  EXPECT_EQ(db_.Get("", nullptr, nullptr).ToString(), "Invalid argument: key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck()));
}

TEST_F(DBSingleKey, GetWithEmptyKeyLeavesTheValueAlone) {
  std::string value = "kept";
  StderrCapture capture;
  EXPECT_EQ(db_.Get("", &value, nullptr).ToString(), "Invalid argument: key: empty");
  EXPECT_THAT(capture.Lines(), ElementsAre(EmptyKeyCheck()));
  EXPECT_EQ(value, "kept");
}

TEST(DBPreconditions, GetWithNullValueIsRefusedBeforeTheHandleIsChecked) {
  TempDir dir;
  DB db(dir.Sub("db"));
  StderrCapture capture;
  EXPECT_EQ(db.Get("k", nullptr, nullptr).ToString(), "Invalid argument: value: nullptr");
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST(DBPreconditions, GetOnAClosedHandleClearsTheValueAndPrints) {
  TempDir dir;
  DB db(dir.Sub("db"));
  std::string value = "stale";
  StderrCapture capture;
  EXPECT_EQ(db.Get("k", &value, nullptr).ToString(), "Invalid argument: db_: nullptr");
  EXPECT_THAT(capture.Lines(), ElementsAre(DbNullCheck()));
  EXPECT_EQ(value, "");
}

TEST_F(DBSingleKey, GetReadsTheGivenSnapshot) {
  ASSERT_TRUE(db_.Put("a", "old", false).ok());
  const leveldb::Snapshot* snapshot = nullptr;
  ASSERT_TRUE(db_.CreateSnapshot(&snapshot).ok());
  ASSERT_TRUE(db_.Put("a", "new", false).ok());
  ASSERT_TRUE(db_.Put("b", "born later", false).ok());
  std::string value;
  ASSERT_TRUE(db_.Get("a", &value, snapshot).ok());
  EXPECT_EQ(value, "old");
  EXPECT_EQ(db_.Get("b", &value, snapshot).ToString(), "NotFound: ");
  ASSERT_TRUE(db_.Get("a", &value, nullptr).ok());
  EXPECT_EQ(value, "new");
  ASSERT_TRUE(db_.ReleaseSnapshot(snapshot).ok());
}

// --- Engine options ---------------------------------------------------------

// Values that do not compress, so that table blocks keep their size.
std::string RandomBytes(std::mt19937& random, size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() & 0xff);
  return bytes;
}

std::string TableFilesContents(const std::string& path) {
  std::string contents;
  for (const std::string& name : testing_support::FilesWithSuffix(path, ".ldb")) {
    contents += testing_support::ReadFile(path + "/" + name);
  }
  return contents;
}

constexpr char kFilterBlockName[] = "filter.leveldb.BuiltinBloomFilter2";

TEST(DBOptions, WithoutFilterAndCacheSizeNeitherIsMade) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  db_test::WriteEntries(path, {{"seed", "1"}});
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, false, false, 0).ok());
  EXPECT_EQ(db.filter_policy(), nullptr);
  EXPECT_EQ(db.block_cache(), nullptr);
  for (const auto& entry : db_test::NumberedEntries("key", "value", 200)) {
    ASSERT_TRUE(db.Put(entry.first, entry.second, false).ok());
  }
  ASSERT_TRUE(db.Compact().ok());
  const std::string tables = TableFilesContents(path);
  ASSERT_FALSE(tables.empty());
  // Table files written without a filter have no filter block.
  EXPECT_EQ(tables.find(kFilterBlockName), std::string::npos);
}

TEST(DBOptions, BloomFilterOfTenBitsPerKeyIsWrittenIntoTables) {
  TempDir dir;
  const std::string path = dir.Sub("db");
  DBProbe db(path);
  ASSERT_TRUE(db.Open(true, true, true, 0).ok());
  ASSERT_NE(db.filter_policy(), nullptr);
  EXPECT_STREQ(db.filter_policy()->Name(), "leveldb.BuiltinBloomFilter2");
  EXPECT_EQ(db.block_cache(), nullptr);

  // 100 keys at 10 bits each: 1000 bits in 125 bytes, then one byte for the
  // number of probes, 10 * ln 2 rounded down.
  std::vector<std::string> key_storage;
  for (int i = 0; i < 100; ++i) key_storage.push_back("key" + std::to_string(i));
  std::vector<leveldb::Slice> keys(key_storage.begin(), key_storage.end());
  std::string filter;
  db.filter_policy()->CreateFilter(keys.data(), static_cast<int>(keys.size()), &filter);
  ASSERT_EQ(filter.size(), 126u);
  EXPECT_EQ(filter.back(), 6);

  for (const auto& entry : db_test::NumberedEntries("key", "value", 200)) {
    ASSERT_TRUE(db.Put(entry.first, entry.second, false).ok());
  }
  ASSERT_TRUE(db.Compact().ok());
  EXPECT_NE(TableFilesContents(path).find(kFilterBlockName), std::string::npos);
}

// The default environment maps table files into memory, and the engine does
// not put blocks read from a mapping into its block cache. This environment
// reads table files into the engine's own buffers, as on a system without
// mappings, so that every block read goes through the cache.
class BufferedReadEnv : public leveldb::EnvWrapper {
 public:
  BufferedReadEnv() : leveldb::EnvWrapper(leveldb::Env::Default()) {}

  leveldb::Status NewRandomAccessFile(const std::string& name,
                                      leveldb::RandomAccessFile** result) override {
    leveldb::RandomAccessFile* base = nullptr;
    const leveldb::Status status = target()->NewRandomAccessFile(name, &base);
    *result = status.ok() ? new BufferedFile(base) : nullptr;
    return status;
  }

 private:
  class BufferedFile : public leveldb::RandomAccessFile {
   public:
    explicit BufferedFile(leveldb::RandomAccessFile* base) : base_(base) {}
    leveldb::Status Read(uint64_t offset, size_t n, leveldb::Slice* result,
                         char* scratch) const override {
      leveldb::Slice data;
      const leveldb::Status status = base_->Read(offset, n, &data, scratch);
      if (status.ok() && data.data() != scratch) {
        std::memcpy(scratch, data.data(), data.size());
        data = leveldb::Slice(scratch, data.size());
      }
      *result = data;
      return status;
    }

   private:
    std::unique_ptr<leveldb::RandomAccessFile> base_;
  };
};

// With 16-byte keys and 4060-byte values a table block holds one entry and
// weighs exactly 4096 bytes in the block cache, so a full cache of 1 MiB
// holds exactly 256 blocks.
constexpr size_t kBlockValueSize = 4060;

// Sixteen bytes each.
std::string BlockKey(int i) {
  std::string number = std::to_string(i);
  return "block-key-" + std::string(6 - number.size(), '0') + number;
}

void FillWithOneEntryBlocks(DBProbe& db, int count) {
  std::mt19937 random(7);
  for (int i = 0; i < count; ++i) {
    ASSERT_TRUE(db.Put(BlockKey(i), RandomBytes(random, kBlockValueSize), false).ok());
  }
  ASSERT_TRUE(db.Compact().ok());
}

TEST(DBOptions, CacheOfOneMebibyteHoldsExactly1048576Bytes) {
  TempDir dir;
  BufferedReadEnv env;
  testing_support::ScopedTestEnv scoped_env(&env);
  DBProbe db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, false, 1).ok());
  ASSERT_NE(db.block_cache(), nullptr);
  FillWithOneEntryBlocks(db, 1200);
  ASSERT_TRUE(db.Close().ok());
  ASSERT_TRUE(db.Open(true, false, false, 1).ok());
  const leveldb::Cache* cache = db.block_cache();
  ASSERT_NE(cache, nullptr);
  EXPECT_EQ(cache->TotalCharge(), 0u);

  std::string value;
  ASSERT_TRUE(db.Get(BlockKey(0), &value, nullptr).ok());
  ASSERT_EQ(value.size(), kBlockValueSize);
  ASSERT_EQ(cache->TotalCharge(), 4096u);

  size_t highest = 0;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 1200; ++i) {
      ASSERT_TRUE(db.Get(BlockKey(i), &value, nullptr).ok());
      highest = std::max(highest, cache->TotalCharge());
    }
  }
  EXPECT_EQ(highest, 1048576u);
  EXPECT_EQ(cache->TotalCharge(), 1048576u);
}

TEST(DBOptions, CacheSizeCountsInMebibytes) {
  TempDir dir;
  BufferedReadEnv env;
  testing_support::ScopedTestEnv scoped_env(&env);
  DBProbe db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, false, 2).ok());
  FillWithOneEntryBlocks(db, 1200);
  ASSERT_TRUE(db.Close().ok());
  ASSERT_TRUE(db.Open(true, false, false, 2).ok());
  std::string value;
  for (int i = 0; i < 1200; ++i) ASSERT_TRUE(db.Get(BlockKey(i), &value, nullptr).ok());
  EXPECT_EQ(db.block_cache()->TotalCharge(), 2u * 1048576u);
}

TEST(DBOptions, WalksOtherThanEmptyDoNotFillTheCache) {
  TempDir dir;
  BufferedReadEnv env;
  testing_support::ScopedTestEnv scoped_env(&env);
  DBProbe db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, false, 1).ok());
  FillWithOneEntryBlocks(db, 20);
  ASSERT_TRUE(db.Close().ok());
  ASSERT_TRUE(db.Open(true, false, false, 1).ok());
  const leveldb::Cache* cache = db.block_cache();

  std::vector<std::string> keys;
  std::vector<std::string> values;
  uint64_t count = 0;
  ASSERT_TRUE(db.Dump(&keys, &values, nullptr).ok());
  ASSERT_EQ(keys.size(), 20u);
  ASSERT_TRUE(db.Count(&count, nullptr).ok());
  ASSERT_TRUE(db.ReadInterval(0, DB::MaxCount(), &keys, &values, nullptr).ok());
  ASSERT_TRUE(db.ReadReverseInterval(0, DB::MaxCount(), &keys, &values, nullptr).ok());
  ASSERT_TRUE(db.Iterate([](std::string, std::string) { return true; }, nullptr).ok());
  ASSERT_TRUE(db.Verify().ok());
  EXPECT_EQ(cache->TotalCharge(), 0u);

  // Empty reads the first block through the cache.
  bool is_empty = true;
  ASSERT_TRUE(db.Empty(&is_empty, nullptr).ok());
  EXPECT_FALSE(is_empty);
  EXPECT_EQ(cache->TotalCharge(), 4096u);

  // A Get of many keys fills it too.
  ASSERT_TRUE(db.Get({BlockKey(5), BlockKey(6)}, &values, nullptr).ok());
  EXPECT_EQ(cache->TotalCharge(), 3u * 4096u);
}

}  // namespace
