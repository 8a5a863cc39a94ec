// The damage campaign: stores filled through their families, harmed on disk
// in every way damage_patterns.cc knows, then used by fresh processes.
//
//   damage_campaign USER WORKDIR [--seeds N] [--first-seed N] [--targets a,b]
//                   [--patterns a,b] [--timeout SECONDS] [--bar alive|serves]
//
// For each target (a store, or the enrichment store's side database alone),
// pattern and seed: a copy of the filled store is damaged, then damage_user
// uses the store twice, each time in a fresh process. A use serves (every
// call succeeds), does not serve (a call fails), or ends: killed by a
// signal, exited abnormally, or hung past the timeout. A trial fails when a
// use ends; with --bar serves (the default) also when the store does not
// serve again, serves a record nobody wrote, or keeps what its recovery
// policy does not allow (see BelowTheBar). The run prints the table of
// outcomes and what was kept, then "N passed, N failed", and exits 1 on any
// failure.
//
// Cell letters, two per seed (first use, second use): S serves, N not
// serving, K killed, X exited abnormally, H hung.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "damage_patterns.h"

namespace {

namespace fs = std::filesystem;

constexpr int kRounds = 4;

struct Target {
  const char* name;
  const char* store;      // the damage_user family
  const char* directory;  // the directory harmed, under the data root
  // Records of the filled store; a store that recreates a damaged database
  // holds all of them or none.
  long long whole;
  bool recreates;
};

const std::vector<Target>& AllTargets() {
  static const std::vector<Target> kTargets = {
      {"fvhash", "fvhash", "fvhash_store", 4000, true},
      {"signers", "signers", "trusted_signers_store", 4000, true},
      {"cache", "cache", "trusted_signers_cache", 16000, true},
      {"general", "general", "general_settings_policy_store", 28, true},
      {"process", "process", "process_settings_policy_store", 1600, true},
      {"enrichment", "enrichment", "enrichment_store", 16000, false},
      {"enrichment.lru", "enrichment", "enrichment_store.lru", 16000, false},
  };
  return kTargets;
}

enum class Outcome { kServes, kNotServing, kKilled, kExited, kHung };

char Letter(Outcome outcome) {
  switch (outcome) {
    case Outcome::kServes:
      return 'S';
    case Outcome::kNotServing:
      return 'N';
    case Outcome::kKilled:
      return 'K';
    case Outcome::kExited:
      return 'X';
    case Outcome::kHung:
      return 'H';
  }
  return '?';
}

struct Use {
  Outcome outcome = Outcome::kExited;
  int signal = 0;
  std::map<std::string, long long> fields;
};

struct Run {
  int status = 0;  // waitpid's, when not hung
  bool hung = false;
  std::string out;
};

// Runs "argv" with ZERLA_DATA_ROOT set to "root", its standard error into
// "log", for at most "timeout".
Run RunProgram(const std::vector<std::string>& argv, const std::string& root,
               const std::string& log, std::chrono::seconds timeout,
               const std::map<std::string, std::string>& env = {}) {
  Run run;
  int out[2];
  if (pipe(out) != 0) {
    std::perror("pipe");
    std::exit(2);
  }
  const pid_t pid = fork();
  if (pid == 0) {
    close(out[0]);
    dup2(out[1], 1);
    const int err = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (err >= 0) dup2(err, 2);
    setenv("ZERLA_DATA_ROOT", root.c_str(), 1);
    for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    std::perror("execv");
    _exit(127);
  }
  close(out[1]);
  fcntl(out[0], F_SETFL, O_NONBLOCK);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buffer[4096];
  for (;;) {
    ssize_t n;
    while ((n = read(out[0], buffer, sizeof(buffer))) > 0) run.out.append(buffer, n);
    const pid_t waited = waitpid(pid, &run.status, WNOHANG);
    if (waited == pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &run.status, 0);
      run.hung = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ssize_t n;
  while ((n = read(out[0], buffer, sizeof(buffer))) > 0) run.out.append(buffer, n);
  close(out[0]);
  return run;
}

std::map<std::string, long long> ParseFields(const std::string& line) {
  std::map<std::string, long long> fields;
  std::istringstream words(line);
  std::string word;
  while (words >> word) {
    const size_t equals = word.find('=');
    if (equals != std::string::npos) {
      fields[word.substr(0, equals)] = std::atoll(word.c_str() + equals + 1);
    }
  }
  return fields;
}

Use Classify(const Run& run) {
  Use use;
  if (run.hung) {
    use.outcome = Outcome::kHung;
  } else if (WIFSIGNALED(run.status)) {
    use.outcome = Outcome::kKilled;
    use.signal = WTERMSIG(run.status);
  } else if (!WIFEXITED(run.status) || WEXITSTATUS(run.status) != 0 ||
             run.out.find("count=") == std::string::npos) {
    use.outcome = Outcome::kExited;
  } else {
    use.fields = ParseFields(run.out);
    const auto& f = use.fields;
    const bool serves = f.at("count") == 0 && f.at("write") == 0 && f.at("readback") == 1 &&
                        f.at("count_after") == 0 && f.at("dump") == 0 && f.at("sample_failed") == 0;
    use.outcome = serves ? Outcome::kServes : Outcome::kNotServing;
  }
  return use;
}

// Why a use that did not end falls below the raised bar, or "".
std::string BelowTheBar(const Target& target, const std::string& pattern, int use_number,
                        const Use& use) {
  if (use.fields.empty()) return "";
  const auto& f = use.fields;
  if (f.at("foreign") + f.at("wrong") + f.at("sample_wrong") != 0) {
    return "served " + std::to_string(f.at("foreign")) + " foreign keys and " +
           std::to_string(f.at("wrong") + f.at("sample_wrong")) + " values nobody wrote";
  }
  // A store whose path a regular file has taken answers with failures until
  // the file is gone; the enrichment store serves without its side database.
  const bool path_taken =
      pattern == "store-is-file" && std::string(target.name) != "enrichment.lru";
  if (use_number == 2 && use.outcome != Outcome::kServes && !path_taken) {
    return "does not serve at the second use";
  }
  // A cut log is a crash: any prefix of the writes is a state the store had.
  if (use_number == 1 && target.recreates && pattern != "log-truncate" &&
      pattern != "store-is-file" && f.at("count_n") != 0 && f.at("count_n") != target.whole) {
    return "holds " + std::to_string(f.at("count_n")) + " of " + std::to_string(target.whole) +
           " records: neither whole nor empty";
  }
  if (std::string(target.name) == "enrichment.lru" && f.at("kept") != target.whole) {
    return "kept " + std::to_string(f.at("kept")) + " of " + std::to_string(target.whole) +
           " entries after damage to the side database alone";
  }
  return "";
}

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  std::string part;
  while (std::getline(stream, part, ',')) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

struct Options {
  std::string user;
  std::string work;
  int seeds = 2;
  int first_seed = 1;
  std::vector<std::string> targets;
  std::vector<std::string> patterns;
  int timeout = 120;
  // "alive": a trial fails only when a use ends. "serves": also when the
  // second use does not serve (a store path taken by a file aside), when a
  // use meets a record nobody wrote, when a recreating store keeps part of
  // its records, or when the enrichment store loses records to damage in its
  // side database.
  std::string bar = "serves";
};

bool ParseOptions(int argc, char** argv, Options* options) {
  if (argc < 3) return false;
  options->user = fs::absolute(argv[1]).string();
  options->work = fs::absolute(argv[2]).string();
  if (const char* seeds = std::getenv("DRAVINHOLD_DAMAGE_SEEDS")) options->seeds = std::atoi(seeds);
  for (int i = 3; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--seeds") {
      options->seeds = std::atoi(value.c_str());
    } else if (name == "--first-seed") {
      options->first_seed = std::atoi(value.c_str());
    } else if (name == "--targets") {
      options->targets = Split(value);
    } else if (name == "--patterns") {
      options->patterns = Split(value);
    } else if (name == "--timeout") {
      options->timeout = std::atoi(value.c_str());
    } else if (name == "--bar" && (value == "alive" || value == "serves")) {
      options->bar = value;
    } else {
      return false;
    }
  }
  if ((argc - 3) % 2 != 0) return false;
  if (options->targets.empty()) {
    for (const Target& target : AllTargets()) options->targets.push_back(target.name);
  }
  if (options->patterns.empty()) {
    for (const damage::Pattern& pattern : damage::AllPatterns())
      options->patterns.push_back(pattern.name);
  }
  return options->seeds > 0;
}

const Target* FindTarget(const std::string& name) {
  for (const Target& target : AllTargets()) {
    if (name == target.name) return &target;
  }
  return nullptr;
}

// Fills a store for "target" under WORK/template/STORE, once per store.
std::string Template(const Options& options, const Target& target) {
  const std::string root = options.work + "/template/" + target.store;
  if (fs::exists(root + "/.filled")) return root;
  fs::remove_all(root);
  fs::create_directories(root);
  for (int round = 0; round < kRounds; ++round) {
    const Run run = RunProgram({options.user, "fill", target.store, std::to_string(round)}, root,
                               options.work + "/fill.log", std::chrono::seconds(options.timeout));
    if (run.hung || !WIFEXITED(run.status) || WEXITSTATUS(run.status) != 0) {
      std::fprintf(stderr, "damage_campaign: filling %s failed in round %d (see %s/fill.log)\n",
                   target.store, round, options.work.c_str());
      std::exit(2);
    }
  }
  std::FILE* mark = std::fopen((root + "/.filled").c_str(), "w");
  if (mark != nullptr) std::fclose(mark);
  return root;
}

uint64_t SeedOf(const std::string& target, const std::string& pattern, int seed) {
  uint64_t hash = 1469598103934665603ull;
  for (const char c : target + "/" + pattern)
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  return hash ^ static_cast<uint64_t>(seed) * 0x9e3779b97f4a7c15ull;
}

struct Cell {
  std::string letters;
  int passed = 0;
  int failed = 0;
  long long kept = 0;   // records kept by the rounds, second use, summed
  long long wrong = 0;  // foreign keys and wrong values, both uses
};

using Table = std::map<std::string, std::map<std::string, Cell>>;

// One row per pattern, one column per target, a cell as "text" makes it.
void PrintTable(const Options& options, Table& table, const char* title,
                const std::function<std::string(const Cell&)>& text) {
  std::printf("\n%s\n%-16s", title, "pattern");
  for (const std::string& target : options.targets) std::printf(" %-16s", target.c_str());
  std::printf("\n");
  for (const std::string& pattern : options.patterns) {
    std::printf("%-16s", pattern.c_str());
    for (const std::string& target : options.targets) {
      std::printf(" %-16s", text(table[target][pattern]).c_str());
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: damage_campaign USER WORKDIR [--seeds N] [--first-seed N] "
                 "[--targets a,b] [--patterns a,b] [--timeout SECONDS]\n");
    return 2;
  }
  fs::create_directories(options.work);
  const std::map<std::string, std::string> env = {
      {"DAMAGE_LAST_ROUND", std::to_string(kRounds - 1)}};

  Table table;
  int passed = 0, failed = 0;
  for (const std::string& target_name : options.targets) {
    const Target* target = FindTarget(target_name);
    if (target == nullptr) {
      std::fprintf(stderr, "damage_campaign: unknown target %s\n", target_name.c_str());
      return 2;
    }
    const std::string source = Template(options, *target);
    for (const std::string& pattern_name : options.patterns) {
      const damage::Pattern* pattern = damage::FindPattern(pattern_name);
      if (pattern == nullptr) {
        std::fprintf(stderr, "damage_campaign: unknown pattern %s\n", pattern_name.c_str());
        return 2;
      }
      Cell& cell = table[target_name][pattern_name];
      for (int seed = options.first_seed; seed < options.first_seed + options.seeds; ++seed) {
        const std::string root = options.work + "/trial";
        fs::remove_all(root);
        fs::copy(source, root, fs::copy_options::recursive);
        std::mt19937_64 random(SeedOf(target_name, pattern_name, seed));
        std::string why;
        const std::string log = options.work + "/trial.log";
        fs::remove(log);
        if (!pattern->apply(root + "/" + target->directory, random, &why)) {
          std::printf("%s %s seed %d: cannot apply: %s\n", target_name.c_str(),
                      pattern_name.c_str(), seed, why.c_str());
          ++failed;
          ++cell.failed;
          cell.letters += "--";
          continue;
        }
        bool trial_ok = true;
        for (int use_number = 1; use_number <= 2; ++use_number) {
          const Run run = RunProgram({options.user, "use", target->store}, root, log,
                                     std::chrono::seconds(options.timeout), env);
          const Use use = Classify(run);
          cell.letters += Letter(use.outcome);
          if (use.outcome == Outcome::kKilled || use.outcome == Outcome::kExited ||
              use.outcome == Outcome::kHung) {
            trial_ok = false;
            std::printf("%s %s seed %d use %d: %s%s\n", target_name.c_str(), pattern_name.c_str(),
                        seed, use_number,
                        use.outcome == Outcome::kHung     ? "hung"
                        : use.outcome == Outcome::kKilled ? "killed by signal "
                                                          : "exited abnormally",
                        use.outcome == Outcome::kKilled ? std::to_string(use.signal).c_str() : "");
            // Keeps the first failing trial's directory and log to look at.
            const std::string kept_dir = options.work + "/failed-" + target_name + "-" +
                                         pattern_name + "-" + std::to_string(seed);
            if (!fs::exists(kept_dir)) {
              fs::create_directories(kept_dir);
              fs::copy(log, kept_dir + "/stderr.log");
            }
            break;
          }
          if (!use.fields.empty()) {
            cell.wrong += use.fields.at("foreign") + use.fields.at("wrong");
            if (use_number == 2) cell.kept += use.fields.at("kept");
          }
          if (options.bar == "serves") {
            const std::string why = BelowTheBar(*target, pattern_name, use_number, use);
            if (!why.empty()) {
              trial_ok = false;
              std::printf("%s %s seed %d use %d: %s\n", target_name.c_str(), pattern_name.c_str(),
                          seed, use_number, why.c_str());
            }
          }
        }
        if (trial_ok) {
          ++passed;
          ++cell.passed;
        } else {
          ++failed;
          ++cell.failed;
        }
        cell.letters += ' ';
      }
    }
  }

  // The outcome table, then what the second use found of the written records
  // (average per trial) and how many records held what nobody wrote.
  PrintTable(options, table,
             "Outcomes (per seed: first use, second use; S serves, N not serving, "
             "K killed, X exited abnormally, H hung)",
             [](const Cell& cell) { return cell.letters; });
  PrintTable(options, table,
             "Records of the rounds kept at the second use (average per trial; "
             "+N: records served that nobody wrote)",
             [](const Cell& cell) {
               const int trials = cell.passed + cell.failed;
               std::string text = std::to_string(trials == 0 ? 0 : cell.kept / trials);
               if (cell.wrong != 0) text += " +" + std::to_string(cell.wrong);
               return text;
             });
  std::printf("\n%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
