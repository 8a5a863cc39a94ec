// Bad input to the generic wrappers that all five plain families export:
// null out-parameters, empty keys, keys with zero bytes inside and keys of a
// mebibyte. Each call gets its own status, and the records stored before it
// are all still there afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "stores/families.h"
#include "stores/store_test_env.h"

namespace bad_input_testing {
namespace {

using namespace stores_testing;  // NOLINT: the shared vocabulary of the store tests
using ::testing::IsEmpty;

// A key holding "text": the hash or key itself, or the process name.
template <typename Family>
bool KeyOf(const std::string& text, typename Family::Key* key) {
  if constexpr (std::is_same_v<typename Family::Key, std::string>) {
    *key = text;
    return true;
  } else if constexpr (std::is_same_v<Family, ProcessPolicyFamily>) {
    key->set_process_name(text);
    key->set_module_id(1);
    return true;
  } else {
    return false;
  }
}

template <typename Family>
class PlainWrappersBadInputTest : public StoreTest {
 protected:
  using Key = typename Family::Key;
  using Value = typename Family::Value;
  using Data = typename Family::Data;
  using Records = std::vector<std::pair<std::string, std::string>>;

  void SetUp() override {
    const Status status = Family::AtomicClearAndPut(MakeData(0, 5));
    ASSERT_EQ(status.code, 0) << status.message;
    before_ = Contents();
    ASSERT_EQ(before_.size(), 5u);
    log_.clear();
  }

  // Nothing stored before the bad call is lost, and nothing was added.
  void TearDown() override { EXPECT_EQ(Contents(), before_); }

  static Data MakeData(int first, int end) {
    Data data;
    for (int i = first; i < end; ++i) {
      auto* entry = data.add_entries();
      *entry->mutable_key() = Family::MakeKey(i);
      *entry->mutable_value() = Family::MakeValue(i);
    }
    return data;
  }

  static Records Contents() {
    std::vector<Key> keys;
    std::vector<Value> values;
    const Status status = Family::Dump(&keys, &values);
    EXPECT_EQ(status.code, 0) << status.message;
    Records records;
    for (size_t i = 0; i < keys.size(); ++i) {
      records.emplace_back(KeyBytes(keys[i]), values[i].SerializeAsString());
    }
    return records;
  }

  static void ExpectStatus(const Status& status, int code, const std::string& message) {
    EXPECT_EQ(status.code, code);
    EXPECT_EQ(status.message, message);
  }

  // A key with "text" in it round-trips through the store: it is found
  // exactly, and a key cut at its first zero byte is not.
  void ExpectRoundTrip(const std::string& text) {
    Key key;
    ASSERT_TRUE(KeyOf<Family>(text, &key));
    Data data = MakeData(0, 5);
    auto* entry = data.add_entries();
    *entry->mutable_key() = key;
    *entry->mutable_value() = Family::MakeValue(7);
    ASSERT_EQ(Family::AtomicClearAndPut(data).code, 0);
    Value value;
    Status status = Family::Get(key, &value);
    EXPECT_EQ(status.code, 0) << status.message;
    EXPECT_EQ(value.SerializeAsString(), Family::MakeValue(7).SerializeAsString());
    Key cut;
    ASSERT_TRUE(KeyOf<Family>(text.substr(0, text.find('\0')), &cut));
    if (text.find('\0') != std::string::npos) {
      EXPECT_EQ(Family::Get(cut, &value).code, 3);
    }
    std::vector<Value> values;
    status = Family::Get(std::vector<Key>{Family::MakeKey(1), key}, &values);
    EXPECT_EQ(status.code, 0) << status.message;
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values[1].SerializeAsString(), Family::MakeValue(7).SerializeAsString());
    Records expected = before_;
    expected.emplace_back(KeyBytes(key), Family::MakeValue(7).SerializeAsString());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Contents(), expected);
    // The store is put back as it was, for the comparison at the end.
    ASSERT_EQ(Family::AtomicClearAndPut(MakeData(0, 5)).code, 0);
    EXPECT_THAT(LogLines(), IsEmpty());
  }

  Records before_;
};

TYPED_TEST_SUITE(PlainWrappersBadInputTest, AllFamilies, FamilyName);

TYPED_TEST(PlainWrappersBadInputTest, NullOutParametersAreRefusedWithTheirOwnMessages) {
  using Key = typename TypeParam::Key;
  using Value = typename TypeParam::Value;
  using Data = typename TypeParam::Data;
  std::vector<Key> keys{TypeParam::MakeKey(1)};
  std::vector<Value> values{TypeParam::MakeValue(1)};
  this->ExpectStatus(TypeParam::Empty(nullptr), 2, "is_empty is nullptr");
  this->ExpectStatus(TypeParam::Count(nullptr), 2, "count is nullptr");
  this->ExpectStatus(TypeParam::Get(TypeParam::MakeKey(1), nullptr), 2, "Received nullptr value");
  this->ExpectStatus(TypeParam::Get(keys, nullptr), 2, "Received nullptr values");
  this->ExpectStatus(TypeParam::ReadInterval(0, 10, nullptr, &values), 2, "keys is nullptr");
  this->ExpectStatus(TypeParam::ReadInterval(0, 10, &keys, nullptr), 2, "values is nullptr");
  this->ExpectStatus(TypeParam::ReadInterval(0, 10, static_cast<Data*>(nullptr)), 2,
                     "data is nullptr");
  this->ExpectStatus(TypeParam::Dump(nullptr, &values), 2, "Received nullptr keys");
  this->ExpectStatus(TypeParam::Dump(&keys, nullptr), 2, "Received nullptr values");
  this->ExpectStatus(TypeParam::Dump(static_cast<Data*>(nullptr)), 2, "data is nullptr");
  // A refused call leaves the other out-parameter as it was.
  EXPECT_EQ(AllBytes(keys), AllBytes(std::vector<Key>{TypeParam::MakeKey(1)}));
  EXPECT_EQ(values.size(), 1u);
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

TYPED_TEST(PlainWrappersBadInputTest, EmptyKeyIsRefusedByTheHandle) {
  using Key = typename TypeParam::Key;
  using Value = typename TypeParam::Value;
  Value value = TypeParam::MakeValue(1);
  this->ExpectStatus(TypeParam::Get(TypeParam::EmptyKey(), &value), 2,
                     "Invalid argument: key: empty");
  EXPECT_EQ(value.SerializeAsString(), "");

  std::vector<Value> values{TypeParam::MakeValue(1)};
  this->ExpectStatus(TypeParam::Get(std::vector<Key>{}, &values), 2, "Received empty keys vector");
  EXPECT_EQ(values.size(), 1u);
  this->ExpectStatus(
      TypeParam::Get(std::vector<Key>{TypeParam::MakeKey(1), TypeParam::EmptyKey()}, &values), 2,
      "Invalid argument: key: empty");
  EXPECT_THAT(values, IsEmpty());

  // One empty key among good ones: the whole write is refused.
  typename TypeParam::Data data = this->MakeData(5, 7);
  auto* entry = data.add_entries();
  *entry->mutable_key() = TypeParam::EmptyKey();
  *entry->mutable_value() = TypeParam::MakeValue(9);
  this->ExpectStatus(TypeParam::AtomicClearAndPut(data), 2, "Invalid argument: put_key: empty");
  EXPECT_THAT(this->LogLines(), IsEmpty());
}

// The families whose key holds a string; the general policy key holds a
// module id alone.
template <typename Family>
class StringKeyBadInputTest : public PlainWrappersBadInputTest<Family> {};
using StringKeyFamilies = ::testing::Types<FVhashFamily, TrustedSignersFamily,
                                           TrustedSignersCacheFamily, ProcessPolicyFamily>;
TYPED_TEST_SUITE(StringKeyBadInputTest, StringKeyFamilies, FamilyName);

TYPED_TEST(StringKeyBadInputTest, KeyWithZeroBytesInsideIsAKeyOfItsOwn) {
  this->ExpectRoundTrip(std::string("key\0with\0zeros", 14));
}

TYPED_TEST(StringKeyBadInputTest, KeyOfAMebibyteIsStoredAndFound) {
  this->ExpectRoundTrip(std::string(size_t{1} << 20, 'k'));
}

}  // namespace
}  // namespace bad_input_testing
