#!/usr/bin/env bash
# Builds everything with ThreadSanitizer (GoogleTest too, so the framework's own locking is seen)
# and runs the tests where threads meet: the end-to-end tests (plug-in, host layer and emulator
# together), the host layer's, and the plug-in's own (send thread, two receiver feeders, the
# analyser fed from two threads). A test's component is its folder under tests/,
# which ctest sees as a label: tests/e2e/ -> e2e, tests/host/ -> host, tests/sim/ -> sim.
#
#   bash scripts/test-tsan.sh             # the threaded components' tests (the whole suite if none)
#   bash scripts/test-tsan.sh --all       # the whole suite
#
# Environment: TSAN_LABELS (ctest label regex, default
# '^(e2e|host|sim|swarm|fleet|link|core|analyser|capture)': every component that starts threads;
# fleet for the what-if analysers inside obd-sim, capture for obd-sim's threads all feeding one
# capture), BUILD_TYPE (default Debug), JOBS (default 2, never more than 2). Any race report fails
# the test that printed it.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly BUILD_DIR=build-tsan
JOBS=${JOBS:-2}
if ((JOBS > 2)); then JOBS=2; fi  # two cores, shared with other work
labels=${TSAN_LABELS:-'^(e2e|host|sim|swarm|fleet|link|core|analyser|capture)'}
if [[ ${1:-} == --all ]]; then
    labels=
    shift
fi
bash scripts/deps.sh test
start=$SECONDS

# TSan maps its shadow memory at fixed addresses; with the large mmap randomisation of newer
# kernels a randomised library can land there ("unexpected memory mapping"). Running without
# address randomisation avoids it; the build needs it too, as gtest discovery runs the binaries.
norandom=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
    norandom=(setarch "$(uname -m)" -R)
fi

# The plug-in's upgrade file for a build: a temporary directory of its own per build directory,
# so that no test touches the recorder's path and builds side by side do not share a file.
upgrade_file() { echo "${TMPDIR:-/tmp}/obd-upgrade-$(printf %s "$PWD/$1" | md5sum | cut -c1-10)/DOWNLOAD.bin"; }
cmake -S . -B "$BUILD_DIR" \
    -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Debug}" \
    -DOBD_UPGRADE_FILE_PATH="$(upgrade_file "$BUILD_DIR")" \
    -DOBD_TSAN=ON -DOBD_SANITIZE=OFF -DOBD_GTEST_FROM_SOURCE=ON \
    -DOBD_BUILD_TESTS=ON -DOBD_BUILD_TOOLS=ON
"${norandom[@]}" cmake --build "$BUILD_DIR" -j"$JOBS"
built=$SECONDS

export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
select=()
if [[ -n $labels ]]; then
    count=$(cd "$BUILD_DIR" && ctest -N -L "$labels" | sed -n 's/^Total Tests: //p')
    if [[ ${count:-0} -gt 0 ]]; then
        select=(-L "$labels")
    else
        echo "test-tsan: no test labelled '$labels' yet; running the whole suite"
    fi
fi
(cd "$BUILD_DIR" &&
    "${norandom[@]}" ctest --output-on-failure -j"$JOBS" --no-tests=error --timeout 300 \
        "${select[@]}" "$@")

echo "test-tsan: build $((built - start)) s, tests $((SECONDS - built)) s"
