#!/bin/sh
# Builds dravinhold_bench if needed, runs the whole suite with JSON output,
# and renders the chart. Everything lands in bench/results/:
#   benchmarks.json  every run and the aggregates (Google Benchmark JSON)
#   console.txt      the console report, ending with the table of ratios
#   ratios.md, summary.tsv, threads.tsv, bars.tsv   the table for documents and the chart
#   benchmarks.png   library against raw per operation; throughput against threads
#   machine.txt      CPU, cores, memory, kernel, compiler and load
#
# Usage: bench/run_benchmarks.sh [--small] [more Google Benchmark flags]
#   --small            small data sizes: a quick try of the whole suite
#   BUILD_DIR          build directory (default build-bench)
#   REPETITIONS        repetitions of each benchmark (default 5); the table
#                      uses their medians
set -eu
cd "$(dirname "$0")/.."

sizes=full
if [ "${1:-}" = "--small" ]; then
  sizes=small
  shift
fi
build_dir="${BUILD_DIR:-build-bench}"
repetitions="${REPETITIONS:-5}"
results=bench/results
mkdir -p "$results"

if ! command -v gnuplot >/dev/null 2>&1; then
  echo "Installing gnuplot-nox for the chart"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends gnuplot-nox
fi

if [ ! -f "$build_dir/CMakeCache.txt" ]; then
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DDRAVINHOLD_BUILD_BENCHMARKS=ON
fi
cmake --build "$build_dir" --parallel "$(nproc)" --target dravinhold_bench

{
  echo "date: $(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "cpu: $(grep -m1 'model name' /proc/cpuinfo | sed 's/.*: //')"
  echo "cores: $(nproc)"
  echo "memory: $(awk '/MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo)"
  echo "kernel: $(uname -sr)"
  echo "compiler: $(${CXX:-c++} --version | head -n1)"
  echo "sizes: $sizes, repetitions: $repetitions"
  echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
} > "$results/machine.txt"

"$build_dir/bench/dravinhold_bench" --sizes="$sizes" --summary_dir="$results" \
  --benchmark_repetitions="$repetitions" --benchmark_display_aggregates_only=true \
  --benchmark_out="$results/benchmarks.json" --benchmark_out_format=json \
  "$@" | tee "$results/console.txt"

echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)" >> "$results/machine.txt"
gnuplot -e "dir='$results'" bench/plot.gp
echo "Wrote $results/benchmarks.png; the table is in $results/ratios.md"
