// Revocation of one certificate by the CRLs of the store (RFC 5280 6.3).
//
// A CRL speaks for a certificate when it is in scope and authorised: signed
// with the key of the certificate's actual issuer (direct), or marked
// indirect, named by the certificate's cRLDistributionPoints as its CRL
// issuer and signed by a certificate that is trusted in its own right.
// Every such CRL is read and any one revocation wins; a current one must
// exist. Departures from RFC 5280 6.3, on purpose: reason partitions are not
// combined (a CRL limited to some reasons is not used), and the revocation
// date decides for end entities unless strict checking is asked for.
#include "cms/asn1/oid.h"
#include "cms/pki/internal.h"

namespace {

// CRLReason values (RFC 5280 5.3.1) that say the key itself was not
// compromised: for them the revocation date decides even for CAs and under
// strict checking.
constexpr DorvexAsnInt kReasonAffiliationChanged = 3;
constexpr DorvexAsnInt kReasonSuperseded = 4;
constexpr DorvexAsnInt kReasonCessationOfOperation = 5;

enum class CrlKind { None, Direct, Indirect };

bool SameKey(const DorvexX509Cert &a, const DorvexX509Cert &b) {
    const DorvexX509PubkeyInfo &ka = a.certInfo.subjectPublicKeyInfo;
    const DorvexX509PubkeyInfo &kb = b.certInfo.subjectPublicKeyInfo;
    if (ka.keyType != kb.keyType) {
        return false;
    }
    // An EC key is its curve and point (the same point in another form is
    // taken for another key, which at worst refuses a CRL).
    if (ka.keyType == DRX_KEY_EC) {
        return ka.curve == kb.curve && DorvexCompareAsnOcts(&ka.keyBits, &kb.keyBits) == 0;
    }
    const DorvexRsaPublicKey &x = a.certInfo.subjectPublicKeyInfo.subjectPublicKey;
    const DorvexRsaPublicKey &y = b.certInfo.subjectPublicKeyInfo.subjectPublicKey;
    return DorvexCompareAsnOcts(&x.modulus, &y.modulus) == 0 &&
           DorvexCompareAsnOcts(&x.publicExponent, &y.publicExponent) == 0;
}

// InternalCrlKind: whether `crl` may judge `cert` at all, and how. RFC 5280
// 5.2.5: a CRL limited to CA certificates says nothing about an end entity,
// one limited to user certificates nothing about a CA, one limited to
// attribute certificates nothing about either, and one limited to some
// reasons cannot show that none of the others applies; a CRL for one
// distribution point covers only certificates that name that point. RFC
// 5280 5.2, 5.3: a critical extension this verifier does not read, on the
// CRL or one of its entries, forbids using it (a delta CRL, for one, is no
// complete list).
CrlKind InternalCrlKind(const DorvexX509Crl &crl, const DorvexX509Cert &cert) {
    const DorvexX509IssuingDistPoint &idp = crl.crlInfo.crlExtensions.issuingDistPoint;
    const bool isCa = cert.certInfo.extensions.isCA != 0;
    if ((idp.onlyContainsCACerts == 1 && !isCa) || (idp.onlyContainsUserCerts == 1 && isCa) ||
        idp.onlyContainsAttributeCerts == 1 || idp.onlySomeReasons.tagCode != 0 ||
        crl.crlInfo.crlExtensions.unknownCritical != 0 ||
        crl.crlInfo.revokedCertificates.unknownCritical != 0) {
        return CrlKind::None;
    }
    const bool sameIssuer = DorvexCompareX509Name(&cert.certInfo.issuer, &crl.crlInfo.issuer) == 0;
    // The certificate's distribution points are read only when they matter:
    // a partitioned CRL, or one of another issuer that says it is indirect.
    const bool partition = idp.distributionPoint.len != 0;
    if (!partition && (sameIssuer || idp.indirectCRL != 1)) {
        return sameIssuer ? CrlKind::Direct : CrlKind::None;
    }
    const uint32_t points = DorvexX509CertPointsAt(&cert, &crl);
    if (partition && (points & DRX_X509_DP_NAMED) == 0) {
        return CrlKind::None;
    }
    if (sameIssuer) {
        return CrlKind::Direct;
    }
    // RFC 5280 6.3.3 (b)(2)(iii): an indirect CRL must say so and be the one
    // the certificate names.
    return idp.indirectCRL == 1 && (points & DRX_X509_DP_CRL_ISSUER) != 0 ? CrlKind::Indirect
                                                                          : CrlKind::None;
}

// Whether an entry is about a certificate of `issuerName`: its
// certificateIssuer (carried on from earlier entries) names it, or, without
// one, the CRL's own issuer is that name (RFC 5280 5.3.3).
bool EntryOfIssuer(const DorvexX509Crl &crl, const DorvexX509RevokeEntry &entry,
                   const DorvexX509Name &issuerName) {
    const DorvexAsnOcts &names = entry.crlEntryExtensions.certificateIssuer;
    if (names.data == nullptr) {
        return DorvexCompareX509Name(&crl.crlInfo.issuer, &issuerName) == 0;
    }
    return DorvexX509GeneralNamesHold(&names, &issuerName);
}

// InternalCrlRevokes: 0 when `crl` does not revoke `cert` at the context's
// time, DORVEX_ERR_CERT_REVOKED when it does, a time conversion's code when
// a revocation date cannot be read.
uint32_t InternalCrlRevokes(const DorvexVrfCtx *ctx, const DorvexX509Cert &cert,
                            const DorvexX509Crl &crl, uint32_t strict) {
    const DorvexX509Revoked &revoked = crl.crlInfo.revokedCertificates;
    uint32_t first = 0;
    uint32_t count = 0;
    DorvexX509CrlFindSerial(&crl, &cert.certInfo.serialNumber, &first, &count);
    for (uint32_t k = first; k < first + count; ++k) {
        const DorvexX509RevokeEntry &entry = revoked.entries[revoked.bySerial[k]];
        if (!EntryOfIssuer(crl, entry, cert.certInfo.issuer)) {
            continue;
        }
        const DorvexAsnInt reason = entry.crlEntryExtensions.reasonCode;
        const bool keyStillSound = reason == kReasonAffiliationChanged ||
                                   reason == kReasonSuperseded ||
                                   reason == kReasonCessationOfOperation;
        bool revoked = (strict != 0 || cert.certInfo.extensions.isCA != 0) && !keyStillSound;
        if (!revoked) {
            int64_t revokedAt = 0;
            const uint32_t ret = DorvexConvertDatetimeToTime(&entry.revocationDate, &revokedAt);
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

// No nextUpdate: the CRL promises no successor and is current for good
// (RFC 5280 5.1.2.5 wants one; OpenSSL reads its absence the same way). The
// device's guard against an old CRL file is crl_info --compare.
bool InternalCrlCurrent(const DorvexVrfCtx *ctx, const DorvexX509Crl &crl) {
    if (crl.crlInfo.nextUpdate.tagCode == 0) {
        return true;
    }
    int64_t nextUpdate = 0;
    if (DorvexConvertDatetimeToTime(&crl.crlInfo.nextUpdate, &nextUpdate) != DORVEX_OK) {
        return false;
    }
    if (ctx->verifyTime > nextUpdate) {
        DORVEX_LOG_WARN(DORVEX_WARN_CRL_EXPIRED,
                        "Found an expired CRL, it most likely cause NO CRL error.");
        return false;
    }
    return true;
}

}  // namespace

uint32_t InternalCheckRevocation(DorvexVrfCtx *ctx, const DorvexX509Cert *cert,
                                 const DorvexX509Cert *issuer, uint32_t strict, uint32_t depth) {
    const DorvexList &crls = ctx->pki->crls;
    bool current = false;
    uint32_t lastCode = 0;
    for (int32_t i = 0; i < DrxListCount(crls); ++i) {
        const auto *crl = static_cast<const DorvexX509Crl *>(crls.items[i]);
        const CrlKind kind = crl == nullptr ? CrlKind::None : InternalCrlKind(*crl, *cert);
        if (kind == CrlKind::None) {
            continue;
        }
        DorvexX509Cert *signer = DorvexPkiFindCrlIssuer(ctx, crl);
        if (signer == nullptr) {
            lastCode = DORVEX_ERR_CRL_VERIFY;
            continue;
        }
        if (kind == CrlKind::Direct) {
            // Signed with the key that issued the certificate: a CRL of a
            // re-keyed CA's new key says nothing of what the old key signed.
            if (!SameKey(*signer, *issuer)) {
                continue;
            }
        } else {
            int64_t budget = 0;
            const uint32_t code = InternalCertStatus(ctx, signer, 1, depth + 1, &budget);
            if (code != DORVEX_OK) {
                lastCode = code;
                continue;
            }
        }
        // Any CRL that lists the certificate proves its revocation, even an
        // expired one; only a current one shows that it is not revoked.
        const uint32_t ret = InternalCrlRevokes(ctx, *cert, *crl, strict);
        if (ret != DORVEX_OK) {
            return ret;
        }
        current = current || InternalCrlCurrent(ctx, *crl);
    }
    if (current) {
        return DORVEX_OK;
    }
    DORVEX_LOG_ERR(lastCode, "Can't find CRL for certificate.");
    return lastCode != 0 ? lastCode : DORVEX_ERR_NO_CRL;
}
