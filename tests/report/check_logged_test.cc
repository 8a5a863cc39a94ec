// CHECK_LOGGED: the header of a failed check, its message, the per-site rate
// limit on the steady clock, the level decision and errno.
#include <Poco/AutoPtr.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "loggerhl/logger_ndc.h"
#include "nix/dravinhold/logging.h"
#include "persistence/kvstore.h"
#include "persistence/report.h"
#include "persistence/status.h"
#include "persistence/testing/seams.h"
#include "report/channels.h"
#include "report/source_lines.h"
#include "support/log_capture.h"
#include "support/test_clock.h"
#include "testing/records.pb.h"

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing_support::LogCapture;
using testing_support::LoggedLine;
using testing_support::TestClock;

constexpr int kCritical = Poco::Message::PRIO_CRITICAL;
constexpr int kError = Poco::Message::PRIO_ERROR;

const char kFile[] = "tests/report/check_logged_test.cc";

// "Line <n> @ <this file> *** Assertion '((<condition>))' failed *** <message>"
std::string Header(int line, const std::string& condition) {
  return "Line " + std::to_string(line) + " @ " + kFile + " *** Assertion '((" + condition +
         "))' failed *** ";
}

// A steady clock that counts its reads and runs a hook on each, for what the
// order of the steps of a check decides.
class ScriptedSteadyClock {
 public:
  explicit ScriptedSteadyClock(nanoseconds start) {
    now_ = start.count();
    reads_ = 0;
    on_read_ = nullptr;
    persistence::testing::SetClocksForTesting(&Now, nullptr);
  }
  ~ScriptedSteadyClock() {
    persistence::testing::SetClocksForTesting(nullptr, nullptr);
    on_read_ = nullptr;
  }
  ScriptedSteadyClock(const ScriptedSteadyClock&) = delete;
  ScriptedSteadyClock& operator=(const ScriptedSteadyClock&) = delete;

  void Advance(nanoseconds step) { now_ += step.count(); }
  int reads() const { return reads_; }
  void OnRead(std::function<void()> hook) { on_read_ = std::move(hook); }

 private:
  static persistence::SteadyTimePoint Now() {
    ++reads_;
    if (on_read_) on_read_();
    return persistence::SteadyTimePoint(nanoseconds(now_.load()));
  }

  static std::atomic<int64_t> now_;
  static std::atomic<int> reads_;
  static std::function<void()> on_read_;
};
std::atomic<int64_t> ScriptedSteadyClock::now_{0};
std::atomic<int> ScriptedSteadyClock::reads_{0};
std::function<void()> ScriptedSteadyClock::on_read_;

// One check site, reached from several tests. Returns the check's value.
bool SiteA(bool condition) { return CHECK_LOGGED(LibPersistenceLogger, condition, "site A"); }
const int kSiteALine = __LINE__ - 1;

bool SiteB(bool condition) { return CHECK_LOGGED(LibPersistenceLogger, condition, "site B"); }
const int kSiteBLine = __LINE__ - 1;

// One site in a template: each instantiation is a site of its own.
template <typename T>
bool CheckPositive(T value) {
  return CHECK_LOGGED(LibPersistenceLogger, value > 0, "not positive: " << value);
}
const int kCheckPositiveLine = __LINE__ - 2;

int message_writes = 0;
std::string CountedMessage() {
  ++message_writes;
  return "counted";
}

// --- The header and the message -------------------------------------------------

TEST(CheckLoggedHeader, FailedCheckIsOneErrorLineWithTheExactHeader) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  int x = 1;
  const int line = __LINE__ + 1;
  const bool result = CHECK_LOGGED(LibPersistenceLogger, x > 1, "text");
  EXPECT_FALSE(result);
  const std::vector<LoggedLine> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "Line " + std::to_string(line) +
                               " @ tests/report/check_logged_test.cc *** Assertion '((x > 1))' "
                               "failed *** text");
  EXPECT_EQ(lines[0].priority, kError);
  EXPECT_EQ(lines[0].source, "LibPersistence");
  EXPECT_EQ(lines[0].file, kFile);
  EXPECT_EQ(lines[0].line, line);
  EXPECT_EQ(lines[0].function, __PRETTY_FUNCTION__);
  EXPECT_EQ(lines[0].ndc, "");
}

TEST(CheckLoggedHeader, PointerParameterForm) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  const uint64_t* count = nullptr;
  const int line = __LINE__ + 1;
  EXPECT_FALSE(CHECK_LOGGED(LibPersistenceLogger, count, "count is nullptr"));
  EXPECT_EQ(capture.texts(), std::vector<std::string>{Header(line, "count") + "count is nullptr"});
}

TEST(CheckLoggedHeader, LiteralFalseCondition) {
  TestClock clock;
  LogCapture capture("Enrichment");
  const int line = __LINE__ + 1;
  EXPECT_FALSE(CHECK_LOGGED(EnrichmentLogger, false, "Unknown leveldb::Status!"));
  EXPECT_EQ(capture.texts(),
            std::vector<std::string>{Header(line, "false") + "Unknown leveldb::Status!"});
}

TEST(CheckLoggedHeader, ChainedMessage) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  const size_t k = 3;
  const size_t v = 2;
  const int line = __LINE__ + 2;
  const bool r =
      CHECK_LOGGED(LibPersistenceLogger, k == v, "keys(" << k << ") != values(" << v << ")");
  EXPECT_FALSE(r);
  EXPECT_EQ(capture.texts(),
            std::vector<std::string>{Header(line, "k == v") + "keys(3) != values(2)"});
}

TEST(CheckLoggedHeader, MessageBuiltByAFormat) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  const persistence::Status s(persistence::Status::kCorruption, "Corruption: bad block");
  const std::string f = "status code=%d message=%s";
  const int line = __LINE__ + 1;
  const bool r = CHECK_LOGGED(LibPersistenceLogger, s.ok(), Poco::format(f, s.code, s.message));
  EXPECT_FALSE(r);
  EXPECT_EQ(capture.texts(),
            std::vector<std::string>{Header(line, "s.ok()") +
                                     "status code=4 message=Corruption: bad block"});
}

TEST(CheckLoggedHeader, CarriesTheContext) {
  TestClock clock;
  LogCapture capture("Enrichment");
  logger_ndc_push("LruStorePrune");
  logger_ndc_push("Reopen(/data/enrichment_store.lru)");
  EXPECT_FALSE(CHECK_LOGGED(EnrichmentLogger, false, "in context"));
  logger_ndc_pop();
  logger_ndc_pop();
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].ndc, "LruStorePrune:Reopen(/data/enrichment_store.lru)");
}

TEST(CheckLoggedHeader, GoesOnlyToTheSitesLogger) {
  TestClock clock;
  LogCapture lib("LibPersistence");
  LogCapture enrichment("Enrichment");
  EXPECT_FALSE(CHECK_LOGGED(EnrichmentLogger, false, "enrichment"));
  EXPECT_TRUE(lib.lines().empty());
  ASSERT_EQ(enrichment.lines().size(), 1u);
  EXPECT_EQ(enrichment.lines()[0].source, "Enrichment");
}

// --- The condition ----------------------------------------------------------------

TEST(CheckLoggedCondition, HoldingConditionYieldsTrueAndDoesNothing) {
  ScriptedSteadyClock clock(seconds(3600));
  LogCapture capture("LibPersistence");
  int value = 5;
  EXPECT_TRUE(CHECK_LOGGED(LibPersistenceLogger, value == 5, "never"));
  EXPECT_TRUE(CHECK_LOGGED(LibPersistenceLogger, &value, "never"));
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_EQ(clock.reads(), 0);
}

TEST(CheckLoggedCondition, IsEvaluatedOnce) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  int evaluations = 0;
  EXPECT_FALSE(CHECK_LOGGED(LibPersistenceLogger, ++evaluations > 1, "once"));
  EXPECT_EQ(evaluations, 1);
  EXPECT_TRUE(CHECK_LOGGED(LibPersistenceLogger, ++evaluations > 1, "once"));
  EXPECT_EQ(evaluations, 2);
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(CheckLoggedCondition, FailureIsYieldedEvenWhenSuppressed) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(SiteA(false));
  EXPECT_FALSE(SiteA(false));
  EXPECT_TRUE(SiteA(true));
  EXPECT_EQ(capture.lines().size(), 1u);
}

// --- Rate limit ---------------------------------------------------------------------

TEST(CheckLoggedRateLimit, SilentWhileTheSteadyClockIsBelow600Seconds) {
  TestClock clock(seconds(0));
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(SiteA(false));
  clock.SetSteady(seconds(599));
  EXPECT_FALSE(SiteA(false));
  clock.SetSteady(seconds(600));
  EXPECT_FALSE(SiteA(false));
  EXPECT_TRUE(capture.lines().empty());
  clock.SetSteady(seconds(600) + nanoseconds(1));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.texts(), std::vector<std::string>{Header(kSiteALine, "condition") + "site A"});
}

TEST(CheckLoggedRateLimit, Exactly600SecondsLaterIsSilentOneNanosecondMoreLogs) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 1u);
  clock.Advance(seconds(600));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 1u);
  clock.Advance(nanoseconds(1));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 2u);
  // The interval starts again from the second line.
  clock.Advance(seconds(600));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 2u);
  clock.Advance(nanoseconds(1));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.texts(),
            std::vector<std::string>(3, Header(kSiteALine, "condition") + "site A"));
}

TEST(CheckLoggedRateLimit, SuppressedFailuresDoNotMoveTheInterval) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(SiteA(false));
  clock.Advance(seconds(300));
  EXPECT_FALSE(SiteA(false));
  clock.Advance(seconds(299));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 1u);
  clock.Advance(seconds(1) + nanoseconds(1));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 2u);
}

TEST(CheckLoggedRateLimit, EachSiteHasItsOwnInterval) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(SiteA(false));
  EXPECT_FALSE(SiteB(false));
  clock.Advance(seconds(1));
  EXPECT_FALSE(SiteA(false));
  EXPECT_FALSE(SiteB(false));
  EXPECT_EQ(capture.texts(),
            (std::vector<std::string>{Header(kSiteALine, "condition") + "site A",
                                      Header(kSiteBLine, "condition") + "site B"}));
}

TEST(CheckLoggedRateLimit, TwoChecksInOneFunctionAreTwoSites) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(CHECK_LOGGED(LibPersistenceLogger, i < 0, "first"));
    EXPECT_FALSE(CHECK_LOGGED(LibPersistenceLogger, i < 0, "second"));
  }
  const std::vector<std::string> texts = capture.texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_NE(texts[0].find("*** first"), std::string::npos);
  EXPECT_NE(texts[1].find("*** second"), std::string::npos);
}

TEST(CheckLoggedRateLimit, EachTemplateInstantiationHasItsOwnInterval) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(CheckPositive<int>(-1));
  EXPECT_FALSE(CheckPositive<double>(-2.5));
  clock.Advance(seconds(10));
  EXPECT_FALSE(CheckPositive<int>(-3));
  EXPECT_FALSE(CheckPositive<double>(-4.5));
  EXPECT_TRUE(CheckPositive<int>(1));
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                 Header(kCheckPositiveLine, "value > 0") + "not positive: -1",
                                 Header(kCheckPositiveLine, "value > 0") + "not positive: -2.5"}));
  clock.Advance(seconds(600));
  EXPECT_FALSE(CheckPositive<double>(-6.5));
  ASSERT_EQ(capture.texts().size(), 3u);
  EXPECT_EQ(capture.texts()[2], Header(kCheckPositiveLine, "value > 0") + "not positive: -6.5");
}

TEST(CheckLoggedRateLimit, SameSiteInAnotherKindOfTypedStoreHasItsOwnInterval) {
  using Store = persistence::KVStore<std::string, proto::Testing::Value, proto::Testing::Data>;
  using KeyedStore =
      persistence::KVStore<proto::Testing::Key, proto::Testing::Value, proto::Testing::KeyedData>;
  TestClock clock;
  LogCapture capture("LibPersistence");
  Store store(108);
  KeyedStore keyed_store(108);
  const std::string expected =
      "Line " +
      std::to_string(report_testing::OnlySourceLineContaining(
          "persistence/kvstore.h", "CHECK_LOGGED(Logger, count, \"count is nullptr\")")) +
      " @ persistence/kvstore.h *** Assertion '((count))' failed *** count is nullptr";
  for (int i = 0; i < 2; ++i) {
    const persistence::Status status = store.Count(nullptr, nullptr);
    EXPECT_EQ(status.code, 2);
    EXPECT_EQ(status.message, "Invalid argument: count: nullptr");
    const persistence::Status keyed_status = keyed_store.Count(nullptr, nullptr);
    EXPECT_EQ(keyed_status.code, 2);
    EXPECT_EQ(keyed_status.message, "Invalid argument: count: nullptr");
  }
  EXPECT_EQ(capture.texts(), std::vector<std::string>(2, expected));
}

TEST(CheckLoggedRateLimit, MessageIsWrittenOnlyForALineThatIsEmitted) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  message_writes = 0;
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(CHECK_LOGGED(LibPersistenceLogger, i < 0, CountedMessage()));
  }
  EXPECT_EQ(message_writes, 1);
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(CheckLoggedRateLimit, SuppressedPathReadsTheClockOnce) {
  ScriptedSteadyClock clock(seconds(3600));
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(clock.reads(), 1);
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(clock.reads(), 2);
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(CheckLoggedRateLimit, ThreadsAtOneSiteWithinTheIntervalProduceOneLine) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&failures] {
      for (int i = 0; i < 500; ++i) {
        if (!SiteA(false)) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 4000);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{Header(kSiteALine, "condition") + "site A"});
}

// --- The level ------------------------------------------------------------------------

TEST(CheckLoggedLevel, LoggedAtErrorLevel) {
  TestClock clock;
  LogCapture capture("LibPersistence", kError);
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.texts(kError).size(), 1u);
}

TEST(CheckLoggedLevel, BelowErrorNothingIsLoggedAndTheClockIsNotRead) {
  ScriptedSteadyClock clock(seconds(3600));
  LogCapture capture("LibPersistence", kCritical);
  EXPECT_FALSE(SiteA(false));
  EXPECT_FALSE(SiteA(false));
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_EQ(clock.reads(), 0);
}

TEST(CheckLoggedLevel, BelowErrorTheIntervalIsUntouched) {
  TestClock clock;
  LogCapture capture("LibPersistence");
  EXPECT_FALSE(SiteA(false));
  ASSERT_EQ(capture.lines().size(), 1u);
  clock.Advance(seconds(601));
  capture.set_level(kCritical);
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 1u);
  // Had the withheld failure started an interval, this one would be silent.
  clock.Advance(seconds(1));
  capture.set_level(kError);
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 2u);
}

TEST(CheckLoggedLevel, FirstFailureAfterTheLevelIsRaisedLogsAtOnce) {
  TestClock clock;
  LogCapture capture("LibPersistence", kCritical);
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(SiteA(false));
    clock.Advance(seconds(1));
  }
  EXPECT_TRUE(capture.lines().empty());
  capture.set_level(kError);
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(CheckLoggedLevel, LevelLoweredAfterTheClockReadSuppressesTheLineButKeepsTheInterval) {
  ScriptedSteadyClock clock(seconds(3600));
  LogCapture capture("LibPersistence", kError);
  // The level is tested before the clock is read and again once the interval
  // has passed; lower it in between.
  clock.OnRead([] { Poco::Logger::get("LibPersistence").setLevel(kCritical); });
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(clock.reads(), 1);
  EXPECT_TRUE(capture.lines().empty());
  clock.OnRead(nullptr);
  capture.set_level(kError);
  clock.Advance(seconds(600));
  EXPECT_FALSE(SiteA(false));
  EXPECT_TRUE(capture.lines().empty());
  clock.Advance(nanoseconds(1));
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(CheckLoggedLevel, TheLevelIsReadOnEveryDecision) {
  TestClock clock;
  LogCapture capture("LibPersistence", kCritical);
  EXPECT_FALSE(SiteA(false));
  Poco::Logger::get("LibPersistence").setLevel(kError);
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(capture.lines().size(), 1u);
}

// --- errno -------------------------------------------------------------------------------

TEST(CheckLoggedErrno, IsKeptAcrossAWrittenLine) {
  TestClock clock;
  Poco::AutoPtr<report_testing::ScriptedChannel> channel(
      new report_testing::ScriptedChannel([](int) { errno = EIO; }));
  report_testing::ScopedChannel scoped("LibPersistence", channel, kError);
  errno = EEXIST;
  EXPECT_FALSE(SiteA(false));
  EXPECT_EQ(errno, EEXIST);
  ASSERT_EQ(channel->entries().size(), 1u);
  EXPECT_EQ(channel->entries()[0].text, Header(kSiteALine, "condition") + "site A");
}

TEST(CheckLoggedErrno, IsKeptWhenSuppressedAndBelowTheLevel) {
  ScriptedSteadyClock clock(seconds(3600));
  clock.OnRead([] { errno = ETIMEDOUT; });
  LogCapture capture("LibPersistence", kError);
  EXPECT_FALSE(SiteA(false));
  errno = EXDEV;
  EXPECT_FALSE(SiteA(false));  // suppressed by the interval
  EXPECT_EQ(errno, EXDEV);
  capture.set_level(kCritical);
  errno = ENOTEMPTY;
  EXPECT_FALSE(SiteB(false));  // below the level
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(CheckLoggedErrno, MessageSeesTheCallersErrno) {
  // The clock read disturbs errno; the message is written after it is put
  // back.
  ScriptedSteadyClock clock(seconds(3600));
  clock.OnRead([] { errno = ETIMEDOUT; });
  LogCapture capture("LibPersistence");
  errno = EDOM;
  const int line = __LINE__ + 1;
  EXPECT_FALSE(CHECK_LOGGED(LibPersistenceLogger, errno == 0, "errno=" << errno));
  EXPECT_EQ(errno, EDOM);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{Header(line, "errno == 0") + "errno=33"});
}

}  // namespace
