// Salvage of a database's write-ahead logs before a repair.
//
// The engine's repair replays every log without verifying record checksums,
// so a damaged record becomes a table entry: content nobody wrote, under a
// key nobody wrote, or a sequence number that repeats another and trips the
// engine's assertions. Its ordinary recovery drops such a record instead.
// SalvageLogs gives the repair logs that hold only whole, verified records,
// as that recovery would have read them.
//
// Internal to the database handle; not part of the installed interface.
#pragma once

#include <leveldb/env.h>
#include <leveldb/status.h>

#include <string>

namespace persistence {

// Rewrites each log file ("NNNNNN.log") of the database in "dir" that holds
// a damaged record, keeping the records whose every fragment verifies and
// dropping the rest of a block after a damaged fragment, as the engine's own
// log reader does. Logs without damage are left untouched. Each rewrite goes
// to a temporary file that is then renamed over the log. Returns the first
// failure of "env".
leveldb::Status SalvageLogs(leveldb::Env* env, const std::string& dir);

// The masked CRC-32C of "type" followed by "data": the checksum of a log
// record's header.
uint32_t LogRecordChecksum(char type, const char* data, size_t size);

}  // namespace persistence
