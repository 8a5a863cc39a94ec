// Opening and walking a store's database for inspection: never creating,
// never repairing, never writing; a store that another process holds is read
// from a copy like any other.
#pragma once

#include <leveldb/db.h>
#include <leveldb/env.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store_catalog.h"

namespace dravinholdctl {

std::string StorePath(const std::string& root, const StoreInfo& store);

bool DirectoryExists(const std::string& path);

// The process holding the database lock of "path", 0 when none does. Locks
// of this process itself do not count.
long LockHolder(const std::string& path);

// Why a store could not be opened for reading.
enum class OpenProblem {
  kNone,
  kAbsent,       // no directory there
  kCannotCheck,  // the tool could not do its work: no room, no permission
  kDamaged,      // the engine refused the store's files
};

// Copies the database at "from", which a running process may be writing,
// into the empty directory "to", so that the copy holds a state the database
// had: CURRENT, the manifest it names and the logs are copied, the tables
// linked (copied where no link can be made). A file that goes away under the
// copy, or a change of the files between the start and the end of the copy,
// starts it again. The copy then recovers as after a crash: a write torn at
// the end of a log is left out. False with *error set when it cannot be
// made; "from" is never written.
bool CopyLiveDatabase(const std::string& from, const std::string& to, std::string* error);

// Opens the existing database at "path" for reading, whether or not another
// process holds it. The engine's open is not a read: it replays the log,
// writes a manifest, deletes files it deems obsolete and may start a
// compaction; so the database opened is a private copy of the store
// (CopyLiveDatabase) under $TMPDIR, removed when it is closed or when the
// tool is interrupted, and nothing in "path" is written, not even a LOCK
// file. On failure returns null, sets *error to one line (not present, the
// tool's own trouble with its reason, or the engine's text naming "path",
// not the copy) and *problem, when given, to what kind of failure it is.
std::unique_ptr<leveldb::DB> OpenExisting(const std::string& path, bool paranoid_checks,
                                          std::string* error, OpenProblem* problem = nullptr);

// The table files of the database at "path" whose blocks fail their
// checksums or that do not open as tables, each with the engine's words:
// "<path>/000005.ldb: Corruption: block checksum mismatch". Only reads; a
// table that a running compaction removes meanwhile is passed over.
std::vector<std::string> DamagedTables(const std::string& path);

// Copies every file of the directory "from" (not LOCK, not subdirectories)
// into the new directory "to": tables linked where possible, the rest
// copied. False with *error set, strerror included.
bool BackUpDirectory(const std::string& from, const std::string& to, std::string* error);

// Walks the records from "start" (empty: the first) in key order, calling
// "visit" until it returns false. Every block read is checked against its
// checksum, so that damage is reported rather than shown as records; the
// walk goes on past a damaged block to the sound ones after it and returns
// the first failure at its end. A walk with no failure of its own returns
// OpenDamage(db).
leveldb::Status Walk(
    leveldb::DB* db, const std::string& start,
    const std::function<bool(const leveldb::Slice&, const leveldb::Slice&)>& visit);

// Walk over every record from the first, with a progress bar labelled
// "label" on a terminal, measured over the tables by the engine itself so
// that it ends at 100 % where the walk ends. The bar is finished (or wiped,
// on a failure) before the walk's result is returned.
leveldb::Status WalkWithProgress(
    leveldb::DB* db, const std::string& label,
    const std::function<bool(const leveldb::Slice&, const leveldb::Slice&)>& visit);

// What the open of "db" skipped without paranoid checks, as Corruption
// "<log file>: dropping <n> bytes; <why>": records of a damaged log that are
// not in the database. Ok when nothing was skipped.
leveldb::Status OpenDamage(leveldb::DB* db);

// Bytes the directory takes on disk, 0 when it can't be measured.
uint64_t SizeOnDisk(const std::string& path);

// "680.4 KiB" and the like.
std::string HumanBytes(uint64_t bytes);

// A progress bar on standard error, drawn only when it is a terminal, so
// that it never reaches a file or a pipe. One that is not finished is
// erased when it ends (a failure is told on a clean line).
class ProgressBar {
 public:
  ProgressBar(std::string label, uint64_t total);
  ~ProgressBar();
  void Update(uint64_t done);
  // Draws 100 % and ends the line, so that what is printed next starts on
  // a line of its own.
  void Finish();

 private:
  const std::string label_;
  const uint64_t total_;
  void Draw(int percent);

  const bool visible_;
  int drawn_percent_ = -1;
  bool finished_ = false;
};

}  // namespace dravinholdctl
