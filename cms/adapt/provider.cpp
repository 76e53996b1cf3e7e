// SHA-2 (and, for certificate identifiers, SHA-1) digests and RSA PKCS #1
// v1.5, RSASSA-PSS and ECDSA (P-256, P-384) signature verification over
// OpenSSL 3.
#include "cms/adapt/provider.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <stdint.h>
#include <string.h>

#include <atomic>
#include <memory>
#include <type_traits>

#include "cms/adapt/adapt.h"
#include "dbglog/dbglog.h"

struct DorvexMdCtx {
    EVP_MD_CTX *mdCtx;  // null until DorvexMdInit
};

struct DorvexCryptoVerifyCtx {
    EVP_MD_CTX *mdCtx;  // null until DorvexCryptoVerifyInit
    EVP_PKEY *pkey;     // public key; null unless Init succeeded
    uint32_t scheme;    // DRX_SIG_...; 0 (a plain Init) is PKCS #1 v1.5
    uint32_t saltLength;
};

// Both records come zero-filled from DorvexMalloc and are never constructed.
static_assert(std::is_standard_layout_v<DorvexMdCtx> && std::is_trivial_v<DorvexMdCtx>);
static_assert(std::is_standard_layout_v<DorvexCryptoVerifyCtx> &&
              std::is_trivial_v<DorvexCryptoVerifyCtx>);
static_assert(std::is_standard_layout_v<DorvexBigInt> &&
              sizeof(DorvexBigInt) == 4 + DORVEX_BIGINT_MAX_LEN);

// The provider logs straight to the debug log, under its own function name.
#define DRX_PROVIDER_LOG_ERR(message) \
    DBG_Log(DBG_MODULE_VERIFY_TOOL, DBG_LEVEL_ERR, __func__, __LINE__, 0, message)

namespace {

// The library's fixed ids of the digests (AOID_SHA256/384/512 of the
// identifier table); the provider sits below that table and keeps its own copy.
constexpr uint32_t kAoidSha1 = 41;
constexpr uint32_t kAoidSha256 = 43;
constexpr uint32_t kAoidSha384 = 44;
constexpr uint32_t kAoidSha512 = 45;

struct DigestRow {
    uint32_t aoid;
    const EVP_MD *(*md)(void);
};

// The named curves accepted (AOID_PRIME256V1, AOID_SECP384R1), with
// OpenSSL's group name and the size of a coordinate.
constexpr uint32_t kAoidP256 = 71;
constexpr uint32_t kAoidP384 = 72;

struct CurveRow {
    uint32_t aoid;
    const char *group;
    uint32_t fieldBytes;
};

constexpr CurveRow g_drxCurveTable[] = {
    {kAoidP256, "prime256v1", 32},
    {kAoidP384, "secp384r1", 48},
};

constexpr DigestRow g_drxDigestTable[] = {
    {kAoidSha1, EVP_sha1},
    {kAoidSha256, EVP_sha256},
    {kAoidSha384, EVP_sha384},
    {kAoidSha512, EVP_sha512},
};

using BnPtr = drx::Owned<BIGNUM, BN_free>;
using ParamBldPtr = drx::Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using ParamPtr = drx::Owned<OSSL_PARAM, OSSL_PARAM_free>;
using PkeyCtxPtr = drx::Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;

// RSA checks carried out in this process; read only by benchmarks and tests.
std::atomic<uint64_t> g_drxRsaVerifications{0};

// InternalKeyFromParams: a public key of OpenSSL key type `type` from the
// parameters in `bld`; null when OpenSSL refuses them. The caller owns the key.
EVP_PKEY *InternalKeyFromParams(const char *type, OSSL_PARAM_BLD *bld) {
    ParamPtr params(OSSL_PARAM_BLD_to_param(bld));
    PkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    if (params == nullptr || pctx == nullptr || EVP_PKEY_fromdata_init(pctx.get()) != 1) {
        return nullptr;
    }
    EVP_PKEY *pkey = nullptr;
    if (EVP_PKEY_fromdata(pctx.get(), &pkey, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
        EVP_PKEY_free(pkey);
        return nullptr;
    }
    return pkey;
}

// InternalBuildRsaKey: an RSA public key (plain RSA, so PKCS #1 v1.5
// padding applies, never PSS) from big-endian exponent and modulus bytes;
// null when a length is out of range or OpenSSL fails. The caller owns the key.
EVP_PKEY *InternalBuildRsaKey(const DorvexBigInt &exponent, const DorvexBigInt &modulus) {
    // The record holds DORVEX_BIGINT_MAX_LEN bytes whatever its length field says.
    if (exponent.len > DORVEX_BIGINT_MAX_LEN || modulus.len > DORVEX_BIGINT_MAX_LEN) {
        return nullptr;
    }
    BnPtr n(BN_bin2bn(modulus.data, static_cast<int>(modulus.len), nullptr));
    BnPtr e(BN_bin2bn(exponent.data, static_cast<int>(exponent.len), nullptr));
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (n == nullptr || e == nullptr || bld == nullptr ||
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
        return nullptr;
    }
    return InternalKeyFromParams("RSA", bld.get());
}

// InternalPointFormOk: 04 X Y or 02/03 X with coordinates of the curve's size.
bool InternalPointFormOk(const uint8_t *point, uint32_t length, uint32_t fieldBytes) {
    if (point == nullptr || length == 0) {
        return false;
    }
    if (point[0] == 0x04) {
        return length == 1 + 2 * fieldBytes;
    }
    return (point[0] == 0x02 || point[0] == 0x03) && length == 1 + fieldBytes;
}

// InternalBuildEcKey: the point as a key of `group`, checked to lie on the
// curve (and, for compressed points, to have one); null otherwise.
EVP_PKEY *InternalBuildEcKey(const char *group, const uint8_t *point, uint32_t length) {
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (bld == nullptr ||
        OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0) != 1 ||
        OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, point, length) != 1) {
        return nullptr;
    }
    EVP_PKEY *pkey = InternalKeyFromParams("EC", bld.get());
    if (pkey == nullptr) {
        return nullptr;
    }
    // fromdata reads the point; the full check (on the curve, not the point
    // at infinity) is asked for separately.
    PkeyCtxPtr check(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr));
    if (check == nullptr || EVP_PKEY_public_check(check.get()) != 1) {
        EVP_PKEY_free(pkey);
        return nullptr;
    }
    return pkey;
}

// InternalDerIntegerOk: one INTEGER of an Ecdsa-Sig-Value at sig[*pos]:
// short-form length, minimal and positive content of at most fieldBytes
// octets (plus a zero octet before a high bit).
bool InternalDerIntegerOk(const uint8_t *sig, uint32_t end, uint32_t *pos, uint32_t fieldBytes) {
    if (end - *pos < 3 || sig[*pos] != 0x02 || sig[*pos + 1] >= 0x80) {
        return false;
    }
    const uint32_t len = sig[*pos + 1];
    const uint8_t *content = sig + *pos + 2;
    if (len == 0 || len > end - *pos - 2 || len > fieldBytes + 1 || (content[0] & 0x80) != 0 ||
        (len > 1 && content[0] == 0 && (content[1] & 0x80) == 0)) {
        return false;
    }
    *pos += 2 + len;
    return true;
}

// InternalEcdsaDerOk: SEQUENCE { r INTEGER, s INTEGER } in strict DER and
// nothing after it. Values of at most 2 * 49 + 6 bytes have a short-form length.
bool InternalEcdsaDerOk(const uint8_t *sig, uint32_t length, uint32_t fieldBytes) {
    if (length < 2 || sig[0] != 0x30 || sig[1] >= 0x80 || sig[1] != length - 2) {
        return false;
    }
    uint32_t pos = 2;
    return InternalDerIntegerOk(sig, length, &pos, fieldBytes) &&
           InternalDerIntegerOk(sig, length, &pos, fieldBytes) && pos == length;
}

// InternalExponentUsable: odd, 3 <= e <= 2^32+1. Real keys use 65537 (and
// a few 3); a larger exponent only makes each check slower, an even one or
// 1 is no RSA key.
bool InternalExponentUsable(const DorvexBigInt &exponent) {
    constexpr uint64_t kMaxExponent = (uint64_t{1} << 32) + 1;
    uint32_t start = 0;
    while (start < exponent.len && exponent.data[start] == 0) {
        ++start;
    }
    if (exponent.len - start > sizeof(uint64_t)) {
        return false;
    }
    uint64_t value = 0;
    for (uint32_t i = start; i < exponent.len; ++i) {
        value = value << 8 | exponent.data[i];
    }
    return value >= 3 && value <= kMaxExponent && (value & 1) == 1;
}

// Significant bits of a big-endian magnitude.
uint32_t InternalBitLength(const DorvexBigInt &n) {
    uint32_t i = 0;
    while (i < n.len && n.data[i] == 0) {
        ++i;
    }
    if (i == n.len) {
        return 0;
    }
    uint32_t bits = (n.len - i) * 8;
    for (uint8_t top = n.data[i]; (top & 0x80) == 0; top = static_cast<uint8_t>(top << 1)) {
        --bits;
    }
    return bits;
}

// InternalDigestStarted: whether the digest context exists and has been
// started (EVP_DigestFinal resets it, so it also answers false after Final).
bool InternalDigestStarted(const EVP_MD_CTX *mdCtx) {
    return mdCtx != nullptr && EVP_MD_CTX_get0_md(mdCtx) != nullptr;
}

// InternalPkeyVerify: the digest so far, checked against `signature` by the
// context's scheme (PSS with MGF1 of the same digest and the given salt
// length). 1 for a good signature.
int InternalPkeyVerify(DorvexCryptoVerifyCtx *ctx, const uint8_t *signature, uint32_t length) {
    const EVP_MD *md = EVP_MD_CTX_get0_md(ctx->mdCtx);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (md == nullptr || EVP_DigestFinal_ex(ctx->mdCtx, digest, &digestLength) != 1) {
        return 0;
    }
    PkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_pkey(nullptr, ctx->pkey, nullptr));
    if (pctx == nullptr || EVP_PKEY_verify_init(pctx.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(pctx.get(), md) != 1) {
        return 0;
    }
    if (ctx->scheme == DRX_SIG_RSA_PSS &&
        (EVP_PKEY_CTX_set_rsa_padding(pctx.get(), RSA_PKCS1_PSS_PADDING) != 1 ||
         EVP_PKEY_CTX_set_rsa_mgf1_md(pctx.get(), md) != 1 ||
         EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx.get(), static_cast<int>(ctx->saltLength)) != 1)) {
        return 0;
    }
    return EVP_PKEY_verify(pctx.get(), signature, length, digest, digestLength);
}

// InternalRsaVerify: a modulus-length RSA signature by the context's scheme.
int InternalRsaVerify(DorvexCryptoVerifyCtx *ctx, const uint8_t *signature, uint32_t length) {
    if (ctx->scheme == DRX_SIG_RSA_PSS) {
        return InternalPkeyVerify(ctx, signature, length);
    }
    return EVP_VerifyFinal_ex(ctx->mdCtx, signature, length, ctx->pkey, nullptr, nullptr);
}

}  // namespace

extern "C" const EVP_MD *DrxGetOpensslEvpmd(uint32_t hashAlgorithm) {
    for (const auto &row : g_drxDigestTable) {
        if (row.aoid == hashAlgorithm) {
            return row.md();
        }
    }
    return nullptr;
}

extern "C" uint32_t DrxOpensslInit(void) {
    constexpr uint64_t kInit = OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ADD_ALL_CIPHERS |
                               OPENSSL_INIT_NO_ADD_ALL_DIGESTS |
                               OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS;
    return OPENSSL_init_crypto(kInit, nullptr) == 1 ? DORVEX_OK : DORVEX_ERR_MALLOC;
}

extern "C" void DrxOpensslUnint(void) {}

extern "C" uint64_t DrxBenchRsaVerifyCount(void) {
    return g_drxRsaVerifications.load(std::memory_order_relaxed);
}

// ---- Digest context --------------------------------------------------------

extern "C" uint32_t DorvexMdCreateCtx(DorvexMdCtx **out) {
    if (out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    void *block = nullptr;
    uint32_t ret = DorvexMalloc(&block, sizeof(DorvexMdCtx));
    if (ret != DORVEX_OK) {
        return ret;
    }
    *out = static_cast<DorvexMdCtx *>(block);
    return DORVEX_OK;
}

extern "C" uint32_t DorvexMdInit(DorvexMdCtx *ctx, uint32_t hashAlgorithm) {
    if (ctx == nullptr) {
        return DORVEX_FAIL;
    }
    // A second Init starts over rather than leaking the first digest context.
    EVP_MD_CTX_free(ctx->mdCtx);
    ctx->mdCtx = EVP_MD_CTX_new();
    if (ctx->mdCtx == nullptr) {
        DRX_PROVIDER_LOG_ERR("Failed to connect handler with hash algo.");
        return DORVEX_FAIL;
    }
    EVP_MD_CTX_reset(ctx->mdCtx);
    const EVP_MD *md = DrxGetOpensslEvpmd(hashAlgorithm);
    if (md == nullptr) {
        DRX_PROVIDER_LOG_ERR("Failed to get openssl evp handler.");
        return DORVEX_FAIL;
    }
    if (EVP_DigestInit_ex(ctx->mdCtx, md, nullptr) != 1) {
        DRX_PROVIDER_LOG_ERR("Failed to connect handler with hash algo.");
        return DORVEX_FAIL;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexMdUpdate(DorvexMdCtx *ctx, const uint8_t *data, uint32_t length) {
    if (ctx == nullptr) {
        return DORVEX_FAIL;
    }
    if (data == nullptr || length == 0) {
        return DORVEX_OK;
    }
    // An unstarted context has no update function to call.
    if (!InternalDigestStarted(ctx->mdCtx) || EVP_DigestUpdate(ctx->mdCtx, data, length) != 1) {
        DRX_PROVIDER_LOG_ERR("Failed to update handler.");
        return DORVEX_FAIL;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexMdFinal(DorvexMdCtx *ctx, uint8_t *digest, uint32_t *digestLength,
                                  uint32_t *digestCapacity) {
    if (ctx == nullptr || digest == nullptr || digestLength == nullptr ||
        digestCapacity == nullptr) {
        return DORVEX_FAIL;
    }
    // Callers pass 64 bytes, enough for every digest here; a smaller
    // capacity is refused rather than overrun.
    if (!InternalDigestStarted(ctx->mdCtx) ||
        static_cast<uint64_t>(EVP_MD_CTX_get_size(ctx->mdCtx)) > *digestCapacity ||
        EVP_DigestFinal(ctx->mdCtx, digest, digestLength) != 1) {
        DRX_PROVIDER_LOG_ERR("Failed to get final md.");
        return DORVEX_FAIL;
    }
    return DORVEX_OK;
}

extern "C" void DorvexMdDestoryCtx(DorvexMdCtx *ctx) {
    if (ctx == nullptr) {
        return;
    }
    EVP_MD_CTX_free(ctx->mdCtx);
    DorvexFree(ctx);
}

// ---- Keys ------------------------------------------------------------------

// A DorvexPkey is OpenSSL's key itself; the type never leaves this file.
namespace {
EVP_PKEY *AsEvp(const DorvexPkey *key) {
    return reinterpret_cast<EVP_PKEY *>(const_cast<DorvexPkey *>(key));
}
}  // namespace

extern "C" uint32_t DorvexPkeyFromRsa(const DorvexBigInt *exponent, const DorvexBigInt *modulus,
                                      DorvexPkey **out) {
    if (exponent == nullptr || modulus == nullptr || out == nullptr) {
        return DORVEX_FAIL;
    }
    *out = nullptr;
    if (exponent->len > DORVEX_BIGINT_MAX_LEN || !InternalExponentUsable(*exponent)) {
        DRX_PROVIDER_LOG_ERR("RSA public exponent out of range.");
        return DORVEX_ERR_PUBKEY_EXPONENT;
    }
    if (modulus->len <= DORVEX_BIGINT_MAX_LEN &&
        InternalBitLength(*modulus) < DORVEX_RSA_MIN_BITS) {
        DRX_PROVIDER_LOG_ERR("RSA modulus below 2048 bits.");
        return DORVEX_ERR_PUBKEY_TOO_SHORT;
    }
    EVP_PKEY *pkey = InternalBuildRsaKey(*exponent, *modulus);
    if (pkey == nullptr) {
        ERR_clear_error();
        DRX_PROVIDER_LOG_ERR("Failed to build rsa public key.");
        return DORVEX_FAIL;
    }
    *out = reinterpret_cast<DorvexPkey *>(pkey);
    return DORVEX_OK;
}

extern "C" uint32_t DorvexPkeyFromEcPoint(uint32_t curveAoid, const uint8_t *point, uint32_t length,
                                          DorvexPkey **out) {
    if (out == nullptr) {
        return DORVEX_FAIL;
    }
    *out = nullptr;
    const CurveRow *curve = nullptr;
    for (const auto &row : g_drxCurveTable) {
        if (row.aoid == curveAoid) {
            curve = &row;
        }
    }
    if (curve == nullptr) {
        DRX_PROVIDER_LOG_ERR("EC key on a curve other than P-256 and P-384.");
        return DORVEX_ERR_PUBKEY_CURVE;
    }
    EVP_PKEY *pkey = InternalPointFormOk(point, length, curve->fieldBytes)
                         ? InternalBuildEcKey(curve->group, point, length)
                         : nullptr;
    if (pkey == nullptr) {
        ERR_clear_error();
        DRX_PROVIDER_LOG_ERR("EC public key is no point of its curve.");
        return DORVEX_ERR_PUBKEY_POINT;
    }
    *out = reinterpret_cast<DorvexPkey *>(pkey);
    return DORVEX_OK;
}

extern "C" uint32_t DorvexPkeyType(const DorvexPkey *key) {
    if (key == nullptr) {
        return 0;
    }
    switch (EVP_PKEY_get_base_id(AsEvp(key))) {
        case EVP_PKEY_RSA:
            return DRX_KEY_RSA;
        case EVP_PKEY_EC:
            return DRX_KEY_EC;
        default:
            return 0;
    }
}

extern "C" void DorvexPkeyFree(DorvexPkey *key) {
    EVP_PKEY_free(AsEvp(key));
}

// ---- Signature-verification context ---------------------------------------

extern "C" uint32_t DorvexCryptoVerifyCreateCtx(DorvexCryptoVerifyCtx **out) {
    if (out == nullptr) {
        return DORVEX_FAIL;
    }
    void *block = nullptr;
    if (DorvexMalloc(&block, sizeof(DorvexCryptoVerifyCtx)) != DORVEX_OK) {
        return DORVEX_FAIL;
    }
    *out = static_cast<DorvexCryptoVerifyCtx *>(block);
    return DORVEX_OK;
}

extern "C" uint32_t DorvexCryptoVerifyInit(DorvexCryptoVerifyCtx *ctx, const DorvexBigInt *exponent,
                                           const DorvexBigInt *modulus, uint32_t hashAlgorithm) {
    if (ctx == nullptr || exponent == nullptr || modulus == nullptr) {
        return DORVEX_FAIL;
    }
    // A second Init starts over rather than leaking the first key and digest.
    EVP_PKEY_free(ctx->pkey);
    ctx->pkey = nullptr;
    EVP_MD_CTX_free(ctx->mdCtx);
    ctx->mdCtx = nullptr;

    if (exponent->len > DORVEX_BIGINT_MAX_LEN || !InternalExponentUsable(*exponent)) {
        DRX_PROVIDER_LOG_ERR("RSA public exponent out of range.");
        return DORVEX_ERR_PUBKEY_EXPONENT;
    }
    if (modulus->len <= DORVEX_BIGINT_MAX_LEN &&
        InternalBitLength(*modulus) < DORVEX_RSA_MIN_BITS) {
        DRX_PROVIDER_LOG_ERR("RSA modulus below 2048 bits.");
        return DORVEX_ERR_PUBKEY_TOO_SHORT;
    }
    // SHA-1 is there for certificate identifiers, never for signatures.
    if (hashAlgorithm == kAoidSha1) {
        DRX_PROVIDER_LOG_ERR("Failed to get algo handler.");
        return DORVEX_FAIL;
    }
    ctx->scheme = DRX_SIG_RSA_PKCS1;
    ctx->pkey = InternalBuildRsaKey(*exponent, *modulus);
    if (ctx->pkey == nullptr) {
        ERR_clear_error();
        DRX_PROVIDER_LOG_ERR("Failed to build rsa public key.");
        return DORVEX_FAIL;
    }
    const EVP_MD *md = DrxGetOpensslEvpmd(hashAlgorithm);
    if (md == nullptr) {
        DRX_PROVIDER_LOG_ERR("Failed to get algo handler.");
        EVP_PKEY_free(ctx->pkey);
        ctx->pkey = nullptr;
        return DORVEX_FAIL;
    }
    // The digest context stays in the record on failure; Destroy frees it.
    ctx->mdCtx = EVP_MD_CTX_new();
    if (ctx->mdCtx == nullptr || EVP_DigestInit_ex(ctx->mdCtx, md, nullptr) != 1) {
        DRX_PROVIDER_LOG_ERR("Failed to bind algo handler to ctx.");
        EVP_PKEY_free(ctx->pkey);
        ctx->pkey = nullptr;
        return DORVEX_FAIL;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexCryptoVerifyInitKey(DorvexCryptoVerifyCtx *ctx, const DorvexPkey *key,
                                              uint32_t scheme, uint32_t hashAlgorithm,
                                              uint32_t saltLength) {
    if (ctx == nullptr || key == nullptr) {
        return DORVEX_FAIL;
    }
    EVP_PKEY_free(ctx->pkey);
    ctx->pkey = nullptr;
    EVP_MD_CTX_free(ctx->mdCtx);
    ctx->mdCtx = nullptr;
    const uint32_t type = DorvexPkeyType(key);
    const bool fits =
        (type == DRX_KEY_RSA && (scheme == DRX_SIG_RSA_PKCS1 || scheme == DRX_SIG_RSA_PSS)) ||
        (type == DRX_KEY_EC && scheme == DRX_SIG_ECDSA);
    if (!fits) {
        DRX_PROVIDER_LOG_ERR("Signature algorithm does not fit the key.");
        return DORVEX_ERR_SIGN_ALG;
    }
    const EVP_MD *md = hashAlgorithm == kAoidSha1 ? nullptr : DrxGetOpensslEvpmd(hashAlgorithm);
    if (md == nullptr || EVP_PKEY_up_ref(AsEvp(key)) != 1) {
        DRX_PROVIDER_LOG_ERR("Failed to get algo handler.");
        return DORVEX_FAIL;
    }
    ctx->pkey = AsEvp(key);
    ctx->scheme = scheme;
    ctx->saltLength = saltLength;
    ctx->mdCtx = EVP_MD_CTX_new();
    if (ctx->mdCtx == nullptr || EVP_DigestInit_ex(ctx->mdCtx, md, nullptr) != 1) {
        DRX_PROVIDER_LOG_ERR("Failed to bind algo handler to ctx.");
        EVP_PKEY_free(ctx->pkey);
        ctx->pkey = nullptr;
        return DORVEX_FAIL;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexCryptoVerifyUpdate(DorvexCryptoVerifyCtx *ctx, const uint8_t *data,
                                             uint32_t length) {
    if (ctx == nullptr) {
        return DORVEX_FAIL;
    }
    if (!InternalDigestStarted(ctx->mdCtx) || (data == nullptr && length != 0) ||
        EVP_DigestUpdate(ctx->mdCtx, data, length) != 1) {
        DRX_PROVIDER_LOG_ERR("Failed to update signature data.");
        return DORVEX_FAIL;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexCryptoVerifyFinal(DorvexCryptoVerifyCtx *ctx, const uint8_t *signature,
                                            uint32_t signatureLength, uint32_t *valid) {
    if (ctx == nullptr) {
        return DORVEX_FAIL;
    }
    if (ctx->pkey == nullptr || valid == nullptr || signature == nullptr ||
        !InternalDigestStarted(ctx->mdCtx)) {
        return DORVEX_FAIL;
    }
    int rc = 0;
    if (ctx->scheme == DRX_SIG_ECDSA) {
        const int bits = EVP_PKEY_get_bits(ctx->pkey);
        if (bits <= 0) {
            return DORVEX_FAIL;
        }
        // OpenSSL's own decoder is lenient in places; only what DER allows
        // reaches it.
        if (!InternalEcdsaDerOk(signature, signatureLength,
                                (static_cast<uint32_t>(bits) + 7) / 8)) {
            DRX_PROVIDER_LOG_ERR("ECDSA signature is no strict DER.");
            return DORVEX_ERR_SIG_ENCODING;
        }
        rc = InternalPkeyVerify(ctx, signature, signatureLength);
        *valid = rc == 1 ? 1u : 0u;
        if (rc != 1) {
            ERR_clear_error();
        }
        return DORVEX_OK;
    }
    // Encoders may drop a signature's leading zero bytes, while OpenSSL wants
    // exactly the modulus length: put them back, whatever the modulus.
    const int keyBytes = EVP_PKEY_get_size(ctx->pkey);
    if (keyBytes <= 0) {
        return DORVEX_FAIL;
    }
    const auto modulusLength = static_cast<uint32_t>(keyBytes);
    if (signatureLength > modulusLength) {
        rc = 0;  // longer than the modulus: no valid signature, nothing to read
    } else if (signatureLength == modulusLength) {
        rc = InternalRsaVerify(ctx, signature, signatureLength);
    } else {
        void *block = nullptr;
        if (DorvexMalloc(&block, modulusLength) != DORVEX_OK || block == nullptr) {
            return DORVEX_FAIL;
        }
        auto *padded = static_cast<uint8_t *>(block);
        const uint32_t zeros = modulusLength - signatureLength;
        memset(padded, 0, zeros);
        memcpy(padded + zeros, signature, signatureLength);
        rc = InternalRsaVerify(ctx, padded, modulusLength);
        DorvexFree(block);
    }
    g_drxRsaVerifications.fetch_add(1, std::memory_order_relaxed);
    // A bad signature and an OpenSSL error are the same verdict; leave no
    // stale errors behind for the next OpenSSL user in this thread.
    *valid = rc == 1 ? 1u : 0u;
    if (rc != 1) {
        ERR_clear_error();
    }
    return DORVEX_OK;
}

extern "C" void DorvexCryptoVerifyDestroyCtx(DorvexCryptoVerifyCtx *ctx) {
    if (ctx == nullptr) {
        return;
    }
    EVP_MD_CTX_free(ctx->mdCtx);
    EVP_PKEY_free(ctx->pkey);
    DorvexFree(ctx);
}
