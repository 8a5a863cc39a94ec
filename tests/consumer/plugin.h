// A second shared object of the consumer's own, built with the library's
// headers like the program: its inlined Instance() functions must reach the
// same stores as the program's and the library's.
#pragma once

namespace plugin {

enum class Store {
  kFVhash,
  kTrustedSigners,
  kTrustedSignersCache,
  kGeneralPolicy,
  kProcessPolicy,
  kEnrichment,
};

// The address of the store as this shared object's Instance() gives it.
const void* InstanceOf(Store store);

// Whether the store answers through this shared object's own inline code:
// a count on Instance() that succeeds.
bool Usable(Store store);

}  // namespace plugin
