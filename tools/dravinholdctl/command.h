// The shape shared by dravinholdctl's subcommands.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "store_catalog.h"

namespace dravinholdctl {

// Exit codes, the same for every command.
constexpr int kSuccess = 0;      // done; the store is sound
constexpr int kFailure = 1;      // damaged, not found, or the work failed
constexpr int kUsage = 2;        // the command line is wrong
constexpr int kCannotCheck = 3;  // the tool could not look: no root, no room, no permission

struct Context {
  std::string root;   // the data root the stores lie under
  bool json = false;  // answers as JSON: one object, or JSON Lines for streams
};

// The command line once parsed: positional words and options, given in any
// order, as "--name value" or "--name=value".
class Arguments {
 public:
  // Parses argv with getopt_long. False with *error set for an unknown
  // option or one without its value.
  bool Parse(int argc, char** argv, std::string* error);

  const std::vector<std::string>& positional() const { return positional_; }
  // Drops the first positional word, the command's name.
  void ShiftCommand() { positional_.erase(positional_.begin()); }
  bool Has(const std::string& option) const { return options_.count(option) != 0; }
  // The option's value, or "fallback" when it was not given.
  std::string Value(const std::string& option, const std::string& fallback = "") const;
  // The options given, by name without dashes.
  const std::map<std::string, std::string>& options() const { return options_; }

 private:
  std::vector<std::string> positional_;
  std::map<std::string, std::string> options_;
};

struct Command {
  const char* name;
  const char* usage;    // after "dravinholdctl [--root DIR] [--json] "
  const char* summary;  // one line
  const char* details;  // the rest of its help text
  int (*run)(const Context& context, const Arguments& arguments);
  std::vector<std::string> options;  // its own options, beyond the global ones
  size_t min_positional;
  size_t max_positional;
  bool uses_root;  // false for commands that look at a single file
};

const std::vector<Command>& Commands();

// A count given on the command line: decimal digits only, no sign, at most
// 2^64 - 1. False for anything else.
bool ParseCount(const std::string& text, uint64_t* count);

// Writes "dravinholdctl: <message>" to standard error and returns kFailure.
int Fail(const std::string& message);

// The same with kCannotCheck.
int CannotCheck(const std::string& message);

// The store named by argument "index", or null after a usage message.
const StoreInfo* StoreArgument(const Arguments& arguments, size_t index);

// Writes one line to standard output.
void PrintLine(const std::string& line);

// Commands, one per function.
int RunStores(const Context& context, const Arguments& arguments);
int RunDump(const Context& context, const Arguments& arguments);
int RunGet(const Context& context, const Arguments& arguments);
int RunCount(const Context& context, const Arguments& arguments);
int RunStats(const Context& context, const Arguments& arguments);
int RunVerify(const Context& context, const Arguments& arguments);
int RunRepair(const Context& context, const Arguments& arguments);
int RunExport(const Context& context, const Arguments& arguments);
int RunImport(const Context& context, const Arguments& arguments);
int RunLru(const Context& context, const Arguments& arguments);
int RunDumpFile(const Context& context, const Arguments& arguments);

}  // namespace dravinholdctl
