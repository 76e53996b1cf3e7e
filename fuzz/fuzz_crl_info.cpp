// DorvexDecodeCrl on arbitrary bytes, in a context that trusts the built-in
// root so that decoded CRLs reach the signer search and path verification.
// The input is fed as it is and with the root appended, which counts as the
// certificate a CRL file must carry, so lone CRLs are reported too. Besides
// the sanitizers, checks the records' bounds, that nothing in them points
// into the input, and that a set compared with itself is equivalent.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "cms/dorvex.h"
#include "fuzz/support.h"
#include "root_cert/root_cert.h"

namespace {

using fuzz_support::Check;

std::vector<uint8_t> RootCert() {
    std::vector<uint8_t> der(g_rootCert0, g_rootCert0 + ROOT_CERT_HEAD_LEN);
    der.insert(der.end(), g_rootCert1, g_rootCert1 + ROOT_CERT_TAIL_LEN);
    return der;
}

bool Outside(const void *p, const uint8_t *data, size_t size) {
    const auto *b = static_cast<const uint8_t *>(p);
    return b < data || b >= data + size;
}

void CheckList(const DorvexCrlInfoList *list, const uint8_t *data, size_t size) {
    Check(list->size == sizeof(DorvexCrlInfoList) && list->count <= DORVEX_CRL_INFO_MAX);
    for (uint32_t i = 0; i < list->count; ++i) {
        const DorvexCrlInfo *info = list->crlInfo[i];
        Check(info != nullptr && info->verified <= 1);
        Check(memchr(info->issuerName, '\0', sizeof(info->issuerName)) != nullptr);
        Check(info->issuerSerialLen <= DORVEX_CRL_SERIAL_LEN);
        Check((info->revoked == nullptr) == (info->revokedCount == 0));
        if (info->revoked != nullptr) {
            Check(Outside(info->revoked, data, size));
        }
        for (uint32_t j = 0; j < info->revokedCount; ++j) {
            Check(info->revoked[j].len <= DORVEX_CRL_SERIAL_LEN);
        }
    }
}

void Feed(const uint8_t *data, size_t size, const std::vector<uint8_t> &root) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    Check(DorvexVerifyCreateCtx(&ctx, &params) == DORVEX_OK);
    Check(DorvexVerifyAddCert(ctx, root.data(), static_cast<uint32_t>(root.size())) == DORVEX_OK);
    DorvexCrlInfoList *list = nullptr;
    uint32_t ret = DorvexDecodeCrl(ctx, data, static_cast<uint32_t>(size), &list);
    Check((ret == DORVEX_OK) == (list != nullptr));
    if (list != nullptr) {
        CheckList(list, data, size);
        uint32_t result = 99;
        ret = DorvexCrlCompare(ctx, list, list, &result);
        Check((ret == DORVEX_OK && result == DORVEX_CRL_CMP_EQUAL) ||
              (ret == DORVEX_ERR_CRL_SET_EMPTY && result == 99) ||
              ((ret == DORVEX_ERR_CRL_SET_INVALID || ret == DORVEX_ERR_CRL_DUP_ISSUER) &&
               result == DORVEX_CRL_CMP_UNDECIDABLE));
        Check(DorvexCrlFree(ctx, list) == DORVEX_OK);
    }
    Check(DorvexVrfCtxFree(ctx) == DORVEX_OK);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > DORVEX_MAX_FILE_SIZE / 2) {
        return 0;
    }
    static const std::vector<uint8_t> root = RootCert();
    Feed(data, size, root);
    std::vector<uint8_t> withRoot(data, data + size);
    withRoot.insert(withRoot.end(), root.begin(), root.end());
    Feed(withRoot.data(), withRoot.size(), root);
    return 0;
}
