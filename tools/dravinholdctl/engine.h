// Opening and walking a store's database for inspection: never creating,
// never repairing, and never waiting for a store that another process holds.
#pragma once

#include <leveldb/db.h>
#include <leveldb/env.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "store_catalog.h"

namespace dravinholdctl {

std::string StorePath(const std::string& root, const StoreInfo& store);

bool DirectoryExists(const std::string& path);

// The process holding the database lock of "path", 0 when none does. Locks
// of this process itself do not count.
long LockHolder(const std::string& path);

// Opens the existing database at "path" for reading. The engine's open is
// not a read: it replays the log into a table, writes a new manifest, deletes
// files it deems obsolete and may start a compaction. So the database opened
// is a private copy of the store's files (tables linked, the rest copied)
// under $TMPDIR, removed when it is closed, and nothing in "path" is written,
// not even a LOCK file. On failure returns null and sets *error to one line:
// not present, in use by another process, or the engine's text (naming
// "path", not the copy).
std::unique_ptr<leveldb::DB> OpenExisting(const std::string& path, bool paranoid_checks,
                                          std::string* error);

// Walks the records from "start" (empty: the first) in key order, calling
// "visit" until it returns false. Every block read is checked against its
// checksum, so that damage is reported rather than shown as records; the
// walk goes on past a damaged block to the sound ones after it and returns
// the first failure at its end. A walk with no failure of its own returns
// OpenDamage(db).
leveldb::Status Walk(
    leveldb::DB* db, const std::string& start,
    const std::function<bool(const leveldb::Slice&, const leveldb::Slice&)>& visit);

// What the open of "db" skipped without paranoid checks, as Corruption
// "<log file>: dropping <n> bytes; <why>": records of a damaged log that are
// not in the database. Ok when nothing was skipped.
leveldb::Status OpenDamage(leveldb::DB* db);

// Bytes the directory takes on disk, 0 when it can't be measured.
uint64_t SizeOnDisk(const std::string& path);

// "680.4 KiB" and the like.
std::string HumanBytes(uint64_t bytes);

// A progress bar on standard error, drawn only when it is a terminal.
class ProgressBar {
 public:
  ProgressBar(std::string label, uint64_t total);
  ~ProgressBar();
  void Update(uint64_t done);

 private:
  const std::string label_;
  const uint64_t total_;
  const bool visible_;
  int drawn_percent_ = -1;
};

}  // namespace dravinholdctl
