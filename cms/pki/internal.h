// What the PKI folder shares with itself: the judgement of one certificate
// (verify.cpp) and the revocation test that it calls (crl.cpp).
#ifndef CMS_PKI_INTERNAL_H
#define CMS_PKI_INTERNAL_H

#include <stdint.h>

#include "cms/pki/pki.h"

// Deepest chain of issuers above a certificate: a path holds at most 11
// certificates.
inline constexpr uint32_t kDrxMaxRootDepth = 10;

// Judgements and signature checks one outermost verification may make; far
// above what any store of 16 certificates and 16 CRLs needs, so reaching it
// means something is wrong, and the verification stops with a clear code.
inline constexpr uint32_t kDrxMaxPkiWork = 4096;

// keyUsage bits in the usual one-octet encoding.
inline constexpr uint32_t kDrxKuKeyCertSign = 0x04;
inline constexpr uint32_t kDrxKuCrlSign = 0x02;

// InternalCertStatus: whether `cert` is trusted at the context's time (0) or
// why not, remembered per stored certificate; *budget is how many
// intermediate CAs may still stand below it (negative: it may issue
// nothing). depth counts the issuers above the first certificate asked for.
uint32_t InternalCertStatus(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t strict,
                            uint32_t depth, int64_t *budget);

// InternalCheckRevocation: whether the CRLs of the store leave `cert`, issued
// by the trusted `issuer`, unrevoked at the context's time: 0, or
// DORVEX_ERR_CERT_REVOKED, DORVEX_ERR_NO_CRL when no current CRL in scope
// speaks for it, or the code that kept an indirect CRL's signer from trust.
uint32_t InternalCheckRevocation(DorvexVrfCtx *ctx, const DorvexX509Cert *cert,
                                 const DorvexX509Cert *issuer, uint32_t strict, uint32_t depth);

#endif  // CMS_PKI_INTERNAL_H
