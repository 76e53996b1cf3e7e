#!/usr/bin/env bash
# Builds the libFuzzer harnesses (fuzz/fuzz_*.cpp) with clang into build-fuzz,
# makes seed corpora from real DER and PEM that the openssl command produces,
# and runs every harness for the given number of seconds (default 60).
# Fails on any crash, leak, timeout, out-of-memory or sanitizer report.
#
# Seeds: a harness gets the DER files of the material pool below, unless a
# function seeds_<harness> exists, which then fills its seed folder ($1).
set -euo pipefail

seconds=${1:-60}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: $0 [seconds per harness]" >&2
    exit 2
fi

cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build-fuzz
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

mapfile -t harnesses < <(cd "$root/fuzz" && ls fuzz_*.cpp | sed 's/\.cpp$//' | sort)
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

# fuzz_verify works on a demo package from the test-PKI generator, which
# this fuzzing build does not have: make it in a plain build of its own.
log "making the demo package in $material/demo"
gen=$build/testpki
cmake -S "$root" -B "$gen" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$gen" --target testpki_cli -j "$jobs" >/dev/null
"$gen/tools/testpki/testpki" demo-package "$material/demo" >/dev/null
export VT_FUZZ_VERIFY_DIR=$material/demo

# The valid package signature (DER and PEM) and every spoiled one.
seeds_fuzz_verify() {
    local dir=$1 f
    cp "$material/demo/sha256sums.p7s" "$material/demo/sha256sums.p7s.pem" "$dir/"
    for f in "$material"/demo/faults/*/sha256sums.p7s; do
        cp "$f" "$dir/$(basename "$(dirname "$f")").p7s"
    done
}

# CRL files of the demo hierarchy, whose root the harness trusts: PEM with the
# CA certificate, the bare CRLs, and both CRLs with the CA certificate as DER.
seeds_fuzz_crl_info() {
    local dir=$1 demo=$material/demo
    cp "$demo/crls+ca.pem" "$demo/crls.der" "$demo/root-crl.der" "$dir/"
    cat "$demo/root-crl.der" "$demo/ca-crl.der" "$demo/ca.der" >"$dir/crls+ca.der"
}

# Base64 text: PEM files, bare bodies with LF and CR LF, and small shapes.
seeds_fuzz_base64() {
    local dir=$1 f
    for f in cert crl cms; do
        cp "$material/$f.pem" "$dir/$f.pem"
        grep -v -- '-----' "$material/$f.pem" >"$dir/$f.b64"
        sed 's/$/\r/' "$dir/$f.b64" >"$dir/$f.crlf.b64"
    done
    printf 'QUJD' >"$dir/full"
    printf 'QQ==' >"$dir/pad2"
    printf 'QUI=' >"$dir/pad1"
    printf 'QUJD  \r\nRA==  ' >"$dir/blanks"
    printf 'QUJDRA' >"$dir/partial"
}

# ---- run ------------------------------------------------------------------
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
failed=()
for h in "${harnesses[@]}"; do
    seeds=$build/seeds/$h
    corpus=$build/corpus/$h
    artifacts=$build/artifacts/$h
    rm -rf "$seeds" "$artifacts"
    mkdir -p "$seeds" "$corpus" "$artifacts"
    if declare -F "seeds_$h" >/dev/null; then
        "seeds_$h" "$seeds"
    else
        cp "$material"/pool/* "$seeds/"
    fi
    log "fuzz $h for ${seconds}s ($(ls "$seeds" | wc -l) seeds)"
    out=$build/$h.log
    # Standard output is closed in the target: the library prints a line
    # for every rejected input.
    status=0
    "$build/fuzz/$h" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$artifacts/" \
        "$corpus" "$seeds" >"$out" 2>&1 || status=$?
    tail -n 15 "$out"
    # Any sanitizer report counts, even one that did not stop the run.
    if ((status != 0)) || grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|WARNING: .*Sanitizer' "$out"; then
        echo "fuzz: $h FAILED (status $status); log $out, inputs in $artifacts" >&2
        failed+=("$h")
    fi
done

if ((${#failed[@]})); then
    echo "fuzz: failing harnesses: ${failed[*]}" >&2
    exit 1
fi
log "fuzz: ${#harnesses[@]} harness(es) ran ${seconds}s each without a finding"
