// The default channel of loggers created through loggerhl::Logger.
#pragma once

#include <Poco/Channel.h>

#include <string>

namespace loggerhl {

// Writes each message as one line on standard error:
//   [<priority>] <logger>: <text> (<file>:<line>, <function>) [<context>]
// The function and the context come from the message's named parameters
// "function" and "ndc"; parts that are missing or empty are left out.
class StderrChannel : public Poco::Channel {
 public:
  void log(const Poco::Message& message) override;

  // The line that log() writes for "message", without the line end.
  static std::string Format(const Poco::Message& message);
};

}  // namespace loggerhl
