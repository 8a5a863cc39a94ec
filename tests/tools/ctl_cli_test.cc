// dravinholdctl's command line: help texts, the data root, and the exit code
// 2 with one "dravinholdctl: ..." line for every misuse.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "support/damage.h"

namespace ctl_test {
namespace {

const std::vector<std::string> kCommands = {"stores", "dump",   "get",     "count",
                                            "verify", "repair", "stats",   "lru",
                                            "export", "import", "dumpfile"};

const char kStoreList[] =
    "fvhash_store, trusted_signers_store, trusted_signers_cache, general_settings_policy_store, "
    "process_settings_policy_store, enrichment_store, enrichment_store.lru";

const std::vector<std::string> kToolHelp = {
    "usage: dravinholdctl [--root DIR] [--json] COMMAND [ARGS]",
    "       dravinholdctl --help | --version | help COMMAND",
    "",
    "Looks into the stores of libdravinhold under DIR (default $ZERLA_DATA_ROOT, else "
    "/var/lib/zerla),",
    "also while a running process holds them.",
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
    "  export   Writes STORE's records to FILE (\"-\": standard output), named by store and "
    "schema.",
    "  import   Replaces all records of STORE by those in FILE (\"-\": standard input), "
    "atomically.",
    "  dumpfile Prints the contents of one table, log or MANIFEST file of a store, raw.",
    "",
    std::string("Stores: ") + kStoreList,
    "",
    "Options go anywhere, as \"--name value\" or \"--name=value\"; \"--\" ends them.",
    "--json: answers as JSON, one object per answer, JSON Lines for streams of",
    "records. \"dravinholdctl COMMAND --help\" tells more.",
    "Exit codes: 0 sound, 1 damaged or failed, 2 usage, 3 could not check (no data",
    "root, no permission, no room for the copy).",
};

// The lines of a usage error found before the command is known.
std::vector<std::string> WithToolHelp(const std::string& error) {
  std::vector<std::string> lines = {"dravinholdctl: " + error, ""};
  lines.insert(lines.end(), kToolHelp.begin(), kToolHelp.end());
  return lines;
}

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
    EXPECT_EQ(lines[0].rfind("usage: dravinholdctl [--root DIR] [--json] " + command, 0), 0u)
        << lines[0];
    EXPECT_EQ(lines[1], "");
  }
}

TEST_F(CtlCliTest, DumpAndGetHelpTellHowKeysAreWritten) {
  const ToolRun dump = RunTool({"dump", "--help"});
  EXPECT_EXIT_CODE(dump, 0);
  const std::vector<std::string> lines = dump.OutLines();
  ASSERT_GE(lines.size(), 8u);
  EXPECT_EQ(lines[0],
            "usage: dravinholdctl [--root DIR] [--json] dump STORE [--limit N] [--start KEY]");
  EXPECT_EQ(lines[2], "Prints the records of STORE in key order, decoded.");
  EXPECT_NE(dump.out.find("UTF-8 is given as \"key_base64\" (its bytes in base64)"),
            std::string::npos);
  EXPECT_NE(dump.out.find("(JSON Lines)"), std::string::npos);
  const ToolRun get = RunTool({"help", "get"});
  EXPECT_NE(get.out.find("({\"key_base64\": \"...\"} for keys that are not UTF-8)"),
            std::string::npos)
      << get.out;
  EXPECT_NE(get.out.find("'module_id: 5'   '{process_name: \"bash\" module_id: 5}'"),
            std::string::npos)
      << get.out;
}

TEST_F(CtlCliTest, TheManualPageTellsEveryCommandAndExitCode) {
  const std::string manual = testing_support::ReadFile(DRAVINHOLDCTL_MANUAL);
  ASSERT_EQ(manual.rfind(".TH DRAVINHOLDCTL 1 ", 0), 0u);
  for (const std::string& command : kCommands) {
    SCOPED_TRACE(command);
    const bool told = manual.find("\n.B " + command + "\n") != std::string::npos ||
                      manual.find("\n.BI \"" + command + " ") != std::string::npos ||
                      manual.find("\n.BR \"" + command + " ") != std::string::npos;
    EXPECT_TRUE(told);
  }
  for (const char* code : {"\n.B 0\n", "\n.B 1\n", "\n.B 2\n", "\n.B 3\n"}) {
    EXPECT_NE(manual.find(code), std::string::npos) << code;
  }
}

TEST_F(CtlCliTest, VersionPrintsTheToolsVersion) {
  const ToolRun run = RunTool({"--version"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "dravinholdctl 1.0.0\n");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(RunTool({"count", "--version"}).out, "dravinholdctl 1.0.0\n");
}

TEST_F(CtlCliTest, ShortHelpIsHelp) {
  const ToolRun run = RunTool({"-h"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines(), kToolHelp);
  const ToolRun command = RunTool({"count", "-h"});
  EXPECT_EXIT_CODE(command, 0);
  EXPECT_EQ(command.OutLines().at(0), "usage: dravinholdctl [--root DIR] [--json] count STORE");
}

TEST_F(CtlCliTest, OptionsGoAnywhereAndTakeAValueAfterAnEqualsSign) {
  WriteStore(StoreDir("fvhash_store"), {{"aa", FvhashValue(true)}, {"bb", FvhashValue(false)}});
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"--root", Root(), "count", "fvhash_store"},
                                             {"--root=" + Root(), "count", "fvhash_store"},
                                             {"count", "--root", Root(), "fvhash_store"},
                                             {"count", "fvhash_store", "--root=" + Root()}}) {
    const ToolRun run = RunTool(args);
    EXPECT_EXIT_CODE(run, 0);
    EXPECT_EQ(run.out, "2\n");
    EXPECT_EQ(run.err, "");
  }
  const ToolRun limited = RunTool({"dump", "--limit=1", "fvhash_store", "--root", Root()});
  EXPECT_EXIT_CODE(limited, 0);
  EXPECT_EQ(limited.out, "\"aa\" => {verdict: true}\n");
}

TEST_F(CtlCliTest, DoubleDashEndsTheOptionsSoAKeyMayStartWithADash) {
  WriteStore(StoreDir("fvhash_store"), {{"--json", FvhashValue(true)}});
  const ToolRun run = Ctl({"get", "fvhash_store", "--", "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "\"--json\" => {verdict: true}\n");
}

TEST_F(CtlCliTest, ARootThatIsNotThereOrIsAFileCannotBeChecked) {
  const std::string missing = root_.Sub("no-such-root");
  const std::string file = root_.Sub("a-file");
  testing_support::WriteFile(file, "x");
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"stores"},
                                             {"verify", "--all"},
                                             {"verify", "fvhash_store"},
                                             {"count", "fvhash_store"}}) {
    SCOPED_TRACE(args[0]);
    const ToolRun absent = RunAt(missing, args);
    EXPECT_EXIT_CODE(absent, 3);
    EXPECT_EQ(absent.out, "");
    EXPECT_EQ(absent.err,
              "dravinholdctl: no data root at " + missing + ": No such file or directory\n");
    const ToolRun not_directory = RunAt(file, args);
    EXPECT_EXIT_CODE(not_directory, 3);
    EXPECT_EQ(not_directory.out, "");
    EXPECT_EQ(not_directory.err, "dravinholdctl: the data root " + file + " is not a directory\n");
  }
  EXPECT_FALSE(PathExists(missing));
}

TEST_F(CtlCliTest, HelpWithAnOptionAfterOtherArgumentsStillHelps) {
  const ToolRun run = Ctl({"count", "no_such_store", "--help"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines().at(0), "usage: dravinholdctl [--root DIR] [--json] count STORE");
  EXPECT_EQ(run.err, "");
}

TEST_F(CtlCliTest, HelpOfAnUnknownCommandIsAUsageError) {
  const ToolRun run = RunTool({"help", "frobnicate"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), WithToolHelp("no command \"frobnicate\""));
}

TEST_F(CtlCliTest, UnknownCommandIsAUsageError) {
  const ToolRun run = Ctl({"frobnicate", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), WithToolHelp("no command \"frobnicate\""));
}

TEST_F(CtlCliTest, UnknownOptionIsAUsageError) {
  const ToolRun run = Ctl({"count", "fvhash_store", "--fast"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), WithToolHelp("unknown option --fast"));
  EXPECT_EQ(Ctl({"count", "-x"}).ErrLines().at(0), "dravinholdctl: unknown option -x");
}

TEST_F(CtlCliTest, OptionOfAnotherCommandIsUnknownHere) {
  const ToolRun run = Ctl({"count", "fvhash_store", "--limit", "5"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.ErrLines(), (std::vector<std::string>{
                                "dravinholdctl: unknown option --limit for count",
                                "usage: dravinholdctl [--root DIR] [--json] count STORE",
                            }));
}

TEST_F(CtlCliTest, OptionWithoutItsValueIsAUsageError) {
  const ToolRun run = Ctl({"dump", "fvhash_store", "--limit"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), WithToolHelp("--limit needs a value"));
}

TEST_F(CtlCliTest, MissingArgumentIsAUsageError) {
  const ToolRun run = Ctl({"get", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.ErrLines(), (std::vector<std::string>{
                                "dravinholdctl: missing argument",
                                "usage: dravinholdctl [--root DIR] [--json] get STORE KEY",
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
                                "usage: dravinholdctl [--root DIR] [--json] count STORE",
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
  EXPECT_EQ(run.ErrLines().at(0), "dravinholdctl: --root needs a value");
  const ToolRun empty = RunTool({"--root=", "stores"});
  EXPECT_EXIT_CODE(empty, 2);
  EXPECT_EQ(empty.ErrLines().at(0), "dravinholdctl: --root needs a directory");
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

TEST_F(CtlCliTest, RootDefaultsToVarLibZerla) {
  if (PathExists("/var/lib/zerla")) GTEST_SKIP() << "/var/lib/zerla exists on this host";
  const std::string expected =
      "dravinholdctl: no data root at /var/lib/zerla: No such file or directory\n";
  const ToolRun unset = RunTool({"stores"}, {{"ZERLA_DATA_ROOT", std::nullopt}});
  EXPECT_EXIT_CODE(unset, 3);
  EXPECT_EQ(unset.err, expected);
  const ToolRun empty = RunTool({"stores"}, {{"ZERLA_DATA_ROOT", ""}});
  EXPECT_EXIT_CODE(empty, 3);
  EXPECT_EQ(empty.err, expected);
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
