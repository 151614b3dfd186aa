#!/usr/bin/env bash
# Installs what is missing (scripts/deps.sh test), then builds and runs the whole test suite
# twice: an optimised build (the one the simulator command uses, where the compiler's flow analysis
# warns most), then the same suite under AddressSanitizer + UndefinedBehaviorSanitizer (no
# recovery: the first finding fails the run).
#   bash scripts/test.sh            both builds
#   bash scripts/test.sh --native   optimised build only
#   bash scripts/test.sh --asan     sanitizer build only
#
# Environment: JOBS (default 2).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
mode=${1:-all}
case $mode in
all | --native | --asan) ;;
*)
    echo "test: unknown option '$mode' (--native or --asan; none for both)" >&2
    exit 2
    ;;
esac

bash scripts/deps.sh test

# The plug-in's upgrade file for a build: a temporary directory of its own per build directory,
# so that no test touches the recorder's path and builds side by side do not share a file.
upgrade_file() { echo "${TMPDIR:-/tmp}/obd-upgrade-$(printf %s "$PWD/$1" | md5sum | cut -c1-10)/DOWNLOAD.bin"; }

run_suite() { # name, build dir, build type, first-build time, extra cmake args...
    local name=$1 dir=$2 type=$3 first=$4
    shift 4
    local start=$SECONDS
    echo "build: $name suite in $dir/ ($type) with $jobs jobs" \
        "(the first build takes about $first on 2 cores)"
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DOBD_UPGRADE_FILE_PATH="$(upgrade_file "$dir")" \
        "$@" >/dev/null
    cmake --build "$dir" -j"$jobs"
    local built=$SECONDS
    echo "test: $name suite ($dir/)"
    (cd "$dir" && ctest --output-on-failure -j"$jobs" --no-tests=error --timeout 120)
    echo "test: $name suite passed: build $((built - start)) s, tests $((SECONDS - built)) s"
}

if [[ $mode == all || $mode == --native ]]; then
    run_suite native build Release "2 min"
fi
if [[ $mode == all || $mode == --asan ]]; then
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
    run_suite ASan+UBSan build-asan Debug "2 min" -DOBD_SANITIZE=ON
fi
