// What the tests of dravinholdctl share: running the tool as a child process
// with its output captured, and writing real store directories for it to
// look at.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

namespace ctl_test {

// What one run of the tool gave.
struct ToolRun {
  int exit_code = -1;      // -1 when it did not exit by itself
  int signal = 0;          // the signal that ended it, 0 if none
  bool timed_out = false;  // killed after the deadline
  std::string out;         // standard output
  std::string err;         // standard error

  std::vector<std::string> OutLines() const;
  std::vector<std::string> ErrLines() const;
};

// Environment changes for a run: a value sets the variable, nullopt removes it.
using EnvChanges = std::map<std::string, std::optional<std::string>>;

// Runs dravinholdctl with "args", standard input from "input_file" (default
// /dev/null), and kills it after "timeout_seconds". With "stderr_on_terminal"
// its standard error is a pseudo-terminal rather than a pipe.
ToolRun RunTool(const std::vector<std::string>& args, const EnvChanges& env = {},
                int timeout_seconds = 30, bool stderr_on_terminal = false,
                const std::string& input_file = "/dev/null");

// Runs "dravinholdctl --root <root> args...".
ToolRun RunAt(const std::string& root, std::vector<std::string> args);

std::vector<std::string> SplitLines(const std::string& text);

// A record as the engine keeps it.
using Records = std::vector<std::pair<std::string, std::string>>;

// Writes "records" into a new database at "path" (created), and closes it.
// With "compact" the records end up in table files rather than the log.
void WriteStore(const std::string& path, const Records& records, bool compact = false);

// Writes "records" one write each, so that each is a record of its own in
// the log, and closes the database without compacting it.
void WriteEach(const std::string& path, const Records& records);

// Every record of the database at "path", read in the test process.
Records ReadStore(const std::string& path);

// Encoded values and keys of the stores.
std::string FvhashValue(bool verdict);
std::string SignerValue(const std::string& name);
std::string CacheValue(const std::string& certhash, int64_t last_used, uint64_t index);
std::string GeneralKey(int32_t module_id);
std::string ProcessKey(const std::string& process_name, int32_t module_id);
std::string PolicyValue(const std::string& policy);
std::string EnrichmentValue(const std::string& image_path, int64_t last_used, uint64_t index);
std::string LruKey(uint64_t index);  // "%20llu", 20 bytes
std::string LruValue(const std::string& foreign_key);

// Enough trusted signers (about 2.6 MB) that the compacted store lies in
// more than one table file.
Records ManySigners();

// Name -> contents of every file of a directory (not recursive), LOCK and the
// engine's info logs left out.
std::map<std::string, std::string> Snapshot(const std::string& dir);

bool PathExists(const std::string& path);

// The data root every test starts from: a fresh temporary directory.
class CtlTest : public ::testing::Test {
 protected:
  std::string Root() const { return root_.path(); }
  std::string StoreDir(const std::string& store) const { return root_.Sub(store); }
  ToolRun Ctl(std::vector<std::string> args) const { return RunAt(Root(), std::move(args)); }

  testing_support::TempDir root_;
};

// Expects a run that ended by itself with "code", and prints its output when
// it did not.
#define EXPECT_EXIT_CODE(run, code)                                    \
  do {                                                                 \
    const ::ctl_test::ToolRun& run_ref = (run);                        \
    EXPECT_FALSE(run_ref.timed_out);                                   \
    EXPECT_EQ(run_ref.exit_code, (code)) << "stdout:\n"                \
                                         << run_ref.out << "stderr:\n" \
                                         << run_ref.err;               \
  } while (0)

}  // namespace ctl_test
