// dravinholdctl export and import: a store's records as its bulk Data
// message in a file, binary or JSON, and back into a store that is replaced
// whole or not at all.

#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#include "dravinhold/fvhash_store/fvhash_store.pb.h"
#include "dravinhold/general_settings_policy_store/general_settings_policy_store.pb.h"
#include "support/damage.h"

namespace ctl_test {
namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

using CtlTransferTest = CtlTest;

Records ThreeVerdicts() {
  return {{"aa01", FvhashValue(true)}, {"bb02", FvhashValue(false)}, {"cc03", FvhashValue(true)}};
}

// ---- export ----

TEST_F(CtlTransferTest, ExportWritesTheBulkMessageInKeyOrder) {
  WriteStore(
      StoreDir("fvhash_store"),
      {{"cc03", FvhashValue(true)}, {"aa01", FvhashValue(true)}, {"bb02", FvhashValue(false)}});
  const std::string file = root_.Sub("verdicts.bin");
  const ToolRun run = Ctl({"export", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "fvhash_store: 3 records exported to " + file + "\n");
  EXPECT_EQ(run.err, "");
  proto::FVhashStore::Data data;
  ASSERT_TRUE(data.ParseFromString(ReadFile(file)));
  ASSERT_EQ(data.entries_size(), 3);
  EXPECT_EQ(data.entries(0).key(), "aa01");
  EXPECT_TRUE(data.entries(0).value().verdict());
  EXPECT_EQ(data.entries(1).key(), "bb02");
  EXPECT_FALSE(data.entries(1).value().verdict());
  EXPECT_EQ(data.entries(2).key(), "cc03");
  EXPECT_TRUE(data.entries(2).value().verdict());
}

TEST_F(CtlTransferTest, ExportJsonOfAPolicyStoreWritesKeyMessages) {
  WriteStore(StoreDir("general_settings_policy_store"),
             {{GeneralKey(5), PolicyValue("pol")}, {GeneralKey(7), PolicyValue("")}});
  const std::string file = root_.Sub("general.json");
  const ToolRun run = Ctl({"export", "general_settings_policy_store", file, "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "general_settings_policy_store: 2 records exported to " + file + "\n");
  EXPECT_EQ(ReadFile(file),
            "{\n"
            " \"entries\": [\n"
            "  {\n"
            "   \"key\": {\n"
            "    \"module_id\": 5\n"
            "   },\n"
            "   \"value\": {\n"
            "    \"policy\": \"cG9s\"\n"
            "   }\n"
            "  },\n"
            "  {\n"
            "   \"key\": {\n"
            "    \"module_id\": 7\n"
            "   },\n"
            "   \"value\": {}\n"
            "  }\n"
            " ]\n"
            "}\n");
}

TEST_F(CtlTransferTest, ExportOfAnEmptyStoreWritesAnEmptyMessage) {
  WriteStore(StoreDir("fvhash_store"), {});
  const std::string file = root_.Sub("empty.bin");
  const ToolRun run = Ctl({"export", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "fvhash_store: 0 records exported to " + file + "\n");
  EXPECT_EQ(ReadFile(file), "");
}

TEST_F(CtlTransferTest, ExportOfARecordThatDoesNotDecodeFailsAndWritesNothing) {
  WriteStore(StoreDir("fvhash_store"),
             {{"aa01", FvhashValue(true)}, {"bb02", std::string("\xff\xff", 2)}});
  const std::string file = root_.Sub("verdicts.bin");
  const ToolRun run = Ctl({"export", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: the value of \"bb02\" does not decode\n");
  EXPECT_FALSE(PathExists(file));
}

TEST_F(CtlTransferTest, ExportToAFileThatCannotBeWrittenFails) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const std::string file = root_.Sub("no-such-dir/verdicts.bin");
  const ToolRun run = Ctl({"export", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: cannot write " + file + "\n");
}

// ---- import ----

TEST_F(CtlTransferTest, ExportThenImportIntoAnotherRootGivesTheSameRecords) {
  proto::EnrichmentStore::Value value;
  value.set_image_path("/usr/bin/curl");
  value.mutable_lru_data()->set_index(4);
  value.mutable_lru_data()->set_last_used(1700000000);
  value.add_entitlements("net");
  const Records records = {{"h1", value.SerializeAsString()},
                           {"h2", EnrichmentValue("/bin/sh", 1, 2)}};
  WriteStore(StoreDir("enrichment_store"), records);
  testing_support::TempDir other;

  for (const bool json : {false, true}) {
    SCOPED_TRACE(json ? "json" : "binary");
    const std::string file = root_.Sub(json ? "e.json" : "e.bin");
    std::vector<std::string> export_args = {"export", "enrichment_store", file};
    std::vector<std::string> import_args = {"import", "enrichment_store", file};
    if (json) {
      export_args.push_back("--json");
      import_args.push_back("--json");
    }
    EXPECT_EXIT_CODE(Ctl(export_args), 0);
    const ToolRun run = RunAt(other.path(), import_args);
    EXPECT_EXIT_CODE(run, 0);
    EXPECT_EQ(run.out, "enrichment_store: replaced by 2 records from " + file + "\n");
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(ReadStore(other.path() + "/enrichment_store"), records);
  }
}

TEST_F(CtlTransferTest, ImportReplacesEveryRecordOfTheStore) {
  WriteStore(StoreDir("fvhash_store"), {{"old1", FvhashValue(true)}, {"bb02", FvhashValue(true)}});
  proto::FVhashStore::Data data;
  auto* entry = data.add_entries();
  entry->set_key("bb02");
  entry->mutable_value()->set_verdict(false);
  entry = data.add_entries();
  entry->set_key("new3");
  entry->mutable_value()->set_verdict(true);
  const std::string file = root_.Sub("new.bin");
  WriteFile(file, data.SerializeAsString());

  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "fvhash_store: replaced by 2 records from " + file + "\n");
  EXPECT_EQ(ReadStore(StoreDir("fvhash_store")),
            (Records{{"bb02", FvhashValue(false)}, {"new3", FvhashValue(true)}}));
}

TEST_F(CtlTransferTest, ImportJsonOfAPolicyStoreEncodesTheKeyMessages) {
  const std::string file = root_.Sub("general.json");
  WriteFile(file,
            "{\"entries\": [{\"key\": {\"module_id\": 300}, \"value\": {\"policy\": \"cG9s\"}},"
            " {\"key\": {\"module_id\": 5}}]}");
  const ToolRun run = Ctl({"import", "general_settings_policy_store", file, "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out, "general_settings_policy_store: replaced by 2 records from " + file + "\n");
  // An entry without a value stores the default value.
  EXPECT_EQ(ReadStore(StoreDir("general_settings_policy_store")),
            (Records{{GeneralKey(5), ""}, {GeneralKey(300), PolicyValue("pol")}}));
}

TEST_F(CtlTransferTest, ImportCreatesAStoreThatIsNotThere) {
  const std::string file = root_.Sub("one.json");
  WriteFile(file, "{\"entries\":[{\"key\":\"aa\",\"value\":{\"verdict\":true}}]}");
  ASSERT_FALSE(PathExists(StoreDir("fvhash_store")));
  const ToolRun run = Ctl({"import", "fvhash_store", file, "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(ReadStore(StoreDir("fvhash_store")), (Records{{"aa", FvhashValue(true)}}));
  EXPECT_EQ(Ctl({"count", "fvhash_store"}).out, "1\n");
}

// A file that import must refuse, and the error line it must give.
struct Refusal {
  std::string name;
  std::string contents;
  bool json;
  std::string error;  // after "dravinholdctl: <file>"
};

TEST_F(CtlTransferTest, ImportRefusesABadFileAndLeavesTheStoreAsItWas) {
  const std::string path = StoreDir("fvhash_store");
  WriteStore(path, ThreeVerdicts());
  const auto before = Snapshot(path);
  const std::vector<Refusal> refusals = {
      {"empty.bin", "", false, " holds no records; the store is left as it was"},
      {"empty.json", "{}", true, " holds no records; the store is left as it was"},
      {"no-entries.json", "{\"entries\": []}", true,
       " holds no records; the store is left as it was"},
      {"garbage.bin", "\xff\xff\xff", false, " does not hold proto.FVhashStore.Data records"},
      {"garbage.json", "{\"entries\": [{\"key\": 5, \"value\": 7}]}", true,
       " does not hold proto.FVhashStore.Data records"},
      {"empty-key.json", "{\"entries\": [{\"key\": \"a\"}, {\"value\": {\"verdict\": true}}]}",
       true, ": entry 1: the key is empty"},
      {"twice.json",
       "{\"entries\": [{\"key\": \"a\"}, {\"key\": \"b\"}, {\"key\": \"a\", \"value\": "
       "{\"verdict\": true}}]}",
       true, ": entry 2: the key of entry 0 again"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.name);
    const std::string file = root_.Sub(refusal.name);
    WriteFile(file, refusal.contents);
    std::vector<std::string> args = {"import", "fvhash_store", file};
    if (refusal.json) args.push_back("--json");
    const ToolRun run = Ctl(args);
    EXPECT_EXIT_CODE(run, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "dravinholdctl: " + file + refusal.error + "\n");
    EXPECT_EQ(Snapshot(path), before);
  }
  EXPECT_EQ(ReadStore(path), ThreeVerdicts());
}

TEST_F(CtlTransferTest, ImportOfAFileWithoutRecordsDoesNotCreateTheStore) {
  const std::string file = root_.Sub("empty.bin");
  WriteFile(file, "");
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "dravinholdctl: " + file + " holds no records; the store is left as it was\n");
  EXPECT_FALSE(PathExists(StoreDir("fvhash_store")));
}

TEST_F(CtlTransferTest, ImportOfAFileThatIsNotThereFails) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const std::string file = root_.Sub("missing.bin");
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: cannot read " + file + "\n");
  EXPECT_EQ(ReadStore(StoreDir("fvhash_store")), ThreeVerdicts());
}

TEST_F(CtlTransferTest, ImportOfAJsonFileWithoutJsonIsRefused) {
  WriteStore(StoreDir("fvhash_store"), ThreeVerdicts());
  const std::string file = root_.Sub("one.json");
  WriteFile(file, "{\"entries\":[{\"key\":\"aa\",\"value\":{\"verdict\":true}}]}");
  const ToolRun run = Ctl({"import", "fvhash_store", file});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.err, "dravinholdctl: " + file + " does not hold proto.FVhashStore.Data records\n");
  EXPECT_EQ(ReadStore(StoreDir("fvhash_store")), ThreeVerdicts());
}

}  // namespace
}  // namespace ctl_test
