// Captures what a named POCO logger receives.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

// One message as the library handed it over.
struct LoggedLine {
  std::string source;
  std::string text;
  int priority = 0;
  std::string file;
  int line = 0;
  std::string function;
  std::string ndc;
};

// While alive, every message of the logger "name" lands here instead of its
// former channel, at the given level. Restores channel and level at the end.
class LogCapture {
 public:
  explicit LogCapture(const std::string& name, int level = Poco::Message::PRIO_TRACE);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LoggedLine> lines() const;
  std::vector<std::string> texts() const;
  // Texts of the lines logged at "priority".
  std::vector<std::string> texts(int priority) const;
  void clear();
  void set_level(int level);

 private:
  class Channel;
  std::string name_;
  Poco::AutoPtr<Channel> channel_;
  Poco::Channel::Ptr former_channel_;
  int former_level_;
};

}  // namespace testing_support
