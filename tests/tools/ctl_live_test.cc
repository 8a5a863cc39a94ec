// dravinholdctl on stores that a running process holds: every read command
// works on a copy that holds a state the writer had, and nothing in the
// store is written; repair and import keep refusing such a store.
//
// The number of tool runs beside the writer is DRAVINHOLDCTL_LIVE_RUNS
// (default 120, a few seconds; 20 in a sanitizer build); for the long run:
//   DRAVINHOLDCTL_LIVE_RUNS=1000 ctest --test-dir build -R tools_ctl_live_test

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ctl_test_util.h"
#include "persistence/db.h"

namespace ctl_test {
namespace {

constexpr uint64_t kWindow = 2000;

std::string WriterKey(uint64_t i) {
  char key[32];
  std::snprintf(key, sizeof(key), "signer-%012llu", static_cast<unsigned long long>(i));
  return key;
}

// The writer of tests/tools/live_writer.cc as a child process.
class LiveWriter {
 public:
  LiveWriter(const std::string& dir, const std::string& progress_file)
      : progress_file_(progress_file) {
    pid_ = fork();
    if (pid_ == 0) {
      // The writer goes with the test, however the test ends.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const std::string window = std::to_string(kWindow);
      execl(LIVE_WRITER_PATH, LIVE_WRITER_PATH, dir.c_str(), progress_file.c_str(), window.c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  ~LiveWriter() { Stop(); }

  // The last batch the writer has finished, 0 before the first.
  uint64_t Progress() const {
    uint64_t done = 0;
    const int fd = open(progress_file_.c_str(), O_RDONLY);
    if (fd >= 0) {
      if (pread(fd, &done, sizeof(done), 0) != static_cast<ssize_t>(sizeof(done))) done = 0;
      close(fd);
    }
    return done;
  }

  // Waits until the writer has finished batch "batch"; false when it ended
  // before.
  bool WaitFor(uint64_t batch) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (Progress() < batch) {
      if (std::chrono::steady_clock::now() > deadline || !Running()) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }

  bool Running() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
      ADD_FAILURE() << "the writer ended: "
                    << (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                            : "exit " + std::to_string(WEXITSTATUS(status)));
      pid_ = -1;
    }
    return pid_ > 0;
  }

  void Stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }

  pid_t pid() const { return pid_; }

 private:
  const std::string progress_file_;
  pid_t pid_ = -1;
};

class CtlLiveTest : public CtlTest {
 protected:
  static int Runs() {
    const char* runs = std::getenv("DRAVINHOLDCTL_LIVE_RUNS");
    return runs != nullptr && std::atoi(runs) > 0 ? std::atoi(runs)
                                                  : DRAVINHOLDCTL_DEFAULT_LIVE_RUNS;
  }
};

// The batch whose state "out" of "get trusted_signers_store counter --json"
// shows, or 0.
uint64_t CounterOf(const std::string& out) {
  std::smatch match;
  static const std::regex pattern(
      "^\\{\"value\":\\{\"name\":\"(\\d+)\"\\},\"key\":\"counter\"\\}\\n$");
  return std::regex_match(out, match, pattern) ? std::stoull(match[1]) : 0;
}

// Checks that the lines of "dump --json" are exactly the state after one
// batch: "counter" (first in key order) and the keys of its window. Returns
// that batch, or 0.
uint64_t BatchOfDump(const std::vector<std::string>& lines) {
  if (lines.size() != kWindow + 1) return 0;
  const uint64_t batch = CounterOf(lines.front() + "\n");
  if (batch < kWindow) return 0;
  for (uint64_t k = 0; k < kWindow; ++k) {
    const uint64_t i = batch - kWindow + 1 + k;
    const std::string expected = "{\"value\":{\"name\":\"signer " + std::to_string(i) + " " +
                                 std::string(80, 'p') + "\"},\"key\":\"" + WriterKey(i) + "\"}";
    if (lines[k + 1] != expected) return 0;
  }
  return batch;
}

TEST_F(CtlLiveTest, EveryReadDuringWritesSeesAStateTheWriterHad) {
  const std::string path = StoreDir("trusted_signers_store");
  LiveWriter writer(path, root_.Sub("progress"));
  ASSERT_TRUE(writer.WaitFor(kWindow + 1));
  const int runs = Runs();
  int seen_changes = 0;
  uint64_t last = 0;
  const std::string counts = std::to_string(kWindow + 1);
  for (int run_number = 0; run_number < runs; ++run_number) {
    SCOPED_TRACE("run " + std::to_string(run_number));
    const uint64_t before = writer.Progress();
    ToolRun run;
    uint64_t batch = before;
    switch (run_number % 4) {
      case 0:
        run = Ctl({"get", "trusted_signers_store", "counter", "--json"});
        batch = CounterOf(run.out);
        break;
      case 1:
        run = Ctl({"count", "trusted_signers_store"});
        EXPECT_EQ(run.out, counts + "\n");
        break;
      case 2:
        run = Ctl({"verify", "trusted_signers_store"});
        EXPECT_EQ(run.out,
                  "trusted_signers_store: ok, " + counts + " records, every block verified\n");
        break;
      default:
        run = Ctl({"dump", "trusted_signers_store", "--json"});
        batch = BatchOfDump(run.OutLines());
        break;
    }
    const uint64_t after = writer.Progress();
    EXPECT_EXIT_CODE(run, 0);
    EXPECT_EQ(run.err, "");
    // The writer had finished "before" when the run started, and at most
    // the batch after "after" can be in its log when the run ended.
    EXPECT_GE(batch, before);
    EXPECT_LE(batch, after + 1);
    if (batch != last) ++seen_changes;
    last = batch;
    ASSERT_TRUE(writer.Running()) << "the writer stopped";
    if (HasFailure()) break;
  }
  // The writer went on all the time.
  EXPECT_GT(writer.Progress(), kWindow + 1);
  EXPECT_GT(seen_changes, runs / 8);
}

TEST_F(CtlLiveTest, StoresCountsALiveStoreAndNamesItsHolder) {
  const std::string path = StoreDir("trusted_signers_store");
  LiveWriter writer(path, root_.Sub("progress"));
  ASSERT_TRUE(writer.WaitFor(kWindow + 1));
  const ToolRun run = Ctl({"stores", "--json"});
  EXPECT_EXIT_CODE(run, 0);
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_EQ(lines.size(), 7u);
  const std::regex line("\\{\"store\":\"trusted_signers_store\",\"present\":true,\"in_use_by\":" +
                        std::to_string(writer.pid()) +
                        ",\"size_bytes\":\\d+,\"records\":2001,\"state\":\"ok\",\"error\":\"\","
                        "\"directory\":\"" +
                        path + "\"\\}");
  EXPECT_TRUE(std::regex_match(lines[1], line)) << lines[1];
}

TEST_F(CtlLiveTest, ReadsOfAHeldStoreWriteNothingAndChangesRefuseIt) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, {{"aa", FvhashValue(true)}, {"bb", FvhashValue(false)}});
  const std::string file = root_.Sub("verdicts.bin");
  ASSERT_EQ(Ctl({"export", "fvhash_store", file}).exit_code, 0);
  persistence::DB held(path);
  ASSERT_TRUE(held.Open(true, false, false, 0).ok());
  ASSERT_TRUE(held.Put("cc", FvhashValue(true), false).ok());  // only in the log
  const auto before = Snapshot(path);
  const std::vector<std::vector<std::string>> reads = {
      {"dump", "fvhash_store"},
      {"get", "fvhash_store", "cc"},
      {"count", "fvhash_store"},
      {"stats", "fvhash_store"},
      {"verify", "fvhash_store"},
      {"export", "fvhash_store", root_.Sub("out.bin")},
      {"stores"},
  };
  for (const std::vector<std::string>& args : reads) {
    SCOPED_TRACE(args[0]);
    const ToolRun run = Ctl(args);
    EXPECT_EXIT_CODE(run, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(Snapshot(path), before);
  }
  EXPECT_EQ(Ctl({"count", "fvhash_store"}).out, "3\n");
  EXPECT_EQ(Ctl({"get", "fvhash_store", "cc"}).out, "\"cc\" => {verdict: true}\n");
  const std::string in_use =
      "dravinholdctl: in use by process " + std::to_string(getpid()) + ": " + path + "\n";
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"repair", "fvhash_store"}, {"import", "fvhash_store", file}}) {
    SCOPED_TRACE(args[0]);
    const ToolRun run = Ctl(args);
    EXPECT_EXIT_CODE(run, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, in_use);
    EXPECT_EQ(Snapshot(path), before);
  }
  uint64_t count = 0;
  ASSERT_TRUE(held.Count(&count, nullptr).ok());
  EXPECT_EQ(count, 3u);
}

// The tool's copies in "dir". Other files may come and go there: a
// sanitizer's runtime keeps a file of its own in $TMPDIR for a moment at
// every start.
std::vector<std::string> CopiesIn(const std::string& dir) {
  std::vector<std::string> copies;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, 14, "dravinholdctl-") == 0) copies.push_back(name);
  }
  return copies;
}

TEST_F(CtlLiveTest, AnInterruptedReadLeavesNoCopyBehind) {
  // A dump, interrupted while it reads its copy.
  const std::string tmp = root_.Sub("tmp");
  ASSERT_TRUE(std::filesystem::create_directory(tmp));
  WriteStore(StoreDir("trusted_signers_store"), ManySigners(), /*compact=*/true);
  for (const int signal_number : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(signal_number);
    // Its output goes to a pipe nobody reads: the dump stops when the pipe
    // is full, with its copy open.
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const pid_t pid = fork();
    if (pid == 0) {
      setenv("TMPDIR", tmp.c_str(), 1);
      dup2(out[1], 1);
      close(out[0]);
      execl(DRAVINHOLDCTL_PATH, DRAVINHOLDCTL_PATH, "--root", Root().c_str(), "dump",
            "trusted_signers_store", static_cast<char*>(nullptr));
      _exit(127);
    }
    // Until the copy is there.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (CopiesIn(tmp).empty() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    ASSERT_EQ(CopiesIn(tmp).size(), 1u);
    close(out[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    kill(pid, signal_number);
    int status = 0;
    waitpid(pid, &status, 0);
    close(out[0]);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), signal_number);
    EXPECT_EQ(CopiesIn(tmp), std::vector<std::string>());
  }
}

}  // namespace
}  // namespace ctl_test
