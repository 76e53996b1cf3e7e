// RSA signature checks over keys taken from decoded certificates.
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

// DorvexX509IsSelfSigned: *result 1 when subject equals issuer and the
// certificate's signature verifies with its own key; the finding is cached in
// cert->issuerCert, so a second call checks no signature.
uint32_t DorvexX509IsSelfSigned(DorvexX509Cert *cert, uint32_t *result);

#ifdef __cplusplus
}
#endif

#endif  // CMS_ASN1_PUBKEY_H
