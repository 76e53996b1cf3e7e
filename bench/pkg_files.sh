#!/usr/bin/env bash
# Wall time of CHECK_PKG_FILES on a package of FILES random files of MIB MiB
# each, against the two ways of doing the same job without it:
#   - `openssl dgst -sha256` over the same files, one after another (the
#     hashing alone, on one core);
#   - `verify_tool -f CHECK_PKG_INTEGRITY` followed by `sha256sum -c`;
# and, to show what the machine's second core gives at the time, two
# `openssl dgst` processes over half of the files each, run at once: on two
# free cores they take half the sequential time, on a busy machine more, and
# no parallel hashing can then do better.
# The commands run in paired rounds, alternating their order from round to
# round, so that a busy moment of the shared machine hits all of them; the
# ratios are taken per round and printed as median and min..max.
# Goal: CHECK_PKG_FILES at most 0.6 of the sequential openssl time on two
# cores, which only hashing files in parallel reaches.
#
# Usage: bench/pkg_files.sh [build dir] [MIB] [FILES] [ROUNDS]
#        (defaults: build 128 8 5; scripts/bench.sh runs a small package)
# Prints only; never fails on speed. The package lives in a temp directory
# under /tmp, removed on exit.
set -euo pipefail
export LC_ALL=C

self=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
cd "$(dirname "$self")/.."
build=${1:-build}
mib=${2:-128}
count=${3:-8}
rounds=${4:-5}
for n in "$mib" "$count" "$rounds"; do
    [[ $n =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 [build dir] [MIB] [FILES] [ROUNDS]" >&2; exit 2; }
done
tool=$build/tool/verify_tool

die() {
    echo "pkg_files: $*" >&2
    exit 1
}

if [[ ${VT_PKG_BENCH_STAGE:-} != measure ]]; then
    command -v openssl >/dev/null || die "openssl is missing"
    cmake --build "$build" --target verify_tool testpki_cli pkg_sign >/dev/null
    # As root with group 0 the tool would create the host's
    # /dev/shm/dbglog.cfg: give it a /dev/shm of its own (see bench/e2e.sh).
    export VT_PKG_BENCH_STAGE=measure
    if [[ $(id -g) != 0 ]]; then
        exec "$self" "$@"
    fi
    if unshare --mount --propagation private true 2>/dev/null; then
        # shellcheck disable=SC2016 # expanded by the inner shell
        exec unshare --mount --propagation private \
            sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$0" "$@"' "$self" "$@"
    fi
    if setpriv --regid=65534 --clear-groups true 2>/dev/null; then
        exec setpriv --regid=65534 --clear-groups "$self" "$@"
    fi
    die "cannot keep verify_tool from creating /dev/shm/dbglog.cfg (no unshare, no setpriv)"
fi

tmp=$(mktemp -d /tmp/vt-pkg-files.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
trap 'exit 130' INT TERM
pkg=$tmp/pkg
mkdir "$pkg"
echo "writing $count random files of $mib MiB..."
files=()
for i in $(seq "$count"); do
    head -c $((mib * 1024 * 1024)) /dev/urandom >"$pkg/part$i.img"
    files+=("$pkg/part$i.img")
done
"$build/tools/pkg_sign/pkg_sign" manifest --dir "$pkg" --out "$pkg/sha256sums"
"$build/tools/testpki/testpki" sign-demo "$pkg/sha256sums" "$tmp/sig" >/dev/null

sig=(-h "$tmp/sig/content.p7s" -e "$pkg/sha256sums" -c "$tmp/sig/crls+ca.pem")
run_files() { "$tool" -f CHECK_PKG_FILES "${sig[@]}"; }
run_dgst() { openssl dgst -sha256 "${files[@]}"; }
run_pair() { "$tool" -f CHECK_PKG_INTEGRITY "${sig[@]}" && (cd "$pkg" && sha256sum -c --quiet sha256sums); }
run_halves() {
    local half=$(((${#files[@]} + 1) / 2)) pid status=0
    if ((half == ${#files[@]})); then
        run_dgst
        return
    fi
    openssl dgst -sha256 "${files[@]:0:half}" &
    pid=$!
    openssl dgst -sha256 "${files[@]:half}" || status=1
    wait "$pid" || status=1
    return "$status"
}
names=(files dgst pair halves)

# Wall time of one command in microseconds into times[NAME]; a failing
# command ends the script, since its figure would mean nothing.
declare -A times
timed() {
    local start=${EPOCHREALTIME/./}
    "run_$1" >/dev/null 2>&1 || die "run_$1 failed"
    times[$1]+="$((${EPOCHREALTIME/./} - start)) "
}
# One untimed round brings every file into the page cache for every command.
for n in "${names[@]}"; do
    timed "$n"
    times[$n]=""
done
for r in $(seq "$rounds"); do
    if ((r % 2)); then order=(files dgst pair halves); else order=(halves pair dgst files); fi
    for n in "${order[@]}"; do
        timed "$n"
    done
done

# Median and min..max of the figures on standard input, scaled by $1.
summary() {
    sort -g | awk -v s="$1" '{ v[NR] = $1 * s }
        END { m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
              printf "%8.3f  (%.3f..%.3f)", m, v[1], v[NR] }'
}
# The per-round ratios of two commands' times.
ratios() {
    paste -d ' ' <(tr ' ' '\n' <<<"${times[$1]}") <(tr ' ' '\n' <<<"${times[$2]}") |
        awk 'NF == 2 { print $1 / $2 }'
}
list() { tr ' ' '\n' <<<"${times[$1]}" | grep .; }

echo
echo "package: $count files of $mib MiB, $rounds paired rounds, $(nproc) cores (median, min..max)"
printf '  %-44s %s s\n' "verify_tool -f CHECK_PKG_FILES" "$(list files | summary 1e-6)"
printf '  %-44s %s s\n' "openssl dgst -sha256, files one after another" "$(list dgst | summary 1e-6)"
printf '  %-44s %s s\n' "CHECK_PKG_INTEGRITY, then sha256sum -c" "$(list pair | summary 1e-6)"
printf '  %-44s %s s\n' "openssl dgst, two halves at once" "$(list halves | summary 1e-6)"
printf '  %-44s %s   (goal: at most 0.6)\n' "CHECK_PKG_FILES / openssl dgst" \
    "$(ratios files dgst | summary 1)"
printf '  %-44s %s\n' "CHECK_PKG_FILES / INTEGRITY + sha256sum -c" \
    "$(ratios files pair | summary 1)"
printf '  %-44s %s   (0.5: a free second core)\n' "openssl halves at once / one after another" \
    "$(ratios halves dgst | summary 1)"
printf '  %-44s %s\n' "CHECK_PKG_FILES / openssl halves at once" \
    "$(ratios files halves | summary 1)"
