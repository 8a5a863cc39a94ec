// Recovery: the open that repairs or recreates a damaged directory, the
// reopen of a running store with its delay and its lock states, and the
// reaction to the engine's failures.
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvstore/kvstore_test_util.h"
#include "loggerhl/logger_ndc.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/log_capture.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"

namespace kvstore_test {
namespace {

using testing_support::FaultEnv;
using testing_support::LogCapture;
using testing_support::ScopedTestEnv;
using testing_support::StderrCapture;
using testing_support::TempDir;
using testing_support::TestClock;

constexpr size_t kBlob = 5000;  // larger than a table block: one record a block

std::string ReopenContext(const std::string& path) { return "Reopen(" + path + ")"; }

std::string VerifyFailureLine(const std::string& path, const std::string& status) {
  return "persistence::DB: " + path + ": Verify: " + status;
}

uint64_t CountOf(TestStringStore& store) {
  uint64_t count = 999;
  EXPECT_EQ(store.Count(&count, nullptr), Ok());
  return count;
}

// Damages one record's value bytes inside its table block: the block still
// reads without checksums (as the repair reads it), and fails with them.
void DamageValueBytes(const std::string& path, int record) {
  const std::string table = OnlyTableFile(path);
  FlipInPlace(table, OffsetOf(table, Blob(record, kBlob).substr(100, 32)), 4);
}

// --- Opening with recovery ----------------------------------------------------

TEST(KVStoreOpenWithRecovery, FirstStartCreatesTheDirectoryAndLogsNothing) {
  for (const bool paranoid : {true, false}) {
    TestClock clock;
    TempDir dir;
    const std::string path = dir.Sub("db");
    LogCapture log(kLoggerName);
    StderrCapture err;
    TestStringStore store;
    EXPECT_EQ(store.Open(path, paranoid), Ok());
    EXPECT_EQ(err.Text(), "") << "paranoid " << paranoid;
    EXPECT_TRUE(log.lines().empty()) << "paranoid " << paranoid;
    EXPECT_TRUE(Exists(path + "/CURRENT"));
    EXPECT_TRUE(store.is_open());
    EXPECT_TRUE(store.use_recovery());
    EXPECT_EQ(store.paranoid_checks(), paranoid);
    EXPECT_EQ(store.path(), path);
    EXPECT_EQ(CountOf(store), 0u);
  }
}

TEST(KVStoreOpenWithRecovery, HealthyDatabaseKeepsItsRecordsSilently) {
  for (const bool paranoid : {true, false}) {
    TestClock clock;
    TempDir dir;
    const std::string path = dir.Sub("db");
    FillCompacted(path, 3, 10);
    LogCapture log(kLoggerName);
    StderrCapture err;
    TestStringStore store;
    EXPECT_EQ(store.Open(path, paranoid, 2), Ok());
    EXPECT_EQ(err.Text(), "");
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(store.cache_size_mb(), 2u);
    EXPECT_EQ(CountOf(store), 3u);
    Value value;
    EXPECT_EQ(store.Get("k2", &value, nullptr), Ok());
    EXPECT_EQ(Wire(value), Wire(FilledValue(2, 10)));
  }
}

TEST(KVStoreOpenWithRecovery, ParanoidStoreRecreatesDamagedDatabaseWithoutRepair) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 10);
  ASSERT_EQ(testing_support::DamageTableFiles(path), 1);
  LogCapture log(kLoggerName);
  StderrCapture err;
  TestStringStore store;
  EXPECT_EQ(store.Open(path, true), Ok());
  const auto err_lines = err.Lines();
  ASSERT_EQ(err_lines.size(), 2u);
  EXPECT_EQ(err_lines[0], VerifyFailureLine(path, "Corruption: block checksum mismatch"));
  EXPECT_TRUE(IsDbCheckLine(err_lines[1], "status.ok()", "status.cond()"));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsStoreLine(lines[0], 2,
                          "Failed to open corrupted database '" + path + "'. Recreating.", ""));
  EXPECT_TRUE(store.is_open());
  EXPECT_EQ(CountOf(store), 0u);
  // No repair ran: a repair keeps what it sets aside under "lost".
  EXPECT_FALSE(Exists(path + "/lost"));
  EXPECT_TRUE(testing_support::FilesWithSuffix(path, ".ldb").empty());
}

TEST(KVStoreOpenWithRecovery, RepairPolicyRepairsOnceAndKeepsRecords) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 10);
  const std::string manifest = testing_support::FileWithPrefix(path, "MANIFEST-");
  ASSERT_FALSE(manifest.empty());
  testing_support::FlipBytes(path + "/" + manifest, 0, 8);
  LogCapture log(kLoggerName);
  StderrCapture err;
  TestStringStore store;
  EXPECT_EQ(store.Open(path, false), Ok());
  // The probe fails silently, the repair and the open after it succeed.
  EXPECT_EQ(err.Text(), "");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsStoreLine(
      lines[0], 2, "Failed to open corrupted database '" + path + "'. Attempting repair.", ""));
  EXPECT_TRUE(store.is_open());
  EXPECT_FALSE(store.paranoid_checks());
  EXPECT_EQ(CountOf(store), 3u);
  for (int i = 0; i < 3; ++i) {
    Value value;
    EXPECT_EQ(store.Get("k" + std::to_string(i), &value, nullptr), Ok());
    EXPECT_EQ(Wire(value), Wire(FilledValue(i, 10)));
  }
  EXPECT_TRUE(IsDirectory(path + "/lost"));
}

// The repair reads blocks with checksums verified and leaves the damaged one
// out: here one record a block, so one record is lost and the rest served.
TEST(KVStoreOpenWithRecovery, RepairPolicyKeepsEverythingButTheDamagedBlock) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 10, kBlob);
  DamageValueBytes(path, 3);
  LogCapture log(kLoggerName);
  StderrCapture err;
  TestStringStore store;
  EXPECT_EQ(store.Open(path, false), Ok());
  const auto err_lines = err.Lines();
  ASSERT_EQ(err_lines.size(), 2u);
  EXPECT_EQ(err_lines[0], VerifyFailureLine(path, "Corruption: block checksum mismatch"));
  EXPECT_TRUE(IsDbCheckLine(err_lines[1], "status.ok()", "status.cond()"));
  EXPECT_EQ(Summary(log), (std::vector<std::string>{Line(2, "Failed to open corrupted database '" +
                                                                path + "'. Attempting repair.")}));
  EXPECT_TRUE(store.is_open());
  EXPECT_EQ(CountOf(store), 9u);
  Value value;
  EXPECT_EQ(store.Get("k3", &value, nullptr).code, 3);
  for (int i : {0, 1, 2, 4, 5, 6, 7, 8, 9}) {
    ASSERT_EQ(store.Get("k" + std::to_string(i), &value, nullptr), Ok()) << i;
    EXPECT_EQ(Wire(value), Wire(FilledValue(i, kBlob)));
  }
}

// A repair that dies in its child process is a failed repair: the store goes
// on to verify, and recreates.
TEST(KVStoreOpenWithRecovery, RepairPolicyRecreatesWhenTheRepairDies) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 10, kBlob);
  DamageValueBytes(path, 3);
  FaultEnv env;
  env.kill_on_new_table = true;
  ScopedTestEnv scoped(&env);
  LogCapture log(kLoggerName);
  StderrCapture err;
  TestStringStore store;
  EXPECT_EQ(store.Open(path, false), Ok());
  const auto err_lines = err.Lines();
  ASSERT_EQ(err_lines.size(), 6u);
  EXPECT_EQ(err_lines[0], VerifyFailureLine(path, "Corruption: block checksum mismatch"));
  EXPECT_EQ(err_lines[2], "persistence::DB: " + path + ": Repair: Corruption: " + path +
                              ": repair ended by signal 9");
  EXPECT_EQ(err_lines[4], VerifyFailureLine(path, "Corruption: block checksum mismatch"));
  for (size_t i = 1; i < err_lines.size(); i += 2) {
    EXPECT_TRUE(IsDbCheckLine(err_lines[i], "status.ok()", "status.cond()"));
  }
  EXPECT_EQ(Summary(log),
            (std::vector<std::string>{
                Line(2, "Failed to open corrupted database '" + path + "'. Attempting repair."),
                Line(4, "Failed to repair database '" + path + "'. Reopening again."),
                Line(2, "Failed to repair database '" + path + "' - recreating.")}));
  EXPECT_TRUE(store.is_open());
  EXPECT_EQ(CountOf(store), 0u);
}

TEST(KVStoreOpenWithRecovery, FailedRepairAndFailedDestroyDoNotEndTheSequence) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 10, kBlob);
  DamageValueBytes(path, 3);
  // A directory where the repair writes its new manifest, which neither the
  // repair nor the destruction can remove.
  std::filesystem::create_directories(path + "/000001.dbtmp/inside");
  LogCapture log(kLoggerName);
  StderrCapture err;
  TestStringStore store;
  const std::string in_the_way = "IO error: " + path + "/000001.dbtmp: Is a directory";
  EXPECT_EQ(store.Open(path, false), St(5, in_the_way));
  const auto err_lines = err.Lines();
  ASSERT_EQ(err_lines.size(), 8u);
  EXPECT_EQ(err_lines[0], VerifyFailureLine(path, "Corruption: block checksum mismatch"));
  EXPECT_EQ(err_lines[2], "persistence::DB: " + path + ": Repair: " + in_the_way);
  // The repair rewrote the damaged table in place before it failed on its
  // new manifest: the old manifest's size for it now lies past its end.
  EXPECT_EQ(err_lines[4].rfind(VerifyFailureLine(path, "Corruption: " + path + "/"), 0), 0u)
      << err_lines[4];
  EXPECT_NE(err_lines[4].find(".ldb: Invalid argument"), std::string::npos) << err_lines[4];
  EXPECT_EQ(err_lines[6], "persistence::DB: " + path + ": Destroy: " + in_the_way);
  for (size_t i = 1; i < err_lines.size(); i += 2) {
    EXPECT_TRUE(IsDbCheckLine(err_lines[i], "status.ok()", "status.cond()"));
  }
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_TRUE(IsStoreLine(
      lines[0], 2, "Failed to open corrupted database '" + path + "'. Attempting repair.", ""));
  EXPECT_TRUE(
      IsStoreLine(lines[1], 4, "Failed to repair database '" + path + "'. Reopening again.", ""));
  EXPECT_TRUE(
      IsStoreLine(lines[2], 2, "Failed to repair database '" + path + "' - recreating.", ""));
  EXPECT_TRUE(
      IsStoreLine(lines[3], 4, "Failed to destroy database '" + path + "'. Reopening again.", ""));
  // The last open is still made, and its status is the result.
  EXPECT_TRUE(IsStoreLine(lines[4], 3, "Failed to open database '" + path + "'.", ""));
  EXPECT_FALSE(store.is_open());
  EXPECT_EQ(store.db(), nullptr);
}

TEST(KVStoreOpenWithRecovery, FailedDestroyIsWarnedAndTheOpenAfterItDecides) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 10);
  ASSERT_EQ(testing_support::DamageTableFiles(path), 1);
  // Named like a table file, but a directory: the destruction can't remove it.
  std::filesystem::create_directories(path + "/000099.ldb/inside");
  LogCapture log(kLoggerName);
  StderrCapture err;
  TestStringStore store;
  EXPECT_EQ(store.Open(path, true), Ok());
  const auto err_lines = err.Lines();
  ASSERT_EQ(err_lines.size(), 4u);
  EXPECT_EQ(err_lines[2], "persistence::DB: " + path + ": Destroy: IO error: " + path +
                              "/000099.ldb: Is a directory");
  EXPECT_EQ(Summary(log),
            (std::vector<std::string>{
                Line(2, "Failed to open corrupted database '" + path + "'. Recreating."),
                Line(4, "Failed to destroy database '" + path + "'. Reopening again.")}));
  EXPECT_TRUE(store.is_open());
  EXPECT_EQ(CountOf(store), 0u);
}

TEST(KVStoreOpenWithRecovery, OnAnOpenStoreIsRefusedAndChangesNothing) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), false), Ok());
  persistence::DB* const handle = store.db();
  LogCapture log(kLoggerName);
  EXPECT_EQ(store.OpenWithRecoveryAgain(dir.Sub("other"), false),
            St(2, "Invalid argument: db_: !nullptr"));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(IsCheckLine(lines[0], "!db_", "db_ is not nullptr", "OpenWithRecoveryNoLock"));
  EXPECT_EQ(store.db(), handle);
  EXPECT_TRUE(store.paranoid_checks());
  EXPECT_EQ(store.stored_path(), path);
  EXPECT_FALSE(Exists(dir.Sub("other")));
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), Ok());
}

TEST(KVStoreOpenWithRecovery, VerificationFailingOtherwiseThanCorruptionLeavesStoreOpen) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 10);
  const std::string table = OnlyTableFile(path);
  FaultEnv env;
  env.fail_table_reads = true;
  ScopedTestEnv scoped(&env);
  LogCapture log(kLoggerName);
  TestStringStore store;
  const Status read_failure = St(5, "IO error: " + table + ": injected read failure");
  {
    StderrCapture err;
    EXPECT_EQ(store.Open(path, true), read_failure);
    const auto err_lines = err.Lines();
    ASSERT_EQ(err_lines.size(), 2u);
    EXPECT_EQ(err_lines[0], VerifyFailureLine(path, read_failure.message));
  }
  // Nothing is logged, nothing destroyed, and the store serves.
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(store.is_open());
  EXPECT_TRUE(Exists(table));

  // A reopen through the same path reports a failed recovery, and the store
  // stays open all the same.
  clock.Advance(kReopenDelay);
  log.clear();
  StderrCapture err;
  TestStringStore::SharedLock lock(store.mutex());
  EXPECT_EQ(store.CallReopen(lock), read_failure);
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_TRUE(store.is_open());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[1], 2,
                          "Database failed to recover with error 5 (" + read_failure.message + ")",
                          ReopenContext(path)));
  lock.release();
  // Still serving: writes and reads that need no table succeed.
  EXPECT_EQ(store.Put("new", MakeValue("n"), false), Ok());
  Value value;
  EXPECT_EQ(store.Get("new", &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "n");
}

// --- Reopen: delay and lock states ----------------------------------------------

TEST(KVStoreReopen, WithinDelayOfConstructionIsRefusedAndTouchesNothing) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), false), Ok());
  persistence::DB* const handle = store.db();
  LogCapture log(kLoggerName);
  for (const auto at : {std::chrono::nanoseconds(0), kReopenDelay - std::chrono::nanoseconds(1)}) {
    clock.SetSteady(std::chrono::hours(1) + at);
    TestStringStore::SharedLock lock(store.mutex());
    EXPECT_EQ(store.CallReopen(lock), Refused());
    EXPECT_TRUE(lock.owns_lock());
    EXPECT_EQ(store.db(), handle);
    EXPECT_EQ(logger_ndc_get(), "");
  }
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(store.last_reopen().time_since_epoch(), std::chrono::hours(1));
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), Ok());
}

TEST(KVStoreReopen, SuccessKeepsTheCallersSharedLock) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true, 3), Ok());
  ASSERT_EQ(store.Put("k", MakeValue("v"), true), Ok());
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  {
    TestStringStore::SharedLock lock(store.mutex());
    EXPECT_EQ(store.CallReopen(lock), Ok());
    EXPECT_TRUE(lock.owns_lock());
    // Held shared: readers get in, a writer does not.
    EXPECT_TRUE(store.mutex().try_lock_shared());
    store.mutex().unlock_shared();
    EXPECT_FALSE(store.mutex().try_lock());
  }
  EXPECT_EQ(logger_ndc_get(), "");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[1], 5, "Database reopened successfully!", ReopenContext(path)));
  EXPECT_EQ(store.last_reopen().time_since_epoch(), std::chrono::hours(1) + kReopenDelay);
  // The settings of the first open are used again.
  EXPECT_TRUE(store.use_recovery());
  EXPECT_TRUE(store.paranoid_checks());
  EXPECT_EQ(store.cache_size_mb(), 3u);
  EXPECT_EQ(store.path(), path);
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), Ok());
  EXPECT_EQ(value.text(), "v");
}

TEST(KVStoreReopen, FailureReleasesTheCallersLockAndClosesTheStore) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  // The directory is replaced by a regular file under the open store.
  testing_support::RemoveTree(path);
  testing_support::WriteFile(path, "a file");
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  const Status lock_failure = St(5, "IO error: " + path + "/LOCK: Not a directory");
  {
    TestStringStore::SharedLock lock(store.mutex());
    EXPECT_EQ(store.CallReopen(lock), lock_failure);
    EXPECT_FALSE(lock.owns_lock());
    // Nobody holds the mutex now; the lock's end must not unlock it either.
    ASSERT_TRUE(store.mutex().try_lock());
    store.mutex().unlock();
  }
  EXPECT_EQ(logger_ndc_get(), "");
  EXPECT_FALSE(store.is_open());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(
      IsStoreLine(lines[1], 3, "Failed to open database '" + path + "'.", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[2], 2,
                          "Database failed to recover with error 5 (" + lock_failure.message + ")",
                          ReopenContext(path)));
  // The next one, within the delay, is refused at once with the lock held.
  TestStringStore::SharedLock lock(store.mutex());
  EXPECT_EQ(store.CallReopen(lock), Refused());
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(log.lines().size(), 3u);
}

// Advances the test clock while the engine takes a directory's lock, as a
// slow disk would.
class SlowLockEnv : public FaultEnv {
 public:
  explicit SlowLockEnv(TestClock* clock) : clock_(clock) {}
  std::atomic<bool> slow{false};
  leveldb::Status LockFile(const std::string& name, leveldb::FileLock** lock) override {
    if (slow) clock_->Advance(std::chrono::seconds(100));
    return FaultEnv::LockFile(name, lock);
  }

 private:
  TestClock* clock_;
};

TEST(KVStoreReopen, DelayCountsFromTheStartOfAFailedAttempt) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  testing_support::WriteFile(path, "a file");
  SlowLockEnv env(&clock);
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true).code, 5);
  LogCapture log(kLoggerName);
  clock.Advance(kReopenDelay);
  const auto start = clock.steady();
  env.slow = true;
  Value value;
  const Status lock_failure = St(5, "IO error: " + path + "/LOCK: Not a directory");
  // The failed attempt of the open gate is what the caller gets.
  EXPECT_EQ(store.Get("k", &value, nullptr), lock_failure);
  EXPECT_EQ(clock.steady(), start + std::chrono::seconds(100));
  EXPECT_EQ(store.last_reopen().time_since_epoch(), start);
  EXPECT_EQ(CountText(log, "Reopening the database..."), 1);
  clock.SetSteady(start + kReopenDelay - std::chrono::nanoseconds(1));
  EXPECT_EQ(store.Get("k", &value, nullptr), Refused());
  EXPECT_EQ(CountText(log, "Reopening the database..."), 1);
  clock.SetSteady(start + kReopenDelay);
  EXPECT_EQ(store.Get("k", &value, nullptr), lock_failure);
  EXPECT_EQ(CountText(log, "Reopening the database..."), 2);
  EXPECT_EQ(store.last_reopen().time_since_epoch(), start + kReopenDelay);
}

TEST(KVStoreReopen, ZeroOrNegativeDelayLetsEveryFailingOperationReopen) {
  for (const auto delay : {std::chrono::nanoseconds(0), std::chrono::nanoseconds(-5)}) {
    TestClock clock;
    TempDir dir;
    const std::string path = dir.Sub("db");
    TestStringStore store;
    ASSERT_EQ(store.Open(path, true), Ok());
    store.Close();
    testing_support::RemoveTree(path);
    testing_support::WriteFile(path, "a file");
    store.set_min_reopen_delay(delay);
    EXPECT_EQ(store.min_reopen_delay(), delay);
    LogCapture log(kLoggerName);
    Value value;
    // No time passes at all, and every call goes through to the exclusive
    // lock and tries again.
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(store.Get("k", &value, nullptr),
                St(5, "IO error: " + path + "/LOCK: Not a directory"));
    }
    EXPECT_EQ(CountText(log, "Reopening the database..."), 3);
    EXPECT_EQ(CountText(log, "Failed to open database '" + path + "'."), 3);
    EXPECT_EQ(store.reopen_calls.load(), 3);
  }
}

TEST(KVStoreReopen, WithoutRecoveryReopensThroughThePlainOpen) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 10, kBlob);
  TestStringStore store;
  ASSERT_EQ(store.OpenPlain(path, true, true), Ok());
  EXPECT_FALSE(store.use_recovery());
  store.Close();
  DamageValueBytes(path, 3);
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  StderrCapture err;
  Value value;
  // No verification, so the damage is not found and nothing is recreated.
  EXPECT_EQ(store.Get("k4", &value, nullptr), Ok());
  EXPECT_EQ(err.Text(), "");
  EXPECT_EQ(Summary(log), (std::vector<std::string>{Line(5, "Reopening the database..."),
                                                    Line(5, "Database reopened successfully!")}));
  EXPECT_EQ(CountOf(store), 10u);
}

TEST(KVStoreReopen, WithRecoveryReopensThroughVerificationAndRecreation) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 10, kBlob);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  store.Close();
  DamageValueBytes(path, 3);
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  Value value;
  EXPECT_EQ(store.Get("k4", &value, nullptr), St(3, "NotFound: "));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[1], 2,
                          "Failed to open corrupted database '" + path + "'. Recreating.",
                          ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[2], 5, "Database reopened successfully!", ReopenContext(path)));
  EXPECT_EQ(CountOf(store), 0u);
}

// A channel that fails in a way the library does not catch.
class ThrowingChannel : public Poco::Channel {
 public:
  void log(const Poco::Message& message) override {
    if (message.getText() == "Reopening the database...") throw std::runtime_error("channel down");
  }
};

TEST(KVStoreReopen, ContextIsPoppedAndLocksReleasedWhenAnExceptionPasses) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  clock.Advance(kReopenDelay);
  Poco::Logger& logger = Poco::Logger::get(kLoggerName);
  const Poco::Channel::Ptr former_channel = logger.getChannel();
  const int former_level = logger.getLevel();
  logger.setChannel(new ThrowingChannel);
  logger.setLevel(Poco::Message::PRIO_TRACE);
  TestStringStore::SharedLock lock(store.mutex());
  EXPECT_THROW(store.CallReopen(lock), std::runtime_error);
  logger.setChannel(former_channel);
  logger.setLevel(former_level);
  EXPECT_EQ(logger_ndc_get(), "");
  EXPECT_FALSE(lock.owns_lock());
  ASSERT_TRUE(store.mutex().try_lock());
  store.mutex().unlock();
}

// --- HandleErrors and failing operations ------------------------------------------

TEST(KVStoreHandleErrors, OnlyCorruptionAndIOErrorReachReopen) {
  TestClock clock;
  TempDir dir;
  TestStringStore store;
  ASSERT_EQ(store.Open(dir.Sub("db"), true), Ok());
  LogCapture log(kLoggerName);
  const std::vector<std::pair<leveldb::Status, int>> cases = {
      {leveldb::Status::OK(), 0},
      {leveldb::Status::NotFound("k", "absent"), 0},
      {leveldb::Status::InvalidArgument("a", "b"), 0},
      {leveldb::Status::NotSupported("a", "b"), 0},
      {leveldb::Status::Corruption("a", "b"), 1},
      {leveldb::Status::IOError("a", "b"), 1},
  };
  for (const auto& [given, reopens] : cases) {
    store.reopen_calls = 0;
    leveldb::Status status = given;
    TestStringStore::SharedLock lock(store.mutex());
    store.CallHandleErrors(status, lock);
    EXPECT_EQ(store.reopen_calls.load(), reopens) << given.ToString();
    EXPECT_EQ(status.ToString(), given.ToString());
    // Within the delay a reopen is refused with the lock still held.
    EXPECT_TRUE(lock.owns_lock());
  }
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(store.is_open());
}

TEST(KVStoreHandleErrors, PutIOErrorReopensReturnsTheFailureAndIsNotRepeated) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FaultEnv env;
  env.only_files = ".log";
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  const auto logs = testing_support::FilesWithSuffix(path, ".log");
  ASSERT_EQ(logs.size(), 1u);
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  env.disk_full = true;
  const Status disk_full = St(5, "IO error: " + path + "/" + logs[0] + ": No space left on device");
  {
    StderrCapture err;
    EXPECT_EQ(store.Put("k", MakeValue("v"), false), disk_full);
    const auto err_lines = err.Lines();
    ASSERT_EQ(err_lines.size(), 2u);
    EXPECT_EQ(err_lines[0], "persistence::DB: " + path + ": Put: " + disk_full.message);
    EXPECT_TRUE(IsDbCheckLine(err_lines[1], "status.ok()", "status.cond()"));
  }
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[1], 5, "Database reopened successfully!", ReopenContext(path)));
  // The failed Put was not made again after the reopen.
  Value value;
  EXPECT_EQ(store.Get("k", &value, nullptr), St(3, "NotFound: "));
  env.disk_full = false;
  EXPECT_EQ(store.Put("k", MakeValue("v"), false), Ok());
  EXPECT_EQ(store.Get("k", &value, nullptr), Ok());
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(store.reopen_calls.load(), 1);
}

TEST(KVStoreHandleErrors, CorruptionMetReadingOneRecordLeadsToRepair) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 10, kBlob);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, false), Ok());
  // The block type byte after record 3's block: a read of that record fails
  // even without checksums.
  const std::string table = OnlyTableFile(path);
  const uint64_t block_end = OffsetOf(table, Blob(3, kBlob)) + kBlob;
  FlipInPlace(table, block_end + 8, 1);
  clock.Advance(kReopenDelay);
  LogCapture log(kLoggerName);
  Value value;
  {
    StderrCapture err;
    EXPECT_EQ(store.Get("k3", &value, nullptr), St(4, "Corruption: bad block type"));
    const auto err_lines = err.Lines();
    ASSERT_GE(err_lines.size(), 2u);
    EXPECT_EQ(err_lines[0], "persistence::DB: " + path + ": Get: Corruption: bad block type");
    EXPECT_TRUE(IsDbCheckLine(err_lines[1], "status.ok() || status.IsNotFound()",
                              "status.cond1() || status.cond2()"));
  }
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(IsStoreLine(lines[0], 5, "Reopening the database...", ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[1], 2,
                          "Failed to open corrupted database '" + path + "'. Attempting repair.",
                          ReopenContext(path)));
  EXPECT_TRUE(IsStoreLine(lines[2], 5, "Database reopened successfully!", ReopenContext(path)));
  // The repair saved every record but the damaged one.
  EXPECT_EQ(CountOf(store), 9u);
  EXPECT_EQ(store.Get("k3", &value, nullptr), St(3, "NotFound: "));
  for (int i : {0, 2, 4, 9}) {
    EXPECT_EQ(store.Get("k" + std::to_string(i), &value, nullptr), Ok());
    EXPECT_EQ(Wire(value), Wire(FilledValue(i, kBlob)));
  }
}

TEST(KVStoreHandleErrors, ParanoidHandleStaysFlaggedUntilTheReopenRecreatesIt) {
  TestClock clock;
  TempDir dir;
  const std::string path = dir.Sub("db");
  FillCompacted(path, 3, 10);
  const std::string table = OnlyTableFile(path);
  FaultEnv env;
  ScopedTestEnv scoped(&env);
  TestStringStore store;
  ASSERT_EQ(store.Open(path, true), Ok());
  LogCapture log(kLoggerName);
  env.corrupt_table_reads = true;
  Value value;
  EXPECT_EQ(store.Get("k1", &value, nullptr), St(4, "Corruption: " + table + ": injected damage"));
  {
    // Within the delay: the handle no longer reaches the engine and prints
    // nothing.
    StderrCapture err;
    EXPECT_EQ(store.Get("k2", &value, nullptr), St(4, "Corruption: corrupted_: true"));
    EXPECT_EQ(err.Text(), "");
  }
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(store.reopen_calls.load(), 2);
  clock.Advance(kReopenDelay);
  // This caller gets the failure it met, and the store is recreated behind it.
  EXPECT_EQ(store.Get("k2", &value, nullptr), St(4, "Corruption: corrupted_: true"));
  EXPECT_EQ(Summary(log), (std::vector<std::string>{Line(5, "Reopening the database..."),
                                                    Line(2, "Failed to open corrupted database '" +
                                                                path + "'. Recreating."),
                                                    Line(5, "Database reopened successfully!")}));
  EXPECT_EQ(store.Get("k2", &value, nullptr), St(3, "NotFound: "));
  EXPECT_EQ(CountOf(store), 0u);
}

}  // namespace
}  // namespace kvstore_test
