// Commands that only read: stores, dump, get, count, stats, dumpfile.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <leveldb/dumpfile.h>
#include <leveldb/env.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "command.h"
#include "dravinholdctl.pb.h"
#include "engine.h"
#include "records.h"
#include "text_sink.h"

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

// The exit code of a failed open.
int OpenFailure(OpenProblem problem, const std::string& error) {
  return problem == OpenProblem::kCannotCheck ? CannotCheck(error) : Fail(error);
}

}  // namespace

int RunStores(const Context& context, const Arguments&) {
  if (!context.json) {
    std::printf("%-30s %-8s %-12s %12s %10s  %s\n", "STORE", "PRESENT", "IN USE", "SIZE", "RECORDS",
                "DIRECTORY");
  }
  bool damaged = false;
  bool unchecked = false;
  for (const StoreInfo& store : Stores()) {
    const std::string path = StorePath(context.root, store);
    StoreLine line;
    line.set_store(store.name);
    line.set_directory(path);
    line.set_present(DirectoryExists(path));
    line.set_state("absent");
    if (line.present()) {
      line.set_in_use_by(static_cast<int32_t>(LockHolder(path)));
      line.set_size_bytes(static_cast<double>(SizeOnDisk(path)));
      std::string error;
      OpenProblem problem = OpenProblem::kNone;
      uint64_t count = 0;
      std::unique_ptr<leveldb::DB> db = OpenExisting(path, false, &error, &problem);
      if (!db) {
        line.set_state(problem == OpenProblem::kCannotCheck ? "could not check" : "damaged");
        line.set_error(error);
      } else if (!CountRecords(db.get(), &count, &error)) {
        line.set_state("damaged");
        line.set_error(error);
        line.set_records(static_cast<double>(count));
      } else {
        line.set_state("ok");
        line.set_records(static_cast<double>(count));
      }
      damaged = damaged || line.state() == "damaged";
      unchecked = unchecked || line.state() == "could not check";
    }
    if (context.json) {
      PrintLine(JsonLine(line));
      continue;
    }
    std::string records = "-";
    if (line.state() == "ok") records = std::to_string(static_cast<uint64_t>(line.records()));
    if (line.state() == "damaged") records = "damaged";
    if (line.state() == "could not check") records = "unchecked";
    std::printf("%-30s %-8s %-12s %12s %10s  %s\n", store.name.c_str(),
                line.present() ? "yes" : "no",
                line.in_use_by() != 0 ? ("pid " + std::to_string(line.in_use_by())).c_str() : "no",
                line.present() ? HumanBytes(static_cast<uint64_t>(line.size_bytes())).c_str() : "-",
                records.c_str(), path.c_str());
  }
  return damaged ? kFailure : unchecked ? kCannotCheck : kSuccess;
}

int RunDump(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string limit_text = arguments.Value("limit");
  uint64_t limit = UINT64_MAX;
  if (arguments.Has("limit") && !ParseCount(limit_text, &limit)) {
    std::fprintf(stderr, "dravinholdctl: --limit needs a number, not \"%s\"\n", limit_text.c_str());
    return kUsage;
  }
  const RecordCodec codec(*store);
  std::string start;
  std::string error;
  if (arguments.Has("start") && !codec.ParseKey(arguments.Value("start"), &start, &error)) {
    return Fail(error);
  }
  OpenProblem problem = OpenProblem::kNone;
  std::unique_ptr<leveldb::DB> db =
      OpenExisting(StorePath(context.root, *store), false, &error, &problem);
  if (!db) return OpenFailure(problem, error);

  uint64_t shown = 0;
  uint64_t undecodable = 0;
  const leveldb::Status status =
      Walk(db.get(), start, [&](const leveldb::Slice& key, const leveldb::Slice& value) {
        if (shown >= limit) return false;
        std::string line;
        const RawRecord record{key.ToString(), value.ToString()};
        if (!(context.json ? codec.Json(record, &line) : codec.Text(record, &line))) {
          ++undecodable;
        }
        PrintLine(line);
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
  const RecordCodec codec(*store);
  std::string key;
  std::string error;
  if (!codec.ParseKey(key_text, &key, &error)) return Fail(error);
  OpenProblem problem = OpenProblem::kNone;
  std::unique_ptr<leveldb::DB> db =
      OpenExisting(StorePath(context.root, *store), false, &error, &problem);
  if (!db) return OpenFailure(problem, error);
  std::string value;
  leveldb::ReadOptions options;
  options.verify_checksums = true;
  const leveldb::Status status = db->Get(options, key, &value);
  if (status.IsNotFound()) {
    const leveldb::Status damage = OpenDamage(db.get());
    // A message key is named as the operator wrote it, not by its bytes.
    return Fail("not found in " + store->name + ": " +
                (store->key != nullptr ? key_text : Quoted(key)) +
                (damage.ok() ? "" : "; the store is damaged: " + damage.ToString()));
  }
  if (!status.ok()) return Fail(store->name + ": " + status.ToString());
  std::string line;
  const RawRecord record{key, value};
  const bool decoded = context.json ? codec.Json(record, &line) : codec.Text(record, &line);
  PrintLine(line);
  return decoded ? kSuccess : Fail("the record could not be decoded");
}

int RunCount(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  std::string error;
  OpenProblem problem = OpenProblem::kNone;
  std::unique_ptr<leveldb::DB> db =
      OpenExisting(StorePath(context.root, *store), false, &error, &problem);
  if (!db) return OpenFailure(problem, error);
  uint64_t count = 0;
  if (!CountRecords(db.get(), &count, &error)) {
    return Fail(store->name + " is damaged: " + error + " (" + std::to_string(count) +
                " records readable)");
  }
  if (context.json) {
    CountAnswer answer;
    answer.set_store(store->name);
    answer.set_records(static_cast<double>(count));
    PrintLine(JsonLine(answer));
  } else {
    std::printf("%" PRIu64 "\n", count);
  }
  return kSuccess;
}

int RunStats(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string path = StorePath(context.root, *store);
  std::string error;
  OpenProblem problem = OpenProblem::kNone;
  std::unique_ptr<leveldb::DB> db = OpenExisting(path, false, &error, &problem);
  if (!db) return OpenFailure(problem, error);
  StatsAnswer answer;
  answer.set_store(store->name);
  answer.set_directory(path);
  answer.set_size_bytes(static_cast<double>(SizeOnDisk(path)));
  answer.set_table_files(CountTableFiles(path));
  db->GetProperty("leveldb.stats", answer.mutable_leveldb_stats());
  db->GetProperty("leveldb.sstables", answer.mutable_sstables());
  if (context.json) {
    PrintLine(JsonLine(answer));
    return kSuccess;
  }
  std::printf("store:        %s\ndirectory:    %s\nsize on disk: %s (%" PRIu64
              " bytes)\ntable files:  %d\n\n%s\n%s",
              store->name.c_str(), path.c_str(),
              HumanBytes(static_cast<uint64_t>(answer.size_bytes())).c_str(),
              static_cast<uint64_t>(answer.size_bytes()), answer.table_files(),
              answer.leveldb_stats().c_str(), answer.sstables().c_str());
  return kSuccess;
}

int RunDumpFile(const Context& context, const Arguments& arguments) {
  const std::string& file = arguments.positional()[0];
  const int readable = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (readable < 0) {
    // A file that is not there is a wrong argument; one the tool may not
    // read is a file it could not check.
    const int error = errno;
    const std::string message = "cannot read " + file + ": " + std::strerror(error);
    return error == ENOENT ? Fail(message) : CannotCheck(message);
  }
  close(readable);
  std::string text;
  TextSink out(&text);
  const leveldb::Status status = leveldb::DumpFile(leveldb::Env::Default(), file, &out);
  if (!status.ok()) return Fail("cannot dump " + file + ": " + status.ToString());
  if (context.json) {
    FileDump answer;
    answer.set_file(file);
    answer.set_dump(text);
    PrintLine(JsonLine(answer));
  } else {
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
  return kSuccess;
}

}  // namespace dravinholdctl
