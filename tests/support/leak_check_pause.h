// LevelDB is not exception-safe: an exception thrown through it by an Env
// loses whatever the engine had allocated on the way. A test that throws
// through it on purpose holds a LeakCheckPause meanwhile, so that the leak
// checker of an AddressSanitizer build does not count those objects. Outside
// such builds it does nothing.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define DRAVINHOLD_TEST_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define DRAVINHOLD_TEST_LEAK_CHECK 1
#endif
#endif

#ifdef DRAVINHOLD_TEST_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace testing_support {

class LeakCheckPause {
 public:
#ifdef DRAVINHOLD_TEST_LEAK_CHECK
  LeakCheckPause() { __lsan_disable(); }
  ~LeakCheckPause() { __lsan_enable(); }
#else
  LeakCheckPause() = default;
#endif
  LeakCheckPause(const LeakCheckPause&) = delete;
  LeakCheckPause& operator=(const LeakCheckPause&) = delete;
};

}  // namespace testing_support
