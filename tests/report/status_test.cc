// persistence::Status: the codes, the conversion of engine statuses, and the
// report of an engine code that the conversion does not know.
#include "persistence/status.h"

#include "persistence/status_conversion.h"

#include <Poco/Message.h>
#include <gtest/gtest.h>
#include <leveldb/status.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <type_traits>
#include <vector>

#include "loggerhl/logger_ndc.h"
#include "report/channels.h"
#include "report/source_lines.h"
#include "support/log_capture.h"
#include "support/test_clock.h"

namespace {

using persistence::Status;
using testing_support::LogCapture;
using testing_support::LoggedLine;
using testing_support::TestClock;

// An engine status of a kind none of the table's predicates admits, as a
// newer engine might produce. Counts the calls of ToString().
struct UnknownEngineStatus {
  bool is_ok = false;
  std::string text = "Unknown code(6): something new";
  mutable int to_string_calls = 0;

  bool ok() const { return is_ok; }
  bool IsNotSupportedError() const { return false; }
  bool IsInvalidArgument() const { return false; }
  bool IsNotFound() const { return false; }
  bool IsCorruption() const { return false; }
  bool IsIOError() const { return false; }
  std::string ToString() const {
    ++to_string_calls;
    return text;
  }
};

// The line of the unknown-code report in the conversion.
int UnknownCodeCheckLine() {
  return report_testing::OnlySourceLineContaining(
      "persistence/status_conversion.h",
      "CHECK_LOGGED(EnrichmentLogger, false, \"Unknown leveldb::Status!\")");
}

std::string UnknownCodeCheckText() {
  return "Line " + std::to_string(UnknownCodeCheckLine()) +
         " @ persistence/status_conversion.h *** Assertion '((false))' failed *** Unknown "
         "leveldb::Status!";
}

TEST(StatusCodes, NumbersAreThoseOfTheInterface) {
  EXPECT_EQ(Status::kOk, 0);
  EXPECT_EQ(Status::kNotSupported, 1);
  EXPECT_EQ(Status::kInvalidArgument, 2);
  EXPECT_EQ(Status::kNotFound, 3);
  EXPECT_EQ(Status::kCorruption, 4);
  EXPECT_EQ(Status::kIOError, 5);
  EXPECT_EQ(Status::kUnknown, -1);
  static_assert(std::is_same_v<decltype(Status::code), int32_t>, "code is a signed 32-bit integer");
  static_assert(std::is_same_v<decltype(Status::message), std::string>, "message is a string");
}

TEST(StatusCodes, CodeComesBeforeMessage) {
  const Status status(Status::kIOError, "IO error: x");
  EXPECT_LT(reinterpret_cast<const char*>(&status.code),
            reinterpret_cast<const char*>(&status.message));
}

TEST(StatusCodes, DefaultIsSuccessWithEmptyMessage) {
  const Status status;
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(status.code, 0);
  EXPECT_EQ(status.message, "");
}

TEST(StatusCodes, MadeFromCodeAndText) {
  const Status status(Status::kInvalidArgument, "count is nullptr");
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "count is nullptr");
}

TEST(StatusCodes, OkIsCodeZeroOnly) {
  EXPECT_TRUE(Status(0, "").ok());
  EXPECT_TRUE(Status(0, "text").ok());
  for (int32_t code : {1, 2, 3, 4, 5, -1, 6, 100}) {
    EXPECT_FALSE(Status(code, "").ok()) << code;
  }
}

TEST(StatusCodes, IsAPlainCopyableValue) {
  const Status original(Status::kCorruption, "Corruption: x");
  Status copy = original;
  EXPECT_EQ(copy.code, 4);
  EXPECT_EQ(copy.message, "Corruption: x");
  copy.message = "changed";
  EXPECT_EQ(original.message, "Corruption: x");
  Status assigned;
  assigned = original;
  EXPECT_EQ(assigned.code, 4);
  EXPECT_EQ(assigned.message, "Corruption: x");
}

TEST(StatusFromLevelDB, OkGivesCodeZeroAndEmptyMessageNotOK) {
  LogCapture enrichment("Enrichment");
  const leveldb::Status engine = leveldb::Status::OK();
  ASSERT_EQ(engine.ToString(), "OK");
  const Status status(engine);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(status.code, 0);
  EXPECT_EQ(status.message, "");
  EXPECT_TRUE(enrichment.lines().empty());
}

TEST(StatusFromLevelDB, NotSupportedIsCodeOne) {
  const Status status(leveldb::Status::NotSupported("a", "b"));
  EXPECT_EQ(status.code, 1);
  EXPECT_EQ(status.message, "Not implemented: a: b");
  EXPECT_FALSE(status.ok());
}

TEST(StatusFromLevelDB, InvalidArgumentIsCodeTwo) {
  const Status status(leveldb::Status::InvalidArgument("count", "nullptr"));
  EXPECT_EQ(status.code, 2);
  EXPECT_EQ(status.message, "Invalid argument: count: nullptr");
}

TEST(StatusFromLevelDB, NotFoundIsCodeThreeWithItsPrefix) {
  const Status status(leveldb::Status::NotFound("key"));
  EXPECT_EQ(status.code, 3);
  EXPECT_EQ(status.message, "NotFound: key");
  EXPECT_EQ(status.message.rfind("NotFound: ", 0), 0u);
}

TEST(StatusFromLevelDB, NotFoundWithEmptyTextKeepsThePrefix) {
  const Status status(leveldb::Status::NotFound(leveldb::Slice()));
  EXPECT_EQ(status.code, 3);
  EXPECT_EQ(status.message, "NotFound: ");
}

TEST(StatusFromLevelDB, CorruptionIsCodeFour) {
  const Status status(leveldb::Status::Corruption("corrupted_", "true"));
  EXPECT_EQ(status.code, 4);
  EXPECT_EQ(status.message, "Corruption: corrupted_: true");
}

TEST(StatusFromLevelDB, IOErrorIsCodeFive) {
  const Status status(leveldb::Status::IOError("/db/000005.ldb", "No space left on device"));
  EXPECT_EQ(status.code, 5);
  EXPECT_EQ(status.message, "IO error: /db/000005.ldb: No space left on device");
}

TEST(StatusFromLevelDB, KnownCodesReportNothing) {
  TestClock clock;
  LogCapture enrichment("Enrichment");
  LogCapture lib("LibPersistence");
  const std::vector<leveldb::Status> statuses = {leveldb::Status::OK(),
                                                 leveldb::Status::NotSupported("a"),
                                                 leveldb::Status::InvalidArgument("b"),
                                                 leveldb::Status::NotFound("c"),
                                                 leveldb::Status::Corruption("d"),
                                                 leveldb::Status::IOError("e")};
  for (const leveldb::Status& engine : statuses) {
    const Status status(engine);
    EXPECT_NE(status.code, Status::kUnknown) << engine.ToString();
  }
  EXPECT_TRUE(enrichment.lines().empty());
  EXPECT_TRUE(lib.lines().empty());
}

TEST(StatusFromLevelDB, CopiedStatusKeepsTheConvertedMessage) {
  const leveldb::Status engine = leveldb::Status::Corruption("block checksum mismatch");
  const Status status(engine);
  const Status copy = status;
  EXPECT_EQ(copy.code, 4);
  EXPECT_EQ(copy.message, "Corruption: block checksum mismatch");
}

TEST(StatusFromEngine, OkDoesNotCallToString) {
  UnknownEngineStatus engine;
  engine.is_ok = true;
  const Status status(engine);
  EXPECT_EQ(status.code, 0);
  EXPECT_EQ(status.message, "");
  EXPECT_EQ(engine.to_string_calls, 0);
}

TEST(StatusFromEngine, UnknownCodeGivesMinusOneAndTheWholeText) {
  TestClock clock;
  LogCapture enrichment("Enrichment");
  UnknownEngineStatus engine;
  const Status status(engine);
  EXPECT_EQ(status.code, -1);
  EXPECT_EQ(status.code, Status::kUnknown);
  EXPECT_EQ(status.message, "Unknown code(6): something new");
  EXPECT_EQ(engine.to_string_calls, 1);
  EXPECT_FALSE(status.ok());
}

TEST(StatusFromEngine, UnknownCodeIsReportedThroughTheEnrichmentLogger) {
  TestClock clock;
  LogCapture enrichment("Enrichment");
  LogCapture lib("LibPersistence");
  const Status status{UnknownEngineStatus()};
  ASSERT_EQ(status.code, -1);

  const std::vector<LoggedLine> lines = enrichment.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, UnknownCodeCheckText());
  EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_ERROR);
  EXPECT_EQ(lines[0].source, "Enrichment");
  EXPECT_EQ(lines[0].file, "persistence/status_conversion.h");
  EXPECT_EQ(lines[0].line, UnknownCodeCheckLine());
  EXPECT_EQ(lines[0].function,
            "persistence::Status::Status(const EngineStatus&) [with EngineStatus = "
            "{anonymous}::UnknownEngineStatus]");
  EXPECT_EQ(lines[0].ndc, "");
  EXPECT_TRUE(lib.lines().empty());
}

TEST(StatusFromEngine, UnknownCodeReportCarriesTheContext) {
  TestClock clock;
  LogCapture enrichment("Enrichment");
  logger_ndc_push("Reopen(/data/enrichment_store)");
  const Status status{UnknownEngineStatus()};
  logger_ndc_pop();
  ASSERT_EQ(status.code, -1);
  const std::vector<LoggedLine> lines = enrichment.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].ndc, "Reopen(/data/enrichment_store)");
}

TEST(StatusFromEngine, UnknownCodeReportIsRateLimitedButTheCodeIsNot) {
  TestClock clock;
  LogCapture enrichment("Enrichment");
  EXPECT_EQ(Status{UnknownEngineStatus()}.code, -1);
  clock.Advance(std::chrono::seconds(600));
  EXPECT_EQ(Status{UnknownEngineStatus()}.code, -1);
  EXPECT_EQ(enrichment.lines().size(), 1u);
  clock.Advance(std::chrono::nanoseconds(1));
  const Status third{UnknownEngineStatus()};
  EXPECT_EQ(third.code, -1);
  EXPECT_EQ(third.message, "Unknown code(6): something new");
  EXPECT_EQ(enrichment.texts(), std::vector<std::string>(2, UnknownCodeCheckText()));
}

TEST(StatusFromEngine, UnknownCodeWhileTheSteadyClockIsYoungIsSilent) {
  // The clock counts from boot and the site's last report time starts at
  // zero, so for the first 600 seconds of a machine the report is withheld.
  TestClock clock(std::chrono::seconds(599));
  LogCapture enrichment("Enrichment");
  const Status status{UnknownEngineStatus()};
  EXPECT_EQ(status.code, -1);
  EXPECT_EQ(status.message, "Unknown code(6): something new");
  EXPECT_TRUE(enrichment.lines().empty());
}

TEST(StatusFromEngine, UnknownCodeBelowErrorLevelIsSilent) {
  TestClock clock;
  LogCapture enrichment("Enrichment", Poco::Message::PRIO_CRITICAL);
  const Status status{UnknownEngineStatus()};
  EXPECT_EQ(status.code, -1);
  EXPECT_EQ(status.message, "Unknown code(6): something new");
  EXPECT_TRUE(enrichment.lines().empty());
  // The withheld report did not start an interval.
  enrichment.set_level(Poco::Message::PRIO_ERROR);
  EXPECT_EQ(Status{UnknownEngineStatus()}.code, -1);
  EXPECT_EQ(enrichment.texts(), std::vector<std::string>{UnknownCodeCheckText()});
}

TEST(StatusFromEngine, UnknownCodeLeavesErrno) {
  TestClock clock;
  // A channel that leaves errno changed, as a real file channel may.
  Poco::AutoPtr<report_testing::ScriptedChannel> channel(
      new report_testing::ScriptedChannel([](int) { errno = EIO; }));
  report_testing::ScopedChannel scoped("Enrichment", channel, Poco::Message::PRIO_TRACE);
  errno = EILSEQ;
  const Status status{UnknownEngineStatus()};
  EXPECT_EQ(errno, EILSEQ);
  ASSERT_EQ(channel->entries().size(), 1u);
  EXPECT_EQ(channel->entries()[0].text, UnknownCodeCheckText());
}

}  // namespace
