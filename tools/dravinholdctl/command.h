// The shape shared by dravinholdctl's subcommands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store_catalog.h"

namespace dravinholdctl {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

struct Context {
  std::string root;  // the data root the stores lie under
};

// A subcommand's arguments: positional words and "--name [value]" options.
class Arguments {
 public:
  // "flags" are options without a value, "valued" those with one. False with
  // *error set for an unknown option or a missing value.
  bool Parse(const std::vector<std::string>& words, const std::vector<std::string>& flags,
             const std::vector<std::string>& valued, std::string* error);

  const std::vector<std::string>& positional() const { return positional_; }
  bool Has(const std::string& option) const;
  // The option's value, or "fallback" when it was not given.
  std::string Value(const std::string& option, const std::string& fallback = "") const;

 private:
  std::vector<std::string> positional_;
  std::vector<std::pair<std::string, std::string>> options_;
};

struct Command {
  const char* name;
  const char* usage;    // after "dravinholdctl [--root DIR] "
  const char* summary;  // one line
  const char* details;  // the rest of its help text
  int (*run)(const Context& context, const Arguments& arguments);
  std::vector<std::string> flags;
  std::vector<std::string> valued;
  size_t min_positional;
  size_t max_positional;
};

const std::vector<Command>& Commands();

// A count given on the command line: decimal digits only, no sign, at most
// 2^64 - 1. False for anything else.
bool ParseCount(const std::string& text, uint64_t* count);

// Writes "dravinholdctl: <message>" to standard error and returns kFailure.
int Fail(const std::string& message);

// The store named by argument "index", or null after a usage message.
const StoreInfo* StoreArgument(const Arguments& arguments, size_t index);

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

}  // namespace dravinholdctl
