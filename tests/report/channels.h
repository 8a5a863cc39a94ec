// POCO channels with behaviour of their own, for what the capture of the
// test support does not do: disturb errno, throw.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace report_testing {

// Records what it gets (text, priority, errno at the time of the call), then
// runs "after_record", which may change errno or throw.
class ScriptedChannel : public Poco::Channel {
 public:
  struct Entry {
    std::string source;
    std::string text;
    int priority = 0;
    int errno_seen = 0;
  };

  explicit ScriptedChannel(std::function<void(int call)> after_record = nullptr)
      : after_record_(std::move(after_record)) {}

  void log(const Poco::Message& message) override {
    const int errno_seen = errno;
    int call = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      entries_.push_back({message.getSource(), message.getText(),
                          static_cast<int>(message.getPriority()), errno_seen});
      call = static_cast<int>(entries_.size());
    }
    if (after_record_) after_record_(call);
  }

  std::vector<Entry> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }

 private:
  std::function<void(int)> after_record_;
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

// Puts "channel" and "level" on the POCO logger "name" for its lifetime.
class ScopedChannel {
 public:
  ScopedChannel(const std::string& name, Poco::AutoPtr<Poco::Channel> channel, int level)
      : name_(name) {
    Poco::Logger& logger = Poco::Logger::get(name_);
    former_channel_ = logger.getChannel();
    former_level_ = logger.getLevel();
    logger.setChannel(channel);
    logger.setLevel(level);
  }
  ~ScopedChannel() {
    Poco::Logger& logger = Poco::Logger::get(name_);
    logger.setChannel(former_channel_);
    logger.setLevel(former_level_);
  }
  ScopedChannel(const ScopedChannel&) = delete;
  ScopedChannel& operator=(const ScopedChannel&) = delete;

 private:
  std::string name_;
  Poco::Channel::Ptr former_channel_;
  int former_level_;
};

}  // namespace report_testing
