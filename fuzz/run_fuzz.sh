#!/bin/sh
# Configures the fuzz build (clang, DRAVINHOLD_FUZZ=ON) in build-fuzz/ (or
# $FUZZ_BUILD_DIR), builds the three targets and runs each over its corpus for
# a bounded number of inputs through ctest. Extra arguments go to cmake.
#
# A long run of one target, from the repository's top:
#   mkdir -p /tmp/found && nice -n 10 build-fuzz/fuzz/fuzz_families \
#     -max_total_time=600 -close_fd_mask=2 /tmp/found fuzz/corpus/fuzz_families
set -eu
cd "$(dirname "$0")/.."
build_dir="${FUZZ_BUILD_DIR:-build-fuzz}"
start=$(date +%s)
echo "=== $build_dir"
CC=clang CXX=clang++ cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DDRAVINHOLD_FUZZ=ON -DDRAVINHOLD_BUILD_TESTS=OFF "$@"
cmake --build "$build_dir" --parallel "$(nproc)" \
  --target fuzz_stored_records fuzz_families fuzz_lru_index
ctest --test-dir "$build_dir" --output-on-failure -L fuzz
echo "=== $build_dir: $(($(date +%s) - start)) s"
