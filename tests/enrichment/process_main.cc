// A program that uses the enrichment family from several threads and returns
// from main normally. The store's two threads are still running then: the
// singleton's destructor at exit must stop and join them, or the process
// ends in an abort. Exit code 0 means it did.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "support/temp_dir.h"

namespace {

std::string g_root;

void RemoveRoot() { testing_support::RemoveTree(g_root); }

}  // namespace

int main() {
  char pattern[] = "/tmp/dravinhold-process-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 2;
  g_root = pattern;
  // Registered before the store exists, so it runs after the store's end.
  std::atexit(RemoveRoot);
  setenv("ZERLA_DATA_ROOT", g_root.c_str(), 1);

  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 200; ++i) {
        const std::string key = "hash-" + std::to_string(t) + "-" + std::to_string(i % 50);
        proto::EnrichmentStore::Value value;
        value.set_image_path("/usr/bin/tool-" + std::to_string(i));
        value.add_entitlements("com.example.entitlement");
        if (!persistence::EnrichmentStore_PutEntry(key, value).ok()) ++failures[t];
        proto::EnrichmentStore::Value read;
        // Only the status is checked: the rebuild that the store's start
        // check may run over the first entries writes back what it read
        // from its snapshot, an older value of a key included.
        if (!persistence::EnrichmentStore_GetEntry(key, &read).ok()) ++failures[t];
        if (i % 7 == 0 && !persistence::EnrichmentStore_DeleteEntry(key).ok()) ++failures[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int count : failures) {
    if (count != 0) {
      std::fprintf(stderr, "enrichment process: %d failed calls\n", count);
      return 1;
    }
  }
  std::vector<std::string> keys;
  std::vector<proto::EnrichmentStore::Value> values;
  if (!persistence::EnrichmentStore_Dump(&keys, &values).ok() || keys.empty()) return 1;
  std::printf("enrichment process: %zu entries, returning from main\n", keys.size());
  return 0;
}
