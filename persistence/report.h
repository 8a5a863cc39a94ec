// The four reporting shapes of the library.
//
//   LOG_LINE(LoggerT, priority, format, args...)   a log line, never rate-limited
//   CHECK_LOGGED(LoggerT, condition, message)      a check reported in the log,
//                                                  at most once in 600 s per site
//   CHECK_STDERR(condition, message)               a check of persistence::DB,
//                                                  reported on standard error
//   REPORT_STDERR(path, operation, status)         a failed operation of
//                                                  persistence::DB, on standard error
//
// They are macros so that each report carries the file, line and function of
// its own site. CHECK_LOGGED and CHECK_STDERR are expressions that yield the
// condition's value, so a site reads
//
//   if (!CHECK_LOGGED(LibPersistenceLogger, value, "value is nullptr")) return ...;
//
// The message of a check may be anything that can be written to a
// std::ostream, including a chain: "keys(" << n << ")". It is evaluated only
// when a line is really written. The logged shapes leave errno as they found it.
#pragma once

#include <Poco/Any.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "loggerhl/logger.h"
#include "loggerhl/logger_ndc.h"
#include "persistence/clock.h"
#include "persistence/export.h"

namespace persistence {

// Hands one message to the logger's channel, if the logger wants the priority
// and has a channel. "function" and "ndc" travel in the message's named
// parameters "function" and "ndc". A failure of the channel never reaches the
// caller, except an exception that is neither POCO's nor a std::exception.
// Exported, like the helpers below: the shapes expand in callers' code
// wherever an installed header uses them.
DRAVINHOLD_EXPORT void LogMessage(Poco::Logger* logger, const std::string& text, int priority,
                                  const char* file, int line, const char* function,
                                  const std::string& ndc);

namespace report {

constexpr int kCheckPriority = 3;  // error
constexpr std::chrono::nanoseconds kCheckInterval = std::chrono::seconds(600);

// Restores errno on every way out of a report.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  void Restore() const { errno = saved_; }

 private:
  const int saved_;
};

inline bool Wants(const loggerhl::Logger& handle, int priority) {
  const Poco::Logger* logger = handle.logger();
  return logger != nullptr && logger->getLevel() >= priority;
}

// Poco::format knows only std::string for %s.
template <typename T>
Poco::Any FormatArgument(const T& value) {
  return Poco::Any(value);
}
inline Poco::Any FormatArgument(const char* value) { return Poco::Any(std::string(value)); }
inline Poco::Any FormatArgument(char* value) { return Poco::Any(std::string(value)); }

template <typename LoggerT, typename... Args>
void LogLine(int priority, const char* file, int line, const char* function, const char* format,
             const Args&... args) {
  const ErrnoKeeper errno_keeper;
  const LoggerT& handle = LoggerT::Instance();
  if (!Wants(handle, priority)) return;
  errno_keeper.Restore();
  const std::string& ndc = logger_ndc_get();
  std::string text;
  Poco::format(text, std::string(format), std::vector<Poco::Any>{FormatArgument(args)...});
  LogMessage(handle.logger(), text, priority, file, line, function, ndc);
}

// True when the site may report now: the last report of the site lies more
// than kCheckInterval back on the steady clock. Records the time if so.
DRAVINHOLD_EXPORT bool PassRateLimit(std::atomic_flag& ratelimit_lock,
                                     SteadyTimePoint& last_message_time);

// "Line <n> @ <file> *** Assertion '<condition>' failed *** "
DRAVINHOLD_EXPORT std::string CheckHeader(const char* file, int line, const char* condition);

template <typename LoggerT, typename WriteMessage>
void ReportFailedCheck(std::atomic_flag& ratelimit_lock, SteadyTimePoint& last_message_time,
                       const char* file, int line, const char* function, const char* condition,
                       const WriteMessage& write_message) {
  const ErrnoKeeper errno_keeper;
  if (!Wants(LoggerT::Instance(), kCheckPriority)) return;
  if (!PassRateLimit(ratelimit_lock, last_message_time)) return;
  const LoggerT& handle = LoggerT::Instance();
  if (!Wants(handle, kCheckPriority)) return;
  errno_keeper.Restore();
  const std::string& ndc = logger_ndc_get();
  std::ostringstream text;
  text << CheckHeader(file, line, condition);
  write_message(text);
  LogMessage(handle.logger(), text.str(), kCheckPriority, file, line, function, ndc);
}

template <typename WriteMessage>
void PrintFailedCheck(const char* file, int line, const char* condition,
                      const WriteMessage& write_message) {
  std::cerr << CheckHeader(file, line, condition);
  write_message(std::cerr);
  std::cerr << '\n';
}

}  // namespace report
}  // namespace persistence

#define LOG_LINE(LoggerT, priority, ...)                                                       \
  ::persistence::report::LogLine<LoggerT>((priority), __FILE__, __LINE__, __PRETTY_FUNCTION__, \
                                          __VA_ARGS__)

// The lambda gives every site, and every template instantiation of a site, a
// rate limit of its own.
#define CHECK_LOGGED(LoggerT, condition, message)                             \
  (static_cast<bool>(condition) || [&](const char* function_) {               \
    static std::atomic_flag ratelimit_lock__ = ATOMIC_FLAG_INIT;              \
    static ::persistence::SteadyTimePoint last_message_time__{};              \
    ::persistence::report::ReportFailedCheck<LoggerT>(                        \
        ratelimit_lock__, last_message_time__, __FILE__, __LINE__, function_, \
        "((" #condition "))", [&](std::ostream& out_) { out_ << message; });  \
    return false;                                                             \
  }(__PRETTY_FUNCTION__))

#define CHECK_STDERR(condition, message)                                                   \
  (static_cast<bool>(condition) ||                                                         \
   (::persistence::report::PrintFailedCheck(__FILE__, __LINE__, "((" #condition "))",      \
                                            [&](std::ostream& out_) { out_ << message; }), \
    static_cast<bool>(condition)))

#define REPORT_STDERR(path, operation, status)                               \
  (std::cerr << "persistence::DB: " << (path) << ": " << (operation) << ": " \
             << (status).ToString() << std::endl)
