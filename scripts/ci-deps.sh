#!/usr/bin/env bash
# Installs what a fresh Debian machine needs to build and test the project natively, under the
# sanitizers and for armhf under qemu. Safe to run again: it asks apt only for packages that are
# not installed yet, and touches the network (one `apt-get update`) only when something is missing.
set -euo pipefail

PACKAGES=(
    cmake
    g++
    make
    googletest               # sources in /usr/src/googletest, built for armhf by the cross build
    libgtest-dev
    libgmock-dev
    libcli11-dev             # header-only, used by the simulator for both targets
    nlohmann-json3-dev       # header-only, likewise
    libfccp-dev              # header-only CSV reader of the simulator's --scenario
    libssl-dev               # libcrypto: independent reference for the MD5 tests (host only)
    g++-arm-linux-gnueabihf  # brings the armhf libc/libstdc++ under /usr/arm-linux-gnueabihf
    qemu-user                # qemu-arm runs the armhf test binaries
    clang                    # builds the libFuzzer targets
    libclang-rt-14-dev       # libFuzzer and the sanitizer runtimes for clang
)

missing=()
for pkg in "${PACKAGES[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
    if [[ "$status" != "install ok installed" ]]; then
        missing+=("$pkg")
    fi
done

if ((${#missing[@]} == 0)); then
    echo "ci-deps: all ${#PACKAGES[@]} packages present"
    exit 0
fi

SUDO=()
if [[ $(id -u) -ne 0 ]]; then
    SUDO=(sudo)
fi

echo "ci-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${SUDO[@]}" apt-get update -q
"${SUDO[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
