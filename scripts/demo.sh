#!/bin/sh
# The main job: installs what is missing, builds, and runs the demonstration.
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
build_dir="${BUILD_DIR:-build}"
"$build_dir/examples/db_tour" "${1:-var/db_tour}"
