// Arbitrary bytes as stored records, read back through every typed read path
// of every store's record types, in both checking modes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"
#include "fuzz/stored_records_check.h"

namespace {

std::string g_root;

void Cleanup() {
  fuzzing::CloseStoredRecordStores();
  fuzzing::RemoveScratchDir(g_root);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzzing::SilenceProtobufLog();
  g_root = fuzzing::MakeScratchDir("stored-records");
  fuzzing::SetStoredRecordsRoot(g_root);
  std::atexit(Cleanup);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzing::AbortOnFailures(fuzzing::CheckStoredRecords(data, size));
  return 0;
}
