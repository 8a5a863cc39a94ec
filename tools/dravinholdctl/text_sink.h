// A file for the engine's dumps (leveldb::DumpFile) that collects what is
// written into a string.
#pragma once

#include <leveldb/env.h>

#include <string>

namespace dravinholdctl {

class TextSink : public leveldb::WritableFile {
 public:
  explicit TextSink(std::string* text) : text_(text) {}
  leveldb::Status Append(const leveldb::Slice& data) override {
    text_->append(data.data(), data.size());
    return leveldb::Status::OK();
  }
  leveldb::Status Close() override { return leveldb::Status::OK(); }
  leveldb::Status Flush() override { return leveldb::Status::OK(); }
  leveldb::Status Sync() override { return leveldb::Status::OK(); }

 private:
  std::string* text_;
};

}  // namespace dravinholdctl
