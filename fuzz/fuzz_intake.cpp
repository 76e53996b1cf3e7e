// The readers of files a package brings along, each on the whole input:
// DorvexBase64Decode, the checksum-file parser, the trust intake (certificates
// as DER, CRLs as a PEM walk) and DorvexDecodeCrl trusting the built-in root,
// on the input and with the root appended; with the promises each makes.
#include <string.h>

#include <span>

#include "cms/adapt/adapt.h"
#include "cms/base/dorvex_errno.h"
#include "fuzz/support.h"
#include "root_cert/root_cert.h"
#include "tool/pkg_files.h"

namespace {

using fuzz_support::Bytes;
using fuzz_support::Check;

void Base64(const uint8_t *data, size_t size) {
    const auto srcLength = static_cast<int32_t>(size);
    uint32_t needed = 0;
    const uint32_t rc = DorvexBase64Decode(data, srcLength, nullptr, &needed);
    if (rc != DORVEX_OK) {
        Check(rc == DORVEX_ERR_BASE64);
        uint8_t canary[4] = {1, 2, 3, 4};
        uint32_t len = sizeof canary;
        Check(DorvexBase64Decode(data, srcLength, canary, &len) == rc);
        Check(len == sizeof canary && memcmp(canary, "\1\2\3\4", 4) == 0);
        return;
    }
    Check(needed <= size);
    // One byte short: nothing written; then the exact need, so ASan sees overruns.
    Bytes buffer(needed > 0 ? needed : 1, 0x5A);
    const Bytes untouched = buffer;
    uint32_t len = needed > 0 ? needed - 1 : 0;
    Check(DorvexBase64Decode(data, srcLength, buffer.data(), &len) == DORVEX_OK && len == needed);
    Check(buffer == untouched);
    len = needed;
    Check(DorvexBase64Decode(data, srcLength, buffer.data(), &len) == DORVEX_OK && len <= needed);
}

void PkgList(const uint8_t *data, size_t size) {
    std::vector<PkgEntry> entries;
    PkgListError error;
    const uint32_t rc = PkgParseList(std::span<const uint8_t>(data, size), &entries, &error);
    if (rc != 0) {
        Check(entries.empty() && rc == error.code);
        Check(rc == DORVEX_ERR_PKG_LINE || rc == DORVEX_ERR_PKG_EMPTY_LIST ||
              rc == DORVEX_ERR_PKG_DUPLICATE);
        return;
    }
    Check(!entries.empty());
    for (const PkgEntry &entry : entries) {
        Check(entry.digestLen == 32 || entry.digestLen == 48 || entry.digestLen == 64);
        if (entry.refused.code != 0) {
            Check(entry.refused.code == DORVEX_ERR_PKG_PATH);
            continue;
        }
        Check(!entry.names.empty() && entry.path.size() <= kPkgPathMax);
        for (const std::string &name : entry.names) {
            Check(!name.empty() && name.size() <= kPkgNameMax && name != "." && name != "..");
            Check(name.find('/') == std::string::npos && name.find('\0') == std::string::npos);
        }
    }
}

void AddTrust(const void *data, size_t size, bool crl) {
    DorvexVrfCtx *ctx = fuzz_support::NewCtx();
    const auto *bytes = static_cast<const uint8_t *>(data);
    const auto length = static_cast<uint32_t>(size);
    (void)(crl ? DorvexVerifyAddCrl(ctx, bytes, length) : DorvexVerifyAddCert(ctx, bytes, length));
    fuzz_support::CheckStore(ctx, bytes, size);
    Check(DorvexVrfCtxFree(ctx) == DORVEX_OK);
}

void DecodeCrls(const uint8_t *data, size_t size, const Bytes &root) {
    DorvexVrfCtx *ctx = fuzz_support::NewCtx();
    Check(DorvexVerifyAddCert(ctx, root.data(), static_cast<uint32_t>(root.size())) == DORVEX_OK);
    DorvexCrlInfoList *list = nullptr;
    uint32_t ret = DorvexDecodeCrl(ctx, data, static_cast<uint32_t>(size), &list);
    Check((ret == DORVEX_OK) == (list != nullptr));
    fuzz_support::CheckStore(ctx, data, size);
    if (list != nullptr) {
        Check(list->size == sizeof(DorvexCrlInfoList) && list->count <= DORVEX_CRL_INFO_MAX);
        for (uint32_t i = 0; i < list->count; ++i) {
            const DorvexCrlInfo *info = list->crlInfo[i];
            Check(info != nullptr && info->verified <= 1);
            Check(memchr(info->issuerName, '\0', sizeof(info->issuerName)) != nullptr);
            Check(info->issuerSerialLen <= DORVEX_CRL_SERIAL_LEN);
            Check((info->revoked == nullptr) == (info->revokedCount == 0));
            Check(info->revoked == nullptr || fuzz_support::Outside(info->revoked, data, size));
            for (uint32_t j = 0; j < info->revokedCount; ++j) {
                Check(info->revoked[j].len <= DORVEX_CRL_SERIAL_LEN);
            }
        }
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
    static const Bytes root = [] {
        Bytes der(g_rootCert0, g_rootCert0 + ROOT_CERT_HEAD_LEN);
        der.insert(der.end(), g_rootCert1, g_rootCert1 + ROOT_CERT_TAIL_LEN);
        return der;
    }();
    Base64(data, size);
    PkgList(data, size);
    const std::string walk = "-----BEGIN" + std::string(reinterpret_cast<const char *>(data), size);
    AddTrust(walk.data(), walk.size(), true);
    // The rest stop at the first byte of anything but DER or PEM.
    if (data[0] != 0x30 && data[0] != '-') {
        return 0;
    }
    AddTrust(data, size, false);
    DecodeCrls(data, size, root);
    Bytes withRoot(data, data + size);
    withRoot.insert(withRoot.end(), root.begin(), root.end());
    DecodeCrls(withRoot.data(), withRoot.size(), root);
    return 0;
}
