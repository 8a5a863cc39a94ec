// What the crash writer writes and the crash checker expects.
//
// Each list scenario replaces a whole store, again and again, with one of two
// fixed lists of 50,000 entries: list A holds the items [0, 50000), list B
// the items [25000, 75000). They share half their keys, with other values on
// the shared half, so that a mix of the two shows in the keys and in the
// values alike.
//
// The writer appends one byte to ROOT/writer_progress after each write that
// the store acknowledged ('A' or 'B', the list written). Write number n
// (counted from 1 over all writers that ran on ROOT) writes list A when n is
// odd and list B when it is even; write 0 stands for the store before any
// write, which is empty. A writer killed after n acknowledged writes leaves
// the store as write n or write n + 1 (the write in flight) left it, and in
// no other state.
//
// The enrichment scenario writes values that describe themselves: each is
// built from its key and a generation number, so the checker can tell a whole
// value from a torn or mixed one without knowing the history.
#pragma once

#include <cstdint>
#include <map>
#include <string>

// The records' header comes first: it gives the typed stores over them the
// enrichment logger.
#include "nix/dravinhold/enrichment_store/enrichment_records.h"
#include "persistence/persistent_lru_store.h"

namespace crash {

enum class Scenario { kFvhash, kSigners, kProcessBulk, kGeneralBulk, kEnrichment };

// "fvhash", "signers", "process_bulk", "general_bulk" or "enrichment".
bool ParseScenario(const std::string& name, Scenario* scenario);
bool IsListScenario(Scenario scenario);

constexpr int kListSize = 50000;
constexpr int kListA = 0;
constexpr int kListB = 1;
// First item of each list.
constexpr int kListBegin[2] = {0, 25000};

// The list that write number "n" (from 1) writes.
inline int ListOfWrite(uint64_t n) { return n % 2 == 1 ? kListA : kListB; }
inline char ListName(int list) { return list == kListA ? 'A' : 'B'; }

// The item's hash: 64 lower-case hexadecimal digits, distinct per item.
std::string HashOf(int item);

// A store's contents in one comparable form, built the same way from a
// dump and from a list: a printable key and a printable value per entry.
using Contents = std::map<std::string, std::string>;

// What the store holds after "list" was written whole.
Contents ExpectedContents(Scenario scenario, int list);

// Replaces the store's contents with "list" through the store's family.
// Returns the family's result: 0 on success.
int WriteList(Scenario scenario, int list);

// Reads the whole store through the store's family. Returns the status code
// of the dump: 0 on success.
int DumpContents(Scenario scenario, Contents* contents);

// The file of acknowledged writes under "root".
std::string ProgressPath(const std::string& root);
// Bytes in the progress file: the writes acknowledged so far (0 if absent).
uint64_t ReadProgress(const std::string& root);

// --- Enrichment ------------------------------------------------------------

using EnrichmentValue = proto::EnrichmentStore::Value;
using EnrichmentLruStore =
    persistence::PersistentLruStore<std::string, EnrichmentValue, proto::EnrichmentStore::Data,
                                    proto::EnrichmentLruStore::Value,
                                    proto::EnrichmentLruStore::Data>;

// Keys of the enrichment load: a fixed set of hashes.
constexpr int kEnrichmentKeys = 3000;
std::string EnrichmentKeyOf(int item);
// The value of "key" at "generation", with no lru_data.
EnrichmentValue EnrichmentValueOf(const std::string& key, uint64_t generation);
// True when "value" is exactly EnrichmentValueOf(key, g) for some g, apart
// from its lru_data; otherwise false with the difference in *why.
bool IsWholeEnrichmentValue(const std::string& key, const EnrichmentValue& value, std::string* why);

}  // namespace crash
