// Verify context: creation, release and the library's version text.
#include <cstring>

#include "cms/adapt/adapt.h"
#include "cms/internal.h"
#include "cms/pki/pki.h"

#ifndef DORVEX_VERSION_TEXT
#error "DORVEX_VERSION_TEXT is set by the build"
#endif

namespace {

constexpr char g_drxVersion[] = DORVEX_VERSION_TEXT;
static_assert(sizeof(g_drxVersion) == DORVEX_VERSION_LEN + 1,
              "the version text has a fixed length of 17 characters");

void InternalFreeRawBuffer(void *buffer) {
    DorvexFree(buffer);
}

}  // namespace

void InternalFreeMdInfo(void *info) {
    auto *md = static_cast<DorvexMdInfo *>(info);
    if (md == nullptr) {
        return;
    }
    DorvexMdDestoryCtx(md->mdCtx);
    DorvexCryptoVerifyDestroyCtx(md->verifyCtx);
    DorvexFree(md);
}

uint32_t InternalCheckCtx(const DorvexVrfCtx *ctx) {
    if (ctx == nullptr) {
        return DORVEX_ERR_NULL_CTX;
    }
    if (ctx->size != DORVEX_VRF_CTX_SIZE) {
        return DORVEX_ERR_CTX_SIZE;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyCreateCtx(DorvexVrfCtx **ctx, const DorvexCtxCreateParams *params) {
    if (ctx == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    // Nothing stale is left in the caller's variable on any failure.
    *ctx = nullptr;
    if (params == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    if (params->size != DORVEX_CTX_CREATE_PARAMS_SIZE) {
        return DORVEX_ERR_CTX_SIZE;
    }
    void *block = nullptr;
    uint32_t ret = DorvexMallocWith0(&block, sizeof(DorvexVrfCtx));
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to allocate verify context.");
        return ret;
    }
    drx::BlockPtr<DorvexVrfCtx> created(static_cast<DorvexVrfCtx *>(block));
    ret = DorvexPkiInit(created.get());
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to create PKI store.");
        return ret;
    }
    created->size = DORVEX_VRF_CTX_SIZE;
    *ctx = created.release();
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVrfCtxFree(DorvexVrfCtx *ctx) {
    if (ctx == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    // The store goes first: its records point into rawBuffers.
    DorvexPkiUninit(ctx);
    DorvexListFree(&ctx->processes, InternalFreeMdInfo);
    DorvexListFree(&ctx->rawBuffers, InternalFreeRawBuffer);
    // Cleared so that a dangling handle is more likely to fail the size check.
    ctx->size = 0;
    DorvexFree(ctx);
    return DORVEX_OK;
}

extern "C" const char *DorvexGetVersion(void) {
    return g_drxVersion;
}
