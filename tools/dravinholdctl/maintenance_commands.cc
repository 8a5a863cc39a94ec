// Commands that check or change stores: verify, repair, export, import.
// Only repair and import change anything, and only a store that no other
// process holds.

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <set>

#include "command.h"
#include "dravinhold/enrichment_store/enrichment_lru_store.pb.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#include "dravinholdctl.pb.h"
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

// What verifying one store came to.
enum class Verdict { kSound, kDamaged, kCannotCheck };

// Verifies one store and prints its line. With "all" an absent store is
// sound; alone, it is an error on standard error.
Verdict VerifyStore(const Context& context, const StoreInfo& store, bool all) {
  const std::string path = StorePath(context.root, store);
  VerifyAnswer answer;
  answer.set_store(store.name);
  const auto print = [&](Verdict verdict) {
    if (context.json) {
      PrintLine(JsonLine(answer));
    } else if (answer.state() == "absent") {
      std::printf("%s: absent\n", store.name.c_str());
    } else if (answer.state() == "ok") {
      std::printf("%s: ok, %" PRIu64 " records, every block verified\n", store.name.c_str(),
                  static_cast<uint64_t>(answer.records()));
    } else if (answer.state() == "could not check") {
      std::printf("%s: COULD NOT CHECK: %s\n", store.name.c_str(), answer.error().c_str());
    } else {
      std::printf("%s: DAMAGED: %s\n", store.name.c_str(), answer.error().c_str());
    }
    return verdict;
  };
  std::string error;
  OpenProblem problem = OpenProblem::kNone;
  // Paranoid, so that damage in the log is found at the open already. A
  // directory the engine cannot open as a database is damaged too.
  std::unique_ptr<leveldb::DB> db = OpenExisting(path, true, &error, &problem);
  if (!db) {
    if (problem == OpenProblem::kAbsent) {
      if (!all) {
        Fail(error);
        return Verdict::kDamaged;
      }
      answer.set_state("absent");
      return print(Verdict::kSound);
    }
    answer.set_error(error);
    if (problem == OpenProblem::kCannotCheck) {
      answer.set_state("could not check");
      return print(Verdict::kCannotCheck);
    }
    answer.set_state("damaged");
    return print(Verdict::kDamaged);
  }
  uint64_t records = 0;
  const leveldb::Status status = WalkWithProgress(
      db.get(), "verify " + store.name, [&](const leveldb::Slice&, const leveldb::Slice&) {
        ++records;
        return true;
      });
  answer.set_records(static_cast<double>(records));
  if (status.ok()) {
    answer.set_state("ok");
    return print(Verdict::kSound);
  }
  std::string where;
  const std::vector<std::string> damaged = DamagedTables(path);
  for (const std::string& table : damaged) {
    const std::string file = table.substr(0, table.find(": "));
    if (answer.file().empty()) answer.set_file(file);
    where += (where.empty() ? "; in " : ", ") + file;
  }
  answer.set_state("damaged");
  answer.set_error(status.ToString() + where);
  if (!context.json) {
    answer.set_error(answer.error() + " (" + std::to_string(records) + " records readable)");
  }
  return print(Verdict::kDamaged);
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

// The names in "path"/lost, empty when there is none.
std::set<std::string> LostFiles(const std::string& path) {
  std::set<std::string> names;
  if (DIR* dir = opendir((path + "/lost").c_str())) {
    while (const dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.insert(name);
    }
    closedir(dir);
  }
  return names;
}

// Reads FILE, or standard input for "-". False with *error set.
bool ReadInput(const std::string& file, std::string* contents, std::string* error) {
  FILE* in = file == "-" ? stdin : std::fopen(file.c_str(), "rb");
  if (in == nullptr) {
    *error = "cannot read " + file + ": " + std::strerror(errno);
    return false;
  }
  contents->clear();
  char buffer[65536];
  size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof(buffer), in)) > 0) contents->append(buffer, got);
  const bool failed = std::ferror(in) != 0;
  const int saved = errno;
  if (in != stdin) std::fclose(in);
  if (failed) {
    *error = "cannot read " + file + ": " + std::strerror(saved);
    return false;
  }
  return true;
}

// Writes "contents" to FILE, or to standard output for "-".
bool WriteOutput(const std::string& file, const std::string& contents, std::string* error) {
  FILE* out = file == "-" ? stdout : std::fopen(file.c_str(), "wb");
  if (out == nullptr) {
    *error = "cannot write " + file + ": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(contents.data(), 1, contents.size(), out) == contents.size() &&
                       std::fflush(out) == 0;
  const int saved = errno;
  const bool closed = out == stdout || std::fclose(out) == 0;
  if (!written || !closed) {
    *error = "cannot write " + file + ": " + std::strerror(written ? errno : saved);
    return false;
  }
  return true;
}

// The records of an export in binary form. False with *error set.
bool ReadBinaryExport(const StoreInfo& store, const std::string& file, const std::string& contents,
                      std::vector<RawRecord>* records, std::string* error) {
  Export exported;
  if (!exported.ParseFromString(contents) || exported.store().empty() ||
      exported.schema().empty()) {
    *error = file +
             " is not an export of dravinholdctl: it names no store and schema (write it with "
             "\"dravinholdctl export\")";
    return false;
  }
  if (exported.store() != store.name) {
    *error = file + " is an export of " + exported.store() + ", not of " + store.name +
             "; nothing imported";
    return false;
  }
  if (exported.schema() != store.data->full_name()) {
    *error = file + " holds " + exported.schema() + " records, not " + store.data->full_name() +
             "; nothing imported";
    return false;
  }
  for (const RawEntry& entry : exported.data().entries()) {
    records->push_back({entry.key(), entry.value()});
  }
  return true;
}

// protobuf's JSON parser ends its complaint with a piece of the input from
// where it stopped and a caret under the spot. Turns that into "column N: "
// and leaves the complaint's first line in *why.
std::string ErrorPosition(const std::string& line, std::string* why) {
  const size_t first_break = why->find('\n');
  if (first_break == std::string::npos) return "";
  const size_t second_break = why->find('\n', first_break + 1);
  std::string column;
  if (second_break != std::string::npos) {
    const std::string piece = why->substr(first_break + 1, second_break - first_break - 1);
    const size_t caret = why->find('^', second_break + 1);
    const size_t at = line.find(piece);
    if (!piece.empty() && at != std::string::npos && caret != std::string::npos) {
      column = "column " + std::to_string(at + (caret - second_break - 1) + 1) + ": ";
    }
  }
  why->erase(first_break);
  return column;
}

// The records of JSON Lines: export --json (a header line, then records) or
// dump --json (records only). False with *error set, naming the line.
bool ReadJsonLines(const StoreInfo& store, const std::string& file, const std::string& contents,
                   std::vector<RawRecord>* records, std::string* error) {
  const RecordCodec codec(store);
  size_t begin = 0;
  int number = 0;
  bool first = true;
  while (begin < contents.size()) {
    size_t end = contents.find('\n', begin);
    if (end == std::string::npos) end = contents.size();
    const std::string line = contents.substr(begin, end - begin);
    begin = end + 1;
    ++number;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::string where = file + ":" + std::to_string(number) + ": ";
    if (first) {
      first = false;
      Export header;
      std::string ignored;
      if (ParseJson(line, &header, &ignored) && !header.store().empty()) {
        if (header.store() != store.name) {
          *error = file + " is an export of " + header.store() + ", not of " + store.name +
                   "; nothing imported";
          return false;
        }
        if (header.schema() != store.data->full_name()) {
          *error = file + " holds " + header.schema() + " records, not " + store.data->full_name() +
                   "; nothing imported";
          return false;
        }
        continue;
      }
    }
    RawRecord record;
    bool has_value = false;
    std::string why;
    if (!codec.ParseJsonRecord(line, &record, &has_value, &why)) {
      *error = where + ErrorPosition(line, &why) + "not a record of " + store.name + ": " + why;
      return false;
    }
    if (!has_value) {
      *error = where + "a record without \"value\"";
      return false;
    }
    records->push_back(std::move(record));
  }
  return true;
}

// Checks every record against the store's types and applies what its family
// enforces: keys in lower case where the family writes them so, the later
// of two records of one key standing. *lower_cased counts the keys changed.
bool Admit(const StoreInfo& store, std::vector<RawRecord>* records, uint64_t* lower_cased,
           std::string* error) {
  *lower_cased = 0;
  ProgressBar progress("import " + store.name, records->size());
  std::vector<RawRecord> admitted;
  std::map<std::string, size_t> position;  // key -> its place in "admitted"
  for (size_t i = 0; i < records->size(); ++i) {
    RawRecord& record = (*records)[i];
    if (i % 1024 == 0) progress.Update(i);
    const std::string which = "record " + std::to_string(i + 1);
    if (record.key.empty()) {
      *error = which + ": the key is empty";
      return false;
    }
    if (store.key != nullptr && !NewMessage(store.key)->ParseFromString(record.key)) {
      *error = which + ": the key is not a " + store.key->full_name();
      return false;
    }
    if (!NewMessage(store.value)->ParseFromString(record.value)) {
      *error = which + ": the value is not a " + store.value->full_name();
      return false;
    }
    if (store.lower_case_keys) {
      std::string lower = record.key;
      for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (lower != record.key) ++*lower_cased;
      record.key = std::move(lower);
    }
    const auto [at, added] = position.emplace(record.key, admitted.size());
    if (added) {
      admitted.push_back(std::move(record));
    } else {
      admitted[at->second] = std::move(record);
    }
  }
  *records = std::move(admitted);
  progress.Finish();
  return true;
}

// Gives each enrichment entry a fresh index in the order of its last use,
// oldest first, and makes the rows of the order database to match, as the
// store's own rebuild would.
bool RebuildOrder(std::vector<RawRecord>* entries, std::vector<RawRecord>* rows,
                  std::string* error) {
  std::vector<std::pair<proto::EnrichmentStore::Value, std::string*>> values;
  for (RawRecord& entry : *entries) {
    proto::EnrichmentStore::Value value;
    value.ParseFromString(entry.value);
    values.emplace_back(std::move(value), &entry.key);
  }
  std::vector<size_t> order(values.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&values](size_t a, size_t b) {
    return values[a].first.lru_data().last_used() < values[b].first.lru_data().last_used();
  });
  rows->clear();
  uint64_t index = 0;
  for (const size_t i : order) {
    proto::EnrichmentStore::Value& value = values[i].first;
    value.mutable_lru_data()->set_index(++index);
    if (!Encode(value, &(*entries)[i].value)) {
      *error = "the entry " + Quoted(*values[i].second) + " does not encode";
      return false;
    }
    char key[21] = {};
    std::snprintf(key, sizeof(key), "%20llu", static_cast<unsigned long long>(index));
    proto::EnrichmentLruStore::Value row;
    row.set_foreign_key(*values[i].second);
    std::string row_bytes;
    if (!Encode(row, &row_bytes)) {
      *error = "the row of " + Quoted(*values[i].second) + " does not encode";
      return false;
    }
    rows->push_back({std::string(key, 20), std::move(row_bytes)});
  }
  return true;
}

// Replaces every record of the database at "path" by "records" in one
// synchronous batch: the store holds the old contents or the new, never a
// mix.
leveldb::Status Replace(const std::string& path, const std::vector<RawRecord>& records) {
  std::vector<std::string> keys;
  std::vector<std::string> values;
  for (const RawRecord& record : records) {
    keys.push_back(record.key);
    values.push_back(record.value);
  }
  persistence::DB db(path);
  leveldb::Status status = db.Open(true, true, true, 0);
  if (status.ok()) status = db.AtomicClearAndPut(keys, values, true);
  return status;
}

std::string TimeStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc;
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

}  // namespace

int RunVerify(const Context& context, const Arguments& arguments) {
  const bool all = arguments.Has("all");
  if (all == !arguments.positional().empty()) {
    std::fprintf(stderr, "dravinholdctl: verify takes a store or --all\n");
    return kUsage;
  }
  std::vector<const StoreInfo*> stores;
  if (all) {
    for (const StoreInfo& store : Stores()) stores.push_back(&store);
  } else {
    const StoreInfo* store = StoreArgument(arguments, 0);
    if (store == nullptr) return kUsage;
    stores.push_back(store);
  }
  bool damaged = false;
  bool unchecked = false;
  for (const StoreInfo* store : stores) {
    const Verdict verdict = VerifyStore(context, *store, all);
    damaged = damaged || verdict == Verdict::kDamaged;
    unchecked = unchecked || verdict == Verdict::kCannotCheck;
  }
  return damaged ? kFailure : unchecked ? kCannotCheck : kSuccess;
}

int RunRepair(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string path = StorePath(context.root, *store);
  std::string error;
  if (!DirectoryExists(path)) return Fail("not present: " + path);
  if (RefuseIfInUse(path, &error)) return Fail(error);
  RepairAnswer answer;
  answer.set_store(store->name);
  answer.set_records_before(DescribeCount(path));
  // The engine's repair drops what it cannot read; the store as it was stays
  // beside it, for a second opinion or a way back.
  answer.set_backup(path + ".before-repair-" + TimeStamp());
  if (!BackUpDirectory(path, answer.backup(), &error)) {
    return CannotCheck("no copy of " + store->name + " before the repair, so no repair: " + error);
  }
  const std::set<std::string> lost_before = LostFiles(path);
  // With paranoid checks the repair reads every block of the tables with its
  // checksum verified, and rewrites a table with a damaged block from the
  // blocks that are sound. Without them a table that merely parses is kept
  // as it is, damage and all.
  leveldb::Options options;
  options.paranoid_checks = true;
  const leveldb::Status status = leveldb::RepairDB(path, options);
  if (!status.ok()) {
    return Fail("repair of " + store->name + " failed: " + status.ToString() +
                "; the store as it was is in " + answer.backup());
  }
  for (const std::string& name : LostFiles(path)) {
    if (lost_before.count(name) == 0) answer.add_lost(name);
  }
  answer.set_records_after(DescribeCount(path));
  if (context.json) {
    PrintLine(JsonLine(answer));
    return kSuccess;
  }
  std::printf("%s: repaired; records before: %s, after: %s\n", store->name.c_str(),
              answer.records_before().c_str(), answer.records_after().c_str());
  std::string lost;
  for (const std::string& name : answer.lost()) lost += (lost.empty() ? "" : ", ") + name;
  std::printf("moved to %s/lost: %s\n", path.c_str(), lost.empty() ? "nothing" : lost.c_str());
  std::printf("the store as it was: %s\n", answer.backup().c_str());
  return kSuccess;
}

int RunExport(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  const std::string& file = arguments.positional()[1];
  std::string error;
  OpenProblem problem = OpenProblem::kNone;
  std::unique_ptr<leveldb::DB> db =
      OpenExisting(StorePath(context.root, *store), false, &error, &problem);
  if (!db) return problem == OpenProblem::kCannotCheck ? CannotCheck(error) : Fail(error);
  Export exported;
  exported.set_store(store->name);
  exported.set_schema(store->data->full_name());
  std::string contents;
  uint64_t records = 0;
  uint64_t undecodable = 0;
  const RecordCodec codec(*store);
  if (context.json) contents = JsonLine(exported) + "\n";
  const leveldb::Status status = WalkWithProgress(
      db.get(), "export " + store->name,
      [&](const leveldb::Slice& key, const leveldb::Slice& value) {
        const RawRecord record{key.ToString(), value.ToString()};
        ++records;
        if (context.json) {
          std::string line;
          if (!codec.Json(record, &line)) ++undecodable;
          contents += line + "\n";
        } else {
          if (!codec.DecodeValue(record.value) ||
              (store->key != nullptr && !NewMessage(store->key)->ParseFromString(record.key))) {
            ++undecodable;
          }
          RawEntry* entry = exported.mutable_data()->add_entries();
          entry->set_key(record.key);
          entry->set_value(record.value);
        }
        return true;
      });
  if (!status.ok()) {
    return Fail(store->name + " is damaged: " + status.ToString() + "; nothing exported");
  }
  if (undecodable != 0) {
    return Fail(std::to_string(undecodable) + " of " + std::to_string(records) + " records of " +
                store->name + " do not decode; nothing exported");
  }
  if (!context.json && !exported.SerializeToString(&contents)) {
    return Fail("cannot encode the records");
  }
  if (!WriteOutput(file, contents, &error)) return Fail(error);
  TransferAnswer answer;
  answer.set_store(store->name);
  answer.set_records(static_cast<double>(records));
  answer.set_file(file);
  if (file == "-") {
    // Standard output holds the export itself.
    std::fprintf(stderr, "%s: %" PRIu64 " records exported\n", store->name.c_str(), records);
  } else if (context.json) {
    PrintLine(JsonLine(answer));
  } else {
    std::printf("%s: %" PRIu64 " records exported to %s\n", store->name.c_str(), records,
                file.c_str());
  }
  return kSuccess;
}

int RunImport(const Context& context, const Arguments& arguments) {
  const StoreInfo* store = StoreArgument(arguments, 0);
  if (store == nullptr) return kUsage;
  if (store->name == "enrichment_store.lru") {
    return Fail(
        "enrichment_store.lru is not imported by itself: it follows the entries; import "
        "enrichment_store, which rebuilds it");
  }
  const std::string& file = arguments.positional()[1];
  std::string contents;
  std::string error;
  if (!ReadInput(file, &contents, &error)) return Fail(error);
  std::vector<RawRecord> records;
  const size_t first = contents.find_first_not_of(" \t\r\n");
  const bool json = first != std::string::npos && contents[first] == '{';
  if (json ? !ReadJsonLines(*store, file, contents, &records, &error)
           : !ReadBinaryExport(*store, file, contents, &records, &error)) {
    return Fail(error);
  }
  uint64_t lower_cased = 0;
  if (!Admit(*store, &records, &lower_cased, &error)) return Fail(file + ": " + error);
  if (records.empty() && !arguments.Has("allow-empty")) {
    return Fail(file + " holds no records; the store is left as it was (--allow-empty empties it)");
  }

  const std::string path = StorePath(context.root, *store);
  if (RefuseIfInUse(path, &error)) return Fail(error);
  std::vector<RawRecord> rows;
  const bool enrichment = store->name == "enrichment_store";
  const std::string order_path = StorePath(context.root, *FindStore("enrichment_store.lru"));
  if (enrichment) {
    if (RefuseIfInUse(order_path, &error)) return Fail(error);
    if (!RebuildOrder(&records, &rows, &error)) return Fail(file + ": " + error);
  }
  leveldb::Status status = Replace(path, records);
  if (!status.ok()) return Fail("import into " + store->name + " failed: " + status.ToString());
  if (enrichment) {
    // The entries are in; should the rows fail, the store rebuilds its order
    // from the entries at its next start.
    status = Replace(order_path, rows);
    if (!status.ok()) {
      return Fail("the order of use of enrichment_store was not rebuilt: " + status.ToString());
    }
  }
  TransferAnswer answer;
  answer.set_store(store->name);
  answer.set_records(static_cast<double>(records.size()));
  answer.set_file(file);
  answer.set_keys_lower_cased(static_cast<double>(lower_cased));
  answer.set_order_rows(static_cast<double>(rows.size()));
  if (context.json) {
    PrintLine(JsonLine(answer));
    return kSuccess;
  }
  std::printf("%s: replaced by %zu records from %s\n", store->name.c_str(), records.size(),
              file.c_str());
  if (lower_cased != 0) std::printf("%" PRIu64 " keys written in lower case\n", lower_cased);
  if (enrichment) {
    std::printf("enrichment_store.lru: rebuilt with %zu rows, oldest use first\n", rows.size());
  }
  return kSuccess;
}

}  // namespace dravinholdctl
