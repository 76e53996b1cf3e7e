// Signature checks (RSA PKCS #1 v1.5 and PSS, ECDSA on P-256 and P-384)
// over keys taken from decoded certificates.
#ifndef CMS_ASN1_PUBKEY_H
#define CMS_ASN1_PUBKEY_H

#include <stdint.h>

#include "cms/adapt/provider.h"
#include "cms/asn1/x509.h"

#ifdef __cplusplus
extern "C" {
#endif

// InternalGetBigIntFromOcts: copies `length` big-endian bytes into `out`.
// DORVEX_ERR_PARAM (and an "Unsupported key length" report in bits) above
// DORVEX_BIGINT_MAX_LEN bytes; the copy routine's code if the copy fails.
uint32_t InternalGetBigIntFromOcts(DorvexBigInt *out, uint32_t length, const uint8_t *data);

// DorvexX509ExtractPublicKey: the certificate's RSA exponent and modulus, in
// that order. DORVEX_ERR_PARAM for a missing argument, DORVEX_ERR_PUBKEY_TOO_LONG
// for a part over DORVEX_BIGINT_MAX_LEN (1024) bytes.
uint32_t DorvexX509ExtractPublicKey(const DorvexX509Cert *cert, DorvexBigInt *exponent,
                                    DorvexBigInt *modulus);

// DorvexX509PubKeyVerify: checks an RSA PKCS #1 v1.5 signature over `data`
// with `key`, the digest taken from `algorithm`. Returns 0 with *result 1 for
// a valid and 0 for an invalid signature (an invalid signature is no error);
// DORVEX_ERR_PARAM for missing arguments, DORVEX_ERR_SIGN_ALG when the
// algorithm is not RSA with SHA-2, the provider's code when it fails.
uint32_t DorvexX509PubKeyVerify(const uint8_t *data, uint32_t dataLength, const uint8_t *signature,
                                uint32_t signatureLength, const DorvexRsaPublicKey *key,
                                const DorvexX509AlgoIdentifier *algorithm, uint32_t *result);

// DorvexX509ExtractEcPublicKey: the certificate's EC point as encoded and
// its curve (AOID_PRIME256V1 or AOID_SECP384R1). DORVEX_ERR_PARAM for a
// missing argument, DORVEX_ERR_PUBKEY_TYPE when the key is no EC key
// (DorvexX509ExtractPublicKey answers the same for an EC key).
uint32_t DorvexX509ExtractEcPublicKey(const DorvexX509Cert *cert, int32_t *curve,
                                      DorvexBigInt *point);

// What a signature label asks for: a DRX_SIG_... scheme, its digest
// (AOID_SHA256/384/512) and, for PSS, the salt length in bytes.
typedef struct DorvexSignScheme {
    uint32_t scheme;
    uint32_t hashAlg;
    uint32_t saltLength;
} DorvexSignScheme;

// DorvexX509GetSignScheme: reads a signature label: sha256/384/512 with
// RSA, ecdsa-with-SHA256/384/512, or RSASSA-PSS with RFC 4055 parameters
// that name SHA-256/384/512 (never the SHA-1 default), MGF1 with that same
// digest, a salt length of 0 to 1024 bytes (20 when absent) and trailer 1.
// DORVEX_ERR_SIGN_ALG for anything else.
uint32_t DorvexX509GetSignScheme(const DorvexX509AlgoIdentifier *label, DorvexSignScheme *out);

// DorvexX509CertVerifyInit: starts `ctx` on a check with the certificate's
// key by `scheme`. The key is built once per certificate record and shared
// (an RSA key at this first use, with the provider's size and exponent
// codes). DORVEX_ERR_SIGN_ALG when the scheme does not fit the key.
uint32_t DorvexX509CertVerifyInit(DorvexCryptoVerifyCtx *ctx, const DorvexX509Cert *cert,
                                  const DorvexSignScheme *scheme);

// DorvexX509CertSignVerify: checks `signature` over `data` with the key of
// `cert` by `label` (DorvexX509GetSignScheme). Returns 0 with *result 1 for
// a valid and 0 for an invalid signature; the codes of the two functions
// above, and DORVEX_ERR_SIG_ENCODING for an ECDSA value that is no strict DER.
uint32_t DorvexX509CertSignVerify(const uint8_t *data, uint32_t dataLength,
                                  const uint8_t *signature, uint32_t signatureLength,
                                  const DorvexX509Cert *cert, const DorvexX509AlgoIdentifier *label,
                                  uint32_t *result);

// DorvexX509IsSelfSigned: *result 1 when subject equals issuer and the
// certificate's signature verifies with its own key; the finding is cached in
// cert->issuerCert, so a second call checks no signature.
uint32_t DorvexX509IsSelfSigned(DorvexX509Cert *cert, uint32_t *result);

#ifdef __cplusplus
}
#endif

#endif  // CMS_ASN1_PUBKEY_H
