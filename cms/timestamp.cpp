// The RFC 3161 timestamp token that every signer must carry: it has to stamp
// this signer's signature value, its authority has to be a trusted
// time-stamping certificate, and its generation time becomes the instant at
// which the signer's certificates and CRLs are judged. So a signature stays
// verifiable after its certificate expired, as long as it was stamped while
// the certificate was valid; the system clock is never read.
#include <cstring>
#include <memory>

#include "cms/adapt/adapt.h"
#include "cms/asn1/oid.h"
#include "cms/asn1/pkcs7.h"
#include "cms/asn1/pubkey.h"
#include "cms/internal.h"
#include "cms/pki/pki.h"

namespace {

using drx::SignedPtr;

using OctsPtr = drx::AsnPtr<DorvexAsnOcts, &g_itemDorvexAsnOcts>;
using TstInfoPtr = drx::AsnPtr<DorvexTimestampInfo, &g_itemDorvexTimestampInfo>;

bool InternalSameBytes(const uint8_t *a, uint32_t aLen, const uint8_t *b, uint32_t bLen) {
    return aLen == bLen && (aLen == 0 || (a != nullptr && b != nullptr && memcmp(a, b, aLen) == 0));
}

// InternalVerifyTstInfo: the imprint must hash the signer's signature value
// (RFC 3161 2.4.2, appendix A); on success verifyTime is the
// token's genTime.
uint32_t InternalVerifyTstInfo(DorvexVrfCtx *ctx, const DorvexPkcs7SignedInfo *signerInfo,
                               const uint8_t *tst, uint32_t tstLen) {
    void *record = nullptr;
    uint32_t used = 0;
    uint32_t ret = DorvexAsnDecode(tst, tstLen, &g_itemDorvexTimestampInfo, 0, &record, &used);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to decode TSTInfo.");
        return ret;
    }
    TstInfoPtr info(static_cast<DorvexTimestampInfo *>(record));
    const int32_t hashAlg = DorvexGetHashAoidFromSign(&info->messageImprint.hashAlgorithm);
    if (hashAlg == AOID_UNKNOWN) {
        DORVEX_LOG_ERR(DORVEX_ERR_TS_HASH_ALG, "Unsupported hash algorithm of timestamp imprint.");
        return DORVEX_ERR_TS_HASH_ALG;
    }
    uint8_t digest[DORVEX_MD_MAX_LEN] = {};
    uint32_t digestLen = 0;
    const DorvexAsnOcts &signature = signerInfo->signature;
    ret = InternalHashContent(signature.data, signature.len, static_cast<uint32_t>(hashAlg), digest,
                              &digestLen);
    if (ret != DORVEX_OK) {
        return ret;
    }
    const DorvexAsnOcts &imprint = info->messageImprint.hashedMessage;
    if (!InternalSameBytes(digest, digestLen, imprint.data, imprint.len)) {
        DORVEX_LOG_ERR(DORVEX_ERR_TS_MISMATCH, "the timestamp not match with target cms.");
        return DORVEX_ERR_TS_MISMATCH;
    }
    DorvexDatetime genTime{};
    ret = DorvexConvertFromGenTime(&info->genTime, &genTime);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Invalid generation time of timestamp.");
        return ret;
    }
    ctx->verifyTime = DorvexMktime(&genTime);
    return DORVEX_OK;
}

// InternalVerifyAttributeSign: the token's signer signed its attributes,
// whose message digest must be that of the TSTInfo (RFC 5652 5.4).
uint32_t InternalVerifyAttributeSign(const DorvexPkcs7SignedInfo *tsSigner,
                                     const DorvexX509Cert *cert, const uint8_t *tst,
                                     uint32_t tstLen) {
    if (tsSigner->signedAttrsRaw.data == nullptr || tsSigner->signedAttrsRaw.len == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE, "Message digest without signed attributes.");
        return DORVEX_ERR_PKCS7_DECODE;
    }
    uint32_t verified = 0;
    uint32_t ret = DorvexPkcs7DetachedSignatureVerify(tsSigner, cert, &verified);
    // As for the signer: a label that does not fit the authority's key, or
    // an ECDSA value that is no DER, is named as such.
    if (ret == DORVEX_ERR_SIGN_ALG || ret == DORVEX_ERR_SIG_ENCODING) {
        DORVEX_LOG_ERR(ret, "Timestamp signature is refused.");
        return ret;
    }
    if (ret != DORVEX_OK || verified != 1) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGNATURE,
                       "Signature over timestamp attributes does not verify.");
        return DORVEX_ERR_SIGNATURE;
    }
    DorvexMdInfo expected{};
    ret = InternalGetDigestFromSignerInfo(tsSigner, &expected);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint8_t digest[DORVEX_MD_MAX_LEN] = {};
    uint32_t digestLen = 0;
    ret = InternalHashContent(tst, tstLen, expected.hashAlg, digest, &digestLen);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "verify timestamp digest failed.");
        return ret;
    }
    if (!InternalSameBytes(digest, digestLen, expected.expectedDigest,
                           expected.expectedDigestLen)) {
        DORVEX_LOG_ERR(DORVEX_ERR_TS_SIGNATURE, "verify timestamp signature failed.");
        return DORVEX_ERR_TS_SIGNATURE;
    }
    return DORVEX_OK;
}

// InternalCheckEssCertId: an ESS signing-certificate attribute must name the
// certificate that verified the token (RFC 2634 5.4, RFC 5035), so a token
// cannot claim one authority while another signed it. Absent attributes
// are fine; each one present must match.
uint32_t InternalCheckEssCertId(const DorvexPkcs7SignedInfo *tsSigner, const DorvexX509Cert *cert) {
    const DorvexAsnOcts *values[] = {&tsSigner->signedAttrs.signingCertificate,
                                     &tsSigner->signedAttrs.signingCertificateV2};
    for (uint32_t v2 = 0; v2 < 2; ++v2) {
        if (values[v2]->len == 0) {
            continue;
        }
        int32_t hashAlg = AOID_UNKNOWN;
        DorvexAsnOcts certHash{};
        uint32_t ret = DorvexPkcs7EssCertHash(values[v2], v2, &hashAlg, &certHash);
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Signing-certificate attribute does not decode.");
            return ret;
        }
        if (hashAlg != AOID_SHA1 && hashAlg != AOID_SHA256 && hashAlg != AOID_SHA384 &&
            hashAlg != AOID_SHA512) {
            DORVEX_LOG_ERR(DORVEX_ERR_TS_HASH_ALG, "Unsupported hash of signing certificate.");
            return DORVEX_ERR_TS_HASH_ALG;
        }
        uint8_t digest[DORVEX_MD_MAX_LEN] = {};
        uint32_t digestLen = 0;
        ret = InternalHashContent(cert->raw.data, cert->raw.len, static_cast<uint32_t>(hashAlg),
                                  digest, &digestLen);
        if (ret != DORVEX_OK) {
            return ret;
        }
        if (!InternalSameBytes(digest, digestLen, certHash.data, certHash.len)) {
            DORVEX_LOG_ERR(DORVEX_ERR_TS_CERT_NOT_FOUND,
                           "Timestamp names another signing certificate.");
            return DORVEX_ERR_TS_CERT_NOT_FOUND;
        }
    }
    return DORVEX_OK;
}

// InternalVerifyTsSignerInfo: the authority's certificate, judged at the
// generation time just set, its signature over the signed attributes, which
// must hash the TSTInfo, and the certificate the attributes name.
uint32_t InternalVerifyTsSignerInfo(DorvexVrfCtx *ctx, const DorvexPkcs7SignedInfo *tsSigner,
                                    const uint8_t *tst, uint32_t tstLen) {
    DorvexX509Cert *cert = DorvexPkiFindCertByIssuerSn(ctx, &tsSigner->issuerAndSerial.issuer,
                                                       &tsSigner->issuerAndSerial.serialNumber);
    if (cert == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_TS_CERT_NOT_FOUND, "Can't find certificate of timestamp signer.");
        return DORVEX_ERR_TS_CERT_NOT_FOUND;
    }
    uint32_t ret = InternalVerifyIssuerCert(ctx, cert, DRX_EXKU_TIME_STAMPING);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to verify certificate of timestamp signer.");
        return ret;
    }
    // The signer's form check has made sure there are signed attributes: a
    // TSTInfo is no id-data content (RFC 5652 5.3).
    ret = InternalVerifyAttributeSign(tsSigner, cert, tst, tstLen);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to verify timestamp attributes.");
        return ret;
    }
    return InternalCheckEssCertId(tsSigner, cert);
}

}  // namespace

uint32_t InternalVerifyTimeStamp(DorvexVrfCtx *ctx, const DorvexPkcs7SignedInfo *signerInfo) {
    if (ctx == nullptr || signerInfo == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    // No presence test of its own: an absent token is an empty input, which
    // the decoder refuses with DORVEX_ERR_PARAM.
    const DorvexAsnOcts &token = signerInfo->unsignedAttrs.timestampToken;
    DorvexPkcs7Content *decoded = nullptr;
    uint32_t used = 0;
    uint32_t ret = DorvexPkcs7DecodeSigned(token.data, token.len, &decoded, &used);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to decode timestamp token.");
        return ret;
    }
    SignedPtr tsContent(decoded);
    const DorvexPkcs7SignedData &signedData = tsContent->signedData;
    // RFC 3161 2.4.2: the token encapsulates a TSTInfo, and its signer is
    // what makes the time trustworthy; the imprint alone anyone can write.
    if (DorvexFindAoid(&signedData.contentInfo.contentType) != AOID_CT_TSTINFO) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE, "Timestamp token does not hold a TSTInfo.");
        return DORVEX_ERR_PKCS7_DECODE;
    }
    const DorvexPkcs7SignedInfoBundle &signers = signedData.signerInfos;
    if (signers.count == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_TS_SIGNATURE, "Timestamp token carries no signer.");
        return DORVEX_ERR_TS_SIGNATURE;
    }
    for (uint32_t i = 0; i < signers.count && i < DRX_PKCS7_MAX_SIGNERS; ++i) {
        ret = InternalCheckSignerForm(&signers.signerInfo[i], &signedData.contentInfo.contentType);
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Timestamp signer is not well formed.");
            return ret;
        }
    }
    // eContent [0] holds an OCTET STRING whose content is the TSTInfo DER.
    const DorvexAsnOcts &econtent = signedData.contentInfo.content;
    void *record = nullptr;
    ret = DorvexAsnDecode(econtent.data, econtent.len, &g_itemDorvexAsnOcts, 0, &record, &used);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to decode content of timestamp token.");
        return ret;
    }
    OctsPtr tstInfo(static_cast<DorvexAsnOcts *>(record));
    ret = InternalVerifyTstInfo(ctx, signerInfo, tstInfo->data, tstInfo->len);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to verify TSTInfo.");
        return ret;
    }
    ret = InternalAddCertToStore(ctx, &signedData.certList, false);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to add certificates of timestamp token.");
        return ret;
    }
    for (uint32_t i = 0; i < signers.count && i < DRX_PKCS7_MAX_SIGNERS; ++i) {
        ret = InternalVerifyTsSignerInfo(ctx, &signers.signerInfo[i], tstInfo->data, tstInfo->len);
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Failed to verify timestamp signer.");
            return ret;
        }
    }
    return DORVEX_OK;
}
