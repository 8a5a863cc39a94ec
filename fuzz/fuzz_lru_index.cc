// LRU keys of arbitrary bytes, and the index an LRU store restores from the
// highest of them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"
#include "fuzz/lru_index_check.h"

namespace {

std::string g_root;

void Cleanup() {
  fuzzing::CloseLruIndexStore();
  fuzzing::RemoveScratchDir(g_root);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzzing::SilenceProtobufLog();
  g_root = fuzzing::MakeScratchDir("lru-index");
  fuzzing::SetLruIndexRoot(g_root);
  std::atexit(Cleanup);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzing::AbortOnFailures(fuzzing::CheckLruIndex(data, size));
  return 0;
}
