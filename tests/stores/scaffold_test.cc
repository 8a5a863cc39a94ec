// What all five plain families share: the parameter checks of the generic
// wrappers and templates, their forwarding to the store, first use of the
// store with its Open() check, and a store over a directory that cannot be
// opened or that is damaged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "stores/families.h"
#include "stores/store_test_env.h"
#include "support/damage.h"

namespace stores_testing {
namespace {

using std::chrono::seconds;
using ::testing::IsEmpty;

template <typename Family>
class ScaffoldTest : public StoreTest {
 protected:
  using Key = typename Family::Key;
  using Value = typename Family::Value;
  using Data = typename Family::Data;

  std::string path() const { return StorePath(Family::kStore); }

  static Data MakeData(int first, int end) {
    Data data;
    for (int i = first; i < end; ++i) {
      auto* entry = data.add_entries();
      *entry->mutable_key() = Family::MakeKey(i);
      *entry->mutable_value() = Family::MakeValue(i);
    }
    return data;
  }

  static std::vector<std::string> KeysOf(int first, int end) {
    std::vector<std::string> keys;
    for (int i = first; i < end; ++i) keys.push_back(KeyBytes(Family::MakeKey(i)));
    return keys;
  }

  static std::vector<std::string> ValuesOf(int first, int end) {
    std::vector<std::string> values;
    for (int i = first; i < end; ++i) values.push_back(Family::MakeValue(i).SerializeAsString());
    return values;
  }

  static std::vector<std::string> ValueBytes(const std::vector<Value>& values) {
    std::vector<std::string> bytes;
    for (const Value& value : values) bytes.push_back(value.SerializeAsString());
    return bytes;
  }

  static std::vector<std::string> EntryKeys(const Data& data) {
    std::vector<std::string> keys;
    for (const auto& entry : data.entries()) keys.push_back(KeyBytes(entry.key()));
    return keys;
  }

  static std::vector<std::string> EntryValues(const Data& data) {
    std::vector<std::string> values;
    for (const auto& entry : data.entries()) values.push_back(entry.value().SerializeAsString());
    return values;
  }

  // Fills the store with records 0 to "end" - 1 through the family.
  void Fill(int end) {
    const Status status = Family::AtomicClearAndPut(MakeData(0, end));
    ASSERT_EQ(status.code, 0) << status.message;
  }

  // Keys and values of the whole store, as bytes, in store order.
  void ExpectContents(const std::vector<std::string>& keys,
                      const std::vector<std::string>& values) {
    std::vector<Key> read_keys;
    std::vector<Value> read_values;
    const Status status = Family::Dump(&read_keys, &read_values);
    ASSERT_EQ(status.code, 0) << status.message;
    EXPECT_EQ(AllBytes(read_keys), keys);
    EXPECT_EQ(ValueBytes(read_values), values);
  }

  // A refused call: code 2 with "message", nothing logged, and no directory
  // made for the store.
  void ExpectRefused(const Status& status, const std::string& message) {
    EXPECT_EQ(status.code, 2);
    EXPECT_EQ(status.message, message);
    EXPECT_THAT(LogLines(), IsEmpty());
    EXPECT_FALSE(PathExists(path()));
  }
};

TYPED_TEST_SUITE(ScaffoldTest, AllFamilies, FamilyName);

// --- Parameter checks: code 2, nothing logged, the store not opened ---------

TYPED_TEST(ScaffoldTest, EmptyRefusesNullPointer) {
  this->ExpectRefused(TypeParam::Empty(nullptr), "is_empty is nullptr");
}

TYPED_TEST(ScaffoldTest, CountRefusesNullPointer) {
  this->ExpectRefused(TypeParam::Count(nullptr), "count is nullptr");
}

TYPED_TEST(ScaffoldTest, GetRefusesNullValue) {
  this->ExpectRefused(TypeParam::Get(TypeParam::MakeKey(0), nullptr), "Received nullptr value");
}

TYPED_TEST(ScaffoldTest, GetManyTestsForEmptyKeysBeforeNullValues) {
  using Key = typename TypeParam::Key;
  using Value = typename TypeParam::Value;
  std::vector<Value> values(1);
  this->ExpectRefused(TypeParam::Get(std::vector<Key>{}, nullptr), "Received empty keys vector");
  this->ExpectRefused(TypeParam::Get(std::vector<Key>{}, &values), "Received empty keys vector");
  EXPECT_EQ(values.size(), 1u);
  this->ExpectRefused(TypeParam::Get(std::vector<Key>{TypeParam::MakeKey(0)}, nullptr),
                      "Received nullptr values");
}

TYPED_TEST(ScaffoldTest, DumpTestsKeysBeforeValues) {
  using Key = typename TypeParam::Key;
  std::vector<Key> keys{TypeParam::MakeKey(3)};
  this->ExpectRefused(TypeParam::Dump(nullptr, nullptr), "Received nullptr keys");
  this->ExpectRefused(TypeParam::Dump(&keys, nullptr), "Received nullptr values");
  // Refused before anything is cleared.
  EXPECT_EQ(AllBytes(keys), std::vector<std::string>{KeyBytes(TypeParam::MakeKey(3))});
}

TYPED_TEST(ScaffoldTest, ReadIntervalTestsKeysBeforeValues) {
  using Key = typename TypeParam::Key;
  std::vector<Key> keys{TypeParam::MakeKey(3)};
  this->ExpectRefused(TypeParam::ReadInterval(0, 10, nullptr, nullptr), "keys is nullptr");
  this->ExpectRefused(TypeParam::ReadInterval(0, 10, &keys, nullptr), "values is nullptr");
  EXPECT_EQ(keys.size(), 1u);
}

TYPED_TEST(ScaffoldTest, DataFormsRefuseNullData) {
  using Data = typename TypeParam::Data;
  this->ExpectRefused(TypeParam::Dump(static_cast<Data*>(nullptr)), "data is nullptr");
  this->ExpectRefused(TypeParam::ReadInterval(0, 10, static_cast<Data*>(nullptr)),
                      "data is nullptr");
}

TYPED_TEST(ScaffoldTest, AtomicClearAndPutRefusesEmptyData) {
  this->ExpectRefused(TypeParam::AtomicClearAndPut(typename TypeParam::Data()),
                      "Received empty keys or values vector");
}

TYPED_TEST(ScaffoldTest, AtomicClearAndPutOfEmptyDataLeavesTheStoreAsItWas) {
  this->Fill(3);
  const Status status = TypeParam::AtomicClearAndPut(typename TypeParam::Data());
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Received empty keys or values vector");
  this->ExpectContents(this->KeysOf(0, 3), this->ValuesOf(0, 3));
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

// --- Forwarding -------------------------------------------------------------

TYPED_TEST(ScaffoldTest, FirstUseCreatesTheDirectoryAndLogsNothing) {
  EXPECT_FALSE(PathExists(this->path()));
  bool is_empty = false;
  Status status = TypeParam::Empty(&is_empty);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_TRUE(is_empty);
  unsigned long count = 99;
  status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(IsDirectory(this->path()));
  EXPECT_TRUE(PathExists(this->path() + "/CURRENT"));
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

TYPED_TEST(ScaffoldTest, AtomicClearAndPutReplacesTheWholeStore) {
  this->Fill(5);
  ASSERT_EQ(TypeParam::AtomicClearAndPut(this->MakeData(6, 9)).code, 0);
  this->ExpectContents(this->KeysOf(6, 9), this->ValuesOf(6, 9));
  unsigned long count = 0;
  ASSERT_EQ(TypeParam::Count(&count).code, 0);
  EXPECT_EQ(count, 3u);
  bool is_empty = true;
  ASSERT_EQ(TypeParam::Empty(&is_empty).code, 0);
  EXPECT_FALSE(is_empty);
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

TYPED_TEST(ScaffoldTest, EntryWithoutValueStoresTheDefaultValue) {
  typename TypeParam::Data data = this->MakeData(0, 1);
  *data.add_entries()->mutable_key() = TypeParam::MakeKey(1);  // no value part
  ASSERT_FALSE(data.entries(1).has_value());
  ASSERT_EQ(TypeParam::AtomicClearAndPut(data).code, 0);

  typename TypeParam::Value value = TypeParam::MakeValue(5);
  const Status status = TypeParam::Get(TypeParam::MakeKey(1), &value);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(value.SerializeAsString(), "");
  this->ExpectContents(this->KeysOf(0, 2), {TypeParam::MakeValue(0).SerializeAsString(), ""});
}

TYPED_TEST(ScaffoldTest, EntryWithEmptyKeyIsRefusedAndTheStoreKept) {
  this->Fill(2);
  typename TypeParam::Data data = this->MakeData(5, 6);
  // No key part: the default key, which is stored as no bytes at all.
  *data.add_entries()->mutable_value() = TypeParam::MakeValue(7);
  ASSERT_EQ(KeyBytes(data.entries(1).key()), "");
  const Status status = TypeParam::AtomicClearAndPut(data);
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Invalid argument: put_key: empty");
  this->ExpectContents(this->KeysOf(0, 2), this->ValuesOf(0, 2));
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

TYPED_TEST(ScaffoldTest, GetReadsOneRecordAndReportsAbsence) {
  this->Fill(3);
  typename TypeParam::Value value;
  Status status = TypeParam::Get(TypeParam::MakeKey(2), &value);
  EXPECT_EQ(status.code, 0);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(value.SerializeAsString(), TypeParam::MakeValue(2).SerializeAsString());

  status = TypeParam::Get(TypeParam::MakeKey(7), &value);
  EXPECT_EQ(status.code, 3);
  EXPECT_EQ(status.message, "NotFound: ");
  EXPECT_EQ(value.SerializeAsString(), "");  // cleared
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

TYPED_TEST(ScaffoldTest, GetManyReadsOneToOneOrFailsWhole) {
  using Key = typename TypeParam::Key;
  using Value = typename TypeParam::Value;
  this->Fill(4);
  std::vector<Value> values;
  Status status =
      TypeParam::Get(std::vector<Key>{TypeParam::MakeKey(3), TypeParam::MakeKey(1)}, &values);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(this->ValueBytes(values),
            (std::vector<std::string>{TypeParam::MakeValue(3).SerializeAsString(),
                                      TypeParam::MakeValue(1).SerializeAsString()}));

  status = TypeParam::Get(
      std::vector<Key>{TypeParam::MakeKey(0), TypeParam::MakeKey(8), TypeParam::MakeKey(1)},
      &values);
  EXPECT_EQ(status.code, 3);
  EXPECT_EQ(status.message, "NotFound: ");
  EXPECT_THAT(values, IsEmpty());
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

TYPED_TEST(ScaffoldTest, DumpReplacesWhatTheVectorsHeld) {
  using Key = typename TypeParam::Key;
  using Value = typename TypeParam::Value;
  this->Fill(4);
  std::vector<Key> keys{TypeParam::MakeKey(9), TypeParam::MakeKey(8)};
  std::vector<Value> values{TypeParam::MakeValue(9)};
  ASSERT_EQ(TypeParam::Dump(&keys, &values).code, 0);
  EXPECT_EQ(AllBytes(keys), this->KeysOf(0, 4));
  EXPECT_EQ(this->ValueBytes(values), this->ValuesOf(0, 4));
}

TYPED_TEST(ScaffoldTest, DumpIntoDataReplacesItsEntries) {
  this->Fill(4);
  typename TypeParam::Data data = this->MakeData(7, 10);
  ASSERT_EQ(TypeParam::Dump(&data).code, 0);
  EXPECT_EQ(this->EntryKeys(data), this->KeysOf(0, 4));
  EXPECT_EQ(this->EntryValues(data), this->ValuesOf(0, 4));
}

TYPED_TEST(ScaffoldTest, ReadIntervalReadsAPageCountedFromOne) {
  using Key = typename TypeParam::Key;
  using Value = typename TypeParam::Value;
  this->Fill(10);
  std::vector<Key> keys{TypeParam::MakeKey(9)};
  std::vector<Value> values{TypeParam::MakeValue(9)};

  ASSERT_EQ(TypeParam::ReadInterval(3, 4, &keys, &values).code, 0);
  EXPECT_EQ(AllBytes(keys), this->KeysOf(2, 6));
  EXPECT_EQ(this->ValueBytes(values), this->ValuesOf(2, 6));

  ASSERT_EQ(TypeParam::ReadInterval(0, 2, &keys, &values).code, 0);
  EXPECT_EQ(AllBytes(keys), this->KeysOf(0, 2));
  ASSERT_EQ(TypeParam::ReadInterval(1, 2, &keys, &values).code, 0);
  EXPECT_EQ(AllBytes(keys), this->KeysOf(0, 2));

  ASSERT_EQ(TypeParam::ReadInterval(9, 5, &keys, &values).code, 0);
  EXPECT_EQ(AllBytes(keys), this->KeysOf(8, 10));
  EXPECT_EQ(this->ValueBytes(values), this->ValuesOf(8, 10));

  ASSERT_EQ(TypeParam::ReadInterval(11, 5, &keys, &values).code, 0);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  ASSERT_EQ(TypeParam::ReadInterval(1, 0, &keys, &values).code, 0);
  EXPECT_THAT(keys, IsEmpty());
}

TYPED_TEST(ScaffoldTest, ReadIntervalIntoDataReplacesItsEntries) {
  this->Fill(10);
  typename TypeParam::Data data = this->MakeData(0, 1);
  ASSERT_EQ(TypeParam::ReadInterval(5, 3, &data).code, 0);
  EXPECT_EQ(this->EntryKeys(data), this->KeysOf(4, 7));
  EXPECT_EQ(this->EntryValues(data), this->ValuesOf(4, 7));
}

// --- First use over a prepared or spoilt directory ---------------------------

TYPED_TEST(ScaffoldTest, RecordsOnDiskAreTheWireFormUnderTheKeyBytes) {
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < 3; ++i) {
    records.emplace_back(KeyBytes(TypeParam::MakeKey(i)),
                         TypeParam::MakeValue(i).SerializeAsString());
  }
  WriteRawRecords(this->path(), records);
  this->ExpectContents(this->KeysOf(0, 3), this->ValuesOf(0, 3));
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

TYPED_TEST(ScaffoldTest, DirectoryThatIsAFileFailsEveryCallAndLogsTheOpenCheckOnce) {
  this->BlockStoreDirectory(TypeParam::kStore);
  using Key = typename TypeParam::Key;
  using Value = typename TypeParam::Value;
  using Data = typename TypeParam::Data;

  unsigned long count = 7;
  Status status = TypeParam::Count(&count);
  // Open() failed; within the reopen delay the store answers at once.
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(count, 0u);
  const std::vector<Line> after_first_use{
      {kError, "Failed to open database '" + this->path() + "'."},
      {kError, OpenCheckLine(TypeParam::kStore, 5, NotADirectoryText(this->path()))}};
  ASSERT_EQ(this->LogLines(), after_first_use);
  const testing_support::LoggedLine check = this->log_.lines()[1];
  EXPECT_EQ(check.file, std::string("nix/dravinhold/") + TypeParam::kStore + "/" +
                            TypeParam::kStore + "_def.h");
  EXPECT_EQ(check.line, 9);

  // Every later call fails the same way, and the wrappers log nothing.
  bool is_empty = false;
  status = TypeParam::Empty(&is_empty);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  Value value = TypeParam::MakeValue(1);
  status = TypeParam::Get(TypeParam::MakeKey(1), &value);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(value.SerializeAsString(), "");
  std::vector<Value> values{TypeParam::MakeValue(1)};
  status = TypeParam::Get(std::vector<Key>{TypeParam::MakeKey(1)}, &values);
  EXPECT_EQ(status.code, 5);
  EXPECT_THAT(values, IsEmpty());
  std::vector<Key> keys{TypeParam::MakeKey(1)};
  values = {TypeParam::MakeValue(1)};
  status = TypeParam::Dump(&keys, &values);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  keys = {TypeParam::MakeKey(1)};
  values = {TypeParam::MakeValue(1)};
  status = TypeParam::ReadInterval(0, 10, &keys, &values);
  EXPECT_EQ(status.code, 5);
  EXPECT_THAT(keys, IsEmpty());
  EXPECT_THAT(values, IsEmpty());
  Data data = this->MakeData(0, 2);
  status = TypeParam::Dump(&data);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(data.entries_size(), 0);
  data = this->MakeData(0, 2);
  status = TypeParam::ReadInterval(0, 10, &data);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(data.entries_size(), 0);
  status = TypeParam::AtomicClearAndPut(this->MakeData(0, 2));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");

  EXPECT_EQ(this->LogLines(), after_first_use);
  EXPECT_FALSE(IsDirectory(this->path()));
}

TYPED_TEST(ScaffoldTest, StoreThatFailedToOpenComesBackAfterTheReopenDelay) {
  this->BlockStoreDirectory(TypeParam::kStore);
  unsigned long count = 0;
  ASSERT_EQ(TypeParam::Count(&count).code, 5);
  ASSERT_EQ(this->LogLines().size(), 2u);
  this->log_.clear();
  testing_support::RemoveTree(this->path());

  // The delay counts from the store's construction at first use.
  this->clock_.Advance(seconds(299));
  Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  EXPECT_THAT(this->LogLines(), IsEmpty());

  this->clock_.Advance(seconds(1));
  ASSERT_EQ(TypeParam::AtomicClearAndPut(this->MakeData(0, 2)).code, 0);
  EXPECT_EQ(this->LogLines(), (std::vector<Line>{{kNotice, "Reopening the database..."},
                                                 {kNotice, "Database reopened successfully!"}}));
  this->ExpectContents(this->KeysOf(0, 2), this->ValuesOf(0, 2));
  EXPECT_TRUE(IsDirectory(this->path()));
}

TYPED_TEST(ScaffoldTest, CurrentNamingAMissingManifestIsRecreatedEmpty) {
  ASSERT_EQ(mkdir(this->path().c_str(), 0755), 0);
  testing_support::WriteFile(this->path() + "/CURRENT", "MANIFEST-000099\n");

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  // The open fails with Corruption; the store destroys the directory's
  // database and creates a new one, so its Open() succeeds.
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{{kError, "Failed to open database '" + this->path() + "'."},
                               {kCritical, "Failed to open corrupted database '" + this->path() +
                                               "'. Recreating."}}));
  const std::string manifest = testing_support::ReadFile(this->path() + "/CURRENT");
  EXPECT_NE(manifest, "MANIFEST-000099\n");
  EXPECT_TRUE(PathExists(this->path() + "/" + manifest.substr(0, manifest.size() - 1)));

  this->Fill(2);
  this->ExpectContents(this->KeysOf(0, 2), this->ValuesOf(0, 2));
}

TYPED_TEST(ScaffoldTest, MissingManifestThatCannotBeRecreatedFailsAndLogsTheOpenCheck) {
  ASSERT_EQ(mkdir(this->path().c_str(), 0755), 0);
  testing_support::WriteFile(this->path() + "/CURRENT", "MANIFEST-000099\n");
  testing_support::FaultEnv& env = LastingFaultEnv();
  env.fail_writes = true;
  testing_support::ScopedTestEnv scoped_env(&env);

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "");
  const std::string path = this->path();
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{
                {kError, "Failed to open database '" + path + "'."},
                {kCritical, "Failed to open corrupted database '" + path + "'. Recreating."},
                {kError, "Failed to open database '" + path + "'."},
                {kError, OpenCheckLine(
                             TypeParam::kStore, 5,
                             "IO error: " + path + "/MANIFEST-000001: injected write failure")}}));
}

TYPED_TEST(ScaffoldTest, DamagedTablesAreRecreatedEmpty) {
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < 5; ++i) {
    records.emplace_back(KeyBytes(TypeParam::MakeKey(i)),
                         TypeParam::MakeValue(i).SerializeAsString() + std::string(4000, 'x'));
  }
  WriteRawRecords(this->path(), records);
  ASSERT_GT(testing_support::DamageTableFiles(this->path()), 0);

  unsigned long count = 7;
  const Status status = TypeParam::Count(&count);
  EXPECT_EQ(status.code, 0) << status.message;
  EXPECT_EQ(count, 0u);
  // No repair is tried: the store's database is destroyed and made anew.
  EXPECT_EQ(this->LogLines(),
            (std::vector<Line>{{kCritical, "Failed to open corrupted database '" + this->path() +
                                               "'. Recreating."}}));
  EXPECT_THAT(testing_support::FilesWithSuffix(this->path(), ".ldb"), IsEmpty());
}

}  // namespace
}  // namespace stores_testing
