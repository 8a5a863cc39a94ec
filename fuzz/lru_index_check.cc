#include "fuzz/lru_index_check.h"

// The enrichment records log through their own logger: this header comes
// before any instantiation over them.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"

#include <chrono>
#include <memory>
#include <sstream>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_support.h"
#include "persistence/persistent_lru_store.h"
#include "persistence/status.h"

namespace fuzzing {
namespace {

using persistence::Status;

constexpr size_t kMaxRows = 64;
// Clearing leaves deletion marks behind; a compaction now and then keeps the
// walks over an "empty" database short.
constexpr uint64_t kCompactEvery = 32;

// The LRU store over the enrichment records, without its two threads, so
// that nothing but the check writes rows.
class IndexedLruStore
    : public persistence::PersistentLruStore<
          std::string, proto::EnrichmentStore::Value, proto::EnrichmentStore::Data,
          proto::EnrichmentLruStore::Value, proto::EnrichmentLruStore::Data> {
 public:
  IndexedLruStore() : PersistentLruStore(16, std::chrono::hours(24), 108) {}
  bool worker_threads_enabled() const override { return false; }
  LruStore& rows() { return lru_store_; }
  uint64_t uses = 0;
};

std::string g_root;
IndexedLruStore* g_store = nullptr;

}  // namespace

void SetLruIndexRoot(const std::string& root) { g_root = root; }

uint64_t ExpectedLruIndex(const std::string& highest_key) {
  uint64_t index = 0;
  for (const unsigned char c : highest_key) {
    if (c == ' ') continue;
    if (c < '0' || c > '9') return 0;
    index = index * 10 + (c - '0');
  }
  return index;
}

std::vector<std::string> CheckLruIndex(const uint8_t* data, size_t size) {
  std::vector<std::string> failures;
  if (g_store == nullptr) {
    g_store = new IndexedLruStore;
    const Status status = g_store->Open(g_root + "/enrichment", 0);
    if (!status.ok()) failures.push_back("Open: " + Describe(status));
  }
  IndexedLruStore::LruStore& rows = g_store->rows();
  if (++g_store->uses % kCompactEvery == 0) rows.Compact();
  const Status cleared = rows.Clear(false);
  if (!cleared.ok()) failures.push_back("Clear: " + Describe(cleared));

  FuzzInput input(data, size);
  proto::EnrichmentLruStore::Value row;
  row.set_foreign_key("entry");
  std::string highest;
  bool any = false;
  for (size_t n = 0; !input.empty() && n < kMaxRows; ++n) {
    std::string key;
    switch (input.U8() % 3) {
      case 0:
        key = input.Blob();
        break;
      case 1:
        key = IndexedLruStore::LruKey(input.U64());
        break;
      default: {
        key = IndexedLruStore::LruKey(input.U64());
        const size_t at = input.U8() % key.size();
        key[at] = static_cast<char>(input.U8());
        break;
      }
    }
    const Status status = rows.Put(key, row, false);
    if (key.empty()) {
      if (status.code != Status::kInvalidArgument ||
          status.message != "Invalid argument: key: empty") {
        failures.push_back("Put of the empty key: " + Describe(status));
      }
      continue;
    }
    if (!status.ok()) failures.push_back("Put(" + Hex(key) + "): " + Describe(status));
    if (!any || highest < key) highest = key;
    any = true;
  }

  uint64_t index = 12345;
  const Status status = g_store->GetCurrentLruIndex(&index);
  const uint64_t expected = any ? ExpectedLruIndex(highest) : 0;
  if (!status.ok() || index != expected) {
    failures.push_back("GetCurrentLruIndex: " + Describe(status) + " index " +
                       std::to_string(index) + ", expected " + std::to_string(expected) +
                       " from the highest key " + Hex(highest));
  }
  return failures;
}

void CloseLruIndexStore() {
  delete g_store;
  g_store = nullptr;
}

}  // namespace fuzzing
