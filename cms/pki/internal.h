// What the PKI folder shares with itself: issuer and root search, CRL choice
// and the revocation test.
#ifndef CMS_PKI_INTERNAL_H
#define CMS_PKI_INTERNAL_H

#include <stdint.h>

#include "cms/pki/pki.h"

// Most issuers climbed above the certificate in a root search: a path holds
// at most 11 certificates.
inline constexpr uint32_t kDrxMaxRootDepth = 10;
// Deepest pathDepth at which a nested verification may still start: 11
// levels of verification including the outermost.
inline constexpr int32_t kDrxMaxPathDepth = 10;

// keyUsage bits in the usual one-octet encoding.
inline constexpr uint32_t kDrxKuKeyCertSign = 0x04;
inline constexpr uint32_t kDrxKuCrlSign = 0x02;

// Score bits of a candidate CRL; a higher score is tried first.
inline constexpr uint32_t kDrxCrlListsCert = 0x80;
inline constexpr uint32_t kDrxCrlCurrent = 0x40;
inline constexpr uint32_t kDrxCrlSameIssuer = 0x20;
inline constexpr uint32_t kDrxCrlIndirect = 0x10;

// One candidate CRL during one choice; the store owns the CRL.
struct DorvexCrlScore {
    uint32_t score;
    DorvexX509Crl *crl;
};

// Number of items in use, a count corrupted outside 0..16 clamped so that
// no walk leaves the slots.
inline int32_t DrxListCount(const DorvexList &list) {
    if (list.count < 0) {
        return 0;
    }
    return list.count > DORVEX_LIST_CAPACITY ? DORVEX_LIST_CAPACITY : list.count;
}

// The CRL's issuing distribution point marks it as indirect.
inline bool DrxCrlIsIndirect(const DorvexX509Crl &crl) {
    return crl.crlInfo.crlExtensions.issuingDistPoint.indirectCRL == 1;
}

// InternalFindCertIssuer: the first CA certificate of `certs` that issued
// `cert` (subject = cert's issuer, keyCertSign, its key verifies cert's
// signature); the finding is cached in cert->issuerCert. Once cached, only
// that very record is accepted and no fresh search is made. Null if none.
DorvexX509Cert *InternalFindCertIssuer(const DorvexList *certs, DorvexX509Cert *cert);

// InternalFindCertRoot: the self-signed certificate at the top of cert's
// path through the store, or null; called with depth 0, refuses to climb
// past kDrxMaxRootDepth issuers.
DorvexX509Cert *InternalFindCertRoot(const DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t depth);

// InternalCrlScoreSortDesc: -1 when a scores higher than b, 0 when equal, 1
// when lower; sorts candidates best first.
int32_t InternalCrlScoreSortDesc(const DorvexCrlScore *a, const DorvexCrlScore *b);

// InternalFindBestCrlOfCert: the best CRL of the store for `cert` whose
// signer chains to `root` and passes a nested path verification. 0 with
// *crl set (owned by the store), or DORVEX_ERR_NO_CRL when no CRL can speak
// for cert, or the last nested verification's code (DORVEX_ERR_CRL_VERIFY
// when none could be made).
uint32_t InternalFindBestCrlOfCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert,
                                   const DorvexX509Cert *root, uint32_t strictRevocation,
                                   DorvexX509Crl **crl);

// InternalCheckCrlOfCert: 0 when `crl` does not revoke `cert` at the
// context's verifyTime, DORVEX_ERR_CERT_REVOKED when it does, a time
// conversion's code when a revocation date cannot be read.
uint32_t InternalCheckCrlOfCert(const DorvexVrfCtx *ctx, const DorvexX509Cert *cert,
                                const DorvexX509Crl *crl, uint32_t strictRevocation);

#endif  // CMS_PKI_INTERNAL_H
