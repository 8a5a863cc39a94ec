// The enrichment store's order of use, oldest first, and whether the two
// databases agree.

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>

#include "command.h"
#include "dravinhold/enrichment_store/enrichment_lru_store.pb.h"
#include "dravinhold/enrichment_store/enrichment_store.pb.h"
#include "dravinholdctl.pb.h"
#include "engine.h"
#include "records.h"

namespace dravinholdctl {
namespace {

struct EntryOrder {
  uint64_t index;
  int64_t last_used;
};

struct Report {
  uint64_t rows = 0;
  uint64_t rows_without_entry = 0;  // the entry is gone
  uint64_t rows_superseded = 0;     // the entry has been renewed since
  uint64_t entries = 0;
  uint64_t entries_without_row = 0;
  uint64_t entries_on_another_key_row = 0;
  uint64_t undecodable = 0;
};

std::string Date(int64_t seconds) {
  if (seconds == 0) return "never";
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm utc;
  gmtime_r(&time, &utc);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc);
  return text;
}

// The index a row's key names. The key is the index written "%20llu": 20
// bytes, digits right-aligned after blanks. False for any other key, which
// would not sort where its number belongs.
bool ParseIndex(const std::string& key, uint64_t* index) {
  if (key.size() != 20) return false;
  size_t at = key.find_first_not_of(' ');
  if (at == std::string::npos) return false;
  *index = 0;
  for (; at < key.size(); ++at) {
    const char c = key[at];
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (*index > (UINT64_MAX - digit) / 10) return false;
    *index = *index * 10 + digit;
  }
  return true;
}

bool LoadEntries(leveldb::DB* db, std::map<std::string, EntryOrder>* entries, Report* report,
                 std::string* error) {
  const leveldb::Status status =
      Walk(db, "", [&](const leveldb::Slice& key, const leveldb::Slice& bytes) {
        proto::EnrichmentStore::Value value;
        if (!value.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
          ++report->undecodable;
          return true;
        }
        (*entries)[key.ToString()] = {value.lru_data().index(), value.lru_data().last_used()};
        return true;
      });
  if (!status.ok()) *error = "enrichment_store is damaged: " + status.ToString();
  return status.ok();
}

void PrintRow(bool json, uint64_t index, const std::string& key, int64_t last_used,
              const char* state) {
  if (json) {
    LruRow row;
    row.set_index(static_cast<double>(index));
    if (IsUtf8(key)) {
      row.set_key(key);
    } else {
      row.set_key_base64(key);
    }
    row.set_last_used(static_cast<double>(last_used));
    row.set_date(Date(last_used));
    row.set_state(state);
    PrintLine(JsonLine(row));
  } else {
    std::printf("%20" PRIu64 "  %-23s  %s%s%s\n", index, Date(last_used).c_str(),
                Quoted(key).c_str(), *state ? "  " : "", state);
  }
}

int OpenFailure(OpenProblem problem, const std::string& error) {
  return problem == OpenProblem::kCannotCheck ? CannotCheck(error) : Fail(error);
}

}  // namespace

int RunLru(const Context& context, const Arguments& arguments) {
  const bool json = context.json;
  const std::string limit_text = arguments.Value("limit");
  uint64_t limit = UINT64_MAX;
  if (arguments.Has("limit") && !ParseCount(limit_text, &limit)) {
    std::fprintf(stderr, "dravinholdctl: --limit needs a number, not \"%s\"\n", limit_text.c_str());
    return kUsage;
  }
  std::string error;
  OpenProblem problem = OpenProblem::kNone;
  std::unique_ptr<leveldb::DB> main_db = OpenExisting(
      StorePath(context.root, *FindStore("enrichment_store")), false, &error, &problem);
  if (!main_db) return OpenFailure(problem, error);
  std::unique_ptr<leveldb::DB> lru_db = OpenExisting(
      StorePath(context.root, *FindStore("enrichment_store.lru")), false, &error, &problem);
  if (!lru_db) return OpenFailure(problem, error);

  Report report;
  std::map<std::string, EntryOrder> entries;
  if (!LoadEntries(main_db.get(), &entries, &report, &error)) return Fail(error);
  report.entries = entries.size();
  std::map<uint64_t, std::string> rows;  // index -> key, to check the entries against

  if (!json) std::printf("%20s  %-23s  %s\n", "INDEX", "LAST USED", "KEY");
  const leveldb::Status status =
      Walk(lru_db.get(), "", [&](const leveldb::Slice& key, const leveldb::Slice& bytes) {
        uint64_t index = 0;
        proto::EnrichmentLruStore::Value row;
        if (!ParseIndex(key.ToString(), &index) ||
            !row.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
          ++report.undecodable;
          return true;
        }
        ++report.rows;
        rows[index] = row.foreign_key();
        const auto entry = entries.find(row.foreign_key());
        const char* state = "";
        int64_t last_used = 0;
        if (entry == entries.end()) {
          state = "entry gone";
          ++report.rows_without_entry;
        } else {
          last_used = entry->second.last_used;
          if (entry->second.index != index) {
            state = "superseded";
            ++report.rows_superseded;
          }
        }
        if (report.rows <= limit) PrintRow(json, index, row.foreign_key(), last_used, state);
        return true;
      });
  if (!status.ok()) return Fail("enrichment_store.lru is damaged: " + status.ToString());

  for (const auto& [key, order] : entries) {
    const auto row = rows.find(order.index);
    if (row == rows.end()) {
      ++report.entries_without_row;
    } else if (row->second != key) {
      ++report.entries_on_another_key_row;
    }
  }
  if (json) {
    LruReport summary;
    summary.set_rows(static_cast<double>(report.rows));
    summary.set_entries(static_cast<double>(report.entries));
    summary.set_rows_without_entry(static_cast<double>(report.rows_without_entry));
    summary.set_rows_superseded(static_cast<double>(report.rows_superseded));
    summary.set_entries_without_row(static_cast<double>(report.entries_without_row));
    summary.set_entries_on_another_key_row(static_cast<double>(report.entries_on_another_key_row));
    summary.set_undecodable(static_cast<double>(report.undecodable));
    PrintLine(JsonLine(summary));
  } else {
    const auto line = [](const char* label, uint64_t value) {
      std::printf("  %-45s %" PRIu64 "\n", label, value);
    };
    std::printf("\n%" PRIu64 " rows, %" PRIu64 " entries\n", report.rows, report.entries);
    line("rows whose entry is gone:", report.rows_without_entry);
    line("rows superseded by a later renewal:", report.rows_superseded);
    line("entries with no row:", report.entries_without_row);
    line("entries whose index names another key's row:", report.entries_on_another_key_row);
    line("records that do not decode:", report.undecodable);
    if (report.entries_without_row != 0) {
      std::printf(
          "Entries with no row are normal right after a write (rows follow within 10 s) or after "
          "a stop;\ntheir next renewal gives them one. Pruning removes rows whose entry is "
          "gone.\n");
    }
  }
  // Disagreement between the two databases is part of their normal life; a
  // record that does not decode is damage.
  if (report.undecodable != 0) {
    return Fail(std::to_string(report.undecodable) +
                " records of enrichment_store and enrichment_store.lru do not decode");
  }
  return kSuccess;
}

}  // namespace dravinholdctl
