// Certificate path verification: every certificate on the way to a
// self-signed certificate of the store is judged in its own right, once per
// context.
//
// Departures from RFC 5280 6.1, on purpose: paths are built backwards from
// the certificate through the store and end at any self-signed certificate
// in it; policies, name constraints and extended key usage are not examined
// here; a self-signed certificate is trusted without a revocation check.
#include <algorithm>

#include "cms/asn1/oid.h"
#include "cms/asn1/pubkey.h"
#include "cms/pki/internal.h"

namespace {

constexpr uint32_t kMemoBusy = 1;
constexpr uint32_t kMemoDone = 2;
// "No path length constraint", far from any count of certificates.
constexpr int64_t kNoLimit = INT64_MAX / 2;

int32_t StoreIndex(const DorvexPkiStore &store, const DorvexX509Cert *cert) {
    for (int32_t i = 0; i < DrxListCount(store.certs); ++i) {
        if (store.certs.items[i] == cert) {
            return i;
        }
    }
    return -1;
}

// Path length a CA allows below itself (RFC 5280 4.2.1.9).
int64_t PathLenLimit(const DorvexX509CertExts &ext) {
    const DorvexAsnBigint &pathLen = ext.pathLenConstraint;
    if (pathLen.tagCode != DRX_ASN_INTEGER || pathLen.len > sizeof(uint32_t)) {
        return kNoLimit;
    }
    int64_t value = 0;
    for (uint32_t i = 0; i < pathLen.len; ++i) {
        value = value << 8 | pathLen.data[i];
    }
    return value;
}

bool SelfIssued(const DorvexX509Cert &cert) {
    return DorvexCompareX509Name(&cert.certInfo.subject, &cert.certInfo.issuer) == 0;
}

// Validity dates, both ends inclusive. The findings are warnings in the log,
// but they fail the verification.
uint32_t InternalCheckDates(const DorvexVrfCtx *ctx, const DorvexX509Cert &cert) {
    const DorvexX509Validity &validity = cert.certInfo.validity;
    int64_t notBefore = 0;
    int64_t notAfter = 0;
    uint32_t ret = DorvexConvertDatetimeToTime(&validity.notBefore, &notBefore);
    if (ret == DORVEX_OK) {
        ret = DorvexConvertDatetimeToTime(&validity.notAfter, &notAfter);
    }
    if (ret == DORVEX_OK && ctx->verifyTime < notBefore) {
        ret = DORVEX_ERR_CERT_NOT_YET_VALID;
    } else if (ret == DORVEX_OK && ctx->verifyTime > notAfter) {
        ret = DORVEX_ERR_CERT_EXPIRED;
    }
    if (ret != DORVEX_OK) {
        DORVEX_LOG_WARN(ret, "Check date for certificate failed, verify may fail.");
    }
    return ret;
}

// Whether `candidate`'s key verifies `cert`'s signature; each pair of stored
// certificates is checked once per context.
bool InternalIssuedBy(DorvexVrfCtx *ctx, DorvexX509Cert *cert, DorvexX509Cert *candidate) {
    DorvexPkiStore &store = *ctx->pki;
    const int32_t i = StoreIndex(store, cert);
    const int32_t j = StoreIndex(store, candidate);
    if (i >= 0 && j >= 0 && store.issuedBy[i][j] != 0) {
        return store.issuedBy[i][j] == 1;
    }
    ++store.work;
    uint32_t verdict = 0;
    const uint32_t ret = DorvexX509CertSignVerify(cert->tbsRaw.data, cert->tbsRaw.len,
                                                  cert->signature.data, cert->signature.len,
                                                  candidate, &cert->signatureAlgorithm, &verdict);
    const bool issued = ret == DORVEX_OK && verdict == 1;
    if (i >= 0 && j >= 0) {
        store.issuedBy[i][j] = issued ? 1 : 2;
    }
    return issued;
}

// InternalJudge: the checks of one certificate, its issuer's included.
uint32_t InternalJudge(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t strict, uint32_t depth,
                       int64_t *budget) {
    const DorvexX509CertExts &ext = cert->certInfo.extensions;
    uint32_t ret = InternalCheckDates(ctx, *cert);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (ext.unknownCritical != 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_CERT_CRITICAL_EXT,
                       "Certificate on the path has an unknown critical extension.");
        return DORVEX_ERR_CERT_CRITICAL_EXT;
    }
    uint32_t selfSigned = 0;
    ret = DorvexX509IsSelfSigned(cert, &selfSigned);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (selfSigned == 1) {
        *budget = PathLenLimit(ext);
        return DORVEX_OK;
    }
    if (depth >= kDrxMaxRootDepth) {
        DORVEX_LOG_ERR(DORVEX_ERR_PATH_TOO_DEEP, "The path of certificate is too deep.");
        return DORVEX_ERR_PATH_TOO_DEEP;
    }
    // The actual issuer: a trusted CA whose key verifies the signature and
    // that may still have a CA below it. A re-keyed CA's old certificate is
    // judged for what it signed, whatever its successor's state.
    const DorvexList &certs = ctx->pki->certs;
    DorvexX509Cert *issuer = nullptr;
    int64_t issuerBudget = 0;
    uint32_t lastCode = DORVEX_ERR_NO_ROOT;
    for (int32_t i = 0; i < DrxListCount(certs) && issuer == nullptr; ++i) {
        auto *candidate = static_cast<DorvexX509Cert *>(certs.items[i]);
        if (candidate == nullptr || candidate == cert || candidate->certInfo.extensions.isCA != 1 ||
            (candidate->certInfo.extensions.keyUsage & kDrxKuKeyCertSign) == 0 ||
            DorvexCompareX509Name(&candidate->certInfo.subject, &cert->certInfo.issuer) != 0 ||
            !InternalIssuedBy(ctx, cert, candidate)) {
            continue;
        }
        int64_t candidateBudget = 0;
        const uint32_t code = InternalCertStatus(ctx, candidate, 1, depth + 1, &candidateBudget);
        if (code != DORVEX_OK) {
            lastCode = code;
        } else if (candidateBudget < 0) {
            DORVEX_LOG_ERR(DORVEX_ERR_PATH_TOO_DEEP, "Path is longer than a CA allows.");
            lastCode = DORVEX_ERR_PATH_TOO_DEEP;
        } else {
            issuer = candidate;
            issuerBudget = candidateBudget;
        }
    }
    if (issuer == nullptr) {
        return lastCode;
    }
    cert->issuerCert = issuer;
    // A CA below this one would make this one an intermediate, which counts
    // unless it is self-issued (RFC 5280 6.1.4 (l), (m)).
    *budget = std::min(PathLenLimit(ext), issuerBudget - (SelfIssued(*cert) ? 0 : 1));
    return InternalCheckRevocation(ctx, cert, issuer, strict, depth);
}

}  // namespace

uint32_t InternalCertStatus(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t strict,
                            uint32_t depth, int64_t *budget) {
    DorvexPkiStore &store = *ctx->pki;
    if (++store.work > kDrxMaxPkiWork) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKI_WORK, "Path verification exceeds its work limit.");
        return DORVEX_ERR_PKI_WORK;
    }
    // A CA's revocation is strict anyway, so its verdict holds for both.
    const uint32_t effective = cert->certInfo.extensions.isCA != 0 || strict != 0 ? 1 : 0;
    const int32_t index = StoreIndex(store, cert);
    DorvexPkiCertMemo *memo = index >= 0 ? &store.certMemo[index] : nullptr;
    if (memo != nullptr && memo->state != 0 && memo->time == ctx->verifyTime &&
        memo->strict == effective && memo->certCount == store.certs.count &&
        memo->crlCount == store.crls.count) {
        if (memo->state == kMemoBusy) {
            return DORVEX_ERR_NO_ROOT;  // a loop of issuers leads to no root
        }
        *budget = memo->budget;
        return memo->code;
    }
    if (memo != nullptr) {
        *memo = DorvexPkiCertMemo{
            ctx->verifyTime, store.certs.count, store.crls.count, effective, kMemoBusy, 0, 0, 0};
    }
    int64_t allowed = -1;
    const uint32_t code = InternalJudge(ctx, cert, effective, depth, &allowed);
    *budget = allowed;
    if (memo != nullptr) {
        memo->state = kMemoDone;
        memo->code = code;
        memo->budget = allowed;
    }
    return code;
}

uint32_t DorvexPkiVerifyCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t resetDepth,
                             uint32_t strictRevocation, uint32_t *valid) {
    if (ctx == nullptr || cert == nullptr || valid == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    *valid = 0;
    // Like every other store operation, a context without a store is a
    // caller error rather than an untrusted certificate.
    if (ctx->pki == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    (void)resetDepth;  // the nesting is counted inside now
    ctx->pki->work = 0;
    int64_t budget = 0;
    const uint32_t ret = InternalCertStatus(ctx, cert, strictRevocation, 0, &budget);
    if (ret == DORVEX_OK) {
        *valid = 1;
    }
    return ret;
}
