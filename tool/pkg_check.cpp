// Handler of "CHECK_PKG_INTEGRITY": is the checksum file authentic?
//
// Context, built-in root, CRL file, then the one-call detached verification
// of the checksum file against the CMS signature: the root goes in first so
// that the store, which answers every lookup with the first fitting
// certificate, finds it before anything a file brings, and the CRLs go in
// before the signature because paths are judged, revocation included, while
// it is checked. The context and the root block are released on every path
// after the context exists.
#include "cms/dorvex.h"
#include "platform/lzeb_mem.h"
#include "platform/securec.h"
#include "tool/verify_tool.h"

namespace {

// Plain failure of the check, returned as a result code (exit status 255).
constexpr uint32_t kCheckFailed = 0xFFFFFFFFu;
constexpr uint64_t kCreateParamsSize = 72;

}  // namespace

uint32_t VerifyProcessPostHandle(uint32_t result, DorvexVrfCtx *context, uint8_t *rootBuffer) {
    if (context != nullptr) {
        DorvexVrfCtxFree(context);
    }
    if (rootBuffer != nullptr) {
        LZEB_FreeSub(rootBuffer, "VerifyProcessPostHandle", __LINE__);
    }
    return result;
}

uint32_t VerifyCmsFile(const char *cmsPath, const char *checksumPath, const char *crlPath) {
    if (cmsPath == nullptr || checksumPath == nullptr || crlPath == nullptr) {
        TOOL_LOG(DBG_LEVEL_ERR, "Params are invalid.");
        return DORVEX_ERR_PARAM;
    }
    DorvexCtxCreateParams params;
    memset_s(&params, sizeof params, 0, sizeof params);
    params.size = kCreateParamsSize;
    DorvexVrfCtx *context = nullptr;
    uint32_t ret = DorvexVerifyCreateCtx(&context, &params);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Create verify context failed.");
        return ret;
    }

    uint8_t *root = nullptr;
    uint32_t rootLength = 0;
    ret = GenerateRootCert(&root, &rootLength);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Combine root certificate failed.");
        return VerifyProcessPostHandle(ret, context, root);
    }
    ret = DorvexVerifyAddCert(context, root, rootLength);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Add root certificate failed.");
        return VerifyProcessPostHandle(ret, context, root);
    }
    ret = DorvexVerifyAddCrlFile(context, crlPath);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Add CRL file %s failed.", crlPath);
        return VerifyProcessPostHandle(ret, context, root);
    }
    uint32_t matched = 0;
    ret = DorvexVerifyDetachSignatureQuick(context, checksumPath, cmsPath, &matched);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Verify signature error, code %x.", ret);
        return VerifyProcessPostHandle(ret, context, root);
    }
    if (matched == 1) {
        TOOL_LOG(DBG_LEVEL_INFO, "CheckSum file is valid.");
        ret = 0;
    } else {
        TOOL_LOG(DBG_LEVEL_ERR, "Verify signature not match.");
        ret = kCheckFailed;
    }
    return VerifyProcessPostHandle(ret, context, root);
}

int32_t UPGRADE_CheckPkgIntegrity(VerifyParam *param) {
    if (param == nullptr) {
        TOOL_LOG(DBG_LEVEL_ERR, "Parameter is NULL.");
        return -1;
    }
    return static_cast<int32_t>(VerifyCmsFile(param->cmsPath, param->checksumPath, param->crlPath));
}
