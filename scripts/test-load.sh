#!/usr/bin/env bash
# Runs the native suite (build/, the optimised build of scripts/test.sh) while other work competes
# for the machine: busy loops on every core and more, and a disk writer that syncs its file, the
# way a developer's machine looks while something else builds. A test that needs another thread
# to run within a real-time window fails here; one that waits for its event on host time does not.
#
#   bash scripts/test-load.sh              one run of the whole suite under load
#   RUNS=5 bash scripts/test-load.sh       five runs in a row (stops at the first failure)
#   bash scripts/test-load.sh -R Link      extra arguments go to ctest
#
# Environment: JOBS (default 2, never more than 2), RUNS (default 1), LOAD_CPU (busy loops,
# default 3), LOAD_DISK_MB (size of the file the writer rewrites and syncs, default 256; 0: no
# writer). The build is reused as it is; only a missing one is configured and built. The load is
# stopped and its file removed however the script ends.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly BUILD_DIR=build
JOBS=${JOBS:-2}
if ((JOBS > 2)); then JOBS=2; fi # two cores, shared with other work
runs=${RUNS:-1}
cpu=${LOAD_CPU:-3}
disk_mb=${LOAD_DISK_MB:-256}

bash scripts/deps.sh test

if [[ ! -f $BUILD_DIR/CMakeCache.txt ]]; then
    # As scripts/test.sh configures it: the upgrade file in a temporary directory of its own.
    upgrade="${TMPDIR:-/tmp}/obd-upgrade-$(printf %s "$PWD/$BUILD_DIR" | md5sum | cut -c1-10)"
    cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release \
        -DOBD_UPGRADE_FILE_PATH="$upgrade/DOWNLOAD.bin" >/dev/null
fi
cmake --build "$BUILD_DIR" -j"$JOBS" # nothing to do after scripts/test.sh --native

load_dir=$(mktemp -d "${TMPDIR:-/tmp}/obd-load.XXXXXX")
load_pids=()
suite_pid=
stop_load() {
    if [[ -n $suite_pid ]]; then kill "$suite_pid" 2>/dev/null || true; fi
    if ((${#load_pids[@]})); then
        kill "${load_pids[@]}" 2>/dev/null || true
        wait "${load_pids[@]}" 2>/dev/null || true
        load_pids=()
    fi
    rm -rf "$load_dir"
}
trap stop_load EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

for ((i = 0; i < cpu; ++i)); do
    (while :; do :; done) &
    load_pids+=($!)
done
if ((disk_mb > 0)); then
    # The writer ends its dd before itself, so that no write outlives the script.
    (
        trap 'kill $dd 2>/dev/null; exit 0' TERM
        while :; do
            dd if=/dev/zero of="$load_dir/busy.bin" bs=1M count="$disk_mb" conv=fsync \
                2>/dev/null &
            dd=$!
            wait $dd || true
        done
    ) &
    load_pids+=($!)
fi
echo "test-load: $cpu busy loops and a ${disk_mb} MB disk writer beside the suite ($BUILD_DIR/)"

status=0
for ((run = 1; run <= runs; ++run)); do
    t0=$SECONDS
    # In the background, so that a signal to this script is handled at once, not after the suite.
    # The swarm's seed ranges run on virtual time: load changes only how long they take (a block
    # of ten one-hour seeds, 4 s on the idle machine, took 35 s here), and the native stage runs
    # them as they are.
    (cd "$BUILD_DIR" && exec ctest --output-on-failure -j"$JOBS" --no-tests=error --timeout 120 \
        -E '^swarm_seeds[.]' "$@") &
    suite_pid=$!
    if wait "$suite_pid"; then
        echo "test-load: run $run of $runs passed in $((SECONDS - t0)) s (load average $(cut -d' ' -f1-3 /proc/loadavg))"
    else
        echo "test-load: run $run of $runs FAILED after $((SECONDS - t0)) s"
        status=1
        break
    fi
    suite_pid=
done
exit $status
