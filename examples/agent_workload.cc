// An agent's day in a few seconds: the workload that libdravinhold.so serves.
//
// It links the shared library and uses the six families the way a host
// security agent does. At start it replaces the verdict list and the signer
// whitelist and loads policies; then, for a bounded time, a stream of file
// events asks a verdict for each file, checks and caches its signer, reads
// the policy of its process, and reads or writes the file's enrichment
// record. It ends with a table of operations per family and the stores on
// disk.
//
//   agent_workload [--seconds N] [--files N] [--quiet]
//
// The data root is $ZERLA_DATA_ROOT when it is set, else ./var under the
// working directory, which is created.

#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  double seconds = 12;  // long enough for the sync thread to write rows once
  int files = 20000;
  bool quiet = false;
};

// Operations and failures of one family.
struct Tally {
  const char* family;
  uint64_t operations = 0;
  uint64_t failures = 0;
  void Count(bool ok) {
    ++operations;
    if (!ok) ++failures;
  }
};

struct Tallies {
  Tally fvhash{"fvhash"};
  Tally signers{"trusted signers"};
  Tally cache{"signers cache"};
  Tally general{"general policy"};
  Tally process{"process policy"};
  Tally enrichment{"enrichment"};
  std::vector<const Tally*> All() const {
    return {&fvhash, &signers, &cache, &general, &process, &enrichment};
  }
};

const char* const kProcesses[] = {"bash", "sshd", "systemd", "python3", "nginx", "cron"};
const int32_t kModules[] = {1, 5, 7, 11, 14, 15, 18, 19, 20, 21};

std::string Hex(uint64_t value, int width) {
  char buffer[80];
  std::snprintf(buffer, sizeof(buffer), "%0*" PRIx64, width, value);
  return buffer;
}

// A file of the host: its hash (64 hex digits), its signer and its process.
std::string FileHash(int file) { return Hex(0x5eed0000u + static_cast<unsigned>(file), 64); }
std::string SignerHash(int file) { return Hex(0xc0de00u + static_cast<unsigned>(file % 97), 40); }
std::string ProcessOf(int file) { return kProcesses[file % 6]; }

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--seconds" && i + 1 < argc) {
      options->seconds = std::atof(argv[++i]);
    } else if (argument == "--files" && i + 1 < argc) {
      options->files = std::atoi(argv[++i]);
    } else if (argument == "--quiet") {
      options->quiet = true;
    } else {
      std::fprintf(stderr, "usage: agent_workload [--seconds N] [--files N] [--quiet]\n");
      return false;
    }
  }
  return options->seconds > 0 && options->files > 0;
}

std::string DataRoot() {
  const char* root = std::getenv("ZERLA_DATA_ROOT");
  if (root != nullptr && *root != '\0') return root;
  const std::string local = (std::filesystem::current_path() / "var").string();
  setenv("ZERLA_DATA_ROOT", local.c_str(), 1);
  return local;
}

// What an agent does when it starts: the lists it was sent replace the old.
void LoadLists(const Options& options, Tallies* tallies) {
  std::vector<persistence::fv_hash> verdicts;
  for (int file = 0; file < options.files; file += 2) {
    verdicts.push_back({file % 4 == 0, FileHash(file)});  // half the files are listed
  }
  tallies->fvhash.Count(persistence::FVhashStore_Put(verdicts) == 0);

  std::vector<persistence::trusted_signer> signers;
  for (int signer = 0; signer < 97; signer += 3) {
    signers.push_back({"Vendor " + std::to_string(signer), SignerHash(signer)});
  }
  tallies->signers.Count(persistence::TrustedSignersStore_Put(signers) == 0);

  std::vector<proto::GeneralSettingsPolicyStore::Key> keys;
  std::vector<proto::GeneralSettingsPolicyStore::Value> values;
  for (const int32_t module : kModules) {
    keys.emplace_back();
    keys.back().set_module_id(module);
    values.emplace_back();
    values.back().set_policy("general policy of module " + std::to_string(module));
  }
  tallies->general.Count(persistence::general_settings_policy_set_bulk(keys, values) == 0);
  for (const char* process : kProcesses) {
    for (const int32_t module : kModules) {
      const std::string policy(1024, static_cast<char>('a' + module % 26));
      tallies->process.Count(persistence::process_settings_policy_set(process, module, policy) ==
                             0);
    }
  }
}

proto::EnrichmentStore::Value Enrichment(int file) {
  proto::EnrichmentStore::Value value;
  value.set_image_path("/usr/lib/agent/demo/file-" + std::to_string(file));
  value.set_sha256(FileHash(file));
  value.set_md5(Hex(static_cast<uint64_t>(file) * 2654435761u, 32));
  value.set_sa_score(static_cast<double>(file % 100) / 100.0);
  value.mutable_signature_details()->set_vendor("Vendor " + std::to_string(file % 97));
  value.mutable_signature_details()->set_signature_state(1);
  for (const char* entitlement : {"network", "filesystem", "process"}) {
    value.add_entitlements(entitlement);
  }
  return value;
}

// One file event: the questions an agent asks about the file.
void OnFileEvent(int file, std::mt19937& random, Tallies* tallies) {
  const std::string hash = FileHash(file);
  persistence::FVhashStore_Check(hash);
  tallies->fvhash.Count(true);

  const std::string signer = SignerHash(file);
  tallies->signers.Count(true);
  std::string certhash;
  if (persistence::TrustedSignersStore_Check(signer) &&
      !persistence::trusted_signers_cache_get_trusted_signer(signer, &certhash)) {
    tallies->cache.Count(
        persistence::trusted_signers_cache_set_trusted_signer(signer, "cert-" + signer));
  } else {
    tallies->cache.Count(true);
  }

  std::string policy;
  const int32_t module = kModules[random() % 10];
  const int result = persistence::process_settings_policy_get(ProcessOf(file), module, &policy);
  tallies->process.Count(result == 0 || result == -ENODATA);

  proto::EnrichmentStore::Value enrichment;
  const persistence::Status status = persistence::EnrichmentStore_Get(hash, &enrichment);
  if (status.code == persistence::Status::kNotFound) {
    tallies->enrichment.Count(persistence::EnrichmentStore_PutEntry(hash, Enrichment(file)).ok());
  } else {
    tallies->enrichment.Count(status.ok());
  }
}

// Now and then: the configuration side of the agent.
void OnHousekeeping(uint64_t round, Tallies* tallies) {
  std::string policy;
  const int32_t module = kModules[round % 10];
  tallies->general.Count(persistence::general_settings_policy_get(module, &policy) == 0);
  if (round % 10 == 0) {
    uint64_t policies = 0;
    const int result = persistence::process_settings_policy_for_each(
        [&policies](const std::string&, int, const std::string&) { ++policies; });
    tallies->process.Count(result == 0);
    std::chrono::steady_clock::time_point checked_at;
    tallies->general.Count(persistence::general_settings_policy_loaded(&checked_at));
  }
}

void PrintProgress(double elapsed, double total, uint64_t events) {
  const int width = 30;
  const int done = static_cast<int>(width * elapsed / total);
  std::fprintf(stdout, "\r  [%-*.*s] %4.1f/%.0f s  %9" PRIu64 " file events", width, done,
               "##############################", elapsed, total, events);
  std::fflush(stdout);
}

uint64_t DirSize(const std::filesystem::path& path) {
  std::error_code error;
  uint64_t total = 0;
  for (auto it = std::filesystem::recursive_directory_iterator(path, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_regular_file(error)) total += it->file_size(error);
  }
  return total;
}

void PrintSummary(const Tallies& tallies, double elapsed, const std::string& root) {
  std::printf("\n%-18s %12s %9s %12s\n", "family", "operations", "failures", "per second");
  for (const Tally* tally : tallies.All()) {
    std::printf("%-18s %12" PRIu64 " %9" PRIu64 " %12.0f\n", tally->family, tally->operations,
                tally->failures, static_cast<double>(tally->operations) / elapsed);
  }

  unsigned long fvhash = 0, signers = 0, cache = 0, general = 0, process = 0;
  persistence::FVhashStore_Count(&fvhash);
  persistence::TrustedSignersStore_Count(&signers);
  persistence::TrustedSignersCacheStore_Count(&cache);
  persistence::GeneralSettingsPolicyStore_Count(&general);
  persistence::ProcessSettingsPolicyStore_Count(&process);
  std::vector<std::string> keys;
  std::vector<proto::EnrichmentStore::Value> values;
  persistence::EnrichmentStore_Dump(&keys, &values);
  const std::pair<const char*, uint64_t> stores[] = {{"fvhash_store", fvhash},
                                                     {"trusted_signers_store", signers},
                                                     {"trusted_signers_cache", cache},
                                                     {"general_settings_policy_store", general},
                                                     {"process_settings_policy_store", process},
                                                     {"enrichment_store", keys.size()}};
  std::printf("\n%-31s %10s %12s\n", "store", "records", "bytes");
  for (const auto& [name, records] : stores) {
    std::printf("%-31s %10" PRIu64 " %12" PRIu64 "\n", name, records,
                DirSize(std::filesystem::path(root) / name));
  }
  std::printf("%-31s %10s %12" PRIu64 "\n", "enrichment_store.lru", "",
              DirSize(std::filesystem::path(root) / "enrichment_store.lru"));
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) return 2;
  const std::string root = DataRoot();
  std::filesystem::create_directories(root);
  std::printf("Agent workload on %s for %.0f s, %d files\n", root.c_str(), options.seconds,
              options.files);

  Tallies tallies;
  const Clock::time_point start = Clock::now();
  LoadLists(options, &tallies);
  std::printf("  lists and policies loaded in %.2f s\n",
              std::chrono::duration<double>(Clock::now() - start).count());

  const bool terminal = !options.quiet && isatty(STDOUT_FILENO);
  std::mt19937 random(42);
  std::uniform_int_distribution<int> pick(0, options.files - 1);
  const Clock::time_point deadline =
      Clock::now() +
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds));
  uint64_t events = 0;
  Clock::time_point next_progress = Clock::now();
  while (Clock::now() < deadline) {
    OnFileEvent(pick(random), random, &tallies);
    if (++events % 256 == 0) OnHousekeeping(events / 256, &tallies);
    if (terminal && Clock::now() >= next_progress) {
      PrintProgress(std::chrono::duration<double>(Clock::now() - start).count(), options.seconds,
                    events);
      next_progress += std::chrono::milliseconds(200);
    }
  }
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  if (terminal) std::printf("\n");
  std::printf("  %" PRIu64 " file events in %.1f s\n", events, elapsed);
  PrintSummary(tallies, elapsed, root);
  return 0;
}
