// The exported families fed arguments made from arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/families_check.h"
#include "fuzz/fuzz_support.h"

namespace {

std::string g_root;

// Registered before the first store is made, so it runs after the stores'
// own ends have closed their databases.
void Cleanup() { fuzzing::RemoveScratchDir(g_root); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzzing::SilenceProtobufLog();
  g_root = fuzzing::MakeScratchDir("families");
  // The stores are singletons that find their directories here on first use.
  setenv("ZERLA_DATA_ROOT", g_root.c_str(), 1);
  std::atexit(Cleanup);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzing::AbortOnFailures(fuzzing::CheckFamilies(data, size));
  return 0;
}
