// Certificate path verification: dates at verifyTime, issuers and roots
// found in the store, and the revocation walk up the path.
//
// Departures from RFC 5280 6.1, on purpose: paths are built backwards from
// the certificate through the store and end at any self-signed certificate
// in it; policies, name constraints and extended key usage are not examined
// here; a self-signed certificate is trusted without a revocation check.
#include "cms/asn1/oid.h"
#include "cms/asn1/pubkey.h"
#include "cms/pki/internal.h"

namespace {

// InternalVerifyCertificate: the checks every certificate on the way up
// gets: validity dates, both ends inclusive, and whether it is a root.
// The date findings are warnings in the log, but they fail the verification.
uint32_t InternalVerifyCertificate(const DorvexVrfCtx *ctx, DorvexX509Cert *cert,
                                   bool *selfSigned) {
    const DorvexX509Validity &validity = cert->certInfo.validity;
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
        return ret;
    }
    uint32_t result = 0;
    ret = DorvexX509IsSelfSigned(cert, &result);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *selfSigned = result == 1;
    return DORVEX_OK;
}

// Path length a CA allows below itself; no constraint is no limit.
uint64_t InternalPathLenLimit(const DorvexX509CertExts &ext) {
    const DorvexAsnBigint &pathLen = ext.pathLenConstraint;
    if (pathLen.tagCode != DRX_ASN_INTEGER || pathLen.len > sizeof(uint64_t)) {
        return UINT64_MAX;
    }
    uint64_t value = 0;
    for (uint32_t i = 0; i < pathLen.len; ++i) {
        value = value << 8 | pathLen.data[i];
    }
    return value;
}

// InternalCheckPathConstraints: every certificate from `cert` up to its root
// carries no critical extension this verifier does not read (RFC 5280 4.2),
// and every CA above `cert` has no more intermediate CAs (self-issued ones
// not counted) below it than its pathLenConstraint allows (RFC 5280
// 4.2.1.9, 6.1.4 (l)-(m)). The issuers are the cached ones that the root
// search has just found.
uint32_t InternalCheckPathConstraints(const DorvexVrfCtx *ctx, DorvexX509Cert *cert) {
    DorvexX509Cert *current = cert;
    uint64_t intermediates = 0;
    for (uint32_t depth = 0;; ++depth) {
        const DorvexX509CertExts &ext = current->certInfo.extensions;
        if (ext.unknownCritical != 0) {
            DORVEX_LOG_ERR(DORVEX_ERR_CERT_CRITICAL_EXT,
                           "Certificate on the path has an unknown critical extension.");
            return DORVEX_ERR_CERT_CRITICAL_EXT;
        }
        if (depth > 0 && intermediates > InternalPathLenLimit(ext)) {
            DORVEX_LOG_ERR(DORVEX_ERR_PATH_TOO_DEEP, "Path is longer than a CA allows.");
            return DORVEX_ERR_PATH_TOO_DEEP;
        }
        uint32_t selfSigned = 0;
        uint32_t ret = DorvexX509IsSelfSigned(current, &selfSigned);
        if (ret != DORVEX_OK) {
            return ret;
        }
        if (selfSigned == 1) {
            return DORVEX_OK;
        }
        DorvexX509Cert *issuer =
            depth < kDrxMaxRootDepth ? InternalFindCertIssuer(&ctx->pki->certs, current) : nullptr;
        if (issuer == nullptr) {
            return DORVEX_ERR_NO_ROOT;
        }
        if (depth > 0 &&
            DorvexCompareX509Name(&current->certInfo.subject, &current->certInfo.issuer) != 0) {
            ++intermediates;
        }
        current = issuer;
    }
}

// The body of one verification level: the certificate, then, while the CRL
// that judged it is indirect, its issuers. The climb ends: every step has
// found a root through the same cached issuer links, at most
// kDrxMaxRootDepth issuers above, and a root ends the loop.
uint32_t VerifyPath(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t strictRevocation) {
    DorvexX509Cert *current = cert;
    for (;;) {
        bool selfSigned = false;
        uint32_t ret = InternalVerifyCertificate(ctx, current, &selfSigned);
        if (ret != DORVEX_OK) {
            return ret;
        }
        if (selfSigned) {
            return DORVEX_OK;
        }
        const DorvexX509Cert *root = InternalFindCertRoot(ctx, current, 0);
        if (root == nullptr) {
            return DORVEX_ERR_NO_ROOT;
        }
        if (current == cert) {
            ret = InternalCheckPathConstraints(ctx, cert);
            if (ret != DORVEX_OK) {
                return ret;
            }
        }
        DorvexX509Crl *crl = nullptr;
        ret = InternalFindBestCrlOfCert(ctx, current, root, strictRevocation, &crl);
        if (ret != DORVEX_OK) {
            return ret;
        }
        ret = InternalCheckCrlOfCert(ctx, current, crl, strictRevocation);
        if (ret != DORVEX_OK) {
            return ret;
        }
        // A direct CRL was signed by the certificate's own CA, whose path
        // the nested verification of the CRL signer has just checked; that
        // stands for the rest of this path. An indirect CRL may come from
        // elsewhere, so the issuer is judged in its own right.
        if (!DrxCrlIsIndirect(*crl)) {
            return DORVEX_OK;
        }
        current = InternalFindCertIssuer(&ctx->pki->certs, current);
        if (current == nullptr) {
            return DORVEX_ERR_NO_ROOT;
        }
    }
}

}  // namespace

DorvexX509Cert *InternalFindCertIssuer(const DorvexList *certs, DorvexX509Cert *cert) {
    if (certs == nullptr || cert == nullptr) {
        return nullptr;
    }
    for (int32_t i = 0; i < DrxListCount(*certs); ++i) {
        auto *candidate = static_cast<DorvexX509Cert *>(certs->items[i]);
        if (candidate == nullptr || candidate->certInfo.extensions.isCA != 1) {
            continue;
        }
        // The cached issuer was verified once; trusting it spares the
        // signature checks of every later search in any store holding it.
        if (cert->issuerCert != nullptr) {
            if (candidate == cert->issuerCert) {
                return candidate;
            }
            continue;
        }
        if (DorvexCompareX509Name(&candidate->certInfo.subject, &cert->certInfo.issuer) != 0 ||
            (candidate->certInfo.extensions.keyUsage & kDrxKuKeyCertSign) == 0) {
            continue;
        }
        uint32_t verdict = 0;
        uint32_t ret = DorvexX509PubKeyVerify(
            cert->tbsRaw.data, cert->tbsRaw.len, cert->signature.data, cert->signature.len,
            &candidate->certInfo.subjectPublicKeyInfo.subjectPublicKey, &cert->signatureAlgorithm,
            &verdict);
        if (ret == DORVEX_OK && verdict == 1) {
            cert->issuerCert = candidate;
            return candidate;
        }
    }
    return nullptr;
}

// Recursion is bounded by the depth check; it also ends loops of issuers
// (A issued by B, B by A), which have no root.
DorvexX509Cert *InternalFindCertRoot(const DorvexVrfCtx *ctx, DorvexX509Cert *cert,
                                     uint32_t depth) {
    if (depth > kDrxMaxRootDepth) {
        DORVEX_LOG_ERR(DORVEX_FAIL, "find path too deep.");
        return nullptr;
    }
    if (ctx == nullptr || ctx->pki == nullptr || cert == nullptr) {
        return nullptr;
    }
    uint32_t selfSigned = 0;
    if (DorvexX509IsSelfSigned(cert, &selfSigned) != DORVEX_OK) {
        return nullptr;
    }
    if (selfSigned == 1) {
        return cert;
    }
    DorvexX509Cert *issuer = InternalFindCertIssuer(&ctx->pki->certs, cert);
    if (issuer == nullptr) {
        return nullptr;
    }
    return InternalFindCertRoot(ctx, issuer, depth + 1);
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
    if (resetDepth != 0) {
        ctx->pathDepth = 1;
    } else if (ctx->pathDepth > kDrxMaxPathDepth) {
        DORVEX_LOG_ERR(0, "The path of certificate is too deep.");
        return DORVEX_ERR_PATH_TOO_DEEP;
    } else {
        ++ctx->pathDepth;
    }
    uint32_t ret = VerifyPath(ctx, cert, strictRevocation);
    --ctx->pathDepth;
    if (ret == DORVEX_OK) {
        *valid = 1;
    }
    return ret;
}
