// The second process: opens a store whose directories another process holds
// open, calls it, and writes what every call returned and every line its
// logger received to standard output, one per line:
//   call <name> <code or result> <message>
//   log <priority> <text>
// Usage: two_processes_peer fvhash|enrichment (the data root comes from
// $ZERLA_DATA_ROOT, as in the first process).
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"
#include "nix/dravinhold/fvhash_store/fvhash_store_def.h"
#include "support/log_capture.h"
#include "support/test_clock.h"

namespace {

using persistence::Status;
using Value = proto::EnrichmentStore::Value;
using LruStoreBase =
    persistence::PersistentLruStore<std::string, Value, proto::EnrichmentStore::Data,
                                    proto::EnrichmentLruStore::Value,
                                    proto::EnrichmentLruStore::Data>;

struct StoreAccess : LruStoreBase {
  static LruStore& Lru() {
    return persistence::EnrichmentStoreEx::Instance().*(&StoreAccess::lru_store_);
  }
};

void Print(const std::string& name, const Status& status) {
  std::cout << "call " << name << " " << status.code << " " << status.message << "\n";
}

void Print(const std::string& name, int result) {
  std::cout << "call " << name << " " << result << " \n";
}

void PrintLog(testing_support::LogCapture& log) {
  for (const testing_support::LoggedLine& line : log.lines()) {
    std::cout << "log " << line.priority << " " << line.text << "\n";
  }
  log.clear();
}

int RunFVhash() {
  testing_support::TestClock clock;
  testing_support::LogCapture log("LibPersistence");
  unsigned long count = 7;
  Print("FVhashStore_Count", persistence::FVhashStore_Count(&count));
  Print("FVhashStore_Check", persistence::FVhashStore_Check("aa01") ? 1 : 0);
  Print("FVhashStore_Put", persistence::FVhashStore_Put({{true, "cc01"}}));
  PrintLog(log);
  // Every call may now try to open the database again.
  persistence::FVhashStore::Instance().set_min_reopen_delay(std::chrono::nanoseconds(0));
  Print("FVhashStore_Count", persistence::FVhashStore_Count(&count));
  Print("FVhashStore_Put", persistence::FVhashStore_Put({{true, "cc01"}}));
  PrintLog(log);
  return 0;
}

int RunEnrichment() {
  testing_support::TestClock clock;
  testing_support::LogCapture log("Enrichment");
  persistence::EnrichmentStoreEx& store = persistence::EnrichmentStoreEx::Instance();
  store.Stop();
  PrintLog(log);
  Value value;
  Print("EnrichmentStore_Get", persistence::EnrichmentStore_Get("hash0", &value));
  Print("EnrichmentStore_Put", persistence::EnrichmentStore_Put("hash9", Value()));
  PrintLog(log);
  // One more attempt to open each database.
  store.set_min_reopen_delay(std::chrono::seconds(1));
  StoreAccess::Lru().set_min_reopen_delay(std::chrono::seconds(1));
  clock.Advance(std::chrono::seconds(1));
  Print("EnrichmentStore_Get", persistence::EnrichmentStore_Get("hash0", &value));
  std::vector<std::string> keys;
  std::vector<Value> values;
  Print("EnrichmentStore_Dump", persistence::EnrichmentStore_Dump(&keys, &values));
  Print("EnrichmentStore_DeleteEntry", persistence::EnrichmentStore_DeleteEntry("hash0"));
  PrintLog(log);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string store = argc > 1 ? argv[1] : "";
  if (store == "fvhash") return RunFVhash();
  if (store == "enrichment") return RunEnrichment();
  std::cerr << "usage: two_processes_peer fvhash|enrichment\n";
  return 2;
}
