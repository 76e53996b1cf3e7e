#!/usr/bin/env bash
# Builds the libFuzzer harnesses (fuzz/fuzz_*.cpp) with clang, makes seed
# corpora from real DER and PEM (the openssl command and the project's test-PKI
# generator: the demo package with every valid and spoiled case), and runs
# every harness for the given number of seconds (default 60), two at a time,
# with the dictionary fuzz/dorvex.dict. Fails on any crash, leak, timeout,
# out-of-memory or sanitizer report.
#
# A harness that serves several decoders gets a multiple of the time (see
# weight below), so each decoder keeps about the share it had alone.
# Seeds: a harness gets the DER files of the material pool below, unless a
# function seeds_<harness> exists, which then fills its seed folder ($1).
# VT_FUZZ_BUILD names the build folder (default build-fuzz in the tree);
# VT_FUZZ_ONLY a space-separated list of harnesses to run instead of all.
# Corpora grow across runs in $build/corpus; each harness's figures end up in
# $build/<harness>.log.
set -euo pipefail

seconds=${1:-60}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: $0 [seconds per harness]" >&2
    exit 2
fi

cd "$(dirname "$0")/.."
root=$(pwd)
build=${VT_FUZZ_BUILD:-$root/build-fuzz}
jobs=$(nproc)
((jobs > 2)) && jobs=2

log() { printf '\n=== %s\n' "$*"; }

for tool in clang clang++ openssl; do
    command -v "$tool" >/dev/null || { echo "fuzz: $tool is missing" >&2; exit 1; }
done

log "configure and build $build"
# A directory configured with another compiler cannot be switched over.
if [[ -f $build/CMakeCache.txt ]] && ! grep -q '^CMAKE_CXX_COMPILER:.*clang++' "$build/CMakeCache.txt"; then
    rm -rf "$build"
fi
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVT_FUZZ=ON -DVT_BUILD_TESTS=OFF
cmake --build "$build" --target fuzz_all -j "$jobs"

if [[ -n ${VT_FUZZ_ONLY:-} ]]; then
    read -r -a harnesses <<<"$VT_FUZZ_ONLY"
else
    mapfile -t harnesses < <(cd "$root/fuzz" && ls fuzz_*.cpp | sed 's/\.cpp$//' | sort)
fi
if ((${#harnesses[@]} == 0)); then
    echo "fuzz: no harness in fuzz/" >&2
    exit 1
fi

# ---- seed material, made fresh on every run -------------------------------
material=$build/material
rm -rf "$material"
mkdir -p "$material/pool"
log "making seed material in $material"
(
    cd "$material"
    quiet() { "$@" >/dev/null 2>&1 || { echo "fuzz: failed: $*" >&2; exit 1; }; }
    cat >ca.cnf <<'CNF'
[ ca ]
default_ca = local
[ local ]
database = index.txt
crlnumber = crlnumber
default_md = sha256
default_crl_days = 30
[ req ]
distinguished_name = dn
prompt = no
x509_extensions = v3
[ dn ]
CN = Fuzz Seed Root
O = Seed
[ v3 ]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign,digitalSignature
subjectKeyIdentifier = hash
extendedKeyUsage = codeSigning
CNF
    : >index.txt
    echo 01 >crlnumber
    quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -days 30 \
        -config ca.cnf
    # One revoked entry, so the CRL has a revokedCertificates list.
    quiet openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -out other.pem -days 30 \
        -subj /CN=Revoked -config ca.cnf
    quiet openssl ca -config ca.cnf -revoke other.pem -keyfile key.pem -cert cert.pem
    quiet openssl ca -config ca.cnf -gencrl -keyfile key.pem -cert cert.pem -out crl.pem
    head -c 3000 /dev/urandom | od -An -tx1 >content.txt
    quiet openssl cms -sign -binary -in content.txt -signer cert.pem -inkey key.pem \
        -md sha256 -outform PEM -out cms.pem
    quiet openssl x509 -in cert.pem -outform DER -out pool/cert.der
    quiet openssl crl -in crl.pem -outform DER -out pool/crl.der
    quiet openssl cms -cmsout -in cms.pem -inform PEM -outform DER -out pool/cms.der
)

# The verifying harnesses work on a demo package from the test-PKI generator,
# which this fuzzing build does not have: make it in a plain build of its own.
log "making the demo package in $material/demo"
gen=$build/testpki
cmake -S "$root" -B "$gen" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$gen" --target testpki_cli -j "$jobs" >/dev/null
"$gen/tools/testpki/testpki" demo-package "$material/demo" >/dev/null
export VT_FUZZ_VERIFY_DIR=$material/demo
demo=$material/demo
# The certificates and CRLs the differential path target chooses from.
"$gen/tools/testpki/testpki" path-pool "$material/path-pool" >/dev/null
export VT_FUZZ_PATH_POOL=$material/path-pool

# Every DER item of the demo package joins the pool: its certificates, CRLs,
# the valid signature and every spoiled one.
cp "$demo"/*.der "$material/pool/"
cp "$demo/sha256sums.p7s" "$material/pool/demo.p7s"
for f in "$demo"/faults/*/sha256sums.p7s; do
    cp "$f" "$material/pool/$(basename "$(dirname "$f")").p7s"
done

# The certificate and CRL walk: the pool, and certificates with EC keys and a
# PSS signature from the path pool.
seeds_fuzz_der() {
    local dir=$1
    cp "$material"/pool/* "$dir/"
    cp "$material"/path-pool/cert-1[6-9]-*.der "$dir/"
}

# The valid package signature (DER and PEM) and every spoiled one.
seeds_fuzz_verify() {
    local dir=$1 f
    cp "$demo/sha256sums.p7s" "$demo/sha256sums.p7s.pem" "$dir/"
    for f in "$demo"/faults/*/sha256sums.p7s; do
        cp "$f" "$dir/$(basename "$(dirname "$f")").p7s"
    done
}

# Choices of the path target (see fuzz/fuzz_diff_path.cpp): every pool
# certificate in the store, each one verified, with every CRL slot's first
# variant (a CRL listing nothing) and with its second (one revocation), at
# two times.
seeds_fuzz_diff_path() {
    local dir=$1 target time slot seed
    # The first 16 certificates; then root, CA and the EC and PSS ones (16-19).
    local -A masks=([a]='\xff\xff\x00' [e]='\x03\x00\x0f')
    local set
    for set in a e; do
        for target in $(seq 0 15); do
            [[ $set == e ]] && ((target > 5)) && break
            for time in 40 a0; do
                for slot in 01 02; do
                    seed=$dir/$set$target-$time-$slot
                    printf "\\x$time\\x00\\x$(printf %02x "$target")${masks[$set]}" >"$seed"
                    for _ in 1 2 3 4 5 6 7 8; do printf "\\x$slot"; done >>"$seed"
                done
            done
        done
    done
}

# Files a package brings: DER and PEM trust material as the intake sees it
# (every item, the CRL files of the demo package with and without the CA
# certificate, the pool's signatures as foreign input), base64 text (PEM
# files, bare bodies with LF and CR LF, small shapes), and checksum files
# (the demo package's, in CR LF, with SHA-512 lines, comments, blanks and
# refused paths).
seeds_fuzz_intake() {
    local dir=$1 f name h64 h128
    cp "$material"/pool/* "$material"/{cert,crl,cms}.pem "$demo"/*.pem "$dir/"
    cat "$demo/root-crl.der" "$demo/ca-crl.der" "$demo/ca.der" >"$dir/crls+ca.der"
    for f in "$material"/{cert,crl,cms}.pem "$demo"/*.pem; do
        name=$(basename "$f")
        grep -v -- '-----' "$f" >"$dir/$name.b64"
        sed 's/$/\r/' "$dir/$name.b64" >"$dir/$name.crlf.b64"
    done
    printf 'QUJD' >"$dir/full"
    printf 'QQ==' >"$dir/pad2"
    printf 'QUI=' >"$dir/pad1"
    printf 'QUJD  \r\nRA==  ' >"$dir/blanks"
    printf 'QUJDRA' >"$dir/partial"
    h64=$(printf '%064d' 0)
    h128=$(printf '%0128d' 0)
    cp "$demo/sha256sums" "$dir/sums"
    sed 's/$/\r/' "$demo/sha256sums" >"$dir/sums.crlf"
    printf '# list\n\n%s *a/./b\n%s  c d\n' "$h64" "$h128" >"$dir/sums.mixed"
    printf '%s  ../x\n%s  /abs\n%s  a//b\n%s  a\n%s  ./a' "$h64" "$h64" "$h64" "$h64" "$h64" >"$dir/sums.refused"
}

# ---- run ------------------------------------------------------------------
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

# The harnesses that merge several decoders run longer: fuzz_der serves
# three former harnesses, fuzz_intake four.
declare -A weight=([fuzz_der]=2 [fuzz_intake]=3)

# One harness: seeds, a run of $seconds times its weight, and a verdict
# file. Standard output is closed in the target: the library prints a line
# for every rejected input. A leak makes libFuzzer exit non-zero; -timeout turns a slow input
# into a failure, -rss_limit_mb a runaway allocation.
fuzz_one() {
    local h=$1 status=0 time=$((seconds * ${weight[$1]:-1}))
    local seeds=$build/seeds/$h corpus=$build/corpus/$h artifacts=$build/artifacts/$h
    local out=$build/$h.log
    rm -rf "$seeds" "$artifacts" "$out" "$build/$h.failed" "$build/$h.ok"
    mkdir -p "$seeds" "$corpus" "$artifacts"
    if declare -F "seeds_$h" >/dev/null; then
        "seeds_$h" "$seeds"
    else
        cp "$material"/pool/* "$seeds/"
    fi
    echo "fuzz: $h for ${time}s ($(ls "$seeds" | wc -l) seeds, $(ls "$corpus" | wc -l) in corpus)"
    "$build/fuzz/$h" -max_total_time="$time" -timeout=10 -rss_limit_mb=2048 \
        -dict="$root/fuzz/dorvex.dict" -detect_leaks=1 \
        -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$artifacts/" \
        "$corpus" "$seeds" >"$out" 2>&1 || status=$?
    # Any sanitizer report counts, even one that did not stop the run; a run
    # that never reached its final statistics did not fuzz.
    if ((status != 0)) ||
        grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|WARNING: .*Sanitizer' "$out" ||
        ! grep -q '^stat::number_of_executed_units' "$out"; then
        echo "$status" >"$build/$h.failed"
    else
        touch "$build/$h.ok"
    fi
}

# The figures of one finished run: executions, coverage, corpus, verdict.
report() {
    local h=$1 out=$build/$h.log
    local execs cov ft corpus
    execs=$(awk '/^stat::number_of_executed_units/ { print $2 }' "$out" 2>/dev/null || true)
    cov=$(grep -oE 'cov: [0-9]+' "$out" 2>/dev/null | tail -n 1 | awk '{ print $2 }' || true)
    ft=$(grep -oE 'ft: [0-9]+' "$out" 2>/dev/null | tail -n 1 | awk '{ print $2 }' || true)
    corpus=$(ls "$build/corpus/$h" 2>/dev/null | wc -l || true)
    printf '%-18s execs %-10s cov %-6s ft %-7s corpus %-6s %s\n' "$h" "${execs:-?}" "${cov:-?}" \
        "${ft:-?}" "$corpus" "$([[ -f $build/$h.ok ]] && echo ok || echo FAILED)"
}

log "fuzz ${#harnesses[@]} harness(es) for ${seconds}s each (times their weight), $jobs at a time"
running=0
for h in "${harnesses[@]}"; do
    if ((running >= jobs)); then
        wait -n || true
        running=$((running - 1))
    fi
    fuzz_one "$h" &
    running=$((running + 1))
done
wait || true

log "results"
failed=()
for h in "${harnesses[@]}"; do
    report "$h"
    if [[ ! -f $build/$h.ok ]]; then
        failed+=("$h")
    fi
done
for h in "${failed[@]}"; do
    echo
    echo "fuzz: $h FAILED (status $(cat "$build/$h.failed" 2>/dev/null || echo none)); log $build/$h.log, inputs in $build/artifacts/$h" >&2
    grep -E 'ERROR|runtime error|WARNING|SUMMARY|Test unit written' "$build/$h.log" 2>/dev/null |
        head -n 20 >&2 || true
done

if ((${#failed[@]})); then
    echo "fuzz: failing harnesses: ${failed[*]}" >&2
    exit 1
fi
log "fuzz: ${#harnesses[@]} harness(es) ran ${seconds}s each (times their weight) without a finding"
