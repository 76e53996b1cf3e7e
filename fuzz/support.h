// What the harnesses share: checks, a fresh context, the generator's files
// and owners of OpenSSL objects.
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <openssl/x509.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "cms/asn1/asn1.h"
#include "cms/asn1/x509.h"
#include "cms/base/owned.h"
#include "cms/dorvex.h"
#include "cms/internal.h"
#include "cms/pki/pki.h"

namespace fuzz_support {

using Bytes = std::vector<uint8_t>;

inline void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

// Missing or broken material: the harness cannot run.
[[noreturn]] inline void Die(const std::string &why) {
    fprintf(stderr, "fuzz: %s\n", why.c_str());
    exit(1);
}

// A decoded member lies within the input it was decoded from.
inline bool Inside(const DorvexAsnOcts &o, const uint8_t *data, size_t size) {
    return o.data == nullptr || (o.data >= data && o.len <= size && o.data + o.len <= data + size);
}

inline bool Outside(const void *p, const uint8_t *data, size_t size) {
    const auto *b = static_cast<const uint8_t *>(p);
    return b < data || b >= data + size;
}

// The store within capacity; its records live and own their bytes.
inline void CheckStore(const DorvexVrfCtx *ctx, const uint8_t *data, size_t size) {
    const DorvexPkiStore *store = ctx->pki;
    Check(store != nullptr);
    Check(store->certs.count >= 0 && store->certs.count <= DORVEX_LIST_CAPACITY);
    Check(store->crls.count >= 0 && store->crls.count <= DORVEX_LIST_CAPACITY);
    Check(ctx->rawBuffers.count >= 0 && ctx->rawBuffers.count <= DORVEX_LIST_CAPACITY);
    for (int32_t i = 0; i < store->certs.count; ++i) {
        const auto *cert = static_cast<const DorvexX509Cert *>(store->certs.items[i]);
        Check(cert->refCount >= 1 && Outside(cert->tbsRaw.data, data, size));
    }
    for (int32_t i = 0; i < store->crls.count; ++i) {
        const auto *crl = static_cast<const DorvexX509Crl *>(store->crls.items[i]);
        Check(crl->refCount >= 1 && Outside(crl->tbsRaw.data, data, size));
    }
}

inline DorvexVrfCtx *NewCtx() {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    Check(DorvexVerifyCreateCtx(&ctx, &params) == DORVEX_OK);
    return ctx;
}

// The folder a variable names; scripts/fuzz.sh fills it with `testpki what`.
inline std::string FolderOf(const char *variable, const char *what) {
    const char *dir = getenv(variable);
    if (dir == nullptr || *dir == '\0') {
        Die(std::string("set ") + variable + " to a folder written by 'testpki " + what +
            "' (scripts/fuzz.sh does)");
    }
    return dir;
}

inline Bytes ReadOrDie(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.empty() || (!in.good() && !in.eof())) {
        Die("cannot read " + path);
    }
    return bytes;
}

template <auto FreeFn>
using Deleter = drx::FreeWith<FreeFn>;
using X509Ptr = drx::Owned<X509, X509_free>;
using CrlPtr = drx::Owned<X509_CRL, X509_CRL_free>;

}  // namespace fuzz_support

#endif  // FUZZ_SUPPORT_H
