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
cmake --build "$build_dir" --parallel "$(nproc)" --target agent_workload
# The operator's tool builds while the workload runs, which it is not needed
# for; its build output goes to a log, shown if the build fails.
tool_log="$build_dir/dravinholdctl-build.log"
cmake --build "$build_dir" --parallel "$(nproc)" --target dravinholdctl > "$tool_log" 2>&1 &
tool_build=$!
export ZERLA_DATA_ROOT="${ZERLA_DATA_ROOT:-$PWD/var}"
status=0
"$build_dir/examples/agent_workload" "$@" || status=$?
if ! wait "$tool_build"; then
  cat "$tool_log" >&2
  exit 1
fi
[ "$status" -eq 0 ] || exit "$status"
echo
"$build_dir/tools/dravinholdctl/dravinholdctl" stores
