#!/usr/bin/env bash
# The main job: builds verify_tool, makes a demo package signed under the demo
# root that this build trusts (checksum file, detached CMS signature with an
# RFC 3161 timestamp, CRL file, the payload it lists) in examples/demo-package,
# and checks the checksum file and then every file it lists.
set -euo pipefail

cd "$(dirname "$0")/.."

need=(cmake ninja-build g++ libssl-dev libgtest-dev libbenchmark-dev pkg-config openssl)
missing=()
for p in "${need[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

echo "building verify_tool and the test-PKI generator..."
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target verify_tool testpki_cli verify_tool_sandboxed >/dev/null

pkg=examples/demo-package
rm -rf "$pkg"
build/tools/testpki/testpki demo-package "$pkg" >/dev/null
echo "demo package written to $pkg"

check() {
    local checksum=$1
    echo
    echo "\$ build/tool/verify_tool -f CHECK_PKG_INTEGRITY -h $pkg/sha256sums.p7s -e $checksum -c $pkg/crls+ca.pem"
    local status=0
    build/tool/verify_tool -f CHECK_PKG_INTEGRITY -h "$pkg/sha256sums.p7s" -e "$checksum" \
        -c "$pkg/crls+ca.pem" || status=$?
    if ((status == 0)); then
        echo "exit status 0: $checksum is authentic"
    else
        echo "exit status $status: $checksum is NOT authentic"
    fi
    # The tool writes its records to syslog; the sandboxed build of the same
    # code prints them here instead.
    local scratch
    scratch=$(mktemp -d)
    VT_TEST_ROOT="$scratch/root" VT_SYSLOG_FILE="$scratch/syslog" \
        build/tests/tool/verify_tool_sandboxed -f CHECK_PKG_INTEGRITY -h "$pkg/sha256sums.p7s" \
        -e "$checksum" -c "$pkg/crls+ca.pem" >/dev/null 2>&1 || true
    echo "its log records:"
    grep -v '/proc/zeb' "$scratch/syslog" | sed 's/^<[0-9]*>/  /'
    rm -rf "$scratch"
    return "$status"
}

check "$pkg/sha256sums"
# The whole package: the checksum file, then every file it lists.
echo
echo "\$ build/tool/verify_tool -f CHECK_PKG_FILES -h $pkg/sha256sums.p7s -e $pkg/sha256sums -c $pkg/crls+ca.pem"
build/tool/verify_tool -f CHECK_PKG_FILES -h "$pkg/sha256sums.p7s" -e "$pkg/sha256sums" \
    -c "$pkg/crls+ca.pem"
echo "exit status 0: every file $pkg/sha256sums lists is intact"
if [[ ${1:-} == --tampered ]]; then
    check "$pkg/sha256sums.tampered" || true
fi
