// A LevelDB environment that fails on demand, for I/O errors, full disks and
// damaged reads that no real disk produces on cue.
#pragma once

#include <leveldb/env.h>

#include <atomic>
#include <string>

namespace testing_support {

class FaultEnv : public leveldb::EnvWrapper {
 public:
  FaultEnv() : leveldb::EnvWrapper(leveldb::Env::Default()) {}

  // Writes (appends, syncs, new files) fail with an I/O error.
  std::atomic<bool> fail_writes{false};
  // Appends fail as on a full disk: "IO error: <file>: No space left on device".
  std::atomic<bool> disk_full{false};
  // Reads of table files (random access) fail with an I/O error.
  std::atomic<bool> fail_table_reads{false};
  // Reads of table files report Corruption.
  std::atomic<bool> corrupt_table_reads{false};
  // The process that creates a table file kills itself with SIGKILL, as an
  // engine assertion would end it: for work that runs in a child process.
  std::atomic<bool> kill_on_new_table{false};
  // Only files whose name contains this text are affected; "" means all.
  std::string only_files;

  leveldb::Status NewWritableFile(const std::string& name, leveldb::WritableFile** result) override;
  leveldb::Status NewAppendableFile(const std::string& name,
                                    leveldb::WritableFile** result) override;
  leveldb::Status NewRandomAccessFile(const std::string& name,
                                      leveldb::RandomAccessFile** result) override;

  bool Affects(const std::string& name) const;
};

// Installs "env" for every database opened while alive.
class ScopedTestEnv {
 public:
  explicit ScopedTestEnv(leveldb::Env* env);
  ~ScopedTestEnv();
  ScopedTestEnv(const ScopedTestEnv&) = delete;
  ScopedTestEnv& operator=(const ScopedTestEnv&) = delete;
};

}  // namespace testing_support
