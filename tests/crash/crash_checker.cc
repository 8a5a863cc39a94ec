// crash_checker SCENARIO ROOT: opens the stores that a killed crash_writer
// left under ROOT, in a process of its own, and judges what it finds.
//
// Prints one line "RESULT found=<state> ..." on standard output, the reasons
// of a failure on standard error, and exits 0 only when the state is one the
// writer may leave:
// - a list scenario: the store holds exactly what write n or write n + 1
//   left, where n is the count of acknowledged writes in the progress file
//   (crash_records.h): never a mix of the two lists, never part of one, never
//   less than the last acknowledged write. "writes=" tells which one it was.
// - enrichment: both databases open, every value and every row decodes,
//   every value is whole, and CheckValidity brings the pair to agree; after a
//   rebuild every entry has the row its index names.
// In every scenario nothing may be logged at warning or above: a SIGKILL
// must never leave a database that recovery has to repair or recreate.
#include <stdlib.h>

#include <Poco/Message.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "crash_records.h"
#include "support/log_capture.h"

namespace {

using crash::Contents;

int Fail(const std::string& why) {
  std::fprintf(stderr, "crash_checker: %s\n", why.c_str());
  return 1;
}

// Fails with every line logged at warning or above.
bool QuietLog(const testing_support::LogCapture& capture, std::string* why) {
  for (const testing_support::LoggedLine& line : capture.lines()) {
    if (line.priority <= Poco::Message::PRIO_WARNING) {
      *why += "logged at priority " + std::to_string(line.priority) + ": " + line.text + "\n";
    }
  }
  return why->empty();
}

// How "found" stands to lists A and B, entry by entry.
std::string DescribeMix(const Contents& found, const Contents& a, const Contents& b) {
  size_t as_a = 0, as_b = 0, as_both = 0, other_value = 0, unknown_key = 0;
  for (const auto& [key, value] : found) {
    const auto in_a = a.find(key);
    const auto in_b = b.find(key);
    const bool matches_a = in_a != a.end() && in_a->second == value;
    const bool matches_b = in_b != b.end() && in_b->second == value;
    if (matches_a && matches_b) {
      ++as_both;
    } else if (matches_a) {
      ++as_a;
    } else if (matches_b) {
      ++as_b;
    } else if (in_a != a.end() || in_b != b.end()) {
      ++other_value;
    } else {
      ++unknown_key;
    }
  }
  size_t missing_a = 0, missing_b = 0;
  for (const auto& entry : a) missing_a += found.count(entry.first) == 0 ? 1 : 0;
  for (const auto& entry : b) missing_b += found.count(entry.first) == 0 ? 1 : 0;
  return std::to_string(found.size()) + " entries: " + std::to_string(as_a) + " as in A only, " +
         std::to_string(as_b) + " as in B only, " + std::to_string(as_both) + " as in both, " +
         std::to_string(other_value) + " with a value of neither, " + std::to_string(unknown_key) +
         " with a key of neither; " + std::to_string(missing_a) + " keys of A and " +
         std::to_string(missing_b) + " keys of B missing";
}

int CheckList(crash::Scenario scenario, const std::string& root) {
  testing_support::LogCapture capture("LibPersistence", Poco::Message::PRIO_WARNING);
  const uint64_t acknowledged = crash::ReadProgress(root);

  Contents found;
  const int code = crash::DumpContents(scenario, &found);
  if (code != 0) {
    std::printf("RESULT found=ERROR\n");
    return Fail("dump failed with code " + std::to_string(code));
  }
  const Contents a = crash::ExpectedContents(scenario, crash::kListA);
  const Contents b = crash::ExpectedContents(scenario, crash::kListB);
  std::string state = "MIXED";
  if (found.empty()) {
    state = "EMPTY";
  } else if (found == a) {
    state = "A";
  } else if (found == b) {
    state = "B";
  }
  auto state_of_write = [](uint64_t n) -> std::string {
    if (n == 0) return "EMPTY";
    return std::string(1, crash::ListName(crash::ListOfWrite(n)));
  };
  std::string why;
  uint64_t writes = acknowledged;
  if (state == state_of_write(acknowledged)) {
    writes = acknowledged;
  } else if (state == state_of_write(acknowledged + 1)) {
    writes = acknowledged + 1;
  } else if (state == "MIXED") {
    why = "the store holds a mix: " + DescribeMix(found, a, b) + "\n";
  } else {
    why = "the store holds " + state + " after " + std::to_string(acknowledged) +
          " acknowledged writes: expected " + state_of_write(acknowledged) + " or " +
          state_of_write(acknowledged + 1) + "\n";
  }
  QuietLog(capture, &why);
  std::printf("RESULT found=%s writes=%llu acknowledged=%llu\n", state.c_str(),
              static_cast<unsigned long long>(writes),
              static_cast<unsigned long long>(acknowledged));
  if (!why.empty()) return Fail(why);
  return 0;
}

// --- Enrichment ------------------------------------------------------------

// The enrichment store as the singleton opens it, without its threads: the
// checker alone decides when the pair is checked.
class CheckedEnrichmentStore : public crash::EnrichmentLruStore {
 public:
  CheckedEnrichmentStore()
      : crash::EnrichmentLruStore(16, std::chrono::hours(24), persistence::HeapTag{108}) {}
  ~CheckedEnrichmentStore() override { Stop(); }

  bool worker_threads_enabled() const override { return false; }
  bool RunCheckValidity() { return CheckValidity(); }
  LruStore& lru() { return lru_store_; }
};

struct Pair {
  std::vector<std::string> keys;
  std::vector<crash::EnrichmentValue> values;
  std::vector<std::string> row_keys;
  std::vector<proto::EnrichmentLruStore::Value> rows;
};

// Reads both databases whole and checks every value and every row.
bool ReadPair(CheckedEnrichmentStore& store, const std::set<std::string>& known_keys, Pair* pair,
              std::string* why) {
  persistence::Status status = store.Dump(&pair->keys, &pair->values, false);
  if (!status.ok()) {
    *why +=
        "dump of the store failed: " + std::to_string(status.code) + " " + status.message + "\n";
    return false;
  }
  status = store.lru().Dump(&pair->row_keys, &pair->rows, nullptr);
  if (!status.ok()) {
    *why += "dump of the LRU database failed: " + std::to_string(status.code) + " " +
            status.message + "\n";
    return false;
  }
  for (size_t i = 0; i < pair->keys.size(); ++i) {
    std::string value_why;
    if (known_keys.count(pair->keys[i]) == 0) {
      *why += "unknown key '" + pair->keys[i] + "'\n";
    } else if (!crash::IsWholeEnrichmentValue(pair->keys[i], pair->values[i], &value_why)) {
      *why += "key '" + pair->keys[i] + "': " + value_why + "\n";
    }
  }
  for (size_t i = 0; i < pair->row_keys.size(); ++i) {
    const std::string& row_key = pair->row_keys[i];
    const uint64_t index = std::strtoull(row_key.c_str(), nullptr, 10);
    if (row_key.size() != 20 || index == 0 || crash::EnrichmentLruStore::LruKey(index) != row_key) {
      *why += "malformed row key '" + row_key + "'\n";
    }
    if (known_keys.count(pair->rows[i].foreign_key()) == 0) {
      *why += "row '" + row_key + "' names unknown key '" + pair->rows[i].foreign_key() + "'\n";
    }
  }
  return why->empty();
}

int CheckEnrichment(const std::string& root) {
  testing_support::LogCapture capture("Enrichment", Poco::Message::PRIO_WARNING);
  std::set<std::string> known_keys;
  for (int item = 0; item < crash::kEnrichmentKeys; ++item) {
    known_keys.insert(crash::EnrichmentKeyOf(item));
  }

  CheckedEnrichmentStore store;
  const persistence::Status status = store.Open(root + "/enrichment_store", 10);
  std::string why;
  if (!status.ok()) {
    std::printf("RESULT found=ERROR\n");
    QuietLog(capture, &why);
    return Fail("open failed: " + std::to_string(status.code) + " " + status.message + "\n" + why);
  }

  Pair before;
  const bool readable = ReadPair(store, known_keys, &before, &why);
  const bool entries = !before.keys.empty();
  const bool rows = !before.row_keys.empty();
  const std::string state =
      entries ? (rows ? "both" : "entries-only") : (rows ? "rows-only" : "both-empty");
  std::printf("RESULT found=%s entries=%zu rows=%zu\n", state.c_str(), before.keys.size(),
              before.row_keys.size());
  if (!readable) return Fail(why);

  if (!store.RunCheckValidity()) why += "CheckValidity returned false\n";
  Pair after;
  if (ReadPair(store, known_keys, &after, &why)) {
    if (after.keys.empty() != after.row_keys.empty()) {
      why += "after CheckValidity the pair still disagrees: " + std::to_string(after.keys.size()) +
             " entries, " + std::to_string(after.row_keys.size()) + " rows\n";
    }
    if (after.keys.size() != before.keys.size()) {
      why += "CheckValidity changed the entries: " + std::to_string(before.keys.size()) + " -> " +
             std::to_string(after.keys.size()) + "\n";
    }
    if (state == "entries-only") {
      // A rebuild gives every entry the row that its index names.
      std::map<uint64_t, std::string> row_of_index;
      for (size_t i = 0; i < after.row_keys.size(); ++i) {
        row_of_index[std::strtoull(after.row_keys[i].c_str(), nullptr, 10)] =
            after.rows[i].foreign_key();
      }
      for (size_t i = 0; i < after.keys.size(); ++i) {
        const auto row = row_of_index.find(after.values[i].lru_data().index());
        if (row == row_of_index.end() || row->second != after.keys[i]) {
          why += "after the rebuild, key '" + after.keys[i] + "' with index " +
                 std::to_string(after.values[i].lru_data().index()) + " has no row of its own\n";
        }
      }
    }
  }
  QuietLog(capture, &why);
  if (!why.empty()) return Fail(why);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  crash::Scenario scenario;
  if (argc != 3 || !crash::ParseScenario(argv[1], &scenario)) {
    std::fprintf(stderr,
                 "usage: crash_checker fvhash|signers|process_bulk|general_bulk|enrichment ROOT\n");
    return 2;
  }
  const std::string root = argv[2];
  setenv("ZERLA_DATA_ROOT", root.c_str(), 1);
  const int result =
      crash::IsListScenario(scenario) ? CheckList(scenario, root) : CheckEnrichment(root);
  std::fflush(stdout);
  return result;
}
