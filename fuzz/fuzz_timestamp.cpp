// The timestamp-token road: arbitrary bytes as the token of an otherwise
// valid signer. The demo package's signature is rebuilt with the fuzzed
// bytes in place of its token (every enclosing length re-encoded), then
// verified with Begin, Update and Final on a context that holds the demo
// root, the CA certificate and both CRLs. The signer's own signature covers
// only its signed attributes, so a token derived from the real one still
// gets past the imprint into the authority's path, attribute and signature
// checks. Besides the sanitizers, checks that the store stays within its
// capacity, that Final leaves nothing pending, and that an accepted token
// signs exactly what the demo token signs (the oracle of signed_parts.h):
// a token accepted with another TSTInfo, other signed attributes or another
// authority certificate is a wrong verdict.
//
// Reads root.der, crls+ca.pem, sha256sums and sha256sums.p7s from the folder
// named by VT_FUZZ_VERIFY_DIR (scripts/fuzz.sh writes it with testpki).
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "cms/asn1/pkcs7.h"
#include "cms/dorvex.h"
#include "cms/pki/pki.h"
#include "fuzz/signed_parts.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Check;
using fuzz_support::ReadOrDie;

using Bytes = std::vector<uint8_t>;

Bytes g_root;
Bytes g_crls;
Bytes g_content;
Bytes g_signature;
size_t g_tokenStart = 0;
size_t g_tokenEnd = 0;
std::vector<Bytes> g_seedParts;

void Die(const std::string &why) {
    fprintf(stderr, "fuzz_timestamp: %s\n", why.c_str());
    exit(1);
}

// One element of the (trusted, well-formed) demo signature: single-octet
// tag, definite length.
struct Tlv {
    size_t start;
    size_t headerLen;
    size_t contentLen;
    size_t End() const { return start + headerLen + contentLen; }
};

Tlv ReadTlv(std::span<const uint8_t> der, size_t pos) {
    if (pos + 2 > der.size()) {
        Die("demo signature: element past the end");
    }
    size_t len = der[pos + 1];
    size_t header = 2;
    if ((len & 0x80) != 0) {
        const size_t count = len & 0x7F;
        if (count == 0 || count > 4 || pos + 2 + count > der.size()) {
            Die("demo signature: unexpected length form");
        }
        len = 0;
        for (size_t i = 0; i < count; ++i) {
            len = (len << 8) | der[pos + 2 + i];
        }
        header += count;
    }
    const Tlv tlv{pos, header, len};
    if (tlv.End() > der.size()) {
        Die("demo signature: element past the end");
    }
    return tlv;
}

void AppendLength(Bytes &out, size_t len) {
    if (len < 0x80) {
        out.push_back(static_cast<uint8_t>(len));
        return;
    }
    uint8_t octets[sizeof(size_t)];
    size_t count = 0;
    for (size_t v = len; v != 0; v >>= 8) {
        octets[count++] = static_cast<uint8_t>(v);
    }
    out.push_back(static_cast<uint8_t>(0x80 | count));
    while (count > 0) {
        out.push_back(octets[--count]);
    }
}

// The element at `pos` with the bytes [from, to) inside it replaced by
// `with`; the lengths of the element and of every element on the way down
// are written anew.
void Splice(std::span<const uint8_t> der, size_t pos, size_t from, size_t to,
            std::span<const uint8_t> with, Bytes &out) {
    const Tlv tlv = ReadTlv(der, pos);
    if (tlv.start == from && tlv.End() == to) {
        out.insert(out.end(), with.begin(), with.end());
        return;
    }
    if (to <= tlv.start || from >= tlv.End()) {
        out.insert(out.end(), der.begin() + static_cast<ptrdiff_t>(tlv.start),
                   der.begin() + static_cast<ptrdiff_t>(tlv.End()));
        return;
    }
    Bytes content;
    for (size_t child = tlv.start + tlv.headerLen; child < tlv.End();
         child = ReadTlv(der, child).End()) {
        Splice(der, child, from, to, with, content);
    }
    out.push_back(der[tlv.start]);
    AppendLength(out, content.size());
    out.insert(out.end(), content.begin(), content.end());
}

void FindToken() {
    DorvexPkcs7Content *content = nullptr;
    uint32_t consumed = 0;
    if (DorvexPkcs7DecodeSigned(g_signature.data(), static_cast<uint32_t>(g_signature.size()),
                                &content, &consumed) != DORVEX_OK) {
        Die("the demo signature does not decode");
    }
    const DorvexPkcs7SignedData &sd = content->signedData;
    if (sd.signerInfos.count != 1 ||
        sd.signerInfos.signerInfo[0].unsignedAttrs.timestampToken.data == nullptr) {
        Die("the demo signature has no timestamp token");
    }
    const DorvexAsnOcts &token = sd.signerInfos.signerInfo[0].unsignedAttrs.timestampToken;
    g_tokenStart = static_cast<size_t>(token.data - g_signature.data());
    const size_t tokenLen = token.len;
    g_tokenEnd = g_tokenStart + tokenLen;
    DorvexPkcs7FreeSigned(content);
    // The splice must give back the very signature for the real token.
    Bytes same;
    const std::span<const uint8_t> sig(g_signature);
    Splice(sig, 0, g_tokenStart, g_tokenEnd, sig.subspan(g_tokenStart, tokenLen), same);
    if (same != g_signature) {
        Die("rebuilding the demo signature does not give it back");
    }
}

// Begin, Update, Final; the verdict, or 0 when any step fails. For an
// accepted signature, *parts are its signed bytes.
uint32_t Verify(const Bytes &signature, std::vector<Bytes> *parts) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    Check(DorvexVerifyCreateCtx(&ctx, &params) == DORVEX_OK);
    Check(DorvexVerifyAddCert(ctx, g_root.data(), static_cast<uint32_t>(g_root.size())) ==
          DORVEX_OK);
    Check(DorvexVerifyAddCrl(ctx, g_crls.data(), static_cast<uint32_t>(g_crls.size())) ==
          DORVEX_OK);
    uint32_t ret = DorvexVerifyDetachSignatureBegin(ctx, signature.data(),
                                                    static_cast<uint32_t>(signature.size()));
    if (ret == DORVEX_OK) {
        ret = DorvexVerifyDetachSignatureUpdate(ctx, g_content.data(),
                                                static_cast<uint32_t>(g_content.size()));
    }
    uint32_t result = 0;
    const uint32_t finalRet = DorvexVerifyDetachSignatureFinal(ctx, &result);
    Check(result == 0 || result == 1);
    Check(ctx->processes.count == 0);
    Check(ctx->pki->certs.count >= 0 && ctx->pki->certs.count <= DORVEX_LIST_CAPACITY);
    Check(ctx->rawBuffers.count >= 0 && ctx->rawBuffers.count <= DORVEX_LIST_CAPACITY);
    const uint32_t verdict = ret == DORVEX_OK && finalRet == DORVEX_OK ? result : 0;
    if (verdict == 1 &&
        !fuzz_oracle::SignedParts(ctx, signature.data(), signature.size(), *parts)) {
        fprintf(stderr, "fuzz_timestamp: accepted, but its signers cannot be read back\n");
        abort();
    }
    Check(DorvexVrfCtxFree(ctx) == DORVEX_OK);
    return verdict;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const char *dir = getenv("VT_FUZZ_VERIFY_DIR");
    if (dir == nullptr || *dir == '\0') {
        Die("set VT_FUZZ_VERIFY_DIR to a folder written by 'testpki demo-package' "
            "(scripts/fuzz.sh does)");
    }
    const std::string base(dir);
    g_root = ReadOrDie(base + "/root.der");
    g_crls = ReadOrDie(base + "/crls+ca.pem");
    g_content = ReadOrDie(base + "/sha256sums");
    g_signature = ReadOrDie(base + "/sha256sums.p7s");
    FindToken();
    if (Verify(g_signature, &g_seedParts) != 1) {
        Die("the demo package does not verify");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A token too large for a signature file adds nothing.
    if (size > DORVEX_MAX_FILE_SIZE / 2) {
        return 0;
    }
    const std::span<const uint8_t> token(data, size);
    Bytes signature;
    Splice(g_signature, 0, g_tokenStart, g_tokenEnd, token, signature);
    std::vector<Bytes> parts;
    if (Verify(signature, &parts) == 1 && parts != g_seedParts) {
        fprintf(stderr, "fuzz_timestamp: accepted although its signed bytes are not the seed's\n");
        abort();
    }
    return 0;
}
