#!/usr/bin/env bash
# The whole CI pipeline: installs what is missing, then builds and tests natively and under
# ASan+UBSan (scripts/test.sh), the native suite once more beside a load of busy loops and a disk
# writer (scripts/test-load.sh, on the native build), for armhf under qemu, under ThreadSanitizer,
# and the fuzz targets' short runs (clang), each in its own build directory.
# Every stage runs even after an earlier one failed, so one run shows every broken pipeline;
# the script fails if any stage did. Meant to be what .ci/run calls: `exec bash scripts/ci.sh`.
#
# Environment: JOBS (default 2, never more than 2), STAGES (default "native load asan armhf tsan
# fuzz"; load reuses native's build/ and builds it itself when run alone).
set -uo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
JOBS=${JOBS:-2}
if ((JOBS > 2)); then JOBS=2; fi  # two cores, shared with other work
export JOBS

native() { bash scripts/test.sh --native; }
load() { bash scripts/test-load.sh; }
asan() { bash scripts/test.sh --asan; }
armhf() { bash scripts/test-armhf.sh; }
tsan() { bash scripts/test-tsan.sh; }
fuzz() { bash scripts/test-fuzz.sh; }

bash scripts/deps.sh ci || exit 1

failed=()
report=()
for stage in ${STAGES:-native load asan armhf tsan fuzz}; do
    echo "=== ci: $stage"
    t0=$SECONDS
    if "$stage"; then status=ok; else status=FAILED; failed+=("$stage"); fi
    report+=("$(printf '%-8s %-6s %4d s' "$stage" "$status" $((SECONDS - t0)))")
done

echo "=== ci: summary (total ${SECONDS} s)"
printf '  %s\n' "${report[@]}"
if ((${#failed[@]})); then
    echo "ci: failed stages: ${failed[*]}"
    exit 1
fi
