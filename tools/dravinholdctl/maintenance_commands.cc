// Commands that check or change stores: verify, repair, export, import.
// Only repair and import change anything, and only a store that no other
// process holds.

#include <google/protobuf/util/json_util.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "command.h"
#include "engine.h"
#include "persistence/db.h"
#include "records.h"

namespace dravinholdctl {
namespace {

// True, with *error set, when another process holds the store at "path".
bool RefuseIfInUse(const std::string& path, std::string* error) {
  if (const long holder = LockHolder(path)) {
    *error = "in use by process " + std::to_string(holder) + ": " + path;
    return true;
  }
  return false;
}

// Verifies one store; prints its line and returns whether it is sound. With
// "all" an absent store is sound and a store that cannot be opened gets its
// line among the others; alone, either is an error on standard error.
bool VerifyStore(const Context& context, const StoreInfo& store, bool all) {
  const std::string path = StorePath(context.root, store);
  if (!DirectoryExists(path)) {
    if (!all) {
      Fail("not present: " + path);
      return false;
    }
    std::printf("%s: absent\n", store.name.c_str());
    return true;
  }
  std::string error;
  if (RefuseIfInUse(path, &error)) {
    if (!all) {
      Fail(error);
      return false;
    }
    std::printf("%s: FAILED: %s\n", store.name.c_str(), error.c_str());
    return false;
  }
  // Paranoid, so that damage in the log is found at the open already. A
  // directory the engine cannot open as a database is damaged too.
  std::unique_ptr<leveldb::DB> db = OpenExisting(path, true, &error);
  if (!db) {
    std::printf("%s: DAMAGED: %s\n", store.name.c_str(), error.c_str());
    return false;
  }
  ProgressBar progress("verify " + store.name, SizeOnDisk(path));
  uint64_t records = 0;
  std::string first_key;
  const leveldb::Status status =
      Walk(db.get(), "", [&](const leveldb::Slice& key, const leveldb::Slice&) {
        if (records++ == 0) first_key = key.ToString();
        if (records % 1024 == 0) {
          const leveldb::Range range(first_key, key);
          uint64_t done = 0;
          db->GetApproximateSizes(&range, 1, &done);
          progress.Update(done);
        }
        return true;
      });
  if (status.ok()) {
    std::printf("%s: ok, %" PRIu64 " records, every block verified\n", store.name.c_str(), records);
    return true;
  }
  std::printf("%s: DAMAGED: %s (%" PRIu64 " records readable)\n", store.name.c_str(),
              status.ToString().c_str(), records);
  return false;
}

// Counts the records that pass checksum verification, or gives
// "unreadable (<why>)", or "<n> readable (<why not more>)".
std::string DescribeCount(const std::string& path) {
  std::string error;
  std::unique_ptr<leveldb::DB> db = OpenExisting(path, false, &error);
  if (!db) return "unreadable (" + error + ")";
  uint64_t count = 0;
  const leveldb::Status status =
      Walk(db.get(), "", [&count](const leveldb::Slice&, const leveldb::Slice&) {
        ++count;
        return true;
      });
  if (!status.ok()) return std::to_string(count) + " readable (" + status.ToString() + ")";
  return std::to_string(count);
}

bool ReadWholeFile(const std::string& path, std::string* contents) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  *contents = buffer.str();
  return true;
}

}  // namespace

int RunVerify(const Context& context, const Arguments& arguments) {
  const bool all = arguments.Has("--all");
  if (all == !arguments.positional().empty()) {
    std::fprintf(stderr, "dravinholdctl: verify takes a store or --all\n");
    return kUsage;
  }
  if (!all) {
    const StoreInfo* store = StoreArgument(arguments, 0);
    if (store == nullptr) return kUsage;
    return VerifyStore(context, *store, /*all=*/false) ? kSuccess : kFailure;
  }
  bool sound = true;
  for (const StoreInfo& store : Stores()) {
    sound = VerifyStore(context, store, /*all=*/true) && sound;
  }
  return sound ? kSuccess : kFailure;
}

int RunRepair(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string path = StorePath(context.root, *store);
  std::string error;
  if (!DirectoryExists(path)) return Fail("not present: " + path);
  if (RefuseIfInUse(path, &error)) return Fail(error);
  const std::string before = DescribeCount(path);
  // With paranoid checks the repair reads every block of the tables with its
  // checksum verified, and rewrites a table with a damaged block from the
  // blocks that are sound. Without them a table that merely parses is kept
  // as it is, damage and all.
  leveldb::Options options;
  options.paranoid_checks = true;
  const leveldb::Status status = leveldb::RepairDB(path, options);
  if (!status.ok()) return Fail("repair of " + store->name + " failed: " + status.ToString());
  std::printf("%s: repaired; records before: %s, after: %s\n", store->name.c_str(), before.c_str(),
              DescribeCount(path).c_str());
  return kSuccess;
}

int RunExport(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string& file = arguments.positional()[1];
  std::string error;
  std::unique_ptr<leveldb::DB> db = OpenExisting(StorePath(context.root, *store), false, &error);
  if (!db) return Fail(error);
  std::vector<RawRecord> records;
  const leveldb::Status status =
      Walk(db.get(), "", [&records](const leveldb::Slice& key, const leveldb::Slice& value) {
        records.push_back({key.ToString(), value.ToString()});
        return true;
      });
  if (!status.ok()) {
    return Fail(store->name + " is damaged: " + status.ToString() + "; nothing exported");
  }
  std::unique_ptr<google::protobuf::Message> data = NewMessage(store->data);
  if (!RecordsToData(*store, records, data.get(), &error)) return Fail(error);
  std::string contents;
  if (arguments.Has("--json")) {
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    options.add_whitespace = true;
    if (!google::protobuf::util::MessageToJsonString(*data, &contents, options).ok()) {
      return Fail("cannot write the records as JSON");
    }
  } else if (!data->SerializeToString(&contents)) {
    return Fail("cannot encode the records");
  }
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  if (!(out << contents) || !out.flush()) return Fail("cannot write " + file);
  std::printf("%s: %zu records exported to %s\n", store->name.c_str(), records.size(),
              file.c_str());
  return kSuccess;
}

int RunImport(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string& file = arguments.positional()[1];
  std::string contents;
  if (!ReadWholeFile(file, &contents)) return Fail("cannot read " + file);
  std::unique_ptr<google::protobuf::Message> data = NewMessage(store->data);
  const bool parsed = arguments.Has("--json")
                          ? google::protobuf::util::JsonStringToMessage(contents, data.get()).ok()
                          : data->ParseFromString(contents);
  if (!parsed) return Fail(file + " does not hold " + store->data->full_name() + " records");
  std::vector<RawRecord> records;
  std::string error;
  if (!DataToRecords(*store, *data, &records, &error)) return Fail(file + ": " + error);
  if (records.empty()) return Fail(file + " holds no records; the store is left as it was");

  const std::string path = StorePath(context.root, *store);
  if (RefuseIfInUse(path, &error)) return Fail(error);
  std::vector<std::string> keys;
  std::vector<std::string> values;
  for (RawRecord& record : records) {
    keys.push_back(std::move(record.key));
    values.push_back(std::move(record.value));
  }
  // One synchronous batch that deletes every present key and puts the new
  // records: the store holds the old contents or the new, never a mix.
  persistence::DB db(path);
  leveldb::Status status = db.Open(true, true, true, 0);
  if (status.ok()) status = db.AtomicClearAndPut(keys, values, true);
  if (!status.ok()) return Fail("import into " + store->name + " failed: " + status.ToString());
  std::printf("%s: replaced by %zu records from %s\n", store->name.c_str(), keys.size(),
              file.c_str());
  return kSuccess;
}

}  // namespace dravinholdctl
