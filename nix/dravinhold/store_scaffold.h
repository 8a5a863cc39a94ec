// What the families of the plain stores share: the free function templates
// over a store's singleton, and the bodies of the exported wrappers.
//
// A wrapper tests its parameters before it touches the store, so a call with
// a bad parameter never opens a database: it returns code 2 with its message
// and logs nothing. Nothing here logs a failure from below: the family
// function that gets the status writes the line, so that the line names it.
#pragma once

#include <Poco/Format.h>
#include <Poco/Message.h>

#include <cctype>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "nix/dravinhold/logging.h"
#include "persistence/kvstore.h"
#include "persistence/status.h"
#include "zerla_common/config/path_config.h"

namespace persistence {

// The heap tag every store passes to its typed store.
constexpr HeapTag kStoreHeapTag = 108;

// The key type of a bulk message's entries: std::string or a key message.
template <typename DataT>
using DataKey = std::decay_t<decltype(std::declval<typename DataT::Entry>().key())>;

// --- The five free function templates --------------------------------------

// The whole store into two vectors, cleared first.
template <typename StoreT, typename KeyT>
Status Dump(std::vector<KeyT>* keys, std::vector<typename StoreT::Value>* values) {
  if (keys == nullptr) return Status(Status::kInvalidArgument, "Received nullptr keys");
  if (values == nullptr) return Status(Status::kInvalidArgument, "Received nullptr values");
  keys->clear();
  values->clear();
  return StoreT::Instance().Dump(keys, values, nullptr);
}

// Up to "count" records from position "start" on, into two vectors.
template <typename StoreT, typename KeyT>
Status ReadInterval(uint64_t start, uint64_t count, std::vector<KeyT>* keys,
                    std::vector<typename StoreT::Value>* values) {
  if (keys == nullptr) return Status(Status::kInvalidArgument, "keys is nullptr");
  if (values == nullptr) return Status(Status::kInvalidArgument, "values is nullptr");
  keys->clear();
  values->clear();
  return StoreT::Instance().ReadInterval(start, count, keys, values, nullptr);
}

// Moves what a vector read produced into data's entries, which it replaces;
// "data" stays empty when the read fails.
template <typename DataT, typename StoreT, typename Read>
Status ReadIntoData(DataT* data, const Read& read) {
  if (data == nullptr) return Status(Status::kInvalidArgument, "data is nullptr");
  data->Clear();
  std::vector<DataKey<DataT>> keys;
  std::vector<typename StoreT::Value> values;
  const Status status = read(&keys, &values);
  if (!status.ok()) return status;
  for (size_t i = 0; i < keys.size(); ++i) MoveIntoNewEntry(data, keys[i], values[i]);
  return status;
}

// The whole store as its bulk message.
template <typename DataT, typename StoreT>
Status Dump(DataT* data) {
  return ReadIntoData<DataT, StoreT>(data, [](auto* keys, auto* values) {
    return StoreT::Instance().Dump(keys, values, nullptr);
  });
}

// A page of the store as its bulk message.
template <typename DataT, typename StoreT>
Status ReadInterval(uint64_t start, uint64_t count, DataT* data) {
  return ReadIntoData<DataT, StoreT>(data, [start, count](auto* keys, auto* values) {
    return StoreT::Instance().ReadInterval(start, count, keys, values, nullptr);
  });
}

// Replaces the whole store with data's entries in one synchronous write.
// Refuses a message without entries, so it never clears a store.
template <typename DataT, typename StoreT>
Status AtomicClearAndPut(const DataT& data) {
  std::vector<DataKey<DataT>> keys;
  std::vector<typename StoreT::Value> values;
  GatherEntries(data, &keys, &values);
  if (keys.empty() || values.empty()) {
    return Status(Status::kInvalidArgument, "Received empty keys or values vector");
  }
  return StoreT::Instance().AtomicClearAndPut(keys, values, true);
}

// "text" with every byte passed through the C library's tolower, in the
// process's C locale: bytes beyond ASCII are what tolower makes of them.
inline std::string LowerCaseBytes(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Replaces the whole store, in one synchronous write, with a record for each
// element whose "hash" is not empty, keyed by the hash lower-cased. Elements
// with an empty hash are skipped; an empty list empties the store.
template <typename StoreT, typename ElementT, typename MakeValue>
Status ReplaceByLowerCaseHash(const std::vector<ElementT>& elements, const MakeValue& make_value) {
  std::vector<std::string> keys;
  std::vector<typename StoreT::Value> values;
  keys.reserve(elements.size());
  values.reserve(elements.size());
  for (const ElementT& element : elements) {
    if (element.hash.empty()) continue;
    keys.push_back(LowerCaseBytes(element.hash));
    values.push_back(make_value(element));
  }
  return StoreT::Instance().AtomicClearAndPut(keys, values, true);
}

// --- Bodies of the exported wrappers ----------------------------------------

template <typename StoreT>
Status StoreEmpty(bool* is_empty) {
  if (is_empty == nullptr) return Status(Status::kInvalidArgument, "is_empty is nullptr");
  return StoreT::Instance().Empty(is_empty, nullptr);
}

template <typename StoreT>
Status StoreCount(unsigned long* count) {
  if (count == nullptr) return Status(Status::kInvalidArgument, "count is nullptr");
  return StoreT::Instance().Count(count, nullptr);
}

template <typename StoreT, typename KeyT>
Status StoreGet(const KeyT& key, typename StoreT::Value* value) {
  if (value == nullptr) return Status(Status::kInvalidArgument, "Received nullptr value");
  return StoreT::Instance().Get(key, value, nullptr);
}

template <typename StoreT, typename KeyT>
Status StoreGet(const std::vector<KeyT>& keys, std::vector<typename StoreT::Value>* values) {
  if (keys.empty()) return Status(Status::kInvalidArgument, "Received empty keys vector");
  if (values == nullptr) return Status(Status::kInvalidArgument, "Received nullptr values");
  return StoreT::Instance().Get(keys, values, nullptr);
}

}  // namespace persistence
