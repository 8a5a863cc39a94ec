#include "stderr_channel.h"

#include <Poco/Message.h>

#include <cstdio>

namespace loggerhl {
namespace {

const char* PriorityName(Poco::Message::Priority priority) {
  switch (priority) {
    case Poco::Message::PRIO_FATAL:
      return "fatal";
    case Poco::Message::PRIO_CRITICAL:
      return "critical";
    case Poco::Message::PRIO_ERROR:
      return "error";
    case Poco::Message::PRIO_WARNING:
      return "warning";
    case Poco::Message::PRIO_NOTICE:
      return "notice";
    case Poco::Message::PRIO_INFORMATION:
      return "information";
    case Poco::Message::PRIO_DEBUG:
      return "debug";
    case Poco::Message::PRIO_TRACE:
      return "trace";
  }
  return "unknown";
}

}  // namespace

std::string StderrChannel::Format(const Poco::Message& message) {
  std::string line = "[";
  line += PriorityName(message.getPriority());
  line += "] ";
  line += message.getSource();
  line += ": ";
  line += message.getText();
  const std::string function = message.get("function", std::string());
  if (message.getSourceFile() != nullptr) {
    line += " (";
    line += message.getSourceFile();
    line += ':';
    line += std::to_string(message.getSourceLine());
    if (!function.empty()) {
      line += ", ";
      line += function;
    }
    line += ')';
  }
  const std::string ndc = message.get("ndc", std::string());
  if (!ndc.empty()) {
    line += " [";
    line += ndc;
    line += ']';
  }
  return line;
}

void StderrChannel::log(const Poco::Message& message) {
  std::string line = Format(message);
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace loggerhl
