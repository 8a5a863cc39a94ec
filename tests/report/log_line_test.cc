// LOG_LINE and LogMessage: formats, priorities, the level decision, the
// source site, the diagnostic context, errno, and failing channels.
#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "loggerhl/logger_ndc.h"
#include "nix/dravinhold/logging.h"
#include "persistence/report.h"
#include "persistence/status.h"
#include "report/channels.h"
#include "support/log_capture.h"
#include "support/stderr_capture.h"

namespace log_line_site {

// A site outside the test bodies, with a signature like the library's.
// Returns the source line of its LOG_LINE.
int LogVerdictFailure(const std::string& hash, bool* verdict) {
  *verdict = false;
  const int line = __LINE__ + 1;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_ERROR, "Failed to check %s", hash);
  return line;
}

}  // namespace log_line_site

namespace {

using report_testing::ScopedChannel;
using report_testing::ScriptedChannel;
using testing_support::LogCapture;
using testing_support::LoggedLine;
using testing_support::StderrCapture;

constexpr int kError = Poco::Message::PRIO_ERROR;
constexpr int kWarning = Poco::Message::PRIO_WARNING;
constexpr int kNotice = Poco::Message::PRIO_NOTICE;
constexpr int kInformation = Poco::Message::PRIO_INFORMATION;
constexpr int kDebug = Poco::Message::PRIO_DEBUG;
constexpr int kTrace = Poco::Message::PRIO_TRACE;

// Counts its copies, which is what turning it into a format argument costs.
struct CopyCounted {
  static int copies;
  CopyCounted() = default;
  CopyCounted(const CopyCounted&) { ++copies; }
};
int CopyCounted::copies = 0;

// --- Formats ---------------------------------------------------------------

TEST(LogLineFormat, TextWithoutArguments) {
  LogCapture capture("LibPersistence");
  LOG_LINE(LibPersistenceLogger, kNotice, "Reopening the database...");
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"Reopening the database..."});
}

TEST(LogLineFormat, StringFromStdString) {
  LogCapture capture("LibPersistence");
  const std::string path = "/var/lib/zerla/fvhash_store";
  LOG_LINE(LibPersistenceLogger, kError, "Failed to open database '%s'.", path);
  EXPECT_EQ(capture.texts(),
            std::vector<std::string>{"Failed to open database '/var/lib/zerla/fvhash_store'."});
}

TEST(LogLineFormat, StringFromCharPointerAndLiteral) {
  LogCapture capture("LibPersistence");
  const char* name = "LruStoreSync";
  LOG_LINE(LibPersistenceLogger, kError, "thread %s, phase %s", name, "start");
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"thread LruStoreSync, phase start"});
}

TEST(LogLineFormat, StringFromWritableCharPointer) {
  LogCapture capture("LibPersistence");
  char name[] = "LruStorePrune";
  char* writable = name;
  LOG_LINE(LibPersistenceLogger, kError, "thread %s", writable);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"thread LruStorePrune"});
}

TEST(LogLineFormat, EmptyStringArgument) {
  LogCapture capture("LibPersistence");
  LOG_LINE(LibPersistenceLogger, kError, "[%s]", std::string());
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"[]"});
}

TEST(LogLineFormat, Signed32BitInteger) {
  LogCapture capture("LibPersistence");
  const int32_t negative = -2147483647 - 1;
  const int32_t positive = 2147483647;
  LOG_LINE(LibPersistenceLogger, kError, "%d %d %d", negative, positive, 0);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"-2147483648 2147483647 0"});
}

TEST(LogLineFormat, IntegerOfAnyWidth) {
  LogCapture capture("LibPersistence");
  const int64_t wide = -9000000000LL;
  const int64_t widest = std::numeric_limits<int64_t>::max();
  const int32_t narrow = 42;
  LOG_LINE(LibPersistenceLogger, kError, "%?d %?d %?d", wide, widest, narrow);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"-9000000000 9223372036854775807 42"});
}

TEST(LogLineFormat, Unsigned64BitInteger) {
  LogCapture capture("LibPersistence");
  const uint64_t largest = std::numeric_limits<uint64_t>::max();
  const uint64_t index = 1;
  LOG_LINE(LibPersistenceLogger, kError, "size=%Lu index=%Lu", largest, index);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"size=18446744073709551615 index=1"});
}

TEST(LogLineFormat, Boolean) {
  // POCO writes a boolean as a digit.
  LogCapture capture("LibPersistence");
  LOG_LINE(LibPersistenceLogger, kError, "paranoid=%b sync=%b", true, false);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"paranoid=1 sync=0"});
}

TEST(LogLineFormat, StatusAsCodeThenMessage) {
  LogCapture capture("LibPersistence");
  const persistence::Status status(persistence::Status::kNotFound, "NotFound: ");
  LOG_LINE(LibPersistenceLogger, kError,
           "Failed to get entry from fvhash blacklist, err=%d, msg=%s", status.code,
           status.message);
  EXPECT_EQ(
      capture.texts(),
      std::vector<std::string>{"Failed to get entry from fvhash blacklist, err=3, msg=NotFound: "});
}

TEST(LogLineFormat, MixedSpecifiersProduceNoFormatError) {
  LogCapture capture("Enrichment");
  const std::string key = "abc";
  const int64_t lru_data = -5;
  const uint64_t index = 77;
  LOG_LINE(EnrichmentLogger, kWarning, "key=%s code=%d data=%?d index=%Lu stale=%b", key, 5,
           lru_data, index, true);
  const std::vector<std::string> texts = capture.texts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0], "key=abc code=5 data=-5 index=77 stale=1");
  EXPECT_EQ(texts[0].find("[ERRFMT]"), std::string::npos);
}

TEST(LogLineFormat, ArgumentsMayUseErrno) {
  LogCapture capture("LibPersistence");
  errno = ENOSPC;
  LOG_LINE(LibPersistenceLogger, kError, "errno=%d", errno);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"errno=28"});
}

// --- Priorities and the level ------------------------------------------------

TEST(LogLinePriority, EachPriorityIsCarriedAsGiven) {
  LogCapture capture("LibPersistence", kTrace);
  for (int priority = Poco::Message::PRIO_CRITICAL; priority <= kTrace; ++priority) {
    LOG_LINE(LibPersistenceLogger, priority, "priority %d", priority);
  }
  const std::vector<LoggedLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 7u);
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(lines[i].priority, i + 2);
    EXPECT_EQ(lines[i].text, "priority " + std::to_string(i + 2));
  }
}

TEST(LogLinePriority, WantedWhenTheLevelIsThePriorityOrHigher) {
  LogCapture capture("LibPersistence", kNotice);
  LOG_LINE(LibPersistenceLogger, kError, "error");
  LOG_LINE(LibPersistenceLogger, kWarning, "warning");
  LOG_LINE(LibPersistenceLogger, kNotice, "notice");
  LOG_LINE(LibPersistenceLogger, kInformation, "information");
  LOG_LINE(LibPersistenceLogger, kDebug, "debug");
  LOG_LINE(LibPersistenceLogger, kTrace, "trace");
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{"error", "warning", "notice"}));
}

TEST(LogLinePriority, TheLevelIsReadOnEveryDecision) {
  LogCapture capture("LibPersistence", kError);
  LOG_LINE(LibPersistenceLogger, kDebug, "one");
  Poco::Logger::get("LibPersistence").setLevel(kDebug);
  LOG_LINE(LibPersistenceLogger, kDebug, "two");
  Poco::Logger::get("LibPersistence").setLevel(kInformation);
  LOG_LINE(LibPersistenceLogger, kDebug, "three");
  LOG_LINE(LibPersistenceLogger, kInformation, "four");
  Poco::Logger::get("LibPersistence").setLevel(kTrace);
  LOG_LINE(LibPersistenceLogger, kTrace, "five");
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{"two", "four", "five"}));
}

TEST(LogLinePriority, UnwantedArgumentsAreNotFormatted) {
  LogCapture capture("LibPersistence", kWarning);
  const CopyCounted argument;
  CopyCounted::copies = 0;
  LOG_LINE(LibPersistenceLogger, kNotice, "%s", argument);
  EXPECT_EQ(CopyCounted::copies, 0);
  EXPECT_TRUE(capture.lines().empty());
  // The same site with the priority wanted does take the argument in.
  LOG_LINE(LibPersistenceLogger, kWarning, "%s", argument);
  EXPECT_GT(CopyCounted::copies, 0);
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(LogLinePriority, LinesAreNeverRateLimited) {
  LogCapture capture("LibPersistence");
  for (int i = 0; i < 100; ++i) LOG_LINE(LibPersistenceLogger, kError, "same line");
  EXPECT_EQ(capture.texts(), std::vector<std::string>(100, "same line"));
}

// --- The site ----------------------------------------------------------------

TEST(LogLineSite, CarriesFileLineAndFullFunctionSignature) {
  LogCapture capture("LibPersistence");
  bool verdict = true;
  const int line = log_line_site::LogVerdictFailure("0011aabb", &verdict);
  const std::vector<LoggedLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].source, "LibPersistence");
  EXPECT_EQ(lines[0].text, "Failed to check 0011aabb");
  EXPECT_EQ(lines[0].priority, kError);
  EXPECT_EQ(lines[0].file, "tests/report/log_line_test.cc");
  EXPECT_EQ(lines[0].line, line);
  EXPECT_EQ(lines[0].function, "int log_line_site::LogVerdictFailure(const std::string&, bool*)");
  EXPECT_EQ(lines[0].ndc, "");
}

TEST(LogLineSite, FunctionOfATestBody) {
  LogCapture capture("Enrichment");
  const int line = __LINE__ + 1;
  LOG_LINE(EnrichmentLogger, kInformation, "here");
  const std::vector<LoggedLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].line, line);
  EXPECT_EQ(lines[0].function, __PRETTY_FUNCTION__);
  EXPECT_EQ(lines[0].source, "Enrichment");
}

// --- Diagnostic context ----------------------------------------------------------

TEST(LogLineContext, EmptyWhenNothingIsPushed) {
  LogCapture capture("LibPersistence");
  LOG_LINE(LibPersistenceLogger, kError, "plain");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].ndc, "");
}

TEST(LogLineContext, CarriesThePushedContextFetchedForEachLine) {
  LogCapture capture("LibPersistence");
  logger_ndc_push("Reopen(/var/lib/zerla/fvhash_store)");
  LOG_LINE(LibPersistenceLogger, kNotice, "Reopening the database...");
  logger_ndc_push("inner");
  LOG_LINE(LibPersistenceLogger, kNotice, "nested");
  logger_ndc_pop();
  LOG_LINE(LibPersistenceLogger, kNotice, "Database reopened successfully!");
  logger_ndc_pop();
  LOG_LINE(LibPersistenceLogger, kNotice, "after");
  const std::vector<LoggedLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].ndc, "Reopen(/var/lib/zerla/fvhash_store)");
  EXPECT_EQ(lines[1].ndc, "Reopen(/var/lib/zerla/fvhash_store):inner");
  EXPECT_EQ(lines[2].ndc, "Reopen(/var/lib/zerla/fvhash_store)");
  EXPECT_EQ(lines[3].ndc, "");
}

TEST(LogLineContext, EachThreadCarriesItsOwn) {
  LogCapture capture("Enrichment");
  logger_ndc_push("caller");
  std::thread worker([] {
    logger_ndc_push("LruStoreSync");
    LOG_LINE(EnrichmentLogger, kDebug, "worker");
    logger_ndc_pop();
  });
  worker.join();
  LOG_LINE(EnrichmentLogger, kDebug, "caller");
  logger_ndc_pop();
  const std::vector<LoggedLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].text, "worker");
  EXPECT_EQ(lines[0].ndc, "LruStoreSync");
  EXPECT_EQ(lines[1].text, "caller");
  EXPECT_EQ(lines[1].ndc, "caller");
}

// --- errno -------------------------------------------------------------------------

TEST(LogLineErrno, IsKeptAcrossAWrittenLine) {
  Poco::AutoPtr<ScriptedChannel> channel(new ScriptedChannel([](int) { errno = EIO; }));
  ScopedChannel scoped("LibPersistence", channel, kTrace);
  errno = ERANGE;
  LOG_LINE(LibPersistenceLogger, kError, "code=%d", 5);
  EXPECT_EQ(errno, ERANGE);
  ASSERT_EQ(channel->entries().size(), 1u);
  EXPECT_EQ(channel->entries()[0].text, "code=5");
}

TEST(LogLineErrno, IsKeptAcrossAnUnwantedLine) {
  Poco::AutoPtr<ScriptedChannel> channel(new ScriptedChannel([](int) { errno = EIO; }));
  ScopedChannel scoped("LibPersistence", channel, kError);
  errno = EAGAIN;
  LOG_LINE(LibPersistenceLogger, kDebug, "unwanted");
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_TRUE(channel->entries().empty());
}

TEST(LogLineErrno, IsKeptAtFirstUseOfTheLogger) {
  errno = EINTR;
  LOG_LINE(EnrichmentLogger, kTrace, "first use");
  EXPECT_EQ(errno, EINTR);
}

// --- LogMessage ----------------------------------------------------------------------

TEST(LogMessage, HandsAllFieldsToTheChannel) {
  LogCapture capture("LibPersistence");
  persistence::LogMessage(LibPersistenceLogger::Instance().logger(), "the text", kWarning,
                          "persistence/somewhere.cc", 1234, "void persistence::Somewhere()",
                          "LruStorePrune:Reopen(/x)");
  const std::vector<LoggedLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].source, "LibPersistence");
  EXPECT_EQ(lines[0].text, "the text");
  EXPECT_EQ(lines[0].priority, kWarning);
  EXPECT_EQ(lines[0].file, "persistence/somewhere.cc");
  EXPECT_EQ(lines[0].line, 1234);
  EXPECT_EQ(lines[0].function, "void persistence::Somewhere()");
  EXPECT_EQ(lines[0].ndc, "LruStorePrune:Reopen(/x)");
}

TEST(LogMessage, SourceIsTheLoggersName) {
  LogCapture capture("Enrichment");
  persistence::LogMessage(&Poco::Logger::get("Enrichment"), "t", kError, "f.cc", 1, "g()", "");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].source, "Enrichment");
}

TEST(LogMessage, NothingBelowTheLevel) {
  LogCapture capture("LibPersistence", kWarning);
  Poco::Logger* logger = &Poco::Logger::get("LibPersistence");
  persistence::LogMessage(logger, "notice", kNotice, "f.cc", 1, "g()", "");
  persistence::LogMessage(logger, "warning", kWarning, "f.cc", 2, "g()", "");
  persistence::LogMessage(logger, "critical", Poco::Message::PRIO_CRITICAL, "f.cc", 3, "g()", "");
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{"warning", "critical"}));
}

TEST(LogMessage, NothingWithoutAChannel) {
  Poco::Logger& logger = Poco::Logger::get("ReportTestWithoutChannel");
  logger.setChannel(nullptr);
  logger.setLevel(kTrace);
  StderrCapture err;
  persistence::LogMessage(&logger, "nowhere", kError, "f.cc", 1, "g()", "");
  EXPECT_EQ(err.Text(), "");
}

TEST(LogMessage, NothingForANullLogger) {
  StderrCapture err;
  persistence::LogMessage(nullptr, "nowhere", kError, "f.cc", 1, "g()", "");
  EXPECT_EQ(err.Text(), "");
}

TEST(LogMessage, DefaultChannelWritesOneLineOnStandardError) {
  unsetenv("ZERLA_LOG_LEVEL");
  LibPersistenceLogger::Instance();
  StderrCapture err;
  logger_ndc_push("Reopen(/data/fvhash_store)");
  const int line = __LINE__ + 1;
  LOG_LINE(LibPersistenceLogger, kError, "Failed to open database '%s'.", std::string("/data"));
  logger_ndc_pop();
  LOG_LINE(LibPersistenceLogger, kDebug, "below the default level");
  const int second_line = __LINE__ + 1;
  LOG_LINE(LibPersistenceLogger, kInformation, "no context");
  EXPECT_EQ(
      err.Lines(),
      (std::vector<std::string>{
          "[error] LibPersistence: Failed to open database '/data'. "
          "(tests/report/log_line_test.cc:" +
              std::to_string(line) + ", " + __PRETTY_FUNCTION__ + ") [Reopen(/data/fvhash_store)]",
          "[information] LibPersistence: no context (tests/report/log_line_test.cc:" +
              std::to_string(second_line) + ", " + __PRETTY_FUNCTION__ + ")"}));
}

// --- Failing channels ------------------------------------------------------------------

TEST(LogMessageChannelFailure, WriteFailureIsPassedToTheLoggersExceptionLog) {
  // The first write fails; the logger's own report of it goes through.
  Poco::AutoPtr<ScriptedChannel> channel(new ScriptedChannel([](int call) {
    if (call == 1) throw Poco::WriteFileException("/var/log/agent.log");
  }));
  ScopedChannel scoped("LibPersistence", channel, kTrace);
  StderrCapture err;
  errno = EBADF;
  LOG_LINE(LibPersistenceLogger, kWarning, "lost line");
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(err.Text(), "");
  const std::vector<ScriptedChannel::Entry> entries = channel->entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].text, "lost line");
  EXPECT_EQ(entries[0].priority, kWarning);
  EXPECT_EQ(entries[1].text, "Cannot write file: /var/log/agent.log");
  EXPECT_EQ(entries[1].priority, kError);
  EXPECT_EQ(entries[1].source, "LibPersistence");
}

TEST(LogMessageChannelFailure, FailedExceptionLogGoesToStandardError) {
  Poco::AutoPtr<ScriptedChannel> channel(new ScriptedChannel(
      [](int call) { throw Poco::WriteFileException(call == 1 ? "first" : "second"); }));
  ScopedChannel scoped("Enrichment", channel, kTrace);
  StderrCapture err;
  errno = EBADF;
  LOG_LINE(EnrichmentLogger, kError, "lost line");
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(err.Text(), "Error: Poco::Logger::log: Cannot write file: second\n");
  EXPECT_EQ(channel->entries().size(), 2u);
}

TEST(LogMessageChannelFailure, StandardExceptionFromTheExceptionLogGoesToStandardError) {
  Poco::AutoPtr<ScriptedChannel> channel(new ScriptedChannel([](int call) {
    if (call == 1) throw Poco::WriteFileException("first");
    throw std::runtime_error("channel gone");
  }));
  ScopedChannel scoped("LibPersistence", channel, kTrace);
  StderrCapture err;
  persistence::LogMessage(&Poco::Logger::get("LibPersistence"), "lost", kError, "f.cc", 1, "g()",
                          "");
  EXPECT_EQ(err.Text(), "Error: Poco::Logger::log: channel gone\n");
}

TEST(LogMessageChannelFailure, ExceptionLogBelowErrorLevelIsDropped) {
  // The logger reports the exception at error priority, which a logger set to
  // critical does not want.
  Poco::AutoPtr<ScriptedChannel> channel(
      new ScriptedChannel([](int) { throw Poco::WriteFileException("full"); }));
  ScopedChannel scoped("LibPersistence", channel, Poco::Message::PRIO_CRITICAL);
  StderrCapture err;
  LOG_LINE(LibPersistenceLogger, Poco::Message::PRIO_CRITICAL, "lost");
  EXPECT_EQ(err.Text(), "");
  EXPECT_EQ(channel->entries().size(), 1u);
}

TEST(LogMessageChannelFailure, OtherExceptionsAreNotCaught) {
  Poco::AutoPtr<ScriptedChannel> channel(
      new ScriptedChannel([](int) { throw Poco::FileException("not a write failure"); }));
  ScopedChannel scoped("LibPersistence", channel, kTrace);
  StderrCapture err;
  EXPECT_THROW(persistence::LogMessage(&Poco::Logger::get("LibPersistence"), "t", kError, "f.cc", 1,
                                       "g()", ""),
               Poco::FileException);
  errno = ENOENT;
  EXPECT_THROW(LOG_LINE(LibPersistenceLogger, kError, "t"), Poco::FileException);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(err.Text(), "");
  EXPECT_EQ(channel->entries().size(), 2u);
}

TEST(LogMessageChannelFailure, StandardExceptionsOfTheChannelAreNotCaught) {
  Poco::AutoPtr<ScriptedChannel> channel(
      new ScriptedChannel([](int) { throw std::runtime_error("broken"); }));
  ScopedChannel scoped("LibPersistence", channel, kTrace);
  StderrCapture err;
  EXPECT_THROW(LOG_LINE(LibPersistenceLogger, kError, "t"), std::runtime_error);
  EXPECT_EQ(err.Text(), "");
}

}  // namespace
