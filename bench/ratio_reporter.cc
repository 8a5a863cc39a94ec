#include "bench/ratio_reporter.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

namespace bench {
namespace {

std::vector<Row>& Rows() {
  static std::vector<Row> rows;
  return rows;
}

// "<operation>/library" and "<operation>/raw": the name as registered,
// without the suffixes the framework adds (threads, real_time, ...).
std::string BaseName(const benchmark::BenchmarkReporter::Run& run) {
  return run.run_name.function_name;
}

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

// A time in the unit that suits "reference" (the raw figure), so that both
// figures of a row are in one unit.
struct Unit {
  const char* name;
  double per_second;
};
Unit TimeUnitFor(double reference_seconds) {
  if (reference_seconds < 1e-6) return {"ns", 1e9};
  if (reference_seconds < 1e-3) return {"us", 1e6};
  if (reference_seconds < 1) return {"ms", 1e3};
  return {"s", 1};
}

std::string Figure(double value) {
  if (value >= 100) return Format("%.0f", value);
  if (value >= 10) return Format("%.1f", value);
  return Format("%.2f", value);
}

struct Line {
  std::string label;
  std::string kind;  // time, memory, scaling
  std::string library;
  std::string raw;
  std::string unit;
  double ratio = NAN;
  std::string goal;
  std::string met;
  // For the chart: a short text with both figures.
  std::string both;
};

std::string ThreadSuffix(const Row& row, int threads) {
  if (row.threads.size() == 1 && threads == 1) return "";
  return threads == 1 ? " (1 thread)" : " (" + std::to_string(threads) + " threads)";
}

}  // namespace

void RatioReporter::AddRow(const Row& row) { Rows().push_back(row); }

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    const bool aggregate = run.run_type == Run::RT_Aggregate;
    if (aggregate && run.aggregate_name != "median") continue;
    const auto key = std::make_pair(BaseName(run), run.threads);
    // A median, once seen, is what counts; a single run counts until then.
    if (!aggregate && from_aggregate_[key]) continue;
    Median median;
    median.error = run.error_occurred;
    median.seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
    for (const auto& counter : run.counters) median.counters[counter.first] = counter.second.value;
    medians_[key] = median;
    from_aggregate_[key] = aggregate;
  }
  benchmark::ConsoleReporter::ReportRuns(runs);
}

void RatioReporter::PrintTable(const std::string& directory) const {
  std::vector<Line> lines;
  std::ostringstream threads_tsv;
  threads_tsv << "# operation, threads, library ops/s, raw ops/s; one block per operation\n";
  int thread_blocks = 0;

  for (const Row& row : Rows()) {
    std::map<int, std::pair<double, double>> seconds_by_threads;
    for (int threads : row.threads) {
      const auto library = medians_.find({row.operation + "/library", threads});
      const auto raw = medians_.find({row.operation + "/raw", threads});
      if (library == medians_.end() || raw == medians_.end()) continue;
      if (library->second.error || raw->second.error) continue;
      Line line;
      line.label = row.label + ThreadSuffix(row, threads);
      double library_value = 0;
      double raw_value = 0;
      if (row.metric == Metric::kTime) {
        line.kind = "time";
        library_value = library->second.seconds;
        raw_value = raw->second.seconds;
        const Unit unit = TimeUnitFor(raw_value);
        line.unit = unit.name;
        line.library = Figure(library_value * unit.per_second);
        line.raw = Figure(raw_value * unit.per_second);
        seconds_by_threads[threads] = {library_value, raw_value};
      } else {
        line.kind = "memory";
        const auto library_counter = library->second.counters.find(row.counter);
        const auto raw_counter = raw->second.counters.find(row.counter);
        if (library_counter == library->second.counters.end() ||
            raw_counter == raw->second.counters.end()) {
          continue;
        }
        library_value = library_counter->second;
        raw_value = raw_counter->second;
        line.unit = "MiB";
        line.library = Figure(library_value / (1 << 20));
        line.raw = Figure(raw_value / (1 << 20));
      }
      line.ratio = raw_value > 0 ? library_value / raw_value : NAN;
      if (row.goal > 0) {
        line.goal = "<= " + Format("%.2f", row.goal);
        line.met = line.ratio <= row.goal ? "yes" : "no";
      } else {
        line.goal = "report";
        line.met = "-";
      }
      line.both = line.library + " / " + line.raw + " " + line.unit;
      lines.push_back(line);
    }
    if (row.has_scaling && seconds_by_threads.count(1) && seconds_by_threads.count(2)) {
      const auto& one = seconds_by_threads[1];
      const auto& two = seconds_by_threads[2];
      Line line;
      line.kind = "scaling";
      line.label = row.label + ": 2-thread / 1-thread throughput";
      const double library_scaling = one.first / two.first;
      const double raw_scaling = one.second / two.second;
      line.library = Format("%.2f", library_scaling);
      line.raw = Format("%.2f", raw_scaling);
      line.unit = "x";
      line.ratio = library_scaling / raw_scaling;
      if (row.scaling_goal > 0) {
        line.goal = ">= " + Format("%.2f", row.scaling_goal) + " each";
        line.met =
            library_scaling >= row.scaling_goal && raw_scaling >= row.scaling_goal ? "yes" : "no";
      } else {
        line.goal = "report";
        line.met = "-";
      }
      line.both = line.library + "x / " + line.raw + "x";
      lines.push_back(line);
    }
    if (seconds_by_threads.size() > 1) {
      threads_tsv << "\"" << row.label << "\"\tthreads\tlibrary\traw\n";
      for (const auto& entry : seconds_by_threads) {
        threads_tsv << "\"" << row.label << "\"\t" << entry.first << "\t"
                    << Format("%.1f", 1 / entry.second.first) << "\t"
                    << Format("%.1f", 1 / entry.second.second) << "\n";
      }
      threads_tsv << "\n\n";
      ++thread_blocks;
    }
  }

  // The console table.
  size_t width = 9;
  for (const Line& line : lines) width = std::max(width, line.label.size());
  std::ostream& out = std::cout;
  out << "\nRatios of the medians (ratio = library / raw; for throughput scaling, "
         "library scaling / raw scaling)\n";
  char header[512];
  std::snprintf(header, sizeof header, "%-*s %12s %12s %5s %7s  %-14s %s", static_cast<int>(width),
                "operation", "library", "raw", "unit", "ratio", "goal", "met");
  out << header << "\n" << std::string(std::string(header).size(), '-') << "\n";
  for (const Line& line : lines) {
    char text[512];
    std::snprintf(text, sizeof text, "%-*s %12s %12s %5s %7.3f  %-14s %s", static_cast<int>(width),
                  line.label.c_str(), line.library.c_str(), line.raw.c_str(), line.unit.c_str(),
                  line.ratio, line.goal.c_str(), line.met.c_str());
    out << text << "\n";
  }
  out.flush();

  if (directory.empty()) return;
  std::ofstream summary(directory + "/summary.tsv");
  summary << "operation\tkind\tlibrary\traw\tunit\tratio\tgoal\tmet\tboth\n";
  for (const Line& line : lines) {
    summary << "\"" << line.label << "\"\t" << line.kind << "\t" << line.library << "\t" << line.raw
            << "\t" << line.unit << "\t" << Format("%.3f", line.ratio) << "\t\"" << line.goal
            << "\"\t" << line.met << "\t\"" << line.both << "\"\n";
  }
  std::ofstream threads(directory + "/threads.tsv");
  threads << threads_tsv.str();
  std::ofstream markdown(directory + "/ratios.md");
  markdown << "| operation | library | raw | ratio | goal | met |\n"
           << "|---|---:|---:|---:|---|---|\n";
  for (const Line& line : lines) {
    const std::string unit = line.unit == "x" ? "x" : " " + line.unit;
    std::string goal = line.goal;
    if (goal.rfind("<= ", 0) == 0) goal = "≤ " + goal.substr(3);
    if (goal.rfind(">= ", 0) == 0) goal = "≥ " + goal.substr(3);
    markdown << "| " << line.label << " | " << line.library << unit << " | " << line.raw << unit
             << " | " << Format("%.2f", line.ratio) << " | " << goal << " | " << line.met << " |\n";
  }
  std::ofstream blocks(directory + "/threads.count");
  blocks << thread_blocks << "\n";
  // The bars of the chart: each time and memory line, the library's figure
  // against raw = 1.
  std::ofstream bars(directory + "/bars.tsv");
  bars << "# index, operation, ratio, goal, both figures\n";
  int index = 0;
  for (const Line& line : lines) {
    if (line.kind == "scaling") continue;
    const std::string goal = line.goal.rfind("<= ", 0) == 0 ? line.goal.substr(3) : "0";
    bars << index++ << "\t\"" << line.label << "\"\t" << Format("%.3f", line.ratio) << "\t" << goal
         << "\t\"" << line.both << "\"\n";
  }
  std::ofstream bar_count(directory + "/bars.count");
  bar_count << index << "\n";
}

}  // namespace bench
