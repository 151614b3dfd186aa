#!/usr/bin/env bash
# Installs the Debian packages a pipeline needs, asking apt only for those not installed yet: with
# everything present it reads the package database and touches neither apt nor the network.
#
#   bash scripts/deps.sh [native]   compiler, CMake, GoogleTest, CLI11, nlohmann-json, libssl,
#                                   libpcap, GNU parallel: the simulator, the native, ASan and
#                                   TSan suites
#   bash scripts/deps.sh test       native + chromium and libpng: the report page's browser test;
#                                   tshark: the Wireshark dissector's test
#   bash scripts/deps.sh armhf      native + the armhf cross compiler and qemu-user
#   bash scripts/deps.sh fuzz       native + clang and its libFuzzer runtime
#   bash scripts/deps.sh ci         all of the above
#
# As root it runs apt-get itself, otherwise through sudo; it prints one line per step and keeps
# apt's own output in a log it shows only when apt fails.
set -euo pipefail

NATIVE=(
    cmake
    g++
    make
    googletest         # sources in /usr/src/googletest: the TSan and cross builds compile them
    libgtest-dev
    libgmock-dev
    libcli11-dev       # header-only, the simulator's command line
    nlohmann-json3-dev # header-only, the simulator's --json output
    libfccp-dev        # header-only CSV reader, the simulator's --scenario files
    libssl-dev         # libcrypto: an independent reference for the MD5 tests (host only)
    libjs-chart.js     # Chart.js, inlined into obd-sim's report page at build time
    libpcap-dev        # libpcap: obd-sim --capture and obd-frame's pcap captures (host only)
    parallel           # GNU parallel: scripts/swarm.sh and fleet.sh run seeds and trips on every core
)
BROWSER=(
    chromium   # renders the report page headless in its end-to-end test
    libpng-dev # reads the screenshot back
)
# Its install asks whether non-root users may capture: DEBIAN_FRONTEND=noninteractive (below)
# takes the default, no.
TSHARK=(
    tshark # runs tools/wireshark/obd.lua over obd-sim's captures in tests/capture
)
ARMHF=(
    g++-arm-linux-gnueabihf # brings the armhf libc/libstdc++ under /usr/arm-linux-gnueabihf
    qemu-user               # qemu-arm runs the armhf test binaries
)
FUZZ=(
    clang
    libclang-rt-14-dev # libFuzzer and the sanitizer runtimes for clang
)

profile=${1:-native}
case $profile in
native) packages=("${NATIVE[@]}") ;;
test) packages=("${NATIVE[@]}" "${BROWSER[@]}" "${TSHARK[@]}") ;;
armhf) packages=("${NATIVE[@]}" "${ARMHF[@]}") ;;
fuzz) packages=("${NATIVE[@]}" "${FUZZ[@]}") ;;
ci) packages=("${NATIVE[@]}" "${BROWSER[@]}" "${TSHARK[@]}" "${ARMHF[@]}" "${FUZZ[@]}") ;;
*)
    echo "deps: unknown profile '$profile' (native, test, armhf, fuzz or ci)" >&2
    exit 2
    ;;
esac

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "deps: no dpkg/apt here; install by hand: ${packages[*]}" >&2
    exit 1
fi

missing=()
for pkg in "${packages[@]}"; do
    if [[ $(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null) != "install ok installed" ]]; then
        missing+=("$pkg")
    fi
done
if ((${#missing[@]} == 0)); then
    echo "deps: all ${#packages[@]} packages of '$profile' installed"
    exit 0
fi
start=$SECONDS
echo "deps: missing ${#missing[@]} of ${#packages[@]} packages of '$profile': ${missing[*]}"

as_root=()
if [[ $(id -u) -ne 0 ]]; then
    if ! command -v sudo >/dev/null; then
        echo "deps: not root and no sudo here; as root run" >&2
        echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    echo "deps: apt-get needs root: asking sudo"
    if ! sudo -v; then
        echo "deps: sudo refused; as root run" >&2
        echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    # sudo drops the caller's environment; the variable goes through env instead.
    as_root=(sudo)
fi
apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q)

log=$(mktemp "${TMPDIR:-/tmp}/deps.XXXXXX.log")
run() { # step description, command...
    local what=$1
    shift
    echo "deps: $what"
    if ! "$@" >>"$log" 2>&1; then
        tail -n 30 "$log" >&2
        echo "deps: failed: $what (full apt output in $log)" >&2
        exit 1
    fi
}

run "apt-get update" "${apt[@]}" update
run "apt-get install ${#missing[@]} packages and what they depend on" \
    "${apt[@]}" install -y --no-install-recommends "${missing[@]}"
rm -f "$log"
echo "deps: installed ${#missing[@]} packages in $((SECONDS - start)) s"
