// CRL choice for one certificate and its revocation test.
//
// Departures from RFC 5280 6.3, on purpose: the CRL is chosen by score
// among the store's CRLs (a CRL listing the certificate first, even an
// expired one), its signer must chain to the certificate's own root, and the
// revocation date decides for end entities unless strict checking is asked
// for. A certificate without a usable CRL is never trusted.
#include "cms/asn1/oid.h"
#include "cms/pki/internal.h"

namespace {

// CRLReason values (RFC 5280 5.3.1) that say the key itself was not
// compromised: for them the revocation date decides even for CAs and under
// strict checking.
constexpr DorvexAsnInt kReasonAffiliationChanged = 3;
constexpr DorvexAsnInt kReasonSuperseded = 4;
constexpr DorvexAsnInt kReasonCessationOfOperation = 5;

int32_t CompareScoreItems(const void *a, const void *b) {
    return InternalCrlScoreSortDesc(static_cast<const DorvexCrlScore *>(a),
                                    static_cast<const DorvexCrlScore *>(b));
}

void FreeScoreItem(void *item) {
    DorvexFree(item);
}

// Releases the candidate records on every way out of one choice.
struct CandidateList {
    DorvexList list{};
    CandidateList() = default;
    CandidateList(const CandidateList &) = delete;
    CandidateList &operator=(const CandidateList &) = delete;
    ~CandidateList() { DorvexListFree(&list, FreeScoreItem); }
};

bool ListsSerial(const DorvexX509Crl &crl, const DorvexAsnBigint &serial) {
    uint32_t first = 0;
    uint32_t count = 0;
    DorvexX509CrlFindSerial(&crl, &serial, &first, &count);
    return count != 0;
}

// InternalCrlUsableFor: whether the CRL may judge `cert` at all. RFC 5280
// 5.2.5: a CRL limited to CA certificates says nothing about an end entity,
// one limited to user certificates nothing about a CA, one limited to
// attribute certificates nothing about either, and one limited to some
// revocation reasons cannot show that none of the others applies. RFC 5280
// 5.2, 5.3: a critical extension this verifier does not read, on the CRL or
// on one of its entries, forbids using the CRL (a delta CRL, for one, is
// not a complete list).
bool InternalCrlUsableFor(const DorvexX509Crl &crl, const DorvexX509Cert &cert) {
    const DorvexX509IssuingDistPoint &idp = crl.crlInfo.crlExtensions.issuingDistPoint;
    const bool isCa = cert.certInfo.extensions.isCA != 0;
    if ((idp.onlyContainsCACerts == 1 && !isCa) || (idp.onlyContainsUserCerts == 1 && isCa) ||
        idp.onlyContainsAttributeCerts == 1 || idp.onlySomeReasons.tagCode != 0) {
        return false;
    }
    return crl.crlInfo.crlExtensions.unknownCritical == 0 &&
           crl.crlInfo.revokedCertificates.unknownCritical == 0;
}

// InternalCrlGetScore: the score of one CRL for `cert`, or 0 when the CRL
// cannot speak for it (out of its scope, no issuer relation, no signer
// chaining to `root`, no readable nextUpdate, or expired without listing the
// certificate).
uint32_t InternalCrlGetScore(const DorvexVrfCtx *ctx, const DorvexX509Cert *cert,
                             const DorvexX509Cert *root, const DorvexX509Crl *crl) {
    if (cert->certInfo.issuer.count == 0 || !InternalCrlUsableFor(*crl, *cert)) {
        return 0;
    }
    const bool same = DorvexCompareX509Name(&cert->certInfo.issuer, &crl->crlInfo.issuer) == 0;
    const bool indirect = DrxCrlIsIndirect(*crl);
    if (!same && !indirect) {
        return 0;
    }
    DorvexX509Cert *signer = DorvexPkiFindCrlIssuer(ctx, crl);
    if (signer == nullptr || InternalFindCertRoot(ctx, signer, 0) != root) {
        return 0;
    }
    uint32_t score = (same ? kDrxCrlSameIssuer : 0) | (indirect ? kDrxCrlIndirect : 0);
    if (ListsSerial(*crl, cert->certInfo.serialNumber)) {
        score |= kDrxCrlListsCert;
    }
    // No nextUpdate: the CRL promises no successor and is current for good
    // (RFC 5280 5.1.2.5 wants one; OpenSSL reads its absence the same way).
    // The device's guard against an old CRL file is crl_info --compare.
    int64_t nextUpdate = INT64_MAX;
    if (crl->crlInfo.nextUpdate.tagCode != 0 &&
        DorvexConvertDatetimeToTime(&crl->crlInfo.nextUpdate, &nextUpdate) != DORVEX_OK) {
        return 0;
    }
    if (ctx->verifyTime > nextUpdate) {
        DORVEX_LOG_WARN(DORVEX_WARN_CRL_EXPIRED,
                        "Found an expired CRL, it most likely cause NO CRL error.");
        // An expired CRL still proves a revocation it lists.
        return (score & kDrxCrlListsCert) != 0 ? score : 0;
    }
    return score | kDrxCrlCurrent;
}

// Builds the scored candidates in store order; 0 or the code of a failed
// allocation or append.
uint32_t CollectCandidates(const DorvexVrfCtx *ctx, const DorvexX509Cert *cert,
                           const DorvexX509Cert *root, DorvexList *candidates) {
    const DorvexList &crls = ctx->pki->crls;
    for (int32_t i = 0; i < DrxListCount(crls); ++i) {
        auto *crl = static_cast<DorvexX509Crl *>(crls.items[i]);
        if (crl == nullptr) {
            continue;
        }
        uint32_t score = InternalCrlGetScore(ctx, cert, root, crl);
        if (score == 0) {
            continue;
        }
        void *block = nullptr;
        uint32_t ret = DorvexMallocWith0(&block, sizeof(DorvexCrlScore));
        if (ret != DORVEX_OK) {
            return ret;
        }
        auto *record = static_cast<DorvexCrlScore *>(block);
        record->score = score;
        record->crl = crl;
        ret = DorvexListAdd(candidates, record);
        if (ret != DORVEX_OK) {
            DorvexFree(record);
            return ret;
        }
    }
    return DORVEX_OK;
}

}  // namespace

int32_t InternalCrlScoreSortDesc(const DorvexCrlScore *a, const DorvexCrlScore *b) {
    if (a->score > b->score) {
        return -1;
    }
    return a->score == b->score ? 0 : 1;
}

uint32_t InternalFindBestCrlOfCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert,
                                   const DorvexX509Cert *root, uint32_t strictRevocation,
                                   DorvexX509Crl **crl) {
    CandidateList candidates;
    uint32_t ret = CollectCandidates(ctx, cert, root, &candidates.list);
    if (ret != DORVEX_OK) {
        return ret;
    }
    (void)DorvexListSort(&candidates.list, CompareScoreItems);
    if (candidates.list.count == 0) {
        DORVEX_LOG_ERR(0, "Can't find CRL for certificate.");
        return DORVEX_ERR_NO_CRL;
    }
    uint32_t lastCode = 0;
    for (int32_t i = 0; i < DrxListCount(candidates.list); ++i) {
        auto *candidate = static_cast<const DorvexCrlScore *>(candidates.list.items[i]);
        DorvexX509Cert *signer = DorvexPkiFindCrlIssuer(ctx, candidate->crl);
        if (signer == nullptr) {
            continue;
        }
        uint32_t valid = 0;
        ret = DorvexPkiVerifyCert(ctx, signer, 0, strictRevocation, &valid);
        if (ret == DORVEX_OK && valid == 1) {
            *crl = candidate->crl;
            return DORVEX_OK;
        }
        lastCode = ret;
    }
    DORVEX_LOG_ERR(lastCode, "Verify CRL failed.");
    // 0 here means no candidate's signer was found at all.
    return lastCode != 0 ? lastCode : DORVEX_ERR_CRL_VERIFY;
}

uint32_t InternalCheckCrlOfCert(const DorvexVrfCtx *ctx, const DorvexX509Cert *cert,
                                const DorvexX509Crl *crl, uint32_t strictRevocation) {
    const DorvexX509Revoked &revoked = crl->crlInfo.revokedCertificates;
    uint32_t first = 0;
    uint32_t count = 0;
    DorvexX509CrlFindSerial(crl, &cert->certInfo.serialNumber, &first, &count);
    for (uint32_t k = first; k < first + count; ++k) {
        const DorvexX509RevokeEntry &entry = revoked.entries[revoked.bySerial[k]];
        const DorvexAsnInt reason = entry.crlEntryExtensions.reasonCode;
        const bool keyStillSound = reason == kReasonAffiliationChanged ||
                                   reason == kReasonSuperseded ||
                                   reason == kReasonCessationOfOperation;
        // Any non-zero flag counts as strict: a caller that asked for
        // strictness in any form should never get the lenient rule.
        bool revoked =
            (strictRevocation != 0 || cert->certInfo.extensions.isCA != 0) && !keyStillSound;
        if (!revoked) {
            int64_t revokedAt = 0;
            uint32_t ret = DorvexConvertDatetimeToTime(&entry.revocationDate, &revokedAt);
            if (ret != DORVEX_OK) {
                return ret;
            }
            // An earlier date does not revoke yet; a later entry for the
            // same serial number may still do so.
            revoked = ctx->verifyTime >= revokedAt;
        }
        if (revoked) {
            DORVEX_LOG_ERR(DORVEX_ERR_CERT_REVOKED, "The certificate was revoked.\r\n");
            return DORVEX_ERR_CERT_REVOKED;
        }
    }
    return DORVEX_OK;
}
