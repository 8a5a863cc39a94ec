#!/bin/sh
# The main job: installs what is missing, builds, runs an agent's workload on
# the library (data under ./var, or $ZERLA_DATA_ROOT), then shows the stores
# with the operator's tool. Extra arguments go to the workload, e.g.
# "--seconds 60".
set -eu
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
build_dir="${BUILD_DIR:-build}"
export ZERLA_DATA_ROOT="${ZERLA_DATA_ROOT:-$PWD/var}"
"$build_dir/examples/agent_workload" "$@"
echo
"$build_dir/tools/dravinholdctl/dravinholdctl" stores
