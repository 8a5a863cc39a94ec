#include "persistence/report.h"

#include <Poco/Exception.h>
#include <Poco/Message.h>

namespace persistence {

void LogMessage(Poco::Logger* logger, const std::string& text, int priority, const char* file,
                int line, const char* function, const std::string& ndc) {
  if (logger == nullptr || logger->getLevel() < priority) return;
  Poco::Channel::Ptr channel = logger->getChannel();
  if (!channel) return;
  Poco::Message message(logger->name(), text, static_cast<Poco::Message::Priority>(priority), file,
                        line);
  message.set("function", function);
  message.set("ndc", ndc);
  try {
    channel->log(message);
  } catch (const Poco::WriteFileException& write_failure) {
    try {
      logger->log(write_failure);
    } catch (const Poco::Exception& failure) {
      std::cerr << "Error: Poco::Logger::log: " << failure.displayText() << std::endl;
    } catch (const std::exception& failure) {
      std::cerr << "Error: Poco::Logger::log: " << failure.what() << std::endl;
    } catch (...) {
      std::cerr << "Error: Poco::Logger::log: unknown exception" << std::endl;
    }
  }
}

namespace report {

bool PassRateLimit(std::atomic_flag& ratelimit_lock, SteadyTimePoint& last_message_time) {
  const SteadyTimePoint now = SteadyNow();
  while (ratelimit_lock.test_and_set()) {
  }
  const bool pass = now - last_message_time > kCheckInterval;
  if (pass) last_message_time = now;
  ratelimit_lock.clear(std::memory_order_seq_cst);
  return pass;
}

std::string CheckHeader(const char* file, int line, const char* condition) {
  std::string header = "Line ";
  header += std::to_string(line);
  header += " @ ";
  header += file;
  header += " *** Assertion '";
  header += condition;
  header += "' failed *** ";
  return header;
}

}  // namespace report
}  // namespace persistence
