// What the harnesses share: the abort that marks a broken promise, the
// checks that a context's stored records stay within their lists and own
// their bytes, and reading the generator's files. support.cpp, linked into
// every harness, keeps the libraries' logging off the host.
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cms/asn1/asn1.h"
#include "cms/asn1/x509.h"
#include "cms/internal.h"
#include "cms/pki/pki.h"

namespace fuzz_support {

inline void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

// Stored records must hold copies, never pointers into the caller's bytes.
inline bool Outside(const DorvexAsnOcts &o, const uint8_t *data, size_t size) {
    return o.data == nullptr || o.data + o.len <= data || o.data >= data + size;
}

inline void CheckStore(const DorvexVrfCtx *ctx, const uint8_t *data, size_t size) {
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

// A file of the generator's material; a harness without it cannot run.
inline std::vector<uint8_t> ReadOrDie(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    if (bytes.empty() || (!in.good() && !in.eof())) {
        fprintf(stderr, "fuzz: cannot read %s\n", path.c_str());
        exit(1);
    }
    return bytes;
}

}  // namespace fuzz_support

#endif  // FUZZ_SUPPORT_H
