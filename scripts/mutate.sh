#!/usr/bin/env bash
# Planted faults: each row below changes one line of the product the way a
# real edit could go wrong (a comparison, a boundary, a skipped check, a
# wrong result code, swapped arguments). For each one this script plants the
# fault in a scratch copy of the tree, builds it incrementally, runs the unit
# and end-to-end tests (ctest, stopping at the first failure) and prints
# whether the suite killed it. Every fault must be killed.
#
#   scripts/mutate.sh [-n] [filter]
#
# filter: an extended regular expression on "name file" (default: all rows);
# -n: only check that every fragment is found exactly once, build nothing.
# VT_MUTATE_ALL=1 runs the whole suite on every fault instead of stopping at
# the first failure, and leaves the names of all the failing tests in
# $VT_MUTATE_DIR/<fault>.killers (the kill matrix: a test no fault needs is
# one to question).
# The scratch tree and its build folder persist in $VT_MUTATE_DIR (default
# /tmp/vt-mutate-<user>), so a second run builds only what changed. Not part
# of CI: a full run takes about 8 minutes on two cores.
#
# A row names the file, a source fragment that must occur exactly once and its
# replacement, so it survives lines moving around; a fragment that is not
# found (or found twice) is reported as "not applied" and counts as a failure
# of this script, never silently skipped.
set -uo pipefail

check_only=0
if [[ ${1:-} == -n ]]; then
    check_only=1
    shift
fi
filter=${1:-.}

cd "$(dirname "$0")/.." || exit 1
root=$(pwd)
work=${VT_MUTATE_DIR:-/tmp/vt-mutate-$(id -un)}
src=$work/src
build=$work/build
jobs=${VT_MUTATE_JOBS:-2}
stop=(--stop-on-failure)
[[ -n ${VT_MUTATE_ALL:-} ]] && stop=()

# name @@ file @@ fragment @@ replacement
faults=$(
    cat <<'EOF'
der-length-overrun @@ cms/asn1/der.cpp @@ if (value > buf->size - buf->pos) { @@ if (value > buf->size - buf->pos + 1) {
der-long-form-zero @@ cms/asn1/der.cpp @@ if (count == 0 || count > kMaxLengthOctets) { @@ if (count > kMaxLengthOctets) {
der-int-not-minimal @@ cms/asn1/der.cpp @@ ((c[0] == 0x00 && c[1] < 0x80) || @@ ((c[0] == 0x01 && c[1] < 0x80) ||
der-explicit-exact @@ cms/asn1/der.cpp @@ if (inner.pos != inner.size) { @@ if (inner.pos + 1 < inner.size) {
der-setof-count @@ cms/asn1/der.cpp @@ if (count >= inner.maxCount) { @@ if (count > inner.maxCount) {
name-utc-century @@ cms/asn1/name.cpp @@ yy < 50 ? 2000 + yy : 1900 + yy @@ yy <= 50 ? 2000 + yy : 1900 + yy
name-leap-day @@ cms/asn1/name.cpp @@ (t.month == 2 && IsLeapYear(t.year) ? 1 : 0) @@ (t.month == 2 && IsLeapYear(t.year + 1) ? 1 : 0)
name-fraction-zero @@ cms/asn1/name.cpp @@ AllDigits(text + 1, n - 1) && text[n - 1] != '0'; @@ AllDigits(text + 1, n - 1);
x509-serial-last-byte @@ cms/asn1/x509.cpp @@ return a.len == 0 ? 0 : memcmp(a.data, b.data, a.len); @@ return a.len == 0 ? 0 : memcmp(a.data, b.data, a.len - 1);
x509-entry-issuer-inherit @@ cms/asn1/x509.cpp @@ if (attrs.certificateIssuer.data == nullptr && i > 0) { @@ if (attrs.certificateIssuer.data == nullptr && i > 1) {
pkcs7-ess-v2-hash @@ cms/asn1/pkcs7.cpp @@ } else if (id->hashAlgorithm.algorithm.data == nullptr) { @@ } else if (id->hashAlgorithm.algorithm.data != nullptr) {
pubkey-too-long @@ cms/asn1/pubkey.cpp @@ if (part.len > DORVEX_BIGINT_MAX_LEN) { @@ if (part.len >= DORVEX_BIGINT_MAX_LEN) {
base64-three-pads @@ cms/adapt/base64.cpp @@ if (++p > 2) { @@ if (++p > 3) {
base64-inner-blank @@ cms/adapt/base64.cpp @@ if (blanks > 0) { @@ if (blanks > 1) {
provider-even-exponent @@ cms/adapt/provider.cpp @@ value >= 3 && value <= kMaxExponent && (value & 1) == 1; @@ value >= 3 && value <= kMaxExponent;
calendar-march-start @@ cms/adapt/calendar.cpp @@ if (month <= 0) { @@ if (month < 0) {
adapt-file-type @@ cms/adapt/adapt.cpp @@ return DORVEX_ERR_FILE_TYPE; @@ return DORVEX_ERR_FILE_OPEN;
pki-revoked-at-second @@ cms/pki/crl.cpp @@ revoked = ctx->verifyTime >= revokedAt; @@ revoked = ctx->verifyTime > revokedAt;
pki-crl-next-update @@ cms/pki/crl.cpp @@ if (ctx->verifyTime > nextUpdate) { @@ if (ctx->verifyTime >= nextUpdate) {
pki-user-certs-only @@ cms/pki/crl.cpp @@ (idp.onlyContainsUserCerts == 1 && isCa) @@ (idp.onlyContainsUserCerts == 1 && !isCa)
pki-superseded-sound @@ cms/pki/crl.cpp @@ reason == kReasonSuperseded || @@ false ||
pki-list-full @@ cms/base/list.cpp @@ if (list->count >= DORVEX_LIST_CAPACITY) { @@ if (list->count > DORVEX_LIST_CAPACITY - 1 + 1) {
pki-crl-sign-bit @@ cms/pki/store.cpp @@ (cert.certInfo.extensions.keyUsage & kDrxKuCrlSign) == 0) { @@ false) {
pki-not-before @@ cms/pki/verify.cpp @@ ctx->verifyTime < notBefore) { @@ ctx->verifyTime <= notBefore) {
pki-depth @@ cms/pki/verify.cpp @@ if (depth >= kDrxMaxRootDepth) { @@ if (depth > kDrxMaxRootDepth) {
pki-cert-sign-bit @@ cms/pki/verify.cpp @@ (candidate->certInfo.extensions.keyUsage & kDrxKuKeyCertSign) == 0 || @@ false ||
pki-critical-code @@ cms/pki/verify.cpp @@ return DORVEX_ERR_CERT_CRITICAL_EXT; @@ return DORVEX_ERR_CERT_REVOKED;
ts-cert-missing-code @@ cms/timestamp.cpp @@ "Can't find certificate of timestamp signer.");\n        return DORVEX_ERR_TS_CERT_NOT_FOUND; @@ "Can't find certificate of timestamp signer.");\n        return DORVEX_ERR_SIGNER_CERT_NOT_FOUND;
ts-hash-mismatch @@ cms/timestamp.cpp @@ return DORVEX_ERR_TS_MISMATCH; @@ return DORVEX_OK;
ts-no-signers @@ cms/timestamp.cpp @@ if (signers.count == 0) { @@ if (false) {
intake-tail-boundary @@ cms/intake.cpp @@ if (left < kDrxIgnoredTailMax) { @@ if (left <= kDrxIgnoredTailMax) {
intake-file-too-large @@ cms/intake.cpp @@ if (size > maxSize) { @@ if (size > maxSize + 1) {
detached-sig-too-long @@ cms/detached.cpp @@ if (signature.len > DORVEX_SIG_MAX_LEN) { @@ if (signature.len >= DORVEX_SIG_MAX_LEN) {
detached-min-input @@ cms/detached.cpp @@ if (length < kDrxMinInputLen) { @@ if (length <= kDrxMinInputLen) {
detached-signer-code @@ cms/detached.cpp @@ return DORVEX_ERR_SIGNER_CERT_NOT_FOUND; @@ return DORVEX_ERR_TS_CERT_NOT_FOUND;
detached-digest-conflict @@ cms/detached.cpp @@ return DORVEX_ERR_DIGEST_CONFLICT; @@ break;
detached-overlap-last-piece @@ cms/detached.cpp @@ ret = DorvexVerifyDetachSignatureUpdate(ctx, slot.piece.get(), slot.got); @@ ret = DorvexVerifyDetachSignatureUpdate(ctx, slot.piece.get(), pieceSize);
crlinfo-newer @@ cms/crl_info.cpp @@ a->thisUpdate > b->thisUpdate ? DORVEX_CRL_CMP_FIRST_NEWER @@ a->thisUpdate < b->thisUpdate ? DORVEX_CRL_CMP_FIRST_NEWER
crlinfo-serial-len @@ cms/crl_info.cpp @@         if (serial.data == nullptr || serial.len == 0 || serial.len > DORVEX_CRL_SERIAL_LEN) { @@         if (serial.data == nullptr || serial.len == 0 || serial.len > DORVEX_CRL_SERIAL_LEN + 1) {
vrfctx-params-size @@ cms/vrf_ctx.cpp @@ if (params->size != DORVEX_CTX_CREATE_PARAMS_SIZE) { @@ if (params->size < DORVEX_CTX_CREATE_PARAMS_SIZE) {
dbglog-period @@ dbglog/gid_limit.cpp @@ if (now.tv_sec > s->begin.tv_sec + period) { @@ if (now.tv_sec >= s->begin.tv_sec + period) {
dbglog-burst-count @@ dbglog/gid_limit.cpp @@ if (num != 0 && num > s->printed) { @@ if (num != 0 && num >= s->printed) {
dbglog-top-level @@ dbglog/log.cpp @@ level <= DBG_LEVEL_DBG; @@ level < DBG_LEVEL_DBG;
dbglog-pid-zero @@ dbglog/pid_level.cpp @@ if (!ok || tmpl.pid == 0) { @@ if (!ok) {
dbglog-installed-clock @@ dbglog/zeb_sys.cpp @@ g_installed.monotonic = sys->monotonic != nullptr ? sys->monotonic : kDevice.monotonic; @@ g_installed.monotonic = kDevice.monotonic;
dbglog-conf-word @@ dbglog/conf_file.cpp @@ if (length == 0 || length >= size || @@ if (length == 0 || length > size ||
platform-overlap @@ platform/securec.cpp @@ return pa < pb ? pb - pa < aLen : pa - pb < bLen; @@ return pa < pb ? pb - pa < aLen : pa - pb < bLen - 1;
platform-readline-room @@ platform/lzeb_file.cpp @@ while (count < size - 1) { @@ while (count < size) {
platform-module-zero @@ platform/lzeb_mem.cpp @@ if (size == 0 || moduleId == 0) { @@ if (size == 0) {
platform-rb-delete-fix @@ platform/rbtree.cpp @@ if (IsBlackOrNull(sibling->rb_left) && IsBlackOrNull(sibling->rb_right)) { @@ if (IsBlackOrNull(sibling->rb_left) || IsBlackOrNull(sibling->rb_right)) {
tool-arg-width @@ tool/cmdline.cpp @@ strlen(optarg) >= target.width) { @@ strlen(optarg) > target.width) {
tool-exit-low-byte @@ tool/cmdline.cpp @@ if (result != 0 && (result & 0xFF) == 0) { @@ if (result != 0 && (result & 0xFF) == 1) {
tool-list-dotdot @@ tool/pkg_list.cpp @@ if (name == "..") { @@ if (name == "...") {
tool-list-binary-mark @@ tool/pkg_list.cpp @@ (line[hexLen + 1] != ' ' && line[hexLen + 1] != '*')) { @@ (line[hexLen + 1] != ' ')) {
tool-hash-last-byte @@ tool/pkg_hasher.cpp @@ std::memcmp(digest, entry.digest, digestLen) != 0) { @@ std::memcmp(digest, entry.digest, digestLen - 1) != 0) {
tool-file-limit @@ tool/pkg_files.cpp @@ if (static_cast<uint64_t>(st.st_size) > limit) { @@ if (static_cast<uint64_t>(st.st_size) > limit + 1) {
crl-info-equal-replaces @@ tools/crl_info/crl_info.cpp @@ (result == DORVEX_CRL_CMP_FIRST_NEWER || result == DORVEX_CRL_CMP_EQUAL); @@ (result == DORVEX_CRL_CMP_FIRST_NEWER);
crl-info-control-char @@ tools/crl_info/crl_info.cpp @@ if (byte < 0x20 || byte == 0x7F) { @@ if (byte < 0x1F || byte == 0x7F) {
pkg-sign-rsa-bits @@ tools/pkg_sign/core.cpp @@ if (bits < kMinRsaBits || bits > kMaxRsaBits) { @@ if (bits < kMinRsaBits || bits >= kMaxRsaBits) {
pkg-sign-v1-cert @@ tools/pkg_sign/core.cpp @@ if (X509_get_version(cert) == X509_VERSION_1) { @@ if (X509_get_version(cert) == X509_VERSION_2) {
pkg-sign-skip-self @@ tools/pkg_sign/manifest.cpp @@ if (haveSkip && st.st_dev == skipped.st_dev && st.st_ino == skipped.st_ino) { @@ if (!haveSkip && st.st_dev == skipped.st_dev && st.st_ino == skipped.st_ino) {
EOF
)

# plant <file> <fragment> <replacement>: replaces the fragment, which must
# occur exactly once ("\n" in either stands for a line break). Prints the
# number of occurrences found when it is not one.
plant() {
    local file=$1 frag=${2//\\n/$'\n'} repl=${3//\\n/$'\n'}
    local text
    text=$(<"$file") || return 1
    local rest=${text//"$frag"/}
    local found=$(((${#text} - ${#rest}) / ${#frag}))
    if ((found != 1)); then
        echo "$found"
        return 1
    fi
    printf '%s\n' "${text/"$frag"/"$repl"}" >"$file"
}

if ((check_only == 0)); then
    mkdir -p "$src" "$build"
    # Only changed files are copied (no rsync on a plain Debian), so the build
    # below stays incremental; files gone from the tree go from the copy.
    git ls-files -co --exclude-standard | while IFS= read -r f; do [[ -f $f ]] && echo "$f"; done |
        sort >"$work/files"
    (cd "$src" && find . -type f | sed 's|^\./||' | sort) | comm -23 - "$work/files" |
        (cd "$src" && xargs -r -d '\n' rm -f)
    while IFS= read -r f; do
        if ! cmp -s "$f" "$src/$f"; then
            mkdir -p "$src/$(dirname "$f")"
            cp "$f" "$src/$f"
        fi
    done <"$work/files"
    if [[ ! -f $build/build.ninja ]]; then
        cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    fi
    echo "building the unchanged tree in $build"
    if ! cmake --build "$build" -j "$jobs" >"$work/build.log" 2>&1 ||
        ! ctest --test-dir "$build" -j "$jobs" -E '\.Whole$|^InstallPackage' --timeout 120 \
            >"$work/test.log" 2>&1; then
        echo "the unchanged tree does not build or pass its tests: see $work" >&2
        exit 1
    fi
fi

mkdir -p "$work"
planted=
# An interrupted run restores the planted file too (with a fresh time, see
# below).
trap '[[ -n $planted ]] && cat "$work/pristine" >"$planted"' EXIT

killed=0
survived=0
unapplied=0
started=$(date +%s)
while IFS= read -r row; do
    [[ -z $row ]] && continue
    name=${row%% @@ *}
    rest=${row#* @@ }
    file=${rest%% @@ *}
    rest=${rest#* @@ }
    frag=${rest%% @@ *}
    repl=${rest#* @@ }
    [[ "$name $file" =~ $filter ]] || continue
    base=$root
    ((check_only == 0)) && base=$src
    if [[ ! -f $base/$file ]]; then
        printf '%-28s %-30s not applied (no such file)\n' "$name" "$file"
        ((++unapplied))
        continue
    fi
    if ((check_only)); then
        scratch=$work/check
        cp "$base/$file" "$scratch"
        if count=$(plant "$scratch" "$frag" "$repl"); then
            printf '%-28s %-30s applies\n' "$name" "$file"
        else
            printf '%-28s %-30s not applied (fragment found %s times)\n' "$name" "$file" "$count"
            ((++unapplied))
        fi
        continue
    fi
    cp "$src/$file" "$work/pristine"
    planted=$src/$file
    if ! count=$(plant "$src/$file" "$frag" "$repl"); then
        printf '%-28s %-30s not applied (fragment found %s times)\n' "$name" "$file" "$count"
        ((++unapplied))
        continue
    fi
    t0=$(date +%s)
    if ! cmake --build "$build" -j "$jobs" >"$work/$name.build.log" 2>&1; then
        # A fault the compiler refuses is no fault a change could bring in.
        verdict="not applied (does not build, see $work/$name.build.log)"
        ((++unapplied))
    elif ctest --test-dir "$build" -j "$jobs" -E '\.Whole$|^InstallPackage' --timeout 120 \
        "${stop[@]}" >"$work/$name.test.log" 2>&1; then
        verdict="SURVIVED"
        ((++survived))
    else
        # Every failing test, one a line, for the kill matrix.
        sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) .*(Failed|Timeout|Exception|Not Run).*/\1/p' \
            "$work/$name.test.log" >"$work/$name.killers"
        verdict="killed by $(head -1 "$work/$name.killers") ($(wc -l <"$work/$name.killers") failing)"
        ((++killed))
    fi
    # A fresh modification time, so that the next build compiles the
    # restored file again.
    cat "$work/pristine" >"$src/$file"
    planted=
    printf '%-28s %-30s %s (%ss)\n' "$name" "$file" "$verdict" $(($(date +%s) - t0))
done <<<"$faults"

if ((check_only)); then
    echo "$unapplied not applied"
    ((unapplied == 0))
    exit
fi
echo "$killed killed, $survived survived, $unapplied not applied ($(($(date +%s) - started))s)"
((survived == 0 && unapplied == 0))
