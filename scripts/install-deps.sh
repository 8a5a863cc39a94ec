#!/bin/sh
# Installs the Debian packages a command needs, if any is missing. Run as root.
#
#   scripts/install-deps.sh demo   what the library, the stand-in, the example
#                                  workload and dravinholdctl need to build
#   scripts/install-deps.sh [test] all of that, and what the tests, the
#                                  benchmarks, the fuzz targets and the package
#                                  checks need (the default)
set -eu

# The build: compiler, CMake, and the headers of LevelDB (whose CMake package
# links snappy), protobuf with its compiler, and POCO.
demo_packages="cmake make g++ libleveldb-dev libsnappy-dev libprotobuf-dev
protobuf-compiler libpoco-dev"

# On top: GoogleTest, Google Benchmark, clang with its fuzzer runtime,
# pkg-config for the consumer test, and the Debian tools the package test runs
# (dpkg-shlibdeps from dpkg-dev, file for CPack, lintian).
test_packages="$demo_packages pkg-config libgtest-dev libgmock-dev libbenchmark-dev
clang libclang-rt-14-dev dpkg-dev file lintian"

case "${1:-test}" in
  demo) packages=$demo_packages ;;
  test) packages=$test_packages ;;
  *)
    echo "usage: $0 [demo|test]" >&2
    exit 2
    ;;
esac

missing=""
for package in $packages; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $package"
  fi
done

if [ -n "$missing" ]; then
  echo "Installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  # shellcheck disable=SC2086
  apt-get install -y -q --no-install-recommends $missing
fi
