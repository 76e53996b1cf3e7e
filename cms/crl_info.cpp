// CRL information for callers: one record per CRL of a file, and the
// comparison of two CRL sets that decides whether a delivered set may
// replace the installed one.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "cms/adapt/adapt.h"
#include "cms/asn1/pubkey.h"
#include "cms/internal.h"
#include "cms/pki/pki.h"
#include "platform/securec.h"

namespace {

constexpr std::string_view kPemBegin = "-----BEGIN";
constexpr std::string_view kPemCrlHeader = "-----BEGIN X509 CRL-----";

void InternalFreeCrlInfo(DorvexCrlInfo *info) {
    if (info != nullptr) {
        DorvexFree(info->revoked);
        DorvexFree(info);
    }
}

using CrlInfoPtr = drx::Owned<DorvexCrlInfo, InternalFreeCrlInfo>;

// A list of somebody else's making may claim any count; never walk past
// its slots.
uint32_t InternalFilledSlots(const DorvexCrlInfoList *list) {
    return std::min(list->count, DORVEX_CRL_INFO_MAX);
}

void InternalFreeCrlInfoList(DorvexCrlInfoList *list) {
    if (list == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < InternalFilledSlots(list); ++i) {
        InternalFreeCrlInfo(list->crlInfo[i]);
    }
    DorvexFree(list);
}

using CrlInfoListPtr = drx::Owned<DorvexCrlInfoList, InternalFreeCrlInfoList>;

// The PEM walk of the intake logs and skips a block that does not fit the
// 16-slot lists, so a PEM file with too many CRLs would come back cut
// short; counting the CRL headers tells such a file apart. Like the walk,
// the count looks at PEM text only and stops at a NUL.
uint32_t InternalCountPemCrlBlocks(const uint8_t *data, uint32_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    if (!text.starts_with(kPemBegin)) {
        return 0;
    }
    text = text.substr(0, text.find('\0'));
    uint32_t count = 0;
    for (size_t at = text.find(kPemCrlHeader); at != std::string_view::npos;
         at = text.find(kPemCrlHeader, at + kPemCrlHeader.size())) {
        ++count;
    }
    return count;
}

// More than 16 CRLs cannot enter the fixed lists: the DER walk stops with a
// full CRL list, the PEM walk drops the rest.
bool InternalTooManyCrls(const uint8_t *data, uint32_t size, uint32_t decodeRet,
                         const DorvexList &crls) {
    if (decodeRet == DORVEX_ERR_LIST_FULL && crls.count >= DORVEX_LIST_CAPACITY) {
        return true;
    }
    return InternalCountPemCrlBlocks(data, size) > DORVEX_CRL_INFO_MAX;
}

uint32_t InternalCheckParamDecodeCrl(const DorvexVrfCtx *ctx, const uint8_t *data, uint32_t size,
                                     DorvexCrlInfoList **list) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (data == nullptr || size == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "CRL data is empty.");
        return DORVEX_ERR_PARAM;
    }
    if (list == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "CRL information out pointer is null.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

uint32_t InternalCheckParamDecodeCrlFile(const DorvexVrfCtx *ctx, const char *path,
                                         DorvexCrlInfoList **list) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (path == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "CRL file path is null.");
        return DORVEX_ERR_PARAM;
    }
    if (list == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "CRL information out pointer is null.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

// InternalGetCrlIssuerName: the rendered issuer, or an empty name when it
// cannot be rendered (an attribute type the library does not know); the
// CRL is still worth reporting then.
void InternalGetCrlIssuerName(const DorvexX509Crl *crl, DorvexCrlInfo *info) {
    char *text = nullptr;
    uint32_t renderedLen = 0;
    const uint32_t converted = DorvexConvertFromX509Name(&crl->crlInfo.issuer, &text, &renderedLen);
    const drx::BlockPtr<char> rendered(text);
    if (converted != DORVEX_OK) {
        return;
    }
    int ret = strncpy_s(info->issuerName, sizeof(info->issuerName), rendered.get(),
                        std::min<size_t>(renderedLen, sizeof(info->issuerName) - 1));
    if (ret != SEC_OK) {
        info->issuerName[0] = '\0';
        DORVEX_LOG_WARN(static_cast<uint32_t>(ret), "Failed to copy CRL issuer name.");
    }
}

// InternalGetCrlRevoked: the serials a root's CRL revokes, in CRL order.
// Serials that do not fit an entry are left out and not counted.
uint32_t InternalGetCrlRevoked(const DorvexX509Crl *crl, DorvexCrlInfo *info) {
    const DorvexX509Revoked &revoked = crl->crlInfo.revokedCertificates;
    const uint32_t listed = revoked.count;
    if (listed == 0) {
        return DORVEX_OK;
    }
    void *block = nullptr;
    uint32_t ret =
        DorvexMalloc(&block, static_cast<uint64_t>(listed) * sizeof(DorvexCrlRevokedSerial));
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to allocate revoked serials.");
        return ret;
    }
    info->revoked = static_cast<DorvexCrlRevokedSerial *>(block);
    for (uint32_t i = 0; i < listed; ++i) {
        const DorvexAsnBigint &serial = revoked.entries[i].userCertificate;
        if (serial.data == nullptr || serial.len == 0 || serial.len > DORVEX_CRL_SERIAL_LEN) {
            continue;
        }
        DorvexCrlRevokedSerial &entry = info->revoked[info->revokedCount++];
        if (memcpy_s(entry.serial, sizeof(entry.serial), serial.data, serial.len) == SEC_OK) {
            entry.len = serial.len;
        }
    }
    return DORVEX_OK;
}

// InternalGetCrlSigner: looks for the CRL's signer, judges it at the CRL's
// thisUpdate and copies its serial, and for a root's CRL the revoked
// serials. No signer is no error: the CRL is reported as untrusted.
uint32_t InternalGetCrlSigner(DorvexVrfCtx *ctx, const DorvexX509Crl *crl, DorvexCrlInfo *info) {
    DorvexX509Cert *signer = DorvexPkiFindCrlIssuer(ctx, crl);
    if (signer == nullptr) {
        return DORVEX_OK;
    }
    // The CRL speaks for its own time: a signer that has expired since then
    // did not make it untrustworthy when it signed.
    ctx->verifyTime = info->thisUpdate;
    uint32_t valid = 0;
    if (DorvexPkiVerifyCert(ctx, signer, 1, 1, &valid) == DORVEX_OK && valid == 1) {
        info->verified = 1;
    }
    uint32_t selfSigned = 0;
    uint32_t ret = DorvexX509IsSelfSigned(signer, &selfSigned);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to check self sign for CRL signer.");
        return ret;
    }
    if (selfSigned == 1) {
        ret = InternalGetCrlRevoked(crl, info);
        if (ret != DORVEX_OK) {
            return ret;
        }
    }
    const DorvexAsnBigint &serial = signer->certInfo.serialNumber;
    if (serial.data == nullptr || serial.len == 0 || serial.len > DORVEX_CRL_SERIAL_LEN) {
        return DORVEX_OK;
    }
    int copied = memcpy_s(info->issuerSerial, sizeof(info->issuerSerial), serial.data, serial.len);
    if (copied != SEC_OK) {
        DORVEX_LOG_ERR(static_cast<uint32_t>(copied), "Failed to copy CRL signer serial.");
        return static_cast<uint32_t>(copied);
    }
    info->issuerSerialLen = serial.len;
    return DORVEX_OK;
}

// InternalGetCrlInfo: the record of one CRL, or none when the CRL cannot be
// reported; the reason is logged here or by the helper that met it.
CrlInfoPtr InternalGetCrlInfo(DorvexVrfCtx *ctx, const DorvexX509Crl *crl) {
    void *block = nullptr;
    uint32_t ret = DorvexMalloc(&block, sizeof(DorvexCrlInfo));
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to allocate CRL information.");
        return nullptr;
    }
    CrlInfoPtr info(static_cast<DorvexCrlInfo *>(block));
    InternalGetCrlIssuerName(crl, info.get());
    ret = DorvexConvertDatetimeToTime(&crl->crlInfo.thisUpdate, &info->thisUpdate);
    if (ret == DORVEX_OK && crl->crlInfo.nextUpdate.tagCode == 0) {
        info->nextUpdate = DORVEX_CRL_NO_NEXT_UPDATE;
    } else if (ret == DORVEX_OK) {
        ret = DorvexConvertDatetimeToTime(&crl->crlInfo.nextUpdate, &info->nextUpdate);
    }
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to convert CRL update time.");
        return nullptr;
    }
    if (InternalGetCrlSigner(ctx, crl, info.get()) != DORVEX_OK) {
        return nullptr;
    }
    return info;
}

// A name is compared only when it ends inside its field: a list that was
// not made here may hold anything.
bool InternalSameIssuer(const DorvexCrlInfo *a, const DorvexCrlInfo *b) {
    if (a == nullptr || b == nullptr) {
        return false;
    }
    if (memchr(a->issuerName, '\0', sizeof(a->issuerName)) == nullptr ||
        memchr(b->issuerName, '\0', sizeof(b->issuerName)) == nullptr) {
        return false;
    }
    return DorvexStrCmp(a->issuerName, b->issuerName) == 0;
}

const DorvexCrlInfo *InternalFindIssuer(const DorvexCrlInfoList *list, const DorvexCrlInfo *like) {
    for (uint32_t i = 0; i < InternalFilledSlots(list); ++i) {
        const DorvexCrlInfo *info = list->crlInfo[i];
        if (info != nullptr && InternalSameIssuer(info, like)) {
            return info;
        }
    }
    return nullptr;
}

uint32_t InternalCheckParamCrlCompare(const DorvexVrfCtx *ctx, const DorvexCrlInfoList *first,
                                      const DorvexCrlInfoList *second, const uint32_t *result) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (first == nullptr || second == nullptr || result == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "CRL list or result is null.");
        return DORVEX_ERR_PARAM;
    }
    if (first->count == 0 || second->count == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_SET_EMPTY, "CRL list is empty.");
        return DORVEX_ERR_CRL_SET_EMPTY;
    }
    return DORVEX_OK;
}

// Every claimed slot holds a CRL whose signer was trusted. A count beyond
// the slots claims CRLs that are not there.
bool InternalAllCrlVerified(const DorvexCrlInfoList *list) {
    if (list->count > DORVEX_CRL_INFO_MAX) {
        return false;
    }
    for (uint32_t i = 0; i < list->count; ++i) {
        if (list->crlInfo[i] == nullptr || list->crlInfo[i]->verified != 1) {
            return false;
        }
    }
    return true;
}

// Which set is newer by the CRLs they share: 0 no difference, 1 first,
// 2 second, 3 newer by one issuer and older by another.
uint32_t InternalCrlDirection(const DorvexCrlInfoList *first, const DorvexCrlInfoList *second) {
    uint32_t state = DORVEX_CRL_CMP_EQUAL;
    for (uint32_t i = 0; i < InternalFilledSlots(first); ++i) {
        const DorvexCrlInfo *a = first->crlInfo[i];
        const DorvexCrlInfo *b = InternalFindIssuer(second, a);
        if (b == nullptr || a->thisUpdate == b->thisUpdate) {
            continue;
        }
        const uint32_t step = a->thisUpdate > b->thisUpdate ? DORVEX_CRL_CMP_FIRST_NEWER
                                                            : DORVEX_CRL_CMP_SECOND_NEWER;
        if (state != DORVEX_CRL_CMP_EQUAL && state != step) {
            return DORVEX_CRL_CMP_UNDECIDABLE;
        }
        state = step;
    }
    return state;
}

// InternalFindDuplicateCrlIssuer: 1 when two CRLs of the list name the same
// issuer, which would make the issuer matching of a comparison ambiguous.
int32_t InternalFindDuplicateCrlIssuer(const DorvexCrlInfoList *list) {
    const uint32_t filled = InternalFilledSlots(list);
    for (uint32_t i = 0; i < filled; ++i) {
        for (uint32_t j = i + 1; j < filled; ++j) {
            if (InternalSameIssuer(list->crlInfo[i], list->crlInfo[j])) {
                return 1;
            }
        }
    }
    return 0;
}

// The revoked serials of the first root CRL of the list, or none.
const DorvexCrlInfo *InternalFindRootCrl(const DorvexCrlInfoList *list) {
    for (uint32_t i = 0; i < InternalFilledSlots(list); ++i) {
        const DorvexCrlInfo *info = list->crlInfo[i];
        if (info != nullptr && info->revoked != nullptr && info->revokedCount > 0) {
            return info;
        }
    }
    return nullptr;
}

bool InternalSerialRevoked(const DorvexCrlInfo *rootCrl, const DorvexCrlInfo *crl) {
    // A CRL whose signer's serial is unknown cannot be shown to be revoked;
    // an empty serial must not match an entry whose copy failed.
    if (crl->issuerSerialLen == 0 || crl->issuerSerialLen > DORVEX_CRL_SERIAL_LEN) {
        return false;
    }
    const uint32_t listed = rootCrl->revoked == nullptr ? 0 : rootCrl->revokedCount;
    for (uint32_t i = 0; i < listed; ++i) {
        const DorvexCrlRevokedSerial &entry = rootCrl->revoked[i];
        if (entry.len == crl->issuerSerialLen &&
            DorvexMemCmp(entry.serial, crl->issuerSerial, entry.len) == 0) {
            return true;
        }
    }
    return false;
}

// InternalCheckNewCrl: 0 when every CRL of the older set has a CRL of the
// same issuer in the newer set, or its signer is revoked by the newer
// set's root CRL; -1 otherwise. A CA's CRL may thus vanish only together
// with the CA.
int32_t InternalCheckNewCrl(const DorvexCrlInfoList *newer, const DorvexCrlInfoList *older) {
    if (older->count == 0) {
        return 0;
    }
    if (newer->count > DORVEX_CRL_INFO_MAX || older->count > DORVEX_CRL_INFO_MAX) {
        return -1;
    }
    for (uint32_t i = 0; i < newer->count; ++i) {
        if (newer->crlInfo[i] == nullptr) {
            return -1;
        }
    }
    const DorvexCrlInfo *rootCrl = InternalFindRootCrl(newer);
    for (uint32_t i = 0; i < older->count; ++i) {
        const DorvexCrlInfo *o = older->crlInfo[i];
        if (o == nullptr) {
            return -1;
        }
        if (InternalFindIssuer(newer, o) != nullptr) {
            continue;
        }
        if (rootCrl == nullptr || !InternalSerialRevoked(rootCrl, o)) {
            return -1;
        }
    }
    return 0;
}

}  // namespace

extern "C" uint32_t DorvexDecodeCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t size,
                                    DorvexCrlInfoList **list) {
    uint32_t ret = InternalCheckParamDecodeCrl(ctx, data, size, list);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *list = nullptr;
    // Each decoded record loses this reference on every exit, so only what
    // the store took stays alive.
    drx::CertList certs;
    drx::CrlList crls;
    ret = InternalDecodeCertCrl(ctx, data, size, &certs.list, &crls.list);
    if (InternalTooManyCrls(data, size, ret, crls.list)) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_TOO_MANY, "Decode CRL failed.");
        return DORVEX_ERR_CRL_TOO_MANY;
    }
    if (ret != DORVEX_OK || crls.list.count == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_DECODE, "Failed to decode CRL.");
        return DORVEX_ERR_CRL_DECODE;
    }
    ret = InternalAddCrlToStore(ctx, &crls.list);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_DECODE, "Failed to add CRL into store (0x%x).", ret);
        return DORVEX_ERR_CRL_DECODE;
    }
    // The CA certificates must come with their CRLs, so that the file can be
    // judged on its own; a root in it is no source of trust and is skipped.
    if (certs.list.count == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_DECODE, "No certificate beside the CRLs.");
        return DORVEX_ERR_CRL_DECODE;
    }
    ret = InternalAddCertToStore(ctx, &certs.list, false);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_DECODE, "Failed to add certificate into store (0x%x).", ret);
        return DORVEX_ERR_CRL_DECODE;
    }
    void *block = nullptr;
    ret = DorvexMalloc(&block, sizeof(DorvexCrlInfoList));
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_DECODE, "Failed to allocate CRL list (0x%x).", ret);
        return DORVEX_ERR_CRL_DECODE;
    }
    CrlInfoListPtr out(static_cast<DorvexCrlInfoList *>(block));
    out->size = sizeof(DorvexCrlInfoList);
    const auto crlCount =
        static_cast<uint32_t>(std::clamp<int32_t>(crls.list.count, 0, DORVEX_LIST_CAPACITY));
    for (uint32_t i = 0; i < crlCount; ++i) {
        CrlInfoPtr info =
            InternalGetCrlInfo(ctx, static_cast<const DorvexX509Crl *>(crls.list.items[i]));
        if (info != nullptr) {
            out->crlInfo[out->count++] = info.release();
        }
    }
    *list = out.release();
    return DORVEX_OK;
}

extern "C" uint32_t DorvexDecodeCrlFile(DorvexVrfCtx *ctx, const char *path,
                                        DorvexCrlInfoList **list) {
    uint32_t ret = InternalCheckParamDecodeCrlFile(ctx, path, list);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *list = nullptr;
    uint8_t *data = nullptr;
    uint32_t length = 0;
    ret = InternalReadFile(path, DORVEX_MAX_CRL_FILE_SIZE, &data, &length);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to read CRL file.");
        return ret;
    }
    const drx::BufferPtr guard(data);
    return DorvexDecodeCrl(ctx, data, length, list);
}

extern "C" uint32_t DorvexCrlCompare(DorvexVrfCtx *ctx, const DorvexCrlInfoList *first,
                                     const DorvexCrlInfoList *second, uint32_t *result) {
    uint32_t ret = InternalCheckParamCrlCompare(ctx, first, second, result);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (!InternalAllCrlVerified(first) || !InternalAllCrlVerified(second)) {
        *result = DORVEX_CRL_CMP_UNDECIDABLE;
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_SET_INVALID, "CRL list holds an untrusted CRL.");
        return DORVEX_ERR_CRL_SET_INVALID;
    }
    const uint32_t state = InternalCrlDirection(first, second);
    if (InternalFindDuplicateCrlIssuer(first) == 1 || InternalFindDuplicateCrlIssuer(second) == 1) {
        *result = DORVEX_CRL_CMP_UNDECIDABLE;
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_DUP_ISSUER, "CRL list holds two CRLs of one issuer.");
        return DORVEX_ERR_CRL_DUP_ISSUER;
    }
    // Whichever set the shared CRLs call newer must also account for every
    // CRL of the other set; without a direction, the larger set is the
    // candidate.
    uint32_t verdict = DORVEX_CRL_CMP_UNDECIDABLE;
    int32_t check = -1;
    if (state == DORVEX_CRL_CMP_FIRST_NEWER ||
        (state == DORVEX_CRL_CMP_EQUAL && first->count > second->count)) {
        verdict = DORVEX_CRL_CMP_FIRST_NEWER;
        check = InternalCheckNewCrl(first, second);
    } else {
        if (state == DORVEX_CRL_CMP_EQUAL) {
            verdict =
                first->count == second->count ? DORVEX_CRL_CMP_EQUAL : DORVEX_CRL_CMP_SECOND_NEWER;
        } else {
            verdict = state;
        }
        check = InternalCheckNewCrl(second, first);
    }
    if (check != 0) {
        *result = DORVEX_CRL_CMP_UNDECIDABLE;
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_NOT_COMPARABLE,
                       "A CRL is missing from the newer set and its signer is not revoked.");
        return DORVEX_ERR_CRL_NOT_COMPARABLE;
    }
    *result = verdict;
    return DORVEX_OK;
}

extern "C" uint32_t DorvexCrlFree(DorvexVrfCtx *ctx, DorvexCrlInfoList *list) {
    if (ctx == nullptr || list == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    InternalFreeCrlInfoList(list);
    return DORVEX_OK;
}
