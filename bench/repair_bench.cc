// Repair of a damaged 16 MiB store: persistence::DB::Repair, which salvages
// the logs and runs the engine's repair with verified blocks in a child
// process, against leveldb::RepairDB with verified blocks called in this
// process, the same repair without its containment. Each iteration repairs a
// fresh copy of the same damaged directory; the copy is not timed.
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "bench/bench_common.h"
#include "persistence/db.h"

namespace bench {
namespace {

// About 16 MiB of 400-byte records in several tables and a live log, with
// one byte flipped in the middle of the largest table's data.
const std::string& DamagedDirectory() {
  static std::string path;
  if (!path.empty()) return path;
  path = FreshWorkPath("repair_source");
  {
    RawDb db(path, false, 0);
    std::string value(400, 'v');
    for (uint64_t start = 0; start < 40000; start += 1000) {
      leveldb::WriteBatch batch;
      for (uint64_t i = start; i < start + 1000; ++i) batch.Put(HashKey(7, i), value);
      Require(db->Write(WriteSync(false), &batch), "write");
    }
  }
  // The middle byte of a table: data, not its index or footer.
  std::string table;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    const std::string name = entry.path().string();
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".ldb") == 0) table = name;
  }
  Require(!table.empty(), "a table in " + path);
  std::fstream file(table, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(0, std::ios::end);
  const std::streamoff middle = file.tellg() / 2;
  char byte = 0;
  file.seekg(middle);
  file.read(&byte, 1);
  byte = static_cast<char>(~byte);
  file.seekp(middle);
  file.write(&byte, 1);
  Require(file.good(), "damage " + table);
  return path;
}

void LibraryRepair(benchmark::State& state) {
  const std::string& source = DamagedDirectory();
  const std::string path = FreshWorkPath("repair_library");
  for (auto _ : state) {
    state.PauseTiming();
    CopyDirectory(source, path);
    state.ResumeTiming();
    persistence::DB db(path);
    Require(db.Repair(), "contained repair");
  }
}

void RawRepair(benchmark::State& state) {
  const std::string& source = DamagedDirectory();
  const std::string path = FreshWorkPath("repair_raw");
  for (auto _ : state) {
    state.PauseTiming();
    CopyDirectory(source, path);
    state.ResumeTiming();
    leveldb::Options options;
    options.paranoid_checks = true;
    Require(leveldb::RepairDB(path, options), "raw repair");
  }
}

}  // namespace

void RegisterRepairBenchmarks() {
  Row repair;
  repair.operation = "Repair_16MiB";
  repair.label = "Repair of a damaged 16 MiB store (contained, verified, salvaged logs)";
  RegisterPair(repair, LibraryRepair, RawRepair, [](benchmark::internal::Benchmark* b) {
    b->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
  });
}

}  // namespace bench
