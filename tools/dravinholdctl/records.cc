#include "records.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/stubs/common.h>
#include <google/protobuf/stubs/strutil.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <cstdio>

namespace dravinholdctl {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::Message;
using google::protobuf::Reflection;

std::string TextOf(const Message& message) {
  google::protobuf::TextFormat::Printer printer;
  printer.SetSingleLineMode(true);
  printer.SetUseUtf8StringEscaping(true);
  std::string text;
  printer.PrintToString(message, &text);
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return "{" + text + "}";
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

void AddField(google::protobuf::DescriptorProto* message, const std::string& name, int number,
              FieldDescriptorProto::Type type, const std::string& type_name, int oneof) {
  FieldDescriptorProto* field = message->add_field();
  field->set_name(name);
  field->set_number(number);
  field->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  field->set_type(type);
  if (!type_name.empty()) field->set_type_name("." + type_name);
  field->set_oneof_index(oneof);
}

}  // namespace

std::unique_ptr<Message> NewMessage(const Descriptor* type) {
  return std::unique_ptr<Message>(
      google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());
}

std::string JsonLine(const Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;
  std::string json;
  if (!google::protobuf::util::MessageToJsonString(message, &json, options).ok()) return "null";
  return json;
}

bool ParseJson(const std::string& json, Message* message, std::string* error) {
  const auto status = google::protobuf::util::JsonStringToMessage(json, message);
  if (status.ok()) return true;
  *error = std::string(status.message());
  return false;
}

bool IsUtf8(const std::string& bytes) {
  return google::protobuf::internal::IsStructurallyValidUTF8(bytes.data(),
                                                             static_cast<int>(bytes.size()));
}

std::string Quoted(const std::string& text) {
  const bool utf8 = IsUtf8(text);
  std::string out = "\"";
  for (const unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if ((c >= 0x20 && c < 0x7f) || (utf8 && c >= 0x80)) {
      out += static_cast<char>(c);
    } else {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\x%02x", c);
      out += escape;
    }
  }
  return out + "\"";
}

bool Encode(const Message& message, std::string* bytes) {
  if (!message.SerializeToString(bytes)) return false;
  std::unique_ptr<Message> parsed(message.New());
  return parsed->ParseFromString(*bytes);
}

RecordCodec::RecordCodec(const StoreInfo& store)
    : store_(store), pool_(DescriptorPool::generated_pool()), factory_(&pool_) {
  factory_.SetDelegateToGeneratedFactory(true);
  google::protobuf::FileDescriptorProto file;
  file.set_name("dravinholdctl/record/" + store.name + ".proto");
  file.set_package("dravinholdctl.record");
  file.set_syntax("proto3");
  file.add_dependency(store.value->file()->name());
  if (store.key != nullptr && store.key->file() != store.value->file()) {
    file.add_dependency(store.key->file()->name());
  }
  google::protobuf::DescriptorProto* record = file.add_message_type();
  record->set_name("Record");
  record->add_oneof_decl()->set_name("key_form");
  record->add_oneof_decl()->set_name("value_form");
  if (store.key == nullptr) {
    AddField(record, "key", 1, FieldDescriptorProto::TYPE_STRING, "", 0);
  } else {
    AddField(record, "key", 1, FieldDescriptorProto::TYPE_MESSAGE, store.key->full_name(), 0);
  }
  AddField(record, "key_base64", 2, FieldDescriptorProto::TYPE_BYTES, "", 0);
  AddField(record, "value", 3, FieldDescriptorProto::TYPE_MESSAGE, store.value->full_name(), 1);
  AddField(record, "value_base64", 4, FieldDescriptorProto::TYPE_BYTES, "", 1);
  const google::protobuf::FileDescriptor* built = pool_.BuildFile(file);
  record_ = built->FindMessageTypeByName("Record");
  prototype_ = factory_.GetPrototype(record_);
}

bool RecordCodec::Decodes(const Descriptor* type, const std::string& bytes) const {
  return NewMessage(type)->ParseFromString(bytes);
}

std::unique_ptr<Message> RecordCodec::DecodeValue(const std::string& bytes) const {
  std::unique_ptr<Message> value = NewMessage(store_.value);
  if (!value->ParseFromString(bytes)) return nullptr;
  return value;
}

bool RecordCodec::Text(const RawRecord& record, std::string* line) const {
  bool decoded = true;
  std::string key;
  if (store_.key == nullptr) {
    key = Quoted(record.key);
  } else {
    std::unique_ptr<Message> message = NewMessage(store_.key);
    if (message->ParseFromString(record.key)) {
      key = TextOf(*message);
    } else {
      key = "<undecodable " + Quoted(record.key) + ">";
      decoded = false;
    }
  }
  std::string value;
  if (std::unique_ptr<Message> message = DecodeValue(record.value)) {
    value = TextOf(*message);
  } else {
    value = "<undecodable " + Quoted(record.value) + ">";
    decoded = false;
  }
  *line = key + " => " + value;
  return decoded;
}

bool RecordCodec::Json(const RawRecord& record, std::string* line) const {
  std::unique_ptr<Message> message(prototype_->New());
  const Reflection* reflection = message->GetReflection();
  const FieldDescriptor* key = record_->FindFieldByName("key");
  const FieldDescriptor* key_base64 = record_->FindFieldByName("key_base64");
  const FieldDescriptor* value = record_->FindFieldByName("value");
  const FieldDescriptor* value_base64 = record_->FindFieldByName("value_base64");
  bool decoded = true;
  if (store_.key == nullptr && IsUtf8(record.key)) {
    reflection->SetString(message.get(), key, record.key);
  } else if (store_.key == nullptr ||
             !reflection->MutableMessage(message.get(), key)->ParseFromString(record.key)) {
    reflection->SetString(message.get(), key_base64, record.key);
    decoded = store_.key == nullptr;
  }
  if (!reflection->MutableMessage(message.get(), value)->ParseFromString(record.value)) {
    reflection->SetString(message.get(), value_base64, record.value);
    decoded = false;
  }
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;
  line->clear();
  return google::protobuf::util::MessageToJsonString(*message, line, options).ok() && decoded;
}

bool RecordCodec::ParseJsonRecord(const std::string& json, RawRecord* record, bool* has_value,
                                  std::string* error) const {
  std::unique_ptr<Message> message(prototype_->New());
  if (!ParseJson(json, message.get(), error)) return false;
  const Reflection* reflection = message->GetReflection();
  const FieldDescriptor* key = record_->FindFieldByName("key");
  const FieldDescriptor* key_base64 = record_->FindFieldByName("key_base64");
  const FieldDescriptor* value = record_->FindFieldByName("value");
  const FieldDescriptor* value_base64 = record_->FindFieldByName("value_base64");
  if (reflection->HasField(*message, key_base64)) {
    record->key = reflection->GetString(*message, key_base64);
    if (store_.key != nullptr && !Decodes(store_.key, record->key)) {
      *error = "key_base64 does not hold a " + store_.key->full_name();
      return false;
    }
  } else if (!reflection->HasField(*message, key)) {
    *error = "no \"key\" or \"key_base64\"";
    return false;
  } else if (store_.key == nullptr) {
    record->key = reflection->GetString(*message, key);
  } else if (!Encode(reflection->GetMessage(*message, key), &record->key)) {
    *error = "the key does not encode";
    return false;
  }
  *has_value = true;
  if (reflection->HasField(*message, value_base64)) {
    record->value = reflection->GetString(*message, value_base64);
    if (!Decodes(store_.value, record->value)) {
      *error = "value_base64 does not hold a " + store_.value->full_name();
      return false;
    }
  } else if (reflection->HasField(*message, value)) {
    if (!Encode(reflection->GetMessage(*message, value), &record->value)) {
      *error = "the value does not encode";
      return false;
    }
  } else {
    *has_value = false;
    record->value.clear();
  }
  return true;
}

bool RecordCodec::ParseKey(const std::string& text, std::string* key, std::string* error) const {
  // A JSON record or a JSON key object, as "dump --json" prints them.
  if (!text.empty() && text.front() == '{') {
    RawRecord record;
    bool has_value = false;
    std::string ignored;
    if (ParseJsonRecord(text, &record, &has_value, &ignored)) {
      *key = record.key;
      return true;
    }
    if (store_.key != nullptr) {
      std::unique_ptr<Message> message = NewMessage(store_.key);
      if (ParseJson(text, message.get(), &ignored) && Encode(*message, key)) return true;
    }
  }
  if (store_.key == nullptr) {
    // A quoted key, as "dump" prints one.
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
      *key = google::protobuf::UnescapeCEscapeString(text.substr(1, text.size() - 2));
      return true;
    }
    *key = text;
    return true;
  }
  // The key message in text format, "{module_id: 5}" as "dump" prints it or
  // without the braces.
  std::string body = text;
  if (body.size() >= 2 && body.front() == '{' && body.back() == '}') {
    body = body.substr(1, body.size() - 2);
  }
  std::unique_ptr<Message> message = NewMessage(store_.key);
  FirstError complaint;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&complaint);
  if (!parser.ParseFromString(body, message.get())) {
    *error = "key is not a " + store_.key->full_name() + " in text format or JSON: " + text +
             (complaint.text.empty() ? "" : " (" + complaint.text + ")");
    return false;
  }
  if (!Encode(*message, key)) {
    *error = "key does not encode: " + text;
    return false;
  }
  return true;
}

}  // namespace dravinholdctl
