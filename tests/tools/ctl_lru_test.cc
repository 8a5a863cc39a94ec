// dravinholdctl lru: the enrichment store's order of use, read from the two
// databases written here row by row, and its report of where they disagree.

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "support/damage.h"

namespace ctl_test {
namespace {

using CtlLruTest = CtlTest;

const char kHeader[] = "               INDEX  LAST USED                KEY";

std::string Row(uint64_t index, const std::string& date, const std::string& key,
                const std::string& note = "") {
  char line[256];
  std::snprintf(line, sizeof(line), "%20" PRIu64 "  %-23s  \"%s\"%s%s", index, date.c_str(),
                key.c_str(), note.empty() ? "" : "  ", note.c_str());
  return line;
}

// Every kind of disagreement at once:
//   alpha   index 1, row 1 names it                      sound
//   beta    index 5, rows 2 and 5 name it                row 2 superseded
//   gamma   index 7, no row 7                            entry with no row
//   delta   index 3, row 3 names "omega"                 entry on another key's row
//   zeta    index 0: never given a row                   entry with no row
//   row 3   names "omega", which is gone                 row whose entry is gone
//   row 1000 names "gone-key", which is gone             row whose entry is gone
class CtlLruScenarioTest : public CtlTest {
 protected:
  void SetUp() override {
    WriteStore(StoreDir("enrichment_store"),
               {{"alpha", EnrichmentValue("/bin/alpha", 1700000000, 1)},
                {"beta", EnrichmentValue("/bin/beta", 1700000100, 5)},
                {"gamma", EnrichmentValue("/bin/gamma", 1700086400, 7)},
                {"delta", EnrichmentValue("/bin/delta", 1600000000, 3)},
                {"zeta", EnrichmentValue("/bin/zeta", 0, 0)}});
    WriteStore(StoreDir("enrichment_store.lru"), {{LruKey(1000), LruValue("gone-key")},
                                                  {LruKey(5), LruValue("beta")},
                                                  {LruKey(1), LruValue("alpha")},
                                                  {LruKey(3), LruValue("omega")},
                                                  {LruKey(2), LruValue("beta")}});
  }
};

TEST_F(CtlLruScenarioTest, PrintsRowsOldestFirstAndEveryKindOfDisagreement) {
  const ToolRun run = Ctl({"lru"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  const std::vector<std::string> expected = {
      kHeader,
      Row(1, "2023-11-14 22:13:20 UTC", "alpha"),
      Row(2, "2023-11-14 22:15:00 UTC", "beta", "superseded"),
      Row(3, "never", "omega", "entry gone"),
      Row(5, "2023-11-14 22:15:00 UTC", "beta"),
      Row(1000, "never", "gone-key", "entry gone"),
      "",
      "5 rows, 5 entries",
      "  rows whose entry is gone:                     2",
      "  rows superseded by a later renewal:           1",
      "  entries with no row:                          2",
      "  entries whose index names another key's row:  1",
      "  records that do not decode:                   0",
      "Entries with no row are normal right after a write (rows follow within 10 s) or after a "
      "stop;",
      "their next renewal gives them one. Pruning removes rows whose entry is gone.",
  };
  EXPECT_EQ(run.OutLines(), expected);
}

TEST_F(CtlLruScenarioTest, JsonGivesOneObjectPerRowAndOneForTheReport) {
  const ToolRun run = Ctl({"lru", "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  // Protobuf's JSON writes the key, a choice between text and base64, last.
  const std::vector<std::string> expected = {
      "{\"index\":1,\"last_used\":1700000000,\"date\":\"2023-11-14 22:13:20 UTC\",\"state\":\"\","
      "\"key\":\"alpha\"}",
      "{\"index\":2,\"last_used\":1700000100,\"date\":\"2023-11-14 22:15:00 UTC\","
      "\"state\":\"superseded\",\"key\":\"beta\"}",
      "{\"index\":3,\"last_used\":0,\"date\":\"never\",\"state\":\"entry gone\",\"key\":\"omega\"}",
      "{\"index\":5,\"last_used\":1700000100,\"date\":\"2023-11-14 22:15:00 UTC\",\"state\":\"\","
      "\"key\":\"beta\"}",
      "{\"index\":1000,\"last_used\":0,\"date\":\"never\",\"state\":\"entry gone\","
      "\"key\":\"gone-key\"}",
      "{\"rows\":5,\"entries\":5,\"rows_without_entry\":2,\"rows_superseded\":1,"
      "\"entries_without_row\":2,\"entries_on_another_key_row\":1,\"undecodable\":0}",
  };
  EXPECT_EQ(run.OutLines(), expected);
}

TEST_F(CtlLruScenarioTest, LimitShortensTheListButNotTheReport) {
  const ToolRun run = Ctl({"lru", "--limit", "2"});
  EXPECT_EXIT_CODE(run, 0);
  const std::vector<std::string> lines = run.OutLines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[0], kHeader);
  EXPECT_EQ(lines[1], Row(1, "2023-11-14 22:13:20 UTC", "alpha"));
  EXPECT_EQ(lines[2], Row(2, "2023-11-14 22:15:00 UTC", "beta", "superseded"));
  EXPECT_EQ(lines[3], "");
  EXPECT_EQ(lines[4], "5 rows, 5 entries");
  EXPECT_EQ(lines[5], "  rows whose entry is gone:                     2");
}

TEST_F(CtlLruScenarioTest, LeavesBothDatabasesAsTheyWere) {
  const auto main_before = Snapshot(StoreDir("enrichment_store"));
  const auto lru_before = Snapshot(StoreDir("enrichment_store.lru"));
  EXPECT_EXIT_CODE(Ctl({"lru"}), 0);
  EXPECT_EQ(Snapshot(StoreDir("enrichment_store")), main_before);
  EXPECT_EQ(Snapshot(StoreDir("enrichment_store.lru")), lru_before);
}

TEST_F(CtlLruTest, AgreeingDatabasesGiveACleanReport) {
  WriteStore(StoreDir("enrichment_store"),
             {{"a", EnrichmentValue("/a", 86400, 2)}, {"b", EnrichmentValue("/b", 90061, 1)}});
  WriteStore(StoreDir("enrichment_store.lru"),
             {{LruKey(1), LruValue("b")}, {LruKey(2), LruValue("a")}});
  const ToolRun run = Ctl({"lru"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.OutLines(), (std::vector<std::string>{
                                kHeader,
                                Row(1, "1970-01-02 01:01:01 UTC", "b"),
                                Row(2, "1970-01-02 00:00:00 UTC", "a"),
                                "",
                                "2 rows, 2 entries",
                                "  rows whose entry is gone:                     0",
                                "  rows superseded by a later renewal:           0",
                                "  entries with no row:                          0",
                                "  entries whose index names another key's row:  0",
                                "  records that do not decode:                   0",
                            }));
}

TEST_F(CtlLruTest, EmptyDatabasesGiveAnEmptyList) {
  WriteStore(StoreDir("enrichment_store"), {});
  WriteStore(StoreDir("enrichment_store.lru"), {});
  const ToolRun run = Ctl({"lru", "--json"});
  EXPECT_EXIT_CODE(run, 0);
  EXPECT_EQ(run.out,
            "{\"rows\":0,\"entries\":0,\"rows_without_entry\":0,\"rows_superseded\":0,"
            "\"entries_without_row\":0,\"entries_on_another_key_row\":0,\"undecodable\":0}\n");
}

TEST_F(CtlLruTest, KeysThatAreNotPrintableAreEscaped) {
  const std::string key("h\x01\xff", 3);
  WriteStore(StoreDir("enrichment_store"), {{key, EnrichmentValue("/h", 1, 1)}});
  WriteStore(StoreDir("enrichment_store.lru"), {{LruKey(1), LruValue(std::string("h\x01", 2))}});
  const ToolRun text = Ctl({"lru", "--limit", "1"});
  EXPECT_EXIT_CODE(text, 0);
  EXPECT_EQ(text.OutLines().at(1), Row(1, "never", "h\\x01", "entry gone"));
  const ToolRun json = Ctl({"lru", "--json"});
  EXPECT_EXIT_CODE(json, 0);
  EXPECT_EQ(json.OutLines().at(0),
            "{\"index\":1,\"last_used\":0,\"date\":\"never\",\"state\":\"entry gone\","
            "\"key\":\"h\\u0001\"}");
}

TEST_F(CtlLruTest, RecordsThatDoNotDecodeAreCountedAndFail) {
  WriteStore(StoreDir("enrichment_store"),
             {{"a", EnrichmentValue("/a", 86400, 1)}, {"bad", std::string("\xff\xff", 2)}});
  // A row key must be the index in 20 bytes: "1" alone is not one, and
  // neither is a key with a letter in it.
  WriteStore(StoreDir("enrichment_store.lru"), {{LruKey(1), LruValue("a")},
                                                {"1", LruValue("a")},
                                                {"                 1x2", LruValue("a")},
                                                {LruKey(2), std::string("\xff\xff", 2)}});
  const ToolRun run = Ctl({"lru"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.OutLines(), (std::vector<std::string>{
                                kHeader,
                                Row(1, "1970-01-02 00:00:00 UTC", "a"),
                                "",
                                "1 rows, 1 entries",
                                "  rows whose entry is gone:                     0",
                                "  rows superseded by a later renewal:           0",
                                "  entries with no row:                          0",
                                "  entries whose index names another key's row:  0",
                                "  records that do not decode:                   4",
                            }));
  EXPECT_EQ(
      run.err,
      "dravinholdctl: 4 records of enrichment_store and enrichment_store.lru do not decode\n");
}

TEST_F(CtlLruTest, MissingDatabaseFailsAndIsNotCreated) {
  WriteStore(StoreDir("enrichment_store"), {{"a", EnrichmentValue("/a", 1, 1)}});
  const ToolRun run = Ctl({"lru"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravinholdctl: not present: " + StoreDir("enrichment_store.lru") + "\n");
  EXPECT_FALSE(PathExists(StoreDir("enrichment_store.lru")));

  const std::string empty = root_.Sub("empty");
  ASSERT_TRUE(std::filesystem::create_directory(empty));
  const ToolRun neither = RunAt(empty, {"lru"});
  EXPECT_EXIT_CODE(neither, 1);
  EXPECT_EQ(neither.err, "dravinholdctl: not present: " + empty + "/enrichment_store\n");
}

TEST_F(CtlLruTest, DamagedOrderOfUseIsReported) {
  WriteStore(StoreDir("enrichment_store"), {{"a", EnrichmentValue("/a", 1, 1)}});
  Records rows;
  for (uint64_t i = 1; i <= 10; ++i) rows.emplace_back(LruKey(i), LruValue("a"));
  WriteEach(StoreDir("enrichment_store.lru"), rows);
  const std::string lru = StoreDir("enrichment_store.lru");
  const std::string log = lru + "/" + testing_support::FilesWithSuffix(lru, ".log").at(0);
  testing_support::FlipBytes(log, testing_support::FileSize(log) / 2, 2);
  const auto damaged = Snapshot(lru);
  const ToolRun run = Ctl({"lru"});
  EXPECT_EXIT_CODE(run, 1);
  EXPECT_EQ(
      run.err.rfind(
          "dravinholdctl: enrichment_store.lru is damaged: Corruption: " + log + ": dropping ", 0),
      0u)
      << run.err;
  EXPECT_EQ(run.ErrLines().size(), 1u);
  EXPECT_EQ(Snapshot(lru), damaged);
}

}  // namespace
}  // namespace ctl_test
