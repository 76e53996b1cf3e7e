#!/usr/bin/env bash
# Prints the C++ lines of the tests (tests/, fuzz/, tools/testpki) and of the
# product (cms/, dbglog/, platform/, tool/, tools/crl_info, tools/pkg_sign),
# folder by folder, and the ratio of the two totals.
set -euo pipefail
cd "$(dirname "$0")/.."

lines() {
    find "$@" \( -name '*.cpp' -o -name '*.h' \) -print0 | xargs -0 -r cat | wc -l
}

total() {
    local sum=0 n
    for d in "$@"; do
        n=$(lines "$d")
        printf '  %-16s %6d\n' "$d" "$n"
        sum=$((sum + n))
    done
    printf '  %-16s %6d\n' total "$sum"
    echo "$sum" >"$tmp"
}

tmp=$(mktemp)
trap 'rm -f "$tmp"' EXIT
echo "test lines:"
total tests fuzz tools/testpki
tests=$(<"$tmp")
echo "product lines:"
total cms dbglog platform tool tools/crl_info tools/pkg_sign
product=$(<"$tmp")
awk -v t="$tests" -v p="$product" 'BEGIN { printf "ratio: %.2f\n", t / p }'
