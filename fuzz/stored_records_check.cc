#include "fuzz/stored_records_check.h"

// The enrichment records log through their own logger: this header comes
// before any instantiation over them.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <type_traits>
#include <utility>

#include "dravinhold/fvhash_store/fvhash_store.pb.h"
#include "dravinhold/general_settings_policy_store/general_settings_policy_store.pb.h"
#include "dravinhold/process_settings_policy_store/process_settings_policy_store.pb.h"
#include "dravinhold/trusted_signers_cache/trusted_signers_cache.pb.h"
#include "dravinhold/trusted_signers_store/trusted_signers_store.pb.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_support.h"
#include "persistence/db.h"
#include "persistence/kvstore.h"
#include "persistence/status.h"

namespace fuzzing {
namespace {

using persistence::Status;

constexpr size_t kMaxRecords = 48;
constexpr size_t kMaxGetKeys = 16;
// Clearing leaves deletion marks behind; a compaction now and then keeps the
// walks over an "empty" database short.
constexpr uint64_t kCompactEvery = 32;

const char kValueMessage[] = "Not implemented: db_value: Failed deserializing value";
const char kValuesMessage[] = "Not implemented: db_values: Failed deserializing values";
const char kKeysMessage[] = "Not implemented: db_keys: Failed deserializing keys";
const char kEmptyKeyMessage[] = "Invalid argument: key: empty";

std::string g_root;

// A typed store opened on a directory of our own, in the mode asked for,
// whose handle the check writes through directly.
template <typename KeyT, typename ValueT, typename DataT>
class CheckedStore : public persistence::KVStore<KeyT, ValueT, DataT> {
 public:
  CheckedStore() : persistence::KVStore<KeyT, ValueT, DataT>(108) {}
  Status Open(const std::string& path, bool paranoid_checks) {
    return this->OpenWithRecovery(path, paranoid_checks, 0);
  }
  persistence::DB* handle() { return this->db_.get(); }
  uint64_t uses = 0;
};

// The parameters of the reads, from the eight bytes after the selector.
struct Params {
  uint64_t start;          // forward page start
  uint64_t count;          // forward page size; 255 is all ones
  uint64_t reverse_start;  // reverse page start
  uint64_t reverse_count;  // reverse page size; 255 is all ones
  uint8_t bound_start;     // low two bits: kind of bound, the rest: record
  uint8_t bound_limit;
  uint8_t stop_after;  // walks stop after this many records; 0: never
  uint8_t absent_at;   // position of an absent key in the multi-key Get
};

uint64_t PageCount(uint8_t byte) { return byte == 255 ? ~uint64_t{0} : byte; }

class Failures {
 public:
  explicit Failures(std::string context) : context_(std::move(context)) {}
  void Add(const std::string& what) { lines_.push_back(context_ + ": " + what); }
  std::vector<std::string> Take() { return std::move(lines_); }

 private:
  std::string context_;
  std::vector<std::string> lines_;
};

template <typename KeyT, typename ValueT>
struct Record {
  std::string key_bytes;
  std::string value_bytes;
  bool key_ok = true;
  bool value_ok = true;
  KeyT key;
  ValueT value;
};

template <typename MessageT>
bool SameMessage(const MessageT& a, const MessageT& b) {
  return a.SerializeAsString() == b.SerializeAsString();
}

template <typename KeyT>
bool SameKey(const KeyT& a, const KeyT& b) {
  if constexpr (std::is_same_v<KeyT, std::string>) {
    return a == b;
  } else {
    return SameMessage(a, b);
  }
}

template <typename KeyT, typename ValueT, typename DataT>
class StoreCheck {
 public:
  using Store = CheckedStore<KeyT, ValueT, DataT>;
  using Rec = Record<KeyT, ValueT>;
  static constexpr bool kStringKeys = std::is_same_v<KeyT, std::string>;

  StoreCheck(Store& store, bool paranoid, const Params& params, Failures& failures)
      : store_(store), paranoid_(paranoid), params_(params), failures_(failures) {}

  void Run(FuzzInput& input) {
    persistence::DB* handle = store_.handle();
    if (handle == nullptr) {
      failures_.Add("the store did not open");
      return;
    }
    if (++store_.uses % kCompactEvery == 0) handle->Compact();
    const leveldb::Status cleared = handle->Clear(false);
    if (!cleared.ok()) failures_.Add("Clear: " + cleared.ToString());

    std::vector<std::string> keys;
    std::vector<std::string> values;
    std::map<std::string, std::string> stored;
    while (!input.empty() && keys.size() < kMaxRecords) {
      std::string key = input.Blob();
      std::string value = input.Blob();
      if (key.empty()) continue;  // the handle refuses an empty key
      stored[key] = value;
      keys.push_back(std::move(key));
      values.push_back(std::move(value));
    }
    const leveldb::Status written = handle->Put(keys, values, false);
    if (!written.ok()) failures_.Add("Put: " + written.ToString());

    for (const auto& [key_bytes, value_bytes] : stored) {
      Rec rec;
      rec.key_bytes = key_bytes;
      rec.value_bytes = value_bytes;
      rec.value_ok = rec.value.ParseFromString(value_bytes);
      if constexpr (kStringKeys) {
        rec.key = key_bytes;
      } else {
        rec.key_ok = rec.key.ParseFromString(key_bytes);
      }
      records_.push_back(std::move(rec));
    }
    for (const Rec& rec : records_) all_.push_back(&rec);

    CheckCountAndEmpty();
    CheckDump();
    CheckRange();
    CheckPages();
    CheckDataPage();
    CheckSingleGets();
    CheckMultiGet();
    CheckWalk(false);
    CheckWalk(true);
  }

 private:
  // What a read of "page" must give: the values are decoded first, then the
  // keys, and the first record that fails ends the decoding.
  struct Decoding {
    int32_t code = Status::kOk;
    std::string message;
    size_t keys_n = 0;
    size_t values_n = 0;
  };

  static Decoding Expected(const std::vector<const Rec*>& page, bool with_values) {
    const size_t n = page.size();
    Decoding expected;
    expected.keys_n = n;
    expected.values_n = with_values ? n : 0;
    if (with_values) {
      for (size_t i = 0; i < n; ++i) {
        if (!page[i]->value_ok) {
          expected.code = Status::kNotSupported;
          expected.message = kValuesMessage;
          expected.values_n = i;
          expected.keys_n = 0;
          return expected;
        }
      }
    }
    for (size_t i = 0; i < n; ++i) {
      if (!page[i]->key_ok) {
        expected.code = Status::kNotSupported;
        expected.message = kKeysMessage;
        expected.keys_n = i;
        return expected;
      }
    }
    return expected;
  }

  void CheckDecoded(const std::string& what, const Status& status, const std::vector<KeyT>& keys,
                    const std::vector<ValueT>* values, const std::vector<const Rec*>& page) {
    const Decoding expected = Expected(page, values != nullptr);
    const int32_t code = expected.code;
    const std::string& message = expected.message;
    const size_t keys_n = expected.keys_n;
    const size_t values_n = expected.values_n;
    if (status.code != code || status.message != message) {
      failures_.Add(what + ": got " + Describe(status) + ", expected code " + std::to_string(code) +
                    " message \"" + message + "\"");
    }
    if (keys.size() != keys_n) {
      failures_.Add(what + ": " + std::to_string(keys.size()) + " keys, expected " +
                    std::to_string(keys_n));
    } else {
      for (size_t i = 0; i < keys_n; ++i) {
        if (!SameKey(keys[i], page[i]->key)) {
          failures_.Add(what + ": key " + std::to_string(i) + " differs from stored " +
                        Hex(page[i]->key_bytes));
        }
      }
    }
    if (values != nullptr) {
      if (values->size() != values_n) {
        failures_.Add(what + ": " + std::to_string(values->size()) + " values, expected " +
                      std::to_string(values_n));
      } else {
        for (size_t i = 0; i < values_n; ++i) {
          if (!SameMessage((*values)[i], page[i]->value)) {
            failures_.Add(what + ": value " + std::to_string(i) + " differs from stored " +
                          Hex(page[i]->value_bytes));
          }
        }
      }
    }
  }

  void CheckCountAndEmpty() {
    uint64_t count = 12345;
    const Status status = store_.Count(&count, nullptr);
    if (!status.ok() || count != records_.size()) {
      failures_.Add("Count: " + Describe(status) + " count " + std::to_string(count) +
                    ", expected " + std::to_string(records_.size()));
    }
    bool is_empty = !records_.empty();
    const Status empty_status = store_.Empty(&is_empty, nullptr);
    if (!empty_status.ok() || is_empty != records_.empty()) {
      failures_.Add("Empty: " + Describe(empty_status) + " is_empty " + std::to_string(is_empty));
    }
  }

  void CheckDump() {
    std::vector<KeyT> keys(1);
    std::vector<ValueT> values(2);
    const Status status = store_.Dump(&keys, &values, nullptr);
    CheckDecoded("Dump", status, keys, &values, all_);
  }

  // A bound of a range read, as the typed store gets it, and the bytes the
  // range is made of: open, or the encoded key.
  struct Bound {
    KeyT key;
    bool open = false;
    std::string bytes;
  };

  Bound MakeBound(uint8_t selector) const {
    Bound bound;
    const unsigned kind = selector & 3;
    const Rec* rec = records_.empty() ? nullptr : &records_[(selector >> 2) % records_.size()];
    if (kind == 0 || rec == nullptr) {
      bound.key = Store::NullKey();
    } else if constexpr (kStringKeys) {
      bound.key = rec->key_bytes;
      if (kind == 2) bound.key.push_back('\0');
      if (kind == 3) bound.key.pop_back();
    } else {
      bound.key = rec->key_ok ? rec->key : KeyT();
      // Wrapping, so that the extremes of the field move too.
      const uint32_t id = static_cast<uint32_t>(bound.key.module_id());
      if (kind == 2) bound.key.set_module_id(static_cast<int32_t>(id + 1));
      if (kind == 3) bound.key.set_module_id(static_cast<int32_t>(id - 1));
    }
    if constexpr (kStringKeys) {
      bound.open = bound.key == Store::NullKey() || bound.key == persistence::DB::NullKey();
      bound.bytes = bound.key;
    } else {
      bound.open = google::protobuf::util::MessageDifferencer::Equals(bound.key, Store::NullKey());
      bound.bytes = bound.key.SerializeAsString();
      if (bound.bytes == persistence::DB::NullKey()) bound.open = true;
    }
    return bound;
  }

  void CheckRange() {
    const Bound start = MakeBound(params_.bound_start);
    const Bound limit = MakeBound(params_.bound_limit);
    std::vector<const Rec*> range;
    for (const Rec* rec : all_) {
      if (!start.open && rec->key_bytes < start.bytes) continue;
      if (!limit.open && !(rec->key_bytes < limit.bytes)) continue;
      range.push_back(rec);
    }
    const std::string what = "DumpRange [" + (start.open ? std::string("open") : Hex(start.bytes)) +
                             ", " + (limit.open ? std::string("open") : Hex(limit.bytes)) + ")";
    {
      std::vector<KeyT> keys(1);
      std::vector<ValueT> values(1);
      const Status status = store_.DumpRange(start.key, limit.key, &keys, &values, nullptr);
      CheckDecoded(what, status, keys, &values, range);
    }
    {
      std::vector<KeyT> keys(1);
      const Status status = store_.DumpRange(start.key, limit.key, &keys, nullptr, nullptr);
      CheckDecoded(what + " keys only", status, keys, nullptr, range);
    }
    uint64_t count = 12345;
    const Status status = store_.CountRange(start.key, limit.key, &count, nullptr);
    if (!status.ok() || count != range.size()) {
      failures_.Add("Count" + what.substr(4) + ": " + Describe(status) + " count " +
                    std::to_string(count) + ", expected " + std::to_string(range.size()));
    }
  }

  std::vector<const Rec*> Page(bool reverse, uint64_t start, uint64_t count) const {
    std::vector<const Rec*> walk = all_;
    if (reverse) std::reverse(walk.begin(), walk.end());
    const uint64_t first = start == 0 ? 0 : start - 1;
    std::vector<const Rec*> page;
    for (uint64_t i = first; i < walk.size() && page.size() < count; ++i) page.push_back(walk[i]);
    return page;
  }

  void CheckPages() {
    for (const bool reverse : {false, true}) {
      const uint64_t start = reverse ? params_.reverse_start : params_.start;
      const uint64_t count = reverse ? params_.reverse_count : params_.count;
      const std::vector<const Rec*> page = Page(reverse, start, count);
      const std::string what = std::string(reverse ? "ReadReverseInterval(" : "ReadInterval(") +
                               std::to_string(start) + ", " + std::to_string(count) + ")";
      std::vector<KeyT> keys(2);
      std::vector<ValueT> values(1);
      const Status status = reverse
                                ? store_.ReadReverseInterval(start, count, &keys, &values, nullptr)
                                : store_.ReadInterval(start, count, &keys, &values, nullptr);
      CheckDecoded(what, status, keys, &values, page);
      std::vector<KeyT> keys_only(1);
      const Status keys_status =
          reverse ? store_.ReadReverseInterval(start, count, &keys_only, nullptr, nullptr)
                  : store_.ReadInterval(start, count, &keys_only, nullptr, nullptr);
      CheckDecoded(what + " keys only", keys_status, keys_only, nullptr, page);
    }
  }

  // The bulk page is appended behind what the message already holds, and a
  // failed read leaves it as it was.
  void CheckDataPage() {
    const std::vector<const Rec*> page = Page(false, params_.start, params_.count);
    DataT data;
    data.add_entries();
    const Status status = store_.ReadDataInterval(params_.start, params_.count, &data);
    const Decoding expected = Expected(page, true);
    if (!status.ok()) {
      if (status.code != expected.code || status.message != expected.message) {
        failures_.Add("ReadDataInterval: got " + Describe(status) + ", expected code " +
                      std::to_string(expected.code) + " message \"" + expected.message + "\"");
      }
      if (data.entries_size() != 1) {
        failures_.Add("ReadDataInterval: a failed read changed the message");
      }
      return;
    }
    std::vector<KeyT> keys;
    std::vector<ValueT> values;
    for (int i = 1; i < data.entries_size(); ++i) {
      keys.push_back(data.entries(i).key());
      values.push_back(data.entries(i).value());
    }
    CheckDecoded("ReadDataInterval", status, keys, &values, page);
  }

  // The bytes a typed key is looked up under.
  static std::string LookupBytes(const KeyT& key) {
    if constexpr (kStringKeys) {
      return key;
    } else {
      return key.SerializeAsString();
    }
  }

  const Rec* Find(const std::string& bytes) const {
    for (const Rec& rec : records_) {
      if (rec.key_bytes == bytes) return &rec;
    }
    return nullptr;
  }

  KeyT AbsentKey() const {
    KeyT key;
    for (int32_t i = 1;; ++i) {
      if constexpr (kStringKeys) {
        key = std::string("\xff\xfe absent ") + std::to_string(i);
      } else {
        key.set_module_id(1000000 + i);
      }
      if (Find(LookupBytes(key)) == nullptr) return key;
    }
  }

  void CheckSingleGet(const KeyT& key, const ValueT& prefill) {
    const std::string bytes = LookupBytes(key);
    ValueT value = prefill;
    const Status status = store_.Get(key, &value, nullptr);
    const std::string what = "Get(" + Hex(bytes) + ")";
    const Rec* rec = bytes.empty() ? nullptr : Find(bytes);
    if (bytes.empty()) {
      if (status.code != Status::kInvalidArgument || status.message != kEmptyKeyMessage) {
        failures_.Add(what + ": got " + Describe(status) + ", expected the empty key's refusal");
      }
      if (value.ByteSizeLong() != 0) failures_.Add(what + ": value not cleared");
    } else if (rec == nullptr) {
      if (status.code != Status::kNotFound) {
        failures_.Add(what + ": got " + Describe(status) + ", expected code 3");
      }
      if (value.ByteSizeLong() != 0) failures_.Add(what + ": value not cleared");
    } else if (!rec->value_ok) {
      if (status.code != Status::kNotSupported || status.message != kValueMessage) {
        failures_.Add(what + ": got " + Describe(status) + ", expected the decoding failure");
      }
    } else {
      if (!status.ok()) failures_.Add(what + ": got " + Describe(status) + ", expected code 0");
      if (!SameMessage(value, rec->value)) failures_.Add(what + ": value differs");
    }
  }

  void CheckSingleGets() {
    ValueT prefill;
    for (const Rec& rec : records_) {
      if (rec.value_ok && rec.value.ByteSizeLong() != 0) {
        prefill = rec.value;
        break;
      }
    }
    size_t done = 0;
    for (const Rec& rec : records_) {
      if (done++ == kMaxGetKeys) break;
      if (rec.key_ok) CheckSingleGet(rec.key, prefill);
    }
    CheckSingleGet(AbsentKey(), prefill);
  }

  void CheckMultiGet() {
    std::vector<KeyT> keys;
    for (const Rec& rec : records_) {
      if (keys.size() == kMaxGetKeys) break;
      if (rec.key_ok) keys.push_back(rec.key);
    }
    if (params_.absent_at <= keys.size()) {
      keys.insert(keys.begin() + params_.absent_at, AbsentKey());
    }
    // The handle reads key by key and stops at the first it can't read; only
    // a complete read is decoded.
    int32_t code = Status::kOk;
    std::string message;
    std::vector<const Rec*> found;
    for (const KeyT& key : keys) {
      const std::string bytes = LookupBytes(key);
      if (bytes.empty()) {
        code = Status::kInvalidArgument;
        message = kEmptyKeyMessage;
        break;
      }
      const Rec* rec = Find(bytes);
      if (rec == nullptr) {
        code = Status::kNotFound;
        break;
      }
      found.push_back(rec);
    }
    std::vector<ValueT> values(3);
    const Status status = store_.Get(keys, &values, nullptr);
    const std::string what = "Get of " + std::to_string(keys.size()) + " keys";
    if (code != Status::kOk) {
      if (status.code != code || (code == Status::kInvalidArgument && status.message != message)) {
        failures_.Add(what + ": got " + Describe(status) + ", expected code " +
                      std::to_string(code));
      }
      if (!values.empty()) failures_.Add(what + ": values after a failed read");
      return;
    }
    size_t bad = found.size();
    for (size_t i = 0; i < found.size() && bad == found.size(); ++i) {
      if (!found[i]->value_ok) bad = i;
    }
    const int32_t expected_code = bad == found.size() ? Status::kOk : Status::kNotSupported;
    const std::string expected_message = bad == found.size() ? "" : kValuesMessage;
    if (status.code != expected_code || status.message != expected_message) {
      failures_.Add(what + ": got " + Describe(status) + ", expected code " +
                    std::to_string(expected_code));
    }
    if (values.size() != bad) {
      failures_.Add(what + ": " + std::to_string(values.size()) + " values, expected " +
                    std::to_string(bad));
      return;
    }
    for (size_t i = 0; i < bad; ++i) {
      if (!SameMessage(values[i], found[i]->value)) {
        failures_.Add(what + ": value " + std::to_string(i) + " differs");
      }
    }
  }

  // A record that does not decode ends a paranoid walk and is passed over
  // otherwise; either way the walk reports success.
  void CheckWalk(bool reverse) {
    std::vector<const Rec*> walk = all_;
    if (reverse) std::reverse(walk.begin(), walk.end());
    const size_t limit = params_.stop_after == 0 ? walk.size() + 1 : params_.stop_after;
    std::vector<const Rec*> expected;
    for (const Rec* rec : walk) {
      if (!rec->value_ok || !rec->key_ok) {
        if (paranoid_) break;
        continue;
      }
      expected.push_back(rec);
      if (expected.size() == limit) break;
    }
    std::vector<std::pair<KeyT, ValueT>> delivered;
    const auto callback = [&delivered, limit](KeyT key, ValueT value) {
      delivered.emplace_back(std::move(key), std::move(value));
      return delivered.size() < limit;
    };
    const Status status =
        reverse ? store_.ReverseIterate(callback, nullptr) : store_.Iterate(callback, nullptr);
    const std::string what = reverse ? "ReverseIterate" : "Iterate";
    if (!status.ok()) failures_.Add(what + ": got " + Describe(status));
    if (delivered.size() != expected.size()) {
      failures_.Add(what + ": " + std::to_string(delivered.size()) + " records, expected " +
                    std::to_string(expected.size()));
      return;
    }
    for (size_t i = 0; i < expected.size(); ++i) {
      if (!SameKey(delivered[i].first, expected[i]->key) ||
          !SameMessage(delivered[i].second, expected[i]->value)) {
        failures_.Add(what + ": record " + std::to_string(i) + " differs from stored " +
                      Hex(expected[i]->key_bytes));
      }
    }
  }

  Store& store_;
  const bool paranoid_;
  const Params params_;
  Failures& failures_;
  std::vector<Rec> records_;  // in key order
  std::vector<const Rec*> all_;
};

using FvhashStore = CheckedStore<std::string, proto::FVhashStore::Value, proto::FVhashStore::Data>;
using SignersStore =
    CheckedStore<std::string, proto::TrustedSignersStore::Value, proto::TrustedSignersStore::Data>;
using SignersCacheStore = CheckedStore<std::string, proto::TrustedSignersCacheStore::Value,
                                       proto::TrustedSignersCacheStore::Data>;
using GeneralPolicyStore =
    CheckedStore<proto::GeneralSettingsPolicyStore::Key, proto::GeneralSettingsPolicyStore::Value,
                 proto::GeneralSettingsPolicyStore::Data>;
using ProcessPolicyStore =
    CheckedStore<proto::ProcessSettingsPolicyStore::Key, proto::ProcessSettingsPolicyStore::Value,
                 proto::ProcessSettingsPolicyStore::Data>;
using EnrichmentStore =
    CheckedStore<std::string, proto::EnrichmentStore::Value, proto::EnrichmentStore::Data>;
using EnrichmentLruStore =
    CheckedStore<std::string, proto::EnrichmentLruStore::Value, proto::EnrichmentLruStore::Data>;

// The stores of both modes, opened on first use.
struct Stores {
  std::unique_ptr<FvhashStore> fvhash[2];
  std::unique_ptr<SignersStore> signers[2];
  std::unique_ptr<SignersCacheStore> signers_cache[2];
  std::unique_ptr<GeneralPolicyStore> general[2];
  std::unique_ptr<ProcessPolicyStore> process[2];
  std::unique_ptr<EnrichmentStore> enrichment[2];
  std::unique_ptr<EnrichmentLruStore> enrichment_lru[2];
};

Stores& AllStores() {
  static Stores* stores = new Stores;
  return *stores;
}

template <typename StoreT>
StoreT& Opened(std::unique_ptr<StoreT>& slot, const std::string& name, bool paranoid,
               Failures& failures) {
  if (!slot) {
    slot = std::make_unique<StoreT>();
    const std::string path = g_root + "/" + name + (paranoid ? ".paranoid" : ".lenient");
    const Status status = slot->Open(path, paranoid);
    if (!status.ok()) failures.Add("open " + path + ": " + Describe(status));
  }
  return *slot;
}

template <typename KeyT, typename ValueT, typename DataT>
void Check(std::unique_ptr<CheckedStore<KeyT, ValueT, DataT>>& slot, const std::string& name,
           bool paranoid, const Params& params, FuzzInput& input, Failures& failures) {
  CheckedStore<KeyT, ValueT, DataT>& store = Opened(slot, name, paranoid, failures);
  StoreCheck<KeyT, ValueT, DataT>(store, paranoid, params, failures).Run(input);
}

}  // namespace

void SetStoredRecordsRoot(const std::string& root) { g_root = root; }

std::vector<std::string> CheckStoredRecords(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  const uint8_t selector = input.U8();
  const bool paranoid = (selector & 1) != 0;
  const unsigned kind = (selector >> 1) % 7;
  Params params;
  params.start = input.U8();
  params.count = PageCount(input.U8());
  params.reverse_start = input.U8();
  params.reverse_count = PageCount(input.U8());
  params.bound_start = input.U8();
  params.bound_limit = input.U8();
  params.stop_after = input.U8();
  params.absent_at = input.U8();

  static const char* const kNames[] = {"fvhash",         "trusted_signers", "signers_cache",
                                       "general_policy", "process_policy",  "enrichment",
                                       "enrichment_lru"};
  Failures failures(std::string(kNames[kind]) + (paranoid ? " (paranoid)" : " (lenient)"));
  const int mode = paranoid ? 1 : 0;
  Stores& stores = AllStores();
  switch (kind) {
    case 0:
      Check(stores.fvhash[mode], kNames[kind], paranoid, params, input, failures);
      break;
    case 1:
      Check(stores.signers[mode], kNames[kind], paranoid, params, input, failures);
      break;
    case 2:
      Check(stores.signers_cache[mode], kNames[kind], paranoid, params, input, failures);
      break;
    case 3:
      Check(stores.general[mode], kNames[kind], paranoid, params, input, failures);
      break;
    case 4:
      Check(stores.process[mode], kNames[kind], paranoid, params, input, failures);
      break;
    case 5:
      Check(stores.enrichment[mode], kNames[kind], paranoid, params, input, failures);
      break;
    default:
      Check(stores.enrichment_lru[mode], kNames[kind], paranoid, params, input, failures);
      break;
  }
  return failures.Take();
}

void CloseStoredRecordStores() {
  Stores& stores = AllStores();
  for (int mode = 0; mode < 2; ++mode) {
    stores.fvhash[mode].reset();
    stores.signers[mode].reset();
    stores.signers_cache[mode].reset();
    stores.general[mode].reset();
    stores.process[mode].reset();
    stores.enrichment[mode].reset();
    stores.enrichment_lru[mode].reset();
  }
}

}  // namespace fuzzing
