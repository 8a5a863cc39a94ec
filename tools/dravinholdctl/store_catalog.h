// The stores dravinholdctl knows: where each lies under the data root and
// how its records decode.
#pragma once

#include <google/protobuf/descriptor.h>

#include <string>
#include <vector>

namespace dravinholdctl {

struct StoreInfo {
  std::string name;  // also the directory's name under the root
  // The key message, or null for string keys.
  const google::protobuf::Descriptor* key;
  const google::protobuf::Descriptor* value;
  // The bulk message: repeated "entries" of "key" and "value".
  const google::protobuf::Descriptor* data;
  // The family writes its keys in lower case, so an import does too: a key
  // in upper case would never be found by the family's checks.
  bool lower_case_keys;
};

// The six stores and the enrichment store's order of use
// ("enrichment_store.lru"), in a fixed order.
const std::vector<StoreInfo>& Stores();

// The store named "name", or null.
const StoreInfo* FindStore(const std::string& name);

// "name1, name2, ..." for messages.
std::string StoreNames();

}  // namespace dravinholdctl
