// RSA signature checks: decoded key -> provider big integers -> provider
// verify sequence. The arithmetic and padding are the provider's.
#include "cms/asn1/pubkey.h"

#include "cms/adapt/adapt.h"
#include "cms/asn1/oid.h"
#include "platform/securec.h"

namespace {

// Copies one key part for DorvexX509ExtractPublicKey.
uint32_t CopyKeyPart(DorvexBigInt *out, const DorvexAsnBigint &part) {
    out->len = part.len;
    if (part.len > DORVEX_BIGINT_MAX_LEN) {
        DORVEX_LOG_ERR(DORVEX_ERR_PUBKEY_TOO_LONG, "%s", "");
        return DORVEX_ERR_PUBKEY_TOO_LONG;
    }
    if (part.len == 0) {
        return DORVEX_OK;
    }
    return static_cast<uint32_t>(memcpy_s(out->data, sizeof out->data, part.data, part.len));
}

}  // namespace

extern "C" uint32_t InternalGetBigIntFromOcts(DorvexBigInt *out, uint32_t length,
                                              const uint8_t *data) {
    if (length > DORVEX_BIGINT_MAX_LEN) {
        DORVEX_LOG_ERR(DORVEX_FAIL, "Unsupported key length %d", static_cast<int>(length * 8));
        return DORVEX_ERR_PARAM;
    }
    out->len = length;
    if (length == 0) {
        return DORVEX_OK;
    }
    return static_cast<uint32_t>(memcpy_s(out->data, sizeof out->data, data, length));
}

extern "C" uint32_t DorvexX509ExtractPublicKey(const DorvexX509Cert *cert, DorvexBigInt *exponent,
                                               DorvexBigInt *modulus) {
    if (cert == nullptr || exponent == nullptr || modulus == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const DorvexRsaPublicKey &key = cert->certInfo.subjectPublicKeyInfo.subjectPublicKey;
    uint32_t ret = CopyKeyPart(exponent, key.publicExponent);
    if (ret != DORVEX_OK) {
        return ret;
    }
    return CopyKeyPart(modulus, key.modulus);
}

extern "C" uint32_t DorvexX509PubKeyVerify(const uint8_t *data, uint32_t dataLength,
                                           const uint8_t *signature, uint32_t signatureLength,
                                           const DorvexRsaPublicKey *key,
                                           const DorvexX509AlgoIdentifier *algorithm,
                                           uint32_t *result) {
    if (data == nullptr || signature == nullptr || key == nullptr || result == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    // Only RSA with SHA-2, the one kind of key there is: a SHA-1, bare-digest
    // or unknown label is refused before the key is touched.
    const int32_t digest = DorvexGetRsaSignHashAoid(algorithm);
    if (digest == AOID_UNKNOWN) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGN_ALG, "Unsupported signature algorithm.");
        return DORVEX_ERR_SIGN_ALG;
    }
    DorvexBigInt exponent;
    DorvexBigInt modulus;
    uint32_t ret =
        InternalGetBigIntFromOcts(&exponent, key->publicExponent.len, key->publicExponent.data);
    if (ret != DORVEX_OK) {
        return ret;
    }
    ret = InternalGetBigIntFromOcts(&modulus, key->modulus.len, key->modulus.data);
    if (ret != DORVEX_OK) {
        return ret;
    }
    DorvexCryptoVerifyCtx *created = nullptr;
    ret = DorvexCryptoVerifyCreateCtx(&created);
    const drx::VerifyCtxPtr verify(created);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint32_t verdict = 0;
    ret = DorvexCryptoVerifyInit(verify.get(), &exponent, &modulus, static_cast<uint32_t>(digest));
    if (ret == DORVEX_OK) {
        ret = DorvexCryptoVerifyUpdate(verify.get(), data, dataLength);
    }
    if (ret == DORVEX_OK) {
        ret = DorvexCryptoVerifyFinal(verify.get(), signature, signatureLength, &verdict);
    }
    if (ret != DORVEX_OK) {
        return ret;
    }
    *result = verdict;
    return DORVEX_OK;
}

extern "C" uint32_t DorvexX509IsSelfSigned(DorvexX509Cert *cert, uint32_t *result) {
    if (cert == nullptr || result == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    *result = 0;
    if (cert->issuerCert == cert) {
        *result = 1;
        return DORVEX_OK;
    }
    if (DorvexCompareX509Name(&cert->certInfo.subject, &cert->certInfo.issuer) != 0) {
        return DORVEX_OK;
    }
    uint32_t valid = 0;
    uint32_t ret = DorvexX509PubKeyVerify(
        cert->tbsRaw.data, cert->tbsRaw.len, cert->signature.data, cert->signature.len,
        &cert->certInfo.subjectPublicKeyInfo.subjectPublicKey, &cert->signatureAlgorithm, &valid);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (valid == 1) {
        *result = 1;
        cert->issuerCert = cert;
    }
    return DORVEX_OK;
}
