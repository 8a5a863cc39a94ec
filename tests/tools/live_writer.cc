// A process that writes a store without pause, for the tests that inspect a
// store while it is written.
//
//   live_writer DIR PROGRESS_FILE WINDOW [WRITE_BUFFER_BYTES]
//
// Batch i (from 1) puts "counter" with name i and key "signer-<i, 12
// digits>", and deletes the key of batch i - WINDOW: after batch i the store
// holds "counter" and the keys of batches max(1, i - WINDOW + 1) to i, and
// no other state is ever written. After each batch has been written, i is
// stored as 8 bytes at the start of PROGRESS_FILE. A small write buffer (1 MiB
// unless given) makes the engine flush its log into tables and compact many
// times a second. The writer ends on SIGTERM, with the test that started it,
// or by itself after fifteen minutes.

#include <fcntl.h>
#include <unistd.h>

#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "dravinhold/trusted_signers_store/trusted_signers_store.pb.h"

namespace {

std::string Key(uint64_t i) {
  char key[32];
  std::snprintf(key, sizeof(key), "signer-%012llu", static_cast<unsigned long long>(i));
  return key;
}

std::string Value(const std::string& name) {
  proto::TrustedSignersStore::Value value;
  value.set_name(name);
  return value.SerializeAsString();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) {
    std::fprintf(stderr, "usage: live_writer DIR PROGRESS_FILE WINDOW [WRITE_BUFFER_BYTES]\n");
    return 2;
  }
  const uint64_t window = std::strtoull(argv[3], nullptr, 10);
  const int progress = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (progress < 0) {
    std::perror(argv[2]);
    return 1;
  }
  std::unique_ptr<const leveldb::FilterPolicy> bloom(leveldb::NewBloomFilterPolicy(10));
  leveldb::Options options;
  options.create_if_missing = true;
  options.write_buffer_size = argc == 5 ? std::strtoull(argv[4], nullptr, 10) : 1 << 20;
  options.filter_policy = bloom.get();
  leveldb::DB* opened = nullptr;
  leveldb::Status status = leveldb::DB::Open(options, argv[1], &opened);
  if (!status.ok()) {
    std::fprintf(stderr, "open: %s\n", status.ToString().c_str());
    return 1;
  }
  std::unique_ptr<leveldb::DB> db(opened);
  const std::string padding(80, 'p');
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(15);
  for (uint64_t i = 1; std::chrono::steady_clock::now() < deadline; ++i) {
    leveldb::WriteBatch batch;
    batch.Put("counter", Value(std::to_string(i)));
    batch.Put(Key(i), Value("signer " + std::to_string(i) + " " + padding));
    if (i > window) batch.Delete(Key(i - window));
    status = db->Write(leveldb::WriteOptions(), &batch);
    if (!status.ok()) {
      std::fprintf(stderr, "write %llu: %s\n", static_cast<unsigned long long>(i),
                   status.ToString().c_str());
      return 1;
    }
    if (pwrite(progress, &i, sizeof(i), 0) != static_cast<ssize_t>(sizeof(i))) return 1;
  }
  return 0;
}
