#include "support/log_capture.h"

#include <Poco/Logger.h>

namespace testing_support {

class LogCapture::Channel : public Poco::Channel {
 public:
  void log(const Poco::Message& message) override {
    LoggedLine line;
    line.source = message.getSource();
    line.text = message.getText();
    line.priority = message.getPriority();
    line.file = message.getSourceFile() != nullptr ? message.getSourceFile() : "";
    line.line = message.getSourceLine();
    line.function = message.get("function", std::string());
    line.ndc = message.get("ndc", std::string());
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
  }

  std::vector<LoggedLine> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LoggedLine> lines_;
};

LogCapture::LogCapture(const std::string& name, int level) : name_(name), channel_(new Channel) {
  Poco::Logger& logger = Poco::Logger::get(name_);
  former_channel_ = logger.getChannel();
  former_level_ = logger.getLevel();
  logger.setChannel(channel_);
  logger.setLevel(level);
}

LogCapture::~LogCapture() {
  Poco::Logger& logger = Poco::Logger::get(name_);
  logger.setChannel(former_channel_);
  logger.setLevel(former_level_);
}

std::vector<LoggedLine> LogCapture::lines() const { return channel_->lines(); }

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> result;
  for (const LoggedLine& line : lines()) result.push_back(line.text);
  return result;
}

std::vector<std::string> LogCapture::texts(int priority) const {
  std::vector<std::string> result;
  for (const LoggedLine& line : lines()) {
    if (line.priority == priority) result.push_back(line.text);
  }
  return result;
}

void LogCapture::clear() { channel_->clear(); }

void LogCapture::set_level(int level) { Poco::Logger::get(name_).setLevel(level); }

}  // namespace testing_support
