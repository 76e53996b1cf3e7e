// The built-in root certificate, joined from its two pieces for every
// program that trusts what verify_tool trusts.
#include "root_cert/root_cert.h"

#include "cms/base/dorvex_errno.h"
#include "dbglog/dbglog.h"
#include "platform/lzeb_mem.h"
#include "platform/securec.h"

static_assert(ROOT_CERT_LEN == ROOT_CERT_HEAD_LEN + ROOT_CERT_TAIL_LEN);

uint32_t GenerateRootCert(uint8_t **buffer, uint32_t *length) {
    auto *block = static_cast<uint8_t *>(LZEB_MallocSubStandard(
        DBG_MODULE_VERIFY_TOOL, ROOT_CERT_LEN, 0, "GenerateRootCert", __LINE__));
    if (block == nullptr) {
        DBG_Log(DBG_MODULE_VERIFY_TOOL, DBG_LEVEL_ERR, __func__, __LINE__, 0,
                "Initialize root certificate failed.");
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
