#!/bin/sh
# The main job: installs what the build needs if it is missing, builds the
# library, the stand-in of the common library, the example workload and the
# operator's tool (no tests, no benchmarks) into ./build-demo (or $BUILD_DIR),
# runs an agent's workload on the library (data under ./var, or
# $ZERLA_DATA_ROOT), then shows the stores with the operator's tool. Extra
# arguments go to the workload, e.g. "--seconds 60".
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh demo
build_dir="${BUILD_DIR:-build-demo}"
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Release}" \
  -DDRAVINHOLD_BUILD_TESTS=OFF -DDRAVINHOLD_BUILD_BENCHMARKS=OFF
cmake --build "$build_dir" --parallel "$(nproc)" --target agent_workload dravinholdctl
export ZERLA_DATA_ROOT="${ZERLA_DATA_ROOT:-$PWD/var}"
"$build_dir/examples/agent_workload" "$@"
echo
"$build_dir/tools/dravinholdctl/dravinholdctl" stores
