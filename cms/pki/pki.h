// PKI store of a verify context: the certificates and CRLs that paths are
// built from, and certificate path verification with CRL-based revocation
// checking.
//
// Trust comes only from path building: a path ends at a self-signed
// certificate of the store. Every lookup walks a list from its first item
// and takes the first that fits, so among equals the one added first wins.
#ifndef CMS_PKI_PKI_H
#define CMS_PKI_PKI_H

#include <stdint.h>

#include "cms/asn1/x509.h"
#include "cms/base/vrf_ctx.h"

#ifdef __cplusplus
extern "C" {
#endif

// Certificates and CRLs of one verify context, in order of addition. The
// store holds one reference on each record.
// What path verification has decided about one stored certificate; it holds
// while the verification time, the strictness and the store's contents stay
// what they were when it was made.
typedef struct DorvexPkiCertMemo {
    int64_t time;
    int32_t certCount;
    int32_t crlCount;
    uint32_t strict;
    uint32_t state;  // 0 none, 1 being decided (a loop), 2 decided
    uint32_t code;   // 0: trusted, else why not
    uint32_t reserved;
    int64_t budget;  // intermediate CAs still allowed below it; negative: it may issue nothing
} DorvexPkiCertMemo;

typedef struct DorvexPkiStore {
    DorvexList certs;  // DorvexX509Cert *
    DorvexList crls;   // DorvexX509Crl *
    // What DorvexPkiFindCrlIssuer learnt of the CRL at the same index: its
    // signer once found, and how many certificates had been tried when none
    // was, so each CRL signature is checked once per certificate at most.
    DorvexX509Cert *crlSigner[DORVEX_LIST_CAPACITY];
    int32_t crlSignerTried[DORVEX_LIST_CAPACITY];
    // Path verification's memory: a verdict per stored certificate, and
    // whether certs[j]'s key verifies certs[i]'s signature (issuedBy[i][j]:
    // 0 not yet checked, 1 yes, 2 no). Each certificate is judged and each
    // signature checked once per context, so the work stays polynomial in
    // the store's size whatever the shape of the PKI.
    DorvexPkiCertMemo certMemo[DORVEX_LIST_CAPACITY];
    uint8_t issuedBy[DORVEX_LIST_CAPACITY][DORVEX_LIST_CAPACITY];
    uint32_t work;  // judgements and checks of the current outermost verification
} DorvexPkiStore;

// ---- store -----------------------------------------------------------------

// DorvexPkiInit: gives the context a new, empty store. DORVEX_ERR_PARAM for a
// null context, the allocator's code when memory runs out.
uint32_t DorvexPkiInit(DorvexVrfCtx *ctx);

// DorvexPkiUninit: drops the store's reference on every certificate and CRL,
// releases the store and leaves the context without one. A null context or
// a context without a store is left alone.
void DorvexPkiUninit(DorvexVrfCtx *ctx);

// DorvexPkiStoreAddCert: the store takes a reference on `cert`.
// DORVEX_ERR_PARAM for a null context, certificate or store;
// DORVEX_ERR_CERT_EXISTS when a stored certificate has the same signature
// value; DORVEX_ERR_LIST_FULL at 16 certificates. On failure neither the
// store nor the reference count changes.
uint32_t DorvexPkiStoreAddCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert);

// DorvexPkiStoreAddCrl: the same for CRLs; a duplicate gives
// DORVEX_ERR_CRL_EXISTS.
uint32_t DorvexPkiStoreAddCrl(DorvexVrfCtx *ctx, DorvexX509Crl *crl);

// DorvexPkiFindCertByIssuerSn: the first stored certificate with this issuer
// name and serial number (bytes compared exactly), or null. The store keeps
// its reference; the caller takes one if it keeps the record.
DorvexX509Cert *DorvexPkiFindCertByIssuerSn(const DorvexVrfCtx *ctx, const DorvexX509Name *issuer,
                                            const DorvexAsnBigint *serialNumber);

// DorvexPkiFindCrlIssuer: the first stored certificate whose subject is the
// CRL's issuer, whose key usage has cRLSign and whose key verifies the CRL's
// signature; null when none does. For a CRL of the store the answer is
// remembered: later calls check only certificates added since.
DorvexX509Cert *DorvexPkiFindCrlIssuer(const DorvexVrfCtx *ctx, const DorvexX509Crl *crl);

// ---- path verification -----------------------------------------------------

// DorvexPkiVerifyCert: decides whether `cert` is trusted at the context's
// verifyTime (RFC 5280 6.1 and 6.3, as far as this verifier goes). Every
// certificate from `cert` up to a self-signed certificate of the store is
// judged in its own right: its dates, no critical extension the verifier
// does not read, its actual issuer (a CA of the store whose key verifies its
// signature and that is itself trusted, trying each such CA in store
// order), the path length its CAs allow, and its revocation. A certificate
// other than the root needs a current CRL in scope that is signed with its
// issuer's key (direct) or, when the CRL says it is indirect and the
// certificate's cRLDistributionPoints name that CRL's issuer, by another
// trusted certificate; every such CRL is read, and one revocation is enough.
// Verdicts are remembered in the store. Returns 0 with *valid 1 when
// trusted; otherwise a result code with *valid 0 (DORVEX_ERR_PARAM for a
// null argument, DORVEX_ERR_PKI_WORK when the work cap is reached).
// resetDepth is kept for callers; strictRevocation judges every revocation
// reason other than affiliationChanged, superseded and cessationOfOperation
// as immediate (CAs always are). The only change to stored records is the
// cached issuer (issuerCert).
uint32_t DorvexPkiVerifyCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t resetDepth,
                             uint32_t strictRevocation, uint32_t *valid);

#ifdef __cplusplus
}
#endif

#endif  // CMS_PKI_PKI_H
