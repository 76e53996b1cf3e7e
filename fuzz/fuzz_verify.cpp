// Detached signature verification of arbitrary bytes: Begin, Update and
// Final on a context that holds the demo root, the CA certificate and both
// CRLs, so mutated signatures get past decoding into the timestamp, path and
// signature checks. Besides the sanitizers, checks that Final leaves nothing
// pending, that the store and buffer lists stay within their capacity, and
// that no stored record points into the caller's bytes.
//
// The trust material and the signed content come from a demo package that
// the test-PKI generator wrote into the folder named by VT_FUZZ_VERIFY_DIR
// (scripts/fuzz.sh does that): root.der, crls+ca.pem and sha256sums.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cms/dorvex.h"
#include "cms/pki/pki.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes g_root;
Bytes g_crls;
Bytes g_content;

void Check(bool ok) {
    if (!ok) {
        abort();
    }
}

Bytes ReadOrDie(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof()) {
        bytes.clear();
    }
    if (bytes.empty()) {
        fprintf(stderr, "fuzz_verify: cannot read %s\n", path.c_str());
        exit(1);
    }
    return bytes;
}

bool Outside(const DorvexAsnOcts &o, const uint8_t *data, size_t size) {
    return o.data == nullptr || o.data + o.len <= data || o.data >= data + size;
}

void CheckCtx(const DorvexVrfCtx *ctx, const uint8_t *data, size_t size) {
    const DorvexPkiStore *store = ctx->pki;
    Check(store != nullptr);
    Check(store->certs.count >= 0 && store->certs.count <= DORVEX_LIST_CAPACITY);
    Check(ctx->rawBuffers.count >= 0 && ctx->rawBuffers.count <= DORVEX_LIST_CAPACITY);
    Check(ctx->processes.count == 0);
    for (int32_t i = 0; i < store->certs.count; ++i) {
        const auto *cert = static_cast<const DorvexX509Cert *>(store->certs.items[i]);
        Check(cert->refCount >= 1 && Outside(cert->tbsRaw, data, size));
    }
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
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > DORVEX_MAX_FILE_SIZE) {
        return 0;
    }
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
    Check(DorvexVrfCtxFree(ctx) == DORVEX_OK);
    return 0;
}
