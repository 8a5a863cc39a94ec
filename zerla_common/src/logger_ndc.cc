#include "loggerhl/logger_ndc.h"

#include <cstddef>
#include <vector>

namespace {

struct ThreadContext {
  std::vector<std::string> texts;
  std::string joined;

  void Rejoin() {
    // One separator between neighbours, also when a text is empty.
    joined.clear();
    for (std::size_t i = 0; i < texts.size(); ++i) {
      if (i != 0) joined += ':';
      joined += texts[i];
    }
  }
};

ThreadContext& Context() {
  thread_local ThreadContext context;
  return context;
}

}  // namespace

const std::string& logger_ndc_get() { return Context().joined; }

void logger_ndc_push(const std::string& text) {
  ThreadContext& context = Context();
  context.texts.push_back(text);
  context.Rejoin();
}

void logger_ndc_pop() {
  ThreadContext& context = Context();
  if (context.texts.empty()) return;
  context.texts.pop_back();
  context.Rejoin();
}
