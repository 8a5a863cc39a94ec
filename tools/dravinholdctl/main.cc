// dravinholdctl: looks into the stores of libdravinhold on this host.
//
// Inspection never destroys, recreates or repairs anything; only "repair"
// and "import" change a store, and only one that no other process holds.
// Exit codes: 0 success, 1 failure, 2 usage.

#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "command.h"

namespace dravinholdctl {
namespace {

constexpr char kDefaultRoot[] = "/var/lib/zerla";

void PrintUsage(FILE* out) {
  std::fprintf(out,
               "usage: dravinholdctl [--root DIR] COMMAND [ARGS]\n\n"
               "Looks into the stores of libdravinhold under DIR (default $ZERLA_DATA_ROOT, "
               "else %s).\n\nCommands:\n",
               kDefaultRoot);
  for (const Command& command : Commands()) {
    std::fprintf(out, "  %-8s %s\n", command.name, command.summary);
  }
  std::fprintf(out,
               "\nStores: %s\n\"dravinholdctl COMMAND --help\" tells more. Exit codes: 0 success, "
               "1 failure, 2 usage.\n",
               StoreNames().c_str());
}

void PrintCommandHelp(const Command& command) {
  std::printf("usage: dravinholdctl [--root DIR] %s\n\n%s\n%s", command.usage, command.summary,
              command.details);
}

const Command* FindCommand(const std::string& name) {
  for (const Command& command : Commands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

}  // namespace

bool Arguments::Parse(const std::vector<std::string>& words, const std::vector<std::string>& flags,
                      const std::vector<std::string>& valued, std::string* error) {
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word.size() < 2 || word.compare(0, 2, "--") != 0) {
      positional_.push_back(word);
    } else if (std::find(flags.begin(), flags.end(), word) != flags.end()) {
      options_.emplace_back(word, "");
    } else if (std::find(valued.begin(), valued.end(), word) != valued.end()) {
      if (i + 1 == words.size()) {
        *error = word + " needs a value";
        return false;
      }
      options_.emplace_back(word, words[++i]);
    } else {
      *error = "unknown option " + word;
      return false;
    }
  }
  return true;
}

bool Arguments::Has(const std::string& option) const {
  for (const auto& [name, value] : options_) {
    if (name == option) return true;
  }
  return false;
}

std::string Arguments::Value(const std::string& option, const std::string& fallback) const {
  for (const auto& [name, value] : options_) {
    if (name == option) return value;
  }
  return fallback;
}

bool ParseCount(const std::string& text, uint64_t* count) {
  if (text.empty()) return false;
  uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (UINT64_MAX - digit) / 10) return false;
    value = value * 10 + digit;
  }
  *count = value;
  return true;
}

int Fail(const std::string& message) {
  std::fprintf(stderr, "dravinholdctl: %s\n", message.c_str());
  return kFailure;
}

const StoreInfo* StoreArgument(const Arguments& arguments, size_t index) {
  const std::string& name = arguments.positional()[index];
  const StoreInfo* store = FindStore(name);
  if (store == nullptr) {
    std::fprintf(stderr, "dravinholdctl: no store named \"%s\"; the stores are: %s\n", name.c_str(),
                 StoreNames().c_str());
  }
  return store;
}

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"stores",
       "stores",
       "Lists the stores with their directory, size on disk and records.",
       "\nFor each store: present or not, the process that holds it open if another one\n"
       "does (\"pid N\"), its size on disk, its records, and its directory.\n",
       RunStores,
       {},
       {},
       0,
       0},
      {"dump",
       "dump STORE [--json] [--limit N] [--start KEY]",
       "Prints the records of STORE in key order, decoded.",
       "\nEach record is a line \"<key> => <value>\", or with --json a JSON object\n"
       "{\"key\": ..., \"value\": {...}}. --start begins at KEY (or the key after it),\n"
       "--limit stops after N records. KEY is the key itself for stores with string keys,\n"
       "and the key message in protobuf text format for the policy stores, e.g.\n"
       "  'module_id: 5'   or   'process_name: \"bash\" module_id: 5'\n",
       RunDump,
       {"--json"},
       {"--limit", "--start"},
       1,
       1},
      {"get",
       "get STORE KEY [--json]",
       "Prints the record of KEY in STORE.",
       "\nKEY is written as for dump --start. Exit 1 when it is not there.\n",
       RunGet,
       {"--json"},
       {},
       2,
       2},
      {"count",
       "count STORE",
       "Prints the number of records in STORE.",
       "",
       RunCount,
       {},
       {},
       1,
       1},
      {"verify",
       "verify STORE|--all",
       "Reads every block of the store with its checksum verified.",
       "\nShows a progress bar on a terminal. Exit 1, with a line saying where, when any\n"
       "damage is found. With --all, every store present is verified.\n",
       RunVerify,
       {"--all"},
       {},
       0,
       1},
      {"repair",
       "repair STORE",
       "Repairs STORE with the engine's repair, and tells its records before and after.",
       "\nRefused for a store that another process holds open.\n",
       RunRepair,
       {},
       {},
       1,
       1},
      {"stats",
       "stats STORE",
       "Prints the engine's statistics, table files and size of STORE.",
       "",
       RunStats,
       {},
       {},
       1,
       1},
      {"lru",
       "lru [--json] [--limit N]",
       "Prints the enrichment store's order of use, oldest first, and checks it.",
       "\nEach row: its index, the entry's last use as a date, the entry's key, and a note\n"
       "when the entry is gone or has a newer row. Then a report: rows whose entry is\n"
       "gone, entries with no row, entries whose index names another key's row. Exit 1\n"
       "when a record of either database does not decode.\n",
       RunLru,
       {"--json"},
       {"--limit"},
       0,
       0},
      {"export",
       "export STORE FILE [--json]",
       "Writes STORE's records to FILE as its bulk message (binary, or JSON).",
       "",
       RunExport,
       {"--json"},
       {},
       2,
       2},
      {"import",
       "import STORE FILE [--json]",
       "Replaces all records of STORE by those in FILE, atomically.",
       "\nFILE holds the store's bulk message as written by export. A file without records\n"
       "is refused and the store left as it was. Refused for a store that another process\n"
       "holds open; a store that is not there is created.\n",
       RunImport,
       {"--json"},
       {},
       2,
       2},
  };
  return commands;
}

}  // namespace dravinholdctl

int main(int argc, char** argv) {
  using namespace dravinholdctl;
  // The tool says what went wrong in its own one line; protobuf's log lines
  // (a string field that is not UTF-8, say) would only come on top of it.
  google::protobuf::SetLogHandler(nullptr);
  std::vector<std::string> words(argv + 1, argv + argc);
  Context context;
  const char* environment_root = std::getenv("ZERLA_DATA_ROOT");
  context.root =
      environment_root != nullptr && *environment_root != '\0' ? environment_root : kDefaultRoot;
  if (!words.empty() && words[0] == "--root") {
    if (words.size() < 2 || words[1].empty()) {
      std::fprintf(stderr, "dravinholdctl: --root needs a directory\n\n");
      PrintUsage(stderr);
      return kUsage;
    }
    context.root = words[1];
    words.erase(words.begin(), words.begin() + 2);
  }
  if (words.empty()) {
    PrintUsage(stderr);
    return kUsage;
  }
  if (words[0] == "--help" || words[0] == "help") {
    if (words.size() == 1) {
      PrintUsage(stdout);
      return kSuccess;
    }
    const Command* command = FindCommand(words[1]);
    if (command == nullptr) {
      std::fprintf(stderr, "dravinholdctl: no command \"%s\"\n\n", words[1].c_str());
      PrintUsage(stderr);
      return kUsage;
    }
    PrintCommandHelp(*command);
    return kSuccess;
  }
  const Command* command = FindCommand(words[0]);
  if (command == nullptr) {
    std::fprintf(stderr, "dravinholdctl: no command \"%s\"\n\n", words[0].c_str());
    PrintUsage(stderr);
    return kUsage;
  }
  words.erase(words.begin());
  if (std::find(words.begin(), words.end(), "--help") != words.end()) {
    PrintCommandHelp(*command);
    return kSuccess;
  }
  Arguments arguments;
  std::string error;
  if (!arguments.Parse(words, command->flags, command->valued, &error)) {
    std::fprintf(stderr, "dravinholdctl: %s\nusage: dravinholdctl [--root DIR] %s\n", error.c_str(),
                 command->usage);
    return kUsage;
  }
  const size_t count = arguments.positional().size();
  if (count < command->min_positional || count > command->max_positional) {
    std::fprintf(stderr, "dravinholdctl: %s\nusage: dravinholdctl [--root DIR] %s\n",
                 count < command->min_positional ? "missing argument" : "too many arguments",
                 command->usage);
    return kUsage;
  }
  // Every command looks under the data root; without it each would only say
  // that its stores are not there, and not why.
  std::error_code error_code;
  const std::filesystem::file_status root = std::filesystem::status(context.root, error_code);
  if (root.type() == std::filesystem::file_type::not_found) {
    return Fail("data root " + context.root + " does not exist");
  }
  if (error_code) {
    return Fail("data root " + context.root + ": " + error_code.message());
  }
  if (!std::filesystem::is_directory(root)) {
    return Fail("data root " + context.root + " is not a directory");
  }
  return command->run(context, arguments);
}
