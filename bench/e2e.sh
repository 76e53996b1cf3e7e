#!/usr/bin/env bash
# End-to-end figures of the package check, measured on the product binary in
# its dynamic build and its static build (-DVT_STATIC=ON):
#   1. a 1 GiB checksum file: throughput of verify_tool against
#      `openssl dgst -sha256` on the same cached file, and against the rate
#      `openssl speed -evp sha256 -bytes 16384` reports (hashing alone);
#   2. the demo package: wall time of verify_tool against the OpenSSL command
#      pair `openssl cms -verify` + `openssl ts -verify` doing the same checks;
#      2b. next to it, a package signed, stamped and revoked by ECDSA below
#      the RSA root (testpki ecdsa-package);
#   3. peak resident memory of verify_tool (GNU time %M) for a 1 KiB and a
#      1 GiB checksum file;
#   4. the RSA verifications one package check costs, for the demo package
#      and for chains of depth 2, 5 and 8 (testpki chain-package, rsa_count).
# Timings are taken in rounds: each command of a figure runs once per round,
# in reversed order every other round (A B C, C B A, ...), so a busy moment of
# the shared machine hits every side alike. A ratio is taken within each
# round; every figure is printed as the median over the rounds with the
# smallest and largest value (min..max) beside it.
#
# Usage: bench/e2e.sh [build dir] [static build dir]   (default: build build-static)
# The static build dir is configured (-DVT_STATIC=ON, tests off) when it has
# no build files yet. VT_E2E_ROUNDS (default 7) sets the rounds of the 1 GiB
# figures, VT_E2E_SMALL_ROUNDS (default 21) those of the demo package.
# Prints only; never fails on speed. Everything it makes lives in one temp
# directory under /tmp, removed on exit, and in the build directories.
# shellcheck disable=SC2317 # the m_NAME functions are called by name in run_rounds
set -euo pipefail
export LC_ALL=C

self=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
cd "$(dirname "$self")/.."
build=${1:-build}
static_build=${2:-build-static}
tool=$build/tool/verify_tool
static_tool=$static_build/tool/verify_tool
testpki=$build/tools/testpki/testpki
rsa_count=$build/bench/rsa_count
rounds=${VT_E2E_ROUNDS:-7}
small_rounds=${VT_E2E_SMALL_ROUNDS:-21}

die() {
    echo "e2e: $*" >&2
    exit 1
}

cache_value() { sed -n "s/^$2:[A-Z]*=//p" "$1/CMakeCache.txt"; }

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
    if [[ ! -f $static_build/build.ninja ]]; then
        cmake -S . -B "$static_build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVT_STATIC=ON \
            -DVT_BUILD_TESTS=OFF >/dev/null
    fi
    [[ $(cache_value "$build" VT_STATIC) != ON ]] || die "$build is a VT_STATIC build"
    [[ $(cache_value "$static_build" VT_STATIC) == ON ]] || die "$static_build is no VT_STATIC build"
    echo "building verify_tool, the test-PKI generator and rsa_count in $build..."
    cmake --build "$build" --target verify_tool testpki_cli rsa_count >/dev/null
    echo "building the static verify_tool in $static_build..."
    cmake --build "$static_build" --target verify_tool >/dev/null 2>&1 ||
        die "the static build failed: cmake --build $static_build --target verify_tool"

    # Run as root with group 0, the tool owns the logging library's shared
    # record and creates /dev/shm/dbglog.cfg, as it does on the device. Give
    # it a /dev/shm of its own, or else a group that only reads the record.
    export VT_E2E_STAGE=measure
    if [[ $(id -g) != 0 ]]; then
        exec "$self" "$build" "$static_build"
    fi
    if unshare --mount --propagation private true 2>/dev/null; then
        # shellcheck disable=SC2016 # expanded by the inner shell
        exec unshare --mount --propagation private \
            sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$0" "$1" "$2"' "$self" "$build" "$static_build"
    fi
    if setpriv --regid=65534 --clear-groups true 2>/dev/null; then
        echo "no private mount namespace here: verify_tool runs with group 65534"
        exec setpriv --regid=65534 --clear-groups "$self" "$build" "$static_build"
    fi
    die "cannot keep verify_tool from creating /dev/shm/dbglog.cfg (no unshare, no setpriv)"
fi

# ---- stage 2: the measurements ----------------------------------------------

tmp=$(mktemp -d /tmp/vt-e2e.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
trap 'exit 130' INT TERM

# The product's own settings decide what the figures mean.
for dir in "$build" "$static_build"; do
    build_type=$(cache_value "$dir" CMAKE_BUILD_TYPE)
    sanitize=$(cache_value "$dir" VT_SANITIZE)
    echo "build: $dir (${build_type:-no build type}, VT_STATIC=$(cache_value "$dir" VT_STATIC)${sanitize:+, VT_SANITIZE=$sanitize})"
    case ${build_type:-} in
        Release | RelWithDebInfo) ;;
        *) echo "note: $dir is not an optimised build; the figures say little" ;;
    esac
    [[ ${sanitize:-OFF} == OFF ]] || echo "note: $dir is a sanitizer build; the figures say little"
done

# A round runs one measurement function per name, m_NAME, each of which
# leaves its wall time in microseconds in `took` (and may add other figures
# itself); the times of NAME collect in $tmp/t.NAME, one line per round.
# Odd rounds run the names in reverse order. A failing command ends the
# script, since its figure would mean nothing.
took=0
timed() {
    local start=${EPOCHREALTIME/./}
    "$@" >/dev/null 2>&1 || die "failed: $*"
    took=$((${EPOCHREALTIME/./} - start))
}
# timed, with the peak resident memory in KiB appended to $tmp/m.$1.
timed_rss() {
    local name=$1
    shift
    timed /usr/bin/time -f %M -o "$tmp/rss" "$@"
    tail -n 1 "$tmp/rss" >>"$tmp/m.$name"
}
run_rounds() {
    local count=$1 round name
    shift
    local names=("$@")
    rm -f "${names[@]/#/$tmp/t.}"
    for ((round = 0; round < count; ++round)); do
        local order=("${names[@]}")
        if ((round % 2)); then
            order=()
            for name in "${names[@]}"; do order=("$name" "${order[@]}"); done
        fi
        for name in "${order[@]}"; do
            "m_$name"
            echo "$took" >>"$tmp/t.$name"
        done
    done
}
# One value per round of an awk expression over the rounds' figures: each
# argument but the last binds an awk variable to a file of per-round values,
# e.g. `per_round d=t.dgst t=t.dynamic 'd / t'`.
per_round() {
    local expr=${*: -1} files=() assign="" field=1 binding
    for binding in "${@:1:$#-1}"; do
        files+=("$tmp/${binding#*=}")
        assign+="${binding%%=*} = \$$field; "
        field=$((field + 1))
    done
    paste "${files[@]}" | awk "{ $assign printf \"%.6f\\n\", $expr }"
}
# "median (min..max)" of the values on standard input, in printf format $1.
summary() {
    sort -g | awk -v f="$1" '{ v[NR] = $1 } END {
        m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
        printf f " (" f ".." f ")", m, v[1], v[NR]
    }'
}
median() {
    sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

check_with() { "$1" -f CHECK_PKG_INTEGRITY -h "$2" -e "$3" -c "$4"; }

# ---- 1 and 3: a 1 GiB and a 1 KiB checksum file -------------------------------

big=$tmp/big
small=$tmp/small
mkdir "$big" "$small"
fallocate -l 1GiB "$big/content" 2>/dev/null || head -c 1073741824 /dev/zero >"$big/content"
head -c 1024 /dev/zero >"$small/content"
echo "signing the 1 GiB file..."
"$testpki" sign-demo "$big/content" "$big" >/dev/null
"$testpki" sign-demo "$small/content" "$small" >/dev/null
for t in "$tool" "$static_tool"; do
    check_with "$t" "$big/content.p7s" "$big/content" "$big/crls+ca.pem" >/dev/null 2>&1 ||
        die "$t refuses the signed 1 GiB file"
done

# The signing run has brought the file into the page cache. openssl speed
# counts wall time (-elapsed) like the other three, not its CPU time.
m_dynamic() { timed_rss dynamic "$tool" -f CHECK_PKG_INTEGRITY -h "$big/content.p7s" -e "$big/content" -c "$big/crls+ca.pem"; }
m_static() { timed_rss static "$static_tool" -f CHECK_PKG_INTEGRITY -h "$big/content.p7s" -e "$big/content" -c "$big/crls+ca.pem"; }
m_dgst() { timed_rss dgst openssl dgst -sha256 "$big/content"; }
m_speed() {
    local start=${EPOCHREALTIME/./}
    openssl speed -elapsed -mr -seconds 1 -evp sha256 -bytes 16384 2>/dev/null |
        sed -n 's/^+F:[0-9]*:[^:]*://p' >>"$tmp/r.speed" || die "openssl speed failed"
    took=$((${EPOCHREALTIME/./} - start))
}
echo "measuring the 1 GiB file in $rounds rounds..."
rm -f "$tmp/r.speed" "$tmp/m.dynamic" "$tmp/m.static"
run_rounds "$rounds" dynamic static dgst speed
gib=1073741824
echo
echo "1. throughput on a 1 GiB checksum file, $rounds rounds: median (min..max)"
for side in dgst dynamic static; do
    printf '   %-24s %s MiB/s\n' \
        "$([[ $side == dgst ]] && echo "openssl dgst -sha256" || echo "verify_tool, $side")" \
        "$(per_round t=t.$side "$gib / 1048576 / (t / 1e6)" | summary %.0f)"
done
printf '   %-24s %s MiB/s\n' "openssl speed (hashing)" \
    "$(per_round r=r.speed 'r / 1048576' | summary %.0f)"
for side in dynamic static; do
    echo "   verify_tool, $side:"
    echo "     / openssl dgst:  $(per_round d=t.dgst t=t.$side 'd / t' | summary %.3f)x the throughput (goal: at least 1.15)"
    echo "     / openssl speed: $(per_round r=r.speed t=t.$side "$gib / (t / 1e6) / r" | summary %.3f) of the hashing rate (goal: at least 0.90)"
done
cp "$tmp/m.dynamic" "$tmp/big.dynamic"
cp "$tmp/m.static" "$tmp/big.static"
rm -rf "$big"

m_dynamic() { timed_rss dynamic "$tool" -f CHECK_PKG_INTEGRITY -h "$small/content.p7s" -e "$small/content" -c "$small/crls+ca.pem"; }
m_static() { timed_rss static "$static_tool" -f CHECK_PKG_INTEGRITY -h "$small/content.p7s" -e "$small/content" -c "$small/crls+ca.pem"; }
rm -f "$tmp/m.dynamic" "$tmp/m.static"
run_rounds "$rounds" dynamic static

# ---- 2: the demo package against the OpenSSL command-line pair ----------------

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

m_dynamic() { timed check_with "$tool" "$demo/sha256sums.p7s" "$demo/sha256sums" "$demo/crls+ca.pem"; }
m_static() { timed check_with "$static_tool" "$demo/sha256sums.p7s" "$demo/sha256sums" "$demo/crls+ca.pem"; }
m_pair() {
    timed "${ossl_cms[@]}"
    echo "$took" >>"$tmp/t.cms"
    local cms=$took
    timed "${ossl_ts[@]}"
    echo "$took" >>"$tmp/t.ts"
    took=$((cms + took))
}
rm -f "$tmp/t.cms" "$tmp/t.ts"
run_rounds "$small_rounds" dynamic static pair
echo
echo "2. demo package check, $(stat -c %s "$demo/sha256sums")-byte checksum file, $small_rounds rounds: median (min..max)"
for side in dynamic static cms ts pair; do
    case $side in
        cms) label="openssl cms -verify" ;;
        ts) label="openssl ts -verify" ;;
        pair) label="the openssl pair" ;;
        *) label="verify_tool, $side" ;;
    esac
    printf '   %-24s %s ms\n' "$label" "$(per_round t=t.$side 't / 1e3' | summary %.2f)"
done
echo "   verify_tool / pair, dynamic: $(per_round t=t.dynamic p=t.pair 't / p' | summary %.3f) of the time (goal: at most 0.35)"
echo "   verify_tool / pair, static:  $(per_round t=t.static p=t.pair 't / p' | summary %.3f) of the time (goal: at most 0.25)"
echo "   openssl flags: cms -CAfile root+crls -certfile ca -crl_check_all -attime $at -purpose any;"
echo "                  ts -CAfile root+crls -untrusted tsa,ca -crl_check_all -attime $at"

# ---- 2b: the same check of an all-ECDSA package -------------------------------

# testpki ecdsa-package: EC keys below the built-in RSA root (CA and TSA on
# P-384, signer on P-256), so every signature checked but the root's own is
# ECDSA. Paired with the RSA demo package in the same rounds.
ecdsa=$tmp/ecdsa
"$testpki" ecdsa-package "$ecdsa" >/dev/null
check_with "$tool" "$ecdsa/sha256sums.p7s" "$ecdsa/sha256sums" "$ecdsa/crls+ca.pem" >/dev/null 2>&1 ||
    die "verify_tool refuses the ECDSA package"
m_rsa() { timed check_with "$tool" "$demo/sha256sums.p7s" "$demo/sha256sums" "$demo/crls+ca.pem"; }
m_ecdsa() { timed check_with "$tool" "$ecdsa/sha256sums.p7s" "$ecdsa/sha256sums" "$ecdsa/crls+ca.pem"; }
run_rounds "$small_rounds" rsa ecdsa
echo
echo "2b. small package, RSA (demo) against all-ECDSA below the root, dynamic, $small_rounds rounds: median (min..max)"
printf '   %-24s %s ms\n' "RSA package" "$(per_round t=t.rsa 't / 1e3' | summary %.2f)"
printf '   %-24s %s ms\n' "ECDSA package" "$(per_round t=t.ecdsa 't / 1e3' | summary %.2f)"
echo "   ECDSA / RSA: $(per_round e=t.ecdsa r=t.rsa 'e / r' | summary %.3f) of the time"

echo
echo "3. peak resident memory of verify_tool (GNU time %M), $rounds runs each: median (min..max)"
for side in dynamic static; do
    printf '   %-8s 1 KiB file %s KiB, 1 GiB file %s KiB, difference of the medians %d KiB (goal: within 1024)\n' \
        "$side" "$(summary %d <"$tmp/m.$side")" "$(summary %d <"$tmp/big.$side")" \
        $(($(median <"$tmp/big.$side") - $(median <"$tmp/m.$side")))
done

# ---- 4: RSA verifications per package check -----------------------------------

echo
echo "4. RSA verifications of one package check (exact counts, no noise)"
count() {
    local line
    line=$("$rsa_count" "$1/sha256sums.p7s" "$1/sha256sums" "$1/crls+ca.pem" 2>/dev/null | tail -n 1) || true
    printf '   %-24s %s\n' "$2" "${line:-no count}"
}
count "$demo" "demo package"
echo "   (goal for the demo package: at most 8)"
for depth in 2 5 8; do
    "$testpki" chain-package "$depth" "$tmp/chain$depth" >/dev/null
    count "$tmp/chain$depth" "chain of depth $depth"
done
