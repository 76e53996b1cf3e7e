// Detached signature verification of arbitrary bytes: Begin, Update and
// Final on a context that holds the demo root, the CA certificate and both
// CRLs, so mutated signatures get past decoding into the timestamp, path and
// signature checks. Besides the sanitizers, checks that Final leaves nothing
// pending, that the store and buffer lists stay within their capacity, that
// no stored record points into the caller's bytes, and that an accepted
// input signs exactly what the demo package's signature signs (the oracle
// of signed_parts.h): anything else accepted is a wrong verdict.
//
// The trust material, the signed content and the seed signature come from a
// demo package that the test-PKI generator wrote into the folder named by
// VT_FUZZ_VERIFY_DIR (scripts/fuzz.sh does that): root.der, crls+ca.pem,
// sha256sums and sha256sums.p7s.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "cms/dorvex.h"
#include "cms/internal.h"
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
std::vector<Bytes> g_seedParts;

// The DER of a signature input: itself, or the body of its CMS or PKCS7
// armour decoded as the library decodes it. Empty when neither.
Bytes SignatureDer(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    if (!text.starts_with("-----BEGIN")) {
        return Bytes(data, data + size);
    }
    for (const std::string_view label : {"CMS", "PKCS7"}) {
        const std::string header = "-----BEGIN " + std::string(label) + "-----";
        const size_t end = text.find("-----END " + std::string(label) + "-----");
        if (!text.starts_with(header) || end == std::string_view::npos) {
            continue;
        }
        uint8_t *der = nullptr;
        uint32_t len = 0;
        if (InternalBase64Decode(text.data() + header.size(), text.data() + end, &der, &len) !=
            DORVEX_OK) {
            return {};
        }
        Bytes out(der, der + len);
        DorvexFree(der);
        return out;
    }
    return {};
}

void CheckCtx(const DorvexVrfCtx *ctx, const uint8_t *data, size_t size) {
    fuzz_support::CheckStore(ctx, data, size);
    Check(ctx->processes.count == 0);
}

// Begin, two Updates and Final on a fresh context; the verdict. For an
// accepted input, *parts are its signed bytes (read while the context still
// holds the store the verification used).
uint32_t Verify(const uint8_t *data, size_t size, std::vector<Bytes> *parts) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    Check(DorvexVerifyCreateCtx(&ctx, &params) == DORVEX_OK);
    Check(DorvexVerifyAddCert(ctx, g_root.data(), static_cast<uint32_t>(g_root.size())) ==
          DORVEX_OK);
    Check(DorvexVerifyAddCrl(ctx, g_crls.data(), static_cast<uint32_t>(g_crls.size())) ==
          DORVEX_OK);
    if (DorvexVerifyDetachSignatureBegin(ctx, data, static_cast<uint32_t>(size)) == DORVEX_OK) {
        // Two pieces, so a digest sees the content split.
        const size_t half = g_content.size() / 2;
        (void)DorvexVerifyDetachSignatureUpdate(ctx, g_content.data(), static_cast<uint32_t>(half));
        (void)DorvexVerifyDetachSignatureUpdate(ctx, g_content.data() + half,
                                                static_cast<uint32_t>(g_content.size() - half));
    }
    // Also after a failed Begin: what it left pending is finished and freed.
    uint32_t result = 0;
    (void)DorvexVerifyDetachSignatureFinal(ctx, &result);
    Check(result == 0 || result == 1);
    CheckCtx(ctx, data, size);
    if (result == 1) {
        const Bytes der = SignatureDer(data, size);
        if (!fuzz_oracle::SignedParts(ctx, der.data(), der.size(), *parts)) {
            fprintf(stderr, "fuzz_verify: accepted, but its signers cannot be read back\n");
            abort();
        }
    }
    Check(DorvexVrfCtxFree(ctx) == DORVEX_OK);
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const char *dir = getenv("VT_FUZZ_VERIFY_DIR");
    if (dir == nullptr || *dir == '\0') {
        fprintf(stderr,
                "fuzz_verify: set VT_FUZZ_VERIFY_DIR to a folder written by "
                "'testpki demo-package' (scripts/fuzz.sh does)\n");
        exit(1);
    }
    const std::string base(dir);
    g_root = ReadOrDie(base + "/root.der");
    g_crls = ReadOrDie(base + "/crls+ca.pem");
    g_content = ReadOrDie(base + "/sha256sums");
    const Bytes seed = ReadOrDie(base + "/sha256sums.p7s");
    if (Verify(seed.data(), seed.size(), &g_seedParts) != 1) {
        fprintf(stderr, "fuzz_verify: the demo package does not verify\n");
        exit(1);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > DORVEX_MAX_FILE_SIZE) {
        return 0;
    }
    std::vector<Bytes> parts;
    if (Verify(data, size, &parts) == 1 && parts != g_seedParts) {
        fprintf(stderr, "fuzz_verify: accepted although its signed bytes are not the seed's\n");
        abort();
    }
    return 0;
}
