// Commands that only read: stores, dump, get, count, stats.

#include <dirent.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "command.h"
#include "engine.h"
#include "records.h"

namespace dravinholdctl {
namespace {

// Counts the records of "db"; false with *error set when the walk fails,
// and *count then the records that could be read.
bool CountRecords(leveldb::DB* db, uint64_t* count, std::string* error) {
  *count = 0;
  const leveldb::Status status =
      Walk(db, "", [count](const leveldb::Slice&, const leveldb::Slice&) {
        ++*count;
        return true;
      });
  if (status.ok()) return true;
  *error = status.ToString();
  return false;
}

int CountTableFiles(const std::string& path) {
  int tables = 0;
  if (DIR* dir = opendir(path.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".ldb") == 0) ++tables;
    }
    closedir(dir);
  }
  return tables;
}

}  // namespace

int RunStores(const Context& context, const Arguments&) {
  std::printf("%-30s %-8s %-12s %12s %10s  %s\n", "STORE", "PRESENT", "IN USE", "SIZE", "RECORDS",
              "DIRECTORY");
  for (const StoreInfo& store : Stores()) {
    const std::string path = StorePath(context.root, store);
    const bool present = DirectoryExists(path);
    const long holder = present ? LockHolder(path) : 0;
    std::string records = "-";
    if (present && holder == 0) {
      std::string error;
      uint64_t count = 0;
      std::unique_ptr<leveldb::DB> db = OpenExisting(path, false, &error);
      if (!db) {
        records = "unreadable";
      } else {
        records = CountRecords(db.get(), &count, &error) ? std::to_string(count) : "damaged";
      }
    }
    std::printf("%-30s %-8s %-12s %12s %10s  %s\n", store.name.c_str(), present ? "yes" : "no",
                holder != 0 ? ("pid " + std::to_string(holder)).c_str() : "no",
                present ? HumanBytes(SizeOnDisk(path)).c_str() : "-", records.c_str(),
                path.c_str());
  }
  return kSuccess;
}

int RunDump(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const bool json = arguments.Has("--json");
  const std::string limit_text = arguments.Value("--limit");
  uint64_t limit = UINT64_MAX;
  if (arguments.Has("--limit") && !ParseCount(limit_text, &limit)) {
    std::fprintf(stderr, "dravinholdctl: --limit needs a number, not \"%s\"\n", limit_text.c_str());
    return kUsage;
  }
  std::string start;
  std::string error;
  if (arguments.Has("--start") && !EncodeKey(*store, arguments.Value("--start"), &start, &error)) {
    return Fail(error);
  }
  std::unique_ptr<leveldb::DB> db = OpenExisting(StorePath(context.root, *store), false, &error);
  if (!db) return Fail(error);

  uint64_t shown = 0;
  uint64_t undecodable = 0;
  const leveldb::Status status =
      Walk(db.get(), start, [&](const leveldb::Slice& key, const leveldb::Slice& value) {
        if (shown >= limit) return false;
        std::string line;
        if (!FormatRecord(*store, {key.ToString(), value.ToString()}, json, &line)) ++undecodable;
        std::printf("%s\n", line.c_str());
        ++shown;
        return true;
      });
  if (!status.ok()) {
    return Fail(store->name + " is damaged: " + status.ToString() + " (" + std::to_string(shown) +
                " records shown)");
  }
  if (undecodable != 0) {
    return Fail(std::to_string(undecodable) + " of " + std::to_string(shown) +
                " records could not be decoded");
  }
  return kSuccess;
}

int RunGet(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string& key_text = arguments.positional()[1];
  std::string key;
  std::string error;
  if (!EncodeKey(*store, key_text, &key, &error)) return Fail(error);
  std::unique_ptr<leveldb::DB> db = OpenExisting(StorePath(context.root, *store), false, &error);
  if (!db) return Fail(error);
  std::string value;
  leveldb::ReadOptions options;
  options.verify_checksums = true;
  const leveldb::Status status = db->Get(options, key, &value);
  if (status.IsNotFound()) {
    const leveldb::Status damage = OpenDamage(db.get());
    return Fail("not found in " + store->name + ": " + key_text +
                (damage.ok() ? "" : "; the store is damaged: " + damage.ToString()));
  }
  if (!status.ok()) return Fail(store->name + ": " + status.ToString());
  std::string line;
  const bool decoded = FormatRecord(*store, {key, value}, arguments.Has("--json"), &line);
  std::printf("%s\n", line.c_str());
  return decoded ? kSuccess : Fail("the record could not be decoded");
}

int RunCount(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  std::string error;
  std::unique_ptr<leveldb::DB> db = OpenExisting(StorePath(context.root, *store), false, &error);
  if (!db) return Fail(error);
  uint64_t count = 0;
  if (!CountRecords(db.get(), &count, &error)) {
    return Fail(store->name + " is damaged: " + error + " (" + std::to_string(count) +
                " records readable)");
  }
  std::printf("%" PRIu64 "\n", count);
  return kSuccess;
}

int RunStats(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string path = StorePath(context.root, *store);
  std::string error;
  std::unique_ptr<leveldb::DB> db = OpenExisting(path, false, &error);
  if (!db) return Fail(error);
  std::string stats;
  std::string sstables;
  db->GetProperty("leveldb.stats", &stats);
  db->GetProperty("leveldb.sstables", &sstables);
  std::printf("store:        %s\ndirectory:    %s\nsize on disk: %s (%" PRIu64
              " bytes)\ntable files:  %d\n\n%s\n%s",
              store->name.c_str(), path.c_str(), HumanBytes(SizeOnDisk(path)).c_str(),
              SizeOnDisk(path), CountTableFiles(path), stats.c_str(), sstables.c_str());
  return kSuccess;
}

}  // namespace dravinholdctl
