// The console reporter of the suite, which also keeps the median of every
// benchmark and, at the end, prints the table "operation, library, raw,
// ratio" with the goal of each row, and writes it as text files for the
// report script (summary.tsv, threads.tsv, ratios.md).
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

enum class Metric {
  kTime,    // real time per operation; with threads, wall time per operation of all threads
  kMemory,  // a counter in bytes, named by Row::counter
};

// One line of the table per thread count: "<operation>/library" against
// "<operation>/raw".
struct Row {
  std::string operation;  // the benchmark name without "/library" or "/raw"
  std::string label;      // as the table shows it
  Metric metric = Metric::kTime;
  std::string counter;  // for kMemory
  double goal = 0;      // the ratio must be at most this; 0 reports without a goal
  std::vector<int> threads = {1};
  // With threads {1, 2}: the 2-thread throughput must be at least this many
  // times the 1-thread one, for the library and for raw; 0 reports only.
  double scaling_goal = 0;
  bool has_scaling = false;
};

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(OutputOptions options) : benchmark::ConsoleReporter(options) {}

  void ReportRuns(const std::vector<Run>& runs) override;

  static void AddRow(const Row& row);

  // Prints the table to standard output and, when "directory" is not empty,
  // writes summary.tsv, threads.tsv and ratios.md into it.
  void PrintTable(const std::string& directory) const;

 private:
  struct Median {
    double seconds = 0;  // real time per iteration
    std::map<std::string, double> counters;
    bool error = false;
  };
  // Keyed by benchmark name without its suffixes, and thread count. An
  // aggregate median replaces a single run.
  std::map<std::pair<std::string, int64_t>, Median> medians_;
  std::map<std::pair<std::string, int64_t>, bool> from_aggregate_;
};

}  // namespace bench
