// Trust-material intake of arbitrary bytes through the public functions:
// the input as a DER stream for certificates and for CRLs, as the text of a
// PEM walk, and base64-wrapped in certificate and CRL blocks so that mutated
// DER reaches the block decoders. Besides the sanitizers, checks that the
// store stays within its capacity and holds only live records, and that no
// stored record points into the caller's bytes.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "cms/dorvex.h"
#include "cms/pki/pki.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Check;
using fuzz_support::CheckStore;

std::string Base64(const uint8_t *data, size_t size) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < size; i += 3) {
        uint32_t group = static_cast<uint32_t>(data[i]) << 16;
        group |= i + 1 < size ? static_cast<uint32_t>(data[i + 1]) << 8 : 0;
        group |= i + 2 < size ? data[i + 2] : 0;
        out += alphabet[(group >> 18) & 63];
        out += alphabet[(group >> 12) & 63];
        out += i + 1 < size ? alphabet[(group >> 6) & 63] : '=';
        out += i + 2 < size ? alphabet[group & 63] : '=';
        if (i % 48 == 45) {
            out += '\n';
        }
    }
    return out;
}

void Feed(const uint8_t *data, size_t size, bool crl) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    Check(DorvexVerifyCreateCtx(&ctx, &params) == DORVEX_OK);
    const auto length = static_cast<uint32_t>(size);
    (void)(crl ? DorvexVerifyAddCrl(ctx, data, length) : DorvexVerifyAddCert(ctx, data, length));
    CheckStore(ctx, data, size);
    Check(DorvexVrfCtxFree(ctx) == DORVEX_OK);
}

void FeedText(const std::string &text, bool crl) {
    Feed(reinterpret_cast<const uint8_t *>(text.data()), text.size(), crl);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Inputs beyond the file limit add nothing but time.
    if (size == 0 || size > DORVEX_MAX_FILE_SIZE) {
        return 0;
    }
    Feed(data, size, false);
    Feed(data, size, true);
    FeedText("-----BEGIN" + std::string(reinterpret_cast<const char *>(data), size), true);
    const std::string body = Base64(data, size);
    FeedText("-----BEGIN CERTIFICATE-----\n" + body + "\n-----END CERTIFICATE-----\n" +
                 "-----BEGIN X509 CRL-----\n" + body + "\n-----END X509 CRL-----\n",
             true);
    return 0;
}
