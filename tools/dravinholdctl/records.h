// Records of a store as bytes, text and JSON.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>

#include "store_catalog.h"

namespace dravinholdctl {

// One record as stored: key bytes and value bytes.
struct RawRecord {
  std::string key;
  std::string value;
};

std::unique_ptr<google::protobuf::Message> NewMessage(const google::protobuf::Descriptor* type);

// The JSON of "message" on one line, through protobuf's JSON support, with
// the field names of the schema and every field printed, defaults too.
std::string JsonLine(const google::protobuf::Message& message);

// Parses one JSON object into "message". False with *error set to
// protobuf's complaint, which shows where in "json" it stopped.
bool ParseJson(const std::string& json, google::protobuf::Message* message, std::string* error);

// True when "bytes" is valid UTF-8, which a JSON string can carry.
bool IsUtf8(const std::string& bytes);

// "text" in double quotes, with quotes, backslashes and control bytes
// escaped, and bytes above 0x7e as well unless "text" is valid UTF-8, in
// the C escapes that "get" and "--start" read back.
std::string Quoted(const std::string& text);

// How the records of one store are written and read as text and JSON. A
// record in JSON is one object: {"key": ..., "value": {...}}, where "key" is
// the key message for the policy stores and otherwise the key string, given
// instead as "key_base64" (its bytes in base64) when it is not UTF-8; a part
// that does not decode is given as "key_base64" or "value_base64". The
// object is a protobuf message made at run time around the store's own
// messages, so that protobuf writes and reads it.
class RecordCodec {
 public:
  explicit RecordCodec(const StoreInfo& store);
  RecordCodec(const RecordCodec&) = delete;
  RecordCodec& operator=(const RecordCodec&) = delete;

  // "<key> => <value>": the key quoted (or its message in text format), the
  // value in text format. False when a part does not decode; it is then
  // shown as quoted bytes.
  bool Text(const RawRecord& record, std::string* line) const;

  // The record as one JSON object. False when a part does not decode.
  bool Json(const RawRecord& record, std::string* line) const;

  // The record of one JSON object as "Json" writes it; "value" may be
  // missing (a key alone). Keys and values are encoded and proved by parsing
  // them back. False with *error set when it is no such object.
  bool ParseJsonRecord(const std::string& json, RawRecord* record, bool* has_value,
                       std::string* error) const;

  // The bytes of a key given on the command line, in any form "dump"
  // prints one: a JSON record or key object, a quoted key with C escapes,
  // the key message in text format (with or without its braces), or else
  // the text itself. False with *error set when it is none of these.
  bool ParseKey(const std::string& text, std::string* key, std::string* error) const;

  // Decodes the value bytes into a message of the store's value type, or
  // returns null.
  std::unique_ptr<google::protobuf::Message> DecodeValue(const std::string& bytes) const;

 private:
  bool Decodes(const google::protobuf::Descriptor* type, const std::string& bytes) const;

  const StoreInfo& store_;
  google::protobuf::DescriptorPool pool_;
  google::protobuf::DynamicMessageFactory factory_;
  const google::protobuf::Descriptor* record_ = nullptr;
  const google::protobuf::Message* prototype_ = nullptr;  // of record_, owned by factory_
};

// A message's wire form, proved by parsing it back. False when it does not
// encode or does not read back.
bool Encode(const google::protobuf::Message& message, std::string* bytes);

}  // namespace dravinholdctl
