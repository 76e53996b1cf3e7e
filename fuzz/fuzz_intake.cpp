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

namespace {

void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

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

bool Outside(const DorvexAsnOcts &o, const uint8_t *data, size_t size) {
    return o.data == nullptr || o.data + o.len <= data || o.data >= data + size;
}

void CheckStore(const DorvexVrfCtx *ctx, const uint8_t *data, size_t size) {
    const DorvexPkiStore *store = ctx->pki;
    Check(store != nullptr);
    Check(store->certs.count >= 0 && store->certs.count <= DORVEX_LIST_CAPACITY);
    Check(store->crls.count >= 0 && store->crls.count <= DORVEX_LIST_CAPACITY);
    Check(ctx->rawBuffers.count >= 0 && ctx->rawBuffers.count <= DORVEX_LIST_CAPACITY);
    for (int32_t i = 0; i < store->certs.count; ++i) {
        const auto *cert = static_cast<const DorvexX509Cert *>(store->certs.items[i]);
        Check(cert->refCount >= 1 && Outside(cert->tbsRaw, data, size));
    }
    for (int32_t i = 0; i < store->crls.count; ++i) {
        const auto *crl = static_cast<const DorvexX509Crl *>(store->crls.items[i]);
        Check(crl->refCount >= 1 && Outside(crl->tbsRaw, data, size));
    }
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
