// Named logger handles over POCO's logger registry.
#pragma once

#include <string>

namespace Poco {
class Logger;
}

namespace loggerhl {

// A handle on one Poco::Logger. The library's logger singletons derive from
// it and fill the two members in this order: the logger pointer, then the
// enabled flag, which is set before Create is called.
class Logger {
 public:
  Logger() = default;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;
  // Gives back the handle's reference on its logger.
  ~Logger();

  // Binds this handle to Poco::Logger::get(name). A logger that has no channel
  // yet gets the default channel (one line per message on standard error) and
  // the level of $ZERLA_LOG_LEVEL, a POCO priority number or name, else 6
  // (information). A logger that already has a channel is left as configured.
  // "tag" names the agent component; it is kept for diagnostics only.
  void Create(const std::string& name, const std::string& tag);

  // Releases the registry's logger of this name. Handles bound to it stay
  // usable: each holds a reference of its own.
  static void Destroy(const std::string& name);

  Poco::Logger* logger() const { return logger_; }
  bool enabled() const { return enabled_; }

 protected:
  Poco::Logger* logger_ = nullptr;
  bool enabled_ = false;
};

}  // namespace loggerhl
