// Signature checks: signature label -> scheme, decoded key -> provider key
// (built once per certificate) -> provider verify sequence. The arithmetic
// and padding are the provider's.
#include "cms/asn1/pubkey.h"

#include <cstddef>
#include <cstring>

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

// RSASSA-PSS-params (RFC 4055 3.1), every field under its EXPLICIT tag:
//     hashAlgorithm     [0] AlgorithmIdentifier DEFAULT sha1,
//     maskGenAlgorithm  [1] AlgorithmIdentifier DEFAULT mgf1SHA1,
//     saltLength        [2] INTEGER DEFAULT 20,
//     trailerField      [3] INTEGER DEFAULT 1
struct PssParams {
    DorvexX509AlgoIdentifier hash;
    DorvexX509AlgoIdentifier mgf;
    DorvexAsnBigint salt;     // tagCode 0 when absent
    DorvexAsnBigint trailer;  // tagCode 0 when absent
};

constexpr uint16_t kOptInt = DRX_ASN_OPTIONAL | DRX_ASN_SIGNED_INT;
constexpr DorvexAsnTempl g_templPssParams[] = {
    {&g_itemDorvexX509AlgoIdentifier, 0, DRX_ASN_TAG_EXPLICIT, DRX_ASN_OPTIONAL,
     offsetof(PssParams, hash), 0},
    {&g_itemDorvexX509AlgoIdentifier, 1, DRX_ASN_TAG_EXPLICIT, DRX_ASN_OPTIONAL,
     offsetof(PssParams, mgf), 0},
    {&g_itemDorvexAsnBigint, 2, DRX_ASN_TAG_EXPLICIT, kOptInt, offsetof(PssParams, salt), 0},
    {&g_itemDorvexAsnBigint, 3, DRX_ASN_TAG_EXPLICIT, kOptInt, offsetof(PssParams, trailer), 0},
};
constexpr DorvexAsnItem g_itemPssParams = {
    g_templPssParams, &g_drxAsnFuncSeq, DRX_ASN_CLASS_UNIVERSAL, 1, DRX_ASN_SEQUENCE, 4,
    sizeof(PssParams)};

// Absent or NULL, the two forms RFC 4055 2.1 allows for a SHA-2 identifier.
bool NoParameters(const DorvexAsnOcts &params) {
    return params.tagCode == 0 ||
           (params.tagClass == DRX_ASN_CLASS_UNIVERSAL && params.tagCode == 5 && params.len == 0);
}

// A small non-negative INTEGER as encoded (minimal: the decoder saw to it).
bool SmallInt(const DorvexAsnBigint &value, uint32_t max, uint32_t *out) {
    if (value.len == 0 || value.len > 2 || (value.data[0] & 0x80) != 0) {
        return false;
    }
    uint32_t n = 0;
    for (uint32_t i = 0; i < value.len; ++i) {
        n = n << 8 | value.data[i];
    }
    *out = n;
    return n <= max;
}

// The MGF1 parameters: the content of an AlgorithmIdentifier SEQUENCE that
// holds exactly the digest's identifier, with or without NULL.
bool Mgf1Names(const DorvexAsnOcts &params, const DorvexAsnOcts &hashOid) {
    if (params.tagClass != DRX_ASN_CLASS_UNIVERSAL || params.tagCode != DRX_ASN_SEQUENCE ||
        params.constructed != 1 || hashOid.len > 0x7f) {
        return false;
    }
    const uint32_t oidLen = 2 + hashOid.len;
    if (params.len != oidLen && params.len != oidLen + 2) {
        return false;
    }
    const uint8_t *p = params.data;
    return p[0] == DRX_ASN_OID && p[1] == hashOid.len &&
           memcmp(p + 2, hashOid.data, hashOid.len) == 0 &&
           (params.len == oidLen || (p[oidLen] == 0x05 && p[oidLen + 1] == 0x00));
}

uint32_t ReadPssScheme(const DorvexAsnOcts &params, DorvexSignScheme *out) {
    // The parameters are a SEQUENCE whose content the identifier captured;
    // decode it again under its header. Real ones take some 60 bytes.
    if (params.tagClass != DRX_ASN_CLASS_UNIVERSAL || params.tagCode != DRX_ASN_SEQUENCE ||
        params.constructed != 1 || params.len == 0 || params.len >= 0x80) {
        return DORVEX_ERR_SIGN_ALG;
    }
    constexpr uint32_t header = 2;
    uint8_t whole[header + 0x7f];
    whole[0] = 0x30;
    whole[1] = static_cast<uint8_t>(params.len);
    memcpy(whole + header, params.data, params.len);
    void *block = nullptr;
    uint32_t used = 0;
    if (DorvexAsnDecode(whole, header + params.len, &g_itemPssParams, 0, &block, &used) !=
        DORVEX_OK) {
        return DORVEX_ERR_SIGN_ALG;
    }
    PssParams pss = *static_cast<PssParams *>(block);
    DorvexAsnFree(block, &g_itemPssParams);
    if (used != header + params.len) {
        return DORVEX_ERR_SIGN_ALG;
    }
    const int32_t hash = DorvexFindAoid(&pss.hash.algorithm);
    uint32_t salt = 20;
    uint32_t trailer = 1;
    if ((hash != AOID_SHA256 && hash != AOID_SHA384 && hash != AOID_SHA512) ||
        !NoParameters(pss.hash.parameters) || DorvexFindAoid(&pss.mgf.algorithm) != AOID_MGF1 ||
        !Mgf1Names(pss.mgf.parameters, pss.hash.algorithm) ||
        (pss.salt.tagCode != 0 && !SmallInt(pss.salt, DORVEX_BIGINT_MAX_LEN, &salt)) ||
        (pss.trailer.tagCode != 0 && !SmallInt(pss.trailer, 1, &trailer)) || trailer != 1) {
        return DORVEX_ERR_SIGN_ALG;
    }
    *out = DorvexSignScheme{DRX_SIG_RSA_PSS, static_cast<uint32_t>(hash), salt};
    return DORVEX_OK;
}

// The key of a certificate, built at its first use and kept in the record
// (const to its readers: the cache changes no decoded field).
uint32_t CertKey(const DorvexX509Cert &cert, const DorvexPkey **key) {
    if (cert.key == nullptr) {
        if (cert.certInfo.subjectPublicKeyInfo.keyType != DRX_KEY_RSA) {
            return DORVEX_ERR_PUBKEY_TYPE;
        }
        DorvexBigInt exponent;
        DorvexBigInt modulus;
        uint32_t ret = DorvexX509ExtractPublicKey(&cert, &exponent, &modulus);
        if (ret == DORVEX_OK) {
            ret = DorvexPkeyFromRsa(&exponent, &modulus, &const_cast<DorvexX509Cert &>(cert).key);
        }
        if (ret != DORVEX_OK) {
            return ret;
        }
    }
    *key = cert.key;
    return DORVEX_OK;
}

// One provider verify sequence over `data`: a fresh context, set up by
// `init`, fed the data, then asked about the signature.
template <typename Init>
uint32_t RunVerify(Init init, const uint8_t *data, uint32_t dataLength, const uint8_t *signature,
                   uint32_t signatureLength, uint32_t *result) {
    DorvexCryptoVerifyCtx *created = nullptr;
    uint32_t ret = DorvexCryptoVerifyCreateCtx(&created);
    const drx::VerifyCtxPtr verify(created);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint32_t verdict = 0;
    ret = init(verify.get());
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
    if (cert->certInfo.subjectPublicKeyInfo.keyType == DRX_KEY_EC) {
        return DORVEX_ERR_PUBKEY_TYPE;
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
    return RunVerify(
        [&](DorvexCryptoVerifyCtx *ctx) {
            return DorvexCryptoVerifyInit(ctx, &exponent, &modulus, static_cast<uint32_t>(digest));
        },
        data, dataLength, signature, signatureLength, result);
}

extern "C" uint32_t DorvexX509ExtractEcPublicKey(const DorvexX509Cert *cert, int32_t *curve,
                                                 DorvexBigInt *point) {
    if (cert == nullptr || curve == nullptr || point == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const DorvexX509PubkeyInfo &info = cert->certInfo.subjectPublicKeyInfo;
    if (info.keyType != DRX_KEY_EC) {
        return DORVEX_ERR_PUBKEY_TYPE;
    }
    *curve = info.curve;
    return CopyKeyPart(point, info.keyBits);
}

extern "C" uint32_t DorvexX509GetSignScheme(const DorvexX509AlgoIdentifier *label,
                                            DorvexSignScheme *out) {
    if (label == nullptr || out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const int32_t aoid = DorvexFindAoid(&label->algorithm);
    if (aoid == AOID_RSASSA_PSS) {
        return ReadPssScheme(label->parameters, out);
    }
    struct Row {
        int32_t label;
        uint32_t scheme;
        uint32_t hash;
    };
    // RFC 5758 3.2: the ECDSA labels carry no parameters at all.
    constexpr Row kRows[] = {
        {AOID_SHA256WITHRSAENCRYPTION, DRX_SIG_RSA_PKCS1, AOID_SHA256},
        {AOID_SHA384WITHRSAENCRYPTION, DRX_SIG_RSA_PKCS1, AOID_SHA384},
        {AOID_SHA512WITHRSAENCRYPTION, DRX_SIG_RSA_PKCS1, AOID_SHA512},
        {AOID_ECDSA_WITH_SHA256, DRX_SIG_ECDSA, AOID_SHA256},
        {AOID_ECDSA_WITH_SHA384, DRX_SIG_ECDSA, AOID_SHA384},
        {AOID_ECDSA_WITH_SHA512, DRX_SIG_ECDSA, AOID_SHA512},
    };
    for (const Row &row : kRows) {
        if (row.label == aoid && (row.scheme != DRX_SIG_ECDSA || label->parameters.tagCode == 0)) {
            *out = DorvexSignScheme{row.scheme, row.hash, 0};
            return DORVEX_OK;
        }
    }
    return DORVEX_ERR_SIGN_ALG;
}

extern "C" uint32_t DorvexX509CertVerifyInit(DorvexCryptoVerifyCtx *ctx, const DorvexX509Cert *cert,
                                             const DorvexSignScheme *scheme) {
    if (ctx == nullptr || cert == nullptr || scheme == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const DorvexPkey *key = nullptr;
    const uint32_t ret = CertKey(*cert, &key);
    if (ret != DORVEX_OK) {
        return ret;
    }
    return DorvexCryptoVerifyInitKey(ctx, key, scheme->scheme, scheme->hashAlg, scheme->saltLength);
}

extern "C" uint32_t DorvexX509CertSignVerify(const uint8_t *data, uint32_t dataLength,
                                             const uint8_t *signature, uint32_t signatureLength,
                                             const DorvexX509Cert *cert,
                                             const DorvexX509AlgoIdentifier *label,
                                             uint32_t *result) {
    if (data == nullptr || signature == nullptr || cert == nullptr || result == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    DorvexSignScheme scheme{};
    uint32_t ret = DorvexX509GetSignScheme(label, &scheme);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGN_ALG, "Unsupported signature algorithm.");
        return ret;
    }
    return RunVerify(
        [&](DorvexCryptoVerifyCtx *ctx) { return DorvexX509CertVerifyInit(ctx, cert, &scheme); },
        data, dataLength, signature, signatureLength, result);
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
    uint32_t ret =
        DorvexX509CertSignVerify(cert->tbsRaw.data, cert->tbsRaw.len, cert->signature.data,
                                 cert->signature.len, cert, &cert->signatureAlgorithm, &valid);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (valid == 1) {
        *result = 1;
        cert->issuerCert = cert;
    }
    return DORVEX_OK;
}
