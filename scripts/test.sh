#!/bin/sh
# Installs what is missing, builds, and runs every test under ctest.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
build_dir="${BUILD_DIR:-build}"
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)"
