// dravinholdctl export and import: a store's records in a file that names
// the store and its schema, binary or JSON Lines, given back byte for byte,
// and imported the way the store's family writes them.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#include "dravinhold/fvhash_store/fvhash_store.pb.h"
#include "dravinhold/trusted_signers_store/trusted_signers_store.pb.h"
#include "support/damage.h"

namespace ctl_test {
namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

using CtlTransferTest = CtlTest;

Records ThreeVerdicts() {
  return {{"aa01", FvhashValue(true)}, {"bb02", FvhashValue(false)}, {"cc03", FvhashValue(true)}};
}

// Keys whose bytes are not all UTF-8, UTF-8 beyond ASCII, and plain; all
// already in lower case, as the family keeps them.
Records AwkwardVerdicts() {
  return {{"caf\xc3\xa9", FvhashValue(false)},
          {"plain", FvhashValue(true)},
          {std::string("\xff\xfe-bad", 6), FvhashValue(true)}};
}

// ---- export ----

TEST_F(CtlTransferTest, BinaryExportNamesStoreAndSchemaAndHoldsTheBulkMessage) {
  WriteStore(
      StoreDir("fvhash_store"),
      {{"cc03", FvhashValue(true)}, {"aa01", FvhashValue(true)}, {"bb02", FvhashValue(false)}});
  const std::string file = root_.Sub("verdicts.bin");
  const ToolRun run = Ctl({"export", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "fvhash_store: 3 records exported to " + file + "\n");
  EXPECT_EQ(run.err, "");
  // Field 1 the store, field 2 the schema, field 3 the bulk message.
  const std::string contents = ReadFile(file);
  const std::string head =
      std::string("\x0a\x0c") + "fvhash_store" + "\x12\x16" + "proto.FVhashStore.Data" + "\x1a";
  ASSERT_EQ(contents.compare(0, head.size(), head), 0);
  size_t at = head.size();
  size_t length = 0;
  for (int shift = 0; at < contents.size(); shift += 7) {
    const unsigned char byte = static_cast<unsigned char>(contents[at++]);
    length |= static_cast<size_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) break;
  }
  ASSERT_EQ(at + length, contents.size());
  proto::FVhashStore::Data data;
  ASSERT_TRUE(data.ParseFromString(contents.substr(at)));
  ASSERT_EQ(data.entries_size(), 3);
  EXPECT_EQ(data.entries(0).key(), "aa01");
  EXPECT_TRUE(data.entries(0).value().verdict());
  EXPECT_EQ(data.entries(1).key(), "bb02");
  EXPECT_FALSE(data.entries(1).value().verdict());
  EXPECT_EQ(data.entries(2).key(), "cc03");
}

TEST_F(CtlTransferTest, JsonExportIsAHeaderLineAndOneRecordALine) {
  WriteStore(StoreDir("general_settings_policy_store"),
             {{GeneralKey(5), PolicyValue("pol")}, {GeneralKey(7), PolicyValue("")}});
  const std::string file = root_.Sub("general.json");
  const ToolRun run = Ctl({"export", "general_settings_policy_store", file, "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "{\"store\":\"general_settings_policy_store\",\"records\":2,\"file\":\"" +
                         file + "\",\"keys_lower_cased\":0,\"order_rows\":0}\n");
  EXPECT_EQ(ReadFile(file),
            "{\"store\":\"general_settings_policy_store\","
            "\"schema\":\"proto.GeneralSettingsPolicyStore.Data\"}\n"
            "{\"key\":{\"module_id\":5},\"value\":{\"policy\":\"cG9s\"}}\n"
            "{\"key\":{\"module_id\":7},\"value\":{\"policy\":\"\"}}\n");
}

TEST_F(CtlTransferTest, KeysThatAreNotUtf8SurviveBothForms) {
  WriteStore(StoreDir("fvhash_store"), AwkwardVerdicts());
  const std::string binary = root_.Sub("awkward.bin");
  const std::string json = root_.Sub("awkward.json");
  ASSERT_EQ(Ctl({"export", "fvhash_store", binary}).exit_code, 0);
  ASSERT_EQ(Ctl({"export", "fvhash_store", json, "--json"}).exit_code, 0);
  EXPECT_EQ(ReadFile(json),
            "{\"store\":\"fvhash_store\",\"schema\":\"proto.FVhashStore.Data\"}\n"
            "{\"value\":{\"verdict\":false},\"key\":\"caf\xc3\xa9\"}\n"
            "{\"value\":{\"verdict\":true},\"key\":\"plain\"}\n"
            "{\"value\":{\"verdict\":true},\"key_base64\":\"//4tYmFk\"}\n");
  for (const std::string& file : {binary, json}) {
    SCOPED_TRACE(file);
    const std::string other = root_.Sub("other-" + std::to_string(file.size()));
    ASSERT_TRUE(std::filesystem::create_directory(other));
    const ToolRun run = RunAt(other, {"import", "fvhash_store", file});
    EXPECT_EXIT_CODE(run, 0);
    EXPECT_EQ(run.out, "fvhash_store: replaced by 3 records from " + file + "\n");
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(ReadStore(other + "/fvhash_store"), AwkwardVerdicts());
  }
}

TEST_F(CtlTransferTest, ExportToStandardOutputAndImportFromStandardInput) {
  WriteStore(StoreDir("fvhash_store"), AwkwardVerdicts());
  const ToolRun exported = Ctl({"export", "fvhash_store", "-"});
  EXPECT_EXIT_CODE(exported, 0);
  EXPECT_EQ(exported.err, "fvhash_store: 3 records exported\n");
  const std::string file = root_.Sub("piped.bin");
  WriteFile(file, exported.out);
  const std::string other = root_.Sub("other");
  ASSERT_TRUE(std::filesystem::create_directory(other));
  const ToolRun imported =
      RunTool({"--root", other, "import", "fvhash_store", "-"}, {}, 30, false, file);
  EXPECT_EXIT_CODE(imported, 0);
  EXPECT_EQ(imported.out, "fvhash_store: replaced by 3 records from -\n");
  EXPECT_EQ(ReadStore(other + "/fvhash_store"), AwkwardVerdicts());
}

TEST_F(CtlTransferTest, ExportOfARecordThatDoesNotDecodeFailsAndWritesNothing) {
  WriteStore(StoreDir("fvhash_store"), {{"aa01", std::string("\xff\xff", 2)}});
  const std::string file = root_.Sub("verdicts.bin");
  const ToolRun run = Ctl({"export", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err,
            "dravinholdctl: 1 of 1 records of fvhash_store do not decode; nothing exported\n");
  EXPECT_FALSE(PathExists(file));
}

TEST_F(CtlTransferTest, ExportToAFileThatCannotBeWrittenSaysWhy) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const ToolRun run = Ctl({"export", "fvhash_store", Root()});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: cannot write " + Root() + ": Is a directory\n");
}

// ---- import ----

TEST_F(CtlTransferTest, ImportReplacesEveryRecordOfTheStore) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const std::string file = root_.Sub("verdicts.bin");
  ASSERT_EQ(Ctl({"export", "fvhash_store", file}).exit_code, 0);
  WriteStore(StoreDir("fvhash_store"), {{"zz99", FvhashValue(true)}});
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(ReadStore(StoreDir("fvhash_store")), ThreeVerdicts());
}

TEST_F(CtlTransferTest, ImportRefusesAnotherStoresExport) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  WriteStore(StoreDir("trusted_signers_store"), {{"s1", SignerValue("Signer")}});
  const auto signers = Snapshot(StoreDir("trusted_signers_store"));
  const std::string binary = root_.Sub("verdicts.bin");
  const std::string json = root_.Sub("verdicts.json");
  ASSERT_EQ(Ctl({"export", "fvhash_store", binary}).exit_code, 0);
  ASSERT_EQ(Ctl({"export", "fvhash_store", json, "--json"}).exit_code, 0);
  for (const std::string& file : {binary, json}) {
    SCOPED_TRACE(file);
    const ToolRun run = Ctl({"import", "trusted_signers_store", file});
    EXPECT_EXIT_CODE(run, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "dravinholdctl: " + file +
                           " is an export of fvhash_store, not of trusted_signers_store; nothing "
                           "imported\n");
    EXPECT_EQ(Snapshot(StoreDir("trusted_signers_store")), signers);
  }
}

TEST_F(CtlTransferTest, ImportRefusesABulkMessageThatNamesNoStore) {
  proto::FVhashStore::Data data;
  auto* entry = data.add_entries();
  entry->set_key("aa01");
  entry->mutable_value()->set_verdict(true);
  const std::string file = root_.Sub("bare.bin");
  WriteFile(file, data.SerializeAsString());
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "dravinholdctl: " + file +
                         " is not an export of dravinholdctl: it names no store and schema (write "
                         "it with \"dravinholdctl export\")\n");
  EXPECT_FALSE(PathExists(StoreDir("fvhash_store")));
}

TEST_F(CtlTransferTest, ImportRefusesRecordsThatAreNotTheStoresTypes) {
  // A value that does not decode, in a file that is otherwise this store's.
  const std::string file = root_.Sub("bad.jsonl");
  WriteFile(file,
            "{\"store\":\"fvhash_store\",\"schema\":\"proto.FVhashStore.Data\"}\n"
            "{\"key\":\"aa01\",\"value\":{\"verdict\":true}}\n"
            "{\"key\":\"bb02\",\"value_base64\":\"//8=\"}\n");
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "dravinholdctl: " + file +
                         ":3: not a record of fvhash_store: value_base64 does not hold a "
                         "proto.FVhashStore.Value\n");
  WriteFile(file, "{\"key\":\"\",\"value\":{}}\n");
  EXPECT_EQ(Ctl({"import", "fvhash_store", file}).err,
            "dravinholdctl: " + file + ": record 1: the key is empty\n");
  WriteFile(file, "{\"store\":\"fvhash_store\",\"schema\":\"proto.Other.Data\"}\n");
  EXPECT_EQ(Ctl({"import", "fvhash_store", file}).err,
            "dravinholdctl: " + file +
                " holds proto.Other.Data records, not proto.FVhashStore.Data; nothing imported\n");
  EXPECT_FALSE(PathExists(StoreDir("fvhash_store")));
}

TEST_F(CtlTransferTest, ImportTakesWhatDumpJsonPrints) {
  WriteStore(StoreDir("process_settings_policy_store"), {{ProcessKey("bash", 5), PolicyValue("p5")},
                                                         {ProcessKey("sshd", 1), PolicyValue("")}});
  const ToolRun dump = Ctl({"dump", "process_settings_policy_store", "--json"});
  ASSERT_EQ(dump.exit_code, 0);
  const std::string file = root_.Sub("dump.jsonl");
  WriteFile(file, dump.out);
  const std::string other = root_.Sub("other");
  ASSERT_TRUE(std::filesystem::create_directory(other));
  const ToolRun run = RunAt(other, {"import", "process_settings_policy_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(ReadStore(other + "/process_settings_policy_store"),
            ReadStore(StoreDir("process_settings_policy_store")));
}

TEST_F(CtlTransferTest, ImportWritesSignerAndHashKeysInLowerCase) {
  const std::string file = root_.Sub("signers.jsonl");
  WriteFile(file,
            "{\"key\":\"ABCD\",\"value\":{\"name\":\"first\"}}\n"
            "{\"key\":\"efgh\",\"value\":{\"name\":\"plain\"}}\n"
            "{\"key\":\"AbCd\",\"value\":{\"name\":\"later\"}}\n");
  const ToolRun run = Ctl({"import", "trusted_signers_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "trusted_signers_store: replaced by 2 records from " + file +
                         "\n2 keys written in lower case\n");
  // As the family has it: one key, the later record standing.
  EXPECT_EQ(ReadStore(StoreDir("trusted_signers_store")),
            (Records{{"abcd", SignerValue("later")}, {"efgh", SignerValue("plain")}}));
  // The cache keeps its keys as given.
  WriteFile(file, "{\"key\":\"ABCD\",\"value\":{\"certhash\":\"c\"}}\n");
  ASSERT_EQ(Ctl({"import", "trusted_signers_cache", file}).exit_code, 0);
  EXPECT_EQ(ReadStore(StoreDir("trusted_signers_cache")).at(0).first, "ABCD");
}

TEST_F(CtlTransferTest, ImportOfEnrichmentEntriesRebuildsTheirOrderOfUse) {
  // Indexes of another host: stale, and one taken twice.
  const std::string file = root_.Sub("enrichment.jsonl");
  WriteFile(
      file,
      "{\"key\":\"new\",\"value\":{\"image_path\":\"/n\",\"lru_data\":{\"last_used\":300,"
      "\"index\":7}}}\n"
      "{\"key\":\"old\",\"value\":{\"image_path\":\"/o\",\"lru_data\":{\"last_used\":100,"
      "\"index\":7}}}\n"
      "{\"key\":\"mid\",\"value\":{\"image_path\":\"/m\",\"lru_data\":{\"last_used\":200}}}\n");
  WriteStore(StoreDir("enrichment_store.lru"), {{LruKey(9), LruValue("gone")}});
  const ToolRun run = Ctl({"import", "enrichment_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "enrichment_store: replaced by 3 records from " + file +
                         "\nenrichment_store.lru: rebuilt with 3 rows, oldest use first\n");
  EXPECT_EQ(ReadStore(StoreDir("enrichment_store")),
            (Records{{"mid", EnrichmentValue("/m", 200, 2)},
                     {"new", EnrichmentValue("/n", 300, 3)},
                     {"old", EnrichmentValue("/o", 100, 1)}}));
  EXPECT_EQ(ReadStore(StoreDir("enrichment_store.lru")), (Records{{LruKey(1), LruValue("old")},
                                                                  {LruKey(2), LruValue("mid")},
                                                                  {LruKey(3), LruValue("new")}}));
  const ToolRun lru = Ctl({"lru", "--json"});
  EXPECT_EXIT_CODE(lru, 0);
  EXPECT_EQ(lru.OutLines().back(),
            "{\"rows\":3,\"entries\":3,\"rows_without_entry\":0,\"rows_superseded\":0,"
            "\"entries_without_row\":0,\"entries_on_another_key_row\":0,\"undecodable\":0}");
  const ToolRun order = Ctl({"import", "enrichment_store.lru", file});
  EXPECT_EXIT_CODE(order, 1);
  EXPECT_EQ(order.err,
            "dravinholdctl: enrichment_store.lru is not imported by itself: it follows the "
            "entries; import enrichment_store, which rebuilds it\n");
}

TEST_F(CtlTransferTest, JsonErrorsNameTheLineAndTheColumn) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const auto before = Snapshot(StoreDir("fvhash_store"));
  const std::string file = root_.Sub("bad.jsonl");
  WriteFile(file, "{\"key\":\"a\",\"value\":{}}\n{\"key\": x}\n");
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "dravinholdctl: " + file +
                         ":2: column 9: not a record of fvhash_store: Unexpected token.\n");
  WriteFile(file, "{\"key\":\"a\",\"value\":{\"verdict\":3}}\n");
  const ToolRun typed = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(typed, 1);
  EXPECT_EQ(typed.err, "dravinholdctl: " + file +
                           ":1: not a record of fvhash_store: (value.verdict): invalid value 3 "
                           "for type TYPE_BOOL\n");
  WriteFile(file, "{\"key\":\"a\"}\n");
  EXPECT_EQ(Ctl({"import", "fvhash_store", file}).err,
            "dravinholdctl: " + file + ":1: a record without \"value\"\n");
  EXPECT_EQ(Snapshot(StoreDir("fvhash_store")), before);
}

TEST_F(CtlTransferTest, AFileWithoutRecordsEmptiesTheStoreOnlyWhenAskedTo) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const std::string file = root_.Sub("empty.jsonl");
  WriteFile(file, "{\"store\":\"fvhash_store\",\"schema\":\"proto.FVhashStore.Data\"}\n");
  const ToolRun refused = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(refused, 1);
  EXPECT_EQ(refused.err, "dravinholdctl: " + file +
                             " holds no records; the store is left as it was (--allow-empty "
                             "empties it)\n");
  EXPECT_EQ(ReadStore(StoreDir("fvhash_store")), ThreeVerdicts());
  const ToolRun emptied = Ctl({"import", "fvhash_store", file, "--allow-empty"});
  EXPECT_EXIT_CODE(emptied, 0);
  EXPECT_TRUE(ReadStore(StoreDir("fvhash_store")).empty());
  EXPECT_FALSE(PathExists(StoreDir("trusted_signers_store")));
}

TEST_F(CtlTransferTest, ImportOfAFileThatIsNotThereSaysWhy) {
  const std::string file = root_.Sub("missing.bin");
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: cannot read " + file + ": No such file or directory\n");
  EXPECT_FALSE(PathExists(StoreDir("fvhash_store")));
}

// ---- keys on the command line ----

TEST_F(CtlTransferTest, GetTakesAKeyInEveryFormDumpPrintsIt) {
  WriteStore(StoreDir("fvhash_store"), AwkwardVerdicts());
  for (const bool json : {false, true}) {
    std::vector<std::string> args = {"dump", "fvhash_store"};
    if (json) args.push_back("--json");
    const ToolRun dump = Ctl(args);
    ASSERT_EQ(dump.exit_code, 0);
    for (const std::string& line : dump.OutLines()) {
      SCOPED_TRACE(line);
      // The text form's key is what stands before " => "; the JSON form is
      // given whole.
      const std::string key = json ? line : line.substr(0, line.find(" => "));
      std::vector<std::string> get = {"get", "fvhash_store", key};
      if (json) get.push_back("--json");
      const ToolRun run = Ctl(get);
      EXPECT_EXIT_CODE(run, 0);
      EXPECT_EQ(run.out, line + "\n");
    }
  }
  WriteStore(StoreDir("general_settings_policy_store"), {{GeneralKey(5), PolicyValue("p")}});
  for (const char* key :
       {"module_id: 5", "{module_id: 5}", "{\"module_id\": 5}", "{\"key\":{\"module_id\":5}}"}) {
    SCOPED_TRACE(key);
    const ToolRun run = Ctl({"get", "general_settings_policy_store", key});
    EXPECT_EXIT_CODE(run, 0);
    EXPECT_EQ(run.out, "{module_id: 5} => {policy: \"p\"}\n");
  }
}

}  // namespace
}  // namespace ctl_test
