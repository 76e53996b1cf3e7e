#!/usr/bin/env bash
# Runs the benchmarks of a build directory (default: build) and prints the
# figures with the ratios that matter. Prints only; never fails on speed.
set -euo pipefail

cd "$(dirname "$0")/.."
build=${1:-build}
min_time=${BENCH_MIN_TIME:-0.5}

out=$("$build/bench/bench_x509" --benchmark_min_time="$min_time" --benchmark_format=csv 2>/dev/null)
echo "$out" | awk -F, '
    NR > 1 { gsub(/"/, "", $1); ns[$1] = $4; printf "%-24s %12.0f ns/op %12.0f ops/s\n", $1, $4, 1e9 / $4 }
    END {
        if (ns["BM_DorvexDecodeCert"] > 0)
            printf "certificate decode: %.1fx the speed of d2i_X509\n", ns["BM_OpensslD2iX509"] / ns["BM_DorvexDecodeCert"]
        if (ns["BM_DorvexPubKeyVerify"] > 0)
            printf "signature check: %.2fx the speed of X509_verify with a parsed key\n", ns["BM_OpensslX509Verify"] / ns["BM_DorvexPubKeyVerify"]
    }'

# Detached verification by content size: throughput, and the peak memory of
# one verification, which stays flat as the content grows.
"$build/bench/bench_verify" --benchmark_min_time="$min_time" 2>/dev/null

# The package check with the demo CRL file and with a CA CRL of 100,000
# entries: time of one check and peak memory of a process that runs one.
"$build/bench/bench_crl" --benchmark_min_time="$min_time" 2>/dev/null

# The package-files check on a small package, so that its script keeps
# working; the goal's figure needs the full size: bench/pkg_files.sh build 128.
bench/pkg_files.sh "$build" "${BENCH_PKG_MIB:-8}" 8 3
