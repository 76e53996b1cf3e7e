#!/usr/bin/env bash
# Builds everything from scratch and runs every test: the formatting check,
# the plain build, a compile check of the other build types and compilers,
# the AddressSanitizer+UndefinedBehaviorSanitizer build and the stages after
# it. Every build treats warnings as errors (VT_WERROR). Installs what a fresh
# Debian 12 machine is missing.
set -euo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc)

log() { printf '\n=== %s\n' "$*"; }

need=(cmake ninja-build g++ libssl-dev libgtest-dev clang clang-format libclang-rt-14-dev
      libbenchmark-dev openssl valgrind pkg-config)
missing=()
for p in "${need[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
    log "installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

log "format check"
git ls-files '*.c' '*.cpp' '*.h' | xargs -r clang-format --dry-run --Werror

build_and_test() {
    local dir=$1
    shift
    log "configure $dir $*"
    rm -rf "$dir"
    cmake -S "$root" -B "$dir" -G Ninja -DVT_WERROR=ON "$@"
    log "build $dir"
    cmake --build "$dir" -j "$jobs"
    log "test $dir"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600
}

build_and_test build -DCMAKE_BUILD_TYPE=RelWithDebInfo

# Every build type a user may pick, with g++ 12 and clang 14, compiles
# without a warning. Only the product libraries and programs: the tests are
# compiled above and in the sanitizer build, and this stays cheap.
log "compile check: other build types and compilers"
for config in "g++ gcc Release" "g++ gcc Debug" "clang++ clang Release" \
    "clang++ clang RelWithDebInfo" "clang++ clang Debug"; do
    read -r cxx cc type <<<"$config"
    dir=build-check
    rm -rf "$dir"
    echo "$cxx $type"
    CXX=$cxx CC=$cc cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DVT_WERROR=ON \
        -DVT_BUILD_TESTS=OFF >/dev/null
    cmake --build "$dir" -j "$jobs"
done
rm -rf build-check

log "benchmarks (figures only)"
BENCH_MIN_TIME=0.05 scripts/bench.sh build

# Runs a command as the product binary runs on the device, where it writes
# /dev/shm/dbglog.cfg: in a private mount namespace with its own /dev/shm
# where the host allows one.
private_shm() {
    if unshare --mount --propagation private true 2>/dev/null; then
        # shellcheck disable=SC2016 # expanded by the inner shell
        unshare --mount --propagation private sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$@"' sh "$@"
    else
        echo "no private mount namespace here: running on the host's /dev/shm" >&2
        "$@"
    fi
}

# The product binary itself: an unknown operation code exits 255.
log "product binary smoke check"
status=0
private_shm build/tool/verify_tool -f nope || status=$?
echo "verify_tool -f nope: exit $status"
test "$status" -eq 255

# The static program (-DVT_STATIC=ON, the device build's default), only its
# own target: one more compile of the product libraries. It must need no
# shared library, accept the demo package and a package five certificates
# below the root (as bench/e2e.sh makes them), and refuse the
# demo package's tampered copy.
log "static verify_tool"
rm -rf build-static
cmake -S "$root" -B build-static -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVT_STATIC=ON \
    -DVT_BUILD_TESTS=OFF -DVT_WERROR=ON
cmake --build build-static -j "$jobs" --target verify_tool
if readelf -d build-static/tool/verify_tool | grep -q NEEDED; then
    echo "the static verify_tool needs shared libraries" >&2
    exit 1
fi
demo=$(mktemp -d /tmp/vt-static.XXXXXX)
build/tools/testpki/testpki demo-package "$demo/demo" >/dev/null
build/tools/testpki/testpki chain-package 5 "$demo/chain" >/dev/null
static_check() {
    private_shm build-static/tool/verify_tool -f CHECK_PKG_INTEGRITY -h "$1/sha256sums.p7s" \
        -c "$1/crls+ca.pem" -e "$1/$2" >/dev/null
}
static_check "$demo/demo" sha256sums
echo "static verify_tool: demo package valid"
static_check "$demo/chain" sha256sums
echo "static verify_tool: package of a chain of depth 5 valid"
status=0
static_check "$demo/demo" sha256sums.tampered || status=$?
echo "static verify_tool: tampered copy exits $status"
test "$status" -eq 255
rm -rf "$demo"

# The product binary under memcheck on every end-to-end case of the demo
# package: no memory error, nothing definitely or indirectly lost.
log "valgrind"
scripts/valgrind.sh build

build_and_test build-asan -DCMAKE_BUILD_TYPE=Debug -DVT_SANITIZE=ON

# ThreadSanitizer: the logging library shares state between threads,
# CHECK_PKG_FILES hashes files on several (a report fails the tool's run), and
# a content of more than two pieces is read on a second thread.
log "configure build-tsan"
rm -rf build-tsan
cmake -S "$root" -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVT_TSAN=ON -DVT_WERROR=ON
log "build build-tsan"
cmake --build build-tsan -j "$jobs" --target dbglog_tests tool_tests verify_tool_sandboxed cms_verify_tests
log "test build-tsan"
ctest --test-dir build-tsan --output-on-failure -j "$jobs" --timeout 600 -R '^Dbglog|^dbglog_tests\.Whole$|PkgFilesTest|^DetachedSignature\.VerifiesByStreamAndByFiles$'

log "fuzz"
scripts/fuzz.sh 30

log "all stages passed"
