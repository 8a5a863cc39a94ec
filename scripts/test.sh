#!/bin/sh
# Installs what is missing, then builds and runs every test three times, each
# build in a directory of its own: a normal build (build/), AddressSanitizer
# with UndefinedBehaviorSanitizer (build-asan/) and ThreadSanitizer
# (build-tsan/); then runs each fuzz target for a bounded number of inputs.
# Any failure or sanitizer report fails the run.
#
# DRAVINHOLD_TEST_BUILDS chooses the runs, e.g. "normal" for a quick check;
# the default is "normal address thread fuzz".
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh test

jobs=$(nproc)
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp"

run_suite() {
  build_dir=$1
  shift
  echo "=== $build_dir"
  start=$(date +%s)
  BUILD_DIR=$build_dir scripts/build.sh "$@"
  ctest --test-dir "$build_dir" --output-on-failure --parallel "$jobs"
  echo "=== $build_dir: $(($(date +%s) - start)) s"
}

for run in ${DRAVINHOLD_TEST_BUILDS:-normal address thread fuzz}; do
  case $run in
    normal) run_suite build -DDRAVINHOLD_BUILD_TESTS=ON -DDRAVINHOLD_BUILD_BENCHMARKS=ON ;;
    address)
      run_suite build-asan -DDRAVINHOLD_SANITIZE=address -DDRAVINHOLD_BUILD_TESTS=ON \
        -DDRAVINHOLD_BUILD_BENCHMARKS=OFF
      ;;
    thread)
      run_suite build-tsan -DDRAVINHOLD_SANITIZE=thread -DDRAVINHOLD_BUILD_TESTS=ON \
        -DDRAVINHOLD_BUILD_BENCHMARKS=OFF
      ;;
    fuzz) fuzz/run_fuzz.sh ;;
    *) echo "unknown run: $run" >&2; exit 2 ;;
  esac
done
