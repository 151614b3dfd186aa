#!/usr/bin/env bash
# Installs what is missing (scripts/deps.sh native), builds the simulator, the plug-in and the
# other tools the README goes on to use (obd-box, obd-frame) in build/ (optimised, the same
# directory scripts/test.sh builds its native suite in) and runs obd-sim.
#
#   bash scripts/run-sim.sh                  the default run
#   bash scripts/run-sim.sh --log-level 2    any arguments go to obd-sim
#
# Environment: JOBS (default 2).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly BUILD_DIR=build
jobs=${JOBS:-2}
# obd-sim's own default is the run the README shows (the built-in drive on virtual time).
args=("$@")

bash scripts/deps.sh native

start=$SECONDS
echo "build: configuring $BUILD_DIR/ (Release)"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release >/dev/null
echo "build: obd-sim, obd-box, obd-frame, obd-swarm, obd-fleet and the plug-in with $jobs jobs" \
    "(the first build takes about 40 s on 2 cores)"
cmake --build "$BUILD_DIR" -j"$jobs" --target obd-sim obd-box obd-frame obd-swarm obd-fleet
echo "build: done in $((SECONDS - start)) s"

echo "run: $BUILD_DIR/bin/obd-sim ${args[*]}"
exec "$BUILD_DIR/bin/obd-sim" "${args[@]}"
