// Makes the compiler emit, in a caller's object, every piece of inline code
// that the installed headers give a caller: compiled after all of them with
// -fkeep-inline-functions, which covers the inline functions, and with the
// templates instantiated below over the library's stores and over schemas of
// the caller's own. check_header_symbols.sh then asks where each undefined
// symbol of the object comes from.

#include <mutex>
#include <string>
#include <vector>

#include "consumer_records.pb.h"

// The typed and the LRU store over a caller's schemas, whole.
template class persistence::KVStore<std::string, consumer::Note, consumer::NoteData>;
template class persistence::KVStore<consumer::ShelfKey, consumer::Note, consumer::ShelfData>;
template class persistence::PersistentLruStore<std::string, consumer::CachedNote,
                                               consumer::CachedNoteData, consumer::CacheRow,
                                               consumer::CacheRowData>;

namespace {

void (*volatile reached)();

// Takes the function's address, so that the function is emitted.
template <typename F>
void Reach(F function) {
  reached = reinterpret_cast<void (*)()>(function);
}

// The generic templates and the wrappers' bodies over one store.
template <typename StoreT, typename DataT>
void ReachStoreTemplates() {
  using KeyT = persistence::DataKey<DataT>;
  using ValueT = typename StoreT::Value;
  Reach(&StoreT::Instance);
  Reach(static_cast<persistence::Status (*)(std::vector<KeyT>*, std::vector<ValueT>*)>(
      &persistence::Dump<StoreT, KeyT>));
  Reach(static_cast<persistence::Status (*)(DataT*)>(&persistence::Dump<DataT, StoreT>));
  Reach(static_cast<persistence::Status (*)(uint64_t, uint64_t, std::vector<KeyT>*,
                                            std::vector<ValueT>*)>(
      &persistence::ReadInterval<StoreT, KeyT>));
  Reach(static_cast<persistence::Status (*)(uint64_t, uint64_t, DataT*)>(
      &persistence::ReadInterval<DataT, StoreT>));
  Reach(&persistence::AtomicClearAndPut<DataT, StoreT>);
  Reach(&persistence::StoreEmpty<StoreT>);
  Reach(&persistence::StoreCount<StoreT>);
  Reach(static_cast<persistence::Status (*)(const KeyT&, ValueT*)>(
      &persistence::StoreGet<StoreT, KeyT>));
  Reach(static_cast<persistence::Status (*)(const std::vector<KeyT>&, std::vector<ValueT>*)>(
      &persistence::StoreGet<StoreT, KeyT>));
}

template <typename StoreT, typename DataT>
void ReachPolicyTemplates() {
  Reach(&persistence::CheckPolicyEmpty<StoreT>);
}

struct Hashed {
  std::string hash;
};

}  // namespace

// Referenced, so that nothing above is dropped.
__attribute__((used)) void ReachEverything() {
  ReachStoreTemplates<persistence::FVhashStore, proto::FVhashStore::Data>();
  ReachStoreTemplates<persistence::TrustedSignersStore, proto::TrustedSignersStore::Data>();
  ReachStoreTemplates<persistence::TrustedSignersCacheStore,
                      proto::TrustedSignersCacheStore::Data>();
  ReachStoreTemplates<persistence::GeneralSettingsPolicyStore,
                      proto::GeneralSettingsPolicyStore::Data>();
  ReachStoreTemplates<persistence::ProcessSettingsPolicyStore,
                      proto::ProcessSettingsPolicyStore::Data>();
  ReachPolicyTemplates<persistence::GeneralSettingsPolicyStore,
                       proto::GeneralSettingsPolicyStore::Data>();
  ReachPolicyTemplates<persistence::ProcessSettingsPolicyStore,
                       proto::ProcessSettingsPolicyStore::Data>();
  Reach(&persistence::EnrichmentStoreEx::Instance);
  persistence::ReplaceByLowerCaseHash<persistence::FVhashStore>(
      std::vector<Hashed>(), [](const Hashed&) { return proto::FVhashStore::Value(); });
  LOG_LINE(LibPersistenceLogger, 6, "a line %s", std::string("text"));
  CHECK_LOGGED(EnrichmentLogger, false, "a check");
  persistence::Status status(leveldb::Status::Corruption("a", "b"));
}
