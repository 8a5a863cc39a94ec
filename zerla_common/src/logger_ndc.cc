#include "loggerhl/logger_ndc.h"

#include <vector>

namespace {

struct ThreadContext {
  std::vector<std::string> texts;
  std::string joined;

  void Rejoin() {
    joined.clear();
    for (const std::string& text : texts) {
      if (!joined.empty()) joined += ':';
      joined += text;
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
