#include "ctl_test_util.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "dravinhold/enrichment_store/enrichment_lru_store.pb.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#include "dravinhold/fvhash_store/fvhash_store.pb.h"
#include "dravinhold/general_settings_policy_store/general_settings_policy_store.pb.h"
#include "dravinhold/process_settings_policy_store/process_settings_policy_store.pb.h"
#include "dravinhold/trusted_signers_cache/trusted_signers_cache.pb.h"
#include "dravinhold/trusted_signers_store/trusted_signers_store.pb.h"
#include "persistence/db.h"
#include "support/damage.h"

extern char** environ;

namespace ctl_test {
namespace {

// The environment of this process with "changes" applied, as "NAME=value".
std::vector<std::string> ChildEnvironment(const EnvChanges& changes) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('='));
    if (changes.count(name) == 0) entries.push_back(text);
  }
  for (const auto& [name, value] : changes) {
    if (value) entries.push_back(name + "=" + *value);
  }
  return entries;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

std::vector<std::string> ToolRun::OutLines() const { return SplitLines(out); }
std::vector<std::string> ToolRun::ErrLines() const { return SplitLines(err); }

ToolRun RunTool(const std::vector<std::string>& args, const EnvChanges& env, int timeout_seconds,
                bool stderr_on_terminal, const std::string& input_file) {
  std::vector<std::string> argv_texts = {DRAVINHOLDCTL_PATH};
  argv_texts.insert(argv_texts.end(), args.begin(), args.end());
  std::vector<char*> argv = Pointers(argv_texts);
  std::vector<std::string> env_texts = ChildEnvironment(env);
  std::vector<char*> envp = Pointers(env_texts);

  int out_pipe[2];
  int err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  // The terminal: this process reads its master side, the child writes to
  // its other side in place of the pipe.
  std::string terminal;
  if (stderr_on_terminal) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
      throw std::runtime_error("no pseudo-terminal");
    }
    terminal = ptsname(master);
    close(err_pipe[0]);
    close(err_pipe[1]);
    err_pipe[0] = master;
    err_pipe[1] = -1;
  }
  const char* terminal_name = terminal.empty() ? nullptr : terminal.c_str();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    // Only async-signal-safe calls from here on.
    const int null_fd = open(input_file.c_str(), O_RDONLY);
    const int err_fd =
        terminal_name != nullptr ? open(terminal_name, O_RDWR | O_NOCTTY) : err_pipe[1];
    if (null_fd < 0 || err_fd < 0 || dup2(null_fd, 0) < 0 || dup2(out_pipe[1], 1) < 0 ||
        dup2(err_fd, 2) < 0) {
      _exit(127);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(out_pipe[1]);
  if (err_pipe[1] >= 0) close(err_pipe[1]);

  ToolRun run;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&run.out, &run.err};
  int open_pipes = 2;
  while (open_pipes > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      run.timed_out = true;
      kill(pid, SIGKILL);
      break;
    }
    const int ready = poll(fds, 2, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      char buffer[65536];
      const ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
      if (got > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(got));
      } else if (got == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_pipes;
      }
    }
  }
  for (const struct pollfd& fd : fds) {
    if (fd.fd >= 0) close(fd.fd);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) run.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
  if (run.exit_code == 127 && run.out.empty() && run.err.empty()) {
    ADD_FAILURE() << "could not start " << DRAVINHOLDCTL_PATH;
  }
  EXPECT_FALSE(run.timed_out) << "dravinholdctl did not end within " << timeout_seconds << " s";
  return run;
}

ToolRun RunAt(const std::string& root, std::vector<std::string> args) {
  args.insert(args.begin(), {"--root", root});
  return RunTool(args);
}

void WriteStore(const std::string& path, const Records& records, bool compact) {
  persistence::DB db(path);
  leveldb::Status status = db.Open(false, true, false, 0);
  if (!status.ok()) throw std::runtime_error("open " + path + ": " + status.ToString());
  if (!records.empty()) {
    std::vector<std::string> keys;
    std::vector<std::string> values;
    for (const auto& [key, value] : records) {
      keys.push_back(key);
      values.push_back(value);
    }
    status = db.Put(keys, values, true);
    if (!status.ok()) throw std::runtime_error("put " + path + ": " + status.ToString());
  }
  if (compact) {
    status = db.Compact();
    if (!status.ok()) throw std::runtime_error("compact " + path + ": " + status.ToString());
  }
  db.Close();
}

void WriteEach(const std::string& path, const Records& records) {
  persistence::DB db(path);
  leveldb::Status status = db.Open(false, true, false, 0);
  if (!status.ok()) throw std::runtime_error("open " + path + ": " + status.ToString());
  for (const auto& [key, value] : records) {
    status = db.Put(key, value, true);
    if (!status.ok()) throw std::runtime_error("put " + path + ": " + status.ToString());
  }
  db.Close();
}

Records ReadStore(const std::string& path) {
  persistence::DB db(path);
  leveldb::Status status = db.Open(false, false, false, 0);
  if (!status.ok()) throw std::runtime_error("open " + path + ": " + status.ToString());
  std::vector<std::string> keys;
  std::vector<std::string> values;
  status = db.Dump(&keys, &values, nullptr);
  if (!status.ok()) throw std::runtime_error("dump " + path + ": " + status.ToString());
  Records records;
  for (size_t i = 0; i < keys.size(); ++i) records.emplace_back(keys[i], values[i]);
  return records;
}

std::string FvhashValue(bool verdict) {
  proto::FVhashStore::Value value;
  value.set_verdict(verdict);
  return value.SerializeAsString();
}

std::string SignerValue(const std::string& name) {
  proto::TrustedSignersStore::Value value;
  value.set_name(name);
  return value.SerializeAsString();
}

std::string CacheValue(const std::string& certhash, int64_t last_used, uint64_t index) {
  proto::TrustedSignersCacheStore::Value value;
  value.set_certhash(certhash);
  value.set_last_used(last_used);
  value.set_index(index);
  return value.SerializeAsString();
}

std::string GeneralKey(int32_t module_id) {
  proto::GeneralSettingsPolicyStore::Key key;
  key.set_module_id(module_id);
  return key.SerializeAsString();
}

std::string ProcessKey(const std::string& process_name, int32_t module_id) {
  proto::ProcessSettingsPolicyStore::Key key;
  key.set_process_name(process_name);
  key.set_module_id(module_id);
  return key.SerializeAsString();
}

std::string PolicyValue(const std::string& policy) {
  proto::GeneralSettingsPolicyStore::Value value;
  value.set_policy(policy);
  return value.SerializeAsString();
}

std::string EnrichmentValue(const std::string& image_path, int64_t last_used, uint64_t index) {
  proto::EnrichmentStore::Value value;
  value.set_image_path(image_path);
  value.mutable_lru_data()->set_last_used(last_used);
  value.mutable_lru_data()->set_index(index);
  return value.SerializeAsString();
}

std::string LruKey(uint64_t index) {
  char buffer[21] = {};
  std::snprintf(buffer, sizeof(buffer), "%20llu", static_cast<unsigned long long>(index));
  return std::string(buffer, 20);
}

std::string LruValue(const std::string& foreign_key) {
  proto::EnrichmentLruStore::Value value;
  value.set_foreign_key(foreign_key);
  return value.SerializeAsString();
}

Records ManySigners() {
  // Names of hex digits from a fixed generator: the same every run, and
  // hardly compressible, so that the tables take what the records take.
  uint64_t state = 88172645463325252ull;
  Records records;
  for (int i = 0; i < 10000; ++i) {
    char key[32];
    std::snprintf(key, sizeof(key), "signer-%06d", i);
    std::string name = "Signer " + std::to_string(i) + " ";
    while (name.size() < 250) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      name += "0123456789abcdef"[state & 15];
    }
    records.emplace_back(key, SignerValue(name));
  }
  return records;
}

std::map<std::string, std::string> Snapshot(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name == "LOCK" || name == "LOG" || name == "LOG.old") continue;
    files[name] = testing_support::ReadFile(entry.path().string());
  }
  return files;
}

bool PathExists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

}  // namespace ctl_test
