#include "support/fault_env.h"

#include <csignal>
#include <memory>

#include "persistence/testing/seams.h"

namespace testing_support {
namespace {

class FaultWritableFile : public leveldb::WritableFile {
 public:
  FaultWritableFile(const FaultEnv* env, std::string name, leveldb::WritableFile* base)
      : env_(env), name_(std::move(name)), base_(base) {}

  leveldb::Status Append(const leveldb::Slice& data) override {
    if (env_->disk_full) return leveldb::Status::IOError(name_, "No space left on device");
    if (env_->fail_writes) return leveldb::Status::IOError(name_, "injected write failure");
    return base_->Append(data);
  }
  leveldb::Status Close() override { return base_->Close(); }
  leveldb::Status Flush() override {
    if (env_->fail_writes) return leveldb::Status::IOError(name_, "injected write failure");
    return base_->Flush();
  }
  leveldb::Status Sync() override {
    if (env_->fail_writes) return leveldb::Status::IOError(name_, "injected write failure");
    return base_->Sync();
  }

 private:
  const FaultEnv* env_;
  std::string name_;
  std::unique_ptr<leveldb::WritableFile> base_;
};

class FaultRandomAccessFile : public leveldb::RandomAccessFile {
 public:
  FaultRandomAccessFile(const FaultEnv* env, std::string name, leveldb::RandomAccessFile* base)
      : env_(env), name_(std::move(name)), base_(base) {}

  leveldb::Status Read(uint64_t offset, size_t n, leveldb::Slice* result,
                       char* scratch) const override {
    if (env_->corrupt_table_reads) return leveldb::Status::Corruption(name_, "injected damage");
    if (env_->fail_table_reads) return leveldb::Status::IOError(name_, "injected read failure");
    return base_->Read(offset, n, result, scratch);
  }

 private:
  const FaultEnv* env_;
  std::string name_;
  std::unique_ptr<leveldb::RandomAccessFile> base_;
};

}  // namespace

bool FaultEnv::Affects(const std::string& name) const {
  return only_files.empty() || name.find(only_files) != std::string::npos;
}

leveldb::Status FaultEnv::NewWritableFile(const std::string& name, leveldb::WritableFile** result) {
  if (kill_on_new_table && name.size() > 4 && name.compare(name.size() - 4, 4, ".ldb") == 0) {
    raise(SIGKILL);
  }
  if (Affects(name) && fail_writes) {
    *result = nullptr;
    return leveldb::Status::IOError(name, "injected write failure");
  }
  leveldb::WritableFile* base = nullptr;
  leveldb::Status status = target()->NewWritableFile(name, &base);
  if (!status.ok()) return status;
  *result = Affects(name) ? new FaultWritableFile(this, name, base) : base;
  return status;
}

leveldb::Status FaultEnv::NewAppendableFile(const std::string& name,
                                            leveldb::WritableFile** result) {
  leveldb::WritableFile* base = nullptr;
  leveldb::Status status = target()->NewAppendableFile(name, &base);
  if (!status.ok()) return status;
  *result = Affects(name) ? new FaultWritableFile(this, name, base) : base;
  return status;
}

leveldb::Status FaultEnv::NewRandomAccessFile(const std::string& name,
                                              leveldb::RandomAccessFile** result) {
  leveldb::RandomAccessFile* base = nullptr;
  leveldb::Status status = target()->NewRandomAccessFile(name, &base);
  if (!status.ok()) return status;
  *result = Affects(name) ? new FaultRandomAccessFile(this, name, base) : base;
  return status;
}

ScopedTestEnv::ScopedTestEnv(leveldb::Env* env) { persistence::testing::SetEnvForTesting(env); }

ScopedTestEnv::~ScopedTestEnv() { persistence::testing::SetEnvForTesting(nullptr); }

}  // namespace testing_support
