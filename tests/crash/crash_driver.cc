// crash_driver SCENARIO WRITER CHECKER [DEFAULT_KILLS]: kills the writer with SIGKILL at
// random moments and has the checker judge each state it leaves.
//
// Each round starts the writer on a root directory, waits a random delay,
// sends SIGKILL, makes sure the writer died of it (an exit of its own is a
// failed write), and runs the checker in a fresh process. A root serves
// kRoundsPerRoot rounds in a row, so that later writers start from what the
// killed ones left (a database recovered again and again), then a fresh root
// begins.
//
// The delays are uniform over [0, spread]. The spread is measured first: a
// writer runs on a root that already holds a list, and the spread covers its
// start and two whole write cycles (for enrichment, at least one and a half
// seconds: several passes of the sync thread and two of the pruning thread).
//
// Environment:
//   DRAVINHOLD_CRASH_KILLS  rounds to run (default DEFAULT_KILLS, else 50)
//   DRAVINHOLD_CRASH_SEED   seed of the delays (default: random, printed)
//   TMPDIR                  where the roots go (default /tmp)
//
// On a failure the root is kept and named; the driver stops there.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "crash_records.h"
#include "support/temp_dir.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int kRoundsPerRoot = 10;
constexpr auto kCheckerTimeout = std::chrono::seconds(120);
constexpr auto kCalibrationTimeout = std::chrono::seconds(120);

std::string g_writer;
std::string g_checker;
std::string g_scenario;

// Starts "program SCENARIO ROOT" with standard output to "out_path" and
// standard error to "err_path", both written anew: a log holds the last run
// only, which is the one a failure is about.
pid_t Start(const std::string& program, const std::string& root, const std::string& out_path,
            const std::string& err_path) {
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("fork");
    std::exit(2);
  }
  if (pid == 0) {
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0) _exit(126);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execl(program.c_str(), program.c_str(), g_scenario.c_str(), root.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

std::string Describe(int status) {
  if (WIFEXITED(status)) return "exit code " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Tail(const std::string& text, size_t bytes = 4000) {
  return text.size() <= bytes ? text : "..." + text.substr(text.size() - bytes);
}

// Kills the writer and returns an empty string when SIGKILL was what ended
// it, otherwise how it ended.
std::string KillWriter(pid_t pid) {
  kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return "";
  return Describe(status);
}

// Waits for the progress file under "root" to reach "count" bytes. Returns
// the time it reached each count from 1 on, or an empty vector if the
// writer ended or time ran out.
std::vector<Clock::time_point> WaitForProgress(pid_t pid, const std::string& root, uint64_t count) {
  std::vector<Clock::time_point> times;
  const Clock::time_point limit = Clock::now() + kCalibrationTimeout;
  const uint64_t start = crash::ReadProgress(root);
  while (Clock::now() < limit) {
    const uint64_t progress = crash::ReadProgress(root) - start;
    while (times.size() < std::min(progress, count)) times.push_back(Clock::now());
    if (times.size() >= count) return times;
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      std::fprintf(stderr, "writer ended during the calibration: %s\n", Describe(status).c_str());
      return {};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::fprintf(stderr, "writer made no progress within %lld s\n",
               static_cast<long long>(kCalibrationTimeout.count()));
  return {};
}

// The spread of the kill delays, in seconds; 0 on failure.
double Calibrate(const std::string& root, crash::Scenario scenario) {
  const std::string log = root + "/writer.log";
  // A first writer fills the store, so that the measured one starts as the
  // writers of later rounds do: on a database that holds data.
  pid_t pid = Start(g_writer, root, "/dev/null", log);
  const uint64_t warmup = crash::IsListScenario(scenario) ? 2 : 10;
  if (WaitForProgress(pid, root, warmup).empty()) {
    KillWriter(pid);
    std::fprintf(stderr, "%s\n", Tail(ReadFile(log)).c_str());
    return 0;
  }
  KillWriter(pid);
  const Clock::time_point start = Clock::now();
  pid = Start(g_writer, root, "/dev/null", log);
  const std::vector<Clock::time_point> times = WaitForProgress(pid, root, 3);
  KillWriter(pid);
  if (times.empty()) {
    std::fprintf(stderr, "%s\n", Tail(ReadFile(log)).c_str());
    return 0;
  }
  const double first = Seconds(times[0] - start).count();
  const double cycle = Seconds(times[2] - times[0]).count() / 2;
  double spread = first + 2 * cycle;
  if (!crash::IsListScenario(scenario)) spread = std::max(spread, first + 1.5);
  std::printf(
      "calibration: first write acknowledged after %.3f s, one write cycle %.3f s, "
      "kill delays uniform over [0, %.3f] s\n",
      first, cycle, spread);
  return spread;
}

struct Round {
  std::string found;
  std::string line;  // the checker's RESULT line
  std::string failure;
};

Round CheckRoot(const std::string& root) {
  Round round;
  const std::string out = root + "/checker.out";
  const std::string err = root + "/checker.err";
  const pid_t pid = Start(g_checker, root, out, err);
  const Clock::time_point limit = Clock::now() + kCheckerTimeout;
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (Clock::now() > limit) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      round.failure = "checker timed out";
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  std::istringstream lines(ReadFile(out));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("RESULT ", 0) == 0) round.line = line;
  }
  const size_t found_at = round.line.find("found=");
  if (found_at != std::string::npos) {
    round.found = round.line.substr(found_at + 6, round.line.find(' ', found_at) - found_at - 6);
  }
  if (round.failure.empty() && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
    round.failure =
        "checker failed (" + Describe(status) + "): " + round.line + "\n" + Tail(ReadFile(err));
  }
  if (round.failure.empty() && round.found.empty()) round.failure = "checker printed no result";
  return round;
}

uint64_t ParseWrites(const std::string& line) {
  const size_t at = line.find("writes=");
  return at == std::string::npos ? 0 : std::strtoull(line.c_str() + at + 7, nullptr, 10);
}

// Brings the progress file to "writes" bytes: the checker found that the
// write in flight had landed.
void SetProgress(const std::string& root, uint64_t writes) {
  const uint64_t present = crash::ReadProgress(root);
  if (writes <= present) return;
  const int fd = open(crash::ProgressPath(root).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  for (uint64_t n = present + 1; n <= writes; ++n) {
    const char mark = crash::ListName(crash::ListOfWrite(n));
    if (write(fd, &mark, 1) != 1) std::perror("write");
  }
  close(fd);
}

std::string MakeBase() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                        "/dravinhold-crash-" + g_scenario + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::exit(2);
  }
  return pattern;
}

}  // namespace

int main(int argc, char** argv) {
  crash::Scenario scenario;
  if ((argc != 4 && argc != 5) || !crash::ParseScenario(argv[1], &scenario)) {
    std::fprintf(stderr, "usage: crash_driver SCENARIO WRITER CHECKER [DEFAULT_KILLS]\n");
    return 2;
  }
  g_scenario = argv[1];
  g_writer = argv[2];
  g_checker = argv[3];
  const char* kills_text = std::getenv("DRAVINHOLD_CRASH_KILLS");
  if (kills_text == nullptr || *kills_text == '\0') kills_text = argc == 5 ? argv[4] : "50";
  const int kills = std::atoi(kills_text);
  const char* seed_text = std::getenv("DRAVINHOLD_CRASH_SEED");
  const uint64_t seed =
      seed_text != nullptr && *seed_text != '\0'
          ? std::strtoull(seed_text, nullptr, 10)
          : (static_cast<uint64_t>(std::random_device()()) << 32) ^ std::random_device()();
  if (kills <= 0) {
    std::fprintf(stderr, "DRAVINHOLD_CRASH_KILLS must be positive\n");
    return 2;
  }
  std::printf("crash %s: %d kills, seed %llu (DRAVINHOLD_CRASH_SEED=%llu repeats the delays)\n",
              g_scenario.c_str(), kills, static_cast<unsigned long long>(seed),
              static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  const Clock::time_point started = Clock::now();
  const std::string base = MakeBase();

  const std::string calibration_root = base + "/calibration";
  mkdir(calibration_root.c_str(), 0755);
  const double spread = Calibrate(calibration_root, scenario);
  if (spread <= 0) {
    std::printf("FAILED: calibration; root kept at %s\n", calibration_root.c_str());
    return 1;
  }
  testing_support::RemoveTree(calibration_root);
  std::fflush(stdout);

  std::mt19937_64 random(seed);
  std::uniform_real_distribution<double> delay_of(0.0, spread);
  std::map<std::string, int> outcomes;
  std::string root;
  std::string failure;
  int round_number = 0;
  for (; round_number < kills; ++round_number) {
    if (round_number % kRoundsPerRoot == 0) {
      if (!root.empty()) testing_support::RemoveTree(root);
      root = base + "/root" + std::to_string(round_number / kRoundsPerRoot);
      mkdir(root.c_str(), 0755);
    }
    const uint64_t writes_before = crash::ReadProgress(root);
    const double delay = delay_of(random);
    const pid_t pid = Start(g_writer, root, "/dev/null", root + "/writer.log");
    std::this_thread::sleep_for(Seconds(delay));
    const std::string ended = KillWriter(pid);
    if (!ended.empty()) {
      failure = "the writer ended before the kill (" + ended + "):\n" +
                Tail(ReadFile(root + "/writer.log"));
      break;
    }
    const Round round = CheckRoot(root);
    if (!round.failure.empty()) {
      failure = round.failure;
      break;
    }
    std::string outcome = round.found;
    if (crash::IsListScenario(scenario)) {
      const uint64_t writes = ParseWrites(round.line);
      if (writes == writes_before) outcome = "before";
      SetProgress(root, writes);
    }
    ++outcomes[outcome];
    std::printf("kill %d/%d delay %.3f s: %s -> %s\n", round_number + 1, kills, delay,
                round.line.c_str(), outcome.c_str());
    std::fflush(stdout);
  }

  const double wall = Seconds(Clock::now() - started).count();
  std::string summary;
  if (crash::IsListScenario(scenario)) {
    for (const char* name : {"before", "A", "B", "MIXED"}) {
      summary += std::string(", ") + name + " " + std::to_string(outcomes[name]);
    }
  } else {
    for (const auto& [name, count] : outcomes) {
      summary += ", " + name + " " + std::to_string(count);
    }
  }
  std::printf("crash %s: %d kills%s, checker failures %d, seed %llu, %.1f s\n", g_scenario.c_str(),
              round_number + (failure.empty() ? 0 : 1), summary.c_str(), failure.empty() ? 0 : 1,
              static_cast<unsigned long long>(seed), wall);
  if (!failure.empty()) {
    std::printf("FAILED at kill %d: %s\nroot kept at %s\n", round_number + 1, failure.c_str(),
                root.c_str());
    return 1;
  }
  testing_support::RemoveTree(base);
  return 0;
}
