#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (receiver, bus handlers and obd-frame's decoder, under
# ASan+UBSan) and gives each a short deterministic run. Longer runs by hand: see
# tests/fuzz/CMakeLists.txt.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
readonly BUILD_DIR=build-fuzz
JOBS=${JOBS:-2}
if ((JOBS > 2)); then JOBS=2; fi
bash scripts/deps.sh fuzz
start=$SECONDS
CC=clang CXX=clang++ cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Debug -DOBD_FUZZ=ON \
    -DOBD_BUILD_TOOLS=OFF >/dev/null
cmake --build "$BUILD_DIR" -j"$JOBS" --target obd_receive_fuzz obd_bus_fuzz obd_frame_fuzz
built=$((SECONDS - start))
(cd "$BUILD_DIR" && ctest --output-on-failure --no-tests=error -R '^Fuzz')
echo "test-fuzz: build ${built} s, runs $((SECONDS - start - built)) s"
