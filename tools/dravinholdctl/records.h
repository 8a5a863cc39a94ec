// Records of a store as bytes, text, JSON and bulk messages.
#pragma once

#include <google/protobuf/message.h>

#include <memory>
#include <string>
#include <vector>

#include "store_catalog.h"

namespace dravinholdctl {

// One record as stored: key bytes and value bytes.
struct RawRecord {
  std::string key;
  std::string value;
};

std::unique_ptr<google::protobuf::Message> NewMessage(const google::protobuf::Descriptor* type);

// The bytes a key given on the command line is stored under: the text itself
// for string keys, else the wire form of the key message written in protobuf
// text format ("module_id: 5"). False with *error set when it does not parse.
bool EncodeKey(const StoreInfo& store, const std::string& text, std::string* bytes,
               std::string* error);

// A record as one line of text, "<key> => <value>", or as one JSON object
// {"key": ..., "value": {...}}. A part that does not decode is shown as
// escaped bytes (text) or a string of them (JSON) and makes the result false.
bool FormatRecord(const StoreInfo& store, const RawRecord& record, bool json, std::string* line);

// The store's bulk message holding "records". False with *error set at the
// first record that does not decode.
bool RecordsToData(const StoreInfo& store, const std::vector<RawRecord>& records,
                   google::protobuf::Message* data, std::string* error);

// The records of a bulk message, each key and value encoded and proved by
// parsing it back. False with *error set at the first that does not encode,
// has an empty key, or has the key of an earlier one.
bool DataToRecords(const StoreInfo& store, const google::protobuf::Message& data,
                   std::vector<RawRecord>* records, std::string* error);

// "text" with control bytes, quotes and bytes above 0x7e escaped, quoted.
std::string Quoted(const std::string& text);

// A JSON string of arbitrary bytes: printable ASCII as it stands, the rest
// as \u00XX escapes, one per byte.
std::string JsonString(const std::string& bytes);

}  // namespace dravinholdctl
