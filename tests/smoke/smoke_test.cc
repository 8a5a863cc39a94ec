#include <gtest/gtest.h>

#include "persistence/kvstore.h"
#include "support/temp_dir.h"
#include "testing/records.pb.h"

namespace {

using Store = persistence::KVStore<std::string, proto::Testing::Value, proto::Testing::Data>;
using KeyedStore =
    persistence::KVStore<proto::Testing::Key, proto::Testing::Value, proto::Testing::KeyedData>;

template <typename StoreT>
class Opened : public StoreT {
 public:
  Opened() : StoreT(108) {}
  persistence::Status Open(const std::string& path, bool paranoid) {
    return this->OpenWithRecovery(path, paranoid, 0);
  }
};

TEST(Smoke, PutGet) {
  testing_support::TempDir dir;
  Opened<Store> store;
  ASSERT_TRUE(store.Open(dir.Sub("db"), true).ok());
  proto::Testing::Value value;
  value.set_text("hello");
  ASSERT_TRUE(store.Put("k", value, false).ok());
  proto::Testing::Value read;
  ASSERT_TRUE(store.Get("k", &read, nullptr).ok());
  EXPECT_EQ(read.text(), "hello");
}

TEST(Smoke, KeyedPutGet) {
  testing_support::TempDir dir;
  Opened<KeyedStore> store;
  ASSERT_TRUE(store.Open(dir.Sub("db"), false).ok());
  proto::Testing::Key key;
  key.set_id(3);
  proto::Testing::Value value;
  value.set_number(7);
  ASSERT_TRUE(store.Put(key, value, false).ok());
  std::vector<proto::Testing::Key> keys;
  std::vector<proto::Testing::Value> values;
  ASSERT_TRUE(store.Dump(&keys, &values, nullptr).ok());
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(keys[0].id(), 3);
  EXPECT_EQ(values[0].number(), 7);
}

}  // namespace
