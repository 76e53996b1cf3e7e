// Crypto provider of the CMS library: SHA-2 digests and RSA (PKCS #1 v1.5,
// RSASSA-PSS) and ECDSA (P-256, P-384) signature verification over OpenSSL
// libcrypto.
//
// This is the only code of the library that touches OpenSSL. Callers work
// with the library's algorithm ids (AOID_SHA256/384/512) and byte buffers;
// the contexts are opaque and no OpenSSL type appears in their interface.
//
// Both contexts are used in the order Create, Init, Update (any number of
// times), Final, Destroy. The owner always calls Destroy, also after a
// failed Init, Update or Final; a context is not reusable after Final.
// Apart from DorvexMdCreateCtx, the functions answer 0 or DORVEX_FAIL (-1)
// and log their own failures through DBG_Log (DBG_MODULE_VERIFY_TOOL, level error).
#ifndef CMS_ADAPT_PROVIDER_H
#define CMS_ADAPT_PROVIDER_H

#include <stdint.h>

#include "cms/base/dorvex_errno.h"

#ifdef __cplusplus
extern "C" {
#endif

// Largest RSA modulus or exponent, in bytes (8192 bits), and the smallest
// modulus accepted, in bits: keys below 2048 bits are too weak to trust.
#define DORVEX_BIGINT_MAX_LEN 1024u
#define DORVEX_RSA_MIN_BITS 2048u

// Big-endian magnitude of an RSA modulus or exponent: the first `len`
// bytes of `data` are significant.
typedef struct DorvexBigInt {
    uint32_t len;  // at most DORVEX_BIGINT_MAX_LEN
    uint8_t data[DORVEX_BIGINT_MAX_LEN];
} DorvexBigInt;

typedef struct DorvexMdCtx DorvexMdCtx;
typedef struct DorvexCryptoVerifyCtx DorvexCryptoVerifyCtx;

// ---- Digest context --------------------------------------------------------

// DorvexMdCreateCtx: a new, zero-filled digest context in *out.
// DORVEX_ERR_PARAM for a null `out`, DORVEX_ERR_MALLOC when memory runs out.
uint32_t DorvexMdCreateCtx(DorvexMdCtx **out);

// DorvexMdInit: starts a digest of `hashAlgorithm` (AOID_SHA256, AOID_SHA384
// or AOID_SHA512); -1 for a null context or any other id.
uint32_t DorvexMdInit(DorvexMdCtx *ctx, uint32_t hashAlgorithm);

// DorvexMdUpdate: hashes `length` bytes of `data`. Null data or a length of
// 0 does nothing and succeeds. -1 for a null or unstarted context.
uint32_t DorvexMdUpdate(DorvexMdCtx *ctx, const uint8_t *data, uint32_t length);

// DorvexMdFinal: writes the digest (32, 48 or 64 bytes) to `digest` and its
// length to *digestLength. *digestCapacity is the size of `digest`; callers
// pass 64, which fits every digest here. -1 for a null argument, an
// unstarted context or a capacity below the digest's length.
uint32_t DorvexMdFinal(DorvexMdCtx *ctx, uint8_t *digest, uint32_t *digestLength,
                       uint32_t *digestCapacity);

// DorvexMdDestoryCtx: releases the context in any state; null is ignored.
void DorvexMdDestoryCtx(DorvexMdCtx *ctx);

// ---- Signature-verification context ---------------------------------------

// DorvexCryptoVerifyCreateCtx: a new, zero-filled verification context in
// *out; -1 for a null `out` or when memory runs out.
uint32_t DorvexCryptoVerifyCreateCtx(DorvexCryptoVerifyCtx **out);

// DorvexCryptoVerifyInit: sets the RSA public key (exponent first, modulus
// second; each at most 1024 bytes) and starts hashing with `hashAlgorithm`
// (AOID_SHA256/384/512). The exponent must be odd and between 3 and
// 2^32+1, as real keys have it, so no key can make a check expensive:
// DORVEX_ERR_PUBKEY_EXPONENT; a modulus below 2048 bits gives
// DORVEX_ERR_PUBKEY_TOO_SHORT. -1 on any other failure; the context then
// holds no key.
uint32_t DorvexCryptoVerifyInit(DorvexCryptoVerifyCtx *ctx, const DorvexBigInt *exponent,
                                const DorvexBigInt *modulus, uint32_t hashAlgorithm);

// DorvexCryptoVerifyUpdate: hashes `length` bytes of the signed data.
// -1 for a null or unstarted context, or null data with a non-zero length.
uint32_t DorvexCryptoVerifyUpdate(DorvexCryptoVerifyCtx *ctx, const uint8_t *data, uint32_t length);

// DorvexCryptoVerifyFinal: checks an RSA PKCS #1 v1.5 signature over the
// data hashed so far. Returns 0 when the check was carried out, with *valid
// 1 for a good signature and 0 otherwise (a bad signature is no failure).
// A signature shorter than the modulus gets zero bytes in front, so one
// that lost its leading zero bytes is checked at the modulus length again;
// a longer one is no valid signature.
// -1 for a null context, key, signature or `valid`, or when the padded copy
// cannot be made; *valid is then untouched.
uint32_t DorvexCryptoVerifyFinal(DorvexCryptoVerifyCtx *ctx, const uint8_t *signature,
                                 uint32_t signatureLength, uint32_t *valid);

// DorvexCryptoVerifyDestroyCtx: releases the context in any state; null is ignored.
void DorvexCryptoVerifyDestroyCtx(DorvexCryptoVerifyCtx *ctx);

// ---- Keys built once and signature schemes ---------------------------------

// A public key ready for checks (OpenSSL's EVP_PKEY underneath), built once
// and shared by every check with it; the builder's caller frees it.
typedef struct DorvexPkey DorvexPkey;

// Kinds of key, and how a signature is made with them.
#define DRX_KEY_RSA 1u
#define DRX_KEY_EC 2u
#define DRX_SIG_RSA_PKCS1 1u  // RSA PKCS #1 v1.5
#define DRX_SIG_RSA_PSS 2u    // RSASSA-PSS, MGF1 with the message digest, trailer 0xbc
#define DRX_SIG_ECDSA 3u      // ECDSA, value a DER Ecdsa-Sig-Value

// DorvexPkeyFromRsa: an RSA key from exponent and modulus, refused as
// DorvexCryptoVerifyInit refuses it (DORVEX_ERR_PUBKEY_EXPONENT,
// DORVEX_ERR_PUBKEY_TOO_SHORT, -1).
uint32_t DorvexPkeyFromRsa(const DorvexBigInt *exponent, const DorvexBigInt *modulus,
                           DorvexPkey **out);

// DorvexPkeyFromEcPoint: a key on the named curve `curveAoid` (AOID_PRIME256V1
// or AOID_SECP384R1) from an encoded point (04 X Y, or 02/03 X).
// DORVEX_ERR_PUBKEY_CURVE for any other curve, DORVEX_ERR_PUBKEY_POINT for a
// point of the wrong length or form, or not on the curve.
uint32_t DorvexPkeyFromEcPoint(uint32_t curveAoid, const uint8_t *point, uint32_t length,
                               DorvexPkey **out);

// DorvexPkeyType: DRX_KEY_RSA or DRX_KEY_EC; 0 for none.
uint32_t DorvexPkeyType(const DorvexPkey *key);

// DorvexPkeyFree: releases a key; null is ignored.
void DorvexPkeyFree(DorvexPkey *key);

// DorvexCryptoVerifyInitKey: like DorvexCryptoVerifyInit, with a built key
// (the context takes its own reference) and a scheme DRX_SIG_... that must
// fit the key (DORVEX_ERR_SIGN_ALG otherwise). `saltLength` is the PSS salt
// length in bytes, unused by the other schemes. Final then checks the value
// by that scheme; an ECDSA value that is no strict DER Ecdsa-Sig-Value
// (minimal positive integers of at most the curve's size, nothing after
// them) gives DORVEX_ERR_SIG_ENCODING there, before OpenSSL reads it.
uint32_t DorvexCryptoVerifyInitKey(DorvexCryptoVerifyCtx *ctx, const DorvexPkey *key,
                                   uint32_t scheme, uint32_t hashAlgorithm, uint32_t saltLength);

// ---- Mapping and teardown --------------------------------------------------

struct evp_md_st;  // OpenSSL's EVP_MD

// DrxGetOpensslEvpmd: OpenSSL's digest for AOID_SHA1 (digests only, for
// ESS certificate identifiers) and AOID_SHA256/384/512, null for any other id.
const struct evp_md_st *DrxGetOpensslEvpmd(uint32_t hashAlgorithm);

// DrxOpensslInit: the set-up a program calls before any other OpenSSL call.
// A verdict must not depend on a file outside the package: left to itself,
// OpenSSL reads its system configuration (openssl.cnf, or the file
// OPENSSL_CONF names) at the first digest, and that file can load or drop
// providers. The library looks up no algorithm by name and prints no OpenSSL
// error text, so the name tables and error strings are not built either: a
// small check is mostly start-up. DORVEX_OK, or DORVEX_ERR_MALLOC: running out
// of memory is the only way OpenSSL's set-up fails.
uint32_t DrxOpensslInit(void);

// DrxOpensslUnint: teardown hook of the provider. OpenSSL 3 needs no global
// set-up or teardown from us, so it does nothing.
void DrxOpensslUnint(void);

// ---- For benchmarks and tests only -------------------------------------------

// DrxBenchRsaVerifyCount: how many RSA signature checks DorvexCryptoVerifyFinal
// has carried out in this process so far (good and bad signatures alike;
// refused calls do not count), so a benchmark can print what one package
// check costs. Nothing in the library reads it.
uint64_t DrxBenchRsaVerifyCount(void);

#ifdef __cplusplus
}

#include "cms/base/owned.h"

namespace drx {
using MdCtxPtr = Owned<DorvexMdCtx, DorvexMdDestoryCtx>;
using VerifyCtxPtr = Owned<DorvexCryptoVerifyCtx, DorvexCryptoVerifyDestroyCtx>;
}  // namespace drx
#endif

#endif  // CMS_ADAPT_PROVIDER_H
