// dravinholdctl on damaged stores and on stores in use: verify finds the
// damage and names its file, repair mends it and keeps the store as it was,
// and every other look leaves the damage exactly as it was. A store that
// another process holds is read from a copy, and repaired by nobody.

#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "dravinhold/trusted_signers_store/trusted_signers_store.pb.h"
#include "persistence/db.h"
#include "support/damage.h"

namespace ctl_test {
namespace {

using testing_support::DamageTableFiles;
using testing_support::FileSize;
using testing_support::FilesWithSuffix;
using testing_support::FlipBytes;
using testing_support::TruncateFile;

class CtlDamageTest : public CtlTest {
 protected:
  // The trusted signers store in table files, with bytes flipped in each.
  std::string DamagedSigners() {
    const std::string path = StoreDir("trusted_signers_store");
    WriteStore(path, ManySigners(), /*compact=*/true);
    EXPECT_GE(DamageTableFiles(path), 1);
    return path;
  }

  // Ten verdicts, each a record of its own in the log and in no table.
  std::string VerdictsInTheLog() {
    const std::string path = StoreDir("fvhash_store");
    WriteEach(path, TenVerdicts());
    EXPECT_TRUE(FilesWithSuffix(path, ".ldb").empty());
    EXPECT_EQ(FilesWithSuffix(path, ".log").size(), 1u);
    return path;
  }

  static Records TenVerdicts() {
    Records records;
    for (int i = 0; i < 10; ++i) {
      records.emplace_back("key" + std::to_string(i), FvhashValue(i % 2));
    }
    return records;
  }

  static std::string LogOf(const std::string& path) {
    return path + "/" + FilesWithSuffix(path, ".log").at(0);
  }

  // "; in <file>, <file>": the damaged tables, as verify names them.
  static std::string DamagedFiles(const std::string& path) {
    std::vector<std::string> tables = FilesWithSuffix(path, ".ldb");
    std::sort(tables.begin(), tables.end());
    std::string where;
    for (const std::string& table : tables)
      where += (where.empty() ? "; in " : ", ") + path + "/" + table;
    return where;
  }

  std::string InUse(const std::string& store) const {
    return "dravinholdctl: in use by process " + std::to_string(getpid()) + ": " + StoreDir(store) +
           "\n";
  }
};

// The number in "(<n> records readable)" at the end of "text", or -1.
long ReadableCount(const std::string& text) {
  std::smatch match;
  const std::regex pattern("\\((\\d+) records readable\\)\\n?$");
  return std::regex_search(text, match, pattern) ? std::stol(match[1]) : -1;
}

// ---- verify ----

TEST_F(CtlDamageTest, VerifyOfASoundStoreReadsEveryRecord) {
  WriteStore(StoreDir("trusted_signers_store"), ManySigners(), /*compact=*/true);
  const ToolRun run = Ctl({"verify", "trusted_signers_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "trusted_signers_store: ok, 10000 records, every block verified\n");
  EXPECT_EQ(run.err, "");
}

TEST_F(CtlDamageTest, VerifyDrawsAProgressBarOnATerminalOnly) {
  WriteStore(StoreDir("trusted_signers_store"), ManySigners(), /*compact=*/true);
  const ToolRun run =
      RunTool({"--root", Root(), "verify", "trusted_signers_store"}, {}, 30, /*terminal=*/true);
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "trusted_signers_store: ok, 10000 records, every block verified\n");
  // Redrawn in place after a carriage return, a bar of 30 and a percentage,
  // ending full at 100 % on a line of its own.
  const std::regex drawing("(\\rverify trusted_signers_store \\[[# ]{30}\\] [ 0-9]{3}%)+\\r?\\n");
  EXPECT_TRUE(std::regex_match(run.err, drawing)) << run.err;
  EXPECT_NE(run.err.find("[#"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("[" + std::string(30, '#') + "] 100%"), std::string::npos) << run.err;
  // Not on a pipe: see VerifyOfASoundStoreReadsEveryRecord.
}

TEST_F(CtlDamageTest, VerifyFindsFlippedBytesInATableFile) {
  const std::string path = DamagedSigners();
  const ToolRun run = Ctl({"verify", "trusted_signers_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "");
  const long readable = ReadableCount(run.out);
  // One block of records is lost, the blocks around it are read.
  EXPECT_GT(readable, 9900);
  EXPECT_LT(readable, 10000);
  EXPECT_EQ(run.out, "trusted_signers_store: DAMAGED: Corruption: block checksum mismatch" +
                         DamagedFiles(path) + " (" + std::to_string(readable) +
                         " records readable)\n");
  const ToolRun json = Ctl({"verify", "trusted_signers_store", "--json"});
  EXPECT_EXIT_CODE(json, 1);
  const std::string first = path + "/" + [&] {
    std::vector<std::string> tables = FilesWithSuffix(path, ".ldb");
    std::sort(tables.begin(), tables.end());
    return tables.at(0);
  }();
  EXPECT_EQ(json.out, "{\"store\":\"trusted_signers_store\",\"state\":\"damaged\",\"records\":" +
                          std::to_string(readable) +
                          ",\"error\":\"Corruption: block checksum mismatch" + DamagedFiles(path) +
                          "\",\"file\":\"" + first + "\"}\n");
}

TEST_F(CtlDamageTest, VerifyFindsADamagedRecordInTheLog) {
  const std::string path = VerdictsInTheLog();
  const std::string log = LogOf(path);
  FlipBytes(log, FileSize(log) / 2, 2);
  const ToolRun run = Ctl({"verify", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, "fvhash_store: DAMAGED: cannot open " + path +
                         ": Corruption: checksum mismatch (" + log +
                         ": dropping 136 bytes; Corruption: checksum mismatch)\n");
}

TEST_F(CtlDamageTest, VerifyCallsADatabaseWithoutCurrentDamaged) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, TenVerdicts(), /*compact=*/true);
  ASSERT_EQ(unlink((path + "/CURRENT").c_str()), 0);
  const ToolRun run = Ctl({"verify", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out, "fvhash_store: DAMAGED: cannot open " + path + ": Invalid argument: " + path +
                         ": does not exist (create_if_missing is false)\n");
}

TEST_F(CtlDamageTest, VerifyTakesATornLastRecordOfTheLogForAnInterruptedWrite) {
  // A log that ends inside its last record is what a crash mid-write leaves:
  // the engine drops that record and reports nothing.
  const std::string path = VerdictsInTheLog();
  const std::string log = LogOf(path);
  TruncateFile(log, FileSize(log) - 3);
  const ToolRun run = Ctl({"verify", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "fvhash_store: ok, 9 records, every block verified\n");
}

TEST_F(CtlDamageTest, VerifyAllReportsEveryStore) {
  WriteStore(StoreDir("fvhash_store"), TenVerdicts());
  const std::string signers = DamagedSigners();
  const std::string general = StoreDir("general_settings_policy_store");
  WriteStore(general, {{GeneralKey(5), PolicyValue("five")}}, /*compact=*/true);
  ASSERT_EQ(unlink((general + "/CURRENT").c_str()), 0);

  const ToolRun run = Ctl({"verify", "--all"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_EQ(lines.size(), 7u) << run.out;
  EXPECT_EQ(lines[0], "fvhash_store: ok, 10 records, every block verified");
  EXPECT_EQ(lines[1], "trusted_signers_store: DAMAGED: Corruption: block checksum mismatch" +
                          DamagedFiles(signers) + " (" + std::to_string(ReadableCount(lines[1])) +
                          " records readable)");
  EXPECT_EQ(lines[2], "trusted_signers_cache: absent");
  EXPECT_EQ(lines[3], "general_settings_policy_store: DAMAGED: cannot open " + general +
                          ": Invalid argument: " + general +
                          ": does not exist (create_if_missing is false)");
  EXPECT_EQ(lines[4], "process_settings_policy_store: absent");
  EXPECT_EQ(lines[5], "enrichment_store: absent");
  EXPECT_EQ(lines[6], "enrichment_store.lru: absent");
}

TEST_F(CtlDamageTest, VerifyAllOfSoundStoresSucceeds) {
  WriteStore(StoreDir("fvhash_store"), TenVerdicts());
  WriteStore(StoreDir("enrichment_store.lru"), {{LruKey(1), LruValue("h")}}, /*compact=*/true);
  const ToolRun run = Ctl({"verify", "--all"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out,
            "fvhash_store: ok, 10 records, every block verified\n"
            "trusted_signers_store: absent\n"
            "trusted_signers_cache: absent\n"
            "general_settings_policy_store: absent\n"
            "process_settings_policy_store: absent\n"
            "enrichment_store: absent\n"
            "enrichment_store.lru: ok, 1 records, every block verified\n");
  EXPECT_EQ(run.err, "");
  // Absent stores stay absent.
  EXPECT_FALSE(PathExists(StoreDir("trusted_signers_store")));
}

// ---- inspection leaves damage alone ----

TEST_F(CtlDamageTest, ReadingADamagedTableReportsItAndLeavesItAsItWas) {
  const std::string path = DamagedSigners();
  const auto damaged = Snapshot(path);
  const std::string export_file = root_.Sub("signers.bin");

  const ToolRun verify = Ctl({"verify", "trusted_signers_store"});
  EXPECT_EXIT_CODE(verify, 1);
  const long readable = ReadableCount(verify.out);
  ASSERT_GT(readable, 0);
  EXPECT_EQ(Snapshot(path), damaged);

  const ToolRun count = Ctl({"count", "trusted_signers_store"});
  EXPECT_EXIT_CODE(count, 1);
  EXPECT_EQ(count.out, "");
  EXPECT_EQ(
      count.err,
      "dravinholdctl: trusted_signers_store is damaged: Corruption: block checksum mismatch (" +
          std::to_string(readable) + " records readable)\n");
  EXPECT_EQ(Snapshot(path), damaged);

  // The dump shows every record of the sound blocks, each as it was
  // written, and then says that the store is damaged.
  const ToolRun dump = Ctl({"dump", "trusted_signers_store"});
  EXPECT_EXIT_CODE(dump, 1);
  EXPECT_EQ(
      dump.err,
      "dravinholdctl: trusted_signers_store is damaged: Corruption: block checksum mismatch (" +
          std::to_string(readable) + " records shown)\n");
  const std::vector<std::string> lines = dump.OutLines();
  EXPECT_EQ(static_cast<long>(lines.size()), readable);
  std::set<std::string> shown(lines.begin(), lines.end());
  std::string lost_key;
  long lost_records = 0;
  for (const auto& [key, value] : ManySigners()) {
    proto::TrustedSignersStore::Value signer;
    ASSERT_TRUE(signer.ParseFromString(value));
    if (shown.count("\"" + key + "\" => {name: \"" + signer.name() + "\"}") == 0) {
      ++lost_records;
      if (lost_key.empty()) lost_key = key;
    }
  }
  EXPECT_EQ(lost_records, 10000 - readable);
  ASSERT_FALSE(lost_key.empty());
  EXPECT_EQ(Snapshot(path), damaged);

  const ToolRun lost = Ctl({"get", "trusted_signers_store", lost_key});
  EXPECT_EXIT_CODE(lost, 1);
  EXPECT_EQ(lost.out, "");
  EXPECT_EQ(lost.err,
            "dravinholdctl: trusted_signers_store: Corruption: block checksum mismatch\n");
  const ToolRun sound = Ctl({"get", "trusted_signers_store", "signer-000000"});
  EXPECT_EXIT_CODE(sound, 0);
  EXPECT_EQ(Snapshot(path), damaged);

  const ToolRun stats = Ctl({"stats", "trusted_signers_store"});
  EXPECT_EXIT_CODE(stats, 0);
  const ToolRun stores = Ctl({"stores"});
  EXPECT_EXIT_CODE(stores, 1);
  EXPECT_NE(stores.OutLines().at(2).find(" damaged  " + path), std::string::npos)
      << stores.OutLines().at(2);
  EXPECT_EQ(Snapshot(path), damaged);

  const ToolRun exported = Ctl({"export", "trusted_signers_store", export_file});
  EXPECT_EXIT_CODE(exported, 1);
  EXPECT_EQ(exported.out, "");
  EXPECT_EQ(exported.err,
            "dravinholdctl: trusted_signers_store is damaged: Corruption: block checksum mismatch; "
            "nothing exported\n");
  EXPECT_FALSE(PathExists(export_file));

  // After all that the damage is still there, byte for byte, and still found.
  EXPECT_EQ(Snapshot(path), damaged);
  const ToolRun again = Ctl({"verify", "trusted_signers_store"});
  EXPECT_EXIT_CODE(again, 1);
  EXPECT_EQ(again.out, verify.out);
}

TEST_F(CtlDamageTest, ReadingADamagedLogReportsWhatWasDroppedAndKeepsTheLog) {
  const std::string path = VerdictsInTheLog();
  const std::string log = LogOf(path);
  FlipBytes(log, FileSize(log) / 2, 2);
  const auto damaged = Snapshot(path);
  const std::string damage =
      "Corruption: " + log + ": dropping 136 bytes; Corruption: checksum mismatch";

  const ToolRun count = Ctl({"count", "fvhash_store"});
  EXPECT_EXIT_CODE(count, 1);
  EXPECT_EQ(count.out, "");
  EXPECT_EQ(count.err,
            "dravinholdctl: fvhash_store is damaged: " + damage + " (5 records readable)\n");
  EXPECT_EQ(Snapshot(path), damaged);

  const ToolRun dump = Ctl({"dump", "fvhash_store"});
  EXPECT_EXIT_CODE(dump, 1);
  EXPECT_EQ(dump.out,
            "\"key0\" => {}\n\"key1\" => {verdict: true}\n\"key2\" => {}\n"
            "\"key3\" => {verdict: true}\n\"key4\" => {}\n");
  EXPECT_EQ(dump.err, "dravinholdctl: fvhash_store is damaged: " + damage + " (5 records shown)\n");
  EXPECT_EQ(Snapshot(path), damaged);

  const ToolRun found = Ctl({"get", "fvhash_store", "key1"});
  EXPECT_EXIT_CODE(found, 0);
  EXPECT_EQ(found.out, "\"key1\" => {verdict: true}\n");
  const ToolRun dropped = Ctl({"get", "fvhash_store", "key7"});
  EXPECT_EXIT_CODE(dropped, 1);
  EXPECT_EQ(
      dropped.err,
      "dravinholdctl: not found in fvhash_store: \"key7\"; the store is damaged: " + damage + "\n");

  EXPECT_EXIT_CODE(Ctl({"verify", "fvhash_store"}), 1);
  EXPECT_EXIT_CODE(Ctl({"stats", "fvhash_store"}), 0);
  EXPECT_EQ(Snapshot(path), damaged);
  EXPECT_TRUE(FilesWithSuffix(path, ".ldb").empty());
}

TEST_F(CtlDamageTest, ReadingATornLogKeepsItsTornTail) {
  const std::string path = VerdictsInTheLog();
  const std::string log = LogOf(path);
  TruncateFile(log, FileSize(log) - 3);
  const auto torn = Snapshot(path);
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"count", "fvhash_store"},
                                             {"dump", "fvhash_store"},
                                             {"get", "fvhash_store", "key0"},
                                             {"verify", "fvhash_store"},
                                             {"stats", "fvhash_store"},
                                             {"stores"},
                                             {"export", "fvhash_store", root_.Sub("out.bin")}}) {
    SCOPED_TRACE(args[0]);
    EXPECT_EXIT_CODE(Ctl(args), 0);
    // No table made of the log, the log not replaced: the same files, the
    // same bytes.
    EXPECT_EQ(Snapshot(path), torn);
  }
  EXPECT_EQ(Ctl({"count", "fvhash_store"}).out, "9\n");
}

TEST_F(CtlDamageTest, ReadingAStoreWithoutCurrentMakesNoNewDatabase) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, TenVerdicts(), /*compact=*/true);
  ASSERT_EQ(unlink((path + "/CURRENT").c_str()), 0);
  const auto damaged = Snapshot(path);
  const std::string error = "dravinholdctl: cannot open " + path + ": Invalid argument: " + path +
                            ": does not exist (create_if_missing is false)\n";
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"count", "fvhash_store"},
                                             {"dump", "fvhash_store"},
                                             {"get", "fvhash_store", "key0"},
                                             {"stats", "fvhash_store"},
                                             {"export", "fvhash_store", root_.Sub("out.bin")}}) {
    SCOPED_TRACE(args[0]);
    const ToolRun run = Ctl(args);
    EXPECT_EXIT_CODE(run, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, error);
    EXPECT_EQ(Snapshot(path), damaged);
  }
  const ToolRun stores = Ctl({"stores"});
  EXPECT_NE(stores.OutLines().at(1).find(" damaged  " + path), std::string::npos);
  EXPECT_EXIT_CODE(stores, 1);
  EXPECT_EXIT_CODE(Ctl({"verify", "--all"}), 1);
  EXPECT_EQ(Snapshot(path), damaged);
  EXPECT_FALSE(PathExists(path + "/CURRENT"));
  EXPECT_FALSE(PathExists(root_.Sub("out.bin")));
}

// ---- repair ----

TEST_F(CtlDamageTest, RepairDropsTheDamagedBlockAndKeepsTheRest) {
  const std::string path = DamagedSigners();
  const auto damaged = Snapshot(path);
  const long readable = ReadableCount(Ctl({"verify", "trusted_signers_store"}).out);
  ASSERT_GT(readable, 0);

  const ToolRun run = Ctl({"repair", "trusted_signers_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_EQ(lines.size(), 3u) << run.out;
  EXPECT_EQ(
      lines[0],
      "trusted_signers_store: repaired; records before: " + std::to_string(readable) +
          " readable (Corruption: block checksum mismatch), after: " + std::to_string(readable));
  // The tables the engine set aside are named, and are in lost/.
  const std::string moved = "moved to " + path + "/lost: ";
  ASSERT_EQ(lines[1].rfind(moved, 0), 0u) << lines[1];
  const std::string names = lines[1].substr(moved.size());
  EXPECT_NE(names.find(".ldb"), std::string::npos) << names;
  for (size_t at = 0; at <= names.size();) {
    const size_t end = std::min(names.find(", ", at), names.size());
    EXPECT_TRUE(PathExists(path + "/lost/" + names.substr(at, end - at))) << names;
    at = end + 2;
  }
  // The store as it was, byte for byte, beside it.
  const std::string kept = "the store as it was: " + path + ".before-repair-";
  ASSERT_EQ(lines[2].rfind(kept, 0), 0u) << lines[2];
  EXPECT_TRUE(std::regex_match(lines[2].substr(kept.size()), std::regex("\\d{8}T\\d{6}Z")));
  EXPECT_EQ(Snapshot(lines[2].substr(std::string("the store as it was: ").size())), damaged);

  const ToolRun verify = Ctl({"verify", "trusted_signers_store"});
  EXPECT_EXIT_CODE(verify, 0);
  EXPECT_EQ(verify.out, "trusted_signers_store: ok, " + std::to_string(readable) +
                            " records, every block verified\n");
  // What is left is what was written.
  const Records written = ManySigners();
  const Records left = ReadStore(path);
  EXPECT_EQ(static_cast<long>(left.size()), readable);
  for (const auto& record : left) {
    EXPECT_TRUE(std::find(written.begin(), written.end(), record) != written.end()) << record.first;
  }
  // The damaged table is kept aside by the engine, not lost.
  EXPECT_TRUE(PathExists(path + "/lost"));
}

TEST_F(CtlDamageTest, RepairRebuildsAMissingCurrent) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, TenVerdicts(), /*compact=*/true);
  ASSERT_EQ(unlink((path + "/CURRENT").c_str()), 0);
  const ToolRun run = Ctl({"repair", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines().at(0),
            "fvhash_store: repaired; records before: unreadable (cannot open " + path +
                ": Invalid argument: " + path +
                ": does not exist (create_if_missing is false)), after: 10");
  EXPECT_EQ(ReadStore(path), TenVerdicts());
}

TEST_F(CtlDamageTest, RepairOfASoundStoreKeepsEveryRecord) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, TenVerdicts());
  const ToolRun run = Ctl({"repair", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines().at(0), "fvhash_store: repaired; records before: 10, after: 10");
  // The engine sets the old log and manifest aside once it has made a table
  // and a manifest of its own from them.
  EXPECT_EQ(run.OutLines().at(1), "moved to " + path + "/lost: 000003.log, MANIFEST-000002");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(ReadStore(path), TenVerdicts());
}

// ---- a store in use ----

TEST_F(CtlDamageTest, VerifyAllVerifiesAStoreInUseFromItsCopy) {
  WriteStore(StoreDir("fvhash_store"), TenVerdicts());
  WriteStore(StoreDir("trusted_signers_cache"), {{"k", CacheValue("c", 1, 1)}});
  persistence::DB held(StoreDir("trusted_signers_cache"));
  ASSERT_TRUE(held.Open(true, false, false, 0).ok());
  ASSERT_TRUE(held.Put("l", CacheValue("d", 2, 2), false).ok());
  const ToolRun run = Ctl({"verify", "--all"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "fvhash_store: ok, 10 records, every block verified");
  EXPECT_EQ(lines[2], "trusted_signers_cache: ok, 2 records, every block verified");
}

TEST_F(CtlDamageTest, RepairRefusesAStoreThatAnotherProcessHolds) {
  const std::string path = DamagedSigners();
  persistence::DB held(path);
  ASSERT_TRUE(held.Open(false, false, false, 0).ok());
  const auto damaged = Snapshot(path);
  const ToolRun run = Ctl({"repair", "trusted_signers_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, InUse("trusted_signers_store"));
  EXPECT_EQ(Snapshot(path), damaged);
  EXPECT_FALSE(PathExists(path + "/lost"));
}

TEST_F(CtlDamageTest, VerifyThatCannotMakeItsCopyCouldNotCheck) {
  WriteStore(StoreDir("fvhash_store"), TenVerdicts());
  const std::string no_tmp = root_.Sub("no-such-tmp");
  const std::string why = "cannot make a temporary directory for a copy of " +
                          StoreDir("fvhash_store") + ": No such file or directory";
  const ToolRun one = RunTool({"--root", Root(), "verify", "fvhash_store"}, {{"TMPDIR", no_tmp}});
  EXPECT_EXIT_CODE(one, 3);
  EXPECT_EQ(one.out, "fvhash_store: COULD NOT CHECK: " + why + "\n");
  EXPECT_EQ(one.err, "");
  const ToolRun all = RunTool({"--root", Root(), "verify", "--all"}, {{"TMPDIR", no_tmp}});
  EXPECT_EXIT_CODE(all, 3);
  EXPECT_EQ(all.OutLines().at(0), "fvhash_store: COULD NOT CHECK: " + why);
  EXPECT_EQ(all.OutLines().at(1), "trusted_signers_store: absent");
  const ToolRun stores = RunTool({"--root", Root(), "stores"}, {{"TMPDIR", no_tmp}});
  EXPECT_EXIT_CODE(stores, 3);
  EXPECT_NE(stores.OutLines().at(1).find(" unchecked  "), std::string::npos) << stores.out;
}

TEST_F(CtlDamageTest, LruReadsDatabasesThatAreInUse) {
  WriteStore(StoreDir("enrichment_store"), {{"h", EnrichmentValue("/bin/h", 1, 1)}});
  WriteStore(StoreDir("enrichment_store.lru"), {{LruKey(1), LruValue("h")}});
  persistence::DB main_db(StoreDir("enrichment_store"));
  ASSERT_TRUE(main_db.Open(false, false, false, 0).ok());
  persistence::DB order_db(StoreDir("enrichment_store.lru"));
  ASSERT_TRUE(order_db.Open(false, false, false, 0).ok());
  const ToolRun run = Ctl({"lru", "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.OutLines().at(0),
            "{\"index\":1,\"last_used\":1,\"date\":\"1970-01-01 00:00:01 UTC\","
            "\"state\":\"\",\"key\":\"h\"}");
}

TEST_F(CtlDamageTest, VerifyAndRepairAnswerInJson) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, TenVerdicts());
  const ToolRun verify = Ctl({"verify", "--all", "--json"});
  EXPECT_EXIT_CODE(verify, 0);
  const std::vector<std::string> lines = verify.OutLines();
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(
      lines[0],
      "{\"store\":\"fvhash_store\",\"state\":\"ok\",\"records\":10,\"error\":\"\",\"file\":\"\"}");
  EXPECT_EQ(lines[1],
            "{\"store\":\"trusted_signers_store\",\"state\":\"absent\",\"records\":0,"
            "\"error\":\"\",\"file\":\"\"}");
  const ToolRun repair = Ctl({"repair", "fvhash_store", "--json"});
  EXPECT_EXIT_CODE(repair, 0);
  const std::regex answer(
      "\\{\"store\":\"fvhash_store\",\"records_before\":\"10\",\"records_after\":\"10\","
      "\"lost\":\\[\"000003.log\",\"MANIFEST-000002\"\\],\"backup\":\"" +
      path + "\\.before-repair-\\d{8}T\\d{6}Z\"\\}\n");
  EXPECT_TRUE(std::regex_match(repair.out, answer)) << repair.out;
}

TEST_F(CtlDamageTest, ExportDrawsItsProgressOnATerminal) {
  WriteStore(StoreDir("trusted_signers_store"), ManySigners(), /*compact=*/true);
  const ToolRun run = RunTool(
      {"--root", Root(), "export", "trusted_signers_store", root_.Sub("signers.bin")}, {}, 30,
      /*terminal=*/true);
  EXPECT_EXIT_CODE(run, 0);
  const std::regex drawing("(\\rexport trusted_signers_store \\[[# ]{30}\\] [ 0-9]{3}%)+\\r?\\n");
  EXPECT_TRUE(std::regex_match(run.err, drawing)) << run.err;
  EXPECT_NE(run.err.find("] 100%"), std::string::npos);
}

TEST_F(CtlDamageTest, ATableTheManifestNamesMissingIsDamageNotARace) {
  // The copy is made again only when the store's files change under it; a
  // store that lost a table stays as it is and is reported at once.
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, TenVerdicts(), /*compact=*/true);
  const std::string table = path + "/" + FilesWithSuffix(path, ".ldb").at(0);
  ASSERT_EQ(unlink(table.c_str()), 0);
  const ToolRun run = Ctl({"count", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "dravinholdctl: cannot open " + path +
                         ": Corruption: 1 missing files; e.g.: " + table + "\n");
}

}  // namespace
}  // namespace ctl_test
