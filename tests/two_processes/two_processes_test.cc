// A store open in this process, and a second process that opens the same
// directories: the engine's lock keeps the second one out. Its calls fail
// with a status (code 5, the lock's text once it tries to reopen), it does
// not end, and it recreates nothing: this process's records are intact and
// it goes on serving.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "stores/store_test_env.h"
#include "support/damage.h"
#include "support/temp_dir.h"

namespace two_processes_testing {
namespace {

using persistence::Status;
using Value = proto::EnrichmentStore::Value;

// What the peer wrote on standard output, line by line, and how it ended.
struct PeerRun {
  std::vector<std::string> lines;
  int exit_status = -1;
  std::string errors;
};

// Runs the peer for "store" with the same data root, for at most a minute.
PeerRun RunPeer(const std::string& store, const std::string& scratch) {
  const std::string errors = scratch + "/peer-stderr";
  const std::string command =
      "timeout 60 '" TWO_PROCESSES_PEER "' " + store + " 2>'" + errors + "'";
  PeerRun run;
  FILE* out = popen(command.c_str(), "r");
  if (out == nullptr) return run;
  std::string line;
  for (int c = fgetc(out); c != EOF; c = fgetc(out)) {
    if (c == '\n') {
      run.lines.push_back(line);
      line.clear();
    } else {
      line += static_cast<char>(c);
    }
  }
  const int status = pclose(out);
  run.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.errors = testing_support::ReadFile(errors);
  return run;
}

// The files of a database directory with their contents. LOCK is named and
// never opened: closing any descriptor of it would drop this process's lock
// on it, which is what keeps the second process out.
std::vector<std::pair<std::string, std::string>> Files(const std::string& dir) {
  std::vector<std::pair<std::string, std::string>> files;
  for (const std::string& name : testing_support::FilesWithSuffix(dir, "")) {
    if (name == "LOG" || name == "LOG.old") continue;  // the engine's own diary
    if (name == "LOCK") {
      files.emplace_back(name, "");
      continue;
    }
    files.emplace_back(name, testing_support::ReadFile(dir + "/" + name));
  }
  return files;
}

class TwoProcessesTest : public stores_testing::StoreTest {
 protected:
  testing_support::TempDir scratch_;
};

TEST_F(TwoProcessesTest, SecondProcessOfAPlainStoreFailsEveryCallAndRecreatesNothing) {
  ASSERT_EQ(persistence::FVhashStore_Put({{true, "aa01"}, {false, "aa02"}}), 0);
  const std::string path = StorePath("fvhash_store");
  const auto files = Files(path);

  const PeerRun peer = RunPeer("fvhash", scratch_.path());
  EXPECT_EQ(peer.exit_status, 0) << peer.errors;
  const std::string lock_text =
      "IO error: lock " + path + "/LOCK: Resource temporarily unavailable";
  const std::string open_line = "log 3 Failed to open database '" + path + "'.";
  const std::string failed_reopen =
      "log 2 Database failed to recover with error 5 (" + lock_text + ")";
  EXPECT_EQ(peer.lines,
            (std::vector<std::string>{
                "call FVhashStore_Count 5 ",
                "call FVhashStore_Check 0 ",
                "call FVhashStore_Put -5 ",
                open_line,
                "log 3 " + stores_testing::OpenCheckLine("fvhash_store", 5, lock_text),
                "log 3 Failed to get entry from fvhash blacklist, err=5, msg=",
                "log 3 Failed to clear-and-set fvhash blacklist, err=5, msg=",
                "call FVhashStore_Count 5 " + lock_text,
                "call FVhashStore_Put -5 ",
                "log 5 Reopening the database...",
                open_line,
                failed_reopen,
                "log 5 Reopening the database...",
                open_line,
                failed_reopen,
                "log 3 Failed to clear-and-set fvhash blacklist, err=5, msg=" + lock_text,
            }));

  // This process's database is as it was, and it goes on serving.
  EXPECT_EQ(Files(path), files);
  EXPECT_THAT(LogLines(), ::testing::IsEmpty());
  EXPECT_TRUE(persistence::FVhashStore_Check("aa01"));
  bool verdict = true;
  EXPECT_EQ(persistence::FVhashStore_GetVerdict("aa02", &verdict), 0);
  EXPECT_FALSE(verdict);
  EXPECT_EQ(persistence::FVhashStore_Put({{true, "bb01"}}), 0);
  EXPECT_TRUE(persistence::FVhashStore_Check("bb01"));
}

TEST_F(TwoProcessesTest, SecondProcessOfTheEnrichmentStoreFailsEveryCallAndRecreatesNothing) {
  testing_support::LogCapture enrichment_log("Enrichment");
  persistence::EnrichmentStoreEx::Instance().Stop();
  for (int i = 0; i < 3; ++i) {
    Value value;
    value.set_image_path("/usr/bin/tool-" + std::to_string(i));
    ASSERT_EQ(persistence::EnrichmentStore_Put("hash" + std::to_string(i), value).code, 0);
  }
  std::vector<std::string> keys;
  std::vector<Value> values;
  ASSERT_EQ(persistence::EnrichmentStore_Dump(&keys, &values).code, 0);
  const std::string path = StorePath("enrichment_store");
  const std::string lru_path = path + ".lru";
  const auto files = Files(path);
  const auto lru_files = Files(lru_path);
  enrichment_log.clear();

  const PeerRun peer = RunPeer("enrichment", scratch_.path());
  EXPECT_EQ(peer.exit_status, 0) << peer.errors;
  const std::string lock_text =
      "IO error: lock " + path + "/LOCK: Resource temporarily unavailable";
  EXPECT_EQ(peer.lines,
            (std::vector<std::string>{
                "log 3 Failed to open database '" + path + "'.",
                "log 3 Failed to open database '" + lru_path + "'.",
                "log 3 Failed to check if lru is empty, error=5, message=",
                "call EnrichmentStore_Get 5 ",
                "call EnrichmentStore_Put 5 ",
                "log 8 Failed to get entry, error=5, message=",
                "log 3 Failed to update entry, error=5, message=",
                "call EnrichmentStore_Get 5 " + lock_text,
                "call EnrichmentStore_Dump 5 ",
                "call EnrichmentStore_DeleteEntry 5 ",
                "log 5 Reopening the database...",
                "log 3 Failed to open database '" + path + "'.",
                "log 2 Database failed to recover with error 5 (" + lock_text + ")",
                "log 8 Failed to get entry, error=5, message=" + lock_text,
                "log 3 Failed to dump the entire store, error=5, message=",
                "log 3 Failed to get entry, error=5, message=",
                "log 3 Failed to delete enrichment entry for file hash 'hash0', error=5, "
                "messsage=",
            }));

  // This process's databases are as they were, and it goes on serving.
  EXPECT_EQ(Files(path), files);
  EXPECT_EQ(Files(lru_path), lru_files);
  EXPECT_THAT(stores_testing::Lines(enrichment_log), ::testing::IsEmpty());
  std::vector<std::string> keys_after;
  std::vector<Value> values_after;
  ASSERT_EQ(persistence::EnrichmentStore_Dump(&keys_after, &values_after).code, 0);
  EXPECT_EQ(keys_after, keys);
  ASSERT_EQ(values_after.size(), values.size());
  for (size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(values_after[i].SerializeAsString(), values[i].SerializeAsString());
  }
  Value value;
  EXPECT_EQ(persistence::EnrichmentStore_Put("hash9", value).code, 0);
  EXPECT_EQ(persistence::EnrichmentStore_Get("hash9", &value).code, 0);
}

}  // namespace
}  // namespace two_processes_testing
