#!/usr/bin/env bash
# Runs the product binary verify_tool under valgrind's memcheck on every
# end-to-end case of a generated demo package: the valid package (DER and
# PEM signature), the tampered checksum file, every spoiled package
# (faults/NAME), a missing -c, garbage signature, CRL and checksum files, a
# missing file, CHECK_PKG_FILES on the package and on a copy with a changed
# and a missing payload file, and an unknown operation. Each case must end
# with the expected verdict (0 only for the valid package), zero memcheck
# errors and no definitely or indirectly lost bytes. No suppression file: OpenSSL 3
# frees its process-lifetime allocations at exit, so none is needed.
#
# The tool writes /dev/shm/dbglog.cfg as on the device, so the whole script
# runs in a private mount namespace with its own /dev/shm where the host
# allows one; otherwise it runs the sandboxed test build of the tool
# (build/tests/tool/verify_tool_sandboxed), whose paths live in a scratch
# folder (VT_VALGRIND_SANDBOXED=1 asks for that one).
#
# usage: scripts/valgrind.sh [BUILD_DIR]   (default: build; needs verify_tool,
#        testpki_cli and, for the fallback, verify_tool_sandboxed built there)
set -euo pipefail

cd "$(dirname "$0")/.."
root=$(pwd)
build=$(realpath "${1:-build}")

command -v valgrind >/dev/null || { echo "valgrind: valgrind is missing" >&2; exit 1; }

if [[ -z ${VT_VALGRIND_NS:-} && -z ${VT_VALGRIND_SANDBOXED:-} ]] && unshare --mount --propagation private true 2>/dev/null; then
    exec unshare --mount --propagation private env VT_VALGRIND_NS=1 bash "$0" "$build"
fi

work=$(mktemp -d /tmp/vt_valgrind_XXXXXX)
failed=0
# Kept when a case failed, for its logs.
trap '((failed)) || rm -rf "$work"' EXIT

if [[ -n ${VT_VALGRIND_NS:-} ]]; then
    mount -t tmpfs tmpfs /dev/shm
    tool=$build/tool/verify_tool
    echo "valgrind: the product binary $tool, with a private /dev/shm"
else
    tool=$build/tests/tool/verify_tool_sandboxed
    mkdir -p "$work/sys"
    export VT_TEST_ROOT=$work/sys VT_SYSLOG_FILE=$work/syslog
    echo "valgrind: no private mount namespace here; the sandboxed build $tool"
fi
gen=$build/tools/testpki/testpki
for f in "$tool" "$gen"; do
    [[ -x $f ]] || { echo "valgrind: $f is not built" >&2; exit 1; }
done

demo=$work/demo
"$gen" demo-package "$demo" >/dev/null
head -c 4096 /dev/urandom >"$work/garbage"
: >"$work/empty"

count=0
# check NAME EXPECT ARGS...: EXPECT is "valid" (exit 0) or "invalid"
# (any other exit status).
check() {
    local name=$1 expect=$2 status=0
    shift 2
    local log=$work/$name.valgrind
    count=$((count + 1))
    valgrind --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite,indirect \
        --log-file="$log" "$tool" "$@" >"$work/$name.out" 2>&1 || status=$?
    local problems=()
    grep -q 'ERROR SUMMARY: 0 errors' "$log" || problems+=("memcheck errors")
    if grep -qE '(definitely|indirectly) lost: [1-9]' "$log"; then
        problems+=("leaks")
    fi
    if [[ $expect == valid && $status -ne 0 ]] || [[ $expect == invalid && $status -eq 0 ]]; then
        problems+=("exit status $status, expected $expect")
    fi
    if ((${#problems[@]})); then
        echo "FAIL $name: ${problems[*]}" >&2
        grep -E '^==[0-9]+== ' "$log" | head -n 40 >&2
        failed=$((failed + 1))
    else
        printf 'ok   %-34s exit %3d  %s\n' "$name" "$status" \
            "$(grep -oE 'total heap usage: .*' "$log")"
    fi
}

op=(-f CHECK_PKG_INTEGRITY)
check valid valid "${op[@]}" -h "$demo/sha256sums.p7s" -e "$demo/sha256sums" -c "$demo/crls+ca.pem"
check valid-pem valid "${op[@]}" -h "$demo/sha256sums.p7s.pem" -e "$demo/sha256sums" \
    -c "$demo/crls+ca.pem"
check tampered invalid "${op[@]}" -h "$demo/sha256sums.p7s" -e "$demo/sha256sums.tampered" \
    -c "$demo/crls+ca.pem"
for dir in "$demo"/faults/*/; do
    name=$(basename "$dir")
    check "fault-$name" invalid "${op[@]}" -h "$dir/sha256sums.p7s" -e "$dir/sha256sums" \
        -c "$demo/crls+ca.pem"
done
check no-crl-option invalid "${op[@]}" -h "$demo/sha256sums.p7s" -e "$demo/sha256sums"
check garbage-signature invalid "${op[@]}" -h "$work/garbage" -e "$demo/sha256sums" \
    -c "$demo/crls+ca.pem"
check garbage-crl invalid "${op[@]}" -h "$demo/sha256sums.p7s" -e "$demo/sha256sums" \
    -c "$work/garbage"
check empty-crl invalid "${op[@]}" -h "$demo/sha256sums.p7s" -e "$demo/sha256sums" \
    -c "$work/empty"
check garbage-checksums invalid "${op[@]}" -h "$demo/sha256sums.p7s" -e "$work/garbage" \
    -c "$demo/crls+ca.pem"
check missing-signature invalid "${op[@]}" -h "$work/nope" -e "$demo/sha256sums" \
    -c "$demo/crls+ca.pem"
files=(-f CHECK_PKG_FILES -h "$demo/sha256sums.p7s" -c "$demo/crls+ca.pem")
check files-valid valid "${files[@]}" -e "$demo/sha256sums"
mkdir "$work/changed"
cp "$demo"/{sha256sums,kernel.img,rootfs.img,upgrade.sh} "$work/changed/"
echo changed >>"$work/changed/kernel.img"
rm "$work/changed/upgrade.sh"
check files-changed-and-missing invalid "${files[@]}" -e "$work/changed/sha256sums"
check unknown-operation invalid -f nope
check no-arguments invalid

if ((failed)); then
    echo "valgrind: $failed of $count case(s) failed; logs were in $work" >&2
    exit 1
fi
echo "valgrind: $count case(s) clean: no memcheck error, nothing definitely or indirectly lost"
