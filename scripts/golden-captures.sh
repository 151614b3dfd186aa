#!/usr/bin/env bash
# Remakes the golden captures in tests/data/captures/ with the obd-sim of a build directory.
# CI replays them (ctest -L capture), so any change of what the plug-in does on the line or the
# bus fails there with the first difference named. When such a change is deliberate, run this
# and commit the new captures with the change.
#
#   scripts/golden-captures.sh [BUILD_DIR]     (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
sim="$build/bin/obd-sim"
data=tests/data/captures
[ -x "$sim" ] || { echo "golden-captures: no $sim: build obd-sim first" >&2; exit 2; }

# The upgrade run reads the firmware at the build's upgrade path (-DOBD_UPGRADE_FILE_PATH).
upgrade=$(sed -n 's/^OBD_UPGRADE_FILE_PATH:[A-Z]*=//p' "$build/CMakeCache.txt")
case "$upgrade" in
  /var/run/*|"") echo "golden-captures: $build keeps the recorder's upgrade path; configure it" \
                      "with -DOBD_UPGRADE_FILE_PATH=/tmp/..." >&2; exit 2 ;;
esac

# 1. The built-in drive's first 90 s, on virtual time.
"$sim" --duration 90 --capture "$data/builtin-drive.pcap" > /dev/null

# 2. A poor line: garbage before every frame, frames in pieces of 1-4 bytes, escapes; the raw
#    reads are kept so that a replay reads the pieces as they came.
"$sim" --scenario "$data/escaping.csv" --gaps hold --duration 40 --box-garbage 3 \
  --box-split 4 --box-escape --box-seed 7 --capture-chunks \
  --capture "$data/line-faults.pcap" > /dev/null

# 3. CAN-box mode: the box's bytes in 6898 messages, the plug-in's frames in 6899, the summary.
"$sim" --product-type 72 --duration 30 --capture "$data/can-box.pcap" > /dev/null

# 4. An upgrade whose file-data step (0x2404) the box refuses.
mkdir -p "$(dirname "$upgrade")"
cp "$data/firmware.bin" "$upgrade"
# The trigger comes from a file: lines from stdin would come in real time.
"$sim" --inject "$data/upgrade.inject" --duration 20 \
  --box-refuse-step 9220 --capture "$data/upgrade-refused.pcap" > /dev/null || true
rm -f "$upgrade"

ls -l "$data"/*.pcap
