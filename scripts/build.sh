#!/bin/sh
# Configures and builds into ./build (or $BUILD_DIR), with extra CMake
# arguments passed through.
set -eu
cd "$(dirname "$0")/.."
build_dir="${BUILD_DIR:-build}"
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@"
cmake --build "$build_dir" --parallel "$(nproc)"
