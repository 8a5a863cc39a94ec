// A user's program on the installed library, built with nothing but what the
// library's CMake package or pkg-config file gives it:
//
// - every store reached at first use, at the same moment, through its family
//   in the library, through Instance() inlined in this program, and through
//   Instance() inlined in a shared object of the program's own: one object
//   per store, opened once;
// - each family;
// - the generic templates over the library's stores and over a store of the
//   program's own;
// - persistence::DB used directly;
// - a typed store over the program's schemas with string keys, one with
//   message keys, and an LRU store.
//
// Prints one line per check and exits 0 when all hold. The stores'
// destructors then run at exit: a second object of a store would abort or
// hang there.

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "consumer_records.pb.h"
#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/enrichment_store/enrichment_store_ex.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/fvhash_store/fvhash_store_def.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store_def.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store_def.h"
#include "nix/dravinhold/store_scaffold.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache_def.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store_def.h"
#include "persistence/db.h"
#include "persistence/kvstore.h"
#include "persistence/persistent_lru_store.h"
#include "plugin.h"

namespace {

int failures = 0;

void Expect(bool ok, const std::string& what) {
  std::printf("%-72s %s\n", what.c_str(), ok ? "ok" : "FAILED");
  std::fflush(stdout);
  if (!ok) ++failures;
}

std::string DataRoot() {
  const char* root = std::getenv("ZERLA_DATA_ROOT");
  return root != nullptr ? root : "/var/lib/zerla";
}

// Runs each racer on a thread of its own, all released at the same moment.
void Race(const std::vector<std::function<void()>>& racers) {
  std::atomic<size_t> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (const auto& racer : racers) {
    threads.emplace_back([&ready, &go, &racer] {
      ++ready;
      while (!go.load()) std::this_thread::yield();
      racer();
    });
  }
  while (ready.load() < racers.size()) std::this_thread::yield();
  go.store(true);
  for (std::thread& thread : threads) thread.join();
}

// First use of a store from three threads at once: its family (the library's
// own Instance()), this program's inlined Instance(), and the plugin's. All
// must see one object, open, and the family's call must succeed.
template <typename StoreT>
void CheckOneObject(const std::string& name, plugin::Store store,
                    const std::function<bool()>& family_call) {
  bool family_ok = false;
  bool program_ok = false;
  const void* from_program = nullptr;
  const void* from_plugin = nullptr;
  Race({
      [&] { family_ok = family_call(); },
      [&] {
        StoreT& instance = StoreT::Instance();
        from_program = &instance;
        uint64_t count = 0;
        program_ok = instance.Count(&count, nullptr).ok();
      },
      [&] { from_plugin = plugin::InstanceOf(store); },
  });
  Expect(from_program != nullptr && from_program == from_plugin,
         name + ": one object for the program and its plugin");
  Expect(family_ok, name + ": the family's call at first use");
  Expect(program_ok, name + ": the program's own call at first use");
  Expect(plugin::Usable(store), name + ": the plugin's own call");
  Expect(StoreT::Instance().is_open(), name + ": open");
}

// How many of this process's threads bear "name".
int ThreadsNamed(const std::string& name) {
  int count = 0;
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return -1;
  while (const dirent* task = readdir(tasks)) {
    if (task->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + task->d_name + "/comm");
    std::string thread_name;
    if (std::getline(comm, thread_name) && thread_name == name) ++count;
  }
  closedir(tasks);
  return count;
}

// Waits up to 10 s for the enrichment store's threads to name themselves.
bool OneThreadEach() {
  for (int i = 0; i < 1000; ++i) {
    const int sync = ThreadsNamed("LruStoreSync");
    const int prune = ThreadsNamed("LruStorePrune");
    if (sync > 1 || prune > 1) return false;
    if (sync == 1 && prune == 1) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

void CheckSingletons() {
  using namespace persistence;
  CheckOneObject<FVhashStore>("FVhashStore", plugin::Store::kFVhash, [] {
    return FVhashStore_Put({{true, "AB12"}}) == 0 && FVhashStore_Check("ab12");
  });
  CheckOneObject<TrustedSignersStore>("TrustedSignersStore", plugin::Store::kTrustedSigners, [] {
    return TrustedSignersStore_Put({{"Vendor", "C0DE"}}) == 0 && TrustedSignersStore_Check("c0de");
  });
  CheckOneObject<TrustedSignersCacheStore>(
      "TrustedSignersCacheStore", plugin::Store::kTrustedSignersCache, [] {
        std::string certhash;
        return trusted_signers_cache_set_trusted_signer("signer", "cert") &&
               trusted_signers_cache_get_trusted_signer("signer", &certhash) && certhash == "cert";
      });
  CheckOneObject<GeneralSettingsPolicyStore>(
      "GeneralSettingsPolicyStore", plugin::Store::kGeneralPolicy, [] {
        std::string policy;
        return general_settings_policy_set(5, "general") == 0 &&
               general_settings_policy_get(5, &policy) == 0 && policy == "general";
      });
  CheckOneObject<ProcessSettingsPolicyStore>(
      "ProcessSettingsPolicyStore", plugin::Store::kProcessPolicy, [] {
        std::string policy;
        return process_settings_policy_set(" Bash ", 7, "process") == 0 &&
               process_settings_policy_get("bash", 7, &policy) == 0 && policy == "process";
      });
  CheckOneObject<EnrichmentStoreEx>("EnrichmentStoreEx", plugin::Store::kEnrichment, [] {
    proto::EnrichmentStore::Value value;
    value.set_image_path("/usr/bin/true");
    proto::EnrichmentStore::Value read;
    return EnrichmentStore_PutEntry("ab12", value).ok() &&
           EnrichmentStore_GetEntry("ab12", &read).ok() && read.image_path() == "/usr/bin/true";
  });
  Expect(OneThreadEach(), "EnrichmentStoreEx: one LruStoreSync and one LruStorePrune thread");
}

// The rest of each family, through the library after first use.
void CheckFamilies() {
  using namespace persistence;
  bool verdict = false;
  Expect(FVhashStore_GetVerdict("ab12", &verdict) == 0 && verdict && !FVhashStore_Empty(),
         "FVhashStore_GetVerdict, FVhashStore_Empty");
  unsigned long count = 0;
  Expect(TrustedSignersStore_Count(&count).ok() && count == 1, "TrustedSignersStore_Count");
  Expect(TrustedSignersCacheStore_Count(&count).ok() && count == 1,
         "TrustedSignersCacheStore_Count");
  std::chrono::steady_clock::time_point checked_at;
  Expect(general_settings_policy_loaded(&checked_at), "general_settings_policy_loaded");
  std::vector<std::string> seen;
  Expect(process_settings_policy_for_each(
             [&seen](const std::string& process, int module_id, const std::string&) {
               seen.push_back(process + "/" + std::to_string(module_id));
             }) == 0 &&
             seen == std::vector<std::string>{"bash/7"},
         "process_settings_policy_for_each");
  proto::EnrichmentStore::Value read;
  // The entry has an index; which one depends on whether the sync thread's
  // first check of the two databases came before the first put.
  Expect(EnrichmentStore_Get("ab12", &read).ok() && read.lru_data().index() >= 1 &&
             read.image_path() == "/usr/bin/true",
         "EnrichmentStore_Get: the entry, with an index");
}

// A store of the program's own, string keys, as a singleton shaped like the
// library's, so that the generic templates work over it too.
class NoteStore : public persistence::KVStore<std::string, consumer::Note, consumer::NoteData> {
 public:
  using Value = consumer::Note;

  static NoteStore& Instance() {
    static NoteStore instance;
    return instance;
  }

 private:
  NoteStore() : KVStore(persistence::kStoreHeapTag) {
    OpenWithRecovery(DataRoot() + "/consumer_notes", true, 0);
  }
};

// The same with message keys.
class ShelfStore
    : public persistence::KVStore<consumer::ShelfKey, consumer::Note, consumer::ShelfData> {
 public:
  using Value = consumer::Note;

  explicit ShelfStore(const std::string& path) : KVStore(persistence::kStoreHeapTag) {
    open_status_ = OpenWithRecovery(path, true, 0);
  }

  const persistence::Status& open_status() const { return open_status_; }

 private:
  persistence::Status open_status_;
};

consumer::Note MakeNote(const std::string& text, uint32_t stars) {
  consumer::Note note;
  note.set_text(text);
  note.set_stars(stars);
  return note;
}

consumer::ShelfKey Shelf(uint32_t shelf, uint32_t slot) {
  consumer::ShelfKey key;
  key.set_shelf(shelf);
  key.set_slot(slot);
  return key;
}

std::vector<std::string> KeysOf(const proto::FVhashStore::Data& data) {
  std::vector<std::string> keys;
  for (const auto& entry : data.entries()) keys.push_back(entry.key());
  return keys;
}

void CheckGenericTemplates() {
  using namespace persistence;
  using Keys = std::vector<std::string>;
  proto::FVhashStore::Data data;
  for (const char* key : {"k1", "k2", "k3"}) {
    auto* entry = data.add_entries();
    entry->set_key(key);
    entry->mutable_value()->set_verdict(true);
  }
  Expect(AtomicClearAndPut<proto::FVhashStore::Data, FVhashStore>(data).ok(),
         "AtomicClearAndPut<Data, FVhashStore>");
  Keys keys;
  std::vector<proto::FVhashStore::Value> values;
  Expect(Dump<FVhashStore, std::string>(&keys, &values).ok() && keys == Keys{"k1", "k2", "k3"} &&
             values.size() == 3 && values[2].verdict(),
         "Dump<FVhashStore, string>");
  Expect(ReadInterval<FVhashStore, std::string>(2, 1, &keys, &values).ok() && keys == Keys{"k2"},
         "ReadInterval<FVhashStore, string>");
  proto::FVhashStore::Data out;
  Expect(Dump<proto::FVhashStore::Data, FVhashStore>(&out).ok() &&
             KeysOf(out) == Keys{"k1", "k2", "k3"},
         "Dump<Data, FVhashStore>");
  Expect(ReadInterval<proto::FVhashStore::Data, FVhashStore>(3, 5, &out).ok() &&
             KeysOf(out) == Keys{"k3"},
         "ReadInterval<Data, FVhashStore>");
  Expect(
      AtomicClearAndPut<proto::FVhashStore::Data, FVhashStore>(proto::FVhashStore::Data()).code ==
          Status::kInvalidArgument,
      "AtomicClearAndPut<Data, FVhashStore> of nothing: code 2");

  // Message keys.
  proto::GeneralSettingsPolicyStore::Data policies;
  for (int32_t module_id : {1, 5}) {
    auto* entry = policies.add_entries();
    entry->mutable_key()->set_module_id(module_id);
    entry->mutable_value()->set_policy("policy " + std::to_string(module_id));
  }
  Expect(AtomicClearAndPut<proto::GeneralSettingsPolicyStore::Data, GeneralSettingsPolicyStore>(
             policies)
             .ok(),
         "AtomicClearAndPut<Data, GeneralSettingsPolicyStore>");
  std::vector<proto::GeneralSettingsPolicyStore::Key> policy_keys;
  std::vector<proto::GeneralSettingsPolicyStore::Value> policy_values;
  Expect(Dump<GeneralSettingsPolicyStore, proto::GeneralSettingsPolicyStore::Key>(&policy_keys,
                                                                                  &policy_values)
                 .ok() &&
             policy_keys.size() == 2 && policy_values[1].policy() == "policy 5",
         "Dump<GeneralSettingsPolicyStore, Key>");
  proto::GeneralSettingsPolicyStore::Data policies_out;
  Expect(ReadInterval<proto::GeneralSettingsPolicyStore::Data, GeneralSettingsPolicyStore>(
             1, 1, &policies_out)
                 .ok() &&
             policies_out.entries_size() == 1 && policies_out.entries(0).key().module_id() == 1,
         "ReadInterval<Data, GeneralSettingsPolicyStore>");

  // The program's own store.
  consumer::NoteData notes;
  auto* entry = notes.add_entries();
  entry->set_key("note");
  *entry->mutable_value() = MakeNote("from the templates", 4);
  std::vector<std::string> note_keys;
  std::vector<consumer::Note> note_values;
  Expect(AtomicClearAndPut<consumer::NoteData, NoteStore>(notes).ok() &&
             Dump<NoteStore, std::string>(&note_keys, &note_values).ok() &&
             note_keys == Keys{"note"} && note_values[0].stars() == 4,
         "AtomicClearAndPut, Dump over the program's own store");
}

void CheckDB() {
  persistence::DB db(DataRoot() + "/consumer_db");
  Expect(db.Open(true, true, true, 0).ok() && db.is_open(), "DB::Open");
  Expect(
      db.Put("b", "2", false).ok() &&
          db.Put(std::vector<std::string>{"a", "c"}, std::vector<std::string>{"1", "3"}, true).ok(),
      "DB::Put");
  std::string value;
  Expect(db.Get("a", &value, nullptr).ok() && value == "1", "DB::Get");
  Expect(db.Get("x", &value, nullptr).IsNotFound(), "DB::Get of an absent key: NotFound");
  uint64_t count = 0;
  Expect(db.CountRange("b", persistence::DB::NullKey(), &count, nullptr).ok() && count == 2,
         "DB::CountRange to the open end");
  std::vector<std::string> keys;
  std::vector<std::string> values;
  Expect(db.ReadReverseInterval(1, 2, &keys, &values, nullptr).ok() &&
             keys == std::vector<std::string>{"c", "b"},
         "DB::ReadReverseInterval");
  std::string walked;
  Expect(db.Iterate(
               [&walked](std::string key, std::string) {
                 walked += key;
                 return true;
               },
               nullptr)
                 .ok() &&
             walked == "abc",
         "DB::Iterate");
  const leveldb::Snapshot* snapshot = nullptr;
  Expect(db.CreateSnapshot(&snapshot).ok() && db.Delete("a", true).ok() &&
             db.Get("a", &value, snapshot).ok() && db.ReleaseSnapshot(snapshot).ok(),
         "DB snapshots");
  Expect(db.Verify().ok() && db.Compact().ok() && db.Close().ok() && !db.is_open(),
         "DB::Verify, Compact, Close");
}

void CheckTypedStores() {
  using persistence::Status;
  NoteStore& notes = NoteStore::Instance();
  consumer::Note read;
  Expect(notes.is_open() && notes.Put("n1", MakeNote("one", 1), false).ok() &&
             notes.Get("n1", &read, nullptr).ok() && read.text() == "one",
         "KVStore<string, Note>: Put, Get");
  Expect(notes.Get("n1", nullptr, nullptr).code == Status::kInvalidArgument,
         "KVStore<string, Note>: Get into null: code 2");
  Expect(notes.Get("absent", &read, nullptr).code == Status::kNotFound,
         "KVStore<string, Note>: absent key: code 3");
  std::vector<std::string> keys;
  std::vector<consumer::Note> values;
  Expect(notes.Put(std::vector<std::string>{"n2", "n3"},
                   std::vector<consumer::Note>{MakeNote("two", 2), MakeNote("three", 3)}, true)
                 .ok() &&
             notes.DumpRange("n2", NoteStore::NullKey(), &keys, &values, nullptr).ok() &&
             keys == std::vector<std::string>{"n2", "n3", "note"},
         "KVStore<string, Note>: bulk Put, DumpRange");
  consumer::NoteData page;
  Expect(notes.ReadDataInterval(1, 2, &page).ok() && page.entries_size() == 2,
         "KVStore<string, Note>: ReadDataInterval");
  std::string stats;
  Expect(notes.Stats(&stats, nullptr).ok() && notes.GetSize() > 0 && notes.Compact().ok(),
         "KVStore<string, Note>: Stats, GetSize, Compact");

  ShelfStore shelves(DataRoot() + "/consumer_shelves");
  Expect(shelves.open_status().ok(), "KVStore<ShelfKey, Note>: open");
  Expect(shelves.Put(Shelf(1, 2), MakeNote("a", 1), false).ok() &&
             shelves.Put(Shelf(3, 1), MakeNote("b", 2), false).ok() &&
             shelves.Get(Shelf(3, 1), &read, nullptr).ok() && read.text() == "b",
         "KVStore<ShelfKey, Note>: Put, Get");
  uint64_t count = 0;
  Expect(shelves.Count(&count, nullptr).ok() && count == 2, "KVStore<ShelfKey, Note>: Count");
  std::vector<consumer::ShelfKey> shelf_keys;
  Expect(shelves.ReadReverseInterval(1, 1, &shelf_keys, &values, nullptr).ok() &&
             shelf_keys.size() == 1 && values.size() == 1,
         "KVStore<ShelfKey, Note>: ReadReverseInterval");
  int walked = 0;
  Expect(shelves.Iterate(
                    [&walked](consumer::ShelfKey, consumer::Note) {
                      ++walked;
                      return true;
                    },
                    nullptr)
                 .ok() &&
             walked == 2,
         "KVStore<ShelfKey, Note>: Iterate");
  consumer::ShelfData bulk;
  auto* entry = bulk.add_entries();
  *entry->mutable_key() = Shelf(9, 9);
  *entry->mutable_value() = MakeNote("imported", 5);
  Expect(shelves.Import(&bulk).ok() && shelves.Count(&count, nullptr).ok() && count == 1,
         "KVStore<ShelfKey, Note>: Import replaces the store");
  Expect(
      shelves.Delete(Shelf(9, 9), true).ok() && shelves.Count(&count, nullptr).ok() && count == 0,
      "KVStore<ShelfKey, Note>: Delete");
}

// An LRU store of the program's own.
class NoteCache
    : public persistence::PersistentLruStore<std::string, consumer::CachedNote,
                                             consumer::CachedNoteData, consumer::CacheRow,
                                             consumer::CacheRowData> {
 public:
  NoteCache() : PersistentLruStore(1, std::chrono::hours(1), persistence::kStoreHeapTag) {}
  ~NoteCache() override { Stop(); }
};

void CheckLruStore() {
  NoteCache cache;
  Expect(cache.Open(DataRoot() + "/consumer_cache", 0).ok(), "PersistentLruStore: Open");
  consumer::CachedNote note;
  note.set_text("cached");
  Expect(cache.Put("c1", note).ok() && note.lru_data().index() == 1,
         "PersistentLruStore: Put gives the first index");
  consumer::CachedNote read;
  Expect(cache.Get("c1", &read).ok() && read.text() == "cached", "PersistentLruStore: Get");
  std::vector<std::string> keys;
  std::vector<consumer::CachedNote> values;
  Expect(cache.Dump(&keys, &values, false).ok() && keys == std::vector<std::string>{"c1"},
         "PersistentLruStore: Dump");
  Expect(cache.Delete("c1").ok() && cache.Get("c1", &read).code == persistence::Status::kNotFound,
         "PersistentLruStore: Delete");
  cache.Stop();
  Expect(ThreadsNamed("LruStoreSync") == 1 && ThreadsNamed("LruStorePrune") == 1,
         "PersistentLruStore: Stop joins its own threads only");
}

}  // namespace

int main() {
  CheckSingletons();
  CheckFamilies();
  CheckGenericTemplates();
  CheckDB();
  CheckTypedStores();
  CheckLruStore();
  std::printf("%s\n", failures == 0 ? "all checks passed" : "some checks FAILED");
  return failures == 0 ? 0 : 1;
}
