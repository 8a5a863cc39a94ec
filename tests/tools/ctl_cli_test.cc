// dravinholdctl's command line: help texts, the data root, and the exit code
// 2 with one "dravinholdctl: ..." line for every misuse.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "ctl_test_util.h"

namespace ctl_test {
namespace {

const std::vector<std::string> kCommands = {"stores", "dump",  "get", "count",  "verify",
                                            "repair", "stats", "lru", "export", "import"};

const char kStoreList[] =
    "fvhash_store, trusted_signers_store, trusted_signers_cache, general_settings_policy_store, "
    "process_settings_policy_store, enrichment_store, enrichment_store.lru";

const std::vector<std::string> kToolHelp = {
    "usage: dravinholdctl [--root DIR] COMMAND [ARGS]",
    "",
    "Looks into the stores of libdravinhold under DIR (default $ZERLA_DATA_ROOT, else "
    "/var/lib/zerla).",
    "",
    "Commands:",
    "  stores   Lists the stores with their directory, size on disk and records.",
    "  dump     Prints the records of STORE in key order, decoded.",
    "  get      Prints the record of KEY in STORE.",
    "  count    Prints the number of records in STORE.",
    "  verify   Reads every block of the store with its checksum verified.",
    "  repair   Repairs STORE with the engine's repair, and tells its records before and after.",
    "  stats    Prints the engine's statistics, table files and size of STORE.",
    "  lru      Prints the enrichment store's order of use, oldest first, and checks it.",
    "  export   Writes STORE's records to FILE as its bulk message (binary, or JSON).",
    "  import   Replaces all records of STORE by those in FILE, atomically.",
    "",
    std::string("Stores: ") + kStoreList,
    "\"dravinholdctl COMMAND --help\" tells more. Exit codes: 0 success, 1 failure, 2 usage.",
};

using CtlCliTest = CtlTest;

TEST_F(CtlCliTest, HelpOptionPrintsTheToolsHelpOnStandardOutput) {
  const ToolRun run = RunTool({"--help"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines(), kToolHelp);
  EXPECT_EQ(run.err, "");
}

TEST_F(CtlCliTest, HelpCommandAloneIsTheHelpOption) {
  const ToolRun run = RunTool({"help"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines(), kToolHelp);
  EXPECT_EQ(run.err, "");
}

TEST_F(CtlCliTest, NoCommandPrintsTheHelpOnStandardErrorWithExitTwo) {
  const ToolRun run = Ctl({});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), kToolHelp);
}

TEST_F(CtlCliTest, EveryCommandHasItsHelpBothWays) {
  for (const std::string& command : kCommands) {
    SCOPED_TRACE(command);
    const ToolRun option = RunTool({command, "--help"});
    const ToolRun word = RunTool({"help", command});
    EXPECT_EXIT_CODE(option, 0);
    EXPECT_EXIT_CODE(word, 0);
    EXPECT_EQ(option.err, "");
    EXPECT_EQ(word.err, "");
    EXPECT_EQ(option.out, word.out);
    const std::vector<std::string> lines = option.OutLines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0].rfind("usage: dravinholdctl [--root DIR] " + command, 0), 0u) << lines[0];
    EXPECT_EQ(lines[1], "");
  }
}

TEST_F(CtlCliTest, DumpHelpTellsHowKeysAreWritten) {
  const ToolRun run = RunTool({"dump", "--help"});
  EXPECT_EXIT_CODE(run, 0);
  const std::vector<std::string> expected = {
      "usage: dravinholdctl [--root DIR] dump STORE [--json] [--limit N] [--start KEY]",
      "",
      "Prints the records of STORE in key order, decoded.",
      "",
      "Each record is a line \"<key> => <value>\", or with --json a JSON object",
      "{\"key\": ..., \"value\": {...}}. --start begins at KEY (or the key after it),",
      "--limit stops after N records. KEY is the key itself for stores with string keys,",
      "and the key message in protobuf text format for the policy stores, e.g.",
      "  'module_id: 5'   or   'process_name: \"bash\" module_id: 5'",
  };
  EXPECT_EQ(run.OutLines(), expected);
}

TEST_F(CtlCliTest, HelpWithAnOptionAfterOtherArgumentsStillHelps) {
  const ToolRun run = Ctl({"count", "no_such_store", "--help"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines().at(0), "usage: dravinholdctl [--root DIR] count STORE");
  EXPECT_EQ(run.err, "");
}

TEST_F(CtlCliTest, HelpOfAnUnknownCommandIsAUsageError) {
  const ToolRun run = RunTool({"help", "frobnicate"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  const std::vector<std::string> lines = run.ErrLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "dravinholdctl: no command \"frobnicate\"");
  EXPECT_EQ(lines[1], "");
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 2, lines.end()), kToolHelp);
}

TEST_F(CtlCliTest, UnknownCommandIsAUsageError) {
  const ToolRun run = Ctl({"frobnicate", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  const std::vector<std::string> lines = run.ErrLines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "dravinholdctl: no command \"frobnicate\"");
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 2, lines.end()), kToolHelp);
}

TEST_F(CtlCliTest, UnknownOptionIsAUsageError) {
  const ToolRun run = Ctl({"count", "fvhash_store", "--fast"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), (std::vector<std::string>{
                                "dravinholdctl: unknown option --fast",
                                "usage: dravinholdctl [--root DIR] count STORE",
                            }));
}

TEST_F(CtlCliTest, OptionOfAnotherCommandIsUnknownHere) {
  const ToolRun run = Ctl({"count", "fvhash_store", "--json"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.ErrLines().at(0), "dravinholdctl: unknown option --json");
}

TEST_F(CtlCliTest, OptionWithoutItsValueIsAUsageError) {
  const ToolRun run = Ctl({"dump", "fvhash_store", "--limit"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(),
            (std::vector<std::string>{
                "dravinholdctl: --limit needs a value",
                "usage: dravinholdctl [--root DIR] dump STORE [--json] [--limit N] [--start KEY]",
            }));
}

TEST_F(CtlCliTest, MissingArgumentIsAUsageError) {
  const ToolRun run = Ctl({"get", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), (std::vector<std::string>{
                                "dravinholdctl: missing argument",
                                "usage: dravinholdctl [--root DIR] get STORE KEY [--json]",
                            }));
}

TEST_F(CtlCliTest, EveryCommandThatNeedsAStoreSaysSoWithoutOne) {
  for (const std::string command :
       {"dump", "get", "count", "repair", "stats", "export", "import"}) {
    SCOPED_TRACE(command);
    const ToolRun run = Ctl({command});
    EXPECT_EXIT_CODE(run, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.ErrLines().at(0), "dravinholdctl: missing argument");
  }
}

TEST_F(CtlCliTest, TooManyArgumentsIsAUsageError) {
  const ToolRun run = Ctl({"count", "fvhash_store", "trusted_signers_store"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.ErrLines(), (std::vector<std::string>{
                                "dravinholdctl: too many arguments",
                                "usage: dravinholdctl [--root DIR] count STORE",
                            }));
  const ToolRun stores = Ctl({"stores", "fvhash_store"});
  EXPECT_EXIT_CODE(stores, 2);
  EXPECT_EQ(stores.ErrLines().at(0), "dravinholdctl: too many arguments");
}

TEST_F(CtlCliTest, UnknownStoreIsAUsageErrorForEveryCommandAndCreatesNothing) {
  const std::vector<std::vector<std::string>> runs = {
      {"dump", "fvhash"},
      {"get", "fvhash", "k"},
      {"count", "fvhash"},
      {"verify", "fvhash"},
      {"repair", "fvhash"},
      {"stats", "fvhash"},
      {"export", "fvhash", root_.Sub("out.bin")},
      {"import", "fvhash", root_.Sub("in.bin")},
  };
  for (const std::vector<std::string>& args : runs) {
    SCOPED_TRACE(args[0]);
    const ToolRun run = Ctl(args);
    EXPECT_EXIT_CODE(run, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, std::string("dravinholdctl: no store named \"fvhash\"; the stores are: ") +
                           kStoreList + "\n");
  }
  EXPECT_TRUE(Snapshot(Root()).empty());
}

TEST_F(CtlCliTest, LimitMustBeANumber) {
  for (const std::string limit : {"ten", "-1", "5x", "", "18446744073709551616"}) {
    SCOPED_TRACE(limit);
    const ToolRun dump = Ctl({"dump", "fvhash_store", "--limit", limit});
    EXPECT_EXIT_CODE(dump, 2);
    EXPECT_EQ(dump.out, "");
    EXPECT_EQ(dump.err, "dravinholdctl: --limit needs a number, not \"" + limit + "\"\n");
    const ToolRun lru = Ctl({"lru", "--limit", limit});
    EXPECT_EXIT_CODE(lru, 2);
    EXPECT_EQ(lru.out, "");
    EXPECT_EQ(lru.err, "dravinholdctl: --limit needs a number, not \"" + limit + "\"\n");
  }
}

TEST_F(CtlCliTest, VerifyTakesAStoreOrAllButNotBoth) {
  const ToolRun neither = Ctl({"verify"});
  EXPECT_EXIT_CODE(neither, 2);
  EXPECT_EQ(neither.err, "dravinholdctl: verify takes a store or --all\n");
  const ToolRun both = Ctl({"verify", "fvhash_store", "--all"});
  EXPECT_EXIT_CODE(both, 2);
  EXPECT_EQ(both.err, "dravinholdctl: verify takes a store or --all\n");
  EXPECT_EQ(both.out, "");
}

TEST_F(CtlCliTest, RootWithoutADirectoryIsAUsageError) {
  const ToolRun run = RunTool({"--root"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines().at(0), "dravinholdctl: --root needs a directory");
}

TEST_F(CtlCliTest, RootOptionAfterTheCommandIsAnUnknownOption) {
  const ToolRun run = RunTool({"count", "fvhash_store", "--root", Root()});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.ErrLines().at(0), "dravinholdctl: unknown option --root");
}

// The DIRECTORY column of "stores", one per store.
std::vector<std::string> Directories(const ToolRun& run) {
  std::vector<std::string> directories;
  const std::vector<std::string> lines = run.OutLines();
  for (size_t i = 1; i < lines.size(); ++i) {
    directories.push_back(lines[i].substr(lines[i].rfind("  ") + 2));
  }
  return directories;
}

std::vector<std::string> ExpectedDirectories(const std::string& root) {
  std::vector<std::string> directories;
  for (const char* store : {"fvhash_store", "trusted_signers_store", "trusted_signers_cache",
                            "general_settings_policy_store", "process_settings_policy_store",
                            "enrichment_store", "enrichment_store.lru"}) {
    directories.push_back(root + "/" + store);
  }
  return directories;
}

TEST_F(CtlCliTest, RootComesFromTheEnvironmentWhenNotGiven) {
  const ToolRun run = RunTool({"stores"}, {{"ZERLA_DATA_ROOT", Root()}});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(Directories(run), ExpectedDirectories(Root()));
}

TEST_F(CtlCliTest, RootOptionWinsOverTheEnvironment) {
  testing_support::TempDir other;
  const ToolRun run = RunTool({"--root", Root(), "stores"}, {{"ZERLA_DATA_ROOT", other.path()}});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(Directories(run), ExpectedDirectories(Root()));
}

// /var/lib/zerla is there on a host with the stand-in's package installed,
// and not on a build machine: either way the tool must be looking at it.
TEST_F(CtlCliTest, RootDefaultsToVarLibZerla) {
  const bool present = PathExists("/var/lib/zerla");
  const ToolRun unset = RunTool({"stores"}, {{"ZERLA_DATA_ROOT", std::nullopt}});
  const ToolRun empty = RunTool({"stores"}, {{"ZERLA_DATA_ROOT", ""}});
  for (const ToolRun& run : {unset, empty}) {
    if (present) {
      EXPECT_EXIT_CODE(run, 0);
      EXPECT_EQ(Directories(run), ExpectedDirectories("/var/lib/zerla"));
    } else {
      EXPECT_EXIT_CODE(run, 1);
      EXPECT_EQ(run.out, "");
      EXPECT_EQ(run.err, "dravinholdctl: data root /var/lib/zerla does not exist\n");
    }
  }
}

TEST_F(CtlCliTest, MissingRootIsOneLineForEveryCommandAndCreatesNothing) {
  const std::string root = root_.Sub("not-there");
  const std::vector<std::vector<std::string>> runs = {
      {"stores"},
      {"dump", "fvhash_store"},
      {"get", "fvhash_store", "aa"},
      {"count", "fvhash_store"},
      {"verify", "--all"},
      {"repair", "fvhash_store"},
      {"stats", "fvhash_store"},
      {"lru"},
      {"export", "fvhash_store", root_.Sub("out.bin")},
      {"import", "fvhash_store", root_.Sub("in.bin")},
  };
  for (const std::vector<std::string>& args : runs) {
    SCOPED_TRACE(args[0]);
    const ToolRun run = RunAt(root, args);
    EXPECT_EXIT_CODE(run, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "dravinholdctl: data root " + root + " does not exist\n");
  }
  const ToolRun from_environment = RunTool({"count", "fvhash_store"}, {{"ZERLA_DATA_ROOT", root}});
  EXPECT_EXIT_CODE(from_environment, 1);
  EXPECT_EQ(from_environment.err, "dravinholdctl: data root " + root + " does not exist\n");
  EXPECT_FALSE(PathExists(root));
  EXPECT_FALSE(PathExists(root_.Sub("out.bin")));
}

TEST_F(CtlCliTest, RootThatIsAFileIsOneLine) {
  const std::string file = root_.Sub("a-file");
  { std::ofstream(file) << "not a directory"; }
  const ToolRun run = RunAt(file, {"count", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: data root " + file + " is not a directory\n");
}

TEST_F(CtlCliTest, EnvironmentRootReachesTheCommands) {
  WriteStore(StoreDir("fvhash_store"), {{"aa", FvhashValue(true)}, {"bb", FvhashValue(false)}});
  const ToolRun run = RunTool({"count", "fvhash_store"}, {{"ZERLA_DATA_ROOT", Root()}});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "2\n");
  EXPECT_EQ(run.err, "");
}

}  // namespace
}  // namespace ctl_test
