// dravinholdctl: looks into the stores of libdravinhold on this host.
//
// Inspection reads a private copy of a store, also of one that a running
// process holds, and never writes to the store; only "repair" and "import"
// change a store, and only one that no other process holds.

#include <getopt.h>
#include <sys/stat.h>

#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cleanup.h"
#include "command.h"

#ifndef DRAVINHOLD_VERSION
#define DRAVINHOLD_VERSION "unknown"
#endif

namespace dravinholdctl {
namespace {

constexpr char kDefaultRoot[] = "/var/lib/zerla";

// Options every command takes.
const std::vector<std::string>& GlobalOptions() {
  static const std::vector<std::string> options = {"root", "json", "help", "version"};
  return options;
}

void PrintUsage(FILE* out) {
  std::fprintf(out,
               "usage: dravinholdctl [--root DIR] [--json] COMMAND [ARGS]\n"
               "       dravinholdctl --help | --version | help COMMAND\n\n"
               "Looks into the stores of libdravinhold under DIR (default $ZERLA_DATA_ROOT, "
               "else %s),\nalso while a running process holds them.\n\nCommands:\n",
               kDefaultRoot);
  for (const Command& command : Commands()) {
    std::fprintf(out, "  %-8s %s\n", command.name, command.summary);
  }
  std::fprintf(out,
               "\nStores: %s\n\n"
               "Options go anywhere, as \"--name value\" or \"--name=value\"; \"--\" ends them.\n"
               "--json: answers as JSON, one object per answer, JSON Lines for streams of\n"
               "records. \"dravinholdctl COMMAND --help\" tells more.\n"
               "Exit codes: 0 sound, 1 damaged or failed, 2 usage, 3 could not check (no data\n"
               "root, no permission, no room for the copy).\n",
               StoreNames().c_str());
}

void PrintCommandHelp(const Command& command) {
  std::printf("usage: dravinholdctl [--root DIR] [--json] %s\n\n%s\n%s", command.usage,
              command.summary, command.details);
}

const Command* FindCommand(const std::string& name) {
  for (const Command& command : Commands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

int UsageError(const std::string& message, const Command* command) {
  std::fprintf(stderr, "dravinholdctl: %s\n", message.c_str());
  if (command != nullptr) {
    std::fprintf(stderr, "usage: dravinholdctl [--root DIR] [--json] %s\n", command->usage);
  } else {
    std::fprintf(stderr, "\n");
    PrintUsage(stderr);
  }
  return kUsage;
}

// The data root must be a directory: a typo must not pass for a host
// without stores.
bool CheckRoot(const std::string& root) {
  struct stat info;
  if (stat(root.c_str(), &info) != 0) {
    std::fprintf(stderr, "dravinholdctl: no data root at %s: %s\n", root.c_str(),
                 std::strerror(errno));
    return false;
  }
  if (!S_ISDIR(info.st_mode)) {
    std::fprintf(stderr, "dravinholdctl: the data root %s is not a directory\n", root.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool Arguments::Parse(int argc, char** argv, std::string* error) {
  static const struct option kOptions[] = {
      {"root", required_argument, nullptr, 0},
      {"json", no_argument, nullptr, 0},
      {"help", no_argument, nullptr, 0},
      {"version", no_argument, nullptr, 0},
      {"limit", required_argument, nullptr, 0},
      {"start", required_argument, nullptr, 0},
      {"all", no_argument, nullptr, 0},
      {"allow-empty", no_argument, nullptr, 0},
      {nullptr, 0, nullptr, 0},
  };
  opterr = 0;
  optind = 1;
  for (;;) {
    int index = -1;
    const int found = getopt_long(argc, argv, ":h", kOptions, &index);
    if (found == -1) break;
    if (found == 'h') {
      options_["help"] = "";
    } else if (found == 0 && index >= 0) {
      options_[kOptions[index].name] = optarg != nullptr ? optarg : "";
    } else if (found == ':') {
      *error = std::string(argv[optind - 1]) + " needs a value";
      return false;
    } else {
      *error = optopt != 0 ? std::string("unknown option -") + static_cast<char>(optopt)
                           : "unknown option " + std::string(argv[optind - 1]);
      return false;
    }
  }
  for (int i = optind; i < argc; ++i) positional_.push_back(argv[i]);
  return true;
}

std::string Arguments::Value(const std::string& option, const std::string& fallback) const {
  const auto found = options_.find(option);
  return found == options_.end() ? fallback : found->second;
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

int CannotCheck(const std::string& message) {
  std::fprintf(stderr, "dravinholdctl: %s\n", message.c_str());
  return kCannotCheck;
}

void PrintLine(const std::string& line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
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
       "\nFor each store: present or not, the process that holds it open if one does\n"
       "(\"pid N\"), its size on disk, its records, and its directory. A store that a\n"
       "process holds is read from a copy as any other. Exit 1 when a store is damaged,\n"
       "3 when one could not be read for another reason.\n",
       RunStores,
       {},
       0,
       0,
       true},
      {"dump",
       "dump STORE [--limit N] [--start KEY]",
       "Prints the records of STORE in key order, decoded.",
       "\nEach record is a line \"<key> => <value>\": the key in double quotes with C\n"
       "escapes (\\xNN for bytes that are not printable or not UTF-8), or the key\n"
       "message in protobuf text format for the policy stores, e.g. {module_id: 5};\n"
       "the value in text format. With --json each record is a JSON object on a line of\n"
       "its own (JSON Lines): {\"key\": \"...\", \"value\": {...}}, where a key that is not\n"
       "UTF-8 is given as \"key_base64\" (its bytes in base64) and the policy stores'\n"
       "keys as objects, {\"module_id\": 5}. 64-bit fields of the values are strings, as\n"
       "protobuf's JSON mapping has it. \"import\" reads these lines back.\n"
       "--start begins at KEY (or the key after it), --limit stops after N records.\n"
       "KEY is written in any form dump prints a key (see get).\n",
       RunDump,
       {"limit", "start"},
       1,
       1,
       true},
      {"get",
       "get STORE KEY",
       "Prints the record of KEY in STORE.",
       "\nKEY may be written in any form dump prints one: the key as it stands, the key\n"
       "in double quotes with C escapes (\"ab\\xffcd\"), a JSON record or key object as\n"
       "dump --json prints it ({\"key_base64\": \"...\"} for keys that are not UTF-8), or\n"
       "for the policy stores the key message in text format, with or without braces:\n"
       "  'module_id: 5'   '{process_name: \"bash\" module_id: 5}'   '{\"module_id\": 5}'\n"
       "A KEY that starts with \"-\" follows \"--\". Exit 1 when it is not there.\n",
       RunGet,
       {},
       2,
       2,
       true},
      {"count",
       "count STORE",
       "Prints the number of records in STORE.",
       "",
       RunCount,
       {},
       1,
       1,
       true},
      {"verify",
       "verify STORE|--all",
       "Reads every block of the store with its checksum verified.",
       "\nShows a progress bar on a terminal. With --all, every store present is verified.\n"
       "A damaged store is named with the file the damage is in. Exit 0 when every store\n"
       "verified is sound, 1 when damage is found, 3 when a store could not be checked\n"
       "(no data root, no permission, no room for the copy).\n",
       RunVerify,
       {"all"},
       0,
       1,
       true},
      {"repair",
       "repair STORE",
       "Repairs STORE with the engine's repair, and tells its records before and after.",
       "\nFirst copies the store as it was to STORE.before-repair-<time> beside it. Then\n"
       "runs the engine's repair, which moves what it cannot use into STORE/lost/; the\n"
       "files that went there are named. Refused for a store that another process holds\n"
       "open.\n",
       RunRepair,
       {},
       1,
       1,
       true},
      {"stats",
       "stats STORE",
       "Prints the engine's statistics, table files and size of STORE.",
       "",
       RunStats,
       {},
       1,
       1,
       true},
      {"lru",
       "lru [--limit N]",
       "Prints the enrichment store's order of use, oldest first, and checks it.",
       "\nEach row: its index, the entry's last use as a date, the entry's key, and a note\n"
       "when the entry is gone or has a newer row. Then a report: rows whose entry is\n"
       "gone, entries with no row, entries whose index names another key's row. With\n"
       "--json each row is a line of its own and the report the last line. Exit 1 when\n"
       "a record of either database does not decode.\n",
       RunLru,
       {"limit"},
       0,
       0,
       true},
      {"export",
       "export STORE FILE",
       "Writes STORE's records to FILE (\"-\": standard output), named by store and schema.",
       "\nBinary: the message dravinholdctl.Export: the store's name, the full name of its\n"
       "bulk message, and its records with their bytes as stored (field 3 reads as the\n"
       "store's bulk message). With --json: JSON Lines, a first line\n"
       "{\"store\": ..., \"schema\": ...} and then each record as dump --json prints it,\n"
       "keys that are not UTF-8 as \"key_base64\". Both give back the same bytes on\n"
       "import.\n",
       RunExport,
       {},
       2,
       2,
       true},
      {"import",
       "import STORE FILE [--allow-empty]",
       "Replaces all records of STORE by those in FILE (\"-\": standard input), atomically.",
       "\nFILE is what export writes, binary or JSON (told apart by its first byte), or\n"
       "the lines of dump --json. A file that names another store or schema is refused,\n"
       "and so is a file without records unless --allow-empty is given, which empties\n"
       "the store. Keys go in as the store's family writes them: the keys of fvhash_store\n"
       "and trusted_signers_store in lower case. An import into enrichment_store rebuilds\n"
       "its order of use (enrichment_store.lru), oldest use first; that database is not\n"
       "imported by itself. Refused for a store that another process holds open; a\n"
       "store that is not there is created.\n",
       RunImport,
       {"allow-empty"},
       2,
       2,
       true},
      {"dumpfile",
       "dumpfile FILE",
       "Prints the contents of one table, log or MANIFEST file of a store, raw.",
       "\nThe engine's own dump of the file: every entry of a table, every batch of a log,\n"
       "every edit of a MANIFEST, with keys and values as escaped bytes. The file is\n"
       "only read, also when a running process holds its store.\n",
       RunDumpFile,
       {},
       1,
       1,
       false},
  };
  return commands;
}

}  // namespace dravinholdctl

int main(int argc, char** argv) {
  using namespace dravinholdctl;
  InstallInterruptCleanup();
  // The tool says what went wrong in its own one line; protobuf's log lines
  // would only come on top of it.
  google::protobuf::SetLogHandler(nullptr);
  Arguments arguments;
  std::string error;
  if (!arguments.Parse(argc, argv, &error)) return UsageError(error, nullptr);
  if (arguments.Has("version")) {
    std::printf("dravinholdctl %s\n", DRAVINHOLD_VERSION);
    return kSuccess;
  }
  std::vector<std::string> words = arguments.positional();
  if (!words.empty() && words[0] == "help") {
    if (words.size() == 1) {
      PrintUsage(stdout);
      return kSuccess;
    }
    const Command* command = FindCommand(words[1]);
    if (command == nullptr) return UsageError("no command \"" + words[1] + "\"", nullptr);
    PrintCommandHelp(*command);
    return kSuccess;
  }
  if (words.empty()) {
    if (arguments.Has("help")) {
      PrintUsage(stdout);
      return kSuccess;
    }
    PrintUsage(stderr);
    return kUsage;
  }
  const Command* command = FindCommand(words[0]);
  if (command == nullptr) return UsageError("no command \"" + words[0] + "\"", nullptr);
  if (arguments.Has("help")) {
    PrintCommandHelp(*command);
    return kSuccess;
  }
  for (const auto& [name, value] : arguments.options()) {
    const std::vector<std::string>& global = GlobalOptions();
    if (std::find(global.begin(), global.end(), name) == global.end() &&
        std::find(command->options.begin(), command->options.end(), name) ==
            command->options.end()) {
      return UsageError("unknown option --" + name + " for " + command->name, command);
    }
  }
  arguments.ShiftCommand();
  const size_t count = arguments.positional().size();
  if (count < command->min_positional || count > command->max_positional) {
    return UsageError(count < command->min_positional ? "missing argument" : "too many arguments",
                      command);
  }
  Context context;
  const char* environment_root = std::getenv("ZERLA_DATA_ROOT");
  context.root =
      environment_root != nullptr && *environment_root != '\0' ? environment_root : kDefaultRoot;
  if (arguments.Has("root")) {
    if (arguments.Value("root").empty()) return UsageError("--root needs a directory", command);
    context.root = arguments.Value("root");
  }
  context.json = arguments.Has("json");
  if (command->uses_root && !CheckRoot(context.root)) return kCannotCheck;
  const int code = command->run(context, arguments);
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "dravinholdctl: cannot write the output: %s\n", std::strerror(errno));
    return code == kSuccess ? kFailure : code;
  }
  return code;
}
