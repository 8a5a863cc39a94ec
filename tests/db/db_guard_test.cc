// persistence::DB: the guards of Open, Verify, Repair and Destroy, which
// turn an exception derived from std::exception into "IO error: <what>" and
// let any other exception pass.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <leveldb/env.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "db/db_test_util.h"
#include "persistence/db.h"
#include "support/damage.h"
#include "support/fault_env.h"
#include "support/leak_check_pause.h"
#include "support/stderr_capture.h"
#include "support/temp_dir.h"

namespace {

using db_test::DBProbe;
using db_test::ReportLine;
using db_test::StatusOkCheck;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::ScopedTestEnv;
using testing_support::StderrCapture;
using testing_support::TempDir;

// The failing environment, whose calls may also throw.
class ThrowingEnv : public testing_support::FaultEnv {
 public:
  bool throw_on_logger = false;
  bool throw_on_children = false;
  bool throw_on_table_open = false;
  bool throw_foreign = false;  // an int instead of a std::exception

  leveldb::Status NewLogger(const std::string& name, leveldb::Logger** result) override {
    if (throw_on_logger) Throw("cannot create the info log");
    return FaultEnv::NewLogger(name, result);
  }
  leveldb::Status GetChildren(const std::string& dir, std::vector<std::string>* result) override {
    if (throw_on_children) Throw("cannot list the directory");
    return FaultEnv::GetChildren(dir, result);
  }
  leveldb::Status NewRandomAccessFile(const std::string& name,
                                      leveldb::RandomAccessFile** result) override {
    if (throw_on_table_open && name.find(".ldb") != std::string::npos) {
      Throw("cannot open a table");
    }
    return FaultEnv::NewRandomAccessFile(name, result);
  }

 private:
  void Throw(const char* what) const {
    if (throw_foreign) throw 42;
    throw std::runtime_error(what);
  }
};

class DBGuard : public testing::Test {
 protected:
  testing_support::LeakCheckPause leak_check_pause_;
  TempDir dir_;
  std::string path_ = dir_.Sub("db");
  ThrowingEnv env_;
  ScopedTestEnv scoped_env_{&env_};
};

TEST_F(DBGuard, OpenTurnsAnExceptionIntoAnIOErrorAndEndsEverything) {
  db_test::WriteEntries(path_, {{"a", "1"}});
  DBProbe db(path_);
  env_.throw_on_logger = true;
  StderrCapture capture;
  EXPECT_EQ(db.Open(true, false, true, 1).ToString(), "IO error: cannot create the info log");
  EXPECT_THAT(capture.Lines(), IsEmpty());
  EXPECT_FALSE(db.is_open());
  EXPECT_EQ(db.block_cache(), nullptr);
  EXPECT_EQ(db.filter_policy(), nullptr);
  EXPECT_FALSE(db.corrupted());
}

TEST_F(DBGuard, OpenLetsOtherExceptionsPass) {
  db_test::WriteEntries(path_, {{"a", "1"}});
  DBProbe db(path_);
  env_.throw_on_logger = true;
  env_.throw_foreign = true;
  EXPECT_THROW(db.Open(true, false, false, 0), int);
  EXPECT_FALSE(db.is_open());
}

TEST_F(DBGuard, DestroyTurnsAnExceptionIntoAReportedIOError) {
  db_test::WriteTable(path_, {{"a", "1"}});
  DBProbe db(path_);
  ASSERT_TRUE(db.Open(true, false, true, 1).ok());
  env_.throw_on_children = true;
  const std::string failure = "IO error: cannot list the directory";
  StderrCapture capture;
  EXPECT_EQ(db.Destroy().ToString(), failure);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Destroy", failure), StatusOkCheck()));
  // The engine was ended before the call; nothing was removed.
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db.corrupted());
  EXPECT_EQ(db.filter_policy(), nullptr);
  EXPECT_NE(db.block_cache(), nullptr);
  EXPECT_TRUE(db_test::Exists(path_ + "/CURRENT"));
}

TEST_F(DBGuard, DestroyLetsOtherExceptionsPass) {
  db_test::WriteTable(path_, {{"a", "1"}});
  DBProbe db(path_);
  env_.throw_on_children = true;
  env_.throw_foreign = true;
  EXPECT_THROW(db.Destroy(), int);
}

TEST_F(DBGuard, RepairTurnsAnExceptionIntoAReportedIOError) {
  db_test::WriteTable(path_, {{"a", "1"}});
  DBProbe db(path_);
  env_.throw_on_children = true;
  const std::string failure = "IO error: cannot list the directory";
  StderrCapture capture;
  EXPECT_EQ(db.Repair().ToString(), failure);
  EXPECT_THAT(capture.Lines(), ElementsAre(ReportLine(path_, "Repair", failure), StatusOkCheck()));
  EXPECT_FALSE(db.is_open());
  EXPECT_FALSE(db.corrupted());
}

// The repair runs in a child process, and an exception can't cross into the
// caller's: one that is not a std::exception is an I/O error there too.
TEST_F(DBGuard, RepairTurnsOtherExceptionsIntoAnIOErrorToo) {
  db_test::WriteTable(path_, {{"a", "1"}});
  DBProbe db(path_);
  env_.throw_on_children = true;
  env_.throw_foreign = true;
  StderrCapture capture;
  EXPECT_EQ(db.Repair().ToString(), "IO error: unknown exception");
}

// The walk of Verify opens tables below level 0 only when it reaches them,
// outside the engine's own lock, so an exception thrown there leaves the
// engine usable.
class DBVerifyGuard : public DBGuard {
 protected:
  void SetUp() override {
    {
      DBProbe writer(path_);
      ASSERT_TRUE(writer.Open(true, true, false, 0).ok());
      for (const auto& entry : db_test::NumberedEntries("key", "value", 50)) {
        ASSERT_TRUE(writer.Put(entry.first, entry.second, false).ok());
      }
      ASSERT_TRUE(writer.Compact().ok());
      std::string sstables;
      ASSERT_TRUE(writer.Stats(nullptr, &sstables).ok());
      ASSERT_THAT(sstables, testing::StartsWith("--- level 0 ---\n--- level 1 ---"));
    }
    ASSERT_TRUE(db_.Open(true, false, false, 0).ok());
  }

  DBProbe db_{path_};
};

TEST_F(DBVerifyGuard, AnExceptionInTheWalkIsAnIOErrorThatClearsTheFlag) {
  env_.corrupt_table_reads = true;
  ASSERT_TRUE(db_.Verify().IsCorruption());
  env_.corrupt_table_reads = false;
  ASSERT_TRUE(db_.corrupted());

  env_.throw_on_table_open = true;
  const std::string failure = "IO error: cannot open a table";
  {
    StderrCapture capture;
    EXPECT_EQ(db_.Verify().ToString(), failure);
    EXPECT_THAT(capture.Lines(),
                ElementsAre(ReportLine(path_, "Verify", failure), StatusOkCheck()));
  }
  EXPECT_FALSE(db_.corrupted());
  EXPECT_TRUE(db_.is_open());

  env_.throw_on_table_open = false;
  StderrCapture capture;
  EXPECT_TRUE(db_.Verify().ok());
  uint64_t count = 0;
  EXPECT_TRUE(db_.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 50u);
  EXPECT_TRUE(db_.Close().ok());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(DBVerifyGuard, OtherExceptionsPassThroughTheWalk) {
  env_.throw_on_table_open = true;
  env_.throw_foreign = true;
  EXPECT_THROW(db_.Verify(), int);
  env_.throw_on_table_open = false;
  EXPECT_TRUE(db_.Verify().ok());
}

}  // namespace
