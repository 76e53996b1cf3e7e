#!/usr/bin/env bash
# End-to-end figures of the package check, measured on the product binary:
#   1. throughput of verify_tool on a 1 GiB checksum file against
#      `openssl dgst -sha256` on the same file (best of 3 wall times each);
#   2. peak resident memory of verify_tool (GNU time %M) for a 1 KiB and a
#      1 GiB checksum file;
#   3. wall time of the demo package check against the OpenSSL command-line
#      pair doing the equivalent checks (median of 10 runs each).
# Usage: bench/e2e.sh [build dir]   (default: build)
# Prints only; never fails on speed. Everything it makes lives in one temp
# directory under /tmp, removed on exit, and in the build directory.
set -euo pipefail
export LC_ALL=C

self=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
cd "$(dirname "$self")/.."
build=${1:-build}
tool=$build/tool/verify_tool
testpki=$build/tools/testpki/testpki

die() {
    echo "e2e: $*" >&2
    exit 1
}

# ---- stage 1: what the measurements need --------------------------------------

if [[ ${VT_E2E_STAGE:-} != measure ]]; then
    need=()
    [[ -x /usr/bin/time ]] || need+=(time)
    command -v openssl >/dev/null || need+=(openssl)
    if ((${#need[@]})); then
        echo "installing ${need[*]}..."
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -q >/dev/null
        apt-get install -y -q --no-install-recommends "${need[@]}" >/dev/null
    fi

    if [[ ! -f $build/build.ninja ]]; then
        cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    fi
    echo "building verify_tool and the test-PKI generator in $build..."
    cmake --build "$build" --target verify_tool testpki_cli >/dev/null

    # Run as root with group 0, the tool owns the logging library's shared
    # record and creates /dev/shm/dbglog.cfg, as it does on the device. Give
    # it a /dev/shm of its own, or else a group that only reads the record.
    export VT_E2E_STAGE=measure
    if [[ $(id -g) != 0 ]]; then
        exec "$self" "$build"
    fi
    if unshare --mount --propagation private true 2>/dev/null; then
        # shellcheck disable=SC2016 # expanded by the inner shell
        exec unshare --mount --propagation private \
            sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$0" "$1"' "$self" "$build"
    fi
    if setpriv --regid=65534 --clear-groups true 2>/dev/null; then
        echo "no private mount namespace here: verify_tool runs with group 65534"
        exec setpriv --regid=65534 --clear-groups "$0" "$build"
    fi
    die "cannot keep verify_tool from creating /dev/shm/dbglog.cfg (no unshare, no setpriv)"
fi

# ---- stage 2: the measurements ----------------------------------------------

tmp=$(mktemp -d /tmp/vt-e2e.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
trap 'exit 130' INT TERM

# Wall time of one command in microseconds, in the global `took`; a failing
# command ends the script, since its figure would mean nothing.
took=0
timed() {
    local start=${EPOCHREALTIME/./}
    "$@" >/dev/null 2>&1 || die "failed: $*"
    took=$((${EPOCHREALTIME/./} - start))
}
# Smallest and median of microsecond figures.
best() { printf '%s\n' "$@" | sort -n | head -n 1; }
median() {
    printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

check() { "$tool" -f CHECK_PKG_INTEGRITY -h "$1" -e "$2" -c "$3"; }

# The product's own settings decide what the figures mean.
cache=$build/CMakeCache.txt
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$cache")
sanitize=$(sed -n 's/^VT_SANITIZE:[A-Z]*=//p' "$cache")
echo "build: $build (${build_type:-no build type}${sanitize:+, VT_SANITIZE=$sanitize})"
case ${build_type:-} in
    Release | RelWithDebInfo) ;;
    *) echo "note: not an optimised build; the figures say little" ;;
esac
[[ ${sanitize:-OFF} == OFF ]] || echo "note: sanitizer build; the figures say little"

# ---- 1 and 2: a 1 GiB and a 1 KiB checksum file -------------------------------

big=$tmp/big
small=$tmp/small
mkdir "$big" "$small"
fallocate -l 1GiB "$big/content" 2>/dev/null || head -c 1073741824 /dev/zero >"$big/content"
head -c 1024 /dev/zero >"$small/content"
echo "signing the 1 GiB file..."
"$testpki" sign-demo "$big/content" "$big" >/dev/null
"$testpki" sign-demo "$small/content" "$small" >/dev/null
check "$big/content.p7s" "$big/content" "$big/crls+ca.pem" >/dev/null 2>&1 ||
    die "verify_tool refuses the signed 1 GiB file"

# Interleaved, so a busy moment on the machine hits both sides alike; the
# signing run above has already brought the file into the page cache.
tool_runs=()
dgst_runs=()
for _ in 1 2 3; do
    timed check "$big/content.p7s" "$big/content" "$big/crls+ca.pem"
    tool_runs+=("$took")
    timed openssl dgst -sha256 "$big/content"
    dgst_runs+=("$took")
done
tool_us=$(best "${tool_runs[@]}")
dgst_us=$(best "${dgst_runs[@]}")
echo
echo "1. throughput on a 1 GiB checksum file (best of 3 wall times)"
awk -v t="$tool_us" -v o="$dgst_us" 'BEGIN {
    printf "   verify_tool            %7.3f s  %7.0f MiB/s\n", t / 1e6, 1024 / (t / 1e6)
    printf "   openssl dgst -sha256   %7.3f s  %7.0f MiB/s\n", o / 1e6, 1024 / (o / 1e6)
    printf "   verify_tool / openssl: %.3f of the throughput (target: at least 0.95)\n", o / t
}'

peak_kib() {
    /usr/bin/time -f %M -o "$tmp/rss" "$tool" -f CHECK_PKG_INTEGRITY -h "$1/content.p7s" \
        -e "$1/content" -c "$1/crls+ca.pem" >/dev/null 2>&1 || die "verify_tool failed in $1"
    tail -n 1 "$tmp/rss"
}
small_kib=$(peak_kib "$small")
big_kib=$(peak_kib "$big")
echo
echo "2. peak resident memory of verify_tool (GNU time %M)"
awk -v s="$small_kib" -v b="$big_kib" 'BEGIN {
    d = b - s
    printf "   1 KiB checksum file    %7d KiB\n", s
    printf "   1 GiB checksum file    %7d KiB\n", b
    printf "   difference             %7d KiB (target: within 1024 KiB)\n", d
}'
rm -rf "$big"

# ---- 3: the demo package against the OpenSSL command-line pair ----------------

demo=$tmp/demo
ossl=$tmp/openssl
"$testpki" demo-package "$demo" >/dev/null
"$testpki" sign-demo "$demo/sha256sums" "$ossl" >/dev/null
cmp -s "$demo/sha256sums.p7s" "$ossl/content.p7s" || die "sign-demo and demo-package disagree"

# What the tool takes from the signature, judged where the tool judges it: at
# the token's generation time, with CRLs for every certificate on both paths.
# openssl cms and ts take CRLs only from the trust file, so it holds the root
# and the CRLs of crls+ca.pem, but not the CA certificate, which stays
# untrusted. The imprint is over the signer's signature value.
{
    cat "$ossl/root.pem"
    awk '/-----BEGIN X509 CRL-----/,/-----END X509 CRL-----/' "$ossl/crls+ca.pem"
} >"$ossl/root+crls.pem"
gen_time=$(openssl ts -reply -token_in -in "$ossl/token.der" -token_out -text 2>/dev/null |
    sed -n 's/^Time stamp: //p')
[[ -n $gen_time ]] || die "no generation time in the timestamp token"
at=$(date -u -d "$gen_time" +%s)
imprint=$(openssl dgst -sha256 -r "$ossl/sigvalue.bin" | cut -d ' ' -f 1)

# OpenSSL 3.0 knows no code-signing purpose, and its default (S/MIME signing)
# refuses the signer's code-signing-only certificate: hence `-purpose any`.
ossl_cms=(openssl cms -verify -binary -inform DER -in "$demo/sha256sums.p7s"
    -content "$demo/sha256sums" -CAfile "$ossl/root+crls.pem" -certfile "$ossl/ca.pem"
    -crl_check_all -attime "$at" -purpose any -out /dev/null)
ossl_ts=(openssl ts -verify -token_in -in "$ossl/token.der" -digest "$imprint"
    -CAfile "$ossl/root+crls.pem" -untrusted "$ossl/tsa.pem,$ossl/ca.pem"
    -crl_check_all -attime "$at")

small_runs=()
cms_runs=()
ts_runs=()
pair_runs=()
for _ in $(seq 10); do
    timed check "$demo/sha256sums.p7s" "$demo/sha256sums" "$demo/crls+ca.pem"
    small_runs+=("$took")
    timed "${ossl_cms[@]}"
    cms_runs+=("$took")
    timed "${ossl_ts[@]}"
    ts_runs+=("$took")
    pair_runs+=($((cms_runs[-1] + took)))
done
small_us=$(median "${small_runs[@]}")
pair_us=$(median "${pair_runs[@]}")
echo
echo "3. demo package check, $(stat -c %s "$demo/sha256sums")-byte checksum file (median of 10 wall times)"
awk -v t="$small_us" -v c="$(median "${cms_runs[@]}")" -v s="$(median "${ts_runs[@]}")" \
    -v p="$pair_us" 'BEGIN {
    printf "   verify_tool            %7.2f ms\n", t / 1e3
    printf "   openssl cms -verify    %7.2f ms\n", c / 1e3
    printf "   openssl ts -verify     %7.2f ms\n", s / 1e3
    printf "   the openssl pair       %7.2f ms\n", p / 1e3
    printf "   verify_tool / pair:    %.3f of the time (target: at most 0.25)\n", t / p
}'
echo "   openssl flags: cms -CAfile root+crls -certfile ca -crl_check_all -attime $at -purpose any;"
echo "                  ts -CAfile root+crls -untrusted tsa,ca -crl_check_all -attime $at"
