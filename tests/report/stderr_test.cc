// CHECK_STDERR and REPORT_STDERR: the reports of persistence::DB, which has
// no logger.
#include <gtest/gtest.h>
#include <leveldb/status.h>

#include <cerrno>
#include <string>
#include <vector>

#include "nix/dravinhold/logging.h"
#include "persistence/db.h"
#include "persistence/report.h"
#include "report/source_lines.h"
#include "support/fault_env.h"
#include "support/log_capture.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace {

using testing_support::LogCapture;
using testing_support::StderrCapture;

const char kFile[] = "tests/report/stderr_test.cc";

std::string Header(int line, const std::string& condition) {
  return "Line " + std::to_string(line) + " @ " + kFile + " *** Assertion '((" + condition +
         "))' failed *** ";
}

// --- CHECK_STDERR --------------------------------------------------------------

TEST(CheckStderr, FailedCheckPrintsHeaderMessageAndNewline) {
  StderrCapture err;
  const void* db = nullptr;
  const int line = __LINE__ + 1;
  const bool result = CHECK_STDERR(db, "db_ is nullptr");
  EXPECT_FALSE(result);
  EXPECT_EQ(err.Text(), Header(line, "db") + "db_ is nullptr\n");
}

TEST(CheckStderr, HoldingConditionPrintsNothingAndIsEvaluatedOnce) {
  StderrCapture err;
  int evaluations = 0;
  EXPECT_TRUE(CHECK_STDERR(++evaluations > 0, "never"));
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(err.Text(), "");
}

TEST(CheckStderr, ConditionIsEvaluatedAgainAndStillFailing) {
  StderrCapture err;
  int evaluations = 0;
  const int line = __LINE__ + 1;
  const bool result = CHECK_STDERR(++evaluations > 5, "!key.empty()");
  EXPECT_FALSE(result);
  EXPECT_EQ(evaluations, 2);
  EXPECT_EQ(err.Text(), Header(line, "++evaluations > 5") + "!key.empty()\n");
}

TEST(CheckStderr, ConditionThatNowHoldsLetsTheFunctionGoOn) {
  StderrCapture err;
  int evaluations = 0;
  const int line = __LINE__ + 1;
  const bool result = CHECK_STDERR(++evaluations > 1, "!db_");
  EXPECT_TRUE(result);
  EXPECT_EQ(evaluations, 2);
  EXPECT_EQ(err.Text(), Header(line, "++evaluations > 1") + "!db_\n");
}

TEST(CheckStderr, FailedStatusOkPrintsTheFixedText) {
  StderrCapture err;
  const leveldb::Status status = leveldb::Status::IOError("/db/LOCK", "busy");
  const int line = __LINE__ + 1;
  EXPECT_FALSE(CHECK_STDERR(status.ok(), "status.cond()"));
  EXPECT_EQ(err.Lines(), std::vector<std::string>{Header(line, "status.ok()") + "status.cond()"});
}

TEST(CheckStderr, FailedOkOrNotFoundPrintsTheFixedText) {
  StderrCapture err;
  const leveldb::Status not_found = leveldb::Status::NotFound("k");
  EXPECT_TRUE(CHECK_STDERR(not_found.ok() || not_found.IsNotFound(), "never"));
  const leveldb::Status status = leveldb::Status::Corruption("block", "checksum");
  const int line = __LINE__ + 2;
  const bool r =
      CHECK_STDERR(status.ok() || status.IsNotFound(), "status.cond1() || status.cond2()");
  EXPECT_FALSE(r);
  EXPECT_EQ(err.Lines(),
            std::vector<std::string>{Header(line, "status.ok() || status.IsNotFound()") +
                                     "status.cond1() || status.cond2()"});
}

TEST(CheckStderr, HundredFailuresPrintHundredLines) {
  testing_support::TestClock clock;
  StderrCapture err;
  int failures = 0;
  const std::string key;
  for (int i = 0; i < 100; ++i) {
    if (!CHECK_STDERR(!key.empty(), "!key.empty()")) ++failures;
  }
  const int line = __LINE__ - 2;
  EXPECT_EQ(failures, 100);
  EXPECT_EQ(err.Lines(),
            std::vector<std::string>(100, Header(line, "!key.empty()") + "!key.empty()"));
}

TEST(CheckStderr, LeavesErrnoAlone) {
  StderrCapture err;
  errno = ENOLCK;
  EXPECT_FALSE(CHECK_STDERR(errno == 0, "errno=" << errno));
  EXPECT_EQ(errno, ENOLCK);
  const std::vector<std::string> lines = err.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].substr(lines[0].find("*** errno")), "*** errno=" + std::to_string(ENOLCK));
}

TEST(CheckStderr, GoesToNoLogger) {
  LogCapture lib("LibPersistence");
  LogCapture enrichment("Enrichment");
  StderrCapture err;
  EXPECT_FALSE(CHECK_STDERR(false, "only on standard error"));
  EXPECT_EQ(err.Lines().size(), 1u);
  EXPECT_TRUE(lib.lines().empty());
  EXPECT_TRUE(enrichment.lines().empty());
}

TEST(CheckStderr, IsNotRateLimitedEvenOnAYoungClock) {
  testing_support::TestClock clock(std::chrono::seconds(1));
  StderrCapture err;
  EXPECT_FALSE(CHECK_STDERR(false, "a"));
  EXPECT_FALSE(CHECK_STDERR(false, "a"));
  EXPECT_EQ(err.Lines().size(), 2u);
}

// --- REPORT_STDERR -----------------------------------------------------------------

TEST(ReportStderr, PrintsPathOperationAndStatusText) {
  StderrCapture err;
  const std::string path = "/var/lib/zerla/fvhash_store";
  REPORT_STDERR(path, "Put", leveldb::Status::IOError("000003.log", "No space left on device"));
  EXPECT_EQ(err.Text(),
            "persistence::DB: /var/lib/zerla/fvhash_store: Put: IO error: 000003.log: No space "
            "left on device\n");
}

TEST(ReportStderr, EveryReportIsItsOwnLine) {
  StderrCapture err;
  const std::string path = "/d";
  for (int i = 0; i < 3; ++i) {
    REPORT_STDERR(path, "Get", leveldb::Status::Corruption("corrupted_", "true"));
  }
  EXPECT_EQ(err.Lines(),
            std::vector<std::string>(3, "persistence::DB: /d: Get: Corruption: corrupted_: true"));
}

// --- Through persistence::DB -----------------------------------------------------------

TEST(DatabaseReports, FailedWritePrintsTheReportThenStatusCond) {
  testing_support::TempDir dir;
  testing_support::FaultEnv env;
  testing_support::ScopedTestEnv scoped_env(&env);
  persistence::DB db(dir.Sub("db"));
  ASSERT_TRUE(db.Open(true, true, true, 0).ok());
  env.fail_writes = true;
  StderrCapture err;
  const leveldb::Status status = db.Put("key", "value", false);
  env.fail_writes = false;
  ASSERT_TRUE(status.IsIOError()) << status.ToString();
  const int check_line =
      report_testing::FirstSourceLineAfter("persistence/db.cc", "leveldb::Status DB::FailureTail(",
                                           "CHECK_STDERR(status.ok(), \"status.cond()\")");
  EXPECT_EQ(err.Lines(), (std::vector<std::string>{
                             "persistence::DB: " + dir.Sub("db") + ": Put: " + status.ToString(),
                             "Line " + std::to_string(check_line) +
                                 " @ persistence/db.cc *** Assertion '((status.ok()))' "
                                 "failed *** status.cond()"}));
}

TEST(DatabaseReports, ClosedHandlePrintsTheCheckEveryTime) {
  testing_support::TempDir dir;
  persistence::DB db(dir.Sub("db"));
  StderrCapture err;
  for (int i = 0; i < 3; ++i) {
    const leveldb::Status status = db.Put("key", "value", false);
    EXPECT_EQ(status.ToString(), "Invalid argument: db_: nullptr");
  }
  const int check_line = report_testing::OnlySourceLineContaining(
      "persistence/db.cc", "CHECK_STDERR(db_, \"db_ is nullptr\")");
  EXPECT_EQ(err.Lines(), std::vector<std::string>(3, "Line " + std::to_string(check_line) +
                                                         " @ persistence/db.cc *** Assertion "
                                                         "'((db_))' failed *** db_ is nullptr"));
}

}  // namespace
