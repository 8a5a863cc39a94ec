// Arbitrary bytes as stored records of the typed stores, read back through
// every typed read path.
//
// Input: one byte choosing the store's record types (bits 1 to 3, modulo 7)
// and its checking mode (bit 0: paranoid), eight parameter bytes (see
// Params in the source), then records, each a key and a value as
// FuzzInput::Blob. The records are written with persistence::DB into the
// store's own directory, which is emptied first, and then read through the
// typed store. Every read must give exactly what the stored bytes call for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzzing {

// The directory under which the stores keep their databases, one directory
// per record type and mode, opened on first use and reused after that. Set
// it before the first check.
void SetStoredRecordsRoot(const std::string& root);

// Writes the input's records and reads them back. Returns what went wrong,
// one line per broken expectation; empty when everything held.
std::vector<std::string> CheckStoredRecords(const uint8_t* data, size_t size);

// Closes every store opened so far.
void CloseStoredRecordStores();

}  // namespace fuzzing
