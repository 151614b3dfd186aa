#!/usr/bin/env bash
# Builds and runs the whole test suite twice: an optimised build (the one the simulator command
# uses, where the compiler's flow analysis warns most), then the same suite under
# AddressSanitizer + UndefinedBehaviorSanitizer (no recovery: the first finding fails the run).
#   bash scripts/test.sh            both builds
#   bash scripts/test.sh --native   optimised build only
#   bash scripts/test.sh --asan     sanitizer build only
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
mode=${1:-all}

# The plug-in's upgrade file for a build: a temporary directory of its own per build directory,
# so that no test touches the recorder's path and builds side by side do not share a file.
upgrade_file() { echo "${TMPDIR:-/tmp}/obd-upgrade-$(printf %s "$PWD/$1" | md5sum | cut -c1-10)/DOWNLOAD.bin"; }

run_suite() { # build-dir, build type, extra cmake args...
    local dir=$1 type=$2
    shift 2
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DOBD_UPGRADE_FILE_PATH="$(upgrade_file "$dir")" \
        "$@" >/dev/null
    cmake --build "$dir" -j"$jobs"
    (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 120)
}

if [[ $mode == all || $mode == --native ]]; then
    echo "== native suite (build/) =="
    run_suite build Release
fi
if [[ $mode == all || $mode == --asan ]]; then
    echo "== ASan+UBSan suite (build-asan/) =="
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
    run_suite build-asan Debug -DOBD_SANITIZE=ON
fi
