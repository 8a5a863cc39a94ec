#include "records.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <cstdio>
#include <map>

namespace dravinholdctl {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

std::string TextOf(const Message& message) {
  google::protobuf::TextFormat::Printer printer;
  printer.SetSingleLineMode(true);
  std::string text;
  printer.PrintToString(message, &text);
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return "{" + text + "}";
}

std::string JsonOf(const Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  std::string json;
  if (!google::protobuf::util::MessageToJsonString(message, &json, options).ok()) return "null";
  return json;
}

}  // namespace

std::string JsonString(const std::string& bytes) {
  std::string out = "\"";
  for (const unsigned char c : bytes) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\u%04x", c);
      out += escape;
    }
  }
  return out + "\"";
}

namespace {

// Decodes "bytes" as "type" into *text and *json; false when it does not parse.
bool DecodeMessage(const Descriptor* type, const std::string& bytes, bool json, std::string* out) {
  std::unique_ptr<Message> message = NewMessage(type);
  if (!message->ParseFromString(bytes)) {
    *out = json ? JsonString(bytes) : "<undecodable " + Quoted(bytes) + ">";
    return false;
  }
  *out = json ? JsonOf(*message) : TextOf(*message);
  return true;
}

// Keeps the first error of a text format parse, "column N: what".
class FirstError : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int, google::protobuf::io::ColumnNumber column,
                const std::string& message) override {
    if (text.empty()) text = "column " + std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

bool Encode(const Message& message, std::string* bytes) {
  if (!message.SerializeToString(bytes)) return false;
  std::unique_ptr<Message> parsed(message.New());
  return parsed->ParseFromString(*bytes);
}

const FieldDescriptor* Field(const Descriptor* type, const char* name) {
  return type->FindFieldByName(name);
}

}  // namespace

std::unique_ptr<Message> NewMessage(const Descriptor* type) {
  return std::unique_ptr<Message>(
      google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());
}

std::string Quoted(const std::string& text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\x%02x", c);
      out += escape;
    }
  }
  return out + "\"";
}

bool EncodeKey(const StoreInfo& store, const std::string& text, std::string* bytes,
               std::string* error) {
  if (store.key == nullptr) {
    *bytes = text;
    return true;
  }
  std::unique_ptr<Message> key = NewMessage(store.key);
  // The parser's complaint goes into the one error line, not into
  // protobuf's log on standard error.
  FirstError complaint;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&complaint);
  if (!parser.ParseFromString(text, key.get())) {
    *error = "key is not a " + store.key->full_name() + " in text format: " + text +
             (complaint.text.empty() ? "" : " (" + complaint.text + ")");
    return false;
  }
  if (!Encode(*key, bytes)) {
    *error = "key does not encode: " + text;
    return false;
  }
  return true;
}

bool FormatRecord(const StoreInfo& store, const RawRecord& record, bool json, std::string* line) {
  std::string key;
  bool decoded = true;
  if (store.key == nullptr) {
    key = json ? JsonString(record.key) : Quoted(record.key);
  } else {
    decoded = DecodeMessage(store.key, record.key, json, &key);
  }
  std::string value;
  decoded = DecodeMessage(store.value, record.value, json, &value) && decoded;
  *line = json ? "{\"key\":" + key + ",\"value\":" + value + "}" : key + " => " + value;
  return decoded;
}

bool RecordsToData(const StoreInfo& store, const std::vector<RawRecord>& records, Message* data,
                   std::string* error) {
  const FieldDescriptor* entries = Field(store.data, "entries");
  for (const RawRecord& record : records) {
    Message* entry = data->GetReflection()->AddMessage(data, entries);
    const FieldDescriptor* key = Field(entry->GetDescriptor(), "key");
    const FieldDescriptor* value = Field(entry->GetDescriptor(), "value");
    if (store.key == nullptr) {
      entry->GetReflection()->SetString(entry, key, record.key);
    } else if (!entry->GetReflection()->MutableMessage(entry, key)->ParseFromString(record.key)) {
      *error = "a stored key does not decode: " + Quoted(record.key);
      return false;
    }
    if (!entry->GetReflection()->MutableMessage(entry, value)->ParseFromString(record.value)) {
      *error = "the value of " + Quoted(record.key) + " does not decode";
      return false;
    }
  }
  return true;
}

bool DataToRecords(const StoreInfo& store, const Message& data, std::vector<RawRecord>* records,
                   std::string* error) {
  const FieldDescriptor* entries = Field(store.data, "entries");
  const int size = data.GetReflection()->FieldSize(data, entries);
  std::map<std::string, int> seen;  // key -> its entry
  for (int i = 0; i < size; ++i) {
    const Message& entry = data.GetReflection()->GetRepeatedMessage(data, entries, i);
    const FieldDescriptor* key = Field(entry.GetDescriptor(), "key");
    const FieldDescriptor* value = Field(entry.GetDescriptor(), "value");
    RawRecord record;
    if (store.key == nullptr) {
      record.key = entry.GetReflection()->GetString(entry, key);
    } else if (!Encode(entry.GetReflection()->GetMessage(entry, key), &record.key)) {
      *error = "entry " + std::to_string(i) + ": the key does not encode";
      return false;
    }
    if (!Encode(entry.GetReflection()->GetMessage(entry, value), &record.value)) {
      *error = "entry " + std::to_string(i) + ": the value does not encode";
      return false;
    }
    if (record.key.empty()) {
      *error = "entry " + std::to_string(i) + ": the key is empty";
      return false;
    }
    // One batch would keep the last of two records of one key: refuse the
    // file rather than count records that are not there.
    const auto [first, added] = seen.emplace(record.key, i);
    if (!added) {
      *error = "entry " + std::to_string(i) + ": the key of entry " +
               std::to_string(first->second) + " again";
      return false;
    }
    records->push_back(std::move(record));
  }
  return true;
}

}  // namespace dravinholdctl
