// Handler of "CHECK_PKG_INTEGRITY".
#include "cms/dorvex_errno.h"
#include "platform/lzeb_mem.h"
#include "platform/securec.h"
#include "tool/root_cert.h"
#include "tool/verify_tool.h"

static_assert(ROOT_CERT_LEN == ROOT_CERT_HEAD_LEN + ROOT_CERT_TAIL_LEN);

uint32_t GenerateRootCert(uint8_t **buffer, uint32_t *length) {
    auto *block = static_cast<uint8_t *>(LZEB_MallocSubStandard(
        VERIFY_TOOL_MODULE_ID, ROOT_CERT_LEN, 0, "GenerateRootCert", __LINE__));
    if (block == nullptr) {
        TOOL_LOG(DBG_LEVEL_ERR, "Initialize root certificate failed.");
        return DORVEX_ERR_MALLOC;
    }
    if (memcpy_s(block, ROOT_CERT_LEN, g_rootCert0, ROOT_CERT_HEAD_LEN) != SEC_OK ||
        memcpy_s(block + ROOT_CERT_HEAD_LEN, ROOT_CERT_TAIL_LEN, g_rootCert1, ROOT_CERT_TAIL_LEN) !=
            SEC_OK) {
        LZEB_FreeSub(block, "GenerateRootCert", __LINE__);
        return DORVEX_ERR_MALLOC;
    }
    *buffer = block;
    *length = ROOT_CERT_LEN;
    return 0;
}

// The package check needs the CMS verification library, which is not part of
// this build yet: refuse every package rather than pretend to check it.
int32_t UPGRADE_CheckPkgIntegrity(VerifyParam *param) {
    if (param == nullptr) {
        TOOL_LOG(DBG_LEVEL_ERR, "Parameter is NULL.");
        return -1;
    }
    TOOL_LOG(DBG_LEVEL_ERR, "Package integrity check is not available in this build.");
    return -1;
}
