#!/usr/bin/env bash
# Builds the plug-in, the host layer, the tools and the tests for the recorder's CPU (32-bit ARM,
# hard-float) and runs the whole suite under qemu-arm. This is where 32-bit layout and unsigned
# `char` meet the code: the record layout checks are compiled for the target, and the tests run
# with its ABI.
#
#   bash scripts/test-armhf.sh            # configure, build, test in build-armhf/
#   bash scripts/test-armhf.sh -R Md5     # extra arguments go to ctest
#
# Environment: BUILD_TYPE (default Debug), JOBS (default 2, never more than 2).
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly BUILD_DIR=build-armhf
readonly SYSROOT=/usr/arm-linux-gnueabihf
JOBS=${JOBS:-2}
if ((JOBS > 2)); then JOBS=2; fi  # two cores, shared with other work
start=$SECONDS

bash scripts/deps.sh armhf

# The plug-in's upgrade file for a build: a temporary directory of its own per build directory,
# so that no test touches the recorder's path and builds side by side do not share a file.
upgrade_file() { echo "${TMPDIR:-/tmp}/obd-upgrade-$(printf %s "$PWD/$1" | md5sum | cut -c1-10)/DOWNLOAD.bin"; }
cmake -S . -B "$BUILD_DIR" \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
    -DOBD_UPGRADE_FILE_PATH="$(upgrade_file "$BUILD_DIR")" \
    -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Debug}" \
    -DOBD_BUILD_TESTS=ON -DOBD_BUILD_TOOLS=ON
cmake --build "$BUILD_DIR" -j"$JOBS"
built=$SECONDS

# Anything qemu starts looks up its loader and libraries here, also a binary a test launches itself.
export QEMU_LD_PREFIX=$SYSROOT
# No suite that runs nothing passes; a test hung under the emulator fails after two minutes.
(cd "$BUILD_DIR" && ctest --output-on-failure -j"$JOBS" --no-tests=error --timeout 120 "$@")

echo "test-armhf: build $((built - start)) s, tests $((SECONDS - built)) s"
