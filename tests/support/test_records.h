// What the tests of the enrichment side share: realistic keys and records,
// the threads of the process, and a wait on a condition.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "dravinhold/enrichment_store/enrichment_store.pb.h"

namespace testing_support {

// A 64-bit mix of "x" (splitmix64's finaliser): well spread and repeatable.
uint64_t Mix(uint64_t x);
// "digits" lower-case hex digits drawn from "seed".
std::string HexDigits(uint64_t seed, size_t digits);
// A file hash as the agent keys the enrichment store: 64 lower-case hex
// digits from "seed".
std::string HashKey(uint64_t seed);
// A realistic enrichment record (image path, signature details, hashes, score
// and three entitlements, about 400 bytes); lru_data is left unset.
proto::EnrichmentStore::Value EnrichmentRecord(uint64_t seed);

// The names of the threads of this process, from /proc/self/task/*/comm.
std::vector<std::string> ThreadNames();
int CountThreads(const std::string& name);

// The storage engine runs compactions on one background thread per process,
// started by the first compaction and named after the thread that started it.
// This starts it from the calling thread, so that it never takes the name of
// a store's thread.
void StartEngineThread();

// Polls "done" every 2 ms until it holds (true) or "limit" has passed (false).
bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace testing_support
