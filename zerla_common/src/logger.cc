#include "loggerhl/logger.h"

#include <Poco/Channel.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <cstdio>
#include <cstdlib>

#include "stderr_channel.h"

namespace loggerhl {
namespace {

constexpr int kDefaultLevel = Poco::Message::PRIO_INFORMATION;

int LevelFromEnvironment() {
  const char* text = std::getenv("ZERLA_LOG_LEVEL");
  if (text == nullptr || *text == '\0') return kDefaultLevel;
  try {
    return Poco::Logger::parseLevel(text);
  } catch (const Poco::Exception&) {
    return kDefaultLevel;
  }
}

}  // namespace

void Logger::Create(const std::string& name, const std::string& /*tag*/) {
  Poco::Logger& logger = Poco::Logger::get(name);
  if (!logger.getChannel()) {
    logger.setChannel(new StderrChannel);
    logger.setLevel(LevelFromEnvironment());
  }
  logger.duplicate();  // the handle's own reference, so that Destroy can't pull it away
  if (logger_ != nullptr) logger_->release();
  logger_ = &logger;
}

Logger::~Logger() {
  if (logger_ != nullptr) logger_->release();
}

void Logger::Destroy(const std::string& name) { Poco::Logger::destroy(name); }

}  // namespace loggerhl
