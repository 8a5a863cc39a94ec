// A tour of persistence::DB: opens a database in a directory of its own,
// writes, reads, walks and verifies it, and prints what it did.
//
//   db_tour [directory]     (default: var/db_tour)

#include <cstdint>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "persistence/db.h"

namespace {

bool Report(const char* what, const leveldb::Status& status) {
  std::cout << "  " << what << ": " << status.ToString() << "\n";
  return status.ok();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = argc > 1 ? argv[1] : "var/db_tour";
  // The engine creates the database directory, not its parents.
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent);
  persistence::DB db(path);
  std::cout << "Database " << path << "\n";
  if (!Report("Open(paranoid, create, bloom filter, 1 MiB cache)", db.Open(true, true, true, 1))) {
    return 1;
  }

  const std::vector<std::string> keys = {"apple", "banana", "cherry", "damson", "elder"};
  const std::vector<std::string> values = {"red", "yellow", "dark red", "purple", "black"};
  if (!Report("AtomicClearAndPut of 5 records, synchronous",
              db.AtomicClearAndPut(keys, values, true))) {
    return 1;
  }

  std::string value;
  Report("Get(\"cherry\")", db.Get("cherry", &value, nullptr));
  std::cout << "    -> \"" << value << "\"\n";
  Report("Get(\"fig\")", db.Get("fig", &value, nullptr));

  const leveldb::Snapshot* snapshot = nullptr;
  Report("CreateSnapshot", db.CreateSnapshot(&snapshot));
  Report("Delete(\"banana\")", db.Delete("banana", false));

  uint64_t now = 0;
  uint64_t then = 0;
  db.Count(&now, nullptr);
  db.Count(&then, snapshot);
  std::cout << "  Count: " << now << " now, " << then << " in the snapshot\n";
  Report("ReleaseSnapshot", db.ReleaseSnapshot(snapshot));

  std::cout << "  Iterate:\n";
  Report("Iterate", db.Iterate(
                        [](std::string key, std::string record) {
                          std::cout << "    " << key << " = " << record << "\n";
                          return true;
                        },
                        nullptr));

  std::vector<std::string> page;
  Report("ReadReverseInterval(1, 2)", db.ReadReverseInterval(1, 2, &page, nullptr, nullptr));
  for (const std::string& key : page) std::cout << "    " << key << "\n";

  Report("Compact", db.Compact());
  Report("Verify (every block, checksums on)", db.Verify());
  Report("Close", db.Close());
  return 0;
}
