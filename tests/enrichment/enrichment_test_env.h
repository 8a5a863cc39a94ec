// What the tests of the enrichment family share: a data root of their own,
// the clocks under the test's control, a capture of the "Enrichment" logger,
// realistic records, and a way into the singleton's two databases and its
// threads.
//
// The store is a process-wide singleton opened on first use; every test runs
// in a process of its own (see CMakeLists.txt), so each sees that first use
// for real. Run the programs through ctest, not by hand.
#pragma once

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"

#include <Poco/Message.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/test_clock.h"
#include "support/test_records.h"

namespace persistence {

// Statuses compare and print in test expectations.
inline bool operator==(const Status& a, const Status& b) {
  return a.code == b.code && a.message == b.message;
}
inline bool operator!=(const Status& a, const Status& b) { return !(a == b); }
inline void PrintTo(const Status& status, std::ostream* out) {
  *out << "{" << status.code << ", \"" << status.message << "\"}";
}

}  // namespace persistence

namespace enrichment_test {

using persistence::EnrichmentStoreEx;
using persistence::Status;
using Value = proto::EnrichmentStore::Value;
using Row = proto::EnrichmentLruStore::Value;
using LruStoreBase =
    persistence::PersistentLruStore<std::string, Value, proto::EnrichmentStore::Data, Row,
                                    proto::EnrichmentLruStore::Data>;

constexpr int kError = Poco::Message::PRIO_ERROR;
constexpr int kDebug = Poco::Message::PRIO_DEBUG;
constexpr int kTrace = Poco::Message::PRIO_TRACE;
constexpr std::time_t kWallStart = 1700000000;

inline Status Ok() { return Status(); }
inline Status St(int32_t code, const std::string& message) { return Status(code, message); }

// The singleton's protected parts, reached through a class of the same
// family: its LRU database, its counter and its threads' wake-up.
struct StoreAccess : LruStoreBase {
  static LruStore& Lru() { return EnrichmentStoreEx::Instance().*(&StoreAccess::lru_store_); }
  static uint64_t CurrentIndex() {
    LruStoreBase& store = EnrichmentStoreEx::Instance();
    std::lock_guard<std::mutex> lock(store.*(&StoreAccess::lru_index_mutex_));
    return store.*(&StoreAccess::current_lru_index_);
  }
  static std::chrono::nanoseconds PruningInterval() {
    return EnrichmentStoreEx::Instance().*(&StoreAccess::pruning_interval_);
  }
  // Wakes both threads; a thread whose steady deadline has passed then does
  // its work.
  static void Wake() {
    LruStoreBase& store = EnrichmentStoreEx::Instance();
    { std::lock_guard<std::mutex> lock(store.*(&StoreAccess::stop_mutex_)); }
    (store.*(&StoreAccess::stop_cond_)).notify_all();
  }
};

using testing_support::CountThreads;
using testing_support::HashKey;
using testing_support::StartEngineThread;
using testing_support::ThreadNames;
using testing_support::WaitUntil;
// A realistic record: image path, signature details, hashes, score and three
// entitlements; lru_data unset.
inline Value Record(uint64_t seed) { return testing_support::EnrichmentRecord(seed); }

// The key of the one entry every test starts with.
constexpr char kSeedKey[] = "0-seed";

// Writes the entry kSeedKey, with index 1 and an old last use, and its row
// into the store's two directories at "path" before the store opens. The
// databases then agree from the start: the sync thread's check on start has
// nothing to rebuild, whenever it runs beside the test's first writes.
void SeedAgreeingPair(const std::string& path);

// The rows of the LRU database, index to foreign key.
std::map<uint64_t, std::string> Rows();
// The entries of the main store, read past the order of use.
std::map<std::string, Value> Entries();

using Line = std::pair<int, std::string>;
// The lines logged on the calling test's thread (the store's threads carry a
// context of their own).
std::vector<Line> CallerLines(const testing_support::LogCapture& log);
void PrintTo(const Line& line, std::ostream* out);

bool IsDirectory(const std::string& path);

// The state every test starts from: $ZERLA_DATA_ROOT names a fresh
// directory holding the seed entry, the clocks stand at one hour and
// 1700000000, and the "Enrichment" logger writes into log_ at every level.
class EnrichmentTest : public ::testing::Test {
 protected:
  EnrichmentTest() {
    setenv("ZERLA_DATA_ROOT", root_.path().c_str(), 1);
    StartEngineThread();
    SeedAgreeingPair(StorePath());
  }

  std::string StorePath() const { return root_.Sub("enrichment_store"); }

  // Runs the steady clock a sync period ahead and wakes the threads until
  // "done" holds.
  bool SyncUntil(const std::function<bool()>& done) {
    return WaitUntil([&] {
      clock_.Advance(std::chrono::seconds(11));
      StoreAccess::Wake();
      return done();
    });
  }

  testing_support::TempDir root_;
  testing_support::TestClock clock_;
  testing_support::LogCapture log_{"Enrichment"};
};

}  // namespace enrichment_test
