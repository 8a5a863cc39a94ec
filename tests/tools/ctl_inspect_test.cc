// dravinholdctl's reading commands on sound stores: stores, dump, get, count
// and stats, with records written by the test through persistence::DB.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#include "persistence/db.h"
#include "support/damage.h"

namespace ctl_test {
namespace {

using testing_support::FilesWithSuffix;
using testing_support::FileWithPrefix;

using CtlInspectTest = CtlTest;

// Bytes allocated on disk by the files of "dir", the way du counts them.
uint64_t AllocatedBytes(const std::string& dir) {
  uint64_t bytes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
    struct stat info;
    if (!entry.is_directory() && stat(entry.path().c_str(), &info) == 0) {
      bytes += static_cast<uint64_t>(info.st_blocks) * 512;
    }
  }
  return bytes;
}

std::string Human(uint64_t bytes) {
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof(text), "%" PRIu64 " B", bytes);
  } else if (bytes < 1024 * 1024) {
    std::snprintf(text, sizeof(text), "%.1f KiB", bytes / 1024.0);
  } else {
    std::snprintf(text, sizeof(text), "%.1f MiB", bytes / (1024.0 * 1024.0));
  }
  return text;
}

std::string StoresLine(const std::string& store, const std::string& present,
                       const std::string& in_use, const std::string& size,
                       const std::string& records, const std::string& directory) {
  char line[512];
  std::snprintf(line, sizeof(line), "%-30s %-8s %-12s %12s %10s  %s", store.c_str(),
                present.c_str(), in_use.c_str(), size.c_str(), records.c_str(), directory.c_str());
  return line;
}

const char kStoresHeader[] =
    "STORE                          PRESENT  IN USE               SIZE    RECORDS  DIRECTORY";

Records ThreeVerdicts() {
  return {{"aa01", FvhashValue(true)}, {"bb02", FvhashValue(false)}, {"cc03", FvhashValue(true)}};
}

// ---- stores ----

TEST_F(CtlInspectTest, StoresOnAnEmptyRootListsSevenAbsentStoresAndCreatesNothing) {
  const ToolRun run = Ctl({"stores"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  std::vector<std::string> expected = {kStoresHeader};
  for (const char* store : {"fvhash_store", "trusted_signers_store", "trusted_signers_cache",
                            "general_settings_policy_store", "process_settings_policy_store",
                            "enrichment_store", "enrichment_store.lru"}) {
    expected.push_back(StoresLine(store, "no", "no", "-", "-", StoreDir(store)));
  }
  EXPECT_EQ(run.OutLines(), expected);
  EXPECT_TRUE(Snapshot(Root()).empty());
}

TEST_F(CtlInspectTest, StoresOnAMissingRootCannotCheckAndDoesNotCreateIt) {
  const std::string root = root_.Sub("not-there");
  const ToolRun run = RunAt(root, {"stores"});
  EXPECT_EXIT_CODE(run, 3);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: no data root at " + root + ": No such file or directory\n");
  EXPECT_FALSE(PathExists(root));
}

TEST_F(CtlInspectTest, StoresTellsPresenceSizeAndRecordsOfEachStore) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  WriteStore(StoreDir("general_settings_policy_store"),
             {{GeneralKey(5), PolicyValue("five")}, {GeneralKey(7), PolicyValue("seven")}});
  WriteStore(StoreDir("enrichment_store"), {});
  const ToolRun run = Ctl({"stores"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> expected = {
      kStoresHeader,
      StoresLine("fvhash_store", "yes", "no", Human(AllocatedBytes(StoreDir("fvhash_store"))), "3",
                 StoreDir("fvhash_store")),
      StoresLine("trusted_signers_store", "no", "no", "-", "-", StoreDir("trusted_signers_store")),
      StoresLine("trusted_signers_cache", "no", "no", "-", "-", StoreDir("trusted_signers_cache")),
      StoresLine("general_settings_policy_store", "yes", "no",
                 Human(AllocatedBytes(StoreDir("general_settings_policy_store"))), "2",
                 StoreDir("general_settings_policy_store")),
      StoresLine("process_settings_policy_store", "no", "no", "-", "-",
                 StoreDir("process_settings_policy_store")),
      StoresLine("enrichment_store", "yes", "no",
                 Human(AllocatedBytes(StoreDir("enrichment_store"))), "0",
                 StoreDir("enrichment_store")),
      StoresLine("enrichment_store.lru", "no", "no", "-", "-", StoreDir("enrichment_store.lru")),
  };
  EXPECT_EQ(run.OutLines(), expected);
}

TEST_F(CtlInspectTest, StoresSizeOfAStoreInTablesIsInMebibytes) {
  WriteStore(StoreDir("trusted_signers_store"), ManySigners(), /*compact=*/true);
  const uint64_t bytes = AllocatedBytes(StoreDir("trusted_signers_store"));
  ASSERT_GT(bytes, 1024u * 1024u) << "the test needs a store above 1 MiB";
  const ToolRun run = Ctl({"stores"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.OutLines().at(2), StoresLine("trusted_signers_store", "yes", "no", Human(bytes),
                                             "10000", StoreDir("trusted_signers_store")));
}

TEST_F(CtlInspectTest, StoresNamesTheProcessHoldingAStore) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  WriteStore(StoreDir("trusted_signers_cache"), {{"k", CacheValue("c", 1, 1)}});
  persistence::DB held(StoreDir("fvhash_store"));
  ASSERT_TRUE(held.Open(true, false, false, 0).ok());
  const ToolRun run = Ctl({"stores"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_EQ(lines.size(), 8u);
  // Held or not, its records are counted, from a copy.
  EXPECT_EQ(lines[1], StoresLine("fvhash_store", "yes", "pid " + std::to_string(getpid()),
                                 Human(AllocatedBytes(StoreDir("fvhash_store"))), "3",
                                 StoreDir("fvhash_store")));
  EXPECT_EQ(lines[3], StoresLine("trusted_signers_cache", "yes", "no",
                                 Human(AllocatedBytes(StoreDir("trusted_signers_cache"))), "1",
                                 StoreDir("trusted_signers_cache")));
}

TEST_F(CtlInspectTest, StoresCallsADirectoryThatIsNoDatabaseDamaged) {
  ASSERT_TRUE(std::filesystem::create_directory(StoreDir("fvhash_store")));
  const ToolRun run = Ctl({"stores"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.OutLines().at(1),
            StoresLine("fvhash_store", "yes", "no", "0 B", "damaged", StoreDir("fvhash_store")));
  // Looking left no file behind, not even a LOCK.
  EXPECT_TRUE(std::filesystem::is_empty(StoreDir("fvhash_store")));
}

// ---- dump ----

TEST_F(CtlInspectTest, DumpPrintsDecodedRecordsInKeyOrder) {
  WriteStore(
      StoreDir("fvhash_store"),
      {{"cc03", FvhashValue(true)}, {"aa01", FvhashValue(true)}, {"bb02", FvhashValue(false)}});
  const ToolRun run = Ctl({"dump", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            "\"aa01\" => {verdict: true}\n"
            "\"bb02\" => {}\n"
            "\"cc03\" => {verdict: true}\n");
}

TEST_F(CtlInspectTest, DumpJsonPrintsOneObjectPerRecord) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun run = Ctl({"dump", "fvhash_store", "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out,
            "{\"value\":{\"verdict\":true},\"key\":\"aa01\"}\n"
            "{\"value\":{\"verdict\":false},\"key\":\"bb02\"}\n"
            "{\"value\":{\"verdict\":true},\"key\":\"cc03\"}\n");
}

TEST_F(CtlInspectTest, DumpEscapesKeyBytesThatAreNotPrintable) {
  WriteStore(StoreDir("trusted_signers_store"),
             {{std::string("a\x01\"b\\", 5), SignerValue("Acme")},
              {"\xc3\xa9t\xc3\xa9", SignerValue("Summer")}});
  const ToolRun text = Ctl({"dump", "trusted_signers_store"});
  EXPECT_EXIT_CODE(text, 0);
  EXPECT_EQ(text.out,
            "\"a\\x01\\\"b\\\\\" => {name: \"Acme\"}\n"
            "\"\xc3\xa9t\xc3\xa9\" => {name: \"Summer\"}\n");
  const ToolRun json = Ctl({"dump", "trusted_signers_store", "--json"});
  EXPECT_EXIT_CODE(json, 0);
  EXPECT_EQ(json.out,
            "{\"value\":{\"name\":\"Acme\"},\"key\":\"a\\u0001\\\"b\\\\\"}\n"
            "{\"value\":{\"name\":\"Summer\"},\"key\":\"\xc3\xa9t\xc3\xa9\"}\n");
}

TEST_F(CtlInspectTest, DumpDecodesMessageKeysOfThePolicyStores) {
  WriteStore(StoreDir("general_settings_policy_store"),
             {{GeneralKey(7), PolicyValue("seven")},
              {GeneralKey(5), PolicyValue(std::string("fi\0ve", 5))},
              {GeneralKey(300), PolicyValue("three hundred")}});
  WriteStore(
      StoreDir("process_settings_policy_store"),
      {{ProcessKey("bash", 5), PolicyValue("b5")}, {ProcessKey("sshd", 321), PolicyValue("s")}});

  const ToolRun general = Ctl({"dump", "general_settings_policy_store"});
  EXPECT_EXIT_CODE(general, 0);
  EXPECT_EQ(general.err, "");
  // The order is that of the keys' wire form: 300 is 0xac 0x02.
  EXPECT_EQ(general.out,
            "{module_id: 5} => {policy: \"fi\\000ve\"}\n"
            "{module_id: 7} => {policy: \"seven\"}\n"
            "{module_id: 300} => {policy: \"three hundred\"}\n");

  const ToolRun process = Ctl({"dump", "process_settings_policy_store", "--json"});
  EXPECT_EXIT_CODE(process, 0);
  EXPECT_EQ(
      process.out,
      "{\"key\":{\"process_name\":\"bash\",\"module_id\":5},\"value\":{\"policy\":\"YjU=\"}}\n"
      "{\"key\":{\"process_name\":\"sshd\",\"module_id\":321},\"value\":{\"policy\":\"cw==\"}}\n");
}

TEST_F(CtlInspectTest, DumpShowsEveryFieldOfAnEnrichmentRecord) {
  proto::EnrichmentStore::Value value;
  value.mutable_lru_data()->set_last_used(1700000000);
  value.mutable_lru_data()->set_index(3);
  value.set_image_path("/usr/bin/curl");
  value.mutable_signature_details()->set_vendor("Acme");
  value.mutable_signature_details()->set_notarized(true);
  value.set_sha256("ab12");
  value.set_sa_score(0.5);
  value.add_entitlements("net");
  value.add_entitlements("fs");
  WriteStore(StoreDir("enrichment_store"), {{"hash-1", value.SerializeAsString()}});

  const ToolRun text = Ctl({"dump", "enrichment_store"});
  EXPECT_EXIT_CODE(text, 0);
  EXPECT_EQ(text.out,
            "\"hash-1\" => {lru_data { last_used: 1700000000 index: 3 } image_path: "
            "\"/usr/bin/curl\" signature_details { vendor: \"Acme\" notarized: true } sha256: "
            "\"ab12\" sa_score: 0.5 entitlements: \"net\" entitlements: \"fs\"}\n");
  const ToolRun json = Ctl({"dump", "enrichment_store", "--json"});
  EXPECT_EXIT_CODE(json, 0);
  EXPECT_EQ(json.out,
            "{\"value\":{\"lru_data\":{\"last_used\":\"1700000000\",\"index\":\"3\"},"
            "\"image_path\":\"/usr/bin/curl\",\"signature_details\":{\"product_family\":\"\","
            "\"vendor\":\"Acme\",\"signature_state\":0,\"os_specific\":0,\"notarized\":true},"
            "\"sha256\":\"ab12\",\"md5\":\"\",\"sa_score\":0.5,\"entitlements\":[\"net\","
            "\"fs\"]},\"key\":\"hash-1\"}\n");
}

TEST_F(CtlInspectTest, DumpLimitStopsAfterNRecords) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun two = Ctl({"dump", "fvhash_store", "--limit", "2"});
  EXPECT_EXIT_CODE(two, 0);
  EXPECT_EQ(two.out, "\"aa01\" => {verdict: true}\n\"bb02\" => {}\n");
  const ToolRun none = Ctl({"dump", "fvhash_store", "--limit", "0"});
  EXPECT_EXIT_CODE(none, 0);
  EXPECT_EQ(none.out, "");
  const ToolRun more = Ctl({"dump", "fvhash_store", "--limit", "10"});
  EXPECT_EXIT_CODE(more, 0);
  EXPECT_EQ(more.OutLines().size(), 3u);
}

TEST_F(CtlInspectTest, DumpStartBeginsAtTheKeyOrTheOneAfterIt) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun at = Ctl({"dump", "fvhash_store", "--start", "bb02"});
  EXPECT_EXIT_CODE(at, 0);
  EXPECT_EQ(at.out, "\"bb02\" => {}\n\"cc03\" => {verdict: true}\n");
  const ToolRun after = Ctl({"dump", "fvhash_store", "--start", "bb", "--limit", "1"});
  EXPECT_EXIT_CODE(after, 0);
  EXPECT_EQ(after.out, "\"bb02\" => {}\n");
  const ToolRun past = Ctl({"dump", "fvhash_store", "--start", "zz"});
  EXPECT_EXIT_CODE(past, 0);
  EXPECT_EQ(past.out, "");
}

TEST_F(CtlInspectTest, DumpStartTakesAMessageKeyInTextFormat) {
  WriteStore(StoreDir("process_settings_policy_store"),
             {{ProcessKey("bash", 5), PolicyValue("b5")},
              {ProcessKey("bash", 9), PolicyValue("b9")},
              {ProcessKey("sshd", 5), PolicyValue("s5")}});
  const ToolRun run = Ctl(
      {"dump", "process_settings_policy_store", "--start", "process_name: \"bash\" module_id: 9"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out,
            "{process_name: \"bash\" module_id: 9} => {policy: \"b9\"}\n"
            "{process_name: \"sshd\" module_id: 5} => {policy: \"s5\"}\n");
}

TEST_F(CtlInspectTest, DumpStartThatIsNotAKeyMessageFailsInOneLine) {
  WriteStore(StoreDir("general_settings_policy_store"), {{GeneralKey(5), PolicyValue("five")}});
  const ToolRun run = Ctl({"dump", "general_settings_policy_store", "--start", "module: 5"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(
      run.err,
      "dravinholdctl: key is not a proto.GeneralSettingsPolicyStore.Key in text format or JSON: "
      "module: 5 (column 7: Message type \"proto.GeneralSettingsPolicyStore.Key\" has no "
      "field named \"module\".)\n");
}

TEST_F(CtlInspectTest, DumpShowsARecordThatDoesNotDecodeAndFails) {
  WriteStore(StoreDir("fvhash_store"), {{"aa01", FvhashValue(true)},
                                        {"bb02", std::string("\xff\xff", 2)},
                                        {"cc03", FvhashValue(false)}});
  const ToolRun text = Ctl({"dump", "fvhash_store"});
  EXPECT_EXIT_CODE(text, 1);
  EXPECT_EQ(text.out,
            "\"aa01\" => {verdict: true}\n"
            "\"bb02\" => <undecodable \"\\xff\\xff\">\n"
            "\"cc03\" => {}\n");
  EXPECT_EQ(text.err, "dravinholdctl: 1 of 3 records could not be decoded\n");
  const ToolRun json = Ctl({"dump", "fvhash_store", "--json"});
  EXPECT_EXIT_CODE(json, 1);
  EXPECT_EQ(json.OutLines().at(1), "{\"key\":\"bb02\",\"value_base64\":\"//8=\"}");
  EXPECT_EQ(json.err, "dravinholdctl: 1 of 3 records could not be decoded\n");
}

TEST_F(CtlInspectTest, DumpShowsAKeyMessageThatDoesNotDecode) {
  WriteStore(StoreDir("general_settings_policy_store"),
             {{GeneralKey(5), PolicyValue("five")}, {"\xff", PolicyValue("odd")}});
  const ToolRun run = Ctl({"dump", "general_settings_policy_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out,
            "{module_id: 5} => {policy: \"five\"}\n"
            "<undecodable \"\\xff\"> => {policy: \"odd\"}\n");
  EXPECT_EQ(run.err, "dravinholdctl: 1 of 2 records could not be decoded\n");
}

TEST_F(CtlInspectTest, DumpOfAStringThatIsNotUtf8IsUndecodableAndSaysSoOnce) {
  WriteStore(StoreDir("trusted_signers_store"), {{"k", SignerValue(std::string("\xc3", 1))}});
  const ToolRun run = Ctl({"dump", "trusted_signers_store"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "\"k\" => <undecodable \"\\x0a\\x01\\xc3\">\n");
  EXPECT_EQ(run.err, "dravinholdctl: 1 of 1 records could not be decoded\n");
}

TEST_F(CtlInspectTest, DumpOfAnEmptyStorePrintsNothing) {
  WriteStore(StoreDir("fvhash_store"), {});
  const ToolRun run = Ctl({"dump", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
}

TEST_F(CtlInspectTest, ReadingAMissingStoreFailsAndDoesNotCreateIt) {
  const std::string path = StoreDir("fvhash_store");
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"dump", "fvhash_store"},
                                             {"get", "fvhash_store", "aa"},
                                             {"count", "fvhash_store"},
                                             {"stats", "fvhash_store"},
                                             {"verify", "fvhash_store"},
                                             {"repair", "fvhash_store"},
                                             {"export", "fvhash_store", root_.Sub("x.bin")}}) {
    SCOPED_TRACE(args[0]);
    const ToolRun run = Ctl(args);
    EXPECT_EXIT_CODE(run, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "dravinholdctl: not present: " + path + "\n");
    EXPECT_FALSE(PathExists(path));
  }
  EXPECT_TRUE(Snapshot(Root()).empty());
}

// ---- get ----

TEST_F(CtlInspectTest, GetPrintsOneRecord) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun run = Ctl({"get", "fvhash_store", "cc03"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "\"cc03\" => {verdict: true}\n");
  EXPECT_EQ(run.err, "");
  const ToolRun json = Ctl({"get", "fvhash_store", "cc03", "--json"});
  EXPECT_EXIT_CODE(json, 0);
  EXPECT_EQ(json.out, "{\"value\":{\"verdict\":true},\"key\":\"cc03\"}\n");
}

TEST_F(CtlInspectTest, GetTakesAMessageKeyInTextFormat) {
  WriteStore(StoreDir("general_settings_policy_store"),
             {{GeneralKey(5), PolicyValue("five")}, {GeneralKey(7), PolicyValue("seven")}});
  WriteStore(StoreDir("process_settings_policy_store"),
             {{ProcessKey("bash", 5), PolicyValue("b5")}});
  const ToolRun general = Ctl({"get", "general_settings_policy_store", "module_id: 7"});
  EXPECT_EXIT_CODE(general, 0);
  EXPECT_EQ(general.out, "{module_id: 7} => {policy: \"seven\"}\n");
  const ToolRun process = Ctl(
      {"get", "process_settings_policy_store", "process_name: \"bash\" module_id: 5", "--json"});
  EXPECT_EXIT_CODE(process, 0);
  EXPECT_EQ(
      process.out,
      "{\"key\":{\"process_name\":\"bash\",\"module_id\":5},\"value\":{\"policy\":\"YjU=\"}}\n");
}

TEST_F(CtlInspectTest, GetOfAnAbsentKeyFails) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun run = Ctl({"get", "fvhash_store", "AA01"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: not found in fvhash_store: \"AA01\"\n");
  const ToolRun message = Ctl({"get", "general_settings_policy_store", "module_id: 5"});
  EXPECT_EXIT_CODE(message, 1);
  EXPECT_EQ(message.err,
            "dravinholdctl: not present: " + StoreDir("general_settings_policy_store") + "\n");
  WriteStore(StoreDir("general_settings_policy_store"), {{GeneralKey(7), PolicyValue("p")}});
  const ToolRun absent = Ctl({"get", "general_settings_policy_store", "module_id: 5"});
  EXPECT_EXIT_CODE(absent, 1);
  EXPECT_EQ(absent.err,
            "dravinholdctl: not found in general_settings_policy_store: module_id: 5\n");
}

TEST_F(CtlInspectTest, GetOfAValueThatDoesNotDecodeShowsItAndFails) {
  WriteStore(StoreDir("fvhash_store"), {{"bad", std::string("\xff\xff", 2)}});
  const ToolRun run = Ctl({"get", "fvhash_store", "bad"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "\"bad\" => <undecodable \"\\xff\\xff\">\n");
  EXPECT_EQ(run.err, "dravinholdctl: the record could not be decoded\n");
}

TEST_F(CtlInspectTest, GetWithAKeyThatIsNotAKeyMessageFails) {
  WriteStore(StoreDir("general_settings_policy_store"), {{GeneralKey(5), PolicyValue("five")}});
  const ToolRun run = Ctl({"get", "general_settings_policy_store", "module_id: five"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(
      run.err,
      "dravinholdctl: key is not a proto.GeneralSettingsPolicyStore.Key in text format or JSON: "
      "module_id: five (column 12: Expected integer, got: five)\n");
}

// ---- count ----

TEST_F(CtlInspectTest, CountPrintsTheNumberOfRecords) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  WriteStore(StoreDir("trusted_signers_store"), {});
  WriteStore(StoreDir("trusted_signers_cache"), ManySigners(), /*compact=*/true);
  const ToolRun three = Ctl({"count", "fvhash_store"});
  EXPECT_EXIT_CODE(three, 0);
  EXPECT_EQ(three.out, "3\n");
  EXPECT_EQ(three.err, "");
  const ToolRun none = Ctl({"count", "trusted_signers_store"});
  EXPECT_EXIT_CODE(none, 0);
  EXPECT_EQ(none.out, "0\n");
  const ToolRun many = Ctl({"count", "trusted_signers_cache"});
  EXPECT_EXIT_CODE(many, 0);
  EXPECT_EQ(many.out, "10000\n");
}

TEST_F(CtlInspectTest, CountSeesRecordsThatAreOnlyInTheLogAndLeavesTheLogAlone) {
  // Records written and never compacted lie in the log alone; the engine's
  // open would turn that log into a table, and the tool must not.
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const auto before = Snapshot(StoreDir("fvhash_store"));
  ASSERT_EQ(FilesWithSuffix(StoreDir("fvhash_store"), ".log").size(), 1u);
  ASSERT_TRUE(FilesWithSuffix(StoreDir("fvhash_store"), ".ldb").empty());
  const ToolRun run = Ctl({"count", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "3\n");
  EXPECT_EQ(Snapshot(StoreDir("fvhash_store")), before);
}

// ---- the private copy ----

TEST_F(CtlInspectTest, InspectionLeavesNoCopyBehind) {
  // The tool reads a private copy of a store under $TMPDIR and removes it,
  // whether the read succeeds or not.
  const std::string tmp = root_.Sub("tmp");
  ASSERT_TRUE(std::filesystem::create_directory(tmp));
  const std::string data = root_.Sub("data");
  ASSERT_TRUE(std::filesystem::create_directory(data));
  WriteStore(data + "/fvhash_store", ThreeVerdicts());
  WriteStore(data + "/trusted_signers_store", ThreeVerdicts(), /*compact=*/true);
  ASSERT_EQ(unlink((data + "/trusted_signers_store/CURRENT").c_str()), 0);
  WriteStore(data + "/enrichment_store", {});
  WriteStore(data + "/enrichment_store.lru", {});
  const std::vector<std::vector<std::string>> runs = {
      {"stores"},
      {"dump", "fvhash_store"},
      {"get", "fvhash_store", "aa01"},
      {"count", "fvhash_store"},
      {"count", "trusted_signers_store"},
      {"stats", "fvhash_store"},
      {"verify", "--all"},
      {"lru"},
      {"export", "fvhash_store", root_.Sub("out.bin")},
      {"repair", "fvhash_store"},
  };
  for (std::vector<std::string> args : runs) {
    SCOPED_TRACE(args[0]);
    args.insert(args.begin(), {"--root", data});
    RunTool(args, {{"TMPDIR", tmp}});
    EXPECT_TRUE(std::filesystem::is_empty(tmp));
  }
}

TEST_F(CtlInspectTest, CopyOnAnotherFileSystemIsMadeOfCopiesNotLinks) {
  // Table files cannot be linked across file systems: the tool copies them.
  struct stat shm;
  struct stat data;
  if (stat("/dev/shm", &shm) != 0 || stat(Root().c_str(), &data) != 0 ||
      shm.st_dev == data.st_dev) {
    GTEST_SKIP() << "needs /dev/shm on a file system other than the data root's";
  }
  char pattern[] = "/dev/shm/ctl-test-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string tmp = pattern;
  WriteStore(StoreDir("trusted_signers_store"), ManySigners(), /*compact=*/true);
  const ToolRun run =
      RunTool({"--root", Root(), "count", "trusted_signers_store"}, {{"TMPDIR", tmp}});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "10000\n");
  EXPECT_EQ(run.err, "");
  EXPECT_TRUE(std::filesystem::is_empty(tmp));
  testing_support::RemoveTree(tmp);
}

TEST_F(CtlInspectTest, NoPlaceForTheCopyCouldNotCheck) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun run =
      RunTool({"--root", Root(), "count", "fvhash_store"}, {{"TMPDIR", root_.Sub("no-such-tmp")}});
  EXPECT_EXIT_CODE(run, 3);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: cannot make a temporary directory for a copy of " +
                         StoreDir("fvhash_store") + ": No such file or directory\n");
}

// ---- stats ----

TEST_F(CtlInspectTest, StatsTellsSizeTableFilesAndTheEnginesLevels) {
  const std::string path = StoreDir("trusted_signers_store");
  WriteStore(path, ManySigners(), /*compact=*/true);
  const size_t tables = FilesWithSuffix(path, ".ldb").size();
  ASSERT_GE(tables, 1u);
  const uint64_t bytes = AllocatedBytes(path);
  const auto before = Snapshot(path);

  const ToolRun run = Ctl({"stats", "trusted_signers_store"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_GE(lines.size(), 9u);
  EXPECT_EQ(lines[0], "store:        trusted_signers_store");
  EXPECT_EQ(lines[1], "directory:    " + path);
  EXPECT_EQ(lines[2], "size on disk: " + Human(bytes) + " (" + std::to_string(bytes) + " bytes)");
  EXPECT_EQ(lines[3], "table files:  " + std::to_string(tables));
  EXPECT_EQ(lines[4], "");
  EXPECT_EQ(lines[5], "                               Compactions");
  EXPECT_EQ(lines[6], "Level  Files Size(MB) Time(sec) Read(MB) Write(MB)");
  // Each table file is listed under its level by number.
  for (const std::string& table : FilesWithSuffix(path, ".ldb")) {
    const std::string number = std::to_string(std::stoul(table.substr(0, table.size() - 4)));
    EXPECT_NE(run.out.find(" " + number + ":"), std::string::npos) << table << "\n" << run.out;
  }
  EXPECT_NE(run.out.find("--- level "), std::string::npos);
  EXPECT_EQ(Snapshot(path), before);
}

TEST_F(CtlInspectTest, StatsOfAStoreWithNoTables) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun run = Ctl({"stats", "fvhash_store"});
  EXPECT_EXIT_CODE(run, 0);
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[3], "table files:  0");
}

// ---- answers as JSON ----

TEST_F(CtlInspectTest, CountStatsAndStoresAnswerInJson) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun count = Ctl({"count", "fvhash_store", "--json"});
  EXPECT_EXIT_CODE(count, 0);
  EXPECT_EQ(count.out, "{\"store\":\"fvhash_store\",\"records\":3}\n");
  const ToolRun stats = Ctl({"--json", "stats", "fvhash_store"});
  EXPECT_EXIT_CODE(stats, 0);
  const std::string head =
      "{\"store\":\"fvhash_store\",\"directory\":\"" + StoreDir("fvhash_store") +
      "\",\"size_bytes\":" + std::to_string(AllocatedBytes(StoreDir("fvhash_store"))) +
      ",\"table_files\":0,\"leveldb_stats\":\"";
  EXPECT_EQ(stats.out.rfind(head, 0), 0u) << stats.out;
  EXPECT_EQ(stats.OutLines().size(), 1u);
  const ToolRun stores = Ctl({"stores", "--json"});
  EXPECT_EXIT_CODE(stores, 0);
  const std::vector<std::string> lines = stores.OutLines();
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0],
            "{\"store\":\"fvhash_store\",\"present\":true,\"in_use_by\":0,\"size_bytes\":" +
                std::to_string(AllocatedBytes(StoreDir("fvhash_store"))) +
                ",\"records\":3,\"state\":\"ok\",\"error\":\"\",\"directory\":\"" +
                StoreDir("fvhash_store") + "\"}");
  EXPECT_EQ(lines[1],
            "{\"store\":\"trusted_signers_store\",\"present\":false,\"in_use_by\":0,"
            "\"size_bytes\":0,\"records\":0,\"state\":\"absent\",\"error\":\"\",\"directory\":\"" +
                StoreDir("trusted_signers_store") + "\"}");
}

// ---- dumpfile ----

TEST_F(CtlInspectTest, DumpFilePrintsATableALogAndAManifestRaw) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, ThreeVerdicts(), /*compact=*/true);
  WriteEach(path, {{"dd04", FvhashValue(true)}});
  const auto before = Snapshot(path);
  const std::string table = path + "/" + FilesWithSuffix(path, ".ldb").at(0);
  const ToolRun dumped = RunTool({"dumpfile", table});
  EXPECT_EXIT_CODE(dumped, 0);
  EXPECT_EQ(dumped.err, "");
  // One line per entry: key, sequence, kind and value, escaped by the engine.
  const std::vector<std::string> lines = dumped.OutLines();
  ASSERT_EQ(lines.size(), 3u) << dumped.out;
  EXPECT_EQ(lines[0].rfind("'aa01' @ ", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find(" : val => '\\x08\\x01'"), std::string::npos) << lines[0];
  std::vector<std::string> logs = FilesWithSuffix(path, ".log");
  std::sort(logs.begin(), logs.end());
  const ToolRun log = RunTool({"dumpfile", path + "/" + logs.back()});
  EXPECT_EXIT_CODE(log, 0);
  EXPECT_NE(log.out.find("put 'dd04' '\\x08\\x01'"), std::string::npos) << log.out;
  const ToolRun manifest = RunTool({"dumpfile", path + "/" + FileWithPrefix(path, "MANIFEST-")});
  EXPECT_EXIT_CODE(manifest, 0);
  EXPECT_NE(manifest.out.find("AddFile: "), std::string::npos) << manifest.out;
  const ToolRun json = RunTool({"dumpfile", table, "--json"});
  EXPECT_EXIT_CODE(json, 0);
  EXPECT_EQ(json.out.rfind("{\"file\":\"" + table + "\",\"dump\":\"'aa01' @ ", 0), 0u) << json.out;
  EXPECT_EQ(Snapshot(path), before);
}

TEST_F(CtlInspectTest, DumpFileOfAFileThatIsNotThereOrNoDatabaseFile) {
  const std::string missing = root_.Sub("000009.ldb");
  const ToolRun run = RunTool({"dumpfile", missing});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "dravinholdctl: cannot read " + missing + ": No such file or directory\n");
  const std::string other = root_.Sub("notes.txt");
  testing_support::WriteFile(other, "x");
  const ToolRun unknown = RunTool({"dumpfile", other});
  EXPECT_EXIT_CODE(unknown, 1);
  EXPECT_EQ(unknown.err, "dravinholdctl: cannot dump " + other + ": Invalid argument: " + other +
                             ": unknown file type\n");
}

}  // namespace
}  // namespace ctl_test
