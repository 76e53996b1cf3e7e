#!/usr/bin/env bash
# Cross-builds everything for 64-bit ARM Linux (the device's architecture) and
# runs the whole CTest suite, end-to-end tool tests included, under qemu
# user-mode emulation. Installs the cross compiler, qemu and the arm64
# libraries on a Debian 12 host when they are missing.
#
#   scripts/test-aarch64.sh [BUILD_DIR]     (default: build-aarch64)
#
# Slow: every test process starts under emulation. Not part of scripts/test.sh.
set -euo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)
dir=${1:-build-aarch64}
jobs=${JOBS:-2}

log() { printf '\n=== %s\n' "$*"; }

missing_packages() {
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
    done
}

host=(cmake ninja-build g++-aarch64-linux-gnu qemu-user pkg-config)
# libc6 and libstdc++6 of arm64 are what the test programs run against.
target=(libc6:arm64 libstdc++6:arm64 libssl-dev:arm64 libgtest-dev:arm64 libbenchmark-dev:arm64)
mapfile -t missing < <(missing_packages "${host[@]}" "${target[@]}")
if ((${#missing[@]})); then
    log "installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        dpkg --add-architecture arm64
    fi
    apt-get update -q
    # The arm64 and host copies of a multiarch library must be the same
    # version, so the host's libssl-dev may be brought up to date with it.
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

log "configure $dir"
start=$SECONDS
rm -rf "$dir"
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-aarch64.cmake"
log "build $dir"
cmake --build "$dir" -j "$jobs"
# The device build's default (VT_STATIC): a program that needs no shared library.
if readelf -d "$dir/tool/verify_tool" | grep -q NEEDED; then
    echo "verify_tool of the device build needs shared libraries" >&2
    exit 1
fi
log "test $dir (under qemu-aarch64)"
ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 900
log "aarch64 build and tests passed in $((SECONDS - start)) s"
