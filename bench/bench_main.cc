// dravinhold_bench: the library's operations against raw LevelDB and raw
// protobuf, in one process, on the same data.
//
//   dravinhold_bench [--sizes=full|small] [--summary_dir=DIR] [benchmark flags]
//
// --sizes (or $DRAVINHOLD_BENCH_SIZES) chooses the data sizes: "full" (the
// default) is the measurement, "small" a quick try of the whole suite.
// --summary_dir receives summary.tsv, threads.tsv and ratios.md, the table
// printed at the end. All other flags are Google Benchmark's, e.g.
// --benchmark_repetitions=5 --benchmark_out=results.json.
//
// The stores' singletons live under $ZERLA_DATA_ROOT, which is set to a
// fresh temporary directory (under $TMPDIR or /tmp) removed at exit.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "bench/bench_common.h"
#include "bench/ratio_reporter.h"

namespace {

bench::Sizes SmallSizes() {
  bench::Sizes sizes;
  sizes.small = true;
  sizes.check_records = 10000;
  sizes.put_records = {1000, 10000};
  sizes.first_use_records = 10000;
  sizes.prune_max_mb = 1;
  sizes.rebuild_records = 1000;
  sizes.hot_keys = 512;
  sizes.policy_records = 128;
  sizes.new_entry_puts = 1000;
  return sizes;
}

// Takes "--name=value" out of argv; returns whether it was there.
bool TakeFlag(int* argc, char** argv, const char* name, std::string* value) {
  const std::string prefix = std::string("--") + name + "=";
  bool found = false;
  int out = 1;
  for (int in = 1; in < *argc; ++in) {
    if (std::strncmp(argv[in], prefix.c_str(), prefix.size()) == 0) {
      *value = argv[in] + prefix.size();
      found = true;
    } else {
      argv[out++] = argv[in];
    }
  }
  *argc = out;
  return found;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--memory-probe") == 0) {
    const int result = bench::RunMemoryProbe(argc, argv);
    bench::RemoveDirectories();
    return result;
  }

  std::string size_name;
  if (const char* text = std::getenv("DRAVINHOLD_BENCH_SIZES")) size_name = text;
  TakeFlag(&argc, argv, "sizes", &size_name);
  std::string summary_dir;
  TakeFlag(&argc, argv, "summary_dir", &summary_dir);
  if (size_name == "small") {
    bench::SetSizes(SmallSizes());
  } else if (!size_name.empty() && size_name != "full") {
    std::cerr << "--sizes must be full or small\n";
    return 2;
  }

  // Registered before any store exists, so that it runs after the stores
  // have closed their databases.
  bench::InitDirectories();
  std::atexit(bench::RemoveDirectories);
  setenv("ZERLA_DATA_ROOT", bench::DataRoot().c_str(), 1);
  std::cerr << "sizes: " << (bench::sizes().small ? "small" : "full")
            << "; data root: " << bench::DataRoot() << std::endl;

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

  bench::RegisterFVhashBenchmarks();
  bench::RegisterPolicyBenchmarks();
  bench::RegisterEnrichmentBenchmarks();
  bench::RegisterFirstUseBenchmarks();
  bench::RegisterRepairBenchmarks();

  bench::RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                      : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintTable(summary_dir);
  benchmark::Shutdown();
  return 0;
}
